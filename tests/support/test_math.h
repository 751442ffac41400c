// Independent computations for the tests: a byte digest, float bits, the exact 512-float cosine.
#pragma once

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace test_math {

constexpr uint64_t kFnvOffset = 0xCBF29CE484222325ull;

inline uint64_t fnv1a(uint64_t h, const void* data, size_t bytes) {
    const auto* p = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < bytes; ++i) h = (h ^ p[i]) * 0x100000001B3ull;
    return h;
}

// A float's bit pattern, for comparisons that must be exact down to the sign of zero and NaNs.
inline uint32_t bits(float f) {
    return std::bit_cast<uint32_t>(f);
}
inline uint64_t bits(double d) {
    return std::bit_cast<uint64_t>(d);
}

// In double, so the reference does not share the library's single-precision rounding.
inline double cosine512(const float* a, const float* b) {
    double ab = 0, aa = 0, bb = 0;
    for (int i = 0; i < 512; ++i)
        ab += double{a[i]} * b[i], aa += double{a[i]} * a[i], bb += double{b[i]} * b[i];
    return ab / (std::sqrt(aa) * std::sqrt(bb));
}

}  // namespace test_math
