#include "search/index_scan.h"

#include "quant/cosine.h"
#include "quant/kernel_table.h"

namespace orve {

void scan_bucket(const orve_ivf_index& index, uint32_t b, query_context& ctx) {
    candidate_sink& sink = ctx.sink;
    if (sink.capacity == 0 || index.codes == nullptr) return;
    constexpr uint32_t kBlock = kScanBlockRows;
    int32_t dots[kBlock];
    const dot512_many_fn many = kernels().dot512_many;
    const uint32_t first = index.bucket_offsets[b];
    const uint32_t end = first + index.bucket_sizes[b];
    for (uint32_t p0 = first; p0 < end; p0 += kBlock) {
        const uint32_t len = end - p0 < kBlock ? end - p0 : kBlock;
        many(ctx.codes, index.codes + static_cast<std::size_t>(p0) * kCodeBytes, len, dots);
        for (uint32_t j = 0; j < len; ++j) {
            const uint32_t p = p0 + j;
            sink.offer(index.row_ids[p], cosine_from_dot(dots[j], ctx.scale, index.row_scales[p],
                                                         ctx.norm, index.row_norms[p]));
        }
    }
}

}  // namespace orve
