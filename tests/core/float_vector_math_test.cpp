// The legacy 128-float helpers against double sums: 128 components count; null or zero: neutral.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "semantic_vector_indexing.h"

namespace {

TEST(LegacyVectorMath, AgreesWithDoubleSumsAndHandlesNullAndZero) {
    std::mt19937 rng(17);
    std::normal_distribution<float> g;
    std::vector<float> a(129), b(129), zero(128, 0.0f);
    for (int trial = 0; trial < 20; ++trial) {
        for (int i = 0; i < 128; ++i) a[i] = 4.0f * g(rng), b[i] = g(rng);
        a[128] = b[128] = 1e30f;  // one past the vector: reading it would overflow every sum
        double ab = 0, aa = 0, bb = 0, dd = 0;
        for (int i = 0; i < 128; ++i) {
            ab += double{a[i]} * b[i], aa += double{a[i]} * a[i], bb += double{b[i]} * b[i];
            dd += (double{a[i]} - b[i]) * (double{a[i]} - b[i]);
        }
        EXPECT_NEAR(calculate_cosine_similarity(a.data(), b.data()), ab / std::sqrt(aa * bb), 1e-5);
        EXPECT_NEAR(calculate_euclidean_distance(a.data(), b.data()), std::sqrt(dd),
                    1e-5 * std::sqrt(dd));
        EXPECT_NEAR(calculate_vector_magnitude(a.data()), std::sqrt(aa), 1e-5 * std::sqrt(aa));
        normalize_vector(a.data());
        EXPECT_NEAR(calculate_vector_magnitude(a.data()), 1.0, 1e-5);
        EXPECT_EQ(a[128], 1e30f);
    }
    EXPECT_EQ(calculate_cosine_similarity(zero.data(), b.data()), 0.0f);
    EXPECT_EQ(calculate_cosine_similarity(nullptr, b.data()), 0.0f);
    EXPECT_EQ(calculate_euclidean_distance(a.data(), nullptr),
              std::numeric_limits<float>::infinity());
    EXPECT_EQ(calculate_vector_magnitude(nullptr), 0.0f);
    normalize_vector(nullptr);
    normalize_vector(zero.data());
    EXPECT_EQ(zero, std::vector<float>(128, 0.0f));
}

}  // namespace
