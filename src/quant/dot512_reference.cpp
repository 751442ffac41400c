// Portable reference for the 512-lane kernel: the definition every other variant is checked
// against, and the fallback on processors without a faster exact kernel.
#include "quant/dot512_kernels.h"

namespace orve {

int32_t dot512_reference(const int8_t* a, const int8_t* b) {
    int32_t sum = 0;
    for (std::size_t i = 0; i < kCodeBytes; ++i) {
        sum += static_cast<int32_t>(a[i]) * static_cast<int32_t>(b[i]);
    }
    return sum;
}

void dot512_reference_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out) {
    for (std::size_t r = 0; r < n; ++r) out[r] = dot512_reference(q, rows + r * kCodeBytes);
}

}  // namespace orve

namespace orve {

void dot512_reference_multi(const int8_t* const* queries, const int8_t* rows, std::size_t n,
                            int32_t* out, std::size_t ld) {
    for (std::size_t j = 0; j < kMultiQueries; ++j)
        dot512_reference_many(queries[j], rows, n, out + j * ld);
}

}  // namespace orve
