// Brute force: every stored vector scored against the query.
//
// A scan pins the flat store and reads the row count once, under the lock, and then runs
// without it: rows below that count are complete and never rewritten, so the answer is the
// one a scan holding the lock from its start would give, while other scans and ingestion go
// on. The scan walks runs of consecutive valid rows and scores each run with the many-rows
// kernel, a block at a time into a stack buffer; per row it then does only the cosine, the
// threshold and a comparison with the heap's current minimum. Nothing is allocated per row.
//
// A block of queries shares one pass: each tile of rows is scored against four queries per row
// load, and each query's candidates are then offered in row order, as its lone scan offers
// them. The heap keeps the first of equal scores, so that order is what makes the block's
// answers the lone scan's, ties included; the dot products are exact integers whichever kernel
// computed them, so the scores are the same bits.
#include "search/brute_force.h"

#include <cstring>
#include <new>

#include "core/flat_pin.h"
#include "core/system.h"
#include "quant/cosine.h"
#include "quant/kernel_table.h"
#include "search/query_context.h"
#include "util/c_alloc.h"

namespace {

constexpr uint32_t kBlockRows = 128;
// Rows a batch scores against each query of its block before moving on: 64 KB of codes,
// which stay in cache across the block's queries, so the store is read once per block.
constexpr uint32_t kTileRows = 128;

// The cosine of the row at slot s that has no slab vector but its own quantised record;
// false when it has neither, and the row is not a candidate.
inline bool record_score(const semantic_vector_indexing_system* sys, uint32_t s,
                         const orve::query_context& ctx, float* score) {
    const orve_quantized_vector_record* rec = sys->nodes[s].quantized;
    if (rec == nullptr || rec->codes == nullptr) return false;
    *score = orve::cosine_from_dot(orve_dotprod512_i8(ctx.codes, rec->codes), ctx.scale, rec->scale,
                                   ctx.norm, rec->norm);
    return true;
}

// Offers rows [begin, end) to the query's sink, in row order. The sink's heap depends only on
// the sequence of offers, so any split of the rows into ranges gives the same answer.
void scan_rows(const semantic_vector_indexing_system* sys, const flat_rows* store, uint32_t begin,
               uint32_t end, orve::query_context& ctx) {
    orve::candidate_sink& sink = ctx.sink;
    if (sink.capacity == 0) return;
    const orve::dot512_many_fn many = orve::kernels().dot512_many;
    const uint8_t* valid = store != nullptr ? store->valid : nullptr;
    int32_t dots[kBlockRows];
    for (uint32_t s = begin; s < end;) {
        if (valid != nullptr && valid[s]) {
            uint32_t stop = s + 1;
            while (stop < end && stop - s < kBlockRows && valid[stop]) ++stop;
            many(ctx.codes, store->codes + static_cast<std::size_t>(s) * orve::kCodeBytes, stop - s,
                 dots);
            for (uint32_t r = s; r < stop; ++r) {
                sink.offer(r, orve::cosine_from_dot(dots[r - s], ctx.scale, store->scale[r],
                                                    ctx.norm, store->norm[r]));
            }
            s = stop;
            continue;
        }
        // A row without a slab vector may still carry its own quantised record.
        float score;
        if (record_score(sys, s, ctx, &score)) sink.offer(s, score);
        ++s;
    }
}

// Rows [t, end) of one tile (at most kTileRows) for every query of the block: the slab rows
// scored four queries per load into dots (query i's at dots[i * kTileRows + row - t]), then
// offered query by query in row order, interleaved with the rows scored from their own
// records exactly where the lone scan meets them.
void scan_tile(const semantic_vector_indexing_system* sys, const flat_rows* store, uint32_t t,
               uint32_t end, orve::query_context* ctxs, uint32_t nq, int32_t* dots) {
    const orve::kernel_table& k = orve::kernels();
    // Which rows were scored, read once: both passes must agree on it, or a query would offer
    // a dot product that was never written.
    uint8_t scored[kTileRows] = {};
    if (store != nullptr && store->valid != nullptr) {
        std::memcpy(scored, store->valid + t, end - t);
    }
    const int8_t* codes[orve::kBruteForceBlock];
    for (uint32_t i = 0; i < nq; ++i) codes[i] = ctxs[i].codes;
    for (uint32_t s = 0; s < end - t;) {
        if (!scored[s]) {
            ++s;
            continue;
        }
        uint32_t stop = s + 1;
        while (stop < end - t && scored[stop]) ++stop;
        const int8_t* rows = store->codes + (static_cast<std::size_t>(t) + s) * orve::kCodeBytes;
        uint32_t i = 0;
        for (; i + orve::kMultiQueries <= nq; i += orve::kMultiQueries) {
            k.dot512_multi(codes + i, rows, stop - s, dots + i * kTileRows + s, kTileRows);
        }
        for (; i < nq; ++i) k.dot512_many(codes[i], rows, stop - s, dots + i * kTileRows + s);
        s = stop;
    }
    const uint32_t n = end - t;
    uint32_t n_scored = 0;
    for (uint32_t r = 0; r < n; ++r) n_scored += scored[r];
    const bool all_scored = n_scored == n;
    alignas(64) float scores[kTileRows];
    for (uint32_t i = 0; i < nq; ++i) {
        orve::query_context& ctx = ctxs[i];
        orve::candidate_sink& sink = ctx.sink;
        if (sink.capacity == 0) continue;
        const bool full = sink.count == sink.capacity;
        const float bar = sink.bar();
        // Scores of the whole tile at once; a row that was not scored gets a score from a stale
        // dot product, which the loops below never read.
        bool any_above = true;
        if (store != nullptr) {
            any_above = orve::cosine_from_dots(dots + i * kTileRows, ctx.scale, store->scale + t,
                                               ctx.norm, store->norm + t, n, bar, scores);
        }
        if (all_scored) {
            // The common case on a long scan: usually no row of the tile is above the bar.
            sink.offer_block(scores, n, any_above, [t](uint32_t r) { return t + r; });
            continue;
        }
        // A row not above a full heap's weakest entry as it was at the tile's start is one
        // offer() would refuse, since that entry only rises.
        for (uint32_t r = 0; r < n; ++r) {
            float score;
            if (scored[r]) {
                if (full && !(scores[r] > bar)) continue;
                sink.offer(t + r, scores[r]);
            } else if (record_score(sys, t + r, ctx, &score)) {
                sink.offer(t + r, score);
            }
        }
    }
}

// The query contexts of a block, in C-allocator memory; the first `live` were constructed.
struct context_block {
    orve::c_unique<orve::query_context[]> mem;
    uint32_t live = 0;
    ~context_block() {
        for (uint32_t i = 0; i < live; ++i) mem[i].~query_context();
    }
};

}  // namespace

