#pragma once

#include "search/topk.h"

namespace orve {

// The last-resort path: scores every stored vector. Holds the object's lock only to pin the
// flat store and read the row count. -1 for a null query vector, max_results 0 or a failed
// quantisation or allocation; ORVE_SEARCH_FLAT_DROPPED when the slabs were dropped before the
// pin (the caller says so on stderr).
int brute_force_search(semantic_vector_indexing_system* sys, const vector_similarity_query* q,
                       vector_similarity_result* results, uint32_t* count);

// The most queries one pass over the store serves: a batch of 64 reads the store once, not
// four times, which counts once the rows no longer fit the caches.
constexpr uint32_t kBruteForceBlock = 64;

// Queries qs[0..nq) (nq at most kBruteForceBlock) in one pass over the store under one pin;
// query i's answer is the one brute_force_search gives at the pin, written to
// results + i * stride (that block zeroed first) with its count in counts[i]. -1, with no
// result written, when any query could not start.
int brute_force_search_block(semantic_vector_indexing_system* sys,
                             const vector_similarity_query* qs, uint32_t nq,
                             vector_similarity_result* results, uint32_t stride, uint32_t* counts);

}  // namespace orve
