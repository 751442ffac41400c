#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "semantic_vector_indexing.h"

namespace {

TEST(LshCollisionProbability, WorkedExamples) {
    EXPECT_EQ(calculate_lsh_collision_probability(0.5f, 8), 0.00390625f);
    EXPECT_EQ(calculate_lsh_collision_probability(0.0f, 8), 1.0f);
    EXPECT_EQ(calculate_lsh_collision_probability(1.0f, 8), 0.0f);
    EXPECT_EQ(calculate_lsh_collision_probability(0.25f, 3), 0.421875f);  // 0.75^3
    EXPECT_EQ(calculate_lsh_collision_probability(0.3f, 0), 1.0f);
    EXPECT_EQ(calculate_lsh_collision_probability(1.5f, 8), 0.0f);
    EXPECT_EQ(calculate_lsh_collision_probability(-0.01f, 8), 0.0f);
    EXPECT_EQ(calculate_lsh_collision_probability(-0.01f, 0), 0.0f);
}

std::vector<float> zeros(size_t n = 128) {
    return std::vector<float>(n, 0.0f);
}

TEST(LshHash, NegativeNanAndHugeValuesAreClamped) {
    auto v = zeros();
    auto plane = zeros();
    v[0] = 1.0f;
    plane[0] = -1.0f;
    EXPECT_EQ(generate_lsh_hash(v.data(), plane.data(), 0.25f), 0u);       // -0.75e6
    EXPECT_EQ(generate_lsh_hash(v.data(), plane.data(), 0.9999999f), 0u);  // just below zero
    EXPECT_EQ(generate_lsh_hash(v.data(), plane.data(), std::nanf("")), 0u);
    EXPECT_EQ(generate_lsh_hash(v.data(), plane.data(), 1e20f), UINT64_MAX);
    EXPECT_EQ(generate_lsh_hash(v.data(), plane.data(), std::numeric_limits<float>::infinity()),
              UINT64_MAX);
    // A large value inside the u64 range converts as it is (about 1.0995e12; the float
    // spacing there is 65536).
    const uint64_t big = generate_lsh_hash(v.data(), zeros().data(), 1099511.627776f);
    EXPECT_GT(big, 1099511000000u);
    EXPECT_LT(big, 1099512000000u);
}

TEST(LshHash, SumsExactly128ComponentsInSinglePrecisionInOrder) {
    // Component 128 must never be read.
    std::vector<float> v(129, 0.0f), plane(129, 1.0f);
    v[128] = 1.0f;
    EXPECT_EQ(generate_lsh_hash(v.data(), plane.data(), 0.5f), 500000u);
    // In float, 1e8 + 1 rounds back to 1e8, so in index order the 1 is lost and the sum is 0;
    // a double or reordered sum would keep it and give 1.5e6.
    v[0] = 1e8f;
    v[1] = 1.0f;
    v[2] = -1e8f;
    EXPECT_EQ(generate_lsh_hash(v.data(), plane.data(), 0.5f), 500000u);
}

}  // namespace
