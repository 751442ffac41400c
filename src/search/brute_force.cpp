// Brute force: every stored vector scored against the query, under the object's lock.
//
// The scan walks runs of consecutive valid rows and scores each run with the many-rows kernel,
// a block at a time into a stack buffer; per row it then does only the cosine, the threshold
// and a comparison with the heap's current minimum. Nothing is allocated per row.
#include "search/brute_force.h"

#include "core/system.h"
#include "quant/cosine.h"
#include "quant/dot512_kernels.h"

namespace {

constexpr uint32_t kBlockRows = 128;

struct scan_state {
    const indexed_node* nodes;
    const vector_similarity_query* q;
    float q_scale, q_norm;
    bf_topk_entry* heap;
    uint32_t count, capacity;
};

inline void offer(scan_state& st, uint32_t s, float score) {
    if (!(score >= st.q->min_similarity)) return;
    const indexed_node& n = st.nodes[s];
    if (st.q->cluster_filter != 0 && n.cluster_id != st.q->cluster_filter) return;
    // The common case on a long scan: not better than the weakest kept candidate.
    if (st.count == st.capacity && !(score > st.heap[0].score)) return;
    const bf_topk_entry e{score, n.node_id, n.cluster_id, n.score, s};
    bf_topk_heap_push(st.heap, &st.count, st.capacity, &e);
}

}  // namespace

namespace orve {

int brute_force_search(semantic_vector_indexing_system* sys, const vector_similarity_query* q,
                       vector_similarity_result* results, uint32_t* count) {
    object_lock guard(sys);
    if (q->query_vector == nullptr || q->max_results == 0) return -1;

    alignas(64) int8_t codes[kRowBytes];
    scan_state st{sys->nodes, q, 0.0f, 0.0f, nullptr, 0, 0};
    if (orve_quantize_float_vector_symmetric(q->query_vector, ORVE512_DIM, codes, &st.q_scale,
                                             &st.q_norm) != 0) {
        return -1;
    }
    const uint32_t n = sys->node_count;
    st.capacity = candidate_budget(q, sys->sidecar != nullptr, n);
    auto heap = c_alloc_array<bf_topk_entry>(st.capacity);
    if (!heap) return -1;
    st.heap = heap.get();

    const dot512_many_fn many = dot512_best().many;
    const uint8_t* valid = sys->slab_i8 != nullptr ? sys->row_valid : nullptr;
    int32_t dots[kBlockRows];
    for (uint32_t s = 0; s < n && st.capacity != 0;) {
        if (valid != nullptr && valid[s]) {
            uint32_t end = s + 1;
            while (end < n && end - s < kBlockRows && valid[end]) ++end;
            many(codes, sys->slab_i8 + static_cast<std::size_t>(s) * kRowBytes, end - s, dots);
            for (uint32_t r = s; r < end; ++r) {
                offer(st, r,
                      cosine_from_dot(dots[r - s], st.q_scale, sys->row_scale[r], st.q_norm,
                                      sys->row_norm[r]));
            }
            s = end;
            continue;
        }
        // A row without a slab vector may still carry its own quantised record.
        const orve_quantized_vector_record* rec = sys->nodes[s].quantized;
        if (rec != nullptr && rec->codes != nullptr) {
            offer(st, s,
                  cosine_from_dot(orve_dotprod512_i8(codes, rec->codes), st.q_scale, rec->scale,
                                  st.q_norm, rec->norm));
        }
        ++s;
    }
    finish_results(st.heap, st.count, q, sys, results, count);
    return 0;
}

}  // namespace orve
