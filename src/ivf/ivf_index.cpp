// The IVF index record: compaction of assigned rows into contiguous buckets, and its teardown.
#include <cstdlib>
#include <cstring>

#include "ivf/ivf_internal.h"
#include "quant/dot512_kernels.h"
#include "util/c_alloc.h"
#include "util/huge_pages.h"

namespace {

// The codes, scales and norms of `count` quantised rows (the compacted rows, or the centroids),
// each array held by its owner until the finished index takes it.
struct quantised_rows {
    orve::c_unique<int8_t[]> codes;
    orve::c_unique<float[]> scales;
    orve::c_unique<float[]> norms;

    // False when any array cannot be allocated. The codes are not allocated when the caller
    // provides their place.
    bool allocate(uint32_t count, bool with_codes = true) {
        const std::size_t bytes = static_cast<std::size_t>(count) * orve::kCodeBytes;
        if (with_codes) {
            codes = orve::c_aligned_array<int8_t>(bytes, orve::kRowAlignment);
            if (!codes) return false;
            // Every search streams these rows bucket by bucket; on small pages each 4 KiB of
            // them costs a page walk the flat store's huge pages do not pay. The whole array is
            // written right after, so the advice makes nothing resident that would not be anyway.
            orve::advise_huge_pages(codes.get(), bytes, 0, bytes);
        }
        scales = orve::c_alloc_array<float>(count);
        if (!scales) return false;
        norms = orve::c_alloc_array<float>(count);
        return static_cast<bool>(norms);
    }
};

}  // namespace

int cmp_route(const void* a, const void* b) {
    const auto* pa = static_cast<const ivf_route_pair*>(a);
    const auto* pb = static_cast<const ivf_route_pair*>(b);
    if (pa->bucket < pb->bucket) return -1;
    if (pa->bucket > pb->bucket) return 1;
    if (pa->row < pb->row) return -1;
    if (pa->row > pb->row) return 1;
    return 0;
}

int ivf_finish_index(uint32_t n, uint32_t n_buckets, const uint32_t* assignment,
                     const float* centroids, const int8_t* codes, const float* scales,
                     const float* norms, orve_ivf_index* out, int8_t* codes_into) {
    using orve::kCodeBytes;
    std::memset(out, 0, sizeof *out);

    // Every array stays with its owner until the whole index is complete, so a failure at any
    // step frees what exists and leaves `out` all zero.
    orve::c_unique<ivf_route_pair[]> pairs = orve::c_alloc_array<ivf_route_pair>(n);
    if (!pairs) return -1;
    for (uint32_t i = 0; i < n; ++i) pairs[i] = ivf_route_pair{assignment[i], i};
    std::qsort(pairs.get(), n, sizeof(ivf_route_pair), cmp_route);

    orve::c_unique<uint32_t[]> sizes = orve::c_calloc_array<uint32_t>(n_buckets);
    if (!sizes) return -1;
    orve::c_unique<uint32_t[]> offsets = orve::c_calloc_array<uint32_t>(n_buckets);
    if (!offsets) return -1;
    for (uint32_t p = 0; p < n; ++p) ++sizes[pairs[p].bucket];
    uint32_t running = 0;
    for (uint32_t b = 0; b < n_buckets; ++b) {
        offsets[b] = running;
        running += sizes[b];
    }

    quantised_rows rows;
    if (!rows.allocate(n, codes_into == nullptr)) return -1;
    int8_t* const dst = codes_into != nullptr ? codes_into : rows.codes.get();
    orve::c_unique<uint32_t[]> row_ids = orve::c_alloc_array<uint32_t>(n);
    if (!row_ids) return -1;
    for (uint32_t p = 0; p < n; ++p) {
        const uint32_t r = pairs[p].row;
        row_ids[p] = r;
        std::memcpy(dst + static_cast<std::size_t>(p) * kCodeBytes,
                    codes + static_cast<std::size_t>(r) * kCodeBytes, kCodeBytes);
        rows.scales[p] = scales[r];
        rows.norms[p] = norms[r];
    }
    pairs.reset();

    quantised_rows centroid_rows;
    if (!centroid_rows.allocate(n_buckets)) return -1;
    for (uint32_t b = 0; b < n_buckets; ++b) {
        if (orve_quantize_float_vector_symmetric(
                centroids + static_cast<std::size_t>(b) * kCodeBytes, ORVE512_DIM,
                centroid_rows.codes.get() + static_cast<std::size_t>(b) * kCodeBytes,
                &centroid_rows.scales[b], &centroid_rows.norms[b]) != 0) {
            return -1;
        }
    }

    out->n_rows = n;
    out->n_buckets = n_buckets;
    out->codes = codes_into != nullptr ? codes_into : rows.codes.release();
    out->row_scales = rows.scales.release();
    out->row_norms = rows.norms.release();
    out->centroid_codes = centroid_rows.codes.release();
    out->centroid_scales = centroid_rows.scales.release();
    out->centroid_norms = centroid_rows.norms.release();
    out->bucket_offsets = offsets.release();
    out->bucket_sizes = sizes.release();
    out->row_ids = row_ids.release();
    return 0;
}

void orve::free_ivf_index(orve_ivf_index* index) {
    std::free(index->codes);
    std::free(index->row_scales);
    std::free(index->row_norms);
    std::free(index->centroid_codes);
    std::free(index->centroid_scales);
    std::free(index->centroid_norms);
    std::free(index->bucket_offsets);
    std::free(index->bucket_sizes);
    std::free(index->row_ids);
    std::memset(index, 0, sizeof *index);
}

extern "C" ORVE_API void orve_ivf_index_destroy(orve_ivf_index* index) {
    if (index == nullptr) return;
    orve::free_ivf_index(index);
}
