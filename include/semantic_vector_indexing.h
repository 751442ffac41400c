/*
 * semantic_vector_indexing.h - the whole public interface of libsemantic_vector_indexing.
 *
 * Valid C99 and C++. Every exported function and every record a host allocates or reads is
 * declared here. Conventions:
 *   - status results are int32: 0 success, -1 failure, further negative codes where a function
 *     documents them;
 *   - a null pointer argument is a failure (or a no-op for functions without a result);
 *   - every destroy / free / close function accepts null;
 *   - the library starts no threads, sets no errno and returns no error strings.
 *
 * The records below are laid out for 64-bit Linux (LP64); their sizes and field offsets are
 * checked at compile time at the end of this header.
 */
#ifndef SEMANTIC_VECTOR_INDEXING_H
#define SEMANTIC_VECTOR_INDEXING_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define ORVE_API __attribute__((visibility("default")))
#else
#define ORVE_API
#endif

/* Compile-time layout checks; the records are laid out for LP64. */
#if defined(__cplusplus)
#define ORVE_STATIC_ASSERT(cond, name) static_assert(cond, #name)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define ORVE_STATIC_ASSERT(cond, name) _Static_assert(cond, #name)
#else
#define ORVE_STATIC_ASSERT(cond, name) typedef char orve_static_assert_##name[(cond) ? 1 : -1]
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ======================================================================================== */
/* Int8 symmetric quantisation and quantised records                                         */
/* ======================================================================================== */

/* Dimension of the orve512 embedding format. */
#define ORVE512_DIM 512

/* A quantised 512-dimension vector with a caller identifier. The code array is owned by the
 * record: create with orve_quantized_vector_record_create, release with
 * orve_quantized_vector_record_free. */
typedef struct orve_quantized_vector_record {
    uint32_t id;    /* caller's identifier */
    float norm;     /* L2 norm of the float vector */
    float scale;    /* 127 / largest magnitude; 0.0 for a near-zero vector */
    int8_t* codes;  /* 512 codes in [-127, 127] */
} orve_quantized_vector_record;

ORVE_STATIC_ASSERT(sizeof(orve_quantized_vector_record) == 24, quantized_record_size);
ORVE_STATIC_ASSERT(offsetof(orve_quantized_vector_record, codes) == 16, quantized_record_codes);

/* Quantises 512 floats to codes in [-127, 127]. Returns 0, or -1 when dim != 512 or in/out is
 * null (nothing is written then). out_scale and out_norm may be null. */
ORVE_API int orve_quantize_float_vector_symmetric(const float* in, int dim, int8_t* out,
                                                  float* out_scale, float* out_norm);

/* Cosine of two quantised vectors from the dot product of their codes:
 * dot / (((scale_a * scale_b) * norm_a) * norm_b), or 0.0 when any factor is not positive.
 * Not clamped to [-1, 1]. */
ORVE_API float orve_cosine_from_quantized_dot(int32_t dot, float scale_a, float scale_b,
                                              float norm_a, float norm_b);

/* Allocates a record holding the quantised form of vec (512 floats). 0 and *out set, or -1
 * with *out untouched. */
ORVE_API int orve_quantized_vector_record_create(const float* vec, uint32_t id,
                                                 orve_quantized_vector_record** out);

/* Frees a record and its code array; null is ignored. */
ORVE_API void orve_quantized_vector_record_free(orve_quantized_vector_record* record);

/* ======================================================================================== */
/* Int8 dot products and the 64-lane similarity dispatcher                                   */
/* ======================================================================================== */

/* Exact sum of a[i] * b[i] over 512 signed bytes; 0 if a or b is null. */
ORVE_API int32_t orve_dotprod512_i8(const int8_t* a, const int8_t* b);

/* Same as orve_dotprod512_i8 (the name the IVF and paged search paths use). */
ORVE_API int32_t orve_dot512_ivf(const int8_t* a, const int8_t* b);

/* 512 signed 32-bit elements each: low 32 bits of the 64-bit sum of products; 0 if a or b is
 * null. Not a replacement for orve_dotprod512_i8 on code rows. */
ORVE_API int32_t orve_dotprod512_scalar(const int32_t* a, const int32_t* b);

/* Exact sum of a[i] * b[i] over 64 signed bytes. On 64-bit Arm with the dot-product
 * instructions, an override defined by another module of the process
 * (orve512_similarity_int8__challenger_override) takes precedence; elsewhere the portable
 * kernel answers. */
ORVE_API int32_t orve512_similarity_int8(const int8_t* a, const int8_t* b);

/* Portable 64-lane kernel; 0 if a or b is null. */
ORVE_API int32_t orve512_similarity_int8_hwy_baseline_v1(const int8_t* a, const int8_t* b);

/* Plain 64-lane loop, for checking the kernels; 0 if a or b is null. */
ORVE_API int32_t orve512_similarity_int8__scalar_reference_testonly(const int8_t* a,
                                                                     const int8_t* b);

/* The override hook if one is defined, else the dot-product kernel, with no capability test. */
ORVE_API int32_t orve512_similarity_int8__aarch64_override_testonly(const int8_t* a,
                                                                     const int8_t* b);

