#include <gtest/gtest.h>

#include <cstdlib>

#include "semantic_vector_indexing.h"

namespace {

// Both draw one rand() each, scaled by 2^-31; the range forms (max - min) * u + min in that
// order, so the result is bit-exact and inside the bounds.
TEST(RandomFloat, FollowsRandScaledBy2ToMinus31) {
    std::srand(12345);
    int expected[64];
    for (int& e : expected) e = std::rand();
    std::srand(12345);
    for (int i = 0; i < 64; ++i) {
        const float u = static_cast<float>(static_cast<double>(expected[i]) / 2147483648.0);
        EXPECT_EQ(i % 2 ? random_float() : random_float_range(-0.25f, 3.5f),
                  i % 2 ? u : (3.5f - (-0.25f)) * u + (-0.25f));
    }
}

}  // namespace
