// Routing a query to the IVF buckets whose centroids score best against it, on the same int8
// cosine scale as the rows a search then scans.
#include <algorithm>
#include <cstdlib>

#include "ivf/ivf_internal.h"
#include "ivf/quantised_routing.h"
#include "ivf/routing_query.h"
#include "quant/cosine.h"
#include "quant/kernel_table.h"
#include "util/c_alloc.h"

int cmp_scored_desc(const void* a, const void* b) {
    const auto* pa = static_cast<const ivf_scored_pair*>(a);
    const auto* pb = static_cast<const ivf_scored_pair*>(b);
    if (pa->score > pb->score) return -1;
    if (pa->score < pb->score) return 1;
    // Equal, or at least one NaN: the index decides, so the order is total and reproducible.
    if (pa->index < pb->index) return -1;
    if (pa->index > pb->index) return 1;
    return 0;
}

namespace {

// Cosines of dots[0 .. len) against centroids c0 .. c0 + len into pairs; true if any is NaN.
// Four centroids per division, the same float operations as the lone cosine, so the same bits.
bool score_block(const int32_t* dots, float qscale, float qnorm, const float* scales,
                 const float* norms, uint32_t c0, uint32_t len, ivf_scored_pair* pairs) {
    float scores[orve::kScanBlockRows];
    orve::cosine_from_dots(dots, qscale, scales + c0, qnorm, norms + c0, len, 0.0f, scores);
    bool any_nan = false;
    for (uint32_t j = 0; j < len; ++j) {
        any_nan |= scores[j] != scores[j];
        pairs[c0 + j] = ivf_scored_pair{scores[j], c0 + j};
    }
    return any_nan;
}

// Above this many wanted, a partial sort; at or below, insertion into the front.
constexpr uint32_t kInsertedMost = 32;

// Moves the best `best` scored pairs, in cmp_scored_desc order, to the front.
void select_best(ivf_scored_pair* pairs, uint32_t count, uint32_t best, bool any_nan) {
    if (any_nan) {
        // With a NaN score a partial selection's order would depend on its algorithm; the full
        // sort with a total comparator fixes the order whatever selection is used below.
        std::qsort(pairs, count, sizeof(ivf_scored_pair), cmp_scored_desc);
        return;
    }
    // Without NaN, score descending then index ascending is a strict total order, so the best
    // `best` pairs in order are exactly the first `best` of the full sort, whichever way they
    // are found.
    const auto before = [](const ivf_scored_pair& a, const ivf_scored_pair& b) {
        return a.score > b.score || (a.score == b.score && a.index < b.index);
    };
    if (best == 0) return;  // routing with no probes asked for: nothing to move
    if (best > kInsertedMost) {
        std::partial_sort(pairs, pairs + best, pairs + count, before);
        return;
    }
    // Few wanted (the usual probe counts): one pass keeps them in order at the front, most
    // pairs costing one comparison against the last kept. While the front fills, pair i is
    // written no further right than slot i, its own, so nothing unread is overwritten.
    uint32_t kept = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const ivf_scored_pair p = pairs[i];
        if (kept == best && !before(p, pairs[best - 1])) continue;
        uint32_t at = kept < best ? kept++ : best - 1;
        for (; at > 0 && before(p, pairs[at - 1]); --at) pairs[at] = pairs[at - 1];
        pairs[at] = p;
    }
}

}  // namespace

void score_and_select(const int8_t* qcode, float qscale, float qnorm, const int8_t* codes,
                      const float* scales, const float* norms, uint32_t count, uint32_t best,
                      ivf_scored_pair* pairs) {
    // Centroid codes are consecutive rows: score them with the many-rows kernel in blocks.
    constexpr uint32_t kBlock = orve::kScanBlockRows;
    int32_t dots[kBlock];
    const orve::dot512_many_fn many = orve::kernels().dot512_many;
    bool any_nan = false;
    for (uint32_t c0 = 0; c0 < count; c0 += kBlock) {
        const uint32_t len = count - c0 < kBlock ? count - c0 : kBlock;
        many(qcode, codes + static_cast<std::size_t>(c0) * orve::kCodeBytes, len, dots);
        any_nan |= score_block(dots, qscale, qnorm, scales, norms, c0, len, pairs);
    }
    select_best(pairs, count, best, any_nan);
}

void score_and_select_multi(const int8_t* const* qcodes, const float* qscales, const float* qnorms,
                            const int8_t* codes, const float* scales, const float* norms,
                            uint32_t count, uint32_t best, ivf_scored_pair* const* pairs) {
    constexpr uint32_t kBlock = orve::kScanBlockRows;
    constexpr uint32_t kQ = orve::kMultiQueries;
    int32_t dots[kQ * kBlock];
    const orve::dot512_multi_fn multi = orve::kernels().dot512_multi;
    bool any_nan[kQ] = {};
    for (uint32_t c0 = 0; c0 < count; c0 += kBlock) {
        const uint32_t len = count - c0 < kBlock ? count - c0 : kBlock;
        multi(qcodes, codes + static_cast<std::size_t>(c0) * orve::kCodeBytes, len, dots, kBlock);
        for (uint32_t j = 0; j < kQ; ++j) {
            any_nan[j] |= score_block(dots + j * kBlock, qscales[j], qnorms[j], scales, norms, c0,
                                      len, pairs[j]);
        }
    }
    for (uint32_t j = 0; j < kQ; ++j) select_best(pairs[j], count, best, any_nan[j]);
}

namespace orve {

int route_top_buckets(const orve_ivf_index* index, const int8_t* code, float scale, float norm,
                      uint32_t n_probe, uint32_t* out_buckets) {
    if (index == nullptr || code == nullptr || out_buckets == nullptr || index->n_buckets == 0 ||
        n_probe == 0) {
        return -1;
    }
    // An index that claims buckets but has no centroid arrays is malformed (a complete index
    // always has them); refusing it beats reading through a null pointer.
    if (index->centroid_codes == nullptr || index->centroid_scales == nullptr ||
        index->centroid_norms == nullptr) {
        return -1;
    }
    const uint32_t nb = index->n_buckets;
    const uint32_t p = n_probe < nb ? n_probe : nb;
    c_unique<ivf_scored_pair[]> pairs = c_alloc_array<ivf_scored_pair>(nb);
    if (!pairs) return -1;
    score_and_select(code, scale, norm, index->centroid_codes, index->centroid_scales,
                     index->centroid_norms, nb, p, pairs.get());
    for (uint32_t t = 0; t < p; ++t) out_buckets[t] = pairs[t].index;
    return 0;
}

}  // namespace orve

extern "C" ORVE_API int orve_ivf_route_top_buckets(const orve_ivf_index* index, const float* query,
                                                   uint32_t n_probe, uint32_t* out_buckets) {
    // Every other argument is checked where the quantised query is routed.
    if (query == nullptr) return -1;
    routing_query q;
    if (!q.quantise(query)) return -1;
    return orve::route_top_buckets(index, q.code.get(), q.scale, q.norm, n_probe, out_buckets);
}
