// The two-level H-IVF: level-1 k-means over all rows, then one IVF over the rows of each
// level-1 bucket. Built from int8 codes (the system's path) or from float rows.
#include <cstdlib>
#include <cstring>
#include <utility>

#include "ivf/ivf_internal.h"
#include "quant/dot512_kernels.h"
#include "util/c_alloc.h"
#include "util/huge_pages.h"
#include "util/release_pages.h"

namespace {

using orve::kCodeBytes;

// Rows of one level-1 bucket, gathered in ascending row order. Allocated once with room for
// every row and reused for each bucket.
struct member_buffers {
    orve::c_unique<int8_t[]> codes;
    orve::c_unique<float[]> scales;
    orve::c_unique<float[]> norms;
    orve::c_unique<uint32_t[]> ids;
    orve::c_unique<float[]> rows;  // float builder only
    uint32_t count = 0;

    bool allocate(uint32_t n, bool with_rows) {
        codes = orve::c_aligned_array<int8_t>(static_cast<std::size_t>(n) * kCodeBytes,
                                              orve::kRowAlignment);
        scales = orve::c_alloc_array<float>(n);
        norms = orve::c_alloc_array<float>(n);
        ids = orve::c_alloc_array<uint32_t>(n);
        if (!codes || !scales || !norms || !ids) return false;
        if (with_rows) {
            rows = orve::c_alloc_array<float>(static_cast<std::size_t>(n) * kCodeBytes);
            if (!rows) return false;
        }
        return true;
    }

    void gather(uint32_t bucket, const uint32_t* assignment, uint32_t n, const int8_t* in_codes,
                const float* in_scales, const float* in_norms, const float* in_rows) {
        count = 0;
        for (uint32_t r = 0; r < n; ++r) {
            if (assignment[r] != bucket) continue;
            const uint32_t m = count++;
            ids[m] = r;
            std::memcpy(codes.get() + static_cast<std::size_t>(m) * kCodeBytes,
                        in_codes + static_cast<std::size_t>(r) * kCodeBytes, kCodeBytes);
            scales[m] = in_scales[r];
            norms[m] = in_norms[r];
            if (in_rows != nullptr) {
                std::memcpy(rows.get() + static_cast<std::size_t>(m) * kCodeBytes,
                            in_rows + static_cast<std::size_t>(r) * kCodeBytes,
                            kCodeBytes * sizeof(float));
            }
        }
    }
};

// The rows of every leaf in one block, leaf after leaf in level-1 bucket order, so the first
// leaf with rows starts the block. Why one block: a leaf's rows allocated on their own are a
// few MiB or less, which gets no huge page, and on 4 KiB pages the H-IVF scanned every row at
// 60 % of the IVF's speed (whose rows are one array) at 100k rows. The block is the builder's
// until every leaf is built; then the H-IVF owns it and its destroy frees it once.
struct leaf_block {
    orve::c_unique<int8_t[]> block;