/* Optional hook: a host module may define this function; the library only holds a weak
 * reference to it. Do not define it unless you mean to replace the 64-lane kernel. */
#if defined(__GNUC__)
__attribute__((weak))
#endif
ORVE_API int32_t orve512_similarity_int8__challenger_override(const int8_t* a, const int8_t* b);

/* ======================================================================================== */
/* Query and result records                                                                  */
/* ======================================================================================== */

/* A search request; the host fills it and the library never writes it. A flag counts as set
 * when it is nonzero. An all-zero record asks for the legacy listing. 568 bytes. */
typedef struct vector_similarity_query {
    float embedding[128];       /* legacy 128-dim query (LSH path) */
    uint32_t max_results;       /* k */
    float min_similarity;       /* candidates scoring below it are dropped */
    uint32_t cluster_filter;    /* 0 = any node, else only nodes of this cluster */
    uint8_t use_lsh;            /* legacy family: ask the LSH index */
    uint8_t reserved;           /* padding kept for the layout; never read */
    uint8_t use_orve512;        /* take the 512-dimension int8 family */
    const float* query_vector;  /* 512 floats */
    uint8_t use_ivf;            /* try the published IVF */
    uint32_t n_probe;           /* IVF buckets to probe */
    uint8_t rerank;             /* re-rank candidates exactly from the sidecar */
    uint32_t rerank_factor;     /* candidate multiplier when re-ranking; 0 means 5 */
    uint8_t use_hivf;           /* try the paged index or the published H-IVF */
    uint32_t n_probe_l1;        /* level-1 buckets to probe */
    uint32_t n_probe_l2;        /* level-2 buckets per level-1 bucket */
} vector_similarity_query;

/* One search result. 24 bytes. */
typedef struct vector_similarity_result {
    uint32_t node_id;
    float similarity; /* int8 cosine, or exact cosine after re-ranking */
    float distance;   /* 1 - similarity on the int8 paths */
    uint32_t cluster_id;
    float node_score;
    uint32_t rank; /* 1-based */
} vector_similarity_result;

ORVE_STATIC_ASSERT(sizeof(vector_similarity_query) == 568, query_size);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_query, max_results) == 512, query_max_results);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_query, min_similarity) == 516, query_min_sim);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_query, cluster_filter) == 520, query_cluster);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_query, use_lsh) == 524, query_use_lsh);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_query, use_orve512) == 526, query_use_orve512);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_query, query_vector) == 528, query_vector_off);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_query, use_ivf) == 536, query_use_ivf);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_query, n_probe) == 540, query_n_probe);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_query, rerank) == 544, query_rerank);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_query, rerank_factor) == 548, query_rerank_f);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_query, use_hivf) == 552, query_use_hivf);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_query, n_probe_l1) == 556, query_n_probe_l1);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_query, n_probe_l2) == 560, query_n_probe_l2);
ORVE_STATIC_ASSERT(sizeof(vector_similarity_result) == 24, result_size);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_result, similarity) == 4, result_similarity);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_result, distance) == 8, result_distance);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_result, cluster_id) == 12, result_cluster_id);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_result, node_score) == 16, result_node_score);
ORVE_STATIC_ASSERT(offsetof(vector_similarity_result, rank) == 20, result_rank);

ORVE_API uint64_t vector_similarity_query_sizeof(void);  /* 568 */
ORVE_API uint64_t vector_similarity_result_sizeof(void); /* 24 */

/* ======================================================================================== */
/* Float helpers on 128-float vectors, result sort, random helpers                            */
/* ======================================================================================== */

/* All vector arguments are exactly 128 floats, read in index order, single precision. */
ORVE_API float calculate_cosine_similarity(const float* a, const float* b);
ORVE_API float calculate_euclidean_distance(const float* a, const float* b); /* +inf on null */
ORVE_API float calculate_vector_magnitude(const float* v);
ORVE_API void normalize_vector(float* v); /* no-op on null or zero magnitude */

/* Stable in-place sort by similarity, descending. rank fields move with their records. */
ORVE_API void sort_similarity_results(vector_similarity_result* results, uint32_t count);

/* rand() * 2^-31, in [0, 1]; and (high - low) * random_float() + low. Neither seeds rand. */
ORVE_API float random_float(void);
ORVE_API float random_float_range(float low, float high);

/* ======================================================================================== */
/* Vector sidecar file                                                                       */
/* ======================================================================================== */

/* ======================================================================================== */
/* Node records                                                                              */
/* ======================================================================================== */

/* ======================================================================================== */
/* LSH index                                                                                 */
/* ======================================================================================== */

/* ======================================================================================== */
/* Clustering index                                                                          */
/* ======================================================================================== */

/* ======================================================================================== */
/* Hashed text and node embeddings                                                           */
/* ======================================================================================== */

/* ======================================================================================== */
/* HRR fact encoder                                                                          */
/* ======================================================================================== */

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* SEMANTIC_VECTOR_INDEXING_H */
