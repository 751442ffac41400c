// Spherical k-means directly over int8 codes, the training of both H-IVF levels, and its
// k-means++ seeding over raw codes.
#include <stdlib.h>

#include <cstring>

#include "ivf/ivf_internal.h"
#include "quant/screen_kernels.h"
#include "quant/kernel_table.h"
#include "util/c_alloc.h"

namespace {

using orve::kCodeBytes;

const int8_t* code_row(const int8_t* codes, uint32_t r) {
    return codes + static_cast<std::size_t>(r) * kCodeBytes;
}

// The seeding's distances through the identity |a - b|^2 = |a|^2 + |b|^2 - 2 a.b, exact in
// 32 bits (each term is at most 512 x 128^2), with the dot products of the pick against every
// code from the many-rows kernel. Gives the same integers as l2sq_512_i8.
struct i8_distance_cache {
    orve::c_unique<int32_t[]> self;  // |code|^2 per row
    orve::c_unique<int32_t[]> dots;

    bool init(const int8_t* codes, uint32_t n) {
        self = orve::c_alloc_array<int32_t>(n);
        dots = orve::c_alloc_array<int32_t>(n);
        if (!self || !dots) return false;
        const orve::dot512_one_fn one = orve::kernels().dot512;
        for (uint32_t i = 0; i < n; ++i) self[i] = one(code_row(codes, i), code_row(codes, i));
        return true;
    }
};

// d[i] = (float)l2sq_512_i8(code i, code pick) for all i, or only where it is smaller when
// `lower_only` is set (replaced only when d[i] is strictly larger).
void distances_to_pick(const int8_t* codes, uint32_t n, uint32_t pick, float* d, bool lower_only,
                       i8_distance_cache* cache) {
    const int8_t* p = code_row(codes, pick);
    if (cache != nullptr) {
        orve::kernels().dot512_many(p, codes, n, cache->dots.get());
        const int32_t sp = cache->self[pick];
        for (uint32_t i = 0; i < n; ++i) {
            const float v = static_cast<float>(cache->self[i] + sp - 2 * cache->dots[i]);
            if (!lower_only || d[i] > v) d[i] = v;
        }
        return;
    }
    for (uint32_t i = 0; i < n; ++i) {
        const float v = static_cast<float>(l2sq_512_i8(code_row(codes, i), p));
        if (!lower_only || d[i] > v) d[i] = v;
    }
}

// Centroid codes laid out for the screen's four-row dot-product kernel: k rows rounded up to a
// multiple of 4 (the extra rows zero) and the sum of each row.
struct centroid_block {
    uint32_t k = 0, k4 = 0;
    orve::c_unique<int8_t[]> codes;
    orve::c_unique<int32_t[]> sums;
    orve::c_unique<int32_t[]> tile;  // 4 x k4 dot products

    bool allocate(uint32_t count) {
        k = count;
        k4 = (count + 3u) & ~3u;
        codes = orve::c_aligned_array<int8_t>(static_cast<std::size_t>(k4) * kCodeBytes, 64);
        sums = orve::c_calloc_array<int32_t>(k4);
        tile = orve::c_alloc_array<int32_t>(static_cast<std::size_t>(4) * k4);
        if (!codes || !sums || !tile) return false;
        std::memset(codes.get(), 0, static_cast<std::size_t>(k4) * kCodeBytes);
        return true;
    }
    int8_t* row(uint32_t c) { return codes.get() + static_cast<std::size_t>(c) * kCodeBytes; }
    void update_sum(uint32_t c) {
        int32_t s = 0;
        const int8_t* q = row(c);
        for (std::size_t l = 0; l < kCodeBytes; ++l) s += q[l];
        sums[c] = s;
    }
};

// Each code to the centroid code with the largest raw dot product (strictly larger than the
// best so far, from the smallest int32): ties keep the lowest centroid index. The dot
// products are exact whichever kernel computes them.
void assign_by_dot(const int8_t* codes, uint32_t m, centroid_block& cb, uint32_t* assignment) {
    const orve::kernel_table& kernel = orve::kernels();
    for (uint32_t i0 = 0; i0 < m; i0 += 4) {
        const uint32_t nr = m - i0 < 4 ? m - i0 : 4;
        const int8_t* four[4];
        for (uint32_t r = 0; r < 4; ++r) four[r] = code_row(codes, i0 + (r < nr ? r : 0));
        kernel.screen_dots4(four, cb.codes.get(), cb.sums.get(), cb.k4, cb.tile.get(), cb.k4);
        for (uint32_t r = 0; r < nr; ++r) {
            const int32_t* dots = cb.tile.get() + static_cast<std::size_t>(r) * cb.k4;
            int32_t best = INT32_MIN;
            uint32_t choice = 0;
            for (uint32_t c = 0; c < cb.k; ++c) {
                if (dots[c] > best) {
                    best = dots[c];
                    choice = c;
                }
            }
            assignment[i0 + r] = choice;
        }
    }
}

// Normalises a float centroid and re-quantises its code; the quantiser's scale and norm are
// not needed here.
void finish_centroid(float* centroid, int8_t* code) {
    l2_normalize_inplace(centroid);
    orve_quantize_float_vector_symmetric(centroid, ORVE512_DIM, code, nullptr, nullptr);
}

}  // namespace

