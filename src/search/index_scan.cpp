#include "search/index_scan.h"

#include "quant/cosine.h"
#include "quant/dot512_kernels.h"

namespace orve {

void scan_bucket(const orve_ivf_index& index, uint32_t b, const query_codes& qc,
                 uint32_t slot_limit, candidate_sink& sink) {
    if (sink.capacity == 0 || index.codes == nullptr) return;
    constexpr uint32_t kBlock = 128;
    int32_t dots[kBlock];
    const dot512_many_fn many = dot512_best().many;
    const uint32_t first = index.bucket_offsets[b];
    const uint32_t end = first + index.bucket_sizes[b];
    for (uint32_t p0 = first; p0 < end; p0 += kBlock) {
        const uint32_t len = end - p0 < kBlock ? end - p0 : kBlock;
        many(qc.codes, index.codes + static_cast<std::size_t>(p0) * kRowBytes, len, dots);
        for (uint32_t j = 0; j < len; ++j) {
            const uint32_t p = p0 + j;
            const float sim = cosine_from_dot(dots[j], qc.scale, index.row_scales[p], qc.norm,
                                              index.row_norms[p]);
            if (sink.q->min_similarity > sim) continue;
            const uint32_t slot = index.row_ids[p];
            if (slot >= slot_limit) continue;
            const indexed_node& node = sink.nodes[slot];
            if (sink.q->cluster_filter != 0 && node.cluster_id != sink.q->cluster_filter) continue;
            if (sink.count == sink.capacity && !(sim > sink.heap[0].score)) continue;
            const bf_topk_entry e{sim, node.node_id, node.cluster_id, node.score, slot};
            bf_topk_heap_push(sink.heap, &sink.count, sink.capacity, &e);
        }
    }
}

}  // namespace orve
