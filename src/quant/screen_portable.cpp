// The portable screen bounds and candidate selection.
#include "quant/screen_kernels.h"

namespace orve {

float screen_bounds_portable(const sketch_point& x, const sketch_columns& y, const int32_t* dots,
                             float* lo) {
    return screen_bounds_generic(x, y, dots, lo);
}

uint32_t screen_candidates_portable(const float* lo, uint32_t k, float h, uint32_t* out) {
    uint32_t count = 0;
    for (uint32_t c = 0; c < k; ++c) {
        if (lo[c] <= h) out[count++] = c;
    }
    return count;
}

}  // namespace orve
