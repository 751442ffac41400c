// The paged path of the front end: the attached file searched in place.
#include "search/paged_path.h"

#include "core/paged_attachment.h"
#include "core/system.h"
#include "paged/paged_search.h"
#include "search/index_scan.h"

namespace orve {

int search_paged(semantic_vector_indexing_system* sys, const vector_similarity_query* q,
                 vector_similarity_result* results, uint32_t* count) {
    paged_attachment* a = paged_attachment_pin(sys);
    if (a == nullptr) return kNoPagedIndex;
    struct unpin {
        paged_attachment* a;
        ~unpin() { paged_attachment_release(a); }
    } guard{a};

    query_codes qc;
    if (orve_quantize_float_vector_symmetric(q->query_vector, ORVE512_DIM, qc.codes, &qc.scale,
                                             &qc.norm) != 0) {
        return -1;
    }
    const uint32_t budget = candidate_budget(q, sys->sidecar != nullptr, a->handle->n_rows);
    auto heap = c_alloc_array<bf_topk_entry>(budget);
    if (!heap) return -1;
    // Files of the first version carry no node identifiers: row positions map to node-table
    // slots. Positions at or past the node count name no node and are skipped by the search.
    c_unique<uint32_t[]> id_map;
    uint32_t nodes = 0;
    if (a->handle->version <= 1) {
        nodes = load_node_count(sys);
        id_map = c_alloc_array<uint32_t>(nodes);
        if (!id_map) return -1;
        for (uint32_t i = 0; i < nodes; ++i) id_map[i] = sys->nodes[i].node_id;
    }
    uint32_t found = 0;
    (void)paged::search_mapped(a->handle, q->n_probe_l1, q->n_probe_l2, qc.codes, heap.get(),
                               &found, budget, id_map.get(), nodes, qc.scale, qc.norm,
                               q->min_similarity);
    finish_results(heap.get(), found, q, sys, results, count);
    return 0;
}

}  // namespace orve
