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
    const auto step = [&](double qs, quad_f32 a, quad_f32 b) __attribute__((always_inline)) {
        const pair_f64 q = {qs, qs};
        add(qr0, rr0, q, __builtin_shufflevector(a, a, 0, 1));
        add(qr1, rr1, q, __builtin_shufflevector(a, a, 2, 3));
        add(qr2, rr2, q, __builtin_shufflevector(b, b, 0, 1));
        add(qr3, rr3, q, __builtin_shufflevector(b, b, 2, 3));
    };
    for (int i = 0; i < 512; i += 4) {
        quad_f32 a[4], b[4];  // a[d]: value i + d of rows 0-3; b[d] of rows 4-7
        transpose4(rows, i, a);
        transpose4(rows + 4, i, b);
        step(query[i], a[0], b[0]);
        step(query[i + 1], a[1], b[1]);
        step(query[i + 2], a[2], b[2]);
        step(query[i + 3], a[3], b[3]);
    }
    const pair_f64 qr_all[4] = {qr0, qr1, qr2, qr3}, rr_all[4] = {rr0, rr1, rr2, rr3};
    std::memcpy(qr, qr_all, sizeof qr_all);
    std::memcpy(rr, rr_all, sizeof rr_all);
}

}  // namespace orve
