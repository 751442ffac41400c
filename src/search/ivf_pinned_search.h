#pragma once

#include "semantic_vector_indexing.h"

struct ivf_live;

// Scans the routed buckets of a pinned IVF. 0 when it ran (count set, possibly 0); -1 when it
// could not run (count not written): null query vector, k = 0, no probes, or a failed
// routing, quantisation or allocation.
int search_similar_orve512_ivf_rcu_pinned(semantic_vector_indexing_system* sys, ivf_live* holder,
                                          const vector_similarity_query* q,
                                          vector_similarity_result* results, uint32_t* count);

// Pins the published H-IVF, scans the routed leaves and releases it. 0 when it ran, -1 when it
// could not (nothing published, stale, zero probes, or a failure before the scan).
int search_similar_orve512_hivf_pinned(semantic_vector_indexing_system* sys,
                                       const vector_similarity_query* q,
                                       vector_similarity_result* results, uint32_t* count);
