#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "quant/quantize_bulk.h"
#include "semantic_vector_indexing.h"
#include "support/test_math.h"

namespace {

// Row kinds that take each branch of the one-row function, and its rounding corner cases:
// Gaussian, zeros, signed zeros, tiny, huge, one overflowing square, NaN, -infinity, rounding
// ties (largest magnitude 127 gives scale 1, so every half-integer ties) and mixed magnitudes.
constexpr int kKinds = 10;

void fill(int kind, std::mt19937& g, float* x) {
    std::normal_distribution<float> nd(0.0f, 1.0f);
    const float special[] = {3e38f, std::numeric_limits<float>::quiet_NaN(),
                             -std::numeric_limits<float>::infinity()};
    for (int i = 0; i < 512; ++i) {
        const float r = nd(g);
        const float ties = static_cast<float>(static_cast<int>(g() % 254) - 127) + 0.5f;
        const float by_kind[] = {r, 0.0f, (i % 3) ? -0.0f : 0.0f, r * 1e-13f, r * 1e17f, r, r,
                                 r, ties, i % 2 ? r : r * 1e-30f};
        x[i] = by_kind[kind];
    }
    if (kind >= 5 && kind <= 7) x[g() % 512] = special[kind - 5];
    if (kind == 8) x[0] = 127.0f;
}

TEST(QuantizeBulk, EveryVariantMatchesTheOneRowFunction) {
    constexpr std::size_t kRows = 203;  // not a multiple of any lane count
    std::mt19937 g(14);
    std::vector<float> in(kRows * 512);
    for (std::size_t r = 0; r < kRows; ++r) {
        // Mostly random rows, each special kind in several lane positions of a block.
        const int k = (r % 3 == 0) ? static_cast<int>(r / 3 % kKinds) : 0;
        fill(k, g, &in[r * 512]);
    }
    std::vector<int8_t> want(kRows * 512);
    std::vector<float> want_scale(kRows), want_norm(kRows);
    for (std::size_t r = 0; r < kRows; ++r)
        ASSERT_EQ(orve_quantize_float_vector_symmetric(&in[r * 512], 512, &want[r * 512],
                                                       &want_scale[r], &want_norm[r]),
                  0);
    std::size_t count = 0;
    const orve::quantize_rows_kernel* ks = orve::quantize_rows_available(&count);
    ASSERT_GE(count, 1u);
    for (std::size_t v = 0; v < count; ++v) {
        for (std::size_t n : {kRows, std::size_t{1}, std::size_t{9}}) {
            std::vector<int8_t> codes(n * 512, 99);
            std::vector<float> scale(n, -1.0f), norm(n, -1.0f);
            ks[v].fn(in.data(), n, codes.data(), scale.data(), norm.data());
            for (std::size_t r = 0; r < n; ++r) {
                SCOPED_TRACE(std::string(ks[v].name) + " row " + std::to_string(r));
                EXPECT_EQ(test_math::bits(scale[r]), test_math::bits(want_scale[r]));
                EXPECT_EQ(test_math::bits(norm[r]), test_math::bits(want_norm[r]));
                EXPECT_EQ(std::memcmp(&codes[r * 512], &want[r * 512], 512), 0);
            }
        }
    }
}

}  // namespace
