// Exact re-ranking: the int8 scores chose the candidates; the sidecar's float rows decide their
// order. Each candidate is scored against its own row of the file, found through the object's
// row-to-file table, never against whatever happens to sit at the candidate's row number.
#include <cmath>
#include <cstdlib>

#include "core/sidecar_attachment.h"
#include "search/topk.h"

void rerank_from_sidecar(bf_topk_entry* candidates, uint32_t count, const float* query,
                         const semantic_vector_indexing_system* sys) {
    if (query == nullptr || !orve::sidecar_rerank_ready(sys)) return;
    float row[ORVE512_DIM];
    for (uint32_t c = 0; c < count; ++c) {
        // A row the file does not hold, or cannot give back, keeps its int8 score and still
        // takes part in the order.
        const uint32_t at = orve::sidecar_file_row_of(sys, candidates[c].row);
        if (at == orve::kNoFileRow ||
            orve_vec_sidecar_read_row_floats(sys->sidecar, at, row) != 0) {
            continue;
        }
        double qq = 0.0, qr = 0.0, rr = 0.0;
        for (int i = 0; i < ORVE512_DIM; ++i) {
            const double q = query[i], r = row[i];
            qq += q * q;
            qr += q * r;
            rr += r * r;
        }
        if (qq > 0.0 && rr > 0.0) {
            candidates[c].score = static_cast<float>(qr / (std::sqrt(qq) * std::sqrt(rr)));
        }
    }
    std::qsort(candidates, count, sizeof(bf_topk_entry), cmp_bf_topk_desc);
}
