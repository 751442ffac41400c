// Scaling a training row to unit length.
#include <cmath>

#include "ivf/ivf_internal.h"

namespace orve {

float unit_length_factor(const float* row) {
    // Each square of a float is exact in double; only the running sum rounds, in index order.
    double s = 0.0;
    for (int i = 0; i < ORVE512_DIM; ++i) {
        const double x = row[i];
        s += x * x;
    }
    if (s <= 1e-30) return -1.0f;
    // Positive, +0 or NaN, never negative: the -1 above stays distinguishable.
    return 1.0f / static_cast<float>(std::sqrt(s));
}

}  // namespace orve

void l2_normalize_inplace(float* row) {
    const float inv = orve::unit_length_factor(row);
    if (inv < 0.0f) return;
    for (int i = 0; i < ORVE512_DIM; ++i) row[i] *= inv;
}
