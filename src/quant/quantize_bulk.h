// Quantisation of many 512-float rows at once. Every row gets exactly the codes, scale and norm
// the one-row function gives it: the norm's sum keeps its sequential order, so the speed comes
// from running one row per vector lane instead of splitting a row's sum.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orve {

// codes receives n rows of 512 bytes; scales and norms n values each.
using quantize_rows_fn = void (*)(const float* in, std::size_t n, int8_t* codes, float* scales,
                                  float* norms);

struct quantize_rows_kernel {
    const char* name;
    quantize_rows_fn fn;
};

void quantize_rows_reference(const float* in, std::size_t n, int8_t* codes, float* scales,
                             float* norms);
#if defined(__x86_64__)
void quantize_rows_avx2(const float* in, std::size_t n, int8_t* codes, float* scales, float* norms);
#elif defined(__aarch64__)
void quantize_rows_neon(const float* in, std::size_t n, int8_t* codes, float* scales, float* norms);
#endif

// Every variant this processor runs, the reference first; for tests and benchmarks.
const quantize_rows_kernel* quantize_rows_available(std::size_t* count);

// The variant chosen once at load.
void quantize_rows(const float* in, std::size_t n, int8_t* codes, float* scales, float* norms);

// What the variants share: finishing one row whose sum of squares and largest magnitude the
// caller computed, with the exact arithmetic of the one-row function, or handing the row to
// that function when it holds a non-finite value.
constexpr float kQuantZeroMagnitude = 1e-12f;

}  // namespace orve
