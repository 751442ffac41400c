// Searches over a pinned IVF or H-IVF: routed buckets (or leaves) only, scanned without the
// object's lock while ingestion and rebuilds go on.
#include "search/ivf_pinned_search.h"

#include "core/publication.h"
#include "core/system.h"
#include "ivf/quantised_routing.h"
#include "search/index_scan.h"

int search_similar_orve512_ivf_rcu_pinned(semantic_vector_indexing_system* sys, ivf_live* holder,
                                          const vector_similarity_query* q,
                                          vector_similarity_result* results, uint32_t* count) {
    if (q->query_vector == nullptr || q->max_results == 0 || holder == nullptr) return -1;
    const orve_ivf_index& index = holder->index;
    const uint32_t n = index.n_buckets < q->n_probe ? index.n_buckets : q->n_probe;
    if (n == 0) return -1;
    // The query is quantised once, for the scan, and routed with the same code.
    orve::query_context ctx;
    if (!orve::begin_query(sys, q, index.n_rows, index.n_rows, true, ctx)) return -1;
    auto buckets = orve::c_alloc_array<uint32_t>(n);
    if (!buckets ||
        orve::route_top_buckets(&index, ctx.codes, ctx.scale, ctx.norm, n, buckets.get()) != 0) {
        return -1;
    }
    for (uint32_t i = 0; i < n; ++i) {
        if (buckets[i] >= index.n_buckets) continue;
        if (i + 1 < n) orve::prefetch_bucket(index, buckets[i + 1]);
        orve::scan_bucket(index, buckets[i], ctx);
    }
    ctx.sink.name_candidates();
    orve::finish_results(ctx.sink.heap, ctx.sink.count, q, sys, results, count);
    return 0;
}

int search_similar_orve512_hivf_pinned(semantic_vector_indexing_system* sys,
                                       const vector_similarity_query* q,
                                       vector_similarity_result* results, uint32_t* count) {
    hivf_live* holder = nullptr;
    if (hivf_rcu_pin_live(sys, &holder) != 0) return -1;
    const hivf_pin guard(holder);
    if (q->query_vector == nullptr || q->max_results == 0 || q->n_probe_l1 == 0 ||
        q->n_probe_l2 == 0) {
        return -1;
    }
    const orve_hivf_index& index = holder->index;
    // Routing writes at most min(p1, b1) level-1 buckets times min(p2, b2) leaves each. The
    // product of the probe counts themselves can wrap in 32 bits ("probe everything" as
    // 0xFFFFFFFF twice), which would size the arrays below what routing writes; the bounded
    // product, taken in 64 bits, is at most b1 x b2 and so never wraps nor over-allocates.
    const uint64_t p1 = q->n_probe_l1 < index.b1 ? q->n_probe_l1 : index.b1;
    const uint64_t p2 = q->n_probe_l2 < index.b2 ? q->n_probe_l2 : index.b2;
    const std::size_t room = static_cast<std::size_t>(p1 * p2);
    auto l1 = orve::c_alloc_array<uint32_t>(room);
    auto l2 = orve::c_alloc_array<uint32_t>(room);
    orve::query_context ctx;
    // Rows appended after the build have slots at or past the build's row count; the node
    // count bounds the slots the node table can answer for.
    const uint32_t slot_limit = orve::load_node_count(sys);
    if (!orve::begin_query(sys, q, slot_limit, slot_limit, true, ctx)) return -1;
    uint32_t leaves = 0;
    if (!l1 || !l2 ||
        orve::route_top_leaves(&index, ctx.codes, ctx.scale, ctx.norm, q->n_probe_l1, q->n_probe_l2,
                               l1.get(), l2.get(), &leaves) != 0) {
        return -1;
    }
    for (uint32_t i = 0; i < leaves; ++i) {
        if (l1[i] >= index.b1) continue;
        const orve_ivf_index& leaf = index.l2_indexes[l1[i]];
        if (l2[i] >= leaf.n_buckets) continue;
        if (i + 1 < leaves && l1[i + 1] < index.b1) {
            orve::prefetch_bucket(index.l2_indexes[l1[i + 1]], l2[i + 1]);
        }
        orve::scan_bucket(leaf, l2[i], ctx);
    }
    ctx.sink.name_candidates();
    orve::finish_results(ctx.sink.heap, ctx.sink.count, q, sys, results, count);
    return 0;
}
