// The paged path of the front end: the attached file searched in place.
#include "search/paged_path.h"

#include "core/paged_attachment.h"
#include "core/system.h"
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
    const uint32_t budget = candidate_budget(q, sys->sidecar != nullptr);
    auto heap = c_alloc_array<bf_topk_entry>(budget);
    if (!heap) return -1;
    // Files of the first version carry no node identifiers: row positions map to node-table
    // slots. Open checked that every position is below the file's row count, so the table
    // covers that many entries; positions past the node count name no node (identifier 0).
    c_unique<uint32_t[]> id_map;
    if (a->handle->version <= 1) {
        const uint32_t nodes = load_node_count(sys);
        const uint32_t n = a->handle->n_rows > nodes ? a->handle->n_rows : nodes;
        id_map = c_calloc_array<uint32_t>(n);
        if (!id_map) return -1;
        for (uint32_t i = 0; i < nodes; ++i) id_map[i] = sys->nodes[i].node_id;
    }
    uint32_t found = 0;
    (void)orve_ivf_paged_search(a->handle, q->query_vector, q->n_probe_l1, q->n_probe_l2,
                                qc.codes, heap.get(), &found, budget, id_map.get(), qc.scale,
                                qc.norm, q->min_similarity);
    finish_results(heap.get(), found, q, sys, results, count);
    return 0;
}

}  // namespace orve
