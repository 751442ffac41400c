// The cosine of two quantised vectors from the dot product of their codes, inline so scans pay
// no call per row.
#pragma once

#include <cstdint>

namespace orve {

inline float cosine_from_dot(int32_t dot, float scale_a, float scale_b, float norm_a,
                             float norm_b) {
    if (scale_a <= 0.0f || scale_b <= 0.0f || norm_a <= 0.0f || norm_b <= 0.0f) return 0.0f;
    const float d = ((scale_a * scale_b) * norm_a) * norm_b;
    if (d <= 0.0f) return 0.0f;  // the product underflowed
    return static_cast<float>(dot) / d;
}

}  // namespace orve
