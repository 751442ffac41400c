#include "util/topk_heap.h"

void bf_topk_heap_push(bf_topk_entry* heap, uint32_t* count, uint32_t capacity,
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

int cmp_bf_topk_desc(const void* a, const void* b) {
    const float sa = static_cast<const bf_topk_entry*>(a)->score;
    const float sb = static_cast<const bf_topk_entry*>(b)->score;
    if (sa > sb) return -1;
    if (sa < sb) return 1;
    return 0;
}
