// Four-by-four transposes of float rows, shared by the re-ranking sums of every instruction set.
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

}  // namespace
}  // namespace orve
