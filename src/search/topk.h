// Candidates shared by every 512-dimension search path: how many a query keeps, and the step
// that turns them into results.
#pragma once

#include <cstdint>

#include "semantic_vector_indexing.h"
#include "util/c_alloc.h"
#include "util/topk_heap.h"

// Exact cosine of each candidate against its own float row in the object's attached sidecar,
// then sorted by the new scores. Does nothing when the query is null or the object cannot
// re-rank (no sidecar attached, or its appends stopped after a failure).
void rerank_from_sidecar(bf_topk_entry* candidates, uint32_t count, const float* query,
                         const semantic_vector_indexing_system* sys);

namespace orve {

// Factor x k, where the factor is the query's rerank factor (5 when 0) when re-ranking is asked
// for and a sidecar is attached, else 1; capped at `offerable`, the most candidates the path
// can offer (its row count), since a larger heap could never fill.
uint32_t candidate_budget(const vector_similarity_query* q, bool sidecar_attached,
                          uint32_t offerable);

// Re-ranks from sys's sidecar (when the query asks and the object can) or sorts the candidates,
// and writes min(found, max_results) results with ranks from 1. Results past that are not
// touched.
void finish_results(bf_topk_entry* candidates, uint32_t found, const vector_similarity_query* q,
                    const semantic_vector_indexing_system* sys, vector_similarity_result* results,
                    uint32_t* count);

}  // namespace orve
