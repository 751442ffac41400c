// The exported 512-lane dot products over the chosen kernel.
#include "quant/kernel_table.h"
#include "semantic_vector_indexing.h"

extern "C" ORVE_API int32_t orve_dotprod512_i8(const int8_t* a, const int8_t* b) {
    if (a == nullptr || b == nullptr) return 0;
    return orve::kernels().dot512(a, b);
}

// The name the IVF and paged search paths were given for the same product.
extern "C" ORVE_API int32_t orve_dot512_ivf(const int8_t* a, const int8_t* b) {
    return orve_dotprod512_i8(a, b);
}

extern "C" ORVE_API int32_t orve_dotprod512_scalar(const int32_t* a, const int32_t* b) {
    if (a == nullptr || b == nullptr) return 0;
    // Each product fits in 64 bits; the sum may not, and only its low 32 bits are wanted, so it
    // is accumulated modulo 2^64 where wrapping is defined.
    uint64_t sum = 0;
    for (std::size_t i = 0; i < orve::kCodeBytes; ++i) {
        sum += static_cast<uint64_t>(static_cast<int64_t>(a[i]) * static_cast<int64_t>(b[i]));
    }
    return static_cast<int32_t>(static_cast<uint32_t>(sum));
}
