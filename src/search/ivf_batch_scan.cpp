// Why by bucket: with many queries, the buckets they probe overlap, and a bucket's codes are
// the bulk of what a scan reads. Scoring a bucket once for every query that probes it reads
// those codes once, with the multi-query kernel, while they are in cache.
//
// Why the dot products are kept and offered afterwards: a query's heap keeps the first of equal
// scores, so its answer depends on the order its candidates are offered in. Each query's
// candidates are therefore offered in its own routed bucket order, exactly as the one-query
// scan offers them, from dot products computed earlier in bucket order; the dot products are
// exact integers whichever kernel computed them, so the scores are the same bits.
#include "search/ivf_batch_scan.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "core/publication.h"
#include "core/system.h"
#include "ivf/quantised_routing.h"
#include "search/index_scan.h"
#include "search/query_context.h"

namespace orve {
namespace {

// At most this many dot products (16 MiB) are held at once; a larger batch is answered in
// chunks of consecutive queries, so memory stays bounded whatever the probe count.
constexpr std::size_t kMaxHeldDots = std::size_t{1} << 22;

// Queries scored together per pass over a bucket's rows: a multiple of the multi-query
// kernel's width, small enough for the pointer arrays to live on the stack.
constexpr uint32_t kGroupQueries = 16;

constexpr std::size_t kNoSlot = SIZE_MAX;

// One (query, probed bucket) pair and where its dot products go in the chunk's buffer.
struct probe_slot {
    uint32_t bucket;
    uint32_t query;  // within the chunk
    std::size_t offset;
};

int cmp_probe_slot(const void* a, const void* b) {
    const auto* x = static_cast<const probe_slot*>(a);
    const auto* y = static_cast<const probe_slot*>(b);
    if (x->bucket != y->bucket) return x->bucket < y->bucket ? -1 : 1;
    if (x->query != y->query) return x->query < y->query ? -1 : 1;
    return x->offset < y->offset ? -1 : (x->offset > y->offset ? 1 : 0);
}

// The contexts of a chunk's queries, constructed in C-allocated memory (aligned for their code
// rows) and destroyed with it.
struct context_array {
    c_unique<query_context[]> mem;
    uint32_t n = 0;
    bool allocate(uint32_t count) {
        mem = c_aligned_array<query_context>(count, alignof(query_context));
        if (!mem) return false;
        for (; n < count; ++n) new (&mem[n]) query_context();
        return true;
    }
    ~context_array() {
        for (uint32_t i = 0; i < n; ++i) mem[i].~query_context();
    }
};

// Everything a batch shares across its chunks.
struct batch_plan {
    semantic_vector_indexing_system* sys;
    const orve512_batch_query* b;
    const orve_ivf_index* index;
    uint32_t probes;               // buckets routed per query
    c_unique<uint32_t[]> routes;   // probes per query, in routed order
    c_unique<std::size_t[]> need;  // dot products per query
    c_unique<vector_similarity_query[]> queries;
    c_unique<int8_t[]> codes;  // each query quantised once, for routing and for its scan
    c_unique<float[]> scales;
    c_unique<float[]> norms;
    c_unique<int32_t[]> dots;
    c_unique<std::size_t[]> offsets;  // per (query, probe) of a chunk; kNoSlot if skipped
    c_unique<probe_slot[]> slots;
};

// Quantises and routes every query and sizes the buffers; false when quantisation, routing or
// an allocation fails.
bool plan_batch(batch_plan& p) {
    const uint32_t nq = p.b->n_queries;
    const std::size_t pairs = static_cast<std::size_t>(nq) * p.probes;
    p.routes = c_alloc_array<uint32_t>(pairs);
    p.need = c_alloc_array<std::size_t>(nq);
    p.queries = c_alloc_array<vector_similarity_query>(nq);
    p.codes = c_alloc_array<int8_t>(static_cast<std::size_t>(nq) * kCodeBytes);
    auto code_of = c_alloc_array<const int8_t*>(nq);
    p.scales = c_alloc_array<float>(nq);
    p.norms = c_alloc_array<float>(nq);
    if (!p.routes || !p.need || !p.queries || !p.codes || !code_of || !p.scales || !p.norms) {
        return false;
    }
    for (uint32_t i = 0; i < nq; ++i) {
        p.queries[i] = batch_query_for(p.b, i, true);
        int8_t* code = &p.codes[static_cast<std::size_t>(i) * kCodeBytes];
        code_of[i] = code;
        // The quantisation the one-query routing applies to the float query.
        if (orve_quantize_float_vector_symmetric(p.queries[i].query_vector, ORVE512_DIM, code,
                                                 &p.scales[i], &p.norms[i]) != 0) {
            return false;
        }
    }
    if (route_top_buckets_batch(p.index, code_of.get(), p.scales.get(), p.norms.get(), nq, p.probes,
                                p.routes.get()) != 0) {
        return false;
    }
    std::size_t most = 0, total = 0;
    for (uint32_t i = 0; i < nq; ++i) {
        const uint32_t* r = &p.routes[static_cast<std::size_t>(i) * p.probes];
        std::size_t n = 0;
        for (uint32_t j = 0; j < p.probes; ++j) {
            if (r[j] < p.index->n_buckets) n += p.index->bucket_sizes[r[j]];
        }
        p.need[i] = n;
        most = n > most ? n : most;
        total += n;
    }
    const std::size_t widest = total < kMaxHeldDots ? total : kMaxHeldDots;
    p.dots = c_alloc_array<int32_t>(widest > most ? widest : most);
    p.offsets = c_alloc_array<std::size_t>(pairs);
    p.slots = c_alloc_array<probe_slot>(pairs);
    return p.dots && p.offsets && p.slots;
}

// Lays out the chunk's dot products query by query and lists its (query, bucket) pairs in
// bucket order; returns how many pairs.
std::size_t lay_out_chunk(batch_plan& p, uint32_t i0, uint32_t i1) {
    std::size_t next = 0, count = 0;
    for (uint32_t i = i0; i < i1; ++i) {
        for (uint32_t j = 0; j < p.probes; ++j) {
            const std::size_t at = static_cast<std::size_t>(i - i0) * p.probes + j;
            const uint32_t bucket = p.routes[static_cast<std::size_t>(i) * p.probes + j];
            if (bucket >= p.index->n_buckets) {  // skipped, as the one-query scan skips it
                p.offsets[at] = kNoSlot;
                continue;
            }
            p.offsets[at] = next;
            p.slots[count++] = probe_slot{bucket, i - i0, next};
            next += p.index->bucket_sizes[bucket];
        }
    }
    std::qsort(p.slots.get(), count, sizeof(probe_slot), cmp_probe_slot);
    return count;
}

// Scores each bucket once for all the chunk's queries that probe it.
void score_chunk(batch_plan& p, const context_array& ctx, std::size_t count) {
    const int8_t* queries[kGroupQueries];
    int32_t* outs[kGroupQueries];
    for (std::size_t s = 0; s < count;) {
        const uint32_t bucket = p.slots[s].bucket;
        uint32_t m = 0;
        for (; s < count && p.slots[s].bucket == bucket && m < kGroupQueries; ++s, ++m) {
            queries[m] = ctx.mem[p.slots[s].query].codes;
            outs[m] = p.dots.get() + p.slots[s].offset;
        }
        score_bucket_rows(*p.index, bucket, queries, m, outs);
    }
}

// Answers queries i0 .. i1 of the batch; false when a query could not start.
bool answer_chunk(batch_plan& p, uint32_t i0, uint32_t i1) {
    const uint32_t m = i1 - i0;
    context_array ctx;
    if (!ctx.allocate(m)) return false;
    for (uint32_t i = i0; i < i1; ++i) {
        const uint32_t rows = p.index->n_rows;
        const quantised_query quantised{&p.codes[static_cast<std::size_t>(i) * kCodeBytes],
                                        p.scales[i], p.norms[i]};
        if (!begin_query(p.sys, &p.queries[i], rows, rows, true, ctx.mem[i - i0], &quantised)) {
            return false;
        }
    }
    score_chunk(p, ctx, lay_out_chunk(p, i0, i1));
    for (uint32_t i = i0; i < i1; ++i) {
        query_context& c = ctx.mem[i - i0];
        for (uint32_t j = 0; j < p.probes; ++j) {
            const std::size_t off = p.offsets[static_cast<std::size_t>(i - i0) * p.probes + j];
            if (off == kNoSlot) continue;
            offer_bucket(*p.index, p.routes[static_cast<std::size_t>(i) * p.probes + j],
                         p.dots.get() + off, c);
        }
        vector_similarity_result* block = p.b->results + static_cast<std::size_t>(p.b->k) * i;
        std::memset(block, 0, sizeof(vector_similarity_result) * p.b->k);
        uint32_t found = 0;
        c.sink.name_candidates();
        finish_results(c.sink.heap, c.sink.count, &p.queries[i], p.sys, block, &found);
        if (p.b->counts != nullptr) p.b->counts[i] = found;
    }
    return true;
}

}  // namespace

vector_similarity_query batch_query_for(const orve512_batch_query* b, uint32_t i, bool use_ivf) {
    vector_similarity_query q;
    std::memset(&q, 0, sizeof q);
    q.max_results = b->k;
    q.min_similarity = b->min_similarity;
    q.use_orve512 = 1;
    q.query_vector = b->queries + static_cast<std::size_t>(i) * ORVE512_DIM;
    q.use_ivf = use_ivf ? 1 : 0;
    q.n_probe = b->n_probe;
    q.rerank = b->rerank != 0 ? 1 : 0;
    q.rerank_factor = b->rerank_factor;
    return q;
}

bool answer_batch_by_bucket(semantic_vector_indexing_system* sys, const orve512_batch_query* b,
                            ivf_live* holder) {
    if (holder == nullptr) return false;
    batch_plan p{sys, b, &holder->index, 0, {}, {}, {}, {}, {}, {}, {}, {}, {}};
    p.probes = p.index->n_buckets < b->n_probe ? p.index->n_buckets : b->n_probe;
    if (p.probes == 0 || !plan_batch(p)) return false;
    for (uint32_t i0 = 0; i0 < b->n_queries;) {
        // Consecutive queries whose dot products fit what is held at once (at least one).
        std::size_t held = p.need[i0];
        uint32_t i1 = i0 + 1;
        while (i1 < b->n_queries && held + p.need[i1] <= kMaxHeldDots) held += p.need[i1++];
        if (!answer_chunk(p, i0, i1)) return false;
        i0 = i1;
    }
    return true;
}

}  // namespace orve
