/*
 * semantic_vector_indexing.h - the whole public interface of libsemantic_vector_indexing.
 *
 * Valid C99 and C++. Every exported function and every record a host allocates or reads is
 * declared here. Conventions:
 *   - status results are int32: ORVE_OK (0) success, ORVE_FAILED (-1) failure, and the further
 *     negative codes named under "Return codes" for the functions that document them;
 *   - a null pointer argument is a failure (or a no-op for functions without a result);
 *   - every destroy / free / close function accepts null;
 *   - the library starts no threads, sets no errno and returns no error strings;
 *   - the int8 kernels are the fastest set the processor runs, chosen once at load; the
 *     environment variable ORVE_KERNELS (portable, avx2, avx_vnni, avx512_vnni; portable, sdot
 *     on aarch64) pins another the processor can run. Every set gives the same answers.
 *
 * Contents, in the order a host uses them:
 *   Version, limits and return codes
 *   Query and result records          what a search asks for and gets back
 *   System object                     create / destroy, statistics;
 *                                     ingestion: add_embedding_orve512, load_vectors_f32;
 *                                     indexes: build_ivf (IVF), build_ivf_level2 (H-IVF);
 *                                     search: search_similar (set use_orve512!)
 *   Batch search                      many queries in one call
 *   System object: files              open_sidecar (exact rows: restart and re-ranking),
 *                                     build_ivf_paged / open_ivf_paged (the .ivfp file)
 *   For tools, tests and hosts that build indexes themselves:
 *     IVF and H-IVF records and builders, the paged file's writer and reader, the sidecar
 *     file, quantisation, int8 dot products (some test-only), the HRR fact encoder
 *   The legacy 128-d family (hosts of the earlier node-graph interface):
 *     node-graph calls, 128-float helpers, node records, LSH, clustering, hashed embeddings
 *
 * A first search (error handling shortened):
 *
 *     semantic_vector_indexing_system* sys = calloc(1, semantic_vector_indexing_system_sizeof());
 *     semantic_vector_indexing_system_create(sys);
 *     semantic_vector_indexing_system_load_vectors_f32(sys, rows, n);   (ids 1..n)
 *     semantic_vector_indexing_system_build_ivf(sys, nlist, 1);         (n >= ORVE_MIN_INDEX_ROWS)
 *
 *     vector_similarity_result results[10];
 *     uint32_t count = 0;
 *     vector_similarity_query q;
 *     memset(&q, 0, sizeof q);
 *     q.use_orve512 = 1;        (REQUIRED: without it the call takes the legacy 128-d family and
 *                                returns the first nodes in table order with similarity 0)
 *     q.query_vector = query;   (512 floats)
 *     q.max_results = 10;
 *     q.use_ivf = 1;
 *     q.n_probe = nlist / 16;   (a start; more probes: better recall, slower. Measure recall
 *                                on your own queries, or let Python's Index.tune choose)
 *     rc = semantic_vector_indexing_system_search_similar(sys, &q, results, &count);
 *
 *   rc is ORVE_OK, ORVE_FAILED, or ORVE_SEARCH_FLAT_DROPPED when the call had to fall back to
 *   brute force after orve512_drop_flat_slabs. With use_ivf unset (or no IVF built) the search
 *   is an exact brute force over every row. Set use_hivf with n_probe_l1 / n_probe_l2 for the
 *   H-IVF or an attached paged file.
 *
 * The records below are laid out for 64-bit Linux (LP64); their sizes and field offsets are
 * checked at compile time beside each record.
 */
#ifndef SEMANTIC_VECTOR_INDEXING_H
#define SEMANTIC_VECTOR_INDEXING_H

#include <stdbool.h>
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

/* Library version. CMake compares these lines with its project() version at configure time and
 * stops when they differ, so the build, the package files and this header cannot disagree. */
#define ORVE_VERSION_MAJOR 0
#define ORVE_VERSION_MINOR 1
#define ORVE_VERSION_PATCH 0
#define ORVE_VERSION_STRING "0.1.0"

/* Limits a host needs before it allocates or builds anything. */
#define ORVE_MAX_CAPACITY 1100000 /* most rows one index object can hold */
#define ORVE_MIN_INDEX_ROWS 1000  /* fewest rows an IVF or H-IVF can be trained on */

/* Return codes. Each function's comment says which of these it can return; every
 * int-returning function can return the first two. */
/* success (a search that found nothing also succeeds) */
#define ORVE_OK 0
/* failure: null or invalid argument, out of memory or an unmet precondition; nothing changed */
#define ORVE_FAILED (-1)

/* semantic_vector_indexing_system_search_similar: the query needed brute force (no usable
 * index for it) but the flat int8 store was dropped; one line goes to standard error. Build or
 * attach an index, or search it with use_ivf / use_hivf. */
#define ORVE_SEARCH_FLAT_DROPPED (-7)

/* orve_ivf_paged_open: nothing stays open after any of these. */
#define ORVE_PAGED_OPEN_BAD_ARG (-1)     /* null argument */
#define ORVE_PAGED_OPEN_IO (-2)          /* the file cannot be opened or mapped */
#define ORVE_PAGED_OPEN_NO_MEMORY (-3)   /* the handle cannot be allocated */
#define ORVE_PAGED_OPEN_BAD_MAGIC (-4)   /* not a .ivfp file */
#define ORVE_PAGED_OPEN_BAD_VERSION (-5) /* file version neither 1 nor 2 */
#define ORVE_PAGED_OPEN_BAD_DIM (-6)     /* dimension is not 512 */
#define ORVE_PAGED_OPEN_CORRUPT (-7)     /* too short, or counts and sections do not fit */

/* orve_ivf_paged_build: after any of these the path is as it was. */
#define ORVE_PAGED_WRITE_BAD_ARG (-1)   /* bad argument or path too long; no file touched */
#define ORVE_PAGED_WRITE_IO (-2)        /* temporary file, mapping, flush or rename failed */
#define ORVE_PAGED_WRITE_NO_MEMORY (-3) /* out of memory */

