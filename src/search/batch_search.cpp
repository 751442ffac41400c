// Several queries in one call. With the IVF, one pin serves the whole batch, so every answer
// comes from the same index even if a rebuild publishes another meanwhile, and the batch is
// scanned bucket by bucket (search/ivf_batch_scan.h).
#include <cstring>

#include "core/publication.h"
#include "core/system.h"
#include "search/ivf_batch_scan.h"

namespace {

vector_similarity_result* block_of(const orve512_batch_query* b, uint32_t i) {
    vector_similarity_result* block = b->results + static_cast<std::size_t>(b->k) * i;
    std::memset(block, 0, sizeof(vector_similarity_result) * b->k);
    return block;
}

}  // namespace

extern "C" ORVE_API int semantic_vector_indexing_system_search_similar_orve512_batch(
    semantic_vector_indexing_system* sys, const orve512_batch_query* b) {
    if (sys == nullptr || b == nullptr || !sys->initialized || b->n_queries == 0 || b->k == 0 ||
        b->queries == nullptr || b->results == nullptr) {
        return -1;
    }
    if (b->use_ivf != 0 && b->n_probe != 0) {
        ivf_live* pinned = nullptr;
        if (ivf_rcu_pin_live(sys, &pinned) == 0) {
            const ivf_pin guard(pinned);
            if (orve::answer_batch_by_bucket(sys, b, pinned)) return 0;
            // A query failed on the pinned index: answer the whole batch again, one query at a
            // time through the front end.
        }
    }
    for (uint32_t i = 0; i < b->n_queries; ++i) {
        const vector_similarity_query q = orve::batch_query_for(b, i, b->use_ivf != 0);
        uint32_t n = 0;
        if (semantic_vector_indexing_system_search_similar(sys, &q, block_of(b, i), &n) != 0) {
            return -1;
        }
        if (b->counts != nullptr) b->counts[i] = n;
    }
    return 0;
}
