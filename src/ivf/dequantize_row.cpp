// A code row back to floats, for training on rows that are only kept quantised.
#include "ivf/ivf_internal.h"

namespace orve {

void dequantize_row(const int8_t* code, float scale, float* out) {
    if (!(scale > 0.0f)) {
        for (int i = 0; i < ORVE512_DIM; ++i) out[i] = 0.0f;
        return;
    }
    const float w = 1.0f / scale;
    for (int i = 0; i < ORVE512_DIM; ++i) out[i] = static_cast<float>(code[i]) * w;
}

}  // namespace orve