#ifdef __cplusplus
extern "C" {
#endif

/* ======================================================================================== */
/* Query and result records                                                               */
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
/* System object: create, ingest, build indexes, search                                   */
/* ======================================================================================== */

/* The central object. Hosts never read its fields: allocate
 * semantic_vector_indexing_system_sizeof() bytes (malloc alignment is enough), pass the block to
 * semantic_vector_indexing_system_create, and end with semantic_vector_indexing_system_destroy.
 * Create must be given a zeroed or destroyed block. */
typedef struct semantic_vector_indexing_system semantic_vector_indexing_system;
/* Capacity (rows) comes from the environment variable ORVE_VECTOR_CAPACITY, read at create:
 * 1 to ORVE_MAX_CAPACITY (1,100,000), default and fallback ORVE_MAX_CAPACITY. */
ORVE_API int semantic_vector_indexing_system_create(semantic_vector_indexing_system* sys);
/* Releases everything and zero-fills the block; safe on a zeroed block and twice in a row. */
ORVE_API void semantic_vector_indexing_system_destroy(semantic_vector_indexing_system* sys);
ORVE_API uint64_t semantic_vector_indexing_system_sizeof(void);
ORVE_API uint32_t semantic_vector_indexing_system_get_vec_dim(void); /* 512 */
/* Node count, cluster count and silhouette of the clustering index; average similarity is
 * always 0. -1 on null pointers or an object that is not created. */
ORVE_API int semantic_vector_indexing_system_get_stats(semantic_vector_indexing_system* sys,
                                                       uint32_t* out_node_count,
                                                       uint32_t* out_cluster_count,
                                                       float* out_avg_similarity,
                                                       float* out_silhouette);
/* Ingestion generation, and the generation the live IVF was built from; equal right after a
 * successful IVF build. 0 for a null object. */
ORVE_API uint64_t semantic_vector_indexing_system_get_ivf_generation(
    semantic_vector_indexing_system* sys);
ORVE_API uint64_t semantic_vector_indexing_system_get_ivf_built_generation(
    semantic_vector_indexing_system* sys);
/* Ingestion. Rows are filled in order; every failure leaves no trace. With a sidecar attached,
 * each committed row is also appended to it; a failed append does not fail the call (see
 * semantic_vector_indexing_system_open_sidecar for how a host detects it). */
ORVE_API int semantic_vector_indexing_system_add_embedding_orve512(
    semantic_vector_indexing_system* sys, uint32_t node_id, const float* vec);
/* n vectors of 512 floats back to back, identifiers 1-based row positions. Returns -1 when a
 * precondition fails, else the number of rows committed. */
ORVE_API int semantic_vector_indexing_system_load_vectors_f32(semantic_vector_indexing_system* sys,
                                                              const float* vecs, uint32_t n);
/* Drops the flat int8 store for good (confirm must be nonzero); published indexes stay. */
ORVE_API int orve512_drop_flat_slabs(semantic_vector_indexing_system* sys, bool confirm);
ORVE_API int semantic_vector_indexing_system_evict_flat_slab(semantic_vector_indexing_system* sys);
ORVE_API int orve_flat_index_ensure(semantic_vector_indexing_system* sys);
ORVE_API void orve_flat_index_free(semantic_vector_indexing_system* sys);
/* Index publication. Builds need at least ORVE_MIN_INDEX_ROWS (1000) rows, every row with a
 * vector, and the flat store in place; they publish only if no row arrived during the build. 0
 * when a new index was published, -1 otherwise (the previous index, if any, stays). nlist in
 * 1..rows; b1, b2 >= 1 with b1 * b2 <= rows. A seed of 0 acts as 1; the same rows and seed give
 * the same index. Probes: a search with use_ivf reads n_probe of the nlist buckets, with use_hivf
 * n_probe_l1 x n_probe_l2 leaves; more probes give better recall and slower searches. */
ORVE_API int semantic_vector_indexing_system_build_ivf(semantic_vector_indexing_system* sys,
                                                       uint32_t nlist, uint32_t seed);
ORVE_API int semantic_vector_indexing_system_build_ivf_level2(semantic_vector_indexing_system* sys,
                                                              uint32_t b1, uint32_t b2,
                                                              uint32_t seed);
/* Teardowns. Destroying the IVF also makes any published H-IVF stale for new searches. */
ORVE_API void semantic_vector_indexing_system_destroy_ivf(semantic_vector_indexing_system* sys);
ORVE_API void semantic_vector_indexing_system_destroy_hivf(semantic_vector_indexing_system* sys);
/* Search. Returns ORVE_OK (also when nothing was found), ORVE_FAILED, or ORVE_SEARCH_FLAT_DROPPED
 * (-7) when brute force is needed but the flat store was dropped. results must hold max_results
 * records (1000 with use_lsh). */
ORVE_API int semantic_vector_indexing_system_search_similar(semantic_vector_indexing_system* sys,
                                                            const vector_similarity_query* query,
                                                            vector_similarity_result* results,
                                                            uint32_t* count);

/* ======================================================================================== */
/* Batch search                                                                           */
/* ======================================================================================== */

/* Several 512-dimension queries in one call. 56 bytes. */
typedef struct orve512_batch_query {
    uint32_t n_queries;                /* at least 1 */
    uint32_t k;                        /* results per query, at least 1 */
    float min_similarity;
    uint32_t use_ivf;                  /* nonzero: use the published IVF */
    uint32_t n_probe;
    const float* queries;              /* n_queries x 512 floats */
    vector_similarity_result* results; /* n_queries x k records; query i at record k * i */
    uint32_t* counts;                  /* may be null; results per query */
    uint32_t rerank;                   /* nonzero: exact re-ranking from the sidecar */
    uint32_t rerank_factor;            /* 0 means 5 */
} orve512_batch_query;

ORVE_STATIC_ASSERT(sizeof(orve512_batch_query) == 56, batch_query_size);
ORVE_STATIC_ASSERT(offsetof(orve512_batch_query, queries) == 24, batch_query_queries);
ORVE_STATIC_ASSERT(offsetof(orve512_batch_query, results) == 32, batch_query_results);
ORVE_STATIC_ASSERT(offsetof(orve512_batch_query, counts) == 40, batch_query_counts);
ORVE_STATIC_ASSERT(offsetof(orve512_batch_query, rerank) == 48, batch_query_rerank);

ORVE_API uint64_t orve512_batch_query_sizeof(void); /* 56 */

/* Answers every query of the batch; 0 when all were answered, -1 otherwise. With use_ivf and a
 * current IVF, one pin serves the whole batch; otherwise each query goes through
 * semantic_vector_indexing_system_search_similar (IVF when asked, then brute force). A query
 * with fewer than k results has the rest of its block zeroed. */
ORVE_API int semantic_vector_indexing_system_search_similar_orve512_batch(
    semantic_vector_indexing_system* sys, const orve512_batch_query* batch);

/* ======================================================================================== */
/* System object: files (sidecar for restart and re-ranking, paged index)                 */
/* ======================================================================================== */

/* Replays the file's rows through ingestion, then keeps it open for appending: every row
 * ingested afterwards (add_embedding_orve512, load_vectors_f32) is appended to the file, in row
 * order. The file is opened first, with orve_vec_sidecar_open and its exclusive lock, held
 * until the object is destroyed or attached to another file: attaching a file that another
 * handle or attachment holds (in this process or another) returns -1 before a row is read,
 * and the file is neither truncated nor written. Any previous attachment is closed first.
 *
 * A failed append (disk full, I/O error) does not fail the ingestion: the row stays in memory.
 * It ends the attachment's use of the file: no later row is appended to it and searches no
 * longer re-rank from it, while the file keeps every whole row it had, each at its own
 * position (a restart brings back exactly those rows). A host detects this by the file's
 * whole-row count, (file size - 32) / 2056: when an ingestion call adds fewer rows to the file
 * than it ingested, an append failed, and the file receives no more rows until it is attached
 * again. Re-ranking reads each row's own vector from the file; rows the file does not hold
 * (ingested before the attach or without a vector) keep their int8 scores, and dead rows of
 * the file are skipped without shifting any other row. Searches read the rows through a
 * read-only mapping of the file: like a served paged file, an attached sidecar must never be
 * truncated or rewritten by anyone else while attached. */
ORVE_API int semantic_vector_indexing_system_open_sidecar(semantic_vector_indexing_system* sys,
                                                          const char* path);
/* Paged index attachment. build_ivf_paged writes the published H-IVF (with the node
 * identifiers of its rows) to path, attaches the file, and frees the H-IVF's in-memory rows;
 * open_ivf_paged attaches an existing file. Searches that ask for the H-IVF use an attached file
 * first. The previous file is closed once no search uses it. 0, or -1 (nothing changes). Only
 * an H-IVF whose b1 and b2 are at most ORVE_PAGED_MAX_BRANCHING can be paged; any other is
 * refused before a file is touched. An attached file is replaced only by renaming a new file
 * over its path, never rewritten or truncated in place (see orve_ivf_paged_build). */
ORVE_API int semantic_vector_indexing_system_build_ivf_paged(semantic_vector_indexing_system* sys,
                                                             const char* path);
ORVE_API int semantic_vector_indexing_system_open_ivf_paged(semantic_vector_indexing_system* sys,
                                                            const char* path);
/* Memory controls of the attached file; no effect without one. */
ORVE_API void semantic_vector_indexing_system_drop_ivf_paged_cache(
    semantic_vector_indexing_system* sys);
ORVE_API void semantic_vector_indexing_system_set_paged_low_memory(
    semantic_vector_indexing_system* sys, uint32_t on);

/* ######################################################################################## */
/*
 * For tools, tests and hosts that build or inspect indexes themselves.
 *
 * A host that goes through the system object above needs nothing below. These are the
 * module-level builders and readers the object uses, exported for the orve tool, the
 * benchmarks and tests. Functions named _unlocked expect the caller to hold the object's lock;
 * the kernels described as for checking exist so tests can compare them with the fast ones.
 */
/* ######################################################################################## */

/* ======================================================================================== */
/* System object: calls for tools that manage its lifetime themselves                     */
/* ======================================================================================== */

/* Drop the object's reference to the published IVF / H-IVF; the caller holds the object's
 * lock (these take none). For tools that manage the object's lifetime themselves. */
ORVE_API void orve_ivf_ptr_free_unlocked(semantic_vector_indexing_system* sys);
ORVE_API void orve_hivf_ptr_free_unlocked(semantic_vector_indexing_system* sys);
/* Frees the five snapshot buffers of a build; null ones are ignored. */
ORVE_API void orve_ivf_snapshot_buffers_free(float* floats, int8_t* codes, float* scales,
                                             float* norms, uint8_t* valid);

/* ======================================================================================== */
/* IVF and H-IVF indexes                                                                  */
/* ======================================================================================== */

/* An inverted-file index over 512-code int8 rows, grouped into buckets around centroids. The
 * rows of bucket b are the positions bucket_offsets[b] .. bucket_offsets[b] + bucket_sizes[b]
 * - 1 of codes, row_scales, row_norms and row_ids, in ascending input-row order; buckets
 * follow one another in ascending order. codes and centroid_codes are 64-byte aligned. The
 * record belongs to the caller, the nine arrays to the index; an all-zero record is the empty
 * index. Read-only once built. 80 bytes. */
typedef struct orve_ivf_index {
    uint32_t n_rows;          /* rows indexed */
    uint32_t n_buckets;       /* buckets (centroids) */
    int8_t* codes;            /* n_rows x 512, compacted by bucket */
    float* row_scales;        /* n_rows */
    float* row_norms;         /* n_rows: L2 norm of the float row before quantisation */
    int8_t* centroid_codes;   /* n_buckets x 512 */
    float* centroid_scales;   /* n_buckets */
    float* centroid_norms;    /* n_buckets: L2 norm of the float centroid */
    uint32_t* bucket_offsets; /* n_buckets: position of each bucket's first row */
    uint32_t* bucket_sizes;   /* n_buckets: rows per bucket, may be 0 */
    uint32_t* row_ids;        /* n_rows: input row index of each position */
} orve_ivf_index;

ORVE_STATIC_ASSERT(sizeof(orve_ivf_index) == 80, ivf_index_size);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_index, n_buckets) == 4, ivf_index_n_buckets);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_index, codes) == 8, ivf_index_codes);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_index, row_scales) == 16, ivf_index_row_scales);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_index, row_norms) == 24, ivf_index_row_norms);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_index, centroid_codes) == 32, ivf_index_centroid_codes);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_index, centroid_scales) == 40, ivf_index_centroid_scales);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_index, centroid_norms) == 48, ivf_index_centroid_norms);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_index, bucket_offsets) == 56, ivf_index_bucket_offsets);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_index, bucket_sizes) == 64, ivf_index_bucket_sizes);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_index, row_ids) == 72, ivf_index_row_ids);

