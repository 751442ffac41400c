// Several threads search while one ingests, for a bounded number of rounds. Every answer must
// be well formed: ranks 1..n, scores in order, identifiers that were ingested. Run under
// ThreadSanitizer by the test script.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/system_fixture.h"

namespace {

TEST(Concurrency, SearchesWhileOneThreadIngests) {
    constexpr uint32_t kRows = 1200;
    constexpr int kSearchers = 3;
    orve_test::system_block b;
    auto* sys = b.get();
    ASSERT_EQ(orve_test::create_with_capacity(sys, "2000"), 0);
    const auto vecs = orve_test::gaussian_vectors(kRows, 60);
    const auto queries = orve_test::gaussian_vectors(16, 61);

    std::atomic<uint32_t> ingested{0};
    std::atomic<bool> failed{false};
    std::thread writer([&] {
        for (uint32_t r = 0; r < kRows; ++r) {
            if (semantic_vector_indexing_system_add_embedding_orve512(sys, r + 1, &vecs[r * 512]) !=
                0) {
                failed = true;
                return;
            }
            ingested.store(r + 1, std::memory_order_release);
        }
    });
    std::vector<std::thread> searchers;
    for (int t = 0; t < kSearchers; ++t) {
        searchers.emplace_back([&, t] {
            for (int round = 0; round < 60; ++round) {
                const uint32_t before = ingested.load(std::memory_order_acquire);
                auto q = orve_test::int8_query(&queries[((t * 7 + round) % 16) * 512], 10);
                vector_similarity_result res[10];
                uint32_t n = 0;
                if (semantic_vector_indexing_system_search_similar(sys, &q, res, &n) != 0) {
                    failed = true;
                    return;
                }
                const uint32_t after = ingested.load(std::memory_order_acquire);
                if (n > 10 || n < std::min<uint32_t>(before, 10)) failed = true;
                for (uint32_t i = 0; i < n; ++i) {
                    if (res[i].rank != i + 1 || res[i].node_id == 0 || res[i].node_id > after + 1 ||
                        (i > 0 && res[i - 1].similarity < res[i].similarity)) {
                        failed = true;
                    }
                }
            }
        });
    }
    writer.join();
    for (auto& s : searchers) s.join();
    EXPECT_FALSE(failed.load());
    uint32_t nodes, clusters;
    float avg, sil;
    ASSERT_EQ(semantic_vector_indexing_system_get_stats(sys, &nodes, &clusters, &avg, &sil), 0);
    EXPECT_EQ(nodes, kRows);
}

TEST(Concurrency, BruteForceSearchesWhileTheSlabsAreDropped) {
    // The front end's guard reads the drop flag and the slab pointer without the lock while
    // another thread drops them: every search either runs (0) or is refused (-7).
    orve_test::system_block b;
    auto* sys = b.get();
    ASSERT_EQ(orve_test::create_with_capacity(sys, "2000"), 0);
    const auto vecs = orve_test::gaussian_vectors(200, 62);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), 200), 200);
    testing::internal::CaptureStderr();
    std::atomic<bool> bad{false}, refused{false};
    std::thread searcher([&] {
        for (int round = 0; round < 400 && !refused.load(); ++round) {
            auto q = orve_test::int8_query(&vecs[(round % 200) * 512], 3);
            vector_similarity_result r[3];
            uint32_t n = 0;
            const int rc = semantic_vector_indexing_system_search_similar(sys, &q, r, &n);
            if (rc == -7) refused = true;
            if (rc != 0 && rc != -7) bad = true;
        }
    });
    EXPECT_EQ(semantic_vector_indexing_system_evict_flat_slab(sys), 0);
    searcher.join();
    testing::internal::GetCapturedStderr();
    EXPECT_FALSE(bad.load());
}

}  // namespace
