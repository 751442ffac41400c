// The query side of routing: the int8 code, scale and norm every centroid is scored against.
#pragma once

#include <cstdint>

#include "quant/dot512_kernels.h"
#include "semantic_vector_indexing.h"
#include "util/c_alloc.h"

// A routed query's int8 code, scale and norm. The code lives on the C heap so that a failed
// allocation is an ordinary -1 for the routing call rather than a large stack frame.
struct routing_query {
    orve::c_unique<int8_t[]> code;
    float scale = 0.0f;
    float norm = 0.0f;
    // False when the code cannot be allocated or the query cannot be quantised.
    bool quantise(const float* query) {
        code = orve::c_alloc_array<int8_t>(orve::kCodeBytes);
        return code && orve_quantize_float_vector_symmetric(query, ORVE512_DIM, code.get(), &scale,
                                                            &norm) == 0;
    }
};