/* A two-level inverted file: b1 level-1 buckets, each holding an ordinary IVF (its leaves) over
 * the rows of that bucket with min(rows, b2) buckets, or an all-zero entry when the bucket got
 * no rows. Leaf row_ids are global input-row indexes. The record belongs to the caller, every
 * array to the H-IVF; an all-zero record is the empty H-IVF. The leaf indexes keep their codes in one
 * block, one after the other, so a leaf index is never freed on its own: orve_hivf_index_destroy
 * frees them all. 40 bytes. */
typedef struct orve_hivf_index {
    uint32_t b1;                /* level-1 buckets */
    uint32_t b2;                /* leaves wanted per level-1 bucket (an upper bound) */
    int8_t* l1_centroid_codes;  /* b1 x 512, 16-byte aligned */
    float* l1_centroid_scales;  /* b1 */
    float* l1_centroid_norms;   /* b1 */
    orve_ivf_index* l2_indexes; /* b1 leaf indexes */
} orve_hivf_index;

ORVE_STATIC_ASSERT(sizeof(orve_hivf_index) == 40, hivf_index_size);
ORVE_STATIC_ASSERT(offsetof(orve_hivf_index, b2) == 4, hivf_index_b2);
ORVE_STATIC_ASSERT(offsetof(orve_hivf_index, l1_centroid_codes) == 8, hivf_index_l1_codes);
ORVE_STATIC_ASSERT(offsetof(orve_hivf_index, l1_centroid_scales) == 16, hivf_index_l1_scales);
ORVE_STATIC_ASSERT(offsetof(orve_hivf_index, l1_centroid_norms) == 24, hivf_index_l1_norms);
ORVE_STATIC_ASSERT(offsetof(orve_hivf_index, l2_indexes) == 32, hivf_index_l2_indexes);

