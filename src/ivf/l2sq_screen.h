// An int8 screen in front of the float squared distances of the k-means training.
//
// The training must choose centroids exactly as l2sq_512 ranks them, bit for bit, but computing
// l2sq_512 for every (row, centroid) pair costs n x k x 512 float operations per round, which
// is far too slow for hundreds of thousands of rows and over a thousand centroids. The screen
// keeps an int8 sketch of every row and centroid (codes, scale and a few norms). One exact
// integer dot product of two sketches gives an interval that provably contains the float value
// l2sq_512 would return for the pair; pairs whose interval cannot beat the best candidate are
// never computed in float. Decisions are therefore identical to the full scans, only cheaper.
//
// Why the interval holds. Write x = xh + ex where xh = codes / scale is the dequantised sketch
// and ex the quantisation error (likewise c = ch + ec). Then
//     x.c = xh.ch + xh.ec + ex.c,   so  |x.c - xh.ch| <= |xh| |ec| + |ex| |c|   (Cauchy-Schwarz)
// and the exact squared distance D = |x|^2 + |c|^2 - 2 x.c lies within 2 (|xh| |ec| + |ex| |c|)
// of A = |x|^2 + |c|^2 - 2 dot / (scale_x scale_c). The float l2sq_512 rounds every one of its
// terms at most 38 times (difference, 32 fused adds, 4 combining adds), all terms being
// non-negative, so it lies within a relative 38 x 2^-24 (about 2.3e-6) of D, plus at most
// ~1e-43 from underflow. The screen widens all of this by a relative 1e-4 of the magnitudes
// involved and an absolute 1e-20, far more than the float rounding of the bound arithmetic
// itself. Rows whose values are not finite or whose squared norm exceeds 1e20 are not screened
// (their pairs are always computed), so no bound overflows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "quant/screen_kernels.h"
#include "util/c_alloc.h"

namespace orve {

// Rows as the training reads them: a block of float rows, or int8 code rows with their scales
// (dequantised as they are read: code x w with w = 1 / scale, or 0 when scale <= 0, the
// products the object's dequantised cache holds),
// optionally with each row's unit_length_factor, applied as the row is read. Training this way
// needs no float copy of the rows, or no normalised one (2 KB a row each), and row x factor is
// the very product l2_normalize_inplace forms, so every row read has the same bits as a copy.
struct row_source {
    const float* rows = nullptr;
    const float* factor = nullptr;
    const int8_t* codes = nullptr;
    const float* scales = nullptr;
    row_source(const float* block, const float* factors = nullptr)  // NOLINT: plain rows convert
        : rows(block), factor(factors) {}
    row_source(const int8_t* code_block, const float* code_scales, const float* factors)
        : factor(factors), codes(code_block), scales(code_scales) {}
    bool empty() const { return rows == nullptr && codes == nullptr; }
    // Row i, either in place or made in `scratch` (512 floats).
    const float* get(uint32_t i, float* scratch) const {
        const float* x = rows + static_cast<std::size_t>(i) * 512;
        if (codes != nullptr) {
            const int8_t* c = codes + static_cast<std::size_t>(i) * 512;
            const float w = scales[i] > 0.0f ? 1.0f / scales[i] : 0.0f;
            for (std::size_t l = 0; l < 512; ++l) scratch[l] = static_cast<float>(c[l]) * w;
            x = scratch;
        }
        if (factor == nullptr || factor[i] < 0.0f) return x;
        scale_row(x, factor[i], scratch);
        return scratch;
    }
    // out = x * f element by element, four lanes at a time (each lane the same rounded product
    // as the scalar one; the compiler's -O2 loop would stay scalar because x may alias out).
    static void scale_row(const float* x, float f, float* out) {
        typedef float v4f __attribute__((vector_size(16)));
        const v4f fv = v4f{} + f;
        for (std::size_t l = 0; l < 512; l += 4) {
            v4f v;
            std::memcpy(&v, x + l, sizeof v);
            v *= fv;
            std::memcpy(out + l, &v, sizeof v);
        }
    }
    // sum[l] += row i's element l, the row read as get() reads it but never stored: each
    // element is the same rounded product, added as it is formed.
    void add_to(uint32_t i, float* __restrict sum) const {
        const bool scaled = factor != nullptr && factor[i] >= 0.0f;
        const float f = scaled ? factor[i] : 1.0f;
        if (codes != nullptr) {
            const int8_t* c = codes + static_cast<std::size_t>(i) * 512;
            const float w = scales[i] > 0.0f ? 1.0f / scales[i] : 0.0f;
            if (scaled) {
                for (std::size_t l = 0; l < 512; ++l) sum[l] += (static_cast<float>(c[l]) * w) * f;
            } else {
                for (std::size_t l = 0; l < 512; ++l) sum[l] += static_cast<float>(c[l]) * w;
            }
            return;
        }
        typedef float v4f __attribute__((vector_size(16)));
        const float* x = rows + static_cast<std::size_t>(i) * 512;
        const v4f fv = v4f{} + f;
        for (std::size_t l = 0; l < 512; l += 4) {
            v4f v, t;
            std::memcpy(&v, x + l, sizeof v);
            std::memcpy(&t, sum + l, sizeof t);
            t += scaled ? v * fv : v;
            std::memcpy(sum + l, &t, sizeof t);
        }
    }
};

// Int8 sketches of a block of float rows, with the norms the interval needs. Per-row values
// are in separate arrays padded to a multiple of 16 entries (and the codes to as many rows,
// zero-filled) so the screen kernels run over whole blocks.
struct row_sketches {
    uint32_t count = 0;
    uint32_t padded = 0;
    c_unique<int8_t[]> codes;       // padded x 512, 64-byte aligned
    c_unique<int32_t[]> code_sums;  // padded: sum of each code row
    c_unique<float[]> values;       // five arrays of `padded` floats, below
    float* norm2 = nullptr;         // |x|^2
    float* norm = nullptr;          // |x|
    float* hat_norm = nullptr;      // |xh|
    float* err_norm = nullptr;      // |x - xh|
    float* inv_scale = nullptr;     // 1 / scale_x, or 0 when the row quantised to zero
    c_unique<uint8_t[]> usable;     // count: 1 when the row may be screened
    bool all_usable = false;

