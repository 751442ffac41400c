// AVX-512 VNNI kernel. vpdpbusd multiplies unsigned by signed bytes and accumulates without
// saturation. Flipping the sign bit of one operand turns a signed byte x into the unsigned
// x + 128, so sum(x * y) = vpdpbusd(x ^ 0x80, y) - 128 * sum(y): exact for all of int8.
// GCC 12's AVX-512 headers initialise their "undefined" vectors from themselves, which its own
// uninitialised-use warnings then flag inside the header (fixed in later releases).
#if defined(__GNUC__) && !defined(__clang__)  // clang has no such group and would warn
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

#include "quant/dot512_kernels.h"

namespace orve {
namespace {

inline __m512i load64(const int8_t* p) {
    return _mm512_loadu_si512(p);
}

// Horizontal sum of the sixteen lanes.
inline int32_t hsum_epi32(__m512i v) {
    const __m512i folded = _mm512_add_epi32(v, _mm512_shuffle_i64x2(v, v, 0xEE));
    __m128i s = _mm_add_epi32(_mm512_castsi512_si128(folded),
                              _mm256_extracti128_si256(_mm512_castsi512_si256(folded), 1));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(1, 0, 3, 2)));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(2, 3, 0, 1)));
    return _mm_cvtsi128_si32(s);
}

}  // namespace

int32_t dot512_avx512vnni(const int8_t* a, const int8_t* b) {
    const __m512i flip = _mm512_set1_epi8(static_cast<char>(0x80));
    __m512i acc0 = _mm512_setzero_si512(), acc1 = _mm512_setzero_si512();
    __m512i corr = _mm512_setzero_si512();  // accumulates 128 * b
    for (std::size_t i = 0; i < kRowBytes; i += 128) {
        const __m512i b0 = load64(b + i), b1 = load64(b + i + 64);
        acc0 = _mm512_dpbusd_epi32(acc0, _mm512_xor_si512(load64(a + i), flip), b0);
        acc1 = _mm512_dpbusd_epi32(acc1, _mm512_xor_si512(load64(a + i + 64), flip), b1);
        corr = _mm512_dpbusd_epi32(corr, flip, b0);
        corr = _mm512_dpbusd_epi32(corr, flip, b1);
    }
    return hsum_epi32(_mm512_sub_epi32(_mm512_add_epi32(acc0, acc1), corr));
}

void dot512_avx512vnni_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out) {
    // The query (8 registers) is the signed operand and stays in registers; each row gets its
    // sign bit flipped on the way in, and the constant 128 * sum(q) comes off at the end.
    const __m512i flip = _mm512_set1_epi8(static_cast<char>(0x80));
    __m512i qv[8];
    int32_t qsum = 0;
    for (std::size_t j = 0; j < 8; ++j) qv[j] = load64(q + 64 * j);
    for (std::size_t i = 0; i < kRowBytes; ++i) qsum += q[i];
    const int32_t correction = 128 * qsum;

    for (std::size_t r = 0; r < n; ++r) {
        const int8_t* row = rows + r * kRowBytes;
        __m512i acc0 = _mm512_setzero_si512(), acc1 = _mm512_setzero_si512();
        for (std::size_t j = 0; j < 8; j += 2) {
            acc0 = _mm512_dpbusd_epi32(acc0, _mm512_xor_si512(load64(row + 64 * j), flip), qv[j]);
            acc1 = _mm512_dpbusd_epi32(acc1, _mm512_xor_si512(load64(row + 64 * j + 64), flip),
                                       qv[j + 1]);
        }
        out[r] = hsum_epi32(_mm512_add_epi32(acc0, acc1)) - correction;
    }
}

}  // namespace orve
