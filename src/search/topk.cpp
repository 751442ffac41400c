// The candidate budget of a query and the step that turns kept candidates into results.
#include "search/topk.h"

#include "core/sidecar_attachment.h"

namespace orve {

uint32_t candidate_budget(const vector_similarity_query* q, bool sidecar_attached,
                          uint32_t offerable) {
    uint64_t factor = 1;
    if (q->rerank && sidecar_attached) factor = q->rerank_factor != 0 ? q->rerank_factor : 5;
    // Taken in 64 bits rather than wrapped in 32: a wrapped budget (factor 2^31 with k 2)
    // would silently find nothing or too few, and an uncapped one (k = 2^32 - 1) would ask
    // for tens of gigabytes to hold candidates that cannot exist. Either cap leaves the
    // answer unchanged: a heap as large as the row count already keeps every candidate.
    const uint64_t budget = factor * q->max_results;
    return budget < offerable ? static_cast<uint32_t>(budget) : offerable;
}

void finish_results(bf_topk_entry* candidates, uint32_t found, const vector_similarity_query* q,
                    const semantic_vector_indexing_system* sys, vector_similarity_result* results,
                    uint32_t* count) {
    if (found == 0) {
        *count = 0;
        return;
    }
    if (q->rerank && sidecar_rerank_ready(sys)) {
        rerank_from_sidecar(candidates, found, q->query_vector, sys);
    } else {
        sort_candidates_desc(candidates, found);
    }
    const uint32_t n = found < q->max_results ? found : q->max_results;
    for (uint32_t i = 0; i < n; ++i) {
        vector_similarity_result& r = results[i];
        r.node_id = candidates[i].node_id;
        r.similarity = candidates[i].score;
        r.distance = 1.0f - candidates[i].score;
        r.cluster_id = candidates[i].cluster_id;
        r.node_score = candidates[i].node_score;
        r.rank = i + 1;
    }
    *count = n;
}

}  // namespace orve
