// The two-level H-IVF: level-1 k-means over all rows, then one IVF over the rows of each
// level-1 bucket. Built from int8 codes (the system's path) or from float rows.
#include <cstdlib>
#include <cstring>

#include "ivf/ivf_internal.h"
#include "quant/dot512_kernels.h"
#include "util/c_alloc.h"

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
        codes = orve::c_aligned_array<int8_t>(static_cast<std::size_t>(n) * kCodeBytes, 64);
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

// Leaf training of the int8 build for the members of one level-1 bucket.
int build_leaf_i8(const member_buffers& members, uint32_t k2, uint32_t leaf_seed,
                  orve_ivf_index* leaf) {
    const uint32_t m = members.count;
    orve::c_unique<float[]> centroids =
        orve::c_alloc_array<float>(static_cast<std::size_t>(k2) * kCodeBytes);
    orve::c_unique<int8_t[]> centroid_codes =
        orve::c_aligned_array<int8_t>(static_cast<std::size_t>(k2) * kCodeBytes, 64);
    orve::c_unique<uint32_t[]> assignment = orve::c_alloc_array<uint32_t>(m);
    if (!centroids || !centroid_codes || !assignment) return -1;
    if (orve::kmeans_i8_train(members.codes.get(), members.scales.get(), m, k2, leaf_seed,
                              centroids.get(), centroid_codes.get(), assignment.get()) != 0) {
        return -1;
    }
    return ivf_finish_index(m, k2, assignment.get(), centroids.get(), members.codes.get(),
                            members.scales.get(), members.norms.get(), leaf);
}

int fail(orve_hivf_index* out) {
    orve_hivf_index_destroy(out);
    return -1;
}

}  // namespace

extern "C" ORVE_API int orve_hivf_build_i8(const int8_t* codes, const float* scales,
                                           const float* norms, uint32_t n, uint32_t b1, uint32_t b2,
                                           uint32_t seed, orve_hivf_index* out) {
    if (!valid_arguments(codes, scales, norms, n, b1, b2, out)) return -1;
    std::memset(out, 0, sizeof *out);

    orve::c_unique<uint32_t[]> assignment = orve::c_alloc_array<uint32_t>(n);
    if (!assignment) return fail(out);
    {
        orve::c_unique<float[]> centroids =
            orve::c_alloc_array<float>(static_cast<std::size_t>(b1) * kCodeBytes);
        orve::c_unique<int8_t[]> centroid_codes =
            orve::c_aligned_array<int8_t>(static_cast<std::size_t>(b1) * kCodeBytes, 64);
        if (!centroids || !centroid_codes) return fail(out);
        if (orve::kmeans_i8_train(codes, scales, n, b1, seed, centroids.get(), centroid_codes.get(),
                                  assignment.get()) != 0) {
            return fail(out);
        }
        if (!fill_level1(out, b1, b2, centroids.get())) return fail(out);
    }

    member_buffers members;
    if (!members.allocate(n, false)) return fail(out);
    for (uint32_t i = 0; i < b1; ++i) {
        members.gather(i, assignment.get(), n, codes, scales, norms, nullptr);
        if (members.count == 0) continue;  // the entry stays all zero
        const uint32_t k2 = members.count < b2 ? members.count : b2;
        const uint32_t leaf_seed = seed + 1u + i;  // wraps; a 0 acts as 1 in the training
        if (build_leaf_i8(members, k2, leaf_seed, &out->l2_indexes[i]) != 0) return fail(out);
        globalise_row_ids(&out->l2_indexes[i], members.ids.get());
    }
    return 0;
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
    if (!members.allocate(n, true)) return fail(out);
    for (uint32_t i = 0; i < b1; ++i) {
        members.gather(i, assignment.get(), n, codes, scales, norms, rows);
        if (members.count == 0) continue;
        const uint32_t m = members.count;
        const uint32_t k2 = m < b2 ? m : b2;
        orve_ivf_index* leaf = &out->l2_indexes[i];
        if (orve_ivf_build_kmeans_centroids(members.rows.get(), m, k2, seed + 1u + i,
                                            members.codes.get(), members.scales.get(),
                                            members.norms.get(), nullptr, leaf) != 0) {
            return fail(out);
        }
        globalise_row_ids(leaf, members.ids.get());
    }
    return 0;
}

extern "C" ORVE_API void orve_hivf_index_destroy(orve_hivf_index* index) {
    if (index == nullptr) return;
    if (index->l2_indexes != nullptr) {
        for (uint32_t i = 0; i < index->b1; ++i) orve::free_ivf_index(&index->l2_indexes[i]);
        std::free(index->l2_indexes);
    }
    std::free(index->l1_centroid_codes);
    std::free(index->l1_centroid_scales);
    std::free(index->l1_centroid_norms);
    std::memset(index, 0, sizeof *index);
}
