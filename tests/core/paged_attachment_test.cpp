// Writing the published H-IVF to a file, attaching files, and searching through them.
#include <gtest/gtest.h>

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

using orve_test::system_block;

constexpr uint32_t kRows = 1100;

vector_similarity_query hivf_query(const float* v, bool rerank) {
    auto q = orve_test::int8_query(v, 8);
    q.use_hivf = 1, q.n_probe_l1 = 2, q.n_probe_l2 = 3, q.rerank = rerank;
    return q;
}

// Ids and score bits of four queries' answers (re-ranked on odd queries), checked well formed.
std::vector<std::pair<uint32_t, float>> answers(semantic_vector_indexing_system* sys,
                                                const float* queries, uint32_t k = 8) {
    std::vector<std::pair<uint32_t, float>> all;
    for (int qi = 0; qi < 4; ++qi) {
        auto q = hivf_query(&queries[qi * 512], qi % 2);
        q.max_results = k;
        q.n_probe_l1 = q.n_probe_l2 = k > 8 ? 64 : q.n_probe_l2;
        for (const auto& r : orve_test::search(sys, q)) all.push_back({r.node_id, r.similarity});
    }
    return all;
}

TEST(PagedAttachment, FileAnswersAsTheHivfDidFailuresLeaveItAloneAndOldFilesStayInBounds) {
    orve_test::scratch_dir tmp;
    const std::string dir = tmp.path(), ivfp = dir + "/index.ivfp", junk = dir + "/junk.ivfp";
    system_block b("3000"), small("3000");
    auto* sys = b.get();
    const auto vecs = orve_test::gaussian_vectors(kRows, 110);
    const auto queries = orve_test::gaussian_vectors(4, 111);
    ASSERT_EQ(semantic_vector_indexing_system_open_sidecar(sys, (dir + "/v.sidecar").c_str()), 0);
    // Identifiers unlike row numbers, so the file's identifiers are really checked.
    for (uint32_t r = 0; r < kRows; ++r)
        ASSERT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 50000 + 3 * r,
                                                                        &vecs[r * 512]),
                  0);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    // Without an H-IVF there is nothing to write.
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_paged(sys, ivfp.c_str()), -1);
    EXPECT_FALSE(std::filesystem::exists(ivfp));
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys, 4, 6, 2), 0);
    const auto before = answers(sys, queries.data());
    ASSERT_EQ(before.size(), 32u);
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_paged(sys, "/nonexistent/dir/x.ivfp"), -1);
    EXPECT_EQ(sys->paged, nullptr);  // and the H-IVF keeps its rows
    EXPECT_NE(sys->live_hivf.load()->index.l2_indexes[0].codes, nullptr);
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_paged(sys, ivfp.c_str()), 0);
    EXPECT_EQ(answers(sys, queries.data()), before);
    // The row-less copy in memory never pins as current: a scan of it is no answer.
    hivf_live* rowless = nullptr;
    EXPECT_EQ(hivf_rcu_pin_live(sys, &rowless), -1);
    vector_similarity_result r[8];
    uint32_t got = 0;
    const auto hq = hivf_query(queries.data(), false);
    EXPECT_EQ(search_similar_orve512_hivf_pinned(sys, &hq, r, &got), -1);

    // A file that is not an index leaves the attached one in place; a good one replaces it.
    paged_attachment* first = sys->paged;
    std::ofstream(junk) << "this is not an index file, not even close to one";
    EXPECT_EQ(semantic_vector_indexing_system_open_ivf_paged(sys, junk.c_str()), -1);
    EXPECT_EQ(sys->paged, first);
    EXPECT_EQ(semantic_vector_indexing_system_open_ivf_paged(sys, ivfp.c_str()), 0);
    EXPECT_NE(sys->paged, first);
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_paged(nullptr, ivfp.c_str()), -1);
    EXPECT_EQ(semantic_vector_indexing_system_open_ivf_paged(sys, nullptr), -1);

    // A first-version file maps row positions through the node table. Attached to an object
    // with fewer rows, the positions past its table name no node: they must not be answered
    // (nor read past the table). Same sections and offsets; as version 1 the file's node
    // identifiers are simply not read.
    const std::string v1 = dir + "/v1.ivfp";
    std::filesystem::copy_file(ivfp, v1);
    std::fstream(v1, std::ios::in | std::ios::out | std::ios::binary).seekp(8).put(1);
    constexpr uint32_t kFewer = 600;
    for (uint32_t r = 0; r < kFewer; ++r)
        ASSERT_EQ(semantic_vector_indexing_system_add_embedding_orve512(small.get(), 7 + r,
                                                                        &vecs[r * 512]),
                  0);
    ASSERT_EQ(semantic_vector_indexing_system_open_ivf_paged(small.get(), v1.c_str()), 0);
    const auto res = answers(small.get(), queries.data(), kRows);
    EXPECT_EQ(res.size(), 4 * kFewer);
    for (const auto& [id, score] : res) EXPECT_TRUE(id >= 7 && id < 7 + kFewer) << id;
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    semantic_vector_indexing_system_destroy(sys);
}

}  // namespace
