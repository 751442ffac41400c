// The scan of IVF buckets (or H-IVF leaves) into a query's candidate heap.
#pragma once

#include "search/query_context.h"

namespace orve {

// Scores every row of bucket b of `index` against the query and offers each to the sink.
void scan_bucket(const orve_ivf_index& index, uint32_t b, query_context& ctx);

}  // namespace orve
