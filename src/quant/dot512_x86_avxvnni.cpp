// AVX-VNNI kernel: the 256-bit form of the VNNI kernel, for processors that have VNNI but not
// AVX-512. Same sign-flip identity: sum(x * y) = vpdpbusd(x ^ 0x80, y) - 128 * sum(y).
#include <immintrin.h>

#include "quant/dot512_kernels.h"

namespace orve {
namespace {

inline __m256i load32(const int8_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

inline int32_t hsum_epi32(__m256i v) {
    __m128i s = _mm_add_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(1, 0, 3, 2)));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(2, 3, 0, 1)));
    return _mm_cvtsi128_si32(s);
}

}  // namespace

int32_t dot512_avxvnni(const int8_t* a, const int8_t* b) {
    const __m256i flip = _mm256_set1_epi8(static_cast<char>(0x80));
    __m256i acc0 = _mm256_setzero_si256(), acc1 = _mm256_setzero_si256();
    __m256i corr = _mm256_setzero_si256();
    for (std::size_t i = 0; i < kRowBytes; i += 64) {
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
    for (std::size_t i = 0; i < kRowBytes; ++i) qsum += q[i];
    const int32_t correction = 128 * qsum;
    for (std::size_t r = 0; r < n; ++r) {
        const int8_t* row = rows + r * kRowBytes;
        __m256i acc0 = _mm256_setzero_si256(), acc1 = _mm256_setzero_si256();
        for (std::size_t i = 0; i < kRowBytes; i += 64) {
            acc0 = _mm256_dpbusd_avx_epi32(acc0, _mm256_xor_si256(load32(row + i), flip),
                                           load32(q + i));
            acc1 = _mm256_dpbusd_avx_epi32(acc1, _mm256_xor_si256(load32(row + i + 32), flip),
                                           load32(q + i + 32));
        }
        out[r] = hsum_epi32(_mm256_add_epi32(acc0, acc1)) - correction;
    }
}

}  // namespace orve
