// Searches racing ingestion, index rebuilds and retirement, paged files replacing each other and
// the drop of the flat store: answers stay well formed (exact where the rows are known) and no
// search reads freed memory (the AddressSanitizer and ThreadSanitizer legs run this).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core/system.h"
#include "search/ivf_pinned_search.h"
#include "support/system_fixture.h"

namespace {

using orve_test::int8_query;

// Runs search(thread, round) on two threads, at least five rounds each, while change() runs.
template <class Search, class Change>
bool race(Search search, Change change) {
    std::atomic<bool> done{false};
    auto loop = [&](int t) {
        for (int round = 0; !done.load() || round < 5; ++round) search(t, round);
    };
    std::thread s1(loop, 0), s2(loop, 1);
    const bool ok = change();
    done = true;
    s1.join();
    s2.join();
    return ok;
}

// Ranks 1..n, ids of stored rows, scores in order.
bool well_formed(const vector_similarity_result* r, uint32_t n, uint32_t max_id) {
    for (uint32_t i = 0; i < n; ++i)
        if (r[i].rank != i + 1 || r[i].node_id == 0 || r[i].node_id > max_id ||
            (i > 0 && r[i - 1].similarity < r[i].similarity))
            return false;
    return true;
}

// The writer ingests in chunks, rebuilds both indexes, writes paged files over each other,
// retires the indexes now and then and finally drops the flat store, while searchers cycle
// brute force, the IVF, the paged file or H-IVF, and the pinned H-IVF scan; whatever they pinned
// must stay alive. Brute force takes no lock: each answer must be exactly that over some prefix
// of the rows (between the counts before and after it); from the drop on it may be refused
// with -7, and after it always is.
TEST(Concurrency, SearchesWhileRowsIndexesAndFilesChangeAndTheStoreIsDropped) {
    constexpr uint32_t kBase = 1000, kRows = 1500, kK = 5;
    orve_test::scratch_dir tmp;
    const std::string dir = tmp.path();
    const auto vecs = orve_test::gaussian_vectors(kRows, 60);
    const auto queries = orve_test::gaussian_vectors(8, 61);
    orve_test::system_block ref("2000"), b("2000");  // ref: a quiet object holding every row
    auto* sys = b.get();
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(ref.get(), vecs.data(), kRows),
              1500);
    std::vector<std::vector<vector_similarity_result>> all(8);
    for (int qi = 0; qi < 8; ++qi) {
        all[qi] = orve_test::search(ref.get(), int8_query(&queries[qi * 512], kRows));
        ASSERT_EQ(all[qi].size(), kRows);
    }
    // True when got[0..n) is the top of all[qi] restricted to ids <= prefix.
    auto prefix_answer = [&](int qi, uint32_t prefix, const vector_similarity_result* got,
                             uint32_t n) {
        uint32_t i = 0;
        for (const auto& r : all[qi]) {
            if (i == n) break;
            if (r.node_id > prefix) continue;
            if (got[i].node_id != r.node_id || got[i].similarity != r.similarity) return false;
            ++i;
        }
        return i == n && n == std::min(kK, prefix);
    };
    // An empty store answers nothing, successfully; then the rows the indexes need.
    EXPECT_TRUE(orve_test::search(sys, int8_query(queries.data(), kK)).empty());
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), kBase), 1000);
    std::atomic<bool> bad{false}, dropping{false}, dropped{false};
    std::atomic<uint32_t> searches{0};
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const bool changed = race(
        [&](int t, int round) {
            const int qi = (t * 3 + round) % 8, path = round % 4;
            const bool after_drop = dropped.load();
            const uint32_t before = orve::load_node_count(sys);
            auto q = int8_query(&queries[qi * 512], kK);
            q.use_ivf = path == 1, q.use_hivf = path == 2;
            q.n_probe = 3, q.n_probe_l1 = q.n_probe_l2 = 2;
            vector_similarity_result res[kK];
            uint32_t n = 0;
            const int rc = path == 3
                               ? search_similar_orve512_hivf_pinned(sys, &q, res, &n)
                               : semantic_vector_indexing_system_search_similar(sys, &q, res, &n);
            const uint32_t after = orve::load_node_count(sys);
            searches.fetch_add(1);
            if (rc == 0 && !well_formed(res, n, kRows)) bad = true;
            if (path == 3) return;  // -1 when no H-IVF with rows is pinnable
            // Indexed searches fall back to brute force when their index is stale or retired.
            if (rc != 0 && !(rc == -7 && dropping.load())) bad = true;
            if (path != 0) return;
            if (rc == 0 && after_drop) bad = true;
            bool some_prefix = rc != 0;
            for (uint32_t p = before; p <= after && !some_prefix; ++p)
                some_prefix = prefix_answer(qi, p, res, n);
            if (!some_prefix) bad = true;
        },
        [&] {
            for (uint32_t r = kBase + 50; r <= kRows; r += 50) {
                if (semantic_vector_indexing_system_load_vectors_f32(sys, &vecs[(r - 50) * 512],
                                                                     50) != 50)
                    return false;
                // Some search ends between every two chunks, so the searches span the ingestion.
                const uint32_t seen = searches.load();
                while (searches.load() == seen) std::this_thread::yield();
                if (r % 100 != 0) continue;
                // One writer, so builds succeed; the file replaces the attached one, then itself.
                const std::string path = dir + (r % 200 ? "/a.ivfp" : "/b.ivfp");
                if (semantic_vector_indexing_system_build_ivf(sys, 8, r) != 0 ||
                    semantic_vector_indexing_system_build_ivf_level2(sys, 2, 4, r) != 0 ||
                    semantic_vector_indexing_system_build_ivf_paged(sys, path.c_str()) != 0 ||
                    semantic_vector_indexing_system_open_ivf_paged(sys, path.c_str()) != 0)
                    return false;
                if (r % 300 == 0) {  // retire both now and then
                    semantic_vector_indexing_system_destroy_hivf(sys);
                    semantic_vector_indexing_system_destroy_ivf(sys);
                }
            }
            dropping = true;
            const bool evicted = semantic_vector_indexing_system_evict_flat_slab(sys) == 0;
            dropped = true;
            const uint32_t seen = searches.load();  // some searches start after the drop
            while (searches.load() < seen + 8) std::this_thread::yield();
            return evicted;
        });
    testing::internal::GetCapturedStdout();
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(changed);
    EXPECT_FALSE(bad.load());
    // The refusals say why on standard error.
    EXPECT_NE(log.find("[ORVE] bruteforce fallback disabled: flat slabs were dropped\n"),
              std::string::npos);
    semantic_vector_indexing_system_destroy(sys);
}

}  // namespace
