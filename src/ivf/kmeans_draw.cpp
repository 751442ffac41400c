// The training's random draws: a uniform index, and the k-means++ draw weighted by distance.
#include <stdlib.h>

#include "ivf/ivf_internal.h"

namespace orve {

uint32_t kmeans_rand_index(unsigned int* state, uint32_t n) {
    const int32_t r = rand_r(state);  // in [0, RAND_MAX], so the remainder is never negative
    return static_cast<uint32_t>(r % static_cast<int32_t>(n));
}

uint32_t kmeans_pp_draw(const float* d, uint32_t n, unsigned int* state) {
    // The draw runs once per seed over every row, so its second pass (the running sum up to the
    // target) is cut short: the first pass records the running sum at the end of each block, and
    // the second resumes from the last one below the target, adding the same terms in the same
    // order, so every partial sum it compares has the bits the full pass would have. With no
    // negative term the running sum never decreases, so the target is first reached inside the
    // first block whose end reaches it; a negative term (never a distance) means a full pass.
    constexpr uint32_t kMarks = 1024;
    double mark[kMarks];
    const uint32_t block = n / kMarks + 1u;
    double total = 0.0;
    bool negative = false;
    uint32_t marks = 0;
    for (uint32_t start = 0; start < n; start += block) {
        const uint32_t end = n - start > block ? start + block : n;
        for (uint32_t i = start; i < end; ++i) {
            total += static_cast<double>(d[i]);
            negative = negative || d[i] < 0.0f;
        }
        mark[marks++] = total;
    }
    if (total <= 1e-30) return kmeans_rand_index(state, n);
    const double target = static_cast<double>(rand_r(state)) / 2147483647.0 * total;
    uint32_t first_block = 0;
    if (!negative) {
        while (first_block < marks && !(mark[first_block] >= target)) ++first_block;
        // No block end reaches the target (only a NaN can do that): no prefix does either.
        if (first_block == marks) return n - 1;
    }
    double running = first_block == 0 ? 0.0 : mark[first_block - 1];
    for (uint32_t i = first_block * block; i < n; ++i) {
        running += static_cast<double>(d[i]);
        if (running >= target) return i;
    }
    return n - 1;  // rounding can leave the running sum just short of the target
}

}  // namespace orve