/* Frees the index's arrays and zeroes the record (which stays the caller's). Null is ignored;
 * an all-zero record and a second call are harmless. */
ORVE_API void orve_ivf_index_destroy(orve_ivf_index* index);

/* Trains n_buckets centroids over rows (n x 512 floats) by spherical k-means (k-means++
 * seeding, 25 rounds, randomness from rand_r on a state started at seed, 0 acting as 1) and
 * fills out with the rows' codes (n x 512), scales and norms (n each) compacted by bucket.
 * row_flags is not read and may be null. 0, or -1: on bad arguments (a null pointer, n = 0,
 * n_buckets = 0 or above n) and on scratch allocation failure out is untouched; when the final
 * compaction fails out is left all zero. Deterministic for a given input and seed. */
ORVE_API int orve_ivf_build_kmeans_centroids(const float* rows, uint32_t n, uint32_t n_buckets,
                                             uint32_t seed, const int8_t* codes,
                                             const float* scales, const float* norms,
                                             const uint8_t* row_flags, orve_ivf_index* out);

/* As orve_ivf_build_kmeans_centroids, but the centroids are n_buckets distinct rows drawn at
 * random (unnormalised, no iterations) and each row goes to its nearest centroid. */
ORVE_API int orve_ivf_build_random_centroids(const float* rows, uint32_t n, uint32_t n_buckets,
                                             uint32_t seed, const int8_t* codes,
                                             const float* scales, const float* norms,
                                             const uint8_t* row_flags, orve_ivf_index* out);

/* Writes to out_buckets the min(n_probe, n_buckets) buckets whose centroids have the highest
 * int8 cosine with query (512 floats), best first, equal scores in ascending bucket order.
 * 0, or -1 (nothing written) for a null pointer, an index without buckets, n_probe = 0 or an
 * allocation failure. */
ORVE_API int orve_ivf_route_top_buckets(const orve_ivf_index* index, const float* query,
                                        uint32_t n_probe, uint32_t* out_buckets);

/* Builds a two-level index by int8 k-means on both levels directly over codes (n x 512) with
 * their scales and norms: level 1 from seed (0 acts as 1), the leaves of level-1 bucket i from
 * seed + 1 + i. Needs 1 <= b1 <= n and 1 <= b2 <= n; -1 with out untouched otherwise. Any later
 * failure leaves out all zero and returns -1. */
ORVE_API int orve_hivf_build_i8(const int8_t* codes, const float* scales, const float* norms,
                                uint32_t n, uint32_t b1, uint32_t b2, uint32_t seed,
                                orve_hivf_index* out);

/* As orve_hivf_build_i8, but both levels are trained by the float k-means over rows (n x 512
 * floats describing the same vectors as codes). row_flags is not read and may be null. */
ORVE_API int orve_hivf_build(const float* rows, uint32_t n, uint32_t b1, uint32_t b2,
                             uint32_t seed, const int8_t* codes, const float* scales,
                             const float* norms, const uint8_t* row_flags, orve_hivf_index* out);

/* Frees every array of the H-IVF and of its leaf indexes and zeroes the record (which stays
 * the caller's). Null is ignored; an all-zero record and a second call are harmless. */
ORVE_API void orve_hivf_index_destroy(orve_hivf_index* index);

/* Chooses the leaves to scan for query (512 floats): the min(n_probe_l1, b1) best level-1
 * buckets, best first, and within each the min(n_probe_l2, its leaf count) best leaves, best
 * first; a level-1 bucket without rows contributes nothing. Pair t is (out_l1[t], out_l2[t]);
 * both arrays need room for min(n_probe_l1, b1) x min(n_probe_l2, b2) entries. 0 with
 * *out_count set, or -1 (count not written) for a null pointer, b1 or b2 of 0, or an
 * allocation failure. */
ORVE_API int orve_hivf_route_top_leaves(const orve_hivf_index* index, const float* query,
                                        uint32_t n_probe_l1, uint32_t n_probe_l2,
                                        uint32_t* out_l1, uint32_t* out_l2, uint32_t* out_count);

/* ======================================================================================== */
/* Paged index file                                                                       */
/* ======================================================================================== */

/* An H-IVF written to a ".ivfp" file that is memory-mapped and searched in place. All fields
 * are little-endian. A 72-byte header (the byte 0x00 then "ORVEVFP", version, dim 512, b1, b2,
 * n_rows, 44 zero bytes), then the index part: level-1 centroid codes and (scale, norm) pairs,
 * one 512-byte centroid, one 16-byte leaf-table entry and one 24-byte directory entry per leaf
 * slot (b1 x b2 slots), zero-filled up to a 4096-byte boundary; then each non-empty leaf's
 * rows, 64-byte aligned: codes, then scales, norms, row ids and node ids. Files of version 2
 * are written; version 1 (no node ids) is still read. */

/* Largest b1 and b2 that orve_ivf_paged_open accepts: a search keeps its per-query scratch in
 * fixed tables of this many entries and allocates nothing. */
#define ORVE_IVF_PAGED_MAX_B 64
/* The same limit, as the writer states it: only an H-IVF whose b1 and b2 are both at most
 * ORVE_PAGED_MAX_BRANCHING can be paged (orve_ivf_paged_build refuses any other with -1 before
 * touching a file). */
#define ORVE_PAGED_MAX_BRANCHING ORVE_IVF_PAGED_MAX_B

/* An open paged index. Every pointer points into the read-only shared mapping of the file;
 * nothing of the file is copied. Allocated by orve_ivf_paged_open, freed by
 * orve_ivf_paged_close; immutable in between except for low_memory. 88 bytes. */
