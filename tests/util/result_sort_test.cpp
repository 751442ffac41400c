#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "semantic_vector_indexing.h"

namespace {

vector_similarity_result rec(uint32_t id, float sim) {
    vector_similarity_result r{};
    r.node_id = id;
    r.similarity = sim;
    r.rank = id * 10;
    return r;
}

TEST(SortResults, DescendingAndStable) {
    std::vector<vector_similarity_result> v = {rec(1, 0.2f), rec(2, 0.9f), rec(3, 0.2f),
                                               rec(4, 0.5f)};
    sort_similarity_results(v.data(), 4);
    const uint32_t ids[] = {2, 4, 1, 3};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(v[i].node_id, ids[i]);
        EXPECT_EQ(v[i].rank, ids[i] * 10) << "rank moves with its record, is not renumbered";
    }
}

TEST(SortResults, AgreesWithStandardStableSort) {
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> level(0, 6);  // few distinct values: many ties
    for (int n : {2, 3, 17, 100}) {
        std::vector<vector_similarity_result> v;
        for (int i = 0; i < n; ++i) v.push_back(rec(i, level(rng) * 0.25f - 0.5f));
        auto want = v;
        std::stable_sort(want.begin(), want.end(),
                         [](const auto& a, const auto& b) { return a.similarity > b.similarity; });
        sort_similarity_results(v.data(), static_cast<uint32_t>(n));
        for (int i = 0; i < n; ++i) ASSERT_EQ(v[i].node_id, want[i].node_id) << n << " " << i;
    }
}

TEST(SortResults, TrivialInputsAreLeftAlone) {
    sort_similarity_results(nullptr, 5);
    vector_similarity_result one = rec(9, 0.1f);
    sort_similarity_results(&one, 1);
    EXPECT_EQ(one.node_id, 9u);
    vector_similarity_result two[2] = {rec(1, 0.1f), rec(2, 0.7f)};
    sort_similarity_results(two, 0);
    EXPECT_EQ(two[0].node_id, 1u);
}

}  // namespace
