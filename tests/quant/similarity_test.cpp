// The 64-lane family, in a program that defines no override hook.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "semantic_vector_indexing.h"

namespace {

using fn = int32_t (*)(const int8_t*, const int8_t*);
const fn kAll[] = {orve512_similarity_int8, orve512_similarity_int8_hwy_baseline_v1,
                   orve512_similarity_int8__scalar_reference_testonly,
                   orve512_similarity_int8__aarch64_override_testonly};

TEST(Similarity64, EveryVariantMatchesAnIndependentSumIncludingExtremes) {
    std::mt19937 rng(99);
    std::uniform_int_distribution<int> byte(-128, 127);
    std::vector<int8_t> a(64), b(64);
    for (int trial = 0; trial < 2000; ++trial) {
        int64_t want = 0;
        for (int i = 0; i < 64; ++i) {
            // Trials 0 and 1: every lane -128 x -128, then 127 x -128.
            a[i] = static_cast<int8_t>(trial == 0 ? -128 : trial == 1 ? 127 : byte(rng));
            b[i] = static_cast<int8_t>(trial < 2 ? -128 : byte(rng));
            want += a[i] * b[i];
        }
        for (fn f : kAll) ASSERT_EQ(f(a.data(), b.data()), want) << trial;
    }
    for (fn f : kAll) {
        EXPECT_EQ(f(nullptr, b.data()), 0);
        EXPECT_EQ(f(a.data(), nullptr), 0);
    }
}

}  // namespace
