// Writing the published H-IVF to a file, attaching files, and searching through them.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
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

constexpr uint32_t kRows = 1100;

class PagedAttachment : public ::testing::Test {
  protected:
    void SetUp() override {
        char t[] = "/tmp/orve_paged_attach_XXXXXX";
        ASSERT_NE(mkdtemp(t), nullptr);
        dir = t;
        ivfp = dir + "/index.ivfp";
        sidecar = dir + "/vectors.sidecar";
        ASSERT_EQ(create_with_capacity(b.get(), "3000"), 0);
        ASSERT_EQ(semantic_vector_indexing_system_open_sidecar(sys(), sidecar.c_str()), 0);
        vecs = orve_test::gaussian_vectors(kRows, 110);
        // Identifiers unlike row numbers, so the file's identifiers are really checked.
        for (uint32_t r = 0; r < kRows; ++r) {
            ASSERT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys(), 50000 + 3 * r,
                                                                            &vecs[r * 512]),
                      0);
        }
        queries = orve_test::gaussian_vectors(4, 111);
    }
    void TearDown() override {
        semantic_vector_indexing_system_destroy(sys());
        for (const char* f :
             {"/index.ivfp", "/vectors.sidecar", "/other.ivfp", "/junk.ivfp", "/v1.ivfp"}) {
            unlink((dir + f).c_str());
        }
        rmdir(dir.c_str());
    }
    semantic_vector_indexing_system* sys() { return b.get(); }

    static vector_similarity_query hivf_query(const float* v, bool rerank) {
        auto q = orve_test::int8_query(v, 8);
        q.use_hivf = 1;
        q.n_probe_l1 = 2;
        q.n_probe_l2 = 3;
        q.rerank = rerank ? 1 : 0;
        return q;
    }
    // The four queries' answers, re-ranked on odd queries.
    std::vector<std::vector<vector_similarity_result>> answers() {
        std::vector<std::vector<vector_similarity_result>> all;
        for (int qi = 0; qi < 4; ++qi)
            all.push_back(search(hivf_query(&queries[qi * 512], qi % 2)));
        return all;
    }
    static void expect_same(const std::vector<std::vector<vector_similarity_result>>& a,
                            const std::vector<std::vector<vector_similarity_result>>& b) {
        ASSERT_EQ(a.size(), b.size());
        for (std::size_t qi = 0; qi < a.size(); ++qi) {
            ASSERT_EQ(a[qi].size(), b[qi].size());
            for (std::size_t i = 0; i < a[qi].size(); ++i) {
                EXPECT_EQ(a[qi][i].node_id, b[qi][i].node_id) << qi << " " << i;
                EXPECT_EQ(a[qi][i].similarity, b[qi][i].similarity) << qi << " " << i;
            }
        }
    }
    std::vector<vector_similarity_result> search(const vector_similarity_query& q) {
        std::vector<vector_similarity_result> r(q.max_results);
        uint32_t n = 0;
        EXPECT_EQ(semantic_vector_indexing_system_search_similar(sys(), &q, r.data(), &n), 0);
        r.resize(n);
        orve_test::expect_well_formed(r.data(), n);
        return r;
    }

    system_block b;
    std::string dir, ivfp, sidecar;
    std::vector<float> vecs, queries;
};

TEST_F(PagedAttachment, NoHivfMeansNoFile) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_paged(sys(), ivfp.c_str()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[IVF_PAGED] build_ivf_paged: no H-IVF built \xE2\x80\x94 call build_ivf_level2 "
              "first\n");
    struct stat st;
    EXPECT_NE(stat(ivfp.c_str(), &st), 0);
    // Memory controls without a file do nothing.
    semantic_vector_indexing_system_drop_ivf_paged_cache(sys());
    semantic_vector_indexing_system_set_paged_low_memory(sys(), 1);
    semantic_vector_indexing_system_drop_ivf_paged_cache(nullptr);
}

