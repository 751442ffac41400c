// Single-precision helpers on the legacy 128-float vectors. Sums run in index order so results
// are the same on every build (the project compiles without floating-point contraction).
#include <cmath>
#include <limits>

#include "semantic_vector_indexing.h"

namespace {
constexpr int kLegacyDim = ORVE_HASHED_EMBEDDING_DIM;
}

extern "C" ORVE_API float calculate_cosine_similarity(const float* a, const float* b) {
    if (a == nullptr || b == nullptr) return 0.0f;
    float aa = 0.0f, ab = 0.0f, bb = 0.0f;
    for (int i = 0; i < kLegacyDim; ++i) {
        aa += a[i] * a[i];
        ab += a[i] * b[i];
        bb += b[i] * b[i];
    }
    if (aa == 0.0f || bb == 0.0f) return 0.0f;
    return ab / (std::sqrt(aa) * std::sqrt(bb));
}

extern "C" ORVE_API float calculate_euclidean_distance(const float* a, const float* b) {
    if (a == nullptr || b == nullptr) return std::numeric_limits<float>::infinity();
    float s = 0.0f;
    for (int i = 0; i < kLegacyDim; ++i) {
        const float d = a[i] - b[i];
        s += d * d;
    }
    return std::sqrt(s);
}

extern "C" ORVE_API float calculate_vector_magnitude(const float* v) {
    if (v == nullptr) return 0.0f;
    float s = 0.0f;
    for (int i = 0; i < kLegacyDim; ++i) s += v[i] * v[i];
    return std::sqrt(s);
}

extern "C" ORVE_API void normalize_vector(float* v) {
    const float m = calculate_vector_magnitude(v);
    if (m == 0.0f) return;  // also covers null
    // A division per component rather than a multiplication by 1/m: the quotient is the
    // correctly rounded one, which is what callers comparing normalised vectors expect.
    for (int i = 0; i < kLegacyDim; ++i) v[i] /= m;
}
