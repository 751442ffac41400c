// The attached paged index, shared by reference count between the object and the searches that
// read it: replacing or detaching it only drops the object's reference, and the handle is
// closed by the last release, after every search that read it has finished.
#pragma once

#include <atomic>
#include <cstdint>

#include "semantic_vector_indexing.h"
#include "util/pin_guard.h"

struct paged_attachment {
    std::atomic<uint32_t> refs;
    orve_ivf_paged_index* handle;
};

namespace orve {

// Wraps an open handle with one reference (the object's); null on allocation failure, in
// which case the handle is left open for the caller.
paged_attachment* paged_attachment_wrap(orve_ivf_paged_index* handle);

// Takes a reference to the attached paged index; null when none. Takes no object lock: the
// paged search must stay responsive while bulk loads and snapshots hold it.
paged_attachment* paged_attachment_pin(semantic_vector_indexing_system* sys);

// Puts `fresh` (or null) in the object's slot and returns what was there, whose reference
// passes to the caller. Safe against concurrent pins: a pin either took its reference before
// the swap, or sees `fresh`.
paged_attachment* paged_attachment_swap(semantic_vector_indexing_system* sys,
                                        paged_attachment* fresh);

// Drops a reference; the last one closes the handle. Null is ignored.
void paged_attachment_release(paged_attachment* a);

using paged_pin = pin_guard<paged_attachment, paged_attachment_release>;

}  // namespace orve
