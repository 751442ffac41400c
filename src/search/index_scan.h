// Scanning buckets of an IVF (or leaves of an H-IVF) into the candidate heap.
#pragma once

#include "search/topk.h"

namespace orve {

struct query_codes {
    alignas(64) int8_t codes[512];
    float scale = 0.0f;
    float norm = 0.0f;
};

// The candidate heap of one search and the filters every candidate passes through.
struct candidate_sink {
    const indexed_node* nodes;
    const vector_similarity_query* q;
    bf_topk_entry* heap;
    uint32_t count;
    uint32_t capacity;
};

// Scores every row of bucket b of `index` against the query and offers those that pass the
// threshold, whose slot (row_ids) is below slot_limit, and that match the cluster filter.
void scan_bucket(const orve_ivf_index& index, uint32_t b, const query_codes& qc,
                 uint32_t slot_limit, candidate_sink& sink);

}  // namespace orve
