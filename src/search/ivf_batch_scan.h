// A batch of queries over one pinned IVF, scanned bucket by bucket rather than query by query.
#pragma once

#include "semantic_vector_indexing.h"

struct ivf_live;

namespace orve {

// Query i of the batch as a one-query search would take it.
vector_similarity_query batch_query_for(const orve512_batch_query* b, uint32_t i, bool use_ivf);

// Answers every query of the batch on the pinned IVF, each exactly as the one-query pinned
// search answers it (same ids, order and score bits), writing results and counts as the batch
// call does. False when the batch could not run this way (no probes, a failed routing,
// quantisation or allocation); results may then be partly written, and the caller answers the
// batch again another way.
bool answer_batch_by_bucket(semantic_vector_indexing_system* sys, const orve512_batch_query* b,
                            ivf_live* holder);

}  // namespace orve
