#include <gtest/gtest.h>

#include "search/topk.h"

namespace {

TEST(CandidateBudget, FactorOnlyWithRerankAndSidecarCappedByTheRows) {
    // 2^31 x 2 wraps to 0 in 32 bits; the budget must still cover every row.
    const struct {
        uint8_t rerank;
        uint32_t factor, k;
        bool sidecar;
        uint32_t rows, want;
    } table[] = {{0, 0, 10, true, 1000, 10},
                 {1, 0, 10, false, 1000, 10},
                 {1, 0, 10, true, 1000, 50},
                 {1, 3, 10, true, 1000, 30},
                 {1, 3, 10, true, 12, 12},
                 {0, 0, 0xFFFFFFFFu, false, 1100000, 1100000},
                 {1, 0x80000000u, 2, true, 7, 7},
                 {1, 0xFFFFFFFFu, 0xFFFFFFFFu, true, 0xFFFFFFFFu, 0xFFFFFFFFu}};
    for (const auto& t : table) {
        vector_similarity_query q{};
        q.rerank = t.rerank;
        q.rerank_factor = t.factor;
        q.max_results = t.k;
        EXPECT_EQ(orve::candidate_budget(&q, t.sidecar, t.rows), t.want) << t.factor << " " << t.k;
    }
}

}  // namespace
