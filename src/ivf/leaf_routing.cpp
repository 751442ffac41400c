// Routing a query to the H-IVF leaves to scan: the best level-1 buckets, and inside each of
// them its best leaves.
#include <cstdlib>

#include "ivf/ivf_internal.h"
#include "ivf/quantised_routing.h"
#include "ivf/routing_query.h"
#include "quant/cosine.h"
#include "quant/dot512_kernels.h"
#include "util/c_alloc.h"

namespace orve {

int route_top_leaves(const orve_hivf_index* index, const int8_t* code, float scale, float norm,
                     uint32_t n_probe_l1, uint32_t n_probe_l2, uint32_t* out_l1, uint32_t* out_l2,
                     uint32_t* out_count) {
    if (index == nullptr || code == nullptr || out_l1 == nullptr || out_l2 == nullptr ||
        out_count == nullptr || index->b1 == 0 || index->b2 == 0) {
        return -1;
    }
    // A record that claims buckets but lacks its arrays is malformed; refuse it rather than
    // read through a null pointer (a built H-IVF always has them).
    if (index->l1_centroid_codes == nullptr || index->l1_centroid_scales == nullptr ||
        index->l1_centroid_norms == nullptr || index->l2_indexes == nullptr) {
        return -1;
    }
    const uint32_t b1 = index->b1, b2 = index->b2;
    const uint32_t p1 = n_probe_l1 < b1 ? n_probe_l1 : b1;
    const uint32_t p2 = n_probe_l2 < b2 ? n_probe_l2 : b2;

    c_unique<ivf_scored_pair[]> level1 = c_alloc_array<ivf_scored_pair>(b1);
    if (!level1) return -1;
    score_and_select(code, scale, norm, index->l1_centroid_codes, index->l1_centroid_scales,
                     index->l1_centroid_norms, b1, p1, level1.get());
    c_unique<ivf_scored_pair[]> leaves = c_alloc_array<ivf_scored_pair>(b2);
    if (!leaves) return -1;

    uint32_t count = 0;
    for (uint32_t t1 = 0; t1 < p1; ++t1) {
        const uint32_t i = level1[t1].index;
        const orve_ivf_index& e = index->l2_indexes[i];
        const uint32_t nb = e.n_buckets;
        if (nb == 0) continue;  // a bucket without rows; no other bucket takes its place
        // A leaf count above b2, or a leaf without centroid arrays, cannot come from a build
        // and would overrun the b2-entry scratch; such a record is refused.
        if (nb > b2 || e.centroid_codes == nullptr || e.centroid_scales == nullptr ||
            e.centroid_norms == nullptr) {
            return -1;
        }
        const uint32_t take = p2 < nb ? p2 : nb;
        score_and_select(code, scale, norm, e.centroid_codes, e.centroid_scales, e.centroid_norms,
                         nb, take, leaves.get());
        for (uint32_t t = 0; t < take; ++t) {
            out_l1[count] = i;
            out_l2[count] = leaves[t].index;
            ++count;
        }
    }
    *out_count = count;
    return 0;
}

}  // namespace orve

extern "C" ORVE_API int orve_hivf_route_top_leaves(const orve_hivf_index* index, const float* query,
                                                   uint32_t n_probe_l1, uint32_t n_probe_l2,
                                                   uint32_t* out_l1, uint32_t* out_l2,
                                                   uint32_t* out_count) {
    // Every other argument is checked where the quantised query is routed.
    if (query == nullptr) return -1;
    routing_query q;
    if (!q.quantise(query)) return -1;
    return orve::route_top_leaves(index, q.code.get(), q.scale, q.norm, n_probe_l1, n_probe_l2,
                                  out_l1, out_l2, out_count);
}
