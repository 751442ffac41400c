// Kernels of the k-means training's int8 screen: integer dot products of a few sketch rows against
// a block of centroid sketches, and the distance bounds computed from them. The dot products
// are exact in every kernel; the bounds only filter, so a kernel's rounding of them never
// changes a decision, but every kernel computes them with the same plain float operations.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace orve {

// Per-row values of a block of sketches, each array padded to a multiple of 16 entries.
struct sketch_columns {
    const float* norm2;
    const float* norm;
    const float* hat_norm;
    const float* err_norm;
    const float* inv_scale;
    uint32_t padded;
};

// One sketch row's values.
struct sketch_point {
    float norm2, hat_norm, err_norm, inv_scale;
};

// out[r * ld + c] = exact dot of rows[r] (r < 4) and code row c of `codes`, for c < k4 (a
// multiple of 4; `codes` holds that many rows). code_sums[c] is the sum of code row c.
using screen_dots4_fn = void (*)(const int8_t* const* rows, const int8_t* codes,
                                 const int32_t* code_sums, uint32_t k4, int32_t* out,
                                 std::size_t ld);

// Writes lo[c], a lower bound of l2sq_512 between point x and every row c of y (padding
// included), from their dot products, and returns the smallest upper bound.
using screen_bounds_fn = float (*)(const sketch_point& x, const sketch_columns& y,
                                   const int32_t* dots, float* lo);

// Writes to out, in ascending order, every c < k with lo[c] <= h; returns how many.
using screen_candidates_fn = uint32_t (*)(const float* lo, uint32_t k, float h, uint32_t* out);

// Relative and absolute widening of every interval, wide enough to cover the float rounding of
// the bound arithmetic below.
constexpr float kScreenRel = 1e-4f;
constexpr float kScreenAbs = 1e-20f;

// The bound arithmetic on 16 lanes at a time, written once with the compiler's generic vectors
// so each kernel file compiles it for its own instruction set. Internal linkage on purpose: a
// shared inline copy could be the one built for AVX-512 and then run on any processor.
namespace {
template <int Unused = 0>
float screen_bounds_generic(const sketch_point& x, const sketch_columns& y, const int32_t* dots,
                            float* lo) {
    typedef float v16f __attribute__((vector_size(64)));
    typedef int32_t v16i __attribute__((vector_size(64)));
    const v16f rel = v16f{} + kScreenRel, abs = v16f{} + kScreenAbs;
    const v16f one_minus = v16f{} + (1.0f - kScreenRel), one_plus = v16f{} + (1.0f + kScreenRel);
    const v16f two = v16f{} + 2.0f;
    const v16f xn2 = v16f{} + x.norm2, xh = v16f{} + x.hat_norm, xe = v16f{} + x.err_norm;
    const v16f xi = v16f{} + x.inv_scale;
    v16f hmin = v16f{} + __builtin_inff();
    for (uint32_t c = 0; c < y.padded; c += 16) {
        v16f yn2, yn, yh, ye, yi;
        v16i d;
        std::memcpy(&yn2, y.norm2 + c, sizeof yn2);
        std::memcpy(&yn, y.norm + c, sizeof yn);
        std::memcpy(&yh, y.hat_norm + c, sizeof yh);
        std::memcpy(&ye, y.err_norm + c, sizeof ye);
        std::memcpy(&yi, y.inv_scale + c, sizeof yi);
        std::memcpy(&d, dots + c, sizeof d);
        const v16f cross = __builtin_convertvector(d, v16f) * (xi * yi);
        const v16f a = (xn2 + yn2) - two * cross;
        const v16f m = (xn2 + yn2) + two * (xh * yh);
        const v16f w = two * (xh * ye + xe * yn) + rel * m + abs;
        const v16f l = (a - w) * one_minus - abs;
        const v16f h = (a + w) * one_plus + abs;
        std::memcpy(lo + c, &l, sizeof l);
        hmin = h < hmin ? h : hmin;
    }
    float best = __builtin_inff();
    for (int j = 0; j < 16; ++j) best = hmin[j] < best ? hmin[j] : best;
    return best;
}

// The lower bound screen_bounds writes for one row c of y, by the same float operations.
inline float screen_lower_one(const sketch_point& x, const sketch_columns& y, uint32_t c,
                              int32_t dot) {
    const float cross = static_cast<float>(dot) * (x.inv_scale * y.inv_scale[c]);
    const float a = (x.norm2 + y.norm2[c]) - 2.0f * cross;
    const float m = (x.norm2 + y.norm2[c]) + 2.0f * (x.hat_norm * y.hat_norm[c]);
    const float w =
        2.0f * (x.hat_norm * y.err_norm[c] + x.err_norm * y.norm[c]) + kScreenRel * m + kScreenAbs;
    return (a - w) * (1.0f - kScreenRel) - kScreenAbs;
}

}  // namespace

float screen_bounds_portable(const sketch_point& x, const sketch_columns& y, const int32_t* dots,
                             float* lo);
uint32_t screen_candidates_portable(const float* lo, uint32_t k, float h, uint32_t* out);

#if defined(__x86_64__)
void screen_dots4_avx512vnni(const int8_t* const* rows, const int8_t* codes,
                             const int32_t* code_sums, uint32_t k4, int32_t* out, std::size_t ld);
float screen_bounds_avx512vnni(const sketch_point& x, const sketch_columns& y, const int32_t* dots,
                               float* lo);
uint32_t screen_candidates_avx512vnni(const float* lo, uint32_t k, float h, uint32_t* out);
#endif

}  // namespace orve
