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
// Inline: a scan with a large budget (re-ranking keeps five times k) pushes hundreds of rows a
// query, and the call cost a few per cent of a re-ranked query.
inline void bf_topk_heap_push(bf_topk_entry* heap, uint32_t* count, uint32_t capacity,
                              const bf_topk_entry* entry) {
    if (capacity == 0) return;
    if (*count < capacity) {
        uint32_t i = (*count)++;
        heap[i] = *entry;
        while (i > 0) {
            const uint32_t parent = (i - 1) / 2;
            if (heap[i].score >= heap[parent].score) break;
            const bf_topk_entry t = heap[i];
            heap[i] = heap[parent];
            heap[parent] = t;
            i = parent;
        }
        return;
    }
    if (!(entry->score > heap[0].score)) return;
    // Sift down with a hole: each smaller child moves up one place and the entry is written
    // once where it stops. The comparisons are those of swapping it down level by level, so
    // every entry ends where the swaps would leave it, at a third of the moves.
    const float score = entry->score;
    uint32_t i = 0;
    for (;;) {
        const uint32_t l = 2 * i + 1;
        const uint32_t r = 2 * i + 2;
        uint32_t child;
        if (l < capacity && heap[l].score < score) {
            child = (r < capacity && heap[r].score < heap[l].score) ? r : l;
        } else if (r < capacity && heap[r].score < score) {
            child = r;
        } else {
            break;
        }
        heap[i] = heap[child];
        i = child;
    }
    heap[i] = *entry;
}

// Sorts candidates by descending score, equal scores keeping their order, the way every path
// has always ordered them: a top-down merge sort that halves at n / 2 and, in each merge, takes
// from the left run unless its entry scores below the right one's. A NaN compares equal to
// everything, so the order it leaves depends on that exact sequence of comparisons, which this
// fixes whatever the C library's own sort does.
void sort_candidates_desc(bf_topk_entry* candidates, uint32_t count);
