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
    constexpr uint32_t kBase = 1100, kExtra = 30;
    orve_test::system_block b;
    auto* sys = b.get();
    ASSERT_EQ(orve_test::create_with_capacity(sys, "2000"), 0);
    const auto vecs = orve_test::gaussian_vectors(kBase + kExtra, 100);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), kBase),
              static_cast<int>(kBase));
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf(sys, 8, 1), 0);
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys, 2, 4, 1), 0);

    std::atomic<bool> done{false}, bad{false};
    std::thread writer([&] {
        for (uint32_t i = 0; i < kExtra; i += 10) {
            for (uint32_t j = i; j < i + 10; ++j) {
                if (semantic_vector_indexing_system_add_embedding_orve512(
                        sys, kBase + j + 1, &vecs[(kBase + j) * 512]) != 0) {
                    bad = true;
                }
            }
            // Builds may lose the race against nothing here (one writer), so they succeed.
            if (semantic_vector_indexing_system_build_ivf(sys, 8, i + 1) != 0) bad = true;
            if (semantic_vector_indexing_system_build_ivf_level2(sys, 2, 4, i + 1) != 0) bad = true;
            if (i % 20 == 0) {  // the first and the third round
                semantic_vector_indexing_system_destroy_hivf(sys);
                semantic_vector_indexing_system_destroy_ivf(sys);
            }
        }
        done = true;
    });
    auto searcher = [&](int t) {
        int round = 0;
        while (!done.load() || round < 5) {
            auto q = orve_test::int8_query(&vecs[((round * 13 + t) % kBase) * 512], 5);
            q.use_ivf = (round % 3) != 2;
            q.n_probe = 3;
            q.use_hivf = (round % 3) == 1;
            q.n_probe_l1 = 2;
            q.n_probe_l2 = 2;
            vector_similarity_result r[5];
            uint32_t n = 0;
            if (semantic_vector_indexing_system_search_similar(sys, &q, r, &n) != 0) {
                bad = true;
            }
            for (uint32_t i = 0; i < n; ++i) {
                if (r[i].rank != i + 1 || r[i].node_id == 0 || r[i].node_id > kBase + kExtra ||
                    (i > 0 && r[i - 1].similarity < r[i].similarity)) {
                    bad = true;
                }
            }
            ++round;
        }
    };
    std::thread s1(searcher, 0), s2(searcher, 1);
    writer.join();
    s1.join();
    s2.join();
    EXPECT_FALSE(bad.load());
}

}  // namespace
