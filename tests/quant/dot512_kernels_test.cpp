// Every 512-lane kernel compiled into this build and runnable here, checked against an
// independent 64-bit sum on extreme and random rows, one pair at a time and many rows at once.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "quant/dot512_kernels.h"
#include "semantic_vector_indexing.h"

namespace {

int64_t expected_dot(const int8_t* a, const int8_t* b) {
    int64_t s = 0;
    for (int i = 0; i < 512; ++i) s += static_cast<int64_t>(a[i]) * b[i];
    return s;
}

TEST(Dot512Kernels, EveryKernelMatchesIndependentSum) {
    std::mt19937 rng(1234);
    std::uniform_int_distribution<int> byte(-128, 127);
    constexpr std::size_t kRows = 67;  // not a multiple of any unroll factor
    // Offset by one byte so that the kernels are also exercised on unaligned rows.
    std::vector<int8_t> storage(512 * (kRows + 1) + 1);
    int8_t* rows = storage.data() + 1;
    std::vector<int8_t> q(512);
    for (auto& x : storage) x = static_cast<int8_t>(byte(rng));
    for (auto& x : q) x = static_cast<int8_t>(byte(rng));
    // Rows 0-3: every lane at an extreme pair; row 4: alternating extremes in every lane position.
    const int8_t fills[4][2] = {{127, 127}, {-128, -128}, {-128, 127}, {0, -128}};
    for (int i = 0; i < 512; ++i) q[i] = (i % 3 == 0) ? -128 : 127;
    for (int r = 0; r < 4; ++r) std::fill(rows + 512 * r, rows + 512 * (r + 1), fills[r][1]);
    for (int i = 0; i < 512; ++i) rows[512 * 4 + i] = (i % 5 < 2) ? -128 : (i % 5 == 2 ? 127 : -1);
    std::vector<int8_t> same(512);
    std::size_t n = 0;
    const orve::dot512_kernel* ks = orve::dot512_kernels_available(&n);
    ASSERT_GE(n, 1u);
    for (const auto* k = ks; k != ks + n; ++k) {
        std::printf("kernel: %s\n", k->name);
        for (const auto& f : fills) {  // all-equal rows: 512 * x * y, both argument orders
            std::fill(same.begin(), same.end(), f[0]);
            EXPECT_EQ(k->one(same.data(), rows + 512 * (&f - fills)), 512 * f[0] * f[1]) << k->name;
            EXPECT_EQ(k->one(rows + 512 * (&f - fills), same.data()), 512 * f[0] * f[1]) << k->name;
        }
        std::vector<int32_t> out(kRows + 1, 0x5a5a5a5a);
        k->many(q.data(), rows, kRows, out.data());
        for (std::size_t r = 0; r < kRows; ++r) {
            const int64_t want = expected_dot(q.data(), rows + 512 * r);
            ASSERT_EQ(out[r], want) << k->name << " row " << r;
            ASSERT_EQ(k->one(q.data(), rows + 512 * r), want) << k->name << " row " << r;
        }
        EXPECT_EQ(out[kRows], 0x5a5a5a5a) << k->name << " wrote past n";
        k->many(q.data(), rows, 0, out.data());  // n = 0 reads and writes nothing
    }
}

TEST(Dot512Exported, EntryPointsAliasAndNull) {
    std::vector<int8_t> a(512), b(512);
    for (int i = 0; i < 512; ++i) {
        a[i] = static_cast<int8_t>(i * 37 % 256 - 128);
        b[i] = static_cast<int8_t>(i * 91 % 256 - 128);
    }
    const int64_t want = expected_dot(a.data(), b.data());
    EXPECT_EQ(orve_dotprod512_i8(a.data(), b.data()), want);
    EXPECT_EQ(orve_dot512_ivf(a.data(), b.data()), want);
    EXPECT_EQ(orve_dotprod512_i8(nullptr, b.data()), 0);
    EXPECT_EQ(orve_dot512_ivf(a.data(), nullptr), 0);
}

TEST(Dot512Scalar, ThirtyTwoBitElementsKeepLow32BitsOfSum) {
    struct Case {
        int32_t a, b, a0, b0, want;
    } cases[] = {
        {65536, 65536, 65536, 65536, 0},  // 2^41 has zero low bits
        {-3, 1000, -3, 1000, -1536000},
        {INT32_MIN, INT32_MIN, INT32_MIN, INT32_MIN, 0},  // 2^71 wraps without UB
        {INT32_MIN, INT32_MIN, 3, 5, 15},                 // 511 * 2^62 + 15
    };
    for (const auto& c : cases) {
        std::vector<int32_t> a(512, c.a), b(512, c.b);
        a[0] = c.a0;
        b[0] = c.b0;
        EXPECT_EQ(orve_dotprod512_scalar(a.data(), b.data()), c.want);
    }
    std::vector<int32_t> b(512, 1);
    EXPECT_EQ(orve_dotprod512_scalar(nullptr, b.data()), 0);
}

}  // namespace
