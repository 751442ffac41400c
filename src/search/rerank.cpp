// Exact re-ranking: the int8 scores chose the candidates; the sidecar's float rows decide their
// order. Each candidate is scored against its own row of the file, found through the object's
// row-to-file table, never against whatever happens to sit at the candidate's row number.
//
// Rows come from the attachment's read-only mapping, so a query makes no system call per
// candidate; a positional read serves only when the system refused the mapping.
#include <bit>
#include <cmath>
#include <cstring>

#include "core/sidecar_attachment.h"
#include "quant/kernel_table.h"
#include "search/topk.h"
#include "sidecar/sidecar_format.h"

namespace {

// Candidates are scored eight side by side by the kernel table's re-ranking sums, which keep
// each candidate's sums in the one-candidate order, so the scores are bit for bit those of
// scoring one candidate at a time.
constexpr uint32_t kLanes = orve::kRerankLanes;

// The row an unused lane reads: zeros keep its sums defined (the loop has a fixed width).
const float kZeroRow[ORVE512_DIM] = {};

// The group's rows, one pointer per lane to 512 floats in this machine's order: straight into
// the mapping where the file's little-endian values are that order, else into `own`, where a
// row read or decoded for the lane is kept.
struct lane_rows {
    const float* row[kLanes];
    float own[kLanes][ORVE512_DIM];
};

// Row `at`'s values into lane l; false when the file cannot give them back.
bool fetch_row(const orve::sidecar_attachment* a, uint32_t at, lane_rows& rows, uint32_t l) {
    const uint8_t* bytes = orve::sidecar::mapped_values(a->mapped, at);
    if (bytes == nullptr) {
        if (orve_vec_sidecar_read_row_floats(&a->file, at, rows.own[l]) != 0) return false;
        rows.row[l] = rows.own[l];
        return true;
    }
    if constexpr (std::endian::native == std::endian::little) {
        // The values sit 8 bytes into a row of 2056 bytes after a 32-byte header, so they are
        // always float-aligned in the page-aligned mapping.
        rows.row[l] = reinterpret_cast<const float*>(bytes);
    } else {
        for (int i = 0; i < ORVE512_DIM; ++i)
            rows.own[l][i] = orve::sidecar::load_f32(bytes + 4 * i);
        rows.row[l] = rows.own[l];
    }
    return true;
}

// Exact cosine of the query against each filled lane, written into those candidates. qq is the
// query's sum of squares, taken in the same order the one-candidate formula takes it.
void score_lanes(const float* query, double qq, const lane_rows& rows, const uint32_t* which,
                 uint32_t lanes, bf_topk_entry* candidates) {
    static_assert(ORVE512_DIM == 512);
    double qr[kLanes], rr[kLanes];
    orve::kernels().rerank_sums8(query, rows.row, qr, rr);
    for (uint32_t l = 0; l < lanes; ++l) {
        if (qq > 0.0 && rr[l] > 0.0) {
            candidates[which[l]].score =
                static_cast<float>(qr[l] / (std::sqrt(qq) * std::sqrt(rr[l])));
        }
    }
}

// Hints only: a prefetch changes no value read and never faults, even on a page not yet
// mapped in.
void prefetch_file_row(const semantic_vector_indexing_system* sys, uint32_t row) {
    if (row < sys->capacity) __builtin_prefetch(orve::attachment_of(sys->sidecar)->file_row + row);
}

void prefetch_values(const semantic_vector_indexing_system* sys, const orve::sidecar_attachment* a,
                     uint32_t row) {
    const uint32_t at = orve::sidecar_file_row_of(sys, row);
    if (at == orve::kNoFileRow) return;
    const uint8_t* bytes = orve::sidecar::mapped_values(a->mapped, at);
    if (bytes == nullptr) return;
    // Every cache line the values touch: they start at no particular offset within a line.
    for (uint32_t off = 0; off < orve::sidecar::kValueBytes; off += 64) {
        __builtin_prefetch(bytes + off);
    }
    __builtin_prefetch(bytes + orve::sidecar::kValueBytes - 1);
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
    for (uint32_t c = 0; c < count && c < 2 * kLanes; ++c) {
        prefetch_file_row(sys, candidates[c].row);
    }
    for (uint32_t c = 0; c < count && c < kLanes; ++c) prefetch_values(sys, a, candidates[c].row);
    lane_rows rows;
    uint32_t which[kLanes];
    uint32_t lanes = 0;
    for (uint32_t c = 0; c < count; ++c) {
        // The candidates' rows lie scattered over a file far larger than any cache, and reading
        // one row after the other would wait on memory row by row. The next group's rows are
        // asked for while this group is read, and their row-table entries one group earlier.
        if (c + 2 * kLanes < count) prefetch_file_row(sys, candidates[c + 2 * kLanes].row);
        if (c + kLanes < count) prefetch_values(sys, a, candidates[c + kLanes].row);
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
        for (uint32_t l = lanes; l < kLanes; ++l) rows.row[l] = kZeroRow;
        score_lanes(query, qq, rows, which, lanes, candidates);
    }
    sort_candidates_desc(candidates, count);
}