    // Allocates room for `count` rows; false when memory is short.
    bool allocate(uint32_t count);
    // Sketches the `count` rows of a row-major block.
    void fill(row_source rows);
    const int8_t* code(uint32_t r) const { return codes.get() + static_cast<std::size_t>(r) * 512; }
    sketch_columns columns() const {
        return sketch_columns{norm2, norm, hat_norm, err_norm, inv_scale, padded};
    }
    sketch_point point(uint32_t r) const {
        return sketch_point{norm2[r], hat_norm[r], err_norm[r], inv_scale[r]};
    }
};

// Everything the screened training needs besides its own arrays: the rows' sketches, the
// centroids' sketches (re-made after every update), scratch, and the bounds one assignment
// leaves for the next.
//
// Carrying bounds between rounds. After assigning row i to centroid a, the screen keeps a
// lower bound L of the true distance from row i to every other centroid. When the centroids
// then move, each by at most its drift, the triangle inequality gives |x - c'| >= L - drift(c)
// for every c other than a. The next assignment computes the row's float distance to a again
// and needs to look at another centroid c only when L - drift(c) could be within reach of it;
// usually no centroid is (rows deep inside their cluster), or a handful are, and those are
// computed in float; only otherwise does the row go through the int8 screen again.
//
// Neighbouring centroids. A row whose bound did not survive usually still sits near its last
// centroid a, at a float distance fa. Any centroid c with |c - a| > 2 |x - a| is strictly
// farther from x than a (triangle inequality), so only the centroids near a need a float
// distance. Every assignment keeps, for each centroid, its kNeighbours nearest others in
// ascending order with a lower bound of their true distances, and a lower bound for all the
// rest; when all of a's listed neighbours might be within reach, the row is screened. The
// conversions between float distances and true distances use the same error budget as the
// screen, widened again, so the chosen centroid is always the one a full scan would choose.
struct l2sq_screen {
    row_sketches rows;
    row_sketches centroids;
    c_unique<int32_t[]> row_dots;     // rows.padded: one pick against every row
    c_unique<int32_t[]> tile_dots;    // 4 x centroids.padded: four rows against every centroid
    c_unique<float[]> lo;             // max(rows.padded, centroids.padded)
    c_unique<uint32_t[]> candidates;  // k
    c_unique<float[]> previous;       // k x 512: the centroids of the last assignment
    c_unique<double[]> drift;         // k: how far each centroid moved since then, at most
    c_unique<uint32_t[]> by_drift;    // k: centroid indexes, largest drift first
    c_unique<double[]> other_lower;   // n: lower bound of row i's true distance to every
                                      // centroid but last[i]; negative when unknown
    c_unique<uint32_t[]> last;        // n: the last assignment
    // Per centroid: its nearest others (kNeighbours each, nearest first) with lower bounds of
    // their true distances, and a lower bound of the distance to every centroid not listed.
    static constexpr uint32_t kNeighbours = 32;
    c_unique<uint32_t[]> near_index;  // k x kNeighbours
    c_unique<double[]> near_lower;    // k x kNeighbours
    c_unique<double[]> rest_lower;    // k
    c_unique<float[]> pair_dist;      // k: scratch, one centroid's float distances to all
    c_unique<uint32_t[]> pair_order;  // k: scratch
    bool have_neighbours = false;     // the lists describe the current centroids
    bool have_last = false;           // `last` holds an assignment (of any centroids)
    bool have_previous = false;       // `previous` holds centroids that were assigned with
    bool have_bounds = false;         // other_lower and last describe `previous`
    bool drift_valid = false;         // drift and by_drift describe the current centroids
    // How the rows of the assignments so far were decided (kept for tests and tuning).
    uint64_t rows_by_drift = 0, rows_by_neighbours = 0, rows_screened = 0, rows_scanned = 0;

    // Sketches n rows and makes room for k centroids. False when memory is short; the caller
    // then trains with full scans, which give the same result.
    bool init(row_source row_block, uint32_t n, uint32_t k);
    // Takes the centroids of the next assignment.
    void set_centroids(const float* centroid_block);
};

// Assigns each of n rows to the centroid with the smallest l2sq_512 (strictly smaller than the
// best so far, starting from the largest finite float, so equal distances keep the lowest
// centroid index). With a screen whose centroids are current, only candidates are computed.
void assign_nearest_l2sq(row_source rows, uint32_t n, const float* centroids, uint32_t k,
                         l2sq_screen* screen, uint32_t* assignment);

// pick_kmeans_pp_indices with an optional screen over the same rows (null: full scans).
int pick_kmeans_pp_indices_screened(row_source rows, uint32_t n, uint32_t k, unsigned int* state,
                                    uint32_t* out, l2sq_screen* screen);

}  // namespace orve
