// The bounded heap keeps the best scores; a candidate equal to the lowest kept score is refused,
// so while the heap is full an equal score never displaces an earlier one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "util/topk_heap.h"

namespace {

// Scores offered in order (candidate i has id i + 1) and the ids kept, ascending. In the fourth
// case the 1s offered once full tie the lowest and are refused.
TEST(TopkHeap, KeepsTheBestAndRefusesEqualsOnceFull) {
    const struct {
        std::vector<float> scores;
        std::vector<uint32_t> kept;
    } cases[] = {{{1, 1, 1, 1, 1}, {1, 2, 3}},
                 {{3, 2, 1, 0, 5, 4}, {1, 5, 6}},
                 {{0, 2, 2, 1, 2}, {2, 3, 5}},
                 {{2, 1, 2, 1, 1}, {1, 2, 3}},
                 {{7}, {1}}};
    for (const auto& c : cases) {
        std::vector<bf_topk_entry> heap(3);
        uint32_t n = 0;
        for (uint32_t i = 0; i < c.scores.size(); ++i) {
            const bf_topk_entry e{c.scores[i], i + 1, 0, 0.0f, i};
            bf_topk_heap_push(heap.data(), &n, 3, &e);
        }
        std::vector<uint32_t> ids;
        for (uint32_t i = 0; i < n; ++i) ids.push_back(heap[i].node_id);
        std::sort(ids.begin(), ids.end());
        EXPECT_EQ(ids, c.kept) << c.scores.size();
        for (uint32_t i = 1; i < n; ++i) EXPECT_GE(heap[i].score, heap[(i - 1) / 2].score);
    }
    uint32_t n = 0;
    const bf_topk_entry e{1, 1, 0, 0.0f, 0};
    bf_topk_heap_push(nullptr, &n, 0, &e);  // no room: nothing kept
    EXPECT_EQ(n, 0u);
}

// Where each kept entry sits decides the order of equal scores in the results, so the push
// must leave the array exactly as the plain swap-down of a new root does. Few distinct scores
// make ties at every level.
TEST(TopkHeap, EntriesEndWhereSwappingThemDownLeavesThem) {
    std::mt19937 rng(7);
    for (uint32_t cap : {1u, 2u, 5u, 16u, 50u}) {
        std::vector<bf_topk_entry> heap(cap), ref(cap);
        uint32_t n = 0, m = 0;
        for (uint32_t k = 0; k < 2000; ++k) {
            const bf_topk_entry e{static_cast<float>(rng() % 9), k, 0, 0.0f, k};
            bf_topk_heap_push(heap.data(), &n, cap, &e);
            if (m < cap) {
                bf_topk_heap_push(ref.data(), &m, cap, &e);  // filling: the same code path
            } else if (e.score > ref[0].score) {
                ref[0] = e;
                for (uint32_t i = 0, c; (c = 2 * i + 1) < cap; i = c) {
                    if (c + 1 < cap && ref[c + 1].score < ref[c].score) ++c;
                    if (!(ref[c].score < ref[i].score)) break;
                    std::swap(ref[i], ref[c]);
                }
            }
            for (uint32_t i = 0; i < n; ++i) ASSERT_EQ(heap[i].row, ref[i].row) << cap << " " << k;
        }
    }
}

// Results are ordered by descending score with equal scores in heap order: a stable sort. Few
// distinct scores make long runs of ties; lengths past the on-stack scratch take the other
// branch. With NaN among the scores the order is whatever the merge's comparisons leave, which
// must be what the C library's merge sort has always left (glibc's qsort is that merge sort).
TEST(TopkHeap, SortIsStableDescendingAndKeepsTheLibraryOrderWithNaN) {
    std::mt19937 rng(11);
    for (uint32_t n : {1u, 2u, 3u, 7u, 50u, 255u, 256u, 257u, 1000u}) {
        for (const bool with_nan : {false, true}) {
            std::vector<bf_topk_entry> v(n);
            for (uint32_t i = 0; i < n; ++i) {
                const bool nan = with_nan && rng() % 7 == 0;
                v[i] = bf_topk_entry{nan ? std::nanf("") : static_cast<float>(rng() % 5), i, 0,
                                     0.0f, i};
            }
            std::vector<bf_topk_entry> want = v;
            if (!with_nan) {
                std::stable_sort(want.begin(), want.end(),
                                 [](const auto& a, const auto& b) { return a.score > b.score; });
            } else {
#ifdef __GLIBC__
                std::qsort(want.data(), n, sizeof(bf_topk_entry), [](const void* a, const void* b) {
                    const float sa = static_cast<const bf_topk_entry*>(a)->score;
                    const float sb = static_cast<const bf_topk_entry*>(b)->score;
                    return sa > sb ? -1 : sa < sb ? 1 : 0;
                });
#else
                continue;
#endif
            }
            sort_candidates_desc(v.data(), n);
            for (uint32_t i = 0; i < n; ++i) ASSERT_EQ(v[i].row, want[i].row) << n << " " << i;
        }
    }
}

}  // namespace