typedef struct orve_ivf_paged_index {
    uint32_t b1;                       /* level-1 buckets, at most ORVE_IVF_PAGED_MAX_B */
    uint32_t b2;                       /* leaf slots per level-1 bucket, at most the same */
    uint32_t n_rows;                   /* rows in all leaves */
    uint32_t version;                  /* 1 or 2 */
    const int8_t* l1_codes;            /* b1 x 512 level-1 centroid codes */
    const float* l1_scales;            /* centroid i's scale at l1_scales[2 * i] */
    const float* l1_norms;             /* centroid i's norm at l1_norms[2 * i] */
    const int8_t* leaf_centroid_codes; /* b1 x b2 x 512 */
    const uint8_t* leaf_table;         /* b1 x b2 entries of 16 bytes */
    const uint8_t* leaf_dir;           /* b1 x b2 entries of 24 bytes */
    void* base;                        /* start of the mapping */
    uint64_t length;                   /* mapped length: the file size at open */
    int32_t fd;                        /* kept open while the mapping lives */
    uint32_t low_memory;               /* nonzero: probed leaves are advised cold afterwards */
} orve_ivf_paged_index;

ORVE_STATIC_ASSERT(sizeof(orve_ivf_paged_index) == 88, ivf_paged_index_size);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_paged_index, version) == 12, ivf_paged_version);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_paged_index, l1_codes) == 16, ivf_paged_l1_codes);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_paged_index, leaf_dir) == 56, ivf_paged_leaf_dir);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_paged_index, base) == 64, ivf_paged_base);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_paged_index, length) == 72, ivf_paged_length);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_paged_index, fd) == 80, ivf_paged_fd);
ORVE_STATIC_ASSERT(offsetof(orve_ivf_paged_index, low_memory) == 84, ivf_paged_low_memory);

/* The search's candidate record, 20 bytes: float score, uint32 node_id, uint32 cluster_id,
 * float node_score, uint32 row. */
struct bf_topk_entry;

/* Writes hivf to path (codes ORVE_PAGED_WRITE_*), replacing any file there atomically: the content
 * is written through a mapping of path + ".tmp", flushed, and renamed over path; a failure never
 * leaves a partial file under path and removes the temporary file. node_ids[k] is the node
 * identifier of global row k and must cover every row id the H-IVF holds. Prints one "[IVF_PAGED]
 * wrote" line on standard output. 0 on success; -1 for a null argument, b1 or b2 of 0, b1 or b2
 * above ORVE_PAGED_MAX_BRANCHING, an H-IVF whose arrays do not match its counts, or a path too
 * long for the temporary name (nothing touched); -2 when the temporary file cannot be created,
 * sized or mapped, or the rename fails (with a message on standard error), or when flushing it to
 * storage (msync, fdatasync) fails (no message); -3 when memory runs out. After any failure path
 * is as it was and the temporary file is gone. Concurrent builds to one path are serialised.
 *
 * A file that is attached (opened for searching) is trusted after open: it must be replaced only
 * by renaming a new file over it, as this function does, never rewritten, truncated or copied over
 * in place; the host would die of SIGBUS or SIGSEGV on its next search. */
ORVE_API int32_t orve_ivf_paged_build(const orve_hivf_index* hivf, const uint32_t* node_ids,
                                      const char* path);

/* Opens and maps path and checks it (codes ORVE_PAGED_OPEN_*). 0 with *out_handle set (and an
 * "opened" line on standard output); otherwise nothing stays open and a line goes to standard
 * error: -1 null argument (no line), -2 cannot open or map, -3 out of memory (no line), -4 bad
 * magic, -5 version neither 1 nor 2, -6 dim not 512, -7 too short, b1 or b2 of 0, or sections,
 * counts or leaf blocks that do not fit the file or ORVE_IVF_PAGED_MAX_B. */
ORVE_API int32_t orve_ivf_paged_open(const char* path, orve_ivf_paged_index** out_handle);

/* Probes the min(n_probe_l1, b1) best level-1 buckets and, in each, the min(n_probe_l2, b2)
 * best leaf slots (ties to the lower index), and offers every row scoring at least
 * min_similarity to the bounded min-heap candidates[0 .. budget) whose fill count is *found
 * (callers start it at 0). Candidates carry the row's global position in row, and 0 in
 * cluster_id and node_score. query_codes, query_scale and query_norm are the quantised query;
 * query_vector is not read. id_map gives node identifiers by row position for version-1 files
 * and must then cover every row id of the file; with a null id_map a version-1 file yields
 * nothing. Takes no lock and allocates nothing; any number may run on one handle at once.
 * -1 when handle, query_codes, candidates or found is null, else 0. */
ORVE_API int32_t orve_ivf_paged_search(const orve_ivf_paged_index* handle,
                                       const float* query_vector, uint32_t n_probe_l1,
                                       uint32_t n_probe_l2, const int8_t* query_codes,
                                       struct bf_topk_entry* candidates, uint32_t* found,
                                       uint32_t budget, const uint32_t* id_map, float query_scale,
                                       float query_norm, float min_similarity);

/* on nonzero: after a search has scanned a leaf, its pages are advised cold so that they are
 * reclaimed first. Results do not change. Safe while searches run; null is ignored. */
ORVE_API void orve_ivf_paged_set_low_memory(orve_ivf_paged_index* handle, uint32_t on);

/* Evicts the mapping's resident pages from the process; they are read from the file again
 * when next touched. Results do not change. Null is ignored. */
ORVE_API void orve_ivf_paged_drop_cache(orve_ivf_paged_index* handle);

/* Unmaps the file, closes its descriptor and frees the handle. No search may be running on
 * it. Null is ignored. */
ORVE_API void orve_ivf_paged_close(orve_ivf_paged_index* handle);

/* ======================================================================================== */
/* Vector sidecar file                                                                    */
/* ======================================================================================== */

/* An append-only file of exact float rows: a 32-byte header ("ORVEVECA", version 1, dimension
 * 512, row size 2056, 12 reserved bytes), then rows of 2056 bytes (u32 id, u8 live, 3 reserved
 * bytes, 512 float32), all little-endian. Row r starts at byte 32 + 2056 * r and is the r-th
 * row appended.
 *
 * An open handle: the read-write descriptor (negative: none) and a copy of the path it was
 * opened with, for reference only. Allocated by orve_vec_sidecar_open, freed by
 * orve_vec_sidecar_close. The handle has no lock: serialise appends on one handle; row reads
 * are positional and may run beside them. 4100 bytes. */
typedef struct orve_vec_sidecar {
    int32_t fd;
    char path[4096]; /* NUL-terminated; at most 4095 characters of the given path */
} orve_vec_sidecar;

ORVE_STATIC_ASSERT(sizeof(orve_vec_sidecar) == 4100, vec_sidecar_size);
ORVE_STATIC_ASSERT(offsetof(orve_vec_sidecar, path) == 4, vec_sidecar_path);

/* Called by orve_vec_sidecar_load for each live row, in file order. values (512 floats) is
 * valid only during the call. Return 0 to go on, anything else to stop the walk. */
