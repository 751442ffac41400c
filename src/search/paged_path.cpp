// The paged path of the front end: the attached file searched in place.
#include "search/paged_path.h"

#include <cstddef>

#include "core/paged_attachment.h"
#include "core/system.h"
#include "paged/paged_search.h"
#include "search/query_context.h"

namespace orve {

int search_paged(semantic_vector_indexing_system* sys, const vector_similarity_query* q,
                 vector_similarity_result* results, uint32_t* count) {
    paged_attachment* a = paged_attachment_pin(sys);
    if (a == nullptr) return kNoPagedIndex;
    const paged_pin guard(a);

    // The paged scan applies its own filters, so the sink's slot limit is not consulted here.
    query_context ctx;
    if (!begin_query(sys, q, a->handle->n_rows, a->handle->n_rows, true, ctx)) return -1;
    // Files of the first version carry no node identifiers: row positions map to node-table
    // slots. Positions at or past the node count name no node and are skipped by the search.
    // The search reads the identifiers from the node table in place: slots below the node
    // count are never rewritten, so a copy made per query would only cost its allocation and
    // a pass over the whole table.
    const uint8_t* id_map = nullptr;
    uint32_t nodes = 0;
    if (a->handle->version <= 1) {
        nodes = load_node_count(sys);
        id_map = reinterpret_cast<const uint8_t*>(sys->nodes) + offsetof(indexed_node, node_id);
    }
    candidate_sink& sink = ctx.sink;
    (void)paged::search_mapped(a->handle, q->n_probe_l1, q->n_probe_l2, ctx.codes, sink.heap,
                               &sink.count, sink.capacity, id_map, sizeof(indexed_node), nodes,
                               ctx.scale, ctx.norm, q->min_similarity);
    finish_results(sink.heap, sink.count, q, sys, results, count);
    return 0;
}

}  // namespace orve
