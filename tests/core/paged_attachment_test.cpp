// Writing the published H-IVF to a file, attaching files, and searching through them.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/paged_attachment.h"
#include "core/publication.h"
#include "core/system.h"
#include "search/ivf_pinned_search.h"
#include "support/system_fixture.h"

namespace {

using orve_test::create_with_capacity;
using orve_test::system_block;
using answer = std::vector<vector_similarity_result>;

constexpr uint32_t kRows = 1100;

class PagedAttachment : public ::testing::Test {
  protected:
    void SetUp() override {
        char t[] = "/tmp/orve_paged_attach_XXXXXX";
        ASSERT_NE(mkdtemp(t), nullptr);
        dir = t;
        ASSERT_EQ(create_with_capacity(sys(), "3000"), 0);
        ASSERT_EQ(semantic_vector_indexing_system_open_sidecar(sys(), (dir + "/v.sidecar").c_str()),
                  0);
        // Identifiers unlike row numbers, so the file's identifiers are really checked.
        for (uint32_t r = 0; r < kRows; ++r)
            ASSERT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys(), 50000 + 3 * r,
                                                                            &vecs[r * 512]),
                      0);
        ASSERT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys(), 4, 6, 2), 0);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
    }
    void TearDown() override {
        testing::internal::GetCapturedStdout();
        testing::internal::GetCapturedStderr();
        semantic_vector_indexing_system_destroy(sys());
        std::filesystem::remove_all(dir);
    }
    semantic_vector_indexing_system* sys() { return b.get(); }

    static vector_similarity_query hivf_query(const float* v, bool rerank) {
        auto q = orve_test::int8_query(v, 8);
        q.use_hivf = 1;
        q.n_probe_l1 = 2;
        q.n_probe_l2 = 3;
        q.rerank = rerank;
        return q;
    }
    answer search(semantic_vector_indexing_system* s, const vector_similarity_query& q) {
        answer r(q.max_results);
        uint32_t n = 0;
        EXPECT_EQ(semantic_vector_indexing_system_search_similar(s, &q, r.data(), &n), 0);
        orve_test::expect_well_formed(r.data(), n);
        r.resize(n);
        return r;
    }
    // The four queries' ids and score bits, re-ranked on odd queries.
    std::vector<std::pair<uint32_t, float>> answers() {
        std::vector<std::pair<uint32_t, float>> all;
        for (int qi = 0; qi < 4; ++qi)
            for (const auto& r : search(sys(), hivf_query(&queries[qi * 512], qi % 2)))
                all.push_back({r.node_id, r.similarity});
        return all;
    }

    system_block b;
    std::string dir;
    const std::vector<float> vecs = orve_test::gaussian_vectors(kRows, 110),
                             queries = orve_test::gaussian_vectors(4, 111);
};