typedef int32_t (*orve_vec_sidecar_row_cb)(uint32_t id, const float* values, void* user);

/* Opens path for appending, creating it (mode 0644) with a fresh header when it does not exist
 * and reinitialising it, rows discarded, when its header does not validate. A trailing partial
 * row (left by a crash during an append) is cut off, so every complete row keeps its number.
 * The handle holds an exclusive advisory lock, flock(LOCK_EX | LOCK_NB), on its own open file
 * description until close, taken before anything is read, cut or written: while one handle
 * holds it, opening the file again (from this process or another) returns -1 and leaves the
 * file untouched. 0 with *out_handle set, or -1 with nothing allocated and *out_handle
 * untouched (also for a path that is not a regular file); the file may already have been
 * created or reset then. */
ORVE_API int32_t orve_vec_sidecar_open(const char* path, orve_vec_sidecar** out_handle);

/* Appends one row (id nonzero, values 512 floats). 0 when the whole row was written, else -1;
 * a write that fails partway is undone back to the previous row boundary (when that cut fails
 * too, the next open drops the partial row). Not flushed to storage until close. */
ORVE_API int32_t orve_vec_sidecar_append(orve_vec_sidecar* handle, uint32_t id,
                                         const float* values);

/* Reads the 512 values of row `row` into out without moving the file position. 0 when all of
 * them were read; -1 otherwise, e.g. for a row beyond the end of the file. */
ORVE_API int32_t orve_vec_sidecar_read_row_floats(const orve_vec_sidecar* handle, uint32_t row,
                                                  float* out);

/* Walks the file at path from the start and hands every row whose live byte and id are nonzero
 * to callback. -1 when path or callback is null; the callback's nonzero value when it stopped
 * the walk; otherwise 0, also for a missing, unreadable or foreign file and after a trailing
 * partial row. Meant to run while no handle on the file is open. */
ORVE_API int32_t orve_vec_sidecar_load(const char* path, orve_vec_sidecar_row_cb callback,
                                       void* user);

/* Flushes the file to storage, closes it and frees the handle; null is ignored. */
ORVE_API void orve_vec_sidecar_close(orve_vec_sidecar* handle);

/* ======================================================================================== */
/* Int8 symmetric quantisation and quantised records                                      */
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
/* Int8 dot products and the 64-lane similarity dispatcher                                */
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
/* HRR fact encoder                                                                       */
/* ======================================================================================== */

/* Components of an HRR atom or fact vector. */
#define ORVE_HRR_DIM 512

/* Writes to out[0..511] the unit-length atom of the symbol `name` in the role `role` (the fact
 * encoder uses "entity" and "relation") within the family `seed`. The atom is a function of
 * (seed, role, name) alone, bit for bit the same in every process and on every machine, so no
 * table of atoms needs keeping. role and name are NUL-terminated and may be empty; none of the
 * pointers may be null. Stateless, allocation-free and safe to call from any number of threads. */
ORVE_API void orve_hrr_atom(uint64_t seed, const char* role, const char* name, float* out);

/* Writes to out[0..511] the unit-length vector of the fact (subject, relation, object): the
 * subject's entity atom, plus the relation atom shifted cyclically one place toward higher
 * indices, plus the object's entity atom shifted two places, normalised. Facts sharing symbols
 * in the same positions get correlated vectors; swapping distinct subject and object gives a
 * different vector. out is written only after the three atoms are complete. None of the
 * pointers may be null. Stateless, allocation-free and safe to call from any number of threads. */
ORVE_API void orve_hrr_encode(uint64_t seed, const char* subject_name, const char* relation_name,
                              const char* object_name, float* out);

/* ######################################################################################## */
/*
 * The legacy 128-d family: for hosts of the node-graph interface that came before the
 * 512-dimension int8 family. New hosts do not need it; a query with use_orve512 unset is
 * answered from here (see the first example at the top).
 */
/* ######################################################################################## */

/* ======================================================================================== */
/* System object: node-graph calls                                                        */
/* ======================================================================================== */

/* A node without a vector, from a host node record (see orve_host_node). */
ORVE_API int semantic_vector_indexing_system_add_node(semantic_vector_indexing_system* sys,
                                                      const void* host_node);
ORVE_API int semantic_vector_indexing_system_rebuild_clustering(
    semantic_vector_indexing_system* sys);
ORVE_API int semantic_vector_indexing_system_update_embeddings(
    semantic_vector_indexing_system* sys);

/* ======================================================================================== */
/* Float helpers on 128-float vectors, result sort, random helpers                        */
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
/* Node records                                                                           */
/* ======================================================================================== */

/* One row of the system's node table; row r of the table is row r of the flat int8 store.
 * A cleared record is all zero with a null quantized pointer. 40 bytes. */
typedef struct indexed_node {
    uint32_t node_id;    /* identifier reported in results */
    uint32_t cluster_id; /* cluster tag matched by cluster_filter; ingestion leaves it 0 */
    float score;         /* reported as node_score; ingestion leaves it 0 */
    uint32_t active;     /* 1 once ingested */
    int64_t timestamp;   /* seconds since the epoch */
    float weight;        /* 1.0, or the host node's weight */
    uint8_t flags;       /* 0 */
    orve_quantized_vector_record* quantized; /* owned by the node when set; normally null */
} indexed_node;

ORVE_STATIC_ASSERT(sizeof(indexed_node) == 40, indexed_node_size);
ORVE_STATIC_ASSERT(offsetof(indexed_node, cluster_id) == 4, indexed_node_cluster_id);
ORVE_STATIC_ASSERT(offsetof(indexed_node, score) == 8, indexed_node_score);
ORVE_STATIC_ASSERT(offsetof(indexed_node, active) == 12, indexed_node_active);
ORVE_STATIC_ASSERT(offsetof(indexed_node, timestamp) == 16, indexed_node_timestamp);
ORVE_STATIC_ASSERT(offsetof(indexed_node, weight) == 24, indexed_node_weight);
ORVE_STATIC_ASSERT(offsetof(indexed_node, flags) == 28, indexed_node_flags);
ORVE_STATIC_ASSERT(offsetof(indexed_node, quantized) == 32, indexed_node_quantized);

/* ======================================================================================== */
/* LSH index                                                                              */
/* ======================================================================================== */

/* Largest number of hash functions an index can have: an entry keeps at most this many. */
#define ENHANCED_LSH_MAX_HASHES 8
/* Slots per bucket; an entry offered to a full bucket is simply not recorded there. */
#define ENHANCED_LSH_BUCKET_SLOTS 100
/* Most results one search writes, whatever the query asks for. */
#define ENHANCED_LSH_MAX_RESULTS 1000

