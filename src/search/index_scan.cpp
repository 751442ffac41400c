#include "search/index_scan.h"

#include <cstring>

#include "quant/cosine.h"
#include "quant/kernel_table.h"

namespace orve {
namespace {

// Rows of a bucket whose codes prefetch_bucket asks for: one 4 KiB page.
constexpr uint32_t kPrefetchRows = 8;

// Offers rows p0 .. p0 + len of the index, whose dot products with the query are dots[0 ..
// len). The row arrays are read in order, so this part of the scan streams like brute force.
inline void offer_rows(const orve_ivf_index& index, uint32_t p0, uint32_t len, const int32_t* dots,
                       query_context& ctx) {
    candidate_sink& sink = ctx.sink;
    const uint32_t* ids = index.row_ids + p0;
    // The cosines of a block first, several rows per instruction, then the offers: a division
    // per row in the offer loop cost as much as a fifth of the kernel's time.
    float scores[kScanBlockRows];
    for (uint32_t b0 = 0; b0 < len; b0 += kScanBlockRows) {
        const uint32_t n = len - b0 < kScanBlockRows ? len - b0 : kScanBlockRows;
        const bool any_above =
            cosine_from_dots(dots + b0, ctx.scale, index.row_scales + p0 + b0, ctx.norm,
                             index.row_norms + p0 + b0, n, sink.bar(), scores);
        sink.offer_block(scores, n, any_above, [&](uint32_t j) { return ids[b0 + j]; });
    }
}

}  // namespace

void scan_bucket(const orve_ivf_index& index, uint32_t b, query_context& ctx) {
    if (ctx.sink.capacity == 0 || index.codes == nullptr) return;
    int32_t dots[kScanBlockRows];
    const dot512_many_fn many = kernels().dot512_many;
    const uint32_t first = index.bucket_offsets[b];
    const uint32_t end = first + index.bucket_sizes[b];
    for (uint32_t p0 = first; p0 < end; p0 += kScanBlockRows) {
        const uint32_t len = end - p0 < kScanBlockRows ? end - p0 : kScanBlockRows;
        many(ctx.codes, index.codes + static_cast<std::size_t>(p0) * kCodeBytes, len, dots);
        offer_rows(index, p0, len, dots, ctx);
    }
}

void prefetch_bucket(const orve_ivf_index& index, uint32_t b) {
    if (index.codes == nullptr || b >= index.n_buckets) return;
    const uint32_t first = index.bucket_offsets[b];
    const uint32_t size = index.bucket_sizes[b];
    if (size == 0) return;
    __builtin_prefetch(index.row_ids + first);
    __builtin_prefetch(index.row_scales + first);
    __builtin_prefetch(index.row_norms + first);
    // The first rows only: once the scan reads on in order, the hardware streams the rest.
    const uint32_t rows = size < kPrefetchRows ? size : kPrefetchRows;
    const int8_t* codes = index.codes + static_cast<std::size_t>(first) * kCodeBytes;
    for (std::size_t off = 0; off < rows * kCodeBytes; off += 64) __builtin_prefetch(codes + off);
}

void offer_bucket(const orve_ivf_index& index, uint32_t b, const int32_t* dots,
                  query_context& ctx) {
    if (ctx.sink.capacity == 0 || index.codes == nullptr) return;
    offer_rows(index, index.bucket_offsets[b], index.bucket_sizes[b], dots, ctx);
}

void score_bucket_rows(const orve_ivf_index& index, uint32_t b, const int8_t* const* queries,
                       uint32_t n, int32_t* const* out) {
    if (index.codes == nullptr) return;
    const kernel_table& k = kernels();
    const uint32_t first = index.bucket_offsets[b];
    const uint32_t size = index.bucket_sizes[b];
    // Blocks of rows small enough to stay in cache while every group of queries passes them.
    int32_t tmp[kMultiQueries * kScanBlockRows];
    for (uint32_t r0 = 0; r0 < size; r0 += kScanBlockRows) {
        const uint32_t len = size - r0 < kScanBlockRows ? size - r0 : kScanBlockRows;
        const int8_t* rows = index.codes + (static_cast<std::size_t>(first) + r0) * kCodeBytes;
        uint32_t j = 0;
        for (; j + kMultiQueries <= n; j += kMultiQueries) {
            k.dot512_multi(queries + j, rows, len, tmp, kScanBlockRows);
            for (uint32_t t = 0; t < kMultiQueries; ++t) {
                std::memcpy(out[j + t] + r0, tmp + t * kScanBlockRows, len * sizeof(int32_t));
            }
        }
        for (; j < n; ++j) k.dot512_many(queries[j], rows, len, out[j] + r0);
    }
}

}  // namespace orve
