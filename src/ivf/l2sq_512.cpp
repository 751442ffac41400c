// The float and int8 squared distances of the k-means training.
#include "ivf/ivf_internal.h"
#include "quant/kernel_table.h"

float l2sq_512(const float* a, const float* b) {
    float partial[16];
    orve::kernels().l2sq_partials(a, b, partial);
    return orve::l2sq_combine(partial);
}

int32_t l2sq_512_i8(const int8_t* a, const int8_t* b) {
    int32_t s = 0;
    for (std::size_t i = 0; i < orve::kCodeBytes; ++i) {
        const int32_t d = static_cast<int32_t>(a[i]) - static_cast<int32_t>(b[i]);
        s += d * d;
    }
    return s;
}