TEST_F(PagedAttachment, FileAnswersAsTheHivfDidAndFreesItsRows) {
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys(), 4, 6, 2), 0);
    const auto before = answers();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_paged(sys(), ivfp.c_str()), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[IVF_PAGED] paged index active \xE2\x80\x94 compacted slabs freed\n");
    ASSERT_NE(sys()->paged, nullptr);
    const orve_hivf_index& live = sys()->live_hivf.load()->index;
    for (uint32_t i = 0; i < live.b1; ++i) {
        EXPECT_EQ(live.l2_indexes[i].codes, nullptr);
        EXPECT_EQ(live.l2_indexes[i].row_ids, nullptr);
    }
    // The row-less copy never pins as current: a search that missed the file and fell to the
    // H-IVF must not take its empty scan for an answer.
    hivf_live* rowless = nullptr;
    EXPECT_EQ(hivf_rcu_pin_live(sys(), &rowless), -1);
    vector_similarity_result r[8];
    uint32_t got = 0;
    const auto hq = hivf_query(queries.data(), false);
    EXPECT_EQ(search_similar_orve512_hivf_pinned(sys(), &hq, r, &got), -1);
    const auto after = answers();
    expect_same(after, before);
    for (const auto& r : after[0]) EXPECT_EQ(r.cluster_id + r.node_score, 0.0f);
    // The cluster filter does not apply on the paged path.
    auto q = hivf_query(queries.data(), false);
    q.cluster_filter = 7;
    EXPECT_EQ(search(q).size(), before[0].size());
    semantic_vector_indexing_system_drop_ivf_paged_cache(sys());
    semantic_vector_indexing_system_set_paged_low_memory(sys(), 1);
    EXPECT_EQ(search(hivf_query(queries.data(), false))[0].node_id, before[0][0].node_id);
}

TEST_F(PagedAttachment, FailuresLeaveTheAttachmentAlone) {
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys(), 4, 6, 2), 0);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_paged(sys(), "/nonexistent/dir/x.ivfp"),
              -1);
    EXPECT_EQ(sys()->paged, nullptr);
    EXPECT_NE(sys()->live_hivf.load()->index.l2_indexes[0].codes, nullptr);
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_paged(sys(), ivfp.c_str()), 0);
    paged_attachment* first = sys()->paged;

    const std::string junk = dir + "/junk.ivfp";
    FILE* f = std::fopen(junk.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fputs("this is not an index file, not even close to one", f);
    std::fclose(f);
    EXPECT_EQ(semantic_vector_indexing_system_open_ivf_paged(sys(), junk.c_str()), -1);
    EXPECT_EQ(sys()->paged, first);
    EXPECT_EQ(semantic_vector_indexing_system_open_ivf_paged(sys(), ivfp.c_str()), 0);
    EXPECT_NE(sys()->paged, first);
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_paged(nullptr, ivfp.c_str()), -1);
    EXPECT_EQ(semantic_vector_indexing_system_open_ivf_paged(sys(), nullptr), -1);
}

TEST_F(PagedAttachment, RestartFromSidecarAndFileGivesTheSameAnswers) {
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys(), 4, 6, 2), 0);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_paged(sys(), ivfp.c_str()), 0);
    const auto before = answers();
    semantic_vector_indexing_system_destroy(sys());

    ASSERT_EQ(create_with_capacity(sys(), "3000"), 0);
    ASSERT_EQ(semantic_vector_indexing_system_open_sidecar(sys(), sidecar.c_str()), 0);
    ASSERT_EQ(semantic_vector_indexing_system_open_ivf_paged(sys(), ivfp.c_str()), 0);
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(sys()->node_count, kRows);
    expect_same(answers(), before);
}

TEST_F(PagedAttachment, FirstVersionRowsPastTheNodeTableAreSkipped) {
    // A first-version file maps row positions through the node table. Attached to an object
    // with fewer rows, the positions past its table name no node: they must not be answered
    // (nor read past the table).
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys(), 4, 6, 2), 0);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_paged(sys(), ivfp.c_str()), 0);
    // Same sections and offsets; as version 1 the node identifiers are simply not read.
    const std::string v1 = dir + "/v1.ivfp";
    std::filesystem::copy_file(ivfp, v1);
    {
        std::fstream f(v1, std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(8);
        f.put(1);
    }

    constexpr uint32_t kFewer = 600;
    system_block small;
    ASSERT_EQ(create_with_capacity(small.get(), "3000"), 0);
    for (uint32_t r = 0; r < kFewer; ++r) {
        ASSERT_EQ(semantic_vector_indexing_system_add_embedding_orve512(small.get(), 7 + r,
                                                                        &vecs[r * 512]),
                  0);
    }
    ASSERT_EQ(semantic_vector_indexing_system_open_ivf_paged(small.get(), v1.c_str()), 0);
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    auto q = hivf_query(queries.data(), false);
    q.max_results = kRows;
    q.min_similarity = -2.0f;
    q.n_probe_l1 = q.n_probe_l2 = 64;
    std::vector<vector_similarity_result> res(kRows);
    uint32_t n = 0;
    ASSERT_EQ(semantic_vector_indexing_system_search_similar(small.get(), &q, res.data(), &n), 0);
    EXPECT_EQ(n, kFewer);
    for (uint32_t i = 0; i < n; ++i) {
        EXPECT_GE(res[i].node_id, 7u);
        EXPECT_LT(res[i].node_id, 7 + kFewer);
    }
    semantic_vector_indexing_system_destroy(small.get());
}

}  // namespace
