#include <cstring>

#include "quant/float_transpose.h"
#include "quant/rerank_sums.h"

namespace orve {

void rerank_sums8_portable(const float* query, const float* const* rows, double* qr, double* rr) {
    typedef float pair_f32 __attribute__((vector_size(2 * sizeof(float))));
    typedef double pair_f64 __attribute__((vector_size(2 * sizeof(double))));
    // Rows 2p and 2p + 1 in the p-th sums: eight vectors. Named variables, not arrays, so that
    // the compiler keeps them in registers.
    pair_f64 qr0{}, qr1{}, qr2{}, qr3{}, rr0{}, rr1{}, rr2{}, rr3{};
    const auto add = [](pair_f64 & qr_sum, pair_f64 & rr_sum, pair_f64 q, pair_f32 x)
        __attribute__((always_inline)) {
        const pair_f64 v = __builtin_convertvector(x, pair_f64);
        qr_sum += q * v;
        rr_sum += v * v;
    };
    const auto step = [&](float qs, quad_f32 a, quad_f32 b) __attribute__((always_inline)) {
        const pair_f64 q = {qs, qs};
        add(qr0, rr0, q, __builtin_shufflevector(a, a, 0, 1));
        add(qr1, rr1, q, __builtin_shufflevector(a, a, 2, 3));
        add(qr2, rr2, q, __builtin_shufflevector(b, b, 0, 1));
        add(qr3, rr3, q, __builtin_shufflevector(b, b, 2, 3));
    };
    for_each_value_of_eight(query, rows, step);
    const pair_f64 qr_all[4] = {qr0, qr1, qr2, qr3}, rr_all[4] = {rr0, rr1, rr2, rr3};
    std::memcpy(qr, qr_all, sizeof qr_all);
    std::memcpy(rr, rr_all, sizeof rr_all);
}

}  // namespace orve
