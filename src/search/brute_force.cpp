// Brute force: every stored vector scored against the query, under the object's lock.
//
// The scan walks runs of consecutive valid rows and scores each run with the many-rows kernel,
// a block at a time into a stack buffer; per row it then does only the cosine, the threshold
// and a comparison with the heap's current minimum. Nothing is allocated per row.
#include "search/brute_force.h"

#include "core/system.h"
#include "quant/cosine.h"
#include "quant/kernel_table.h"
#include "search/query_context.h"

namespace {

constexpr uint32_t kBlockRows = 128;

}  // namespace

namespace orve {

int brute_force_search(semantic_vector_indexing_system* sys, const vector_similarity_query* q,
                       vector_similarity_result* results, uint32_t* count) {
    object_lock guard(sys);
    if (q->query_vector == nullptr || q->max_results == 0) return -1;

    const uint32_t n = sys->node_count;
    query_context ctx;
    if (!begin_query(sys, q, n, n, false, ctx)) return -1;
    candidate_sink& sink = ctx.sink;

    const dot512_many_fn many = kernels().dot512_many;
    const uint8_t* valid = sys->slab_i8 != nullptr ? sys->row_valid : nullptr;
    int32_t dots[kBlockRows];
    for (uint32_t s = 0; s < n && sink.capacity != 0;) {
        if (valid != nullptr && valid[s]) {
            uint32_t end = s + 1;
            while (end < n && end - s < kBlockRows && valid[end]) ++end;
            many(ctx.codes, sys->slab_i8 + static_cast<std::size_t>(s) * kCodeBytes, end - s, dots);
            for (uint32_t r = s; r < end; ++r) {
                sink.offer(r, cosine_from_dot(dots[r - s], ctx.scale, sys->row_scale[r], ctx.norm,
                                              sys->row_norm[r]));
            }
            s = end;
            continue;
        }
        // A row without a slab vector may still carry its own quantised record.
        const orve_quantized_vector_record* rec = sys->nodes[s].quantized;
        if (rec != nullptr && rec->codes != nullptr) {
            sink.offer(s, cosine_from_dot(orve_dotprod512_i8(ctx.codes, rec->codes), ctx.scale,
                                          rec->scale, ctx.norm, rec->norm));
        }
        ++s;
    }
    finish_results(sink.heap, sink.count, q, sys, results, count);
    return 0;
}

}  // namespace orve