namespace orve {

int brute_force_search(semantic_vector_indexing_system* sys, const vector_similarity_query* q,
                       vector_similarity_result* results, uint32_t* count) {
    if (q->query_vector == nullptr || q->max_results == 0) return -1;
    const flat_view view = flat_pin(sys);
    const flat_pin_guard pin(view.store);
    // The slabs went between the front end's check and the pin.
    if (view.dropped) return ORVE_SEARCH_FLAT_DROPPED;
    query_context ctx;
    if (!begin_query(sys, q, view.rows, view.rows, false, ctx)) return -1;
    scan_rows(sys, view.store, 0, view.rows, ctx);
    ctx.sink.name_candidates();
    finish_results(ctx.sink.heap, ctx.sink.count, q, sys, results, count);
    return 0;
}

int brute_force_search_block(semantic_vector_indexing_system* sys,
                             const vector_similarity_query* qs, uint32_t nq,
                             vector_similarity_result* results, uint32_t stride, uint32_t* counts) {
    if (nq == 0 || nq > kBruteForceBlock) return -1;
    for (uint32_t i = 0; i < nq; ++i) {
        if (qs[i].query_vector == nullptr || qs[i].max_results == 0) return -1;
    }
    const flat_view view = flat_pin(sys);
    const flat_pin_guard pin(view.store);
    if (view.dropped) return -1;  // the caller answers one by one, and each query is refused
    // Both from the heap, as a block's queries and dot products (70 KiB at 64 queries) are too
    // much for a host thread's stack; the dot products zeroed so that no score is ever computed
    // from an unwritten one. Either failing, the caller answers one query at a time.
    context_block owned;
    owned.mem = c_aligned_array<query_context>(nq, alignof(query_context));
    const auto dots = c_calloc_array<int32_t>(static_cast<std::size_t>(nq) * kTileRows);
    if (!owned.mem || !dots) return -1;
    query_context* ctxs = owned.mem.get();
    for (; owned.live < nq; ++owned.live) {
        new (&ctxs[owned.live]) query_context();
        if (!begin_query(sys, &qs[owned.live], view.rows, view.rows, false, ctxs[owned.live])) {
            ++owned.live;
            return -1;
        }
    }
    for (uint32_t t = 0; t < view.rows; t += kTileRows) {
        const uint32_t end = view.rows - t < kTileRows ? view.rows : t + kTileRows;
        scan_tile(sys, view.store, t, end, ctxs, nq, dots.get());
    }
    for (uint32_t i = 0; i < nq; ++i) {
        vector_similarity_result* block = results + static_cast<std::size_t>(stride) * i;
        std::memset(block, 0, sizeof(vector_similarity_result) * stride);
        ctxs[i].sink.name_candidates();
        finish_results(ctxs[i].sink.heap, ctxs[i].sink.count, &qs[i], sys, block, &counts[i]);
    }
    return 0;
}

}  // namespace orve
