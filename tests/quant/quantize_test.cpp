#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "semantic_vector_indexing.h"

namespace {

std::vector<float> zeros() {
    return std::vector<float>(512, 0.0f);
}

TEST(Quantize, AllZeroInputGivesZeroCodesScaleAndNorm) {
    std::vector<float> v = zeros();
    int8_t codes[512];
    std::memset(codes, 55, sizeof codes);
    float scale = -1.0f, norm = -1.0f;
    ASSERT_EQ(orve_quantize_float_vector_symmetric(v.data(), 512, codes, &scale, &norm), 0);
    for (int8_t c : codes) EXPECT_EQ(c, 0);
    EXPECT_EQ(scale, 0.0f);
    EXPECT_EQ(norm, 0.0f);
}

TEST(Quantize, SingleComponentTakesFullRange) {
    std::vector<float> v = zeros();
    v[3] = 0.5f;
    int8_t codes[512];
    float scale = 0.0f, norm = 0.0f;
    ASSERT_EQ(orve_quantize_float_vector_symmetric(v.data(), 512, codes, &scale, &norm), 0);
    EXPECT_EQ(scale, 254.0f);
    EXPECT_EQ(norm, 0.5f);
    for (int i = 0; i < 512; ++i) EXPECT_EQ(codes[i], i == 3 ? 127 : 0) << i;
}

TEST(Quantize, TinyVectorIsZeroButKeepsItsNorm) {
    std::vector<float> v = zeros();
    v[7] = 1e-13f;
    int8_t codes[512];
    float scale = 9.0f, norm = 0.0f;
    ASSERT_EQ(orve_quantize_float_vector_symmetric(v.data(), 512, codes, &scale, &norm), 0);
    EXPECT_EQ(scale, 0.0f);
    EXPECT_EQ(norm, 1e-13f);
    for (int8_t c : codes) EXPECT_EQ(c, 0);
}

TEST(Quantize, ExtremesMapToPlusMinus127NeverMinus128) {
    std::vector<float> v = zeros();
    v[0] = -3.0f;  // the largest magnitude, negative
    v[1] = 3.0f;
    v[2] = -1.5f;
    int8_t codes[512];
    ASSERT_EQ(orve_quantize_float_vector_symmetric(v.data(), 512, codes, nullptr, nullptr), 0);
    EXPECT_EQ(codes[0], -127);
    EXPECT_EQ(codes[1], 127);
    EXPECT_EQ(codes[2], -64);  // -63.5 rounds to even

    std::mt19937 rng(7);
    std::normal_distribution<float> g;
    for (int trial = 0; trial < 200; ++trial) {
        for (float& x : v) x = g(rng) * 10.0f;
        ASSERT_EQ(orve_quantize_float_vector_symmetric(v.data(), 512, codes, nullptr, nullptr), 0);
        for (int8_t c : codes) ASSERT_GE(c, -127);
    }
}

TEST(Quantize, TiesRoundToEven) {
    // With a largest magnitude of 127 the scale is exactly 1, so codes are the inputs rounded.
    std::vector<float> v = zeros();
    v[0] = 127.0f;
    v[1] = 0.5f;
    v[2] = 1.5f;
    v[3] = 2.5f;
    v[4] = -2.5f;
    int8_t codes[512];
    float scale = 0.0f;
    ASSERT_EQ(orve_quantize_float_vector_symmetric(v.data(), 512, codes, &scale, nullptr), 0);
    EXPECT_EQ(scale, 1.0f);
    EXPECT_EQ(codes[1], 0);
    EXPECT_EQ(codes[2], 2);
    EXPECT_EQ(codes[3], 2);
    EXPECT_EQ(codes[4], -2);
}

TEST(Quantize, BadArgumentsFailWithoutWriting) {
    std::vector<float> v(513, 1.0f);
    int8_t codes[512];
    std::memset(codes, 42, sizeof codes);
    float scale = 42.0f, norm = 42.0f;
    EXPECT_EQ(orve_quantize_float_vector_symmetric(v.data(), 511, codes, &scale, &norm), -1);
    EXPECT_EQ(orve_quantize_float_vector_symmetric(v.data(), 513, codes, &scale, &norm), -1);
    EXPECT_EQ(orve_quantize_float_vector_symmetric(nullptr, 512, codes, &scale, &norm), -1);
    EXPECT_EQ(orve_quantize_float_vector_symmetric(v.data(), 512, nullptr, &scale, &norm), -1);
    EXPECT_EQ(scale, 42.0f);
    EXPECT_EQ(norm, 42.0f);
    for (int8_t c : codes) EXPECT_EQ(c, 42);
}

TEST(Quantize, MatchesIndependentDoublePrecisionModel) {
    // An independent model of the rule: codes are round-half-even(x * 127 / max|x|). Computed
    // in double here, so only values within float rounding of a .5 tie may differ by one.
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> u(-2.0f, 2.0f);
    std::vector<float> v(512);
    int8_t codes[512];
    for (int trial = 0; trial < 50; ++trial) {
        for (float& x : v) x = u(rng);
        float norm = 0.0f;
        ASSERT_EQ(orve_quantize_float_vector_symmetric(v.data(), 512, codes, nullptr, &norm), 0);
        double m = 0, s = 0;
        for (float x : v) {
            m = std::max(m, std::fabs(static_cast<double>(x)));
            s += static_cast<double>(x) * x;
        }
        EXPECT_NEAR(norm, std::sqrt(s), 1e-4 * std::sqrt(s));
        for (int i = 0; i < 512; ++i) {
            const double y = v[i] * 127.0 / m;
            EXPECT_LE(std::fabs(codes[i] - y), 0.5 + 1e-4) << i;
        }
    }
}

TEST(CosineFromDot, FactorsAndEdgeCases) {
    EXPECT_EQ(orve_cosine_from_quantized_dot(100, 0.0f, 1.0f, 1.0f, 1.0f), 0.0f);
    EXPECT_EQ(orve_cosine_from_quantized_dot(100, 1.0f, -1.0f, 1.0f, 1.0f), 0.0f);
    EXPECT_EQ(orve_cosine_from_quantized_dot(100, 1.0f, 1.0f, 0.0f, 1.0f), 0.0f);
    EXPECT_EQ(orve_cosine_from_quantized_dot(100, 1.0f, 1.0f, 1.0f, -2.0f), 0.0f);
    // Underflow of the product is reported as 0, not as an infinite cosine.
    EXPECT_EQ(orve_cosine_from_quantized_dot(100, 1e-30f, 1e-30f, 1e-10f, 1e-10f), 0.0f);
    EXPECT_FLOAT_EQ(orve_cosine_from_quantized_dot(-500, 2.0f, 5.0f, 10.0f, 1.0f), -5.0f);
    EXPECT_FLOAT_EQ(orve_cosine_from_quantized_dot(300, 1.0f, 2.0f, 3.0f, 5.0f), 10.0f);
}

TEST(CosineFromDot, VectorWithItselfIsNearOne) {
    std::mt19937 rng(3);
    std::normal_distribution<float> g;
    std::vector<float> v(512);
    for (float& x : v) x = g(rng);
    int8_t codes[512];
    float scale, norm;
    ASSERT_EQ(orve_quantize_float_vector_symmetric(v.data(), 512, codes, &scale, &norm), 0);
    int32_t dot = 0;
    for (int8_t c : codes) dot += c * c;
    EXPECT_NEAR(orve_cosine_from_quantized_dot(dot, scale, scale, norm, norm), 1.0f, 0.01f);
}

TEST(QuantizedRecord, CreateHoldsCodesScaleAndNormAndFreesCleanly) {
    std::vector<float> v = zeros();
    v[10] = -2.0f;
    v[11] = 1.0f;
    orve_quantized_vector_record* rec = nullptr;
    ASSERT_EQ(orve_quantized_vector_record_create(v.data(), 77, &rec), 0);
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec->id, 77u);
    EXPECT_EQ(rec->scale, 63.5f);
    EXPECT_FLOAT_EQ(rec->norm, std::sqrt(5.0f));
    EXPECT_EQ(rec->codes[10], -127);
    EXPECT_EQ(rec->codes[11], 64);  // 63.5 ties to even
    orve_quantized_vector_record_free(rec);
    orve_quantized_vector_record_free(nullptr);

    orve_quantized_vector_record* untouched = reinterpret_cast<orve_quantized_vector_record*>(0x1);
    EXPECT_EQ(orve_quantized_vector_record_create(nullptr, 1, &untouched), -1);
    EXPECT_EQ(untouched, reinterpret_cast<orve_quantized_vector_record*>(0x1));
    EXPECT_EQ(orve_quantized_vector_record_create(v.data(), 1, nullptr), -1);
}

}  // namespace
