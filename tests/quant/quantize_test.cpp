#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#include "semantic_vector_indexing.h"

namespace {

TEST(Quantize, Examples) {
    struct Case {
        std::vector<std::pair<int, float>> in;   // lanes set; every other lane is 0
        std::vector<std::pair<int, int>> codes;  // lanes checked; every other lane must be 0
        float scale, norm;
    } cases[] = {
        {{}, {}, 0.0f, 0.0f},
        {{{3, 0.5f}}, {{3, 127}}, 254.0f, 0.5f},
        {{{7, 1e-13f}}, {}, 0.0f, 1e-13f},  // below the zero threshold: codes 0, norm kept
        // The largest magnitude maps to -127, never -128; -63.5 ties to even.
        {{{0, -3.0f}, {1, 3.0f}, {2, -1.5f}},
         {{0, -127}, {1, 127}, {2, -64}},
         127.0f / 3.0f,
         std::sqrt(20.25f)},
        // Scale exactly 1, so codes are the inputs rounded half to even.
        {{{0, 127.0f}, {1, 0.5f}, {2, 1.5f}, {3, 2.5f}, {4, -2.5f}},
         {{0, 127}, {1, 0}, {2, 2}, {3, 2}, {4, -2}},
         1.0f,
         std::sqrt(16144.0f)},
    };
    for (const auto& c : cases) {
        std::vector<float> v(512, 0.0f);
        for (auto [l, x] : c.in) v[l] = x;
        std::vector<int> want(512, 0);
        for (auto [l, x] : c.codes) want[l] = x;
        int8_t codes[512];
        std::memset(codes, 55, sizeof codes);
        float scale = -1.0f, norm = -1.0f;
        ASSERT_EQ(orve_quantize_float_vector_symmetric(v.data(), 512, codes, &scale, &norm), 0);
        for (int i = 0; i < 512; ++i) EXPECT_EQ(codes[i], want[i]) << i;
        EXPECT_FLOAT_EQ(scale, c.scale);
        EXPECT_FLOAT_EQ(norm, c.norm);
    }
}

TEST(Quantize, BadArgumentsFailWithoutWriting) {
    std::vector<float> v(513, 1.0f);
    int8_t codes[512];
    std::memset(codes, 42, sizeof codes);
    float scale = 42.0f, norm = 42.0f;
    const struct {
        const float* in;
        int dim;
        int8_t* out;
    } bad[] = {{v.data(), 511, codes},
               {v.data(), 513, codes},
               {nullptr, 512, codes},
               {v.data(), 512, nullptr}};
    for (const auto& c : bad)
        EXPECT_EQ(orve_quantize_float_vector_symmetric(c.in, c.dim, c.out, &scale, &norm), -1);
    EXPECT_EQ(scale + norm, 84.0f);
    for (int8_t c : codes) ASSERT_EQ(c, 42);
}

// A non-positive factor gives 0, and so does a product of factors that underflows (not inf).
TEST(CosineFromDot, FactorsAndEdgeCases) {
    struct Case {
        int32_t dot;
        float sa, sb, na, nb, want;
    } cases[] = {
        {100, 0.0f, 1.0f, 1.0f, 1.0f, 0.0f},         {100, 1.0f, -1.0f, 1.0f, 1.0f, 0.0f},
        {100, 1.0f, 1.0f, 0.0f, 1.0f, 0.0f},         {100, 1.0f, 1.0f, 1.0f, -2.0f, 0.0f},
        {100, 1e-30f, 1e-30f, 1e-10f, 1e-10f, 0.0f}, {-500, 2.0f, 5.0f, 10.0f, 1.0f, -5.0f},
        {300, 1.0f, 2.0f, 3.0f, 5.0f, 10.0f}};
    for (const auto& c : cases)
        EXPECT_FLOAT_EQ(orve_cosine_from_quantized_dot(c.dot, c.sa, c.sb, c.na, c.nb), c.want);
}

}  // namespace
