// Arm kernels built on the signed 8-bit dot-product instruction (sdot): each 32-bit lane adds
// the products of four adjacent byte pairs, exactly, for every int8 value.
#include <arm_neon.h>

#include "quant/dot512_kernels.h"

namespace orve {

int32_t dot512_sdot(const int8_t* a, const int8_t* b) {
    // Four accumulators, chunk j of every 64-byte group into accumulator j, so consecutive
    // sdot instructions do not wait on each other.
    int32x4_t acc0 = vdupq_n_s32(0), acc1 = vdupq_n_s32(0);
    int32x4_t acc2 = vdupq_n_s32(0), acc3 = vdupq_n_s32(0);
    for (std::size_t i = 0; i < kCodeBytes; i += 64) {
        acc0 = vdotq_s32(acc0, vld1q_s8(a + i), vld1q_s8(b + i));
        acc1 = vdotq_s32(acc1, vld1q_s8(a + i + 16), vld1q_s8(b + i + 16));
        acc2 = vdotq_s32(acc2, vld1q_s8(a + i + 32), vld1q_s8(b + i + 32));
        acc3 = vdotq_s32(acc3, vld1q_s8(a + i + 48), vld1q_s8(b + i + 48));
    }
    return vaddvq_s32(vaddq_s32(vaddq_s32(acc0, acc1), vaddq_s32(acc2, acc3)));
}

void dot512_sdot_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out) {
    for (std::size_t r = 0; r < n; ++r) out[r] = dot512_sdot(q, rows + r * kCodeBytes);
}

int32_t dot64_sdot(const int8_t* a, const int8_t* b) {
    int32x4_t acc = vdupq_n_s32(0);
    for (std::size_t i = 0; i < 64; i += 16) acc = vdotq_s32(acc, vld1q_s8(a + i), vld1q_s8(b + i));
    return vaddvq_s32(acc);
}

// Same loop as the x86 multi-query kernels, in this set's instructions and compiled for it alone.
void dot512_sdot_multi(const int8_t* const* queries, const int8_t* rows, std::size_t n,
                       int32_t* out, std::size_t ld) {
    const int8_t* q0 = queries[0];
    const int8_t* q1 = queries[1];
    const int8_t* q2 = queries[2];
    const int8_t* q3 = queries[3];
    for (std::size_t r = 0; r < n; ++r) {
        const int8_t* row = rows + r * kCodeBytes;
        int32x4_t a0 = vdupq_n_s32(0), a1 = a0, a2 = a0, a3 = a0;
        for (std::size_t i = 0; i < kCodeBytes; i += 16) {
            const int8x16_t rv = vld1q_s8(row + i);
            a0 = vdotq_s32(a0, rv, vld1q_s8(q0 + i));
            a1 = vdotq_s32(a1, rv, vld1q_s8(q1 + i));
            a2 = vdotq_s32(a2, rv, vld1q_s8(q2 + i));
            a3 = vdotq_s32(a3, rv, vld1q_s8(q3 + i));
        }
        out[r] = vaddvq_s32(a0);
        out[ld + r] = vaddvq_s32(a1);
        out[2 * ld + r] = vaddvq_s32(a2);
        out[3 * ld + r] = vaddvq_s32(a3);
    }
}

}  // namespace orve