    bool allocate(uint32_t n) {
        const std::size_t bytes = static_cast<std::size_t>(n) * kCodeBytes;
        // Huge-page alignment only pays for a block of at least one such page.
        const bool huge = bytes >= orve::kHugePageBytes;
        block =
            orve::c_aligned_array<int8_t>(bytes, huge ? orve::kHugePageBytes : orve::kRowAlignment);
        // The leaves fill the block from its start as they are built; pages not yet written
        // stay unbacked, so the advice adds nothing to a build's peak.
        if (block && huge) orve::advise_huge_pages(block.get(), bytes, 0, bytes);
        return static_cast<bool>(block);
    }
    int8_t* at(uint32_t first_row) const {
        return block.get() + static_cast<std::size_t>(first_row) * kCodeBytes;
    }
};

// A failed build leaves the block with its builder: the leaves must not name it, or the
// H-IVF's destroy would free it a second time.
int fail_with_block(orve_hivf_index* out) {
    if (out->l2_indexes != nullptr) {
        for (uint32_t i = 0; i < out->b1; ++i) out->l2_indexes[i].codes = nullptr;
    }
    orve_hivf_index_destroy(out);
    return -1;
}

// Leaf row ids name positions in the member list; make them global row indexes.
void globalise_row_ids(orve_ivf_index* leaf, const uint32_t* member_ids) {
    for (uint32_t p = 0; p < leaf->n_rows; ++p) leaf->row_ids[p] = member_ids[leaf->row_ids[p]];
}

bool valid_arguments(const int8_t* codes, const float* scales, const float* norms, uint32_t n,
                     uint32_t b1, uint32_t b2, const orve_hivf_index* out) {
    return codes != nullptr && scales != nullptr && norms != nullptr && out != nullptr && n >= 1 &&
           b1 >= 1 && b2 >= 1 && n >= b1 && n >= b2;
}

// Sets b1 and b2, allocates the level-1 arrays and the zeroed leaf records, and quantises the
// float level-1 centroids. False on allocation or quantisation failure (out then holds what
// was allocated, for the caller's destroy).
bool fill_level1(orve_hivf_index* out, uint32_t b1, uint32_t b2, const float* centroids) {
    out->b1 = b1;
    out->b2 = b2;
    orve::c_unique<int8_t[]> codes =
        orve::c_aligned_array<int8_t>(static_cast<std::size_t>(b1) * kCodeBytes, 16);
    orve::c_unique<float[]> scales = orve::c_alloc_array<float>(b1);
    orve::c_unique<float[]> norms = orve::c_alloc_array<float>(b1);
    orve::c_unique<orve_ivf_index[]> leaves = orve::c_calloc_array<orve_ivf_index>(b1);
    if (!codes || !scales || !norms || !leaves) return false;
    for (uint32_t i = 0; i < b1; ++i) {
        if (orve_quantize_float_vector_symmetric(
                centroids + static_cast<std::size_t>(i) * kCodeBytes, ORVE512_DIM,
                codes.get() + static_cast<std::size_t>(i) * kCodeBytes, &scales[i],
                &norms[i]) != 0) {
            return false;
        }
    }
    out->l1_centroid_codes = codes.release();
    out->l1_centroid_scales = scales.release();
    out->l1_centroid_norms = norms.release();
    out->l2_indexes = leaves.release();
    return true;
}

// Leaf training of the int8 build for the m members of one level-1 bucket, held contiguously.
int build_leaf_i8(const int8_t* codes, const float* scales, const float* norms, uint32_t m,
                  uint32_t k2, uint32_t leaf_seed, orve_ivf_index* leaf, int8_t* codes_into) {
    orve::c_unique<float[]> centroids =
        orve::c_alloc_array<float>(static_cast<std::size_t>(k2) * kCodeBytes);
    orve::c_unique<int8_t[]> centroid_codes = orve::c_aligned_array<int8_t>(
        static_cast<std::size_t>(k2) * kCodeBytes, orve::kRowAlignment);
    orve::c_unique<uint32_t[]> assignment = orve::c_alloc_array<uint32_t>(m);
    if (!centroids || !centroid_codes || !assignment) return -1;
    if (orve::kmeans_i8_train(codes, scales, m, k2, leaf_seed, centroids.get(),
                              centroid_codes.get(), assignment.get()) != 0) {
        return -1;
    }
    return ivf_finish_index(m, k2, assignment.get(), centroids.get(), codes, scales, norms, leaf,
                            codes_into);
}

int fail(orve_hivf_index* out) {
    orve_hivf_index_destroy(out);
    return -1;
}

// Where every row goes once the rows are sorted by level-1 bucket, rows of a bucket in
// ascending order: order[p] is the row at sorted position p, and bucket i holds the positions
// offsets[i] .. offsets[i + 1] - 1.
struct bucket_order {
    orve::c_unique<uint32_t[]> order;
    orve::c_unique<uint32_t[]> offsets;

