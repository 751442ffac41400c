// The candidate record every 512-dimension search path keeps, and the bounded min-heap that
// holds the best of them while a path scores rows. It sits below the search and paged modules
// so that both can keep candidates without either reaching into the other.
#pragma once

#include <cstdint>

struct bf_topk_entry {
    float score;
    uint32_t node_id;
    uint32_t cluster_id;
    float node_score;
    uint32_t row;  // node-table slot; its row in the sidecar is looked up when re-ranking
};
static_assert(sizeof(bf_topk_entry) == 20);

// Offers one candidate to a min-heap of at most `capacity` entries. When the heap is full the
// candidate replaces the lowest score only if it is strictly greater: ties keep what came first.
void bf_topk_heap_push(bf_topk_entry* heap, uint32_t* count, uint32_t capacity,
                       const bf_topk_entry* entry);

// Sorts candidates by descending score, equal scores keeping their order, the way every path
// has always ordered them: a top-down merge sort that halves at n / 2 and, in each merge, takes
// from the left run unless its entry scores below the right one's. A NaN compares equal to
// everything, so the order it leaves depends on that exact sequence of comparisons, which this
// fixes whatever the C library's own sort does.
void sort_candidates_desc(bf_topk_entry* candidates, uint32_t count);
