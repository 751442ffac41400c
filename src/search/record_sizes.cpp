// Sizes of the host-allocated query and result records, for hosts that allocate them without
// this header (bindings, other languages).
#include "semantic_vector_indexing.h"

extern "C" ORVE_API uint64_t vector_similarity_query_sizeof(void) {
    return sizeof(vector_similarity_query);
}

extern "C" ORVE_API uint64_t vector_similarity_result_sizeof(void) {
    return sizeof(vector_similarity_result);
}

extern "C" ORVE_API uint64_t orve512_batch_query_sizeof(void) {
    return sizeof(orve512_batch_query);
}
