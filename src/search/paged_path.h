#pragma once

#include "semantic_vector_indexing.h"

namespace orve {

constexpr int kNoPagedIndex = 1;

// Searches the attached paged file. 0 when it ran (its answer stands, also when empty);
// kNoPagedIndex when no file is attached; -1 when it could not start (a quantisation or
// allocation failure), so the front end goes on to the IVF.
int search_paged(semantic_vector_indexing_system* sys, const vector_similarity_query* q,
                 vector_similarity_result* results, uint32_t* count);

}  // namespace orve
