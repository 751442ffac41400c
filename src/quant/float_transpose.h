// Four-by-four transposes of float rows and the walk over eight rows built on them, shared by the
// re-ranking sums of every instruction set.
//
// The files that use it are compiled with different instruction-set flags, so it has internal
// linkage: each file keeps its own copy, and the linker can never hand one file a copy built for
// another's instructions.
#pragma once

#include <cstring>

namespace orve {
namespace {

typedef float quad_f32 __attribute__((vector_size(4 * sizeof(float))));

inline quad_f32 load_quad(const float* p) {
    quad_f32 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Values i .. i + 3 of four rows, turned so that out[d] holds value i + d of each row: moves
// only, so every value keeps its bits.
inline __attribute__((always_inline)) void transpose4(const float* const* row, int i,
                                                      quad_f32* out) {
    const quad_f32 a = load_quad(row[0] + i), b = load_quad(row[1] + i);
    const quad_f32 c = load_quad(row[2] + i), d = load_quad(row[3] + i);
    const quad_f32 ab_lo = __builtin_shufflevector(a, b, 0, 4, 1, 5);
    const quad_f32 ab_hi = __builtin_shufflevector(a, b, 2, 6, 3, 7);
    const quad_f32 cd_lo = __builtin_shufflevector(c, d, 0, 4, 1, 5);
    const quad_f32 cd_hi = __builtin_shufflevector(c, d, 2, 6, 3, 7);
    out[0] = __builtin_shufflevector(ab_lo, cd_lo, 0, 1, 4, 5);
    out[1] = __builtin_shufflevector(ab_lo, cd_lo, 2, 3, 6, 7);
    out[2] = __builtin_shufflevector(ab_hi, cd_hi, 0, 1, 4, 5);
    out[3] = __builtin_shufflevector(ab_hi, cd_hi, 2, 3, 6, 7);
}

// Calls step(query[i], a, b) for i = 0 .. 511 in order, where a holds value i of rows 0-3 and
// b value i of rows 4-7: the walk every re-ranking form shares, whatever width it adds in.
template <class Step>
inline __attribute__((always_inline)) void for_each_value_of_eight(const float* query,
                                                                   const float* const* rows,
                                                                   Step&& step) {
    for (int i = 0; i < 512; i += 4) {
        quad_f32 a[4], b[4];  // a[d]: value i + d of rows 0-3; b[d] of rows 4-7
        transpose4(rows, i, a);
        transpose4(rows + 4, i, b);
        // Written out, not looped: at -O2 a loop here kept a and b on the stack.
        step(query[i], a[0], b[0]);
        step(query[i + 1], a[1], b[1]);
        step(query[i + 2], a[2], b[2]);
        step(query[i + 3], a[3], b[3]);
    }
}

}  // namespace
}  // namespace orve
