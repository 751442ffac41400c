// The 512-lane int8 dot-product kernels behind orve_dotprod512_i8 and every int8 scan.
//
// Each kernel exists as a portable reference and, where the build targets it, per-architecture
// variants. All of them return the exact integer sum over the whole int8 range, -128 included,
// so they are interchangeable and the choice between them never changes a result.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orve {

constexpr std::size_t kRowBytes = 512;

// Dot product of two 512-byte code rows.
using dot512_one_fn = int32_t (*)(const int8_t* a, const int8_t* b);

// Scores one query against n consecutive 512-byte rows (rows + 512 * i), writing out[i].
// This is the shape of every scan: the query stays hot while the rows stream past.
using dot512_many_fn = void (*)(const int8_t* query, const int8_t* rows, std::size_t n,
                                int32_t* out);

struct dot512_kernel {
    const char* name;
    dot512_one_fn one;
    dot512_many_fn many;
};

// The kernels compiled into this build that the running processor can execute; the portable
// reference is always first. Sets *count.
const dot512_kernel* dot512_kernels_available(std::size_t* count);

// The fastest available kernel, chosen once when the library is loaded.
const dot512_kernel& dot512_best();

// Per-variant entry points; each is defined only in builds for its architecture.
int32_t dot512_reference(const int8_t* a, const int8_t* b);
void dot512_reference_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out);

#if defined(__x86_64__)
int32_t dot512_avx2(const int8_t* a, const int8_t* b);
void dot512_avx2_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out);
int32_t dot512_avxvnni(const int8_t* a, const int8_t* b);
void dot512_avxvnni_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out);
int32_t dot512_avx512vnni(const int8_t* a, const int8_t* b);
void dot512_avx512vnni_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out);
#endif

#if defined(__aarch64__)
int32_t dot512_sdot(const int8_t* a, const int8_t* b);
void dot512_sdot_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out);
// 64-lane signed dot product with one accumulator, for the similarity dispatcher.
int32_t dot64_sdot(const int8_t* a, const int8_t* b);
#endif

}  // namespace orve
