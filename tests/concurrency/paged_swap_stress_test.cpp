// Searches on the paged path while the main thread keeps attaching files, and H-IVF scans on a
// pinned index while its rows are released to a file: a replaced handle must stay open until
// its last search ends, and released rows must stay alive for searches that pinned them. Then
// a paged search while the object's lock is held: it must not wait for the lock.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

#include "core/system.h"
#include "search/ivf_pinned_search.h"
#include "support/system_fixture.h"

namespace {

TEST(PagedStress, SearchesWhileFilesAreSwappedAndWhileTheLockIsHeld) {
    char t[] = "/tmp/orve_paged_stress_XXXXXX";
    ASSERT_NE(mkdtemp(t), nullptr);
    const std::string dir = t;
    orve_test::system_block b;
    auto* sys = b.get();
    const auto vecs = orve_test::gaussian_vectors(1000, 120);
    ASSERT_EQ(orve_test::create_with_capacity(sys, "2000"), 0);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), 1000), 1000);
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys, 2, 4, 1), 0);
    auto query = [&](int row, uint32_t k) {
        auto q = orve_test::int8_query(&vecs[row * 512], k);
        q.use_hivf = 1;
        q.n_probe_l1 = q.n_probe_l2 = 2;
        return q;
    };
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    std::atomic<bool> done{false}, bad{false};
    auto searcher = [&](int t) {
        for (int round = 0; !done.load() || round < 5; ++round) {
            const auto q = query((round * 7 + t) % 1000, 4);
            vector_similarity_result r[4];
            uint32_t n = 0;
            if (semantic_vector_indexing_system_search_similar(sys, &q, r, &n) != 0) bad = true;
            for (uint32_t i = 0; i < n; ++i)
                if (r[i].rank != i + 1 || r[i].node_id == 0 || r[i].node_id > 1000) bad = true;
            // Also scan the in-memory H-IVF directly while its rows may be moved to a file.
            if (search_similar_orve512_hivf_pinned(sys, &q, r, &n) == 0)
                for (uint32_t i = 0; i < n; ++i)
                    if (r[i].node_id == 0 || r[i].node_id > 1000) bad = true;
        }
    };
    std::thread s1(searcher, 0), s2(searcher, 1);
    for (int i = 0; i < 6; ++i) {
        // A fresh H-IVF with rows, written to a file that replaces the attached one.
        const std::string path = dir + (i % 2 ? "/a.ivfp" : "/b.ivfp");
        if (semantic_vector_indexing_system_build_ivf_level2(sys, 2, 4, i + 2) != 0 ||
            semantic_vector_indexing_system_build_ivf_paged(sys, path.c_str()) != 0 ||
            semantic_vector_indexing_system_open_ivf_paged(sys, path.c_str()) != 0)
            bad = true;
    }
    done = true;
    s1.join();
    s2.join();
    EXPECT_FALSE(bad.load());

    // Bulk loads and snapshots hold the object's lock for long stretches; the paged path, the
    // memory controls included, must not wait for it.
    pthread_mutex_lock(&sys->lock);
    auto searched = std::async(std::launch::async, [&] {
        auto q = query(5, 3);
        q.n_probe_l2 = 4;
        vector_similarity_result r[3];
        uint32_t n = 0;
        semantic_vector_indexing_system_set_paged_low_memory(sys, 1);
        semantic_vector_indexing_system_drop_ivf_paged_cache(sys);
        const int rc = semantic_vector_indexing_system_search_similar(sys, &q, r, &n);
        return rc == 0 && n == 3 && r[0].node_id == 6;
    });
    // Generous bound only to turn a deadlock into a failure instead of a hung test.
    const bool finished = searched.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
    pthread_mutex_unlock(&sys->lock);
    EXPECT_TRUE(finished) << "the paged search waited for the object's lock";
    EXPECT_TRUE(searched.get());
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    semantic_vector_indexing_system_destroy(sys);
    std::filesystem::remove_all(dir);
}

}  // namespace
