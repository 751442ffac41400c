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

// Descending by score for qsort; NaN compares equal to everything.
int cmp_bf_topk_desc(const void* a, const void* b);
