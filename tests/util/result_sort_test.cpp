#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "semantic_vector_indexing.h"

namespace {

// Descending by similarity, equal scores in their input order, each record moved whole (its
// rank is not renumbered); nothing past the count is touched, and a null array is ignored.
TEST(SortResults, AgreesWithStandardStableSort) {
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> level(0, 6);  // few distinct values: many ties
    for (uint32_t n : {0u, 1u, 2u, 3u, 17u, 100u}) {
        std::vector<vector_similarity_result> v(n + 2);  // two records past the count
        for (uint32_t i = 0; i < n + 2; ++i) {
            v[i].node_id = i;
            v[i].rank = 10 * i;
            // The records past the count ascend: sorting them would move them.
            v[i].similarity = i < n ? level(rng) * 0.25f - 0.5f : 1.0f + i;
        }
        auto want = v;
        std::stable_sort(want.begin(), want.begin() + n,
                         [](const auto& a, const auto& b) { return a.similarity > b.similarity; });
        sort_similarity_results(v.data(), n);
        for (uint32_t i = 0; i < n + 2; ++i) {
            ASSERT_EQ(v[i].node_id, want[i].node_id) << n << " " << i;
            ASSERT_EQ(v[i].rank, 10 * v[i].node_id);
        }
    }
    sort_similarity_results(nullptr, 5);
}

}  // namespace
