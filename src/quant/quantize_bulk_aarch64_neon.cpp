// Bulk quantisation with Advanced SIMD: four rows at a time, one row per lane for the sum of
// squares.
// It mirrors the AVX2 file step for step; the two stay apart because each is compiled only for
// its own architecture with its own intrinsics.
#include <arm_neon.h>

#include <cmath>

#include "quant/quantize_bulk.h"
#include "semantic_vector_indexing.h"

namespace orve {
namespace {

constexpr std::size_t kLanes = 4;

// Codes of one row whose values are all finite and whose largest magnitude is at least the
// zero threshold. Multiply, clamp, then round in the current rounding mode (vrndi), as lrintf
// does; the conversion of the already integral value is exact.
void encode_row(const float* x, float scale, int8_t* out) {
    const float32x4_t hi = vdupq_n_f32(127.0f);
    const float32x4_t lo = vdupq_n_f32(-127.0f);
    for (int i = 0; i < ORVE512_DIM; i += 16) {
        int32x4_t q[4];
        for (int k = 0; k < 4; ++k) {
            float32x4_t y = vmulq_n_f32(vld1q_f32(x + i + 4 * k), scale);
            y = vmaxq_f32(vminq_f32(y, hi), lo);
            q[k] = vcvtq_s32_f32(vrndiq_f32(y));
        }
        const int16x8_t a = vcombine_s16(vmovn_s32(q[0]), vmovn_s32(q[1]));
        const int16x8_t b = vcombine_s16(vmovn_s32(q[2]), vmovn_s32(q[3]));
        vst1q_s8(out + i, vcombine_s8(vmovn_s16(a), vmovn_s16(b)));
    }
}

}  // namespace

void quantize_rows_neon(const float* in, std::size_t n, int8_t* codes, float* scales,
                        float* norms) {
    std::size_t k = 0;
    for (; k + kLanes <= n; k += kLanes) {
        const float* rows = in + k * ORVE512_DIM;
        float32x4_t sum = vdupq_n_f32(0.0f);
        float32x4_t max = vdupq_n_f32(0.0f);
        for (int c = 0; c < ORVE512_DIM; c += 4) {
            const float32x4_t r0 = vld1q_f32(rows + 0 * ORVE512_DIM + c);
            const float32x4_t r1 = vld1q_f32(rows + 1 * ORVE512_DIM + c);
            const float32x4_t r2 = vld1q_f32(rows + 2 * ORVE512_DIM + c);
            const float32x4_t r3 = vld1q_f32(rows + 3 * ORVE512_DIM + c);
            const float32x4x2_t t01 = vtrnq_f32(r0, r1);
            const float32x4x2_t t23 = vtrnq_f32(r2, r3);
            float32x4_t col[4];
            col[0] = vcombine_f32(vget_low_f32(t01.val[0]), vget_low_f32(t23.val[0]));
            col[1] = vcombine_f32(vget_low_f32(t01.val[1]), vget_low_f32(t23.val[1]));
            col[2] = vcombine_f32(vget_high_f32(t01.val[0]), vget_high_f32(t23.val[0]));
            col[3] = vcombine_f32(vget_high_f32(t01.val[1]), vget_high_f32(t23.val[1]));
            // Each lane adds its own row's squares in index order, as the one-row loop does:
            // a separate multiply and add, never fused.
            for (int i = 0; i < 4; ++i) {
                sum = vaddq_f32(sum, vmulq_f32(col[i], col[i]));
                max = vmaxq_f32(max, vabsq_f32(col[i]));
            }
        }
        float s[kLanes];
        float m[kLanes];
        vst1q_f32(s, sum);
        vst1q_f32(m, max);
        // Same finish as the other set's bulk kernel, kept per file so its own encode_row inlines.
        for (std::size_t j = 0; j < kLanes; ++j) {
            const float* x = rows + j * ORVE512_DIM;
            int8_t* out = codes + (k + j) * ORVE512_DIM;
            // A finite sum means every value is finite; other rows go to the one-row function.
            if (!std::isfinite(s[j])) {
                orve_quantize_float_vector_symmetric(x, ORVE512_DIM, out, &scales[k + j],
                                                     &norms[k + j]);
                continue;
            }
            norms[k + j] = std::sqrt(s[j]);
            if (m[j] < kQuantZeroMagnitude) {
                for (int i = 0; i < ORVE512_DIM; ++i) out[i] = 0;
                scales[k + j] = 0.0f;
                continue;
            }
            const float scale = 127.0f / m[j];
            scales[k + j] = scale;
            encode_row(x, scale, out);
        }
    }
    quantize_rows_reference(in + k * ORVE512_DIM, n - k, codes + k * ORVE512_DIM, scales + k,
                            norms + k);
}

}  // namespace orve
