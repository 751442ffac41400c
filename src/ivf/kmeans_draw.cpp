// The training's random draws: a uniform index, and the k-means++ draw weighted by distance.
#include <stdlib.h>

#include "ivf/ivf_internal.h"

namespace orve {

uint32_t kmeans_rand_index(unsigned int* state, uint32_t n) {
    const int32_t r = rand_r(state);  // in [0, RAND_MAX], so the remainder is never negative
    return static_cast<uint32_t>(r % static_cast<int32_t>(n));
}

uint32_t kmeans_pp_draw(const float* d, uint32_t n, unsigned int* state) {
    double total = 0.0;
    for (uint32_t i = 0; i < n; ++i) total += static_cast<double>(d[i]);
    if (total <= 1e-30) return kmeans_rand_index(state, n);
    const double target = static_cast<double>(rand_r(state)) / 2147483647.0 * total;
    double running = 0.0;
    for (uint32_t i = 0; i < n; ++i) {
        running += static_cast<double>(d[i]);
        if (running >= target) return i;
    }
    return n - 1;  // rounding can leave the running sum just short of the target
}

}  // namespace orve
