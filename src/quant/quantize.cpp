// Symmetric int8 quantisation of 512-dimension embeddings and the cosine recovered from the
// integer dot product of two quantised vectors.
#include <cmath>
#include <cstdlib>

#include "quant/cosine.h"
#include "semantic_vector_indexing.h"
#include "util/c_alloc.h"

namespace {

// Below this largest magnitude a vector is treated as zero: scaling it up would only amplify
// rounding noise. The comparison is in single precision, against the float nearest 1e-12.
constexpr float kZeroMagnitude = 1e-12f;

}  // namespace

extern "C" ORVE_API int orve_quantize_float_vector_symmetric(const float* in, int dim, int8_t* out,
                                                             float* out_scale, float* out_norm) {
    if (dim != ORVE512_DIM || in == nullptr || out == nullptr) return -1;

    // One pass for both the largest magnitude and the sum of squares. The sum is sequential on
    // purpose: the stored norm must not depend on how a compiler would reassociate it.
    float m = 0.0f;
    float s = 0.0f;
    for (int i = 0; i < ORVE512_DIM; ++i) {
        const float x = in[i];
        const float ax = std::fabs(x);
        if (ax > m) m = ax;
        s += x * x;
    }
    if (out_norm != nullptr) *out_norm = std::sqrt(s);

    if (m < kZeroMagnitude) {
        for (int i = 0; i < ORVE512_DIM; ++i) out[i] = 0;
        if (out_scale != nullptr) *out_scale = 0.0f;
        return 0;
    }

    const float scale = 127.0f / m;
    if (out_scale != nullptr) *out_scale = scale;
    for (int i = 0; i < ORVE512_DIM; ++i) {
        float y = scale * in[i];
        if (y > 127.0f) {
            y = 127.0f;
        } else if (y < -127.0f) {
            y = -127.0f;
        }
        // Current rounding mode: ties to even by default. Clamping first keeps -128 out.
        out[i] = static_cast<int8_t>(std::lrintf(y));
    }
    return 0;
}

extern "C" ORVE_API float orve_cosine_from_quantized_dot(int32_t dot, float scale_a, float scale_b,
                                                         float norm_a, float norm_b) {
    return orve::cosine_from_dot(dot, scale_a, scale_b, norm_a, norm_b);
}

extern "C" ORVE_API int orve_quantized_vector_record_create(const float* vec, uint32_t id,
                                                            orve_quantized_vector_record** out) {
    if (vec == nullptr || out == nullptr) return -1;
    orve::c_unique<orve_quantized_vector_record> rec(static_cast<orve_quantized_vector_record*>(
        std::calloc(1, sizeof(orve_quantized_vector_record))));
    if (!rec) return -1;
    rec->id = id;
    orve::c_unique<int8_t[]> codes = orve::c_alloc_array<int8_t>(ORVE512_DIM);
    if (!codes) return -1;
    if (orve_quantize_float_vector_symmetric(vec, ORVE512_DIM, codes.get(), &rec->scale,
                                             &rec->norm) != 0) {
        return -1;
    }
    rec->codes = codes.release();
    *out = rec.release();
    return 0;
}

extern "C" ORVE_API void orve_quantized_vector_record_free(orve_quantized_vector_record* record) {
    if (record == nullptr) return;
    std::free(record->codes);
    std::free(record);
}
