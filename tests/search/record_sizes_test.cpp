#include <gtest/gtest.h>

#include <cstring>

#include "semantic_vector_indexing.h"

namespace {

TEST(RecordSizes, QueryAndResultSizes) {
    EXPECT_EQ(vector_similarity_query_sizeof(), 568u);
    EXPECT_EQ(vector_similarity_result_sizeof(), 24u);
}

TEST(RecordSizes, ZeroQueryHasEveryFlagClear) {
    vector_similarity_query q;
    std::memset(&q, 0, sizeof q);
    EXPECT_EQ(q.use_lsh | q.use_orve512 | q.use_ivf | q.use_hivf | q.rerank, 0);
    EXPECT_EQ(q.query_vector, nullptr);
}

}  // namespace
