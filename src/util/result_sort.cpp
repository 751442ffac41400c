// Ordering of result arrays for the legacy listing: a stable bubble sort, descending by
// similarity. The arrays are short (at most max_results records) and stability is part of the
// contract, so the simplest stable sort is the right one.
#include "semantic_vector_indexing.h"

extern "C" ORVE_API void sort_similarity_results(vector_similarity_result* results,
                                                 uint32_t count) {
    if (results == nullptr || count < 2) return;
    // Every pass runs in full: the observable order (equal keys keep their input order) is the
    // same either way, and a fixed amount of work keeps this easy to reason about.
    for (uint32_t m = count - 1; m >= 1; --m) {
        for (uint32_t i = 0; i < m; ++i) {
            if (results[i].similarity < results[i + 1].similarity) {
                const vector_similarity_result t = results[i];
                results[i] = results[i + 1];
                results[i + 1] = t;
            }
        }
    }
}
