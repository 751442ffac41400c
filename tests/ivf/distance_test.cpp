// The training's exact int8 distance and in-place normalisation (float order: kernel_table_test).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "ivf/ivf_internal.h"
#include "ivf_test_data.h"

namespace {

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
