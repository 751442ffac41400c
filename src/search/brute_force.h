#pragma once

#include "search/topk.h"

namespace orve {

// The last-resort path: scores every stored vector. Takes and holds the object's lock for its
// whole run. -1 for a null query vector, max_results 0 or a failed quantisation or allocation.
int brute_force_search(semantic_vector_indexing_system* sys, const vector_similarity_query* q,
                       vector_similarity_result* results, uint32_t* count);

}  // namespace orve
