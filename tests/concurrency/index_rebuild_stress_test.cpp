// Searching threads on the IVF, H-IVF and brute-force paths while another thread ingests,
// rebuilds and tears down the indexes. Every answer must be well formed, and no pinned index
// may be freed under a scan (AddressSanitizer and ThreadSanitizer legs watch for that).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/system_fixture.h"

namespace {

TEST(Concurrency, SearchesWhileIndexesAreRebuiltAndRetired) {
    constexpr uint32_t kBase = 1100, kAll = 1130;
    orve_test::system_block b;
    auto* sys = b.get();
    ASSERT_EQ(orve_test::create_with_capacity(sys, "2000"), 0);
    const auto vecs = orve_test::gaussian_vectors(kAll, 100);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), kBase), 1100);
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf(sys, 8, 1), 0);
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys, 2, 4, 1), 0);
    std::atomic<bool> done{false}, bad{false};
    auto searcher = [&](int t) {
        for (int round = 0; !done.load() || round < 5; ++round) {
            auto q = orve_test::int8_query(&vecs[((round * 13 + t) % kBase) * 512], 5);
            q.use_ivf = (round % 3) != 2;
            q.use_hivf = (round % 3) == 1;
            q.n_probe = 3;
            q.n_probe_l1 = q.n_probe_l2 = 2;
            vector_similarity_result r[5];
            uint32_t n = 0;
            if (semantic_vector_indexing_system_search_similar(sys, &q, r, &n) != 0) bad = true;
            for (uint32_t i = 0; i < n; ++i) {
                if (r[i].rank != i + 1 || r[i].node_id == 0 || r[i].node_id > kAll ||
                    (i > 0 && r[i - 1].similarity < r[i].similarity))
                    bad = true;
            }
        }
    };
    std::thread s1(searcher, 0), s2(searcher, 1);
    for (uint32_t i = kBase; i < kAll; ++i) {
        if (semantic_vector_indexing_system_add_embedding_orve512(sys, i + 1, &vecs[i * 512]) != 0)
            bad = true;
        if ((i + 1) % 10 != 0) continue;
        // One writer: the builds lose no race, so they succeed.
        if (semantic_vector_indexing_system_build_ivf(sys, 8, i) != 0 ||
            semantic_vector_indexing_system_build_ivf_level2(sys, 2, 4, i) != 0)
            bad = true;
        if (i != 1119) {  // retire both indexes in the first and the third round
            semantic_vector_indexing_system_destroy_hivf(sys);
            semantic_vector_indexing_system_destroy_ivf(sys);
        }
    }
    done = true;
    s1.join();
    s2.join();
    EXPECT_FALSE(bad.load());
}

}  // namespace
