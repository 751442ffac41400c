// One query as every 512-dimension path holds it: the quantised query, the candidate heap its
// budget sizes, and the one filter every candidate passes through.
#pragma once

#include <cstddef>

#include "quant/dot512_kernels.h"
#include "search/topk.h"

namespace orve {

// The candidate heap of one search and the one filter every candidate passes through.
struct candidate_sink {
    const indexed_node* nodes;
    const vector_similarity_query* q;
    bf_topk_entry* heap;
    uint32_t count;
    uint32_t capacity;
    uint32_t slot_limit;  // node-table slots at or past this name no node the table answers for
    // A NaN score or threshold makes `score >= threshold` and `score < threshold` both false.
    // Brute force, the exact last resort, drops such a candidate; the index paths skip only a
    // score known to be below the threshold and so keep it. Which answer a host gets for a NaN
    // depends on the path it asked for, and that stays as it is rather than change answers
    // hosts already receive; this flag is the one place the two differ.
    bool nan_passes;

    // Offers the row at node-table slot `slot` with `score`, if it passes the threshold, names
    // a node, matches the cluster filter and beats the weakest kept candidate of a full heap.
    void offer(uint32_t slot, float score) {
        if (nan_passes ? score < q->min_similarity : !(score >= q->min_similarity)) return;
        // The common case on a long scan: not better than the weakest kept candidate. Tested
        // before the node is read, since an index's rows name nodes in no particular order and
        // that read would miss the cache on most rows; the tests only refuse, so their order
        // changes no answer.
        if (count == capacity && !(score > heap[0].score)) return;
        if (slot >= slot_limit) return;
        if (q->cluster_filter != 0 && nodes[slot].cluster_id != q->cluster_filter) return;
        // The node's fields wait for name_candidates: a scan keeps many more candidates than
        // it returns, and reading each one's node here would miss the cache once per kept row.
        const bf_topk_entry e{score, 0, 0, 0.0f, slot};
        bf_topk_heap_push(heap, &count, capacity, &e);
    }

    // The score a row must beat to enter: the weakest kept one once the heap is full. Before
    // that every row is offered, and the value only feeds cosine_from_dots' answer, unused.
    float bar() const { return count == capacity ? heap[0].score : 0.0f; }

    // Offers n scored rows in order, row j at slot_of(j); any_above is cosine_from_dots' answer
    // for bar() as it stands. Once the heap is full a row not above its weakest entry is one
    // offer() refuses, and that entry only rises as offers go in: a block with no row above it
    // is passed over whole, and otherwise one comparison per row decides what is offered.
    template <class SlotOf>
    void offer_block(const float* scores, uint32_t n, bool any_above, SlotOf slot_of) {
        if (count < capacity) {
            for (uint32_t j = 0; j < n; ++j) offer(slot_of(j), scores[j]);
            return;
        }
        if (!any_above) return;
        float top = heap[0].score;
        for (uint32_t j = 0; j < n; ++j) {
            if (!(scores[j] > top)) continue;
            offer(slot_of(j), scores[j]);
            top = heap[0].score;
        }
    }

    // Fills in the kept candidates' node fields, every node asked for before any is read. The
    // heap orders by score alone, so when they are read moves no candidate; node records below
    // the slot limit are written once, at ingestion, so what is read is what offer() would
    // have read.
    void name_candidates() {
        for (uint32_t i = 0; i < count; ++i) {
            const char* n = reinterpret_cast<const char*>(nodes + heap[i].row);
            __builtin_prefetch(n);
            __builtin_prefetch(n + offsetof(indexed_node, score));
        }
        for (uint32_t i = 0; i < count; ++i) {
            const indexed_node& n = nodes[heap[i].row];
            heap[i].node_id = n.node_id;
            heap[i].cluster_id = n.cluster_id;
            heap[i].node_score = n.score;
        }
    }
};

// One query as every path holds it: the quantised query, and the candidate heap sized by the
// query's budget.
struct query_context {
    alignas(64) int8_t codes[kCodeBytes];
    float scale = 0.0f;
    float norm = 0.0f;
    c_unique<bf_topk_entry[]> heap;
    candidate_sink sink{};
};

// The query's code, scale and norm as the symmetric quantiser gives them for its vector.
struct quantised_query {
    const int8_t* code;
    float scale;
    float norm;
};

// Quantises the query, or takes `quantised` when the caller already did, and allocates a heap
// for at most `offerable` candidates; candidates at slots from slot_limit on are refused. False
// when the quantisation or allocation fails.
bool begin_query(const semantic_vector_indexing_system* sys, const vector_similarity_query* q,
                 uint32_t offerable, uint32_t slot_limit, bool nan_passes, query_context& ctx,
                 const quantised_query* quantised = nullptr);

}  // namespace orve
