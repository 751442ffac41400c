// Brute-force searches run without the object's lock while one thread ingests and then drops
// the flat store. Each answer must be exactly the brute-force answer over some prefix of the
// rows, between the row count before the search and after it; once the store is dropped a
// search is refused with -7, and no search may read freed rows (ASan, TSan by the test script).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/system_fixture.h"

namespace {

constexpr uint32_t kRows = 1000;
constexpr uint32_t kChunk = 50;
constexpr uint32_t kK = 5;
constexpr int kQueries = 8;

uint32_t row_count(semantic_vector_indexing_system* sys) {
    uint32_t nodes, clusters;
    float avg, sil;
    return semantic_vector_indexing_system_get_stats(sys, &nodes, &clusters, &avg, &sil) == 0
               ? nodes
               : 0;
}

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
    // Every row's score per query, from a quiet object holding all the rows.
    std::vector<std::vector<vector_similarity_result>> all(kQueries);
    {
        orve_test::system_block ref;
        ASSERT_EQ(orve_test::create_with_capacity(ref.get(), "2000"), 0);
        ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(ref.get(), vecs.data(), kRows),
                  static_cast<int>(kRows));
        for (int qi = 0; qi < kQueries; ++qi) {
            auto q = orve_test::int8_query(&queries[qi * 512], kRows);
            all[qi].resize(kRows);
            uint32_t n = 0;
            ASSERT_EQ(
                semantic_vector_indexing_system_search_similar(ref.get(), &q, all[qi].data(), &n),
                0);
            ASSERT_EQ(n, kRows);
        }
    }

    orve_test::system_block b;
    auto* sys = b.get();
    ASSERT_EQ(orve_test::create_with_capacity(sys, "2000"), 0);
    std::atomic<bool> failed{false}, dropping{false}, dropped{false};
    testing::internal::CaptureStderr();
    std::atomic<uint32_t> searches{0};
    std::thread writer([&] {
        for (uint32_t r = 0; r < kRows; r += kChunk) {
            if (semantic_vector_indexing_system_load_vectors_f32(sys, &vecs[r * 512], kChunk) !=
                static_cast<int>(kChunk)) {
                failed = true;
            }
            // Some search ends between every two chunks, so the searches span the ingestion.
            const uint32_t seen = searches.load();
            while (searches.load() == seen && !failed.load()) std::this_thread::yield();
        }
        dropping = true;
        if (semantic_vector_indexing_system_evict_flat_slab(sys) != 0) failed = true;
        dropped = true;
    });
    std::vector<std::thread> searchers;
    for (int t = 0; t < 2; ++t) {
        searchers.emplace_back([&, t] {
            for (int round = 0; !failed.load(); ++round) {
                const bool last = dropped.load();
                const int qi = (t * 3 + round) % kQueries;
                const uint32_t before = row_count(sys);
                auto q = orve_test::int8_query(&queries[qi * 512], kK);
                vector_similarity_result res[kK];
                uint32_t n = 0;
                const int rc = semantic_vector_indexing_system_search_similar(sys, &q, res, &n);
                const uint32_t after = row_count(sys);
                searches.fetch_add(1);
                // Refused only once the drop has begun; after it, always refused.
                bool ok = rc == -7 ? dropping.load() : rc == 0 && !last;
                if (rc == 0) {
                    bool some_prefix = false;
                    for (uint32_t p = before; p <= after && !some_prefix; ++p) {
                        some_prefix = equals_prefix_answer(all[qi], p, res, n);
                    }
                    ok = ok && some_prefix;
                }
                if (!ok) failed = true;
                if (last) return;  // one search after the drop is enough
            }
        });
    }
    writer.join();
    for (auto& s : searchers) s.join();
    testing::internal::GetCapturedStderr();
    EXPECT_FALSE(failed.load());
}

}  // namespace
