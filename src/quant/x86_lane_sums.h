// Lane sums shared by the x86 int8 kernels: the horizontal sum of a 256-bit accumulator, and for
// the AVX-512 kernels the pairwise adds of a transposing reduction.
//
// Every kernel file is compiled with its own instruction-set flags, so these helpers have
// internal linkage: each file gets its own copy built with its own flags, and the linker can
// never hand a file built for one set a copy built for another. The AVX-512 helpers exist only
// in files compiled for AVX-512, so no other file can call them.
#pragma once

#include <cstdint>

#include "quant/x86_intrinsics.h"

namespace orve {
namespace {

// Sum of the eight 32-bit lanes.
inline int32_t hsum_epi32(__m256i v) {
    __m128i s = _mm_add_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(1, 0, 3, 2)));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(2, 3, 0, 1)));
    return _mm_cvtsi128_si32(s);
}

#if defined(__AVX512F__)
// Adds pairs of vectors so that each 128-bit lane of the result holds [a, b, a, b] partial sums
// (pair32), or [a, b, c, d] from two such (pair64); nothing goes through memory.
inline __m512i pair32(__m512i a, __m512i b) {
    return _mm512_add_epi32(_mm512_unpacklo_epi32(a, b), _mm512_unpackhi_epi32(a, b));
}
inline __m512i pair64(__m512i a, __m512i b) {
    return _mm512_add_epi32(_mm512_unpacklo_epi64(a, b), _mm512_unpackhi_epi64(a, b));
}
#endif

}  // namespace
}  // namespace orve
