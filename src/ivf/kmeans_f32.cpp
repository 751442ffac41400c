// Spherical k-means over float rows, and the IVF builder that trains with it.
#include <cstring>

#include "ivf/ivf_internal.h"
#include "ivf/l2sq_screen.h"
#include "quant/dot512_kernels.h"
#include "util/c_alloc.h"

namespace orve {
namespace {

// The training over rows read from `raw` (float rows or code rows, without factors).
int train(row_source raw, uint32_t n, uint32_t k, uint32_t seed, float* centroids,
          uint32_t* assignment, bool use_screen);

}  // namespace

int kmeans_f32_train(const float* rows, uint32_t n, uint32_t k, uint32_t seed, float* centroids,
                     uint32_t* assignment) {
    return kmeans_f32_train_with(rows, n, k, seed, centroids, assignment, true);
}

int kmeans_f32_train_with(const float* rows, uint32_t n, uint32_t k, uint32_t seed,
                          float* centroids, uint32_t* assignment, bool use_screen) {
    return train(row_source(rows), n, k, seed, centroids, assignment, use_screen);
}

int kmeans_codes_train(const int8_t* codes, const float* scales, uint32_t n, uint32_t k,
                       uint32_t seed, float* centroids, uint32_t* assignment) {
    return train(row_source(codes, scales, nullptr), n, k, seed, centroids, assignment, true);
}

int ivf_build_from_codes(const int8_t* codes, const float* scales, const float* norms, uint32_t n,
                         uint32_t n_buckets, uint32_t seed, orve_ivf_index* out) {
    const uint32_t k = n_buckets;
    c_unique<float[]> centroids = c_alloc_array<float>(static_cast<std::size_t>(k) * kCodeBytes);
    c_unique<uint32_t[]> assignment = c_alloc_array<uint32_t>(n);
    if (!centroids || !assignment) return -1;
    if (kmeans_codes_train(codes, scales, n, k, seed, centroids.get(), assignment.get()) != 0) {
        return -1;
    }
    return ivf_finish_index(n, k, assignment.get(), centroids.get(), codes, scales, norms, out);
}

int ivf_build_f32(const float* rows, uint32_t n, uint32_t k, uint32_t seed, const int8_t* codes,
                  const float* scales, const float* norms, orve_ivf_index* out,
                  int8_t* codes_into) {
    c_unique<float[]> centroids = c_alloc_array<float>(static_cast<std::size_t>(k) * kCodeBytes);
    c_unique<uint32_t[]> assignment = c_alloc_array<uint32_t>(n);
    if (!centroids || !assignment) return -1;
    if (kmeans_f32_train(rows, n, k, seed, centroids.get(), assignment.get()) != 0) return -1;
    return ivf_finish_index(n, k, assignment.get(), centroids.get(), codes, scales, norms, out,
                            codes_into);
}

namespace {

int train(row_source raw, uint32_t n, uint32_t k, uint32_t seed, float* centroids,
          uint32_t* assignment, bool use_screen) {
    const std::size_t row_floats = kCodeBytes;
    c_unique<uint32_t[]> picks = c_alloc_array<uint32_t>(k);
    c_unique<float[]> sums = c_calloc_array<float>(static_cast<std::size_t>(k) * row_floats);
    c_unique<uint32_t[]> counts = c_calloc_array<uint32_t>(k);
    c_unique<float[]> factors = c_alloc_array<float>(n);
    if (!picks || !sums || !counts || !factors) return -1;

    // The rows are trained on at unit length; each is scaled as it is read rather than kept in a
    // normalised copy, which would be the largest allocation of the build.
    float scratch[kCodeBytes];
    for (uint32_t i = 0; i < n; ++i) factors[i] = unit_length_factor(raw.get(i, scratch));
    row_source work = raw;
    work.factor = factors.get();

    // When there is no memory for the int8 screen (about 520 bytes per row), train with full
    // scans instead of failing: the screen never changes a decision, only the time.
    l2sq_screen screen_storage;
    l2sq_screen* screen = use_screen && screen_storage.init(work, n, k) ? &screen_storage : nullptr;

    unsigned int state = kmeans_seed_state(seed);
    if (pick_kmeans_pp_indices_screened(work, n, k, &state, picks.get(), screen) != 0) {
        return -1;
    }
    for (uint32_t j = 0; j < k; ++j) {
        std::memcpy(centroids + j * row_floats, work.get(picks[j], scratch),
                    row_floats * sizeof(float));
    }
    picks.reset();

    for (int round = 0; round < kKmeansRounds; ++round) {
        if (screen != nullptr) screen->set_centroids(centroids);
        assign_nearest_l2sq(work, n, centroids, k, screen, assignment);

        std::memset(sums.get(), 0, static_cast<std::size_t>(k) * row_floats * sizeof(float));
        std::memset(counts.get(), 0, static_cast<std::size_t>(k) * sizeof(uint32_t));
        for (uint32_t i = 0; i < n; ++i) {
            const uint32_t c = assignment[i];
            ++counts[c];
            work.add_to(i, sums.get() + c * row_floats);
        }

        for (uint32_t c = 0; c < k; ++c) {
            float* cent = centroids + c * row_floats;
            if (counts[c] == 0) {
                // A working row is already unit length (or a zero row left as it is).
                const uint32_t r = kmeans_rand_index(&state, n);
                std::memcpy(cent, work.get(r, scratch), row_floats * sizeof(float));
                continue;
            }
            const float inv = 1.0f / static_cast<float>(counts[c]);
            const float* s = sums.get() + c * row_floats;
            for (std::size_t l = 0; l < row_floats; ++l) cent[l] = s[l] * inv;
            l2_normalize_inplace(cent);
        }
    }

    if (screen != nullptr) screen->set_centroids(centroids);
    assign_nearest_l2sq(work, n, centroids, k, screen, assignment);
    return 0;
}

}  // namespace
}  // namespace orve

extern "C" ORVE_API int orve_ivf_build_kmeans_centroids(
    const float* rows, uint32_t n, uint32_t n_buckets, uint32_t seed, const int8_t* codes,
    const float* scales, const float* norms, const uint8_t* row_flags, orve_ivf_index* out) {
    (void)row_flags;  // accepted for the caller's convenience, never read
    if (rows == nullptr || codes == nullptr || scales == nullptr || norms == nullptr ||
        out == nullptr || n == 0 || !(n > n_buckets - 1u)) {
        return -1;
    }
    return orve::ivf_build_f32(rows, n, n_buckets, seed, codes, scales, norms, out, nullptr);
}
