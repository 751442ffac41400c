// Exact re-ranking: the int8 scores chose the candidates; the sidecar's float rows decide their
// order.
#include <cmath>
#include <cstdlib>

#include "search/topk.h"

void rerank_from_sidecar(bf_topk_entry* candidates, uint32_t count, const float* query,
                         orve_vec_sidecar* sidecar) {
    if (query == nullptr || sidecar == nullptr) return;
    float row[ORVE512_DIM];
    for (uint32_t c = 0; c < count; ++c) {
        // A row that cannot be read keeps its int8 score and still takes part in the order.
        if (orve_vec_sidecar_read_row_floats(sidecar, candidates[c].row, row) != 0) continue;
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
