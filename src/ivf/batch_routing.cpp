#include "ivf/quantised_routing.h"

#include "ivf/ivf_internal.h"
#include "quant/dot512_kernels.h"
#include "util/c_alloc.h"

namespace orve {

int route_top_buckets_batch(const orve_ivf_index* index, const int8_t* const* codes,
                            const float* scales, const float* norms, uint32_t n, uint32_t n_probe,
                            uint32_t* out) {
    if (index == nullptr || codes == nullptr || out == nullptr || index->n_buckets == 0 ||
        n_probe == 0 || index->centroid_codes == nullptr || index->centroid_scales == nullptr ||
        index->centroid_norms == nullptr) {
        return -1;
    }
    const uint32_t nb = index->n_buckets;
    const uint32_t p = n_probe < nb ? n_probe : nb;
    constexpr uint32_t kQ = kMultiQueries;
    auto scratch = c_alloc_array<ivf_scored_pair>(static_cast<std::size_t>(kQ) * nb);
    if (!scratch) return -1;
    ivf_scored_pair* pairs[kQ];
    for (uint32_t j = 0; j < kQ; ++j) pairs[j] = scratch.get() + static_cast<std::size_t>(j) * nb;
    uint32_t i = 0;
    for (; i + kQ <= n; i += kQ) {
        score_and_select_multi(codes + i, scales + i, norms + i, index->centroid_codes,
                               index->centroid_scales, index->centroid_norms, nb, p, pairs);
        for (uint32_t j = 0; j < kQ; ++j) {
            for (uint32_t t = 0; t < p; ++t)
                out[static_cast<std::size_t>(i + j) * p + t] = pairs[j][t].index;
        }
    }
    for (; i < n; ++i) {
        score_and_select(codes[i], scales[i], norms[i], index->centroid_codes,
                         index->centroid_scales, index->centroid_norms, nb, p, pairs[0]);
        for (uint32_t t = 0; t < p; ++t)
            out[static_cast<std::size_t>(i) * p + t] = pairs[0][t].index;
    }
    return 0;
}

}  // namespace orve
