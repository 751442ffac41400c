#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "semantic_vector_indexing.h"

namespace {

std::vector<float> ramp(float step) {
    std::vector<float> v(128);
    for (int i = 0; i < 128; ++i) v[i] = (i % 7 - 3) * step;
    return v;
}

TEST(FloatMath, CosineSelfNegationZeroAndNull) {
    auto a = ramp(0.5f);
    auto neg = a;
    for (float& x : neg) x = -x;
    std::vector<float> zero(128, 0.0f);
    EXPECT_NEAR(calculate_cosine_similarity(a.data(), a.data()), 1.0f, 1e-6f);
    EXPECT_NEAR(calculate_cosine_similarity(a.data(), neg.data()), -1.0f, 1e-6f);
    EXPECT_EQ(calculate_cosine_similarity(a.data(), zero.data()), 0.0f);
    EXPECT_EQ(calculate_cosine_similarity(nullptr, a.data()), 0.0f);
}

TEST(FloatMath, CosineOfOrthogonalAndKnownPair) {
    std::vector<float> a(128, 0.0f), b(128, 0.0f);
    a[0] = 1.0f;
    b[1] = 2.0f;
    EXPECT_EQ(calculate_cosine_similarity(a.data(), b.data()), 0.0f);
    a[1] = 1.0f;  // (1,1) against (0,2): cos 45 degrees
    EXPECT_NEAR(calculate_cosine_similarity(a.data(), b.data()), std::sqrt(0.5f), 1e-6f);
}

TEST(FloatMath, EuclideanDistanceAndMagnitude) {
    std::vector<float> a(128, 0.0f), b(128, 0.0f);
    a[5] = 3.0f;
    b[9] = 4.0f;
    EXPECT_EQ(calculate_euclidean_distance(a.data(), b.data()), 5.0f);
    EXPECT_EQ(calculate_euclidean_distance(a.data(), a.data()), 0.0f);
    EXPECT_EQ(calculate_euclidean_distance(nullptr, a.data()),
              std::numeric_limits<float>::infinity());
    EXPECT_EQ(calculate_vector_magnitude(b.data()), 4.0f);
    EXPECT_EQ(calculate_vector_magnitude(nullptr), 0.0f);
}

TEST(FloatMath, NormalizeDividesByMagnitude) {
    std::vector<float> v(128, 0.0f);
    v[0] = 3.0f;
    v[127] = -4.0f;
    normalize_vector(v.data());
    EXPECT_EQ(v[0], 3.0f / 5.0f);
    EXPECT_EQ(v[127], -4.0f / 5.0f);
    std::vector<float> zero(128, 0.0f);
    normalize_vector(zero.data());
    for (float x : zero) EXPECT_EQ(x, 0.0f);
    normalize_vector(nullptr);
}

}  // namespace
