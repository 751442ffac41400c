// Every 512-lane kernel compiled into this build and runnable here, checked against an
// independent 64-bit sum on random and extreme rows, one pair at a time and many rows at once.
#include <gtest/gtest.h>

#include <cstdint>
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

std::vector<orve::dot512_kernel> kernels() {
    std::size_t n = 0;
    const orve::dot512_kernel* k = orve::dot512_kernels_available(&n);
    return {k, k + n};
}

TEST(Dot512Kernels, ListStartsWithReferenceAndBestIsListed) {
    auto ks = kernels();
    ASSERT_FALSE(ks.empty());
    EXPECT_STREQ(ks.front().name, "reference");
    EXPECT_STREQ(orve::dot512_best().name, ks.back().name);
    for (const auto& k : ks) std::printf("kernel available: %s\n", k.name);
#if defined(__aarch64__)
    EXPECT_STREQ(orve::dot512_best().name, "sdot");
#endif
}

TEST(Dot512Kernels, ExtremeRowsAreExact) {
    std::vector<int8_t> a(512), b(512);
    struct Case {
        int8_t x, y;
        int64_t want;
    } cases[] = {{127, 127, 8258048}, {-128, -128, 8388608}, {-128, 127, -8323072}, {0, -128, 0}};
    for (const auto& k : kernels()) {
        for (const auto& c : cases) {
            std::fill(a.begin(), a.end(), c.x);
            std::fill(b.begin(), b.end(), c.y);
            EXPECT_EQ(k.one(a.data(), b.data()), c.want) << k.name;
            EXPECT_EQ(k.one(b.data(), a.data()), c.want) << k.name;
            int32_t out[1];
            k.many(a.data(), b.data(), 1, out);
            EXPECT_EQ(out[0], c.want) << k.name;
        }
        // Alternating extremes exercise every lane position of the vector kernels.
        for (int i = 0; i < 512; ++i) {
            a[i] = (i % 3 == 0) ? -128 : 127;
            b[i] = (i % 5 < 2) ? -128 : (i % 5 == 2 ? 127 : -1);
        }
        EXPECT_EQ(k.one(a.data(), b.data()), expected_dot(a.data(), b.data())) << k.name;
    }
}

TEST(Dot512Kernels, RandomRowsMatchIndependentSum) {
    std::mt19937 rng(1234);
    std::uniform_int_distribution<int> byte(-128, 127);
    constexpr std::size_t kRows = 67;  // not a multiple of any unroll factor
    // Offset by one byte so that the kernels are also exercised on unaligned rows.
    std::vector<int8_t> storage(512 * (kRows + 1) + 1);
    int8_t* rows = storage.data() + 1;
    std::vector<int8_t> q(512);
    for (auto& x : storage) x = static_cast<int8_t>(byte(rng));
    for (auto& x : q) x = static_cast<int8_t>(byte(rng));
    for (const auto& k : kernels()) {
        std::vector<int32_t> out(kRows + 1, 0x5a5a5a5a);
        k.many(q.data(), rows, kRows, out.data());
        for (std::size_t r = 0; r < kRows; ++r) {
            const int64_t want = expected_dot(q.data(), rows + 512 * r);
            ASSERT_EQ(out[r], want) << k.name << " row " << r;
            ASSERT_EQ(k.one(q.data(), rows + 512 * r), want) << k.name << " row " << r;
        }
        EXPECT_EQ(out[kRows], 0x5a5a5a5a) << k.name << " wrote past n";
        k.many(q.data(), rows, 0, out.data());  // n = 0 reads and writes nothing
    }
}

TEST(Dot512Exported, EntryPointsAndAlias) {
    std::vector<int8_t> a(512), b(512);
    for (int i = 0; i < 512; ++i) {
        a[i] = static_cast<int8_t>(i * 37 % 256 - 128);
        b[i] = static_cast<int8_t>(i * 91 % 256 - 128);
    }
    const int64_t want = expected_dot(a.data(), b.data());
    EXPECT_EQ(orve_dotprod512_i8(a.data(), b.data()), want);
    EXPECT_EQ(orve_dot512_ivf(a.data(), b.data()), want);
    EXPECT_EQ(orve_dotprod512_i8(nullptr, b.data()), 0);
    EXPECT_EQ(orve_dotprod512_i8(a.data(), nullptr), 0);
    EXPECT_EQ(orve_dot512_ivf(nullptr, nullptr), 0);
}

TEST(Dot512Scalar, ThirtyTwoBitElementsKeepLow32BitsOfSum) {
    std::vector<int32_t> a(512, 65536), b(512, 65536);
    EXPECT_EQ(orve_dotprod512_scalar(a.data(), b.data()), 0);  // 2^41 has zero low bits
    std::fill(a.begin(), a.end(), -3);
    std::fill(b.begin(), b.end(), 1000);
    EXPECT_EQ(orve_dotprod512_scalar(a.data(), b.data()), -1536000);
    // Sums past 64 bits wrap without undefined behaviour: 512 * 2^62 = 2^71 -> low bits 0.
    std::fill(a.begin(), a.end(), INT32_MIN);
    std::fill(b.begin(), b.end(), INT32_MIN);
    EXPECT_EQ(orve_dotprod512_scalar(a.data(), b.data()), 0);
    a[0] = 3;
    b[0] = 5;
    // 511 * 2^62 + 15: 2^62 * 511 has zero low 32 bits.
    EXPECT_EQ(orve_dotprod512_scalar(a.data(), b.data()), 15);
    EXPECT_EQ(orve_dotprod512_scalar(nullptr, b.data()), 0);
}

}  // namespace
