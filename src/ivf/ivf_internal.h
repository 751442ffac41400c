// Module-internal helpers of the IVF and H-IVF indexes, shared between the builders, the
// routing functions and the code that publishes and searches the indexes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "semantic_vector_indexing.h"

// A row waiting to be placed by the compaction: its bucket and its input row index.
struct ivf_route_pair {
    uint32_t bucket;
    uint32_t row;
};
static_assert(sizeof(ivf_route_pair) == 8);

// A centroid (or leaf) with its score for one query.
struct ivf_scored_pair {
    float score;
    uint32_t index;
};
static_assert(sizeof(ivf_scored_pair) == 8);

// qsort comparator over ivf_route_pair: bucket ascending, then row ascending (both unsigned).
int cmp_route(const void* a, const void* b);

// qsort comparator over ivf_scored_pair that puts the best pair first: score descending;
// equal scores, and any comparison involving NaN, fall back to the lower index first.
int cmp_scored_desc(const void* a, const void* b);

// Scores the query code against `count` consecutive centroid codes into pairs[0 .. count) and
// moves the best `best` of them, in cmp_scored_desc order, to the front. The rest of the array
// is left in no particular order.
void score_and_select(const int8_t* qcode, float qscale, float qnorm, const int8_t* codes,
                      const float* scales, const float* norms, uint32_t count, uint32_t best,
                      ivf_scored_pair* pairs);

// score_and_select for kMultiQueries queries at once, each centroid code loaded once for all of
// them: query j's pairs go to pairs[j], exactly as score_and_select would leave them.
void score_and_select_multi(const int8_t* const* qcodes, const float* qscales, const float* qnorms,
                            const int8_t* codes, const float* scales, const float* norms,
                            uint32_t count, uint32_t best, ivf_scored_pair* const* pairs);

// Builds `out` from rows that already have a bucket each: rows are copied bucket by bucket in
// ascending input order and the float centroids (n_buckets x 512) are quantised. Every value of
// `assignment` must be below n_buckets; the caller checks its inputs. With `codes_into` (n x 512,
// 64-byte aligned, the caller's) the compacted rows go there and `out->codes` points at it
// without owning it; otherwise the index allocates its own. 0, or -1 with `out` all zero.
int ivf_finish_index(uint32_t n, uint32_t n_buckets, const uint32_t* assignment,
                     const float* centroids, const int8_t* codes, const float* scales,
                     const float* norms, orve_ivf_index* out, int8_t* codes_into = nullptr);

// Frees the nine arrays of a non-null index (null arrays are skipped) and zeroes the record.
namespace orve {
void free_ivf_index(orve_ivf_index* index);
}  // namespace orve

// Squared Euclidean distance of two 512-float rows, accumulated with fused multiply-adds in 16
// partial sums (lane j of every 16-lane block into sum j) and combined in a fixed tree, so the
// result is the same bit for bit whichever kernel computes it.
float l2sq_512(const float* a, const float* b);

// Exact squared Euclidean distance of two 512-byte code rows.
int32_t l2sq_512_i8(const int8_t* a, const int8_t* b);

// Scales a 512-float row to unit length (sum of squares in double); rows whose sum of squares
// is at most 1e-30 are left as they are.
void l2_normalize_inplace(float* row);

// k-means++ seeding over n float rows: k row indexes into out. The first is uniform, each next
// one weighted by the squared distance to the nearest row picked so far. Draws from *state with
// rand_r. 0, or -1 when k = 0, k > n, rows or out is null, or the scratch allocation fails.
int pick_kmeans_pp_indices(const float* rows, uint32_t n, uint32_t k, unsigned int* state,
                           uint32_t* out);

// The same over int8 code rows, with distances between the raw codes.
int pick_kmeans_pp_indices_i8(const int8_t* codes, uint32_t n, uint32_t k, unsigned int* state,
                              uint32_t* out);

