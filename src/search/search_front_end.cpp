// The one search entry point: picks the path from the query's flags and from what the object
// has attached and current, falling back from one path to the next when a path cannot start.
#include <cstdio>

#include "core/system.h"
#include "core/publication.h"
#include "search/brute_force.h"
#include "search/ivf_pinned_search.h"
#include "search/paged_path.h"

namespace {

void legacy_listing(semantic_vector_indexing_system* sys, const vector_similarity_query* q,
                    vector_similarity_result* results, uint32_t* count) {
    // Every node's similarity on this path is 0.0, so the threshold admits all or nothing.
    for (uint32_t s = 0; s < sys->node_count; ++s) {
        if (*count >= q->max_results) break;
        if (!(q->min_similarity <= 0.0f)) continue;
        const indexed_node& n = sys->nodes[s];
        if (q->cluster_filter != 0 && n.cluster_id != q->cluster_filter) continue;
        vector_similarity_result& r = results[*count];
        r.node_id = n.node_id;
        r.similarity = 0.0f;
        r.distance = 0.0f;
        r.cluster_id = n.cluster_id;
        r.node_score = n.score;
        r.rank = *count + 1;
        *count += 1;
    }
    sort_similarity_results(results, *count);
}

}  // namespace

extern "C" ORVE_API int semantic_vector_indexing_system_search_similar(
    semantic_vector_indexing_system* sys, const vector_similarity_query* q,
    vector_similarity_result* results, uint32_t* count) {
    if (sys == nullptr || q == nullptr || results == nullptr || count == nullptr ||
        !sys->initialized) {
        return -1;
    }
    *count = 0;

    if (!q->use_orve512) {
        orve::object_lock guard(sys);
        if (q->use_lsh) {
            // The LSH search's own failures are not reported on this path. It is absent only
            // after a failed refresh, and then finds nothing.
            if (sys->lsh_index != nullptr) {
                (void)enhanced_lsh_index_search_similar(sys->lsh_index, q->embedding,
                                                        q->min_similarity, results, count);
            }
            return 0;
        }
        legacy_listing(sys, q, results, count);
        return 0;
    }

    const bool k_and_vector = q->query_vector != nullptr && q->max_results != 0;
    if (q->use_hivf && q->n_probe_l1 != 0 && q->n_probe_l2 != 0 && k_and_vector) {
        // An attached file takes the place of the in-memory H-IVF.
        const int paged = orve::search_paged(sys, q, results, count);
        if (paged == 0) return 0;
        if (paged == orve::kNoPagedIndex &&
            search_similar_orve512_hivf_pinned(sys, q, results, count) == 0) {
            return 0;
        }
    }
    if (q->use_ivf && q->n_probe != 0 && k_and_vector) {
        ivf_live* pinned = nullptr;
        if (ivf_rcu_pin_live(sys, &pinned) == 0) {
            const ivf_pin guard(pinned);
            if (search_similar_orve512_ivf_rcu_pinned(sys, pinned, q, results, count) == 0) {
                return 0;
            }
        }
    }

    // The drop may also land between this check and the scan's pin; the scan then refuses too.
    const int rc = orve::load_slabs_dropped(sys) && orve::load_slab(sys) == nullptr
                       ? ORVE_SEARCH_FLAT_DROPPED
                       : orve::brute_force_search(sys, q, results, count);
    if (rc == ORVE_SEARCH_FLAT_DROPPED) {
        std::fputs("[ORVE] bruteforce fallback disabled: flat slabs were dropped\n", stderr);
    }
    return rc;
}
