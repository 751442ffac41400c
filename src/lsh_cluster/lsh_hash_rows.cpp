// The legacy LSH hash over a block of rows. A projection is a running float sum whose order
// fixes its bits, so it cannot be split within a row; the speed comes from running many
// independent sums at once instead: one vector lane per (row, hyperplane) pair, each lane
// multiplying and adding exactly as the one-row hash does (no contraction is allowed in this
// project, so a multiply and an add stay two roundings).
#include <cstring>

#include "lsh_cluster/lsh_hash.h"

namespace orve {

namespace {

typedef float lanes4 __attribute__((vector_size(16)));

constexpr uint32_t kPlanes = ENHANCED_LSH_MAX_HASHES;  // two lanes4 per row
constexpr uint32_t kRowsAtOnce = 4;                    // 8 accumulators: fits every target

// Component i of hyperplanes h = 0..7 side by side; hyperplanes the index lacks stay zero and
// their lanes are computed and dropped.
struct plane_layout {
    alignas(16) float c[kHashedDim][kPlanes];
};

template <uint32_t R>
void hash_group(const plane_layout& p, const float* rows, std::size_t stride, uint32_t n_hashes,
                const float* offsets, uint64_t* hashes) {
    lanes4 lo[R], hi[R];
#pragma GCC unroll 4
    for (uint32_t r = 0; r < R; ++r) lo[r] = hi[r] = lanes4{0.0f, 0.0f, 0.0f, 0.0f};
    for (uint32_t i = 0; i < kHashedDim; ++i) {
        lanes4 plo, phi;
        std::memcpy(&plo, &p.c[i][0], sizeof plo);
        std::memcpy(&phi, &p.c[i][4], sizeof phi);
        // Unrolled so the accumulators stay in registers instead of going through memory.
#pragma GCC unroll 4
        for (uint32_t r = 0; r < R; ++r) {
            const float x = rows[r * stride + i];
            lo[r] += x * plo;
            hi[r] += x * phi;
        }
    }
    for (uint32_t r = 0; r < R; ++r) {
        float dot[kPlanes];
        std::memcpy(dot, &lo[r], sizeof lo[r]);
        std::memcpy(dot + 4, &hi[r], sizeof hi[r]);
        for (uint32_t h = 0; h < n_hashes; ++h) {
            hashes[r * kPlanes + h] = hash_of_projection(dot[h], offsets[h]);
        }
    }
}

}  // namespace

void lsh_hash_rows(const enhanced_lsh_index* index, const float* rows, std::size_t stride,
                   uint32_t m, uint64_t* hashes) {
    const uint32_t n_hashes = index->n_hashes < kPlanes ? index->n_hashes : kPlanes;
    plane_layout p{};
    for (uint32_t h = 0; h < n_hashes; ++h) {
        const float* plane = index->hyperplanes + static_cast<std::size_t>(h) * index->dim;
        for (uint32_t i = 0; i < kHashedDim; ++i) p.c[i][h] = plane[i];
    }
    uint32_t r = 0;
    for (; r + kRowsAtOnce <= m; r += kRowsAtOnce) {
        hash_group<kRowsAtOnce>(p, rows + r * stride, stride, n_hashes, index->offsets,
                                hashes + r * kPlanes);
    }
    for (; r < m; ++r) {
        hash_group<1>(p, rows + r * stride, stride, n_hashes, index->offsets, hashes + r * kPlanes);
    }
}

}  // namespace orve
