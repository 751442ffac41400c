#include <gtest/gtest.h>

#include <cstdlib>

#include "semantic_vector_indexing.h"

namespace {

TEST(RandomFloat, FollowsRandScaledBy2ToMinus31) {
    std::srand(12345);
    int expected[64];
    for (int& e : expected) e = std::rand();
    std::srand(12345);
    for (int e : expected) {
        EXPECT_EQ(random_float(), static_cast<float>(static_cast<double>(e) / 2147483648.0));
    }
}

TEST(RandomFloat, RangeStaysInsideBounds) {
    std::srand(1);
    for (int i = 0; i < 20000; ++i) {
        const float x = random_float_range(-1.0f, 1.0f);
        ASSERT_GE(x, -1.0f);
        ASSERT_LE(x, 1.0f);
        const float y = random_float();
        ASSERT_GE(y, 0.0f);
        ASSERT_LE(y, 1.0f);
    }
}

TEST(RandomFloat, RangeFormsDifferenceThenScalesThenShifts) {
    std::srand(77);
    const int r = std::rand();
    std::srand(77);
    const float u = static_cast<float>(static_cast<double>(r) / 2147483648.0);
    const float want = (3.5f - (-0.25f)) * u + (-0.25f);
    EXPECT_EQ(random_float_range(-0.25f, 3.5f), want);
}

}  // namespace
