// The block form of the quantised cosine against the one-row form, bit for bit, on the rows
// where the two could part: zero, negative, NaN and underflowing divisors, and a tail shorter
// than the block form's four lanes; and whether any row is above a bar.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "quant/cosine.h"

namespace {

uint32_t bits(float x) {
    uint32_t u;
    std::memcpy(&u, &x, sizeof u);
    return u;
}

TEST(Cosine, BlockFormGivesTheOneRowFormsBitsOnEveryEdgeRow) {
    const float nan = std::nanf("");
    const float tiny = 1e-30f;
    // Row scale and norm pairs, 11 rows so the block form's tail runs too.
    const float scales[] = {0.01f, 0.0f, -0.5f, nan, 0.02f, tiny, 0.3f, 1e30f, -0.0f, 0.7f, 2.0f};
    const float norms[] = {3.0f, 1.0f, 2.0f, 1.0f, nan, tiny, -1.0f, 1e30f, 1.0f, 0.0f, 9.0f};
    const int32_t dots[] = {1234, -5, 7, 100, -100, 1 << 20, 3, -(1 << 22), 8, 9, -1234567};
    constexpr uint32_t n = sizeof dots / sizeof dots[0];
    // Query scale and norm pairs: ordinary, zero, NaN, and one whose product with a row
    // underflows.
    const float queries[][2] = {{0.02f, 5.0f}, {0.0f, 5.0f}, {0.02f, nan}, {tiny, tiny}};
    for (const auto& q : queries) {
        float out[n];
        const float bar = 0.5f;
        const bool any = orve::cosine_from_dots(dots, q[0], scales, q[1], norms, n, bar, out);
        bool want_any = false;
        for (uint32_t j = 0; j < n; ++j) {
            const float want = orve::cosine_from_dot(dots[j], q[0], scales[j], q[1], norms[j]);
            EXPECT_EQ(bits(out[j]), bits(want)) << "query " << q[0] << "," << q[1] << " row " << j;
            want_any = want_any || want > bar;
        }
        EXPECT_EQ(any, want_any) << "query " << q[0] << "," << q[1];
    }
}

}  // namespace