/* One added vector: its hash under every hash function and the bucket each hash falls in. */
typedef struct lsh_entry {
    uint32_t node_id;                          /* id given to add, never 0 */
    uint64_t hashes[ENHANCED_LSH_MAX_HASHES];  /* first n_hashes used */
    uint32_t buckets[ENHANCED_LSH_MAX_HASHES]; /* hashes[h] % n_buckets */
    float confidence;                          /* 0.8 on add; not read */
    uint32_t n_hashes;                         /* index's n_hashes at add time; not read */
} lsh_entry;

ORVE_STATIC_ASSERT(sizeof(lsh_entry) == 112, lsh_entry_size);
ORVE_STATIC_ASSERT(offsetof(lsh_entry, hashes) == 8, lsh_entry_hashes);
ORVE_STATIC_ASSERT(offsetof(lsh_entry, buckets) == 72, lsh_entry_buckets);
ORVE_STATIC_ASSERT(offsetof(lsh_entry, confidence) == 104, lsh_entry_confidence);
ORVE_STATIC_ASSERT(offsetof(lsh_entry, n_hashes) == 108, lsh_entry_n_hashes);

/* Random-hyperplane LSH index over 128-float vectors. The caller owns the record; the index
 * owns the five arrays (create allocates them, destroy frees them and zeroes the record).
 * No lock of its own. */
typedef struct enhanced_lsh_index {
    lsh_entry* entries;      /* capacity entries, in insertion order */
    uint32_t* bucket_table;  /* n_buckets x 100 entry indexes; bucket b owns b*100 .. b*100+99 */
    uint32_t* bucket_counts; /* slots in use per bucket, at most 100 */
    uint32_t n_buckets;      /* 1 << (n_hashes / 2) */
    uint32_t n_hashes;       /* 1 .. 8 */
    uint32_t dim;            /* stride of the hyperplane table, at least 128 */
    uint32_t count;          /* entries added; index of the next entry */
    uint32_t capacity;       /* maximum number of entries */
    float* hyperplanes;      /* n_hashes x dim, components in [-1, 1] */
    float* offsets;          /* n_hashes, in [0, 1] */
} enhanced_lsh_index;

ORVE_STATIC_ASSERT(sizeof(enhanced_lsh_index) == 64, lsh_index_size);
ORVE_STATIC_ASSERT(offsetof(enhanced_lsh_index, bucket_table) == 8, lsh_index_bucket_table);
ORVE_STATIC_ASSERT(offsetof(enhanced_lsh_index, bucket_counts) == 16, lsh_index_counts);
ORVE_STATIC_ASSERT(offsetof(enhanced_lsh_index, n_buckets) == 24, lsh_index_n_buckets);
ORVE_STATIC_ASSERT(offsetof(enhanced_lsh_index, capacity) == 40, lsh_index_capacity);
ORVE_STATIC_ASSERT(offsetof(enhanced_lsh_index, hyperplanes) == 48, lsh_index_hyperplanes);
ORVE_STATIC_ASSERT(offsetof(enhanced_lsh_index, offsets) == 56, lsh_index_offsets);

/* Fills the record: zeroes it, allocates the arrays zero-filled, reseeds the process-wide
 * rand() with srand(time(NULL)) and draws the hyperplanes and offsets from it. The capacity is
 * ORVE_VECTOR_CAPACITY read as a base-10 integer (low 32 bits) when that is above 0, else
 * 1,100,000 (a different rule from the system object's). -1 when index is null, dim is 0 or
 * below 128, or n_hashes is 0 or above 8 (the record is then not touched), or when an
 * allocation fails (the record is then left zeroed). */
ORVE_API int enhanced_lsh_index_create(enhanced_lsh_index* index, uint32_t dim,
                                       uint32_t n_hashes);

/* Adds the first 128 floats of vector under node_id. -1 for a null argument, node_id 0 or a
 * full index; a full bucket is not an error. */
ORVE_API int enhanced_lsh_index_add_vector(enhanced_lsh_index* index, const float* vector,
                                           uint32_t node_id);

/* Reports every stored entry met in the query's buckets that shares at least one exact hash
 * value with the query, as similarity 1.0, distance 0.0, cluster 0, node_score 1.0 and ranks
 * 1, 2, ... Results are neither sorted nor de-duplicated. Writes up to 1000 records whatever
 * the caller wants, so results must have room for 1000. min_similarity is accepted for the
 * search front end's sake and ignored. -1 for a null pointer, else 0 (also with no hits). */
ORVE_API int enhanced_lsh_index_search_similar(const enhanced_lsh_index* index,
                                               const float* query, float min_similarity,
                                               vector_similarity_result* results,
                                               uint32_t* count);

/* Frees the arrays and zeroes the record (which stays the caller's); null is ignored. */
ORVE_API void enhanced_lsh_index_destroy(enhanced_lsh_index* index);

/* (offset + dot(vector, hyperplane)) * 10^6 in single precision, dot over exactly 128
 * components in index order, truncated toward zero to u64: negative or NaN gives 0, too large
 * gives UINT64_MAX. 0 when vector or hyperplane is null. */
ORVE_API uint64_t generate_lsh_hash(const float* vector, const float* hyperplane, float offset);

/* (1 - similarity) ^ n_hashes by powf; 0.0 when similarity is outside [0, 1]. */
ORVE_API float calculate_lsh_collision_probability(float similarity, uint32_t n_hashes);

/* ======================================================================================== */
/* Clustering index                                                                       */
/* ======================================================================================== */

/* One cluster: a 128-float centroid, a bounded member list and its quality metrics. The
 * members are node identifiers when placed by enhanced_clustering_index_add_vector and node
 * table positions when placed by a cluster pass. 560 bytes. */
typedef struct enhanced_cluster {
    uint32_t cluster_id; /* the record's own index */
    float centroid[128];
    uint32_t* members;               /* member_capacity entries, owned by the cluster */
    uint32_t member_count;           /* entries in use */
    uint32_t member_capacity;        /* 1000 */
    float avg_member_distance;       /* mean member distance to the centroid */
    float density;                   /* member_count / (avg_member_distance + 1) */
    float intra_distance;            /* same value as avg_member_distance */
    float nearest_centroid_distance; /* to the nearest other non-empty cluster; +inf if none */
    float quality;                   /* in [0, 1] */
} enhanced_cluster;

/* The legacy clustering index over the first 128 components of a vector. The caller owns the
 * record; create fills it and destroy frees what it holds and zeroes it. 48 bytes. */
