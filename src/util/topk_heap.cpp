#include "util/topk_heap.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "util/c_alloc.h"

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

namespace {

// Descending by score; NaN compares equal to everything.
int cmp_desc(const void* a, const void* b) {
    const float sa = static_cast<const bf_topk_entry*>(a)->score;
    const float sb = static_cast<const bf_topk_entry*>(b)->score;
    if (sa > sb) return -1;
    if (sa < sb) return 1;
    return 0;
}

void merge_sort_desc(bf_topk_entry* b, uint32_t n, bf_topk_entry* scratch) {
    if (n <= 1) return;
    uint32_t n1 = n / 2;
    uint32_t n2 = n - n1;
    const bf_topk_entry* b1 = b;
    const bf_topk_entry* b2 = b + n1;
    merge_sort_desc(b, n1, scratch);
    merge_sort_desc(b + n1, n2, scratch);
    bf_topk_entry* out = scratch;
    while (n1 > 0 && n2 > 0) {
        if (!(b1->score < b2->score)) {
            *out++ = *b1++;
            --n1;
        } else {
            *out++ = *b2++;
            --n2;
        }
    }
    // Left-run leftovers follow what was merged; right-run ones are already in place.
    std::memcpy(out, b1, static_cast<std::size_t>(n1) * sizeof(bf_topk_entry));
    std::memcpy(b, scratch, static_cast<std::size_t>(n - n2) * sizeof(bf_topk_entry));
}

}  // namespace

void sort_candidates_desc(bf_topk_entry* candidates, uint32_t count) {
    // Enough for what a search keeps at its usual budgets (k x 5 up to k = 51).
    constexpr uint32_t kOnStack = 256;
    if (count <= kOnStack) {
        bf_topk_entry scratch[kOnStack];
        merge_sort_desc(candidates, count, scratch);
        return;
    }
    orve::c_unique<bf_topk_entry[]> scratch = orve::c_alloc_array<bf_topk_entry>(count);
    if (scratch) {
        merge_sort_desc(candidates, count, scratch.get());
        return;
    }
    // No memory for the copy: the C library's sort still orders the candidates, as it always
    // did when its own copy could not be had.
    std::qsort(candidates, count, sizeof(bf_topk_entry), cmp_desc);
}
