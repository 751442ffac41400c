#include "hrr/l2_normalize.h"

#include <cmath>

namespace orve {

void l2_normalize(float* vector) {
    double sum = 0.0;
    for (int i = 0; i < kHrrDim; ++i) {
        const double x = static_cast<double>(vector[i]);
        sum += x * x;
    }
    // Written as "not greater" so that a NaN sum also leaves the vector alone.
    if (!(sum > 1e-60)) return;
    const double f = 1.0 / std::sqrt(sum);
    for (int i = 0; i < kHrrDim; ++i) {
        vector[i] = static_cast<float>(static_cast<double>(vector[i]) * f);
    }
}

}  // namespace orve
