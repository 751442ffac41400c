// The portable partial sums: the definition the vector variants reproduce bit for bit.
#include <cmath>

#include "quant/l2sq_partials.h"

namespace orve {

void l2sq_partials_portable(const float* a, const float* b, float* partial) {
    for (int j = 0; j < 16; ++j) partial[j] = 0.0f;
    for (int t = 0; t < 32; ++t) {
        for (int j = 0; j < 16; ++j) {
            const float d = a[16 * t + j] - b[16 * t + j];
            partial[j] = std::fmaf(d, d, partial[j]);
        }
    }
}

}  // namespace orve