namespace orve {

// Blocks of code rows start on a cache line so that every 512-byte row does.
inline constexpr std::size_t kRowAlignment = 64;

// Rounds of assignment and update in every k-means; there is no early stop.
constexpr int kKmeansRounds = 25;

// The training's random state for a caller's seed: 0 acts as 1.
inline unsigned int kmeans_seed_state(uint32_t seed) {
    return seed == 0 ? 1u : seed;
}

// rand_r(state) mod n, the remainder taken on signed 32-bit integers.
uint32_t kmeans_rand_index(unsigned int* state, uint32_t n);

// The k-means++ draw of the next seed: row i with probability proportional to d[i] (summed in
// double, in index order), or a uniform row when every distance is (near) zero.
uint32_t kmeans_pp_draw(const float* d, uint32_t n, unsigned int* state);

// The factor l2_normalize_inplace scales a row by, or -1 when it leaves the row as it is.
float unit_length_factor(const float* row);

// Float row value i of a code row: code x (1 / scale), computed in float; 0 when scale <= 0.
void dequantize_row(const int8_t* code, float scale, float* out);

// Spherical k-means over n float rows: rows scaled to unit length as they are read (no copy),
// k-means++ seeding, 25 rounds, final assignment. Fills centroids (k x 512, caller's) and
// assignment (n, caller's). 0, or -1 when its scratch cannot be allocated or the seeding fails.
// Requires 1 <= k <= n.
int kmeans_f32_train(const float* rows, uint32_t n, uint32_t k, uint32_t seed, float* centroids,
                     uint32_t* assignment);

// The same, choosing whether the int8 screen may be used. Both choices give identical results;
// the plain full scans exist as the reference the screened training is checked against.
int kmeans_f32_train_with(const float* rows, uint32_t n, uint32_t k, uint32_t seed,
                          float* centroids, uint32_t* assignment, bool use_screen);

// The same training over the rows the codes dequantise to (code x (1 / scale), 0 when scale <= 0:
// the object's dequantised cache), made as they are read, so no float copy of the rows exists.
// Gives what kmeans_f32_train gives on those float rows.
int kmeans_codes_train(const int8_t* codes, const float* scales, uint32_t n, uint32_t k,
                       uint32_t seed, float* centroids, uint32_t* assignment);

// The IVF build of orve_ivf_build_kmeans_centroids over those dequantised rows, with the same
// requirements (1 <= n_buckets <= n, checked by the caller): the same index, without the floats.
int ivf_build_from_codes(const int8_t* codes, const float* scales, const float* norms, uint32_t n,
                         uint32_t n_buckets, uint32_t seed, orve_ivf_index* out);

// orve_ivf_build_kmeans_centroids with its arguments checked by the caller, and the compacted
// rows written to `codes_into` when it is not null (as ivf_finish_index).
int ivf_build_f32(const float* rows, uint32_t n, uint32_t k, uint32_t seed, const int8_t* codes,
                  const float* scales, const float* norms, orve_ivf_index* out, int8_t* codes_into);

// Spherical k-means directly over m int8 codes (raw integer dot products for the assignment,
// dequantised codes for the updates). Fills the k float centroids (k x 512), their k int8 codes
// (k x 512) and the assignment (m). 0, or -1 when scratch cannot be allocated or the seeding
// fails. Requires 1 <= k <= m.
int kmeans_i8_train(const int8_t* codes, const float* scales, uint32_t m, uint32_t k, uint32_t seed,
                    float* centroids, int8_t* centroid_codes, uint32_t* assignment);

// orve_hivf_build_i8 over rows the caller gives up, with the same result codes and the same
// index bit for bit. The rows are sorted into level-1 bucket order where they are instead of
// being copied, and the pages of each bucket's codes are released once its leaf is built, so
// the build holds no second copy of the rows. The arrays' contents are unspecified afterwards
// (their owner still frees them).
int hivf_build_i8_in_place(int8_t* codes, float* scales, float* norms, uint32_t n, uint32_t b1,
                           uint32_t b2, uint32_t seed, orve_hivf_index* out);

}  // namespace orve
