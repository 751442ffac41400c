// Routing queries that are already quantised: a search quantises its query once, for the scan,
// and routes with the same code, scale and norm rather than quantise it again.
#pragma once

#include <cstdint>

#include "semantic_vector_indexing.h"

namespace orve {

// orve_ivf_route_top_buckets for a query already quantised (code, scale and norm as the
// symmetric quantiser gives them for the float query): the same buckets, in the same order, and
// the same refusals but that of a null query.
int route_top_buckets(const orve_ivf_index* index, const int8_t* code, float scale, float norm,
                      uint32_t n_probe, uint32_t* out_buckets);

// orve_hivf_route_top_leaves for a query already quantised, as route_top_buckets is for the IVF.
int route_top_leaves(const orve_hivf_index* index, const int8_t* code, float scale, float norm,
                     uint32_t n_probe_l1, uint32_t n_probe_l2, uint32_t* out_l1, uint32_t* out_l2,
                     uint32_t* out_count);

// For each of the n queries (code, scale and norm as the symmetric quantiser gives them), writes
// the min(n_probe, buckets) best buckets to out[i * that count ...], exactly as
// orve_ivf_route_top_buckets routes the float query they came from. Centroid codes are loaded
// once per group of queries. 0, or -1 on the same refusals as the one-query routing or when
// scratch memory runs out.
int route_top_buckets_batch(const orve_ivf_index* index, const int8_t* const* codes,
                            const float* scales, const float* norms, uint32_t n, uint32_t n_probe,
                            uint32_t* out);

}  // namespace orve
