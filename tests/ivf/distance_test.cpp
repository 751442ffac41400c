// The training's distances: the float distance's fused multiply-add order in every kernel,
// the exact int8 distance, and the in-place normalisation.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "ivf/ivf_internal.h"
#include "ivf/l2sq_512_kernels.h"
#include "ivf_test_data.h"

namespace {

// The order every kernel must reproduce, so that trainings agree bit for bit on every
// processor: 16 partial sums advanced by the C library's fmaf, then
// S[l] = (P[8+l] + P[12+l]) + (P[l] + P[4+l]) and (S0 + S1) + (S2 + S3).
float model_l2sq(const float* a, const float* b) {
    float p[16] = {};
    for (int t = 0; t < 32; ++t) {
        for (int j = 0; j < 16; ++j) {
            const float d = a[16 * t + j] - b[16 * t + j];
            p[j] = std::fmaf(d, d, p[j]);
        }
    }
    float s[4];
    for (int l = 0; l < 4; ++l) s[l] = (p[8 + l] + p[12 + l]) + (p[l] + p[4 + l]);
    return (s[0] + s[1]) + (s[2] + s[3]);
}

uint32_t bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

TEST(L2sq512, EveryKernelMatchesThePlainModelBitForBit) {
    // Rows mixing magnitudes so that rounding actually happens in the partial sums.
    constexpr uint32_t n = 64;
    ivf_test::int_rng g(11);
    std::vector<float> rows(2 * 512 * n);
    const float magnitude[4] = {1e-3f, 3e2f, 1.0f, 1.0f};
    for (auto& v : rows) {
        const float m = g.bell();
        v = m * magnitude[g.next() % 4];
    }
    size_t count = 0;
    const orve::l2sq_kernel* kernels = orve::l2sq_kernels_available(&count);
    ASSERT_GE(count, 1u);
    int differs_from_sequential = 0;
    for (uint32_t r = 0; r < n; ++r) {
        const float* x = rows.data() + 512 * r;
        const float* y = x + 512 * n;
        const float want = model_l2sq(x, y);
        for (size_t k = 0; k < count; ++k) {
            float partial[16];
            kernels[k].partials(x, y, partial);
            ASSERT_EQ(bits(orve::l2sq_combine(partial)), bits(want))
                << kernels[k].name << " row " << r;
        }
        ASSERT_EQ(bits(l2sq_512(x, y)), bits(want)) << r;
        // A plain sequential sum usually rounds differently, so the order is really tested.
        float seq = 0.0f;
        for (int i = 0; i < 512; ++i) seq += (x[i] - y[i]) * (x[i] - y[i]);
        differs_from_sequential += bits(seq) != bits(want);
    }
    EXPECT_GT(differs_from_sequential, 0);
}

TEST(L2sq512I8, ExactOverTheWholeInt8Range) {
    std::vector<int8_t> a(512, -128), b(512, 127);
    EXPECT_EQ(l2sq_512_i8(a.data(), b.data()), 512 * 255 * 255);
    ivf_test::int_rng g(3);
    int64_t want = 0;
    for (int i = 0; i < 512; ++i) {
        a[i] = static_cast<int8_t>(g.next());
        b[i] = static_cast<int8_t>(g.next());
        want += (int64_t{a[i]} - b[i]) * (int64_t{a[i]} - b[i]);
    }
    EXPECT_EQ(l2sq_512_i8(a.data(), b.data()), want);
}

TEST(L2NormalizeInplace, UnitLengthAndRowsTooSmallToScaleAreLeftAlone) {
    std::vector<float> row(512, 0.0f);
    row[0] = 3.0f;
    row[1] = 4.0f;
    l2_normalize_inplace(row.data());
    EXPECT_EQ(row[0], 3.0f * (1.0f / 5.0f));
    EXPECT_EQ(row[1], 4.0f * (1.0f / 5.0f));
    // 512 x (4e-17)^2 = 8.2e-31 <= 1e-30: unchanged. 1e-16 gives 5.1e-30: scaled.
    std::vector<float> tiny(512, 4e-17f), small(512, 1e-16f);
    l2_normalize_inplace(tiny.data());
    EXPECT_EQ(tiny[100], 4e-17f);
    l2_normalize_inplace(small.data());
    EXPECT_NEAR(small[100], 1.0f / std::sqrt(512.0f), 1e-6f);
}

}  // namespace
