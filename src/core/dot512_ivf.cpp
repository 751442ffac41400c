// The name the IVF and paged search paths use for the 512-lane dot product.
#include "semantic_vector_indexing.h"

extern "C" ORVE_API int32_t orve_dot512_ivf(const int8_t* a, const int8_t* b) {
    return orve_dotprod512_i8(a, b);
}