    bool make(const uint32_t* assignment, uint32_t n, uint32_t b1) {
        order = orve::c_alloc_array<uint32_t>(n);
        offsets = orve::c_calloc_array<uint32_t>(static_cast<std::size_t>(b1) + 1);
        if (!order || !offsets) return false;
        for (uint32_t r = 0; r < n; ++r) ++offsets[assignment[r] + 1];
        for (uint32_t i = 0; i < b1; ++i) offsets[i + 1] += offsets[i];
        for (uint32_t r = 0; r < n; ++r) order[offsets[assignment[r]]++] = r;
        // The pass above moved each offset to the end of its bucket; shift them back.
        for (uint32_t i = b1; i > 0; --i) offsets[i] = offsets[i - 1];
        offsets[0] = 0;
        return true;
    }
};

// Level 1 of the int8 build over the rows in their own order: the level-1 k-means, the
// level-1 arrays in `out` and the bucket order. False on failure (out then holds what was
// allocated, for the caller's destroy).
bool build_level1_i8(const int8_t* codes, const float* scales, uint32_t n, uint32_t b1, uint32_t b2,
                     uint32_t seed, orve_hivf_index* out, bucket_order& buckets) {
    orve::c_unique<uint32_t[]> assignment = orve::c_alloc_array<uint32_t>(n);
    orve::c_unique<float[]> centroids =
        orve::c_alloc_array<float>(static_cast<std::size_t>(b1) * kCodeBytes);
    orve::c_unique<int8_t[]> centroid_codes = orve::c_aligned_array<int8_t>(
        static_cast<std::size_t>(b1) * kCodeBytes, orve::kRowAlignment);
    if (!assignment || !centroids || !centroid_codes) return false;
    if (orve::kmeans_i8_train(codes, scales, n, b1, seed, centroids.get(), centroid_codes.get(),
                              assignment.get()) != 0) {
        return false;
    }
    return fill_level1(out, b1, b2, centroids.get()) && buckets.make(assignment.get(), n, b1);
}

// The leaves of the int8 build from rows sorted into bucket order. A bucket's code pages are
// handed back to the system as soon as its leaf holds its own copy, so the sorted rows shrink
// while the leaves grow and the build never holds the rows twice over.
int build_leaves_i8(int8_t* codes, const float* scales, const float* norms,
                    const bucket_order& buckets, uint32_t b1, uint32_t b2, uint32_t seed,
                    orve_hivf_index* out) {
    leaf_block rows;
    if (!rows.allocate(buckets.offsets[b1])) return fail(out);
    for (uint32_t i = 0; i < b1; ++i) {
        const uint32_t first = buckets.offsets[i];
        const uint32_t m = buckets.offsets[i + 1] - first;
        if (m == 0) continue;  // the entry stays all zero
        const uint32_t k2 = m < b2 ? m : b2;
        const uint32_t leaf_seed = seed + 1u + i;  // wraps; a 0 acts as 1 in the training
        int8_t* bucket_codes = codes + static_cast<std::size_t>(first) * kCodeBytes;
        if (build_leaf_i8(bucket_codes, scales + first, norms + first, m, k2, leaf_seed,
                          &out->l2_indexes[i], rows.at(first)) != 0) {
            return fail_with_block(out);
        }
        globalise_row_ids(&out->l2_indexes[i], buckets.order.get() + first);
        orve::release_whole_pages(bucket_codes, static_cast<std::size_t>(m) * kCodeBytes);
    }
    (void)rows.block.release();  // the H-IVF's now
    return 0;
}

}  // namespace

namespace orve {

int hivf_build_i8_in_place(int8_t* codes, float* scales, float* norms, uint32_t n, uint32_t b1,
                           uint32_t b2, uint32_t seed, orve_hivf_index* out) {
    if (!valid_arguments(codes, scales, norms, n, b1, b2, out)) return -1;
    std::memset(out, 0, sizeof *out);
    bucket_order buckets;
    if (!build_level1_i8(codes, scales, n, b1, b2, seed, out, buckets)) return fail(out);
    {
        // Sorts the rows by swapping each into its place: dest[r] is where the row now at r
        // belongs, and becomes r once it is there.
        orve::c_unique<uint32_t[]> dest = orve::c_alloc_array<uint32_t>(n);
        if (!dest) return fail(out);
        for (uint32_t p = 0; p < n; ++p) dest[buckets.order[p]] = p;
        alignas(64) int8_t held[kCodeBytes];
        for (uint32_t r = 0; r < n; ++r) {
            while (dest[r] != r) {
                const uint32_t t = dest[r];
                int8_t* a = codes + static_cast<std::size_t>(r) * kCodeBytes;
                int8_t* b = codes + static_cast<std::size_t>(t) * kCodeBytes;
                std::memcpy(held, a, kCodeBytes);
                std::memcpy(a, b, kCodeBytes);
                std::memcpy(b, held, kCodeBytes);
                std::swap(scales[r], scales[t]);
                std::swap(norms[r], norms[t]);
                std::swap(dest[r], dest[t]);
            }
        }
    }
    return build_leaves_i8(codes, scales, norms, buckets, b1, b2, seed, out);
}

}  // namespace orve

