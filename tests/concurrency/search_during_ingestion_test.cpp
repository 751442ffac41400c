// Brute-force searches run without the object's lock while one thread ingests and then drops
// the flat store. Each answer must be exactly the brute-force answer over some prefix of the
// rows, between the row count before the search and after it; once the store is dropped a
// search is refused with -7, and no search may read freed rows (ASan, TSan by the test script).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core/system.h"
#include "support/system_fixture.h"

namespace {

constexpr uint32_t kRows = 1000, kChunk = 50, kK = 5;
constexpr int kQueries = 8;

// True when `got` is the top-k of `all` (every row, best first) restricted to ids <= prefix.
bool equals_prefix_answer(const std::vector<vector_similarity_result>& all, uint32_t prefix,
                          const vector_similarity_result* got, uint32_t n) {
    uint32_t i = 0;
    for (const auto& r : all) {
        if (i == n) break;
        if (r.node_id > prefix) continue;
        if (got[i].node_id != r.node_id || got[i].similarity != r.similarity) return false;
        ++i;
    }
    return i == n && n == std::min(kK, prefix);
}

TEST(Concurrency, BruteForceDuringIngestionAndDropSeesAPrefix) {
    const auto vecs = orve_test::gaussian_vectors(kRows, 60);
    const auto queries = orve_test::gaussian_vectors(kQueries, 61);
    orve_test::system_block ref, b;
    auto* sys = b.get();
    ASSERT_EQ(orve_test::create_with_capacity(sys, "2000"), 0);
    // Every row's score per query, from a quiet object holding all the rows.
    ASSERT_EQ(orve_test::create_with_capacity(ref.get(), "2000"), 0);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(ref.get(), vecs.data(), kRows),
              1000);
    std::vector<std::vector<vector_similarity_result>> all(kQueries);
    for (int qi = 0; qi < kQueries; ++qi) {
        auto q = orve_test::int8_query(&queries[qi * 512], kRows);
        all[qi].resize(kRows);
        uint32_t n = 0;
        ASSERT_EQ(semantic_vector_indexing_system_search_similar(ref.get(), &q, all[qi].data(), &n),
                  0);
        ASSERT_EQ(n, kRows);
    }
    std::atomic<bool> failed{false}, dropping{false}, dropped{false};
    std::atomic<uint32_t> searches{0};
    testing::internal::CaptureStderr();
    std::thread writer([&] {
        for (uint32_t r = 0; r < kRows; r += kChunk) {
            if (semantic_vector_indexing_system_load_vectors_f32(sys, &vecs[r * 512], kChunk) != 50)
                failed = true;
            // Some search ends between every two chunks, so the searches span the ingestion.
            const uint32_t seen = searches.load();
            while (searches.load() == seen && !failed.load()) std::this_thread::yield();
        }
        dropping = true;
        if (semantic_vector_indexing_system_evict_flat_slab(sys) != 0) failed = true;
        dropped = true;
    });
    auto searcher = [&](int t) {
        for (int round = 0; !failed.load(); ++round) {
            const bool last = dropped.load();
            const int qi = (t * 3 + round) % kQueries;
            const uint32_t before = orve::load_node_count(sys);
            auto q = orve_test::int8_query(&queries[qi * 512], kK);
            vector_similarity_result res[kK];
            uint32_t n = 0;
            const int rc = semantic_vector_indexing_system_search_similar(sys, &q, res, &n);
            const uint32_t after = orve::load_node_count(sys);
            searches.fetch_add(1);
            // Refused only once the drop has begun; after it, always refused.
            bool ok = rc == -7 ? dropping.load() : rc == 0 && !last;
            bool some_prefix = rc != 0;
            for (uint32_t p = before; p <= after && !some_prefix; ++p)
                some_prefix = equals_prefix_answer(all[qi], p, res, n);
            if (!ok || !some_prefix) failed = true;
            if (last) return;  // one search after the drop is enough
        }
    };
    std::thread s1(searcher, 0), s2(searcher, 1);
    writer.join();
    s1.join();
    s2.join();
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(failed.load());
    // The refusals after the drop say why, on standard error.
    EXPECT_NE(log.find("[ORVE] bruteforce fallback disabled: flat slabs were dropped\n"),
              std::string::npos);
}

}  // namespace
