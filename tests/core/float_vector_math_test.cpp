#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "semantic_vector_indexing.h"

namespace {

// 128-component vectors with the given nonzero components.
std::vector<float> vec(std::initializer_list<std::pair<int, float>> comps) {
    std::vector<float> v(128, 0.0f);
    for (auto [i, x] : comps) v[i] = x;
    return v;
}

// Distances and normalisation of real rows are checked by the clustering metrics and the
// embedding goldens; here, known angles and the degenerate inputs.
TEST(FloatMath, KnownValuesAndDegenerateInputs) {
    const auto a = vec({{0, 1.0f}, {1, 1.0f}}), b = vec({{1, 2.0f}}), zero = vec({});
    auto z = zero;
    normalize_vector(z.data());
    normalize_vector(nullptr);
    EXPECT_EQ(z, zero);
    const struct {
        float got, want;
    } table[] = {
        {calculate_cosine_similarity(a.data(), b.data()), std::sqrt(0.5f)},  // 45 degrees
        {calculate_cosine_similarity(b.data(), vec({{1, -2.0f}}).data()), -1.0f},
        {calculate_cosine_similarity(vec({{0, 1.0f}}).data(), b.data()), 0.0f},
        {calculate_cosine_similarity(a.data(), zero.data()), 0.0f},
        {calculate_cosine_similarity(nullptr, a.data()), 0.0f},
        {calculate_euclidean_distance(nullptr, a.data()), std::numeric_limits<float>::infinity()},
        {calculate_vector_magnitude(vec({{9, 4.0f}}).data()), 4.0f},
        {calculate_vector_magnitude(nullptr), 0.0f},
    };
    for (const auto& t : table) EXPECT_TRUE(t.got == t.want || std::fabs(t.got - t.want) <= 1e-6f);
}

}  // namespace
