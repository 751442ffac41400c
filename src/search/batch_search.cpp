// Several queries in one call. With the IVF, one pin serves the whole batch, so every answer
// comes from the same index even if a rebuild publishes another meanwhile, and the batch is
// scanned bucket by bucket (search/ivf_batch_scan.h).
#include <cstring>

#include "core/publication.h"
#include "core/system.h"
#include "search/brute_force.h"
#include "search/ivf_batch_scan.h"

namespace {

vector_similarity_result* block_of(const orve512_batch_query* b, uint32_t i) {
    vector_similarity_result* block = b->results + static_cast<std::size_t>(b->k) * i;
    std::memset(block, 0, sizeof(vector_similarity_result) * b->k);
    return block;
}

// Brute force a block of queries at a time, each block in one pass over the store; every
// answer is the one the front end's brute force gives. False when the store's slabs were
// dropped (the front end refuses those queries and reports it) or a query could not start;
// the caller then answers one query at a time, so failures look exactly as they always have.
bool answer_brute_force(semantic_vector_indexing_system* sys, const orve512_batch_query* b) {
    if (orve::load_slabs_dropped(sys)) return false;
    vector_similarity_query qs[orve::kBruteForceBlock];
    uint32_t counts[orve::kBruteForceBlock];
    for (uint32_t i0 = 0; i0 < b->n_queries; i0 += orve::kBruteForceBlock) {
        const uint32_t left = b->n_queries - i0;
        const uint32_t m = left < orve::kBruteForceBlock ? left : orve::kBruteForceBlock;
        for (uint32_t j = 0; j < m; ++j) qs[j] = orve::batch_query_for(b, i0 + j, false);
        if (orve::brute_force_search_block(
                sys, qs, m, b->results + static_cast<std::size_t>(b->k) * i0, b->k, counts) != 0) {
            return false;
        }
        if (b->counts != nullptr) std::memcpy(b->counts + i0, counts, m * sizeof(uint32_t));
    }
    return true;
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
        } else if (answer_brute_force(sys, b)) {
            return 0;  // no index to pin: the front end would have brute-forced every query
        }
    } else if (answer_brute_force(sys, b)) {
        return 0;
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