typedef struct enhanced_clustering_index {
    enhanced_cluster* clusters; /* max_clusters records, or null */
    uint32_t n_active;          /* clusters in use: 0 after create, max_clusters after a pass */
    uint32_t max_clusters;
    uint32_t dim;            /* informational */
    float tolerance;         /* 0.001: convergence tolerance of the cluster pass */
    uint32_t max_iterations; /* 100 */
    float inertia;           /* total of the last stored iteration */
    float silhouette;        /* mean silhouette of the last cluster pass */
    uint8_t converged;       /* 1 when the last pass stopped on the tolerance */
    uint32_t iterations;     /* iterations run by the last pass */
} enhanced_clustering_index;

ORVE_STATIC_ASSERT(sizeof(enhanced_cluster) == 560, enhanced_cluster_size);
ORVE_STATIC_ASSERT(offsetof(enhanced_cluster, centroid) == 4, enhanced_cluster_centroid);
ORVE_STATIC_ASSERT(offsetof(enhanced_cluster, members) == 520, enhanced_cluster_members);
ORVE_STATIC_ASSERT(offsetof(enhanced_cluster, member_count) == 528, enhanced_cluster_count);
ORVE_STATIC_ASSERT(offsetof(enhanced_cluster, quality) == 552, enhanced_cluster_quality);
ORVE_STATIC_ASSERT(sizeof(enhanced_clustering_index) == 48, clustering_index_size);
ORVE_STATIC_ASSERT(offsetof(enhanced_clustering_index, n_active) == 8, clustering_n_active);
ORVE_STATIC_ASSERT(offsetof(enhanced_clustering_index, tolerance) == 20, clustering_tolerance);
ORVE_STATIC_ASSERT(offsetof(enhanced_clustering_index, converged) == 36, clustering_converged);
ORVE_STATIC_ASSERT(offsetof(enhanced_clustering_index, iterations) == 40, clustering_iterations);

/* 0, or -1 when index is null or max_clusters or dim is 0, or on allocation failure (the
 * record is then left zeroed or with a null cluster array). */
ORVE_API int32_t enhanced_clustering_index_create(enhanced_clustering_index* index,
                                                  uint32_t max_clusters, uint32_t dim);

/* Frees the clusters and zeroes the record (which stays the caller's); null is ignored. */
ORVE_API void enhanced_clustering_index_destroy(enhanced_clustering_index* index);

/* Appends node_id to the cluster whose centroid is nearest to the first 128 floats of vector
 * (cluster 0 while no cluster is active). 0, also when the cluster was full and the
 * identifier dropped; -1 when index or vector is null or the record holds no clusters. */
ORVE_API int32_t enhanced_clustering_index_add_vector(enhanced_clustering_index* index,
                                                      const float* vector, uint32_t node_id);

/* Lists the members of one active cluster (at most 1000) with similarity 1.0, distance 0.0
 * and the cluster's quality as node_score. -1 when a pointer is null; otherwise *count is set
 * to 0 first and -1 returned when cluster is not below n_active. */
ORVE_API int32_t enhanced_clustering_index_search_by_cluster(const enhanced_clustering_index* index,
                                                             uint32_t cluster,
                                                             vector_similarity_result* results,
                                                             uint32_t* count);

/* The cluster pass over a node table: reseeds rand from the time, activates every cluster,
 * iterates assignment and centroid updates until the total settles, then computes the metrics
 * and the silhouette. -1 when index or nodes is null, node_count is 0, the record holds no
 * clusters, or a step fails. */
ORVE_API int32_t enhanced_clustering_index_cluster(enhanced_clustering_index* index,
                                                   const indexed_node* nodes, uint32_t node_count);

/* Steps of the cluster pass. Each returns -1 when index or nodes is null, else 0; nodes is only
 * tested for null. Assignment also fails on a record that holds no clusters, having no cluster
 * 0 to fall back on; the other two have nothing to do there. */
ORVE_API int32_t assign_vectors_to_clusters(enhanced_clustering_index* index,
                                            const indexed_node* nodes, uint32_t node_count);
ORVE_API int32_t update_cluster_centroids(enhanced_clustering_index* index,
                                          const indexed_node* nodes, uint32_t node_count);
ORVE_API int32_t calculate_cluster_metrics(enhanced_clustering_index* index,
                                           const indexed_node* nodes, uint32_t node_count);

/* Mean silhouette over the nodes, each node's cluster read from its cluster_id; never NaN.
 * 0 when index or nodes is null or node_count is 0. */
ORVE_API float calculate_cluster_silhouette_score(const enhanced_clustering_index* index,
                                                  const indexed_node* nodes, uint32_t node_count);

/* ======================================================================================== */
/* Hashed text and node embeddings                                                        */
/* ======================================================================================== */

/* Dimension of the hashed embeddings (that of the legacy float indexes). */
#define ORVE_HASHED_EMBEDDING_DIM 128
/* Longest joined "name description" text generate_node_embedding embeds, NUL included. */
#define ORVE_NODE_TEXT_MAX 1024

/* The host's description of a graph node, as semantic_vector_indexing_system_add_node and
 * generate_node_embedding read it. The library reads it by byte position: the identifier at 0,
 * the two texts from 12 and 76, the weight at 616 and the timestamp at 624, and nothing else.
 * Each text is read as a C string starting at its position, so terminate it inside its own
 * field. 632 bytes. */
typedef struct orve_host_node {
    uint32_t node_id;      /* identifier */
    uint8_t host_data[8];  /* free for the host's own use; never read */
    char name[64];         /* NUL-terminated */
    char description[540]; /* NUL-terminated */
    double weight;         /* stored as a float by add_node */
    int64_t timestamp;     /* seconds since the epoch */
} orve_host_node;

ORVE_STATIC_ASSERT(sizeof(orve_host_node) == 632, host_node_size);
ORVE_STATIC_ASSERT(offsetof(orve_host_node, node_id) == 0, host_node_id);
ORVE_STATIC_ASSERT(offsetof(orve_host_node, name) == 12, host_node_name);
ORVE_STATIC_ASSERT(offsetof(orve_host_node, description) == 76, host_node_description);
ORVE_STATIC_ASSERT(offsetof(orve_host_node, weight) == 616, host_node_weight);
ORVE_STATIC_ASSERT(offsetof(orve_host_node, timestamp) == 624, host_node_timestamp);

/* Deterministic unit-length 128-float embedding of a NUL-terminated text: its 32-bit FNV-1a
 * hash spread over the components, plus its first 128 bytes, normalised. 0, or -1 (output not
 * touched) when text or output is null or the text is empty. */
ORVE_API int generate_semantic_embedding(const char* text, float* output);

/* generate_semantic_embedding of "<name> <description>", cut to 1023 bytes. -1 when node or
 * output is null; two empty texts still embed the single blank " ". */
ORVE_API int generate_node_embedding(const orve_host_node* node, float* output);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* SEMANTIC_VECTOR_INDEXING_H */
