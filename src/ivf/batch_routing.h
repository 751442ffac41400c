// Routing a batch of already quantised queries to their IVF buckets at once.
#pragma once

#include <cstdint>

#include "semantic_vector_indexing.h"

namespace orve {

// For each of the n queries (code, scale and norm as the symmetric quantiser gives them), writes
// the min(n_probe, buckets) best buckets to out[i * that count ...], exactly as
// orve_ivf_route_top_buckets routes the float query they came from. Centroid codes are loaded
// once per group of queries. 0, or -1 on the same refusals as the one-query routing or when
// scratch memory runs out.
int route_top_buckets_batch(const orve_ivf_index* index, const int8_t* const* codes,
                            const float* scales, const float* norms, uint32_t n, uint32_t n_probe,
                            uint32_t* out);

}  // namespace orve
