// Neon partial sums: four 4-lane registers hold partial sums 0-3, 4-7, 8-11 and
// 12-15; vfmaq_f32 is the fused multiply-add, rounded once per lane like std::fmaf.
#include <arm_neon.h>

#include "quant/l2sq_partials.h"

namespace orve {

void l2sq_partials_neon(const float* a, const float* b, float* partial) {
    float32x4_t p0 = vdupq_n_f32(0.0f), p1 = vdupq_n_f32(0.0f);
    float32x4_t p2 = vdupq_n_f32(0.0f), p3 = vdupq_n_f32(0.0f);
    for (std::size_t i = 0; i < 512; i += 16) {
        const float32x4_t d0 = vsubq_f32(vld1q_f32(a + i), vld1q_f32(b + i));
        const float32x4_t d1 = vsubq_f32(vld1q_f32(a + i + 4), vld1q_f32(b + i + 4));
        const float32x4_t d2 = vsubq_f32(vld1q_f32(a + i + 8), vld1q_f32(b + i + 8));
        const float32x4_t d3 = vsubq_f32(vld1q_f32(a + i + 12), vld1q_f32(b + i + 12));
        p0 = vfmaq_f32(p0, d0, d0);
        p1 = vfmaq_f32(p1, d1, d1);
        p2 = vfmaq_f32(p2, d2, d2);
        p3 = vfmaq_f32(p3, d3, d3);
    }
    vst1q_f32(partial, p0);
    vst1q_f32(partial + 4, p1);
    vst1q_f32(partial + 8, p2);
    vst1q_f32(partial + 12, p3);
}

}  // namespace orve
