// The double-precision sums of exact re-ranking: a query against eight float rows at once.
//
// Each row keeps its own sums in one fixed order (value 0 to 511, each product and square
// rounded to double, then added; nothing fused), so every variant returns, bit for bit, what
// scoring one row after the other returns. Eight rows side by side give the processor eight
// independent chains of additions instead of one; a wider variant only advances more of them
// per instruction.
#pragma once

#include <cstdint>

namespace orve {

constexpr uint32_t kRerankLanes = 8;

// qr[l] = sum of query[i] * rows[l][i] and rr[l] = sum of rows[l][i]^2, for l < 8, in doubles.
using rerank_sums8_fn = void (*)(const float* query, const float* const* rows, double* qr,
                                 double* rr);

// Two doubles per vector: every target has registers this wide.
void rerank_sums8_portable(const float* query, const float* const* rows, double* qr, double* rr);

#if defined(__x86_64__)
// Four doubles per vector.
void rerank_sums8_avx2(const float* query, const float* const* rows, double* qr, double* rr);
#endif

}  // namespace orve
