#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "search/topk.h"

namespace {

bf_topk_entry entry(float score, uint32_t id) {
    return bf_topk_entry{score, id, 0, 0.0f, id};
}

// Which scores a full heap keeps is checked through the brute-force search against an
// independent model; here, the tie rule and the empty heap.
TEST(TopkHeap, TiesNeverReplaceTheRootAndCapacityZeroKeepsNothing) {
    bf_topk_entry heap[2];
    uint32_t count = 0, zero_count = 0;
    for (const auto& e : {entry(0.7f, 1), entry(0.9f, 2), entry(0.7f, 99)})
        bf_topk_heap_push(heap, &count, 2, &e);
    for (const auto& e : heap) EXPECT_NE(e.node_id, 99u);
    bf_topk_heap_push(heap, &zero_count, 0, &heap[0]);
    EXPECT_EQ(zero_count, 0u);
}

TEST(CandidateBudget, FactorOnlyWithRerankAndSidecarCappedByTheRows) {
    const struct {
        uint8_t rerank;
        uint32_t factor, k;
        bool sidecar;
        uint32_t rows, want;
    } table[] = {
        {0, 0, 10, true, 1000, 10},
        {1, 0, 10, false, 1000, 10},
        {1, 0, 10, true, 1000, 50},
        {1, 3, 10, true, 1000, 30},
        {1, 3, 10, true, 12, 12},
        {0, 0, 0xFFFFFFFFu, false, 1100000, 1100000},
        // 2^31 x 2 wraps to 0 in 32 bits; the budget must still cover every row.
        {1, 0x80000000u, 2, true, 7, 7},
        {1, 0xFFFFFFFFu, 0xFFFFFFFFu, true, 0xFFFFFFFFu, 0xFFFFFFFFu},
    };
    for (const auto& t : table) {
        vector_similarity_query q{};
        q.rerank = t.rerank;
        q.rerank_factor = t.factor;
        q.max_results = t.k;
        EXPECT_EQ(orve::candidate_budget(&q, t.sidecar, t.rows), t.want) << t.factor << " " << t.k;
    }
}

}  // namespace
