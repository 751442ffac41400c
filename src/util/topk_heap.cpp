#include "util/topk_heap.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "util/c_alloc.h"

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
