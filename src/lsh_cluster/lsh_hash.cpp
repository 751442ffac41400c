// The hash of the legacy LSH index and its collision-probability formula. The hash is an
// offset projection scaled by 10^6 and truncated, so two vectors collide only when their
// projections agree to about a millionth; it is computed in single precision throughout so an
// index hashes identically on every build.
#include <cmath>
#include <cstdint>

#include "lsh_cluster/lsh_hash.h"
#include "semantic_vector_indexing.h"

extern "C" ORVE_API uint64_t generate_lsh_hash(const float* vector, const float* hyperplane,
                                               float offset) {
    if (vector == nullptr || hyperplane == nullptr) return 0;
    float dot = 0.0f;
    for (uint32_t i = 0; i < orve::kHashedDim; ++i) dot += vector[i] * hyperplane[i];
    return orve::hash_of_projection(dot, offset);
}

extern "C" ORVE_API float calculate_lsh_collision_probability(float similarity, uint32_t n_hashes) {
    // Parameter order: the similarity first, then the number of hash functions, the order in
    // which the formula reads them.
    if (similarity < 0.0f || similarity > 1.0f) return 0.0f;
    return std::pow(1.0f - similarity, static_cast<float>(n_hashes));
}
