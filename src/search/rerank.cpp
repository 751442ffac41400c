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
// the scores are bit for bit those of scoring one candidate at a time, while the independent
// sums keep the processor busy instead of waiting on one chain of additions.
constexpr uint32_t kLanes = 4;

// Row `at`'s floats into out; false when the file cannot give them back.
bool fetch_row(const orve::sidecar_attachment* a, uint32_t at, float* out) {
    if (const uint8_t* v = orve::sidecar::mapped_values(a->mapped, at)) {
        orve::sidecar::decode_values(v, out);
        return true;
    }
    return orve_vec_sidecar_read_row_floats(&a->file, at, out) == 0;
}

// Exact cosine of the query against each filled lane, written into those candidates. qq is the
// query's sum of squares, taken in the same order the one-candidate formula takes it.
void score_lanes(const float* query, double qq, const float (&rows)[kLanes][ORVE512_DIM],
                 const uint32_t* which, uint32_t lanes, bf_topk_entry* candidates) {
    double qr[kLanes] = {}, rr[kLanes] = {};
    for (int i = 0; i < ORVE512_DIM; ++i) {
        const double q = query[i];
        for (uint32_t l = 0; l < kLanes; ++l) {
            const double r = rows[l][i];
            qr[l] += q * r;
            rr[l] += r * r;
        }
    }
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
    float rows[kLanes][ORVE512_DIM];
    uint32_t which[kLanes];
    uint32_t lanes = 0;
    for (uint32_t c = 0; c < count; ++c) {
        // A row the file does not hold, or cannot give back, keeps its int8 score and still
        // takes part in the order.
        const uint32_t at = orve::sidecar_file_row_of(sys, candidates[c].row);
        if (at == orve::kNoFileRow || !fetch_row(a, at, rows[lanes])) continue;
        which[lanes++] = c;
        if (lanes == kLanes) {
            score_lanes(query, qq, rows, which, lanes, candidates);
            lanes = 0;
        }
    }
    if (lanes != 0) {
        // The unused lanes are summed too (the loop has a fixed width); zeros keep them defined.
        std::memset(rows[lanes], 0, sizeof(float) * ORVE512_DIM * (kLanes - lanes));
        score_lanes(query, qq, rows, which, lanes, candidates);
    }
    std::qsort(candidates, count, sizeof(bf_topk_entry), cmp_bf_topk_desc);
}
