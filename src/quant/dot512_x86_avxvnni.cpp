// AVX-VNNI kernel: the 256-bit form of the VNNI kernel, for processors that have VNNI but not
// AVX-512. Same sign-flip identity: sum(x * y) = vpdpbusd(x ^ 0x80, y) - 128 * sum(y).
#include "quant/x86_lane_sums.h"

#include "quant/dot512_kernels.h"

namespace orve {
namespace {

inline __m256i load32(const int8_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

}  // namespace

// The AVX-512 kernel's steps at half the width: a separate copy, as each is compiled for its set.
int32_t dot512_avxvnni(const int8_t* a, const int8_t* b) {
    const __m256i flip = _mm256_set1_epi8(static_cast<char>(0x80));
    __m256i acc0 = _mm256_setzero_si256(), acc1 = _mm256_setzero_si256();
    __m256i corr = _mm256_setzero_si256();
    for (std::size_t i = 0; i < kCodeBytes; i += 64) {
        const __m256i b0 = load32(b + i), b1 = load32(b + i + 32);
        acc0 = _mm256_dpbusd_avx_epi32(acc0, _mm256_xor_si256(load32(a + i), flip), b0);
        acc1 = _mm256_dpbusd_avx_epi32(acc1, _mm256_xor_si256(load32(a + i + 32), flip), b1);
        corr = _mm256_dpbusd_avx_epi32(corr, flip, b0);
        corr = _mm256_dpbusd_avx_epi32(corr, flip, b1);
    }
    return hsum_epi32(_mm256_sub_epi32(_mm256_add_epi32(acc0, acc1), corr));
}

void dot512_avxvnni_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out) {
    const __m256i flip = _mm256_set1_epi8(static_cast<char>(0x80));
    int32_t qsum = 0;
    for (std::size_t i = 0; i < kCodeBytes; ++i) qsum += q[i];
    const int32_t correction = 128 * qsum;
    for (std::size_t r = 0; r < n; ++r) {
        const int8_t* row = rows + r * kCodeBytes;
        __m256i acc0 = _mm256_setzero_si256(), acc1 = _mm256_setzero_si256();
        for (std::size_t i = 0; i < kCodeBytes; i += 64) {
            acc0 = _mm256_dpbusd_avx_epi32(acc0, _mm256_xor_si256(load32(row + i), flip),
                                           load32(q + i));
            acc1 = _mm256_dpbusd_avx_epi32(acc1, _mm256_xor_si256(load32(row + i + 32), flip),
                                           load32(q + i + 32));
        }
        out[r] = hsum_epi32(_mm256_add_epi32(acc0, acc1)) - correction;
    }
}

// Same loop as the other sets' multi-query kernels, each written in its own set's instructions.
void dot512_avxvnni_multi(const int8_t* const* queries, const int8_t* rows, std::size_t n,
                          int32_t* out, std::size_t ld) {
    const __m256i flip = _mm256_set1_epi8(static_cast<char>(0x80));
    int32_t correction[kMultiQueries];
    for (std::size_t j = 0; j < kMultiQueries; ++j) {
        int32_t qsum = 0;
        for (std::size_t i = 0; i < kCodeBytes; ++i) qsum += queries[j][i];
        correction[j] = 128 * qsum;
    }
    const int8_t* q0 = queries[0];
    const int8_t* q1 = queries[1];
    const int8_t* q2 = queries[2];
    const int8_t* q3 = queries[3];
    for (std::size_t r = 0; r < n; ++r) {
        const int8_t* row = rows + r * kCodeBytes;
        __m256i a0 = _mm256_setzero_si256(), a1 = a0, a2 = a0, a3 = a0;
        for (std::size_t i = 0; i < kCodeBytes; i += 32) {
            const __m256i rv = _mm256_xor_si256(load32(row + i), flip);
            a0 = _mm256_dpbusd_avx_epi32(a0, rv, load32(q0 + i));
            a1 = _mm256_dpbusd_avx_epi32(a1, rv, load32(q1 + i));
            a2 = _mm256_dpbusd_avx_epi32(a2, rv, load32(q2 + i));
            a3 = _mm256_dpbusd_avx_epi32(a3, rv, load32(q3 + i));
        }
        out[r] = hsum_epi32(a0) - correction[0];
        out[ld + r] = hsum_epi32(a1) - correction[1];
        out[2 * ld + r] = hsum_epi32(a2) - correction[2];
        out[3 * ld + r] = hsum_epi32(a3) - correction[3];
    }
}

}  // namespace orve
