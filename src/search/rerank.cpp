// Exact re-ranking: the int8 scores chose the candidates; the sidecar's float rows decide their
// order. Each candidate is scored against its own row of the file, found through the object's
// row-to-file table, never against whatever happens to sit at the candidate's row number.
//
// Rows come from the attachment's read-only mapping, so a query makes no system call per
// candidate; a positional read serves only when the system refused the mapping.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "core/sidecar_attachment.h"
#include "search/topk.h"
#include "sidecar/sidecar_format.h"

namespace {

// Candidates scored side by side: each lane keeps its own sums in the one-candidate order, so
// the scores are bit for bit those of scoring one candidate at a time (lane-wise products and
// sums are the same IEEE operations, and nothing is fused), while the independent sums keep
// the processor busy instead of waiting on one chain of additions.
constexpr uint32_t kLanes = 8;
typedef float lanes_f32 __attribute__((vector_size(kLanes * sizeof(float))));
typedef double lanes_f64 __attribute__((vector_size(kLanes * sizeof(double))));

// The rows of one group, value by value: row l's value i at [i][l] (16 KB).
struct lane_rows {
    lanes_f32 v[ORVE512_DIM];
};

// Row `at`'s values into lane l; false when the file cannot give them back.
bool fetch_row(const orve::sidecar_attachment* a, uint32_t at, lane_rows& rows, uint32_t l) {
    const uint8_t* bytes = orve::sidecar::mapped_values(a->mapped, at);
    float read[ORVE512_DIM];
    if (bytes == nullptr) {
        if (orve_vec_sidecar_read_row_floats(&a->file, at, read) != 0) return false;
        for (int i = 0; i < ORVE512_DIM; ++i) rows.v[i][l] = read[i];
        return true;
    }
    for (int i = 0; i < ORVE512_DIM; ++i) rows.v[i][l] = orve::sidecar::load_f32(bytes + 4 * i);
    return true;
}

// Exact cosine of the query against each filled lane, written into those candidates. qq is the
// query's sum of squares, taken in the same order the one-candidate formula takes it.
void score_lanes(const float* query, double qq, const lane_rows& rows, const uint32_t* which,
                 uint32_t lanes, bf_topk_entry* candidates) {
    lanes_f64 qr_sum = {}, rr_sum = {};
    for (int i = 0; i < ORVE512_DIM; ++i) {
        const double q = query[i];
        const lanes_f64 r = __builtin_convertvector(rows.v[i], lanes_f64);
        qr_sum += q * r;
        rr_sum += r * r;
    }
    // Copied out once, so that the sums above stay in registers.
    double qr[kLanes], rr[kLanes];
    std::memcpy(qr, &qr_sum, sizeof qr);
    std::memcpy(rr, &rr_sum, sizeof rr);
    for (uint32_t l = 0; l < lanes; ++l) {
        if (qq > 0.0 && rr[l] > 0.0) {
            candidates[which[l]].score =
                static_cast<float>(qr[l] / (std::sqrt(qq) * std::sqrt(rr[l])));
        }
    }
}

}  // namespace

void rerank_from_sidecar(bf_topk_entry* candidates, uint32_t count, const float* query,
                         const semantic_vector_indexing_system* sys) {
    if (query == nullptr || !orve::sidecar_rerank_ready(sys)) return;
    const orve::sidecar_attachment* a = orve::attachment_of(sys->sidecar);
    double qq = 0.0;
    for (int i = 0; i < ORVE512_DIM; ++i) {
        const double q = query[i];
        qq += q * q;
    }
    lane_rows rows;
    uint32_t which[kLanes];
    uint32_t lanes = 0;
    for (uint32_t c = 0; c < count; ++c) {
        // A row the file does not hold, or cannot give back, keeps its int8 score and still
        // takes part in the order.
        const uint32_t at = orve::sidecar_file_row_of(sys, candidates[c].row);
        if (at == orve::kNoFileRow || !fetch_row(a, at, rows, lanes)) continue;
        which[lanes++] = c;
        if (lanes == kLanes) {
            score_lanes(query, qq, rows, which, lanes, candidates);
            lanes = 0;
        }
    }
    if (lanes != 0) {
        // The unused lanes are summed too (the loop has a fixed width); zeros keep them defined.
        for (uint32_t l = lanes; l < kLanes; ++l) {
            for (int i = 0; i < ORVE512_DIM; ++i) rows.v[i][l] = 0.0f;
        }
        score_lanes(query, qq, rows, which, lanes, candidates);
    }
    std::qsort(candidates, count, sizeof(bf_topk_entry), cmp_bf_topk_desc);
}