// The file answers as the H-IVF did and the H-IVF gives up its rows. (A restart from the
// sidecar and the file is checked by the Python lifecycle and tool end-to-end tests.)
TEST_F(PagedAttachment, FileAnswersAsTheHivfDidAndFreesItsRows) {
    const auto before = answers();
    ASSERT_EQ(before.size(), 32u);
    const std::string ivfp = dir + "/index.ivfp";
    testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_paged(sys(), ivfp.c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[IVF_PAGED] paged index active \xE2\x80\x94 compacted slabs freed\n");
    testing::internal::CaptureStderr();
    const orve_hivf_index& live = sys()->live_hivf.load()->index;
    for (uint32_t i = 0; i < live.b1; ++i)
        EXPECT_TRUE(live.l2_indexes[i].codes == nullptr && live.l2_indexes[i].row_ids == nullptr);
    // The row-less copy never pins as current: a search that missed the file and fell to the
    // H-IVF must not take its empty scan for an answer.
    hivf_live* rowless = nullptr;
    EXPECT_EQ(hivf_rcu_pin_live(sys(), &rowless), -1);
    vector_similarity_result r[8];
    uint32_t got = 0;
    const auto hq = hivf_query(queries.data(), false);
    EXPECT_EQ(search_similar_orve512_hivf_pinned(sys(), &hq, r, &got), -1);
    EXPECT_EQ(answers(), before);
    for (const auto& r : search(sys(), hq)) EXPECT_EQ(r.cluster_id + r.node_score, 0.0f);
    auto filtered = hq;  // the cluster filter does not apply on the paged path
    filtered.cluster_filter = 7;
    EXPECT_EQ(search(sys(), filtered).size(), 8u);
    semantic_vector_indexing_system_drop_ivf_paged_cache(sys());
    semantic_vector_indexing_system_set_paged_low_memory(sys(), 1);
    EXPECT_EQ(search(sys(), hq)[0].node_id, before[0].first);
}

TEST_F(PagedAttachment, FailuresLeaveTheAttachmentAlone) {
    const std::string ivfp = dir + "/index.ivfp", junk = dir + "/junk.ivfp";
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_paged(sys(), "/nonexistent/dir/x.ivfp"),
              -1);
    EXPECT_EQ(sys()->paged, nullptr);
    EXPECT_NE(sys()->live_hivf.load()->index.l2_indexes[0].codes, nullptr);
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_paged(sys(), ivfp.c_str()), 0);
    paged_attachment* first = sys()->paged;
    std::ofstream(junk) << "this is not an index file, not even close to one";
    EXPECT_EQ(semantic_vector_indexing_system_open_ivf_paged(sys(), junk.c_str()), -1);
    EXPECT_EQ(sys()->paged, first);
    EXPECT_EQ(semantic_vector_indexing_system_open_ivf_paged(sys(), ivfp.c_str()), 0);
    EXPECT_NE(sys()->paged, first);
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_paged(nullptr, ivfp.c_str()), -1);
    EXPECT_EQ(semantic_vector_indexing_system_open_ivf_paged(sys(), nullptr), -1);

    // Without an H-IVF there is nothing to write, and the memory controls do nothing.
    std::filesystem::remove(ivfp);
    system_block none;
    ASSERT_EQ(create_with_capacity(none.get(), "10"), 0);
    testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_paged(none.get(), ivfp.c_str()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[IVF_PAGED] build_ivf_paged: no H-IVF built \xE2\x80\x94 call build_ivf_level2 "
              "first\n");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(std::filesystem::exists(ivfp));
    semantic_vector_indexing_system_drop_ivf_paged_cache(none.get());
    semantic_vector_indexing_system_set_paged_low_memory(none.get(), 1);
    semantic_vector_indexing_system_drop_ivf_paged_cache(nullptr);
}

TEST_F(PagedAttachment, FirstVersionRowsPastTheNodeTableAreSkipped) {
    // A first-version file maps row positions through the node table. Attached to an object
    // with fewer rows, the positions past its table name no node: they must not be answered
    // (nor read past the table).
    const std::string v1 = dir + "/v1.ivfp";
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_paged(sys(), (dir + "/v2.ivfp").c_str()),
              0);
    std::filesystem::copy_file(dir + "/v2.ivfp", v1);
    std::fstream(v1, std::ios::in | std::ios::out | std::ios::binary).seekp(8).put(1);
    constexpr uint32_t kFewer = 600;
    system_block small;
    ASSERT_EQ(create_with_capacity(small.get(), "3000"), 0);
    for (uint32_t r = 0; r < kFewer; ++r)
        ASSERT_EQ(semantic_vector_indexing_system_add_embedding_orve512(small.get(), 7 + r,
                                                                        &vecs[r * 512]),
                  0);
    ASSERT_EQ(semantic_vector_indexing_system_open_ivf_paged(small.get(), v1.c_str()), 0);
    auto q = hivf_query(queries.data(), false);
    q.max_results = kRows;
    q.n_probe_l1 = q.n_probe_l2 = 64;
    const auto res = search(small.get(), q);
    EXPECT_EQ(res.size(), kFewer);
    for (const auto& r : res) EXPECT_TRUE(r.node_id >= 7 && r.node_id < 7 + kFewer) << r.node_id;
}

}  // namespace