int pick_kmeans_pp_indices_i8(const int8_t* codes, uint32_t n, uint32_t k, unsigned int* state,
                              uint32_t* out) {
    if (k == 0 || k > n || codes == nullptr || out == nullptr) return -1;
    orve::c_unique<float[]> d = orve::c_alloc_array<float>(n);
    if (!d) return -1;
    // The cache only speeds the distances up; without memory for it they are computed
    // directly, with the same values.
    i8_distance_cache cache;
    i8_distance_cache* fast = cache.init(codes, n) ? &cache : nullptr;

    const uint32_t first = orve::kmeans_rand_index(state, n);
    out[0] = first;
    distances_to_pick(codes, n, first, d.get(), false, fast);
    if (k == 1) return 0;

    for (uint32_t j = 1; j < k; ++j) {
        const uint32_t pick = orve::kmeans_pp_draw(d.get(), n, state);
        out[j] = pick;
        distances_to_pick(codes, n, pick, d.get(), true, fast);
    }
    return 0;
}

namespace orve {

int kmeans_i8_train(const int8_t* codes, const float* scales, uint32_t m, uint32_t k, uint32_t seed,
                    float* centroids, int8_t* centroid_codes, uint32_t* assignment) {
    unsigned int state = kmeans_seed_state(seed);
    centroid_block cb;
    if (!cb.allocate(k)) return -1;
    {
        c_unique<uint32_t[]> picks = c_alloc_array<uint32_t>(k);
        if (!picks) return -1;
        if (pick_kmeans_pp_indices_i8(codes, m, k, &state, picks.get()) != 0) return -1;
        for (uint32_t j = 0; j < k; ++j) {
            float* c = centroids + static_cast<std::size_t>(j) * kCodeBytes;
            dequantize_row(code_row(codes, picks[j]), scales[picks[j]], c);
            finish_centroid(c, cb.row(j));
            cb.update_sum(j);
        }
    }

    c_unique<float[]> sums = c_calloc_array<float>(static_cast<std::size_t>(k) * kCodeBytes);
    c_unique<uint32_t[]> counts = c_calloc_array<uint32_t>(k);
    if (!sums || !counts) return -1;

    for (int round = 0; round < kKmeansRounds; ++round) {
        assign_by_dot(codes, m, cb, assignment);

        std::memset(sums.get(), 0, static_cast<std::size_t>(k) * kCodeBytes * sizeof(float));
        std::memset(counts.get(), 0, static_cast<std::size_t>(k) * sizeof(uint32_t));
        for (uint32_t i = 0; i < m; ++i) {
            const uint32_t c = assignment[i];
            ++counts[c];
            // The dequantised value, code x (1 / scale), is 0 for a scale that is not positive;
            // adding code x 0 leaves every sum unchanged just as adding 0 would.
            const float w = scales[i] > 0.0f ? 1.0f / scales[i] : 0.0f;
            const int8_t* __restrict q = code_row(codes, i);
            float* __restrict s = sums.get() + static_cast<std::size_t>(c) * kCodeBytes;
            for (std::size_t l = 0; l < kCodeBytes; ++l) s[l] += static_cast<float>(q[l]) * w;
        }

        for (uint32_t c = 0; c < k; ++c) {
            float* cent = centroids + static_cast<std::size_t>(c) * kCodeBytes;
            if (counts[c] > 0) {
                const float inv = 1.0f / static_cast<float>(counts[c]);
                const float* s = sums.get() + static_cast<std::size_t>(c) * kCodeBytes;
                for (std::size_t l = 0; l < kCodeBytes; ++l) cent[l] = s[l] * inv;
            } else {
                const uint32_t r = kmeans_rand_index(&state, m);
                dequantize_row(code_row(codes, r), scales[r], cent);
            }
            finish_centroid(cent, cb.row(c));
            cb.update_sum(c);
        }
    }

    assign_by_dot(codes, m, cb, assignment);
    std::memcpy(centroid_codes, cb.codes.get(), static_cast<std::size_t>(k) * kCodeBytes);
    return 0;
}

}  // namespace orve
