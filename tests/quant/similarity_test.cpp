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

TEST(Similarity64, KnownValues) {
    std::vector<int8_t> a(64), b(64);
    for (fn f : kAll) {
        std::fill(a.begin(), a.end(), 127);
        EXPECT_EQ(f(a.data(), a.data()), 1032256);
        std::fill(a.begin(), a.end(), -128);
        EXPECT_EQ(f(a.data(), a.data()), 1048576);
        for (int i = 0; i < 64; ++i) a[i] = static_cast<int8_t>(i - 32);
        std::fill(b.begin(), b.end(), 1);
        EXPECT_EQ(f(a.data(), b.data()), -32);
        EXPECT_EQ(f(nullptr, b.data()), 0);
        EXPECT_EQ(f(a.data(), nullptr), 0);
    }
}

TEST(Similarity64, VariantsAgreeOnRandomInput) {
    std::mt19937 rng(99);
    std::uniform_int_distribution<int> byte(-128, 127);
    std::vector<int8_t> a(64), b(64);
    for (int trial = 0; trial < 2000; ++trial) {
        int64_t want = 0;
        for (int i = 0; i < 64; ++i) {
            a[i] = static_cast<int8_t>(byte(rng));
            b[i] = static_cast<int8_t>(byte(rng));
            want += a[i] * b[i];
        }
        for (fn f : kAll) ASSERT_EQ(f(a.data(), b.data()), want);
    }
}

}  // namespace