extern "C" ORVE_API int orve_hivf_build_i8(const int8_t* codes, const float* scales,
                                           const float* norms, uint32_t n, uint32_t b1, uint32_t b2,
                                           uint32_t seed, orve_hivf_index* out) {
    if (!valid_arguments(codes, scales, norms, n, b1, b2, out)) return -1;
    std::memset(out, 0, sizeof *out);
    bucket_order buckets;
    if (!build_level1_i8(codes, scales, n, b1, b2, seed, out, buckets)) return fail(out);
    // The caller's rows stay as they are: the leaves read a copy gathered in bucket order.
    member_buffers sorted;
    if (!sorted.allocate(n, false)) return fail(out);
    for (uint32_t p = 0; p < n; ++p) {
        const uint32_t r = buckets.order[p];
        std::memcpy(sorted.codes.get() + static_cast<std::size_t>(p) * kCodeBytes,
                    codes + static_cast<std::size_t>(r) * kCodeBytes, kCodeBytes);
        sorted.scales[p] = scales[r];
        sorted.norms[p] = norms[r];
    }
    return build_leaves_i8(sorted.codes.get(), sorted.scales.get(), sorted.norms.get(), buckets, b1,
                           b2, seed, out);
}

extern "C" ORVE_API int orve_hivf_build(const float* rows, uint32_t n, uint32_t b1, uint32_t b2,
                                        uint32_t seed, const int8_t* codes, const float* scales,
                                        const float* norms, const uint8_t* row_flags,
                                        orve_hivf_index* out) {
    (void)row_flags;  // accepted for the caller's convenience, never read
    if (rows == nullptr || !valid_arguments(codes, scales, norms, n, b1, b2, out)) return -1;
    std::memset(out, 0, sizeof *out);

    orve::c_unique<uint32_t[]> assignment = orve::c_alloc_array<uint32_t>(n);
    if (!assignment) return fail(out);
    {
        orve::c_unique<float[]> centroids =
            orve::c_alloc_array<float>(static_cast<std::size_t>(b1) * kCodeBytes);
        if (!centroids) return fail(out);
        if (orve::kmeans_f32_train(rows, n, b1, seed, centroids.get(), assignment.get()) != 0) {
            return fail(out);
        }
        if (!fill_level1(out, b1, b2, centroids.get())) return fail(out);
    }

    member_buffers members;
    leaf_block leaf_rows;
    if (!members.allocate(n, true) || !leaf_rows.allocate(n)) return fail(out);
    uint32_t first = 0;
    for (uint32_t i = 0; i < b1; ++i) {
        members.gather(i, assignment.get(), n, codes, scales, norms, rows);
        if (members.count == 0) continue;
        const uint32_t m = members.count;
        const uint32_t k2 = m < b2 ? m : b2;
        orve_ivf_index* leaf = &out->l2_indexes[i];
        if (orve::ivf_build_f32(members.rows.get(), m, k2, seed + 1u + i, members.codes.get(),
                                members.scales.get(), members.norms.get(), leaf,
                                leaf_rows.at(first)) != 0) {
            return fail_with_block(out);
        }
        globalise_row_ids(leaf, members.ids.get());
        first += m;
    }
    (void)leaf_rows.block.release();  // the H-IVF's now
    return 0;
}

extern "C" ORVE_API void orve_hivf_index_destroy(orve_hivf_index* index) {
    if (index == nullptr) return;
    if (index->l2_indexes != nullptr) {
        // The leaves' rows are one block, which the first leaf with rows starts.
        int8_t* block = nullptr;
        for (uint32_t i = 0; i < index->b1; ++i) {
            orve_ivf_index& leaf = index->l2_indexes[i];
            if (block == nullptr) block = leaf.codes;
            leaf.codes = nullptr;
            orve::free_ivf_index(&leaf);
        }
        std::free(block);
        std::free(index->l2_indexes);
    }
    std::free(index->l1_centroid_codes);
    std::free(index->l1_centroid_scales);
    std::free(index->l1_centroid_norms);
    std::memset(index, 0, sizeof *index);
}
