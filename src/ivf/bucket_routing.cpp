// Routing a query to the IVF buckets whose centroids score best against it, on the same int8
// cosine scale as the rows a search then scans.
#include <cstdlib>

#include "ivf/ivf_internal.h"
#include "quant/cosine.h"
#include "quant/dot512_kernels.h"
#include "util/c_alloc.h"

int cmp_scored_desc(const void* a, const void* b) {
    const auto* pa = static_cast<const ivf_scored_pair*>(a);
    const auto* pb = static_cast<const ivf_scored_pair*>(b);
    if (pa->score > pb->score) return -1;
    if (pa->score < pb->score) return 1;
    // Equal, or at least one NaN: the index decides, so the order is total and reproducible.
    if (pa->index < pb->index) return -1;
    if (pa->index > pb->index) return 1;
    return 0;
}

extern "C" ORVE_API int orve_ivf_route_top_buckets(const orve_ivf_index* index, const float* query,
                                                   uint32_t n_probe, uint32_t* out_buckets) {
    if (index == nullptr || query == nullptr || out_buckets == nullptr || index->n_buckets == 0 ||
        n_probe == 0) {
        return -1;
    }
    // Choice: an index that claims buckets but has no centroid arrays is malformed (a complete
    // index always has them); refusing it beats reading through a null pointer.
    if (index->centroid_codes == nullptr || index->centroid_scales == nullptr ||
        index->centroid_norms == nullptr) {
        return -1;
    }
    const uint32_t nb = index->n_buckets;
    const uint32_t p = n_probe < nb ? n_probe : nb;

    orve::c_unique<int8_t[]> qcode = orve::c_alloc_array<int8_t>(orve::kRowBytes);
    if (!qcode) return -1;
    float qscale = 0.0f, qnorm = 0.0f;
    if (orve_quantize_float_vector_symmetric(query, ORVE512_DIM, qcode.get(), &qscale, &qnorm) !=
        0) {
        return -1;
    }
    orve::c_unique<ivf_scored_pair[]> pairs = orve::c_alloc_array<ivf_scored_pair>(nb);
    if (!pairs) return -1;
    const orve::dot512_one_fn dot = orve::dot512_best().one;
    for (uint32_t c = 0; c < nb; ++c) {
        const int32_t d =
            dot(qcode.get(), index->centroid_codes + static_cast<std::size_t>(c) * orve::kRowBytes);
        pairs[c] = ivf_scored_pair{orve::cosine_from_dot(d, qscale, index->centroid_scales[c],
                                                         qnorm, index->centroid_norms[c]),
                                   c};
    }
    qcode.reset();
    std::qsort(pairs.get(), nb, sizeof(ivf_scored_pair), cmp_scored_desc);
    for (uint32_t t = 0; t < p; ++t) out_buckets[t] = pairs[t].index;
    return 0;
}
