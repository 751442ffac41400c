#include "search/query_context.h"

#include <cstring>

#include "core/system.h"

namespace orve {

bool begin_query(const semantic_vector_indexing_system* sys, const vector_similarity_query* q,
                 uint32_t offerable, uint32_t slot_limit, bool nan_passes, query_context& ctx,
                 const quantised_query* quantised) {
    if (quantised != nullptr) {
        std::memcpy(ctx.codes, quantised->code, kCodeBytes);
        ctx.scale = quantised->scale;
        ctx.norm = quantised->norm;
    } else if (orve_quantize_float_vector_symmetric(q->query_vector, ORVE512_DIM, ctx.codes,
                                                    &ctx.scale, &ctx.norm) != 0) {
        return false;
    }
    const uint32_t budget = candidate_budget(q, sys->sidecar != nullptr, offerable);
    ctx.heap = c_alloc_array<bf_topk_entry>(budget);
    if (!ctx.heap) return false;
    ctx.sink = candidate_sink{sys->nodes, q, ctx.heap.get(), 0, budget, slot_limit, nan_passes};
    return true;
}

}  // namespace orve
