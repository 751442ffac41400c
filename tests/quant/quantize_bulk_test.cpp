#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "quant/quantize_bulk.h"
#include "semantic_vector_indexing.h"

namespace {

// Row kinds that take each branch of the one-row function, and its rounding corner cases.
enum class kind { random, zeros, neg_zero, tiny, huge, overflow, nan, inf, ties, mixed };

void fill(kind k, std::mt19937& g, float* x) {
    std::normal_distribution<float> nd(0.0f, 1.0f);
    for (int i = 0; i < 512; ++i) x[i] = nd(g);
    switch (k) {
        case kind::random:
            break;
        case kind::zeros:
            std::memset(x, 0, 512 * sizeof *x);
            break;
        case kind::neg_zero:
            for (int i = 0; i < 512; ++i) x[i] = (i % 3) ? -0.0f : 0.0f;
            break;
        case kind::tiny:
            for (int i = 0; i < 512; ++i) x[i] *= 1e-13f;
            break;
        case kind::huge:
            for (int i = 0; i < 512; ++i) x[i] *= 1e17f;
            break;
        case kind::overflow:
            x[g() % 512] = 3e38f;
            break;
        case kind::nan:
            x[g() % 512] = std::numeric_limits<float>::quiet_NaN();
            break;
        case kind::inf:
            x[g() % 512] = -std::numeric_limits<float>::infinity();
            break;
        case kind::ties:
            // Largest magnitude 127 gives scale 1, so every half-integer is a rounding tie.
            for (int i = 0; i < 512; ++i)
                x[i] = static_cast<float>(static_cast<int>(g() % 254) - 127) + 0.5f;
            x[0] = 127.0f;
            break;
        case kind::mixed:
            for (int i = 0; i < 512; i += 2) x[i] = 1e-30f * x[i];
            break;
    }
}

TEST(QuantizeBulk, EveryVariantMatchesTheOneRowFunction) {
    constexpr kind kKinds[] = {kind::random, kind::zeros,    kind::neg_zero, kind::tiny,
                               kind::huge,   kind::overflow, kind::nan,      kind::inf,
                               kind::ties,   kind::mixed};
    constexpr std::size_t kRows = 203;  // not a multiple of any lane count
    std::mt19937 g(14);
    std::vector<float> in(kRows * 512);
    for (std::size_t r = 0; r < kRows; ++r) {
        // Mostly random rows, each special kind in several lane positions of a block.
        const kind k = (r % 3 == 0) ? kKinds[(r / 3) % std::size(kKinds)] : kind::random;
        fill(k, g, &in[r * 512]);
    }
    std::vector<int8_t> want(kRows * 512);
    std::vector<float> want_scale(kRows), want_norm(kRows);
    for (std::size_t r = 0; r < kRows; ++r) {
        ASSERT_EQ(orve_quantize_float_vector_symmetric(&in[r * 512], 512, &want[r * 512],
                                                       &want_scale[r], &want_norm[r]),
                  0);
    }
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
                uint32_t a, b;
                std::memcpy(&a, &scale[r], 4), std::memcpy(&b, &want_scale[r], 4);
                EXPECT_EQ(a, b);
                std::memcpy(&a, &norm[r], 4), std::memcpy(&b, &want_norm[r], 4);
                EXPECT_EQ(a, b);
                EXPECT_EQ(std::memcmp(&codes[r * 512], &want[r * 512], 512), 0);
            }
        }
    }
}

}  // namespace
