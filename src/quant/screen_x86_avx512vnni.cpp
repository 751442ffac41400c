// AVX-512 VNNI screen kernel. Four sketch rows against four centroid codes at a time: sixteen
// accumulators, so each 64-byte load feeds four multiply-accumulates, then one transposing
// reduction turns the sixteen accumulators into the sixteen dot products at once.
// vpdpbusd multiplies unsigned by signed bytes: a row byte r enters as r ^ 0x80 = r + 128, and
// 128 x (sum of the centroid code) comes off at the end, which is exact for all of int8.
#include "quant/x86_lane_sums.h"

#include "quant/dot512_kernels.h"
#include "quant/screen_kernels.h"

namespace orve {
namespace {

// After pair32 and pair64, adds the 128-bit lanes of two vectors pairwise, so that sixteen
// accumulators reduce to their sixteen sums in one vector.
inline __m512i pair128(__m512i a, __m512i b) {
    return _mm512_add_epi32(_mm512_shuffle_i32x4(a, b, 0x88), _mm512_shuffle_i32x4(a, b, 0xDD));
}

// One row piece (already sign-flipped) times the same piece of four centroid codes, into that
// row's four accumulators.
inline void row_times4(__m512i rv, __m512i c0, __m512i c1, __m512i c2, __m512i c3, __m512i& a0,
                       __m512i& a1, __m512i& a2, __m512i& a3) {
    a0 = _mm512_dpbusd_epi32(a0, rv, c0);
    a1 = _mm512_dpbusd_epi32(a1, rv, c1);
    a2 = _mm512_dpbusd_epi32(a2, rv, c2);
    a3 = _mm512_dpbusd_epi32(a3, rv, c3);
}

}  // namespace

void screen_dots4_avx512vnni(const int8_t* const* rows, const int8_t* codes,
                             const int32_t* code_sums, uint32_t k4, int32_t* out, std::size_t ld) {
    const __m512i flip = _mm512_set1_epi8(static_cast<char>(0x80));
    for (uint32_t c0 = 0; c0 < k4; c0 += 4) {
        const int8_t* cb = codes + static_cast<std::size_t>(c0) * kCodeBytes;
        // Sixteen named accumulators so they stay in registers (an array of them is spilled).
        __m512i a00 = _mm512_setzero_si512(), a01 = a00, a02 = a00, a03 = a00;
        __m512i a10 = a00, a11 = a00, a12 = a00, a13 = a00;
        __m512i a20 = a00, a21 = a00, a22 = a00, a23 = a00;
        __m512i a30 = a00, a31 = a00, a32 = a00, a33 = a00;
        const int8_t* r0 = rows[0];
        const int8_t* r1 = rows[1];
        const int8_t* r2 = rows[2];
        const int8_t* r3 = rows[3];
#pragma GCC unroll 8
        for (std::size_t j = 0; j < kCodeBytes; j += 64) {
            const __m512i c0v = _mm512_loadu_si512(cb + j);
            const __m512i c1v = _mm512_loadu_si512(cb + kCodeBytes + j);
            const __m512i c2v = _mm512_loadu_si512(cb + 2 * kCodeBytes + j);
            const __m512i c3v = _mm512_loadu_si512(cb + 3 * kCodeBytes + j);
            row_times4(_mm512_xor_si512(_mm512_loadu_si512(r0 + j), flip), c0v, c1v, c2v, c3v, a00,
                       a01, a02, a03);
            row_times4(_mm512_xor_si512(_mm512_loadu_si512(r1 + j), flip), c0v, c1v, c2v, c3v, a10,
                       a11, a12, a13);
            row_times4(_mm512_xor_si512(_mm512_loadu_si512(r2 + j), flip), c0v, c1v, c2v, c3v, a20,
                       a21, a22, a23);
            row_times4(_mm512_xor_si512(_mm512_loadu_si512(r3 + j), flip), c0v, c1v, c2v, c3v, a30,
                       a31, a32, a33);
        }
        // Transposing reduction: lane 4r + c ends up holding the dot of row r and centroid
        // c0 + c (the sum of all sixteen lanes of accumulator a<r><c>).
        const __m512i s0 = pair64(pair32(a00, a01), pair32(a02, a03));
        const __m512i s1 = pair64(pair32(a10, a11), pair32(a12, a13));
        const __m512i s2 = pair64(pair32(a20, a21), pair32(a22, a23));
        const __m512i s3 = pair64(pair32(a30, a31), pair32(a32, a33));
        const __m512i sums = pair128(pair128(s0, s1), pair128(s2, s3));
        const __m512i corr = _mm512_slli_epi32(
            _mm512_broadcast_i32x4(
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(code_sums + c0))),
            7);
        const __m512i dots = _mm512_sub_epi32(sums, corr);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + c0), _mm512_extracti32x4_epi32(dots, 0));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + ld + c0),
                         _mm512_extracti32x4_epi32(dots, 1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * ld + c0),
                         _mm512_extracti32x4_epi32(dots, 2));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 3 * ld + c0),
                         _mm512_extracti32x4_epi32(dots, 3));
    }
}

float screen_bounds_avx512vnni(const sketch_point& x, const sketch_columns& y, const int32_t* dots,
                               float* lo) {
    return screen_bounds_generic(x, y, dots, lo);
}

uint32_t screen_candidates_avx512vnni(const float* lo, uint32_t k, float h, uint32_t* out) {
    const __m512 hv = _mm512_set1_ps(h);
    const __m512i step = _mm512_set1_epi32(16);
    __m512i idx = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    uint32_t count = 0;
    uint32_t c = 0;
    for (; c + 16 <= k; c += 16) {
        const __mmask16 m = _mm512_cmp_ps_mask(_mm512_loadu_ps(lo + c), hv, _CMP_LE_OQ);
        if (m != 0) {
            _mm512_mask_compressstoreu_epi32(out + count, m, idx);
            count += static_cast<uint32_t>(__builtin_popcount(m));
        }
        idx = _mm512_add_epi32(idx, step);
    }
    for (; c < k; ++c) {
        if (lo[c] <= h) out[count++] = c;
    }
    return count;
}

}  // namespace orve
