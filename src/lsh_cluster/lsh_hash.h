// The part of the legacy LSH hash that its index must agree with, and the block form of the
// hash that ingestion uses.
#pragma once

#include <cstddef>
#include <cstdint>

#include "semantic_vector_indexing.h"

namespace orve {

// The hash always reads this many components of a vector and of a hyperplane, whatever the
// index's hyperplane stride, so an index with a shorter stride would read past its table.
inline constexpr uint32_t kHashedDim = ORVE_HASHED_EMBEDDING_DIM;

// The scaled, clamped and truncated projection: the last step of every hash. The block hash
// runs it for every row and hyperplane, so it is defined here where that loop can inline it.
inline uint64_t hash_of_projection(float dot, float offset) {
    constexpr float kHashScale = 1000000.0f;
    // 2^64 as a float; every float at or above it is beyond the range of a u64.
    constexpr float kU64Limit = 18446744073709551616.0f;
    const float scaled = (offset + dot) * kHashScale;
    // A float-to-integer conversion out of range is undefined, so the ends are clamped first;
    // the negated comparison also sends NaN to 0.
    if (!(scaled >= 0.0f)) return 0;
    if (scaled >= kU64Limit) return UINT64_MAX;
    return static_cast<uint64_t>(scaled);
}

// hashes[r * ENHANCED_LSH_MAX_HASHES + h] = generate_lsh_hash(row r, hyperplane h, offset h)
// for r < m and h < index->n_hashes (at most ENHANCED_LSH_MAX_HASHES), bit for bit: each
// projection still adds its 128 products in index order, but several rows and all hyperplanes
// run side by side in vector lanes, and the hyperplanes are laid out for that once per call.
// Rows are `stride` floats apart.
void lsh_hash_rows(const enhanced_lsh_index* index, const float* rows, std::size_t stride,
                   uint32_t m, uint64_t* hashes);

// Files an entry under hashes already computed for the index's hyperplanes (n_hashes of them);
// the same result codes and effects as enhanced_lsh_index_add_vector.
int lsh_index_add_hashed(enhanced_lsh_index* index, const uint64_t* hashes, uint32_t node_id);

}  // namespace orve
