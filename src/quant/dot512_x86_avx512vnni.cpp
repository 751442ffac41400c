// AVX-512 VNNI kernel. vpdpbusd multiplies unsigned by signed bytes and accumulates without
// saturation. Flipping the sign bit of one operand turns a signed byte x into the unsigned
// x + 128, so sum(x * y) = vpdpbusd(x ^ 0x80, y) - 128 * sum(y): exact for all of int8.
#include "quant/x86_lane_sums.h"

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

// The AVX-VNNI kernel's steps at twice the width: a separate copy, as each is compiled for its set.
int32_t dot512_avx512vnni(const int8_t* a, const int8_t* b) {
    const __m512i flip = _mm512_set1_epi8(static_cast<char>(0x80));
    __m512i acc0 = _mm512_setzero_si512(), acc1 = _mm512_setzero_si512();
    __m512i corr = _mm512_setzero_si512();  // accumulates 128 * b
    for (std::size_t i = 0; i < kCodeBytes; i += 128) {
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
    for (std::size_t i = 0; i < kCodeBytes; ++i) qsum += q[i];
    const int32_t correction = 128 * qsum;

    for (std::size_t r = 0; r < n; ++r) {
        const int8_t* row = rows + r * kCodeBytes;
        __m512i acc0 = _mm512_setzero_si512(), acc1 = _mm512_setzero_si512();
        for (std::size_t j = 0; j < 8; j += 2) {
            acc0 = _mm512_dpbusd_epi32(acc0, _mm512_xor_si512(load64(row + 64 * j), flip), qv[j]);
            acc1 = _mm512_dpbusd_epi32(acc1, _mm512_xor_si512(load64(row + 64 * j + 64), flip),
                                       qv[j + 1]);
        }
        out[r] = hsum_epi32(_mm512_add_epi32(acc0, acc1)) - correction;
    }
}

void dot512_avx512vnni_multi(const int8_t* const* queries, const int8_t* rows, std::size_t n,
                             int32_t* out, std::size_t ld) {
    // Each 64-byte piece of a row is flipped once and feeds one accumulator per query; the four
    // queries (2 KiB) stay in the first-level cache while the rows stream past once.
    const __m512i flip = _mm512_set1_epi8(static_cast<char>(0x80));
    const int8_t* q0 = queries[0];
    const int8_t* q1 = queries[1];
    const int8_t* q2 = queries[2];
    const int8_t* q3 = queries[3];
    int32_t qsum[4] = {0, 0, 0, 0};
    for (std::size_t i = 0; i < kCodeBytes; ++i) {
        qsum[0] += q0[i];
        qsum[1] += q1[i];
        qsum[2] += q2[i];
        qsum[3] += q3[i];
    }
    const __m128i correction = _mm_slli_epi32(_mm_loadu_si128(reinterpret_cast<__m128i*>(qsum)), 7);
    for (std::size_t r = 0; r < n; ++r) {
        const int8_t* row = rows + r * kCodeBytes;
        __m512i a0 = _mm512_setzero_si512(), a1 = a0, a2 = a0, a3 = a0;
#pragma GCC unroll 8
        for (std::size_t i = 0; i < kCodeBytes; i += 64) {
            const __m512i rv = _mm512_xor_si512(load64(row + i), flip);
            a0 = _mm512_dpbusd_epi32(a0, rv, load64(q0 + i));
            a1 = _mm512_dpbusd_epi32(a1, rv, load64(q1 + i));
            a2 = _mm512_dpbusd_epi32(a2, rv, load64(q2 + i));
            a3 = _mm512_dpbusd_epi32(a3, rv, load64(q3 + i));
        }
        // Transposing reduction: every 128-bit lane of t holds partial sums of the four dots in
        // query order, so adding the four lanes gives all four at once.
        const __m512i t = pair64(pair32(a0, a1), pair32(a2, a3));
        const __m256i h =
            _mm256_add_epi32(_mm512_castsi512_si256(t), _mm512_extracti64x4_epi64(t, 1));
        const __m128i d = _mm_sub_epi32(
            _mm_add_epi32(_mm256_castsi256_si128(h), _mm256_extracti128_si256(h, 1)), correction);
        out[r] = _mm_extract_epi32(d, 0);
        out[ld + r] = _mm_extract_epi32(d, 1);
        out[2 * ld + r] = _mm_extract_epi32(d, 2);
        out[3 * ld + r] = _mm_extract_epi32(d, 3);
    }
}

}  // namespace orve
