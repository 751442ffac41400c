// The IVF builder whose centroids are distinct rows drawn at random, without iterations.
#include <cstring>

#include "ivf/ivf_internal.h"
#include "ivf/l2sq_screen.h"
#include "quant/dot512_kernels.h"
#include "util/c_alloc.h"

extern "C" ORVE_API int orve_ivf_build_random_centroids(
    const float* rows, uint32_t n, uint32_t n_buckets, uint32_t seed, const int8_t* codes,
    const float* scales, const float* norms, const uint8_t* row_flags, orve_ivf_index* out) {
    using orve::kCodeBytes;
    (void)row_flags;  // accepted for the caller's convenience, never read
    if (rows == nullptr || codes == nullptr || scales == nullptr || norms == nullptr ||
        out == nullptr || n == 0 || !(n > n_buckets - 1u)) {
        return -1;
    }
    const uint32_t k = n_buckets;
    orve::c_unique<uint32_t[]> picks = orve::c_alloc_array<uint32_t>(k);
    orve::c_unique<float[]> centroids =
        orve::c_alloc_array<float>(static_cast<std::size_t>(k) * kCodeBytes);
    orve::c_unique<uint32_t[]> assignment = orve::c_alloc_array<uint32_t>(n);
    orve::c_unique<uint8_t[]> used = orve::c_calloc_array<uint8_t>(n);
    if (!picks || !centroids || !assignment || !used) return -1;

    unsigned int state = orve::kmeans_seed_state(seed);
    for (uint32_t picked = 0; picked < k;) {
        const uint32_t r = orve::kmeans_rand_index(&state, n);
        if (used[r]) continue;
        used[r] = 1;
        picks[picked++] = r;
    }
    used.reset();
    for (uint32_t j = 0; j < k; ++j) {
        std::memcpy(centroids.get() + static_cast<std::size_t>(j) * kCodeBytes,
                    rows + static_cast<std::size_t>(picks[j]) * kCodeBytes,
                    kCodeBytes * sizeof(float));
    }
    picks.reset();

    // The rows are not normalised here, which the screen's bounds allow for; without memory
    // for it the assignment runs as full scans, with the same result.
    orve::l2sq_screen screen_storage;
    orve::l2sq_screen* screen = nullptr;
    if (screen_storage.init(rows, n, k)) {
        screen_storage.set_centroids(centroids.get());
        screen = &screen_storage;
    }
    orve::assign_nearest_l2sq(rows, n, centroids.get(), k, screen, assignment.get());
    return ivf_finish_index(n, k, assignment.get(), centroids.get(), codes, scales, norms, out);
}
