// Pinning the flat store, so a brute-force scan reads rows without holding the object's lock.
//
// The store's arrays hang from one reference-counted record that lives in front of the code
// block (the object's size is fixed, so it cannot take a field of its own). The object holds
// one reference; a scan takes another. Dropping the slabs or tearing the store down drops only
// the object's reference, and the last release frees the arrays, after every scan that read
// them has finished.
#pragma once

#include <atomic>
#include <cstdint>

#include "semantic_vector_indexing.h"
#include "util/pin_guard.h"

struct flat_rows {
    std::atomic<uint32_t> refs;
    const int8_t* codes;
    const float* scale;
    const float* norm;
    const uint8_t* valid;
};

namespace orve {

// Bytes in front of the code block that hold its flat_rows; a multiple of the block's
// alignment so the codes stay 64-byte aligned.
constexpr std::size_t kFlatHeaderBytes = 64;

// What a scan reads: the pinned store (null when the object has none; rows may still carry
// their own quantised records) and the row count, both taken under the lock at one instant.
// Rows below `rows` are complete and never rewritten, so the scan needs no lock. `dropped`
// says the slabs were dropped before the pin: the scan must then refuse, as a search that saw
// the drop before it started does, rather than answer from the rows' own records alone.
struct flat_view {
    flat_rows* store;
    uint32_t rows;
    bool dropped;
};

flat_view flat_pin(semantic_vector_indexing_system* sys);
void flat_release(flat_rows* store);

using flat_pin_guard = pin_guard<flat_rows, flat_release>;

}  // namespace orve
