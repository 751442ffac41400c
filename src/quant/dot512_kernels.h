// The 512-lane int8 dot-product kernels behind orve_dotprod512_i8 and every int8 scan.
//
// Each kernel exists as a portable reference and, where the build targets it, per-architecture
// variants. All of them return the exact integer sum over the whole int8 range, -128 included,
// so they are interchangeable and the choice between them never changes a result.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orve {

// Bytes of one quantised code row: one int8 per dimension.
constexpr std::size_t kCodeBytes = 512;

// Dot product of two 512-byte code rows.
using dot512_one_fn = int32_t (*)(const int8_t* a, const int8_t* b);

// Scores one query against n consecutive 512-byte rows (rows + 512 * i), writing out[i].
// This is the shape of every scan: the query stays hot while the rows stream past.
using dot512_many_fn = void (*)(const int8_t* query, const int8_t* rows, std::size_t n,
                                int32_t* out);

// Rows a scan scores per many-rows call: their dot products fit a 512-byte stack buffer, and
// the block's codes (64 KiB) stay in the second-level cache while their scores are used.
constexpr std::size_t kScanBlockRows = 128;

// How many queries the multi-query form scores per row load.
constexpr std::size_t kMultiQueries = 4;

// Scores n consecutive rows against kMultiQueries queries, writing the dot product of
// queries[j] and row i to out[j * ld + i]. Each row is loaded once for all the queries, which is
// what makes a batch cheaper than its queries one at a time when the rows come from memory.
using dot512_multi_fn = void (*)(const int8_t* const* queries, const int8_t* rows, std::size_t n,
                                 int32_t* out, std::size_t ld);

// Per-variant entry points; each is defined only in builds for its architecture. Every variant
// declares the same three shapes by its own name, as each lives in a file compiled for its set.
int32_t dot512_reference(const int8_t* a, const int8_t* b);
void dot512_reference_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out);
void dot512_reference_multi(const int8_t* const* queries, const int8_t* rows, std::size_t n,
                            int32_t* out, std::size_t ld);

#if defined(__x86_64__)
int32_t dot512_avx2(const int8_t* a, const int8_t* b);
void dot512_avx2_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out);
void dot512_avx2_multi(const int8_t* const* queries, const int8_t* rows, std::size_t n,
                       int32_t* out, std::size_t ld);
int32_t dot512_avxvnni(const int8_t* a, const int8_t* b);
void dot512_avxvnni_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out);
void dot512_avxvnni_multi(const int8_t* const* queries, const int8_t* rows, std::size_t n,
                          int32_t* out, std::size_t ld);
int32_t dot512_avx512vnni(const int8_t* a, const int8_t* b);
void dot512_avx512vnni_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out);
void dot512_avx512vnni_multi(const int8_t* const* queries, const int8_t* rows, std::size_t n,
                             int32_t* out, std::size_t ld);
#endif

#if defined(__aarch64__)
int32_t dot512_sdot(const int8_t* a, const int8_t* b);
void dot512_sdot_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out);
void dot512_sdot_multi(const int8_t* const* queries, const int8_t* rows, std::size_t n,
                       int32_t* out, std::size_t ld);
// 64-lane signed dot product with one accumulator, for the similarity dispatcher.
int32_t dot64_sdot(const int8_t* a, const int8_t* b);
#endif

}  // namespace orve
