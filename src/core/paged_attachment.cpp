// Writing the published H-IVF to a paged file and attaching it, attaching an existing file,
// and forwarding the paged index's memory controls.
#include "core/paged_attachment.h"

#include <sched.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/publication.h"
#include "core/system.h"
#include "quant/dot512_kernels.h"
#include "util/c_alloc.h"

namespace orve {

paged_attachment* paged_attachment_wrap(orve_ivf_paged_index* handle) {
    auto* a = static_cast<paged_attachment*>(std::malloc(sizeof(paged_attachment)));
    if (a == nullptr) return nullptr;
    new (&a->refs) std::atomic<uint32_t>(1);
    a->handle = handle;
    return a;
}

namespace {

// The object's slot doubles as a tiny lock of its own: whoever exchanges the busy marker into
// it owns the slot until it stores a real value (or null) back. A pin holds it only for one
// reference-count increment, so the holder cannot be freed between loading the pointer and
// taking the reference, and no object lock is needed. The marker is never dereferenced.
paged_attachment* const kSlotBusy = reinterpret_cast<paged_attachment*>(alignof(paged_attachment));

paged_attachment* claim_slot(semantic_vector_indexing_system* sys) {
    std::atomic_ref<paged_attachment*> slot(sys->paged);
    for (unsigned spins = 0;; ++spins) {
        paged_attachment* a = slot.exchange(kSlotBusy, std::memory_order_acquire);
        if (a != kSlotBusy) return a;
        // Another pin or swap holds the slot for a few instructions; yield only if it lasts.
        if (spins >= 64) sched_yield();
    }
}

void return_slot(semantic_vector_indexing_system* sys, paged_attachment* value) {
    std::atomic_ref<paged_attachment*>(sys->paged).store(value, std::memory_order_release);
}

}  // namespace

paged_attachment* paged_attachment_pin(semantic_vector_indexing_system* sys) {
    paged_attachment* a = claim_slot(sys);
    if (a != nullptr) a->refs.fetch_add(1, std::memory_order_relaxed);
    return_slot(sys, a);
    return a;
}

paged_attachment* paged_attachment_swap(semantic_vector_indexing_system* sys,
                                        paged_attachment* fresh) {
    paged_attachment* old = claim_slot(sys);
    return_slot(sys, fresh);
    return old;
}

void paged_attachment_release(paged_attachment* a) {
    if (a == nullptr) return;
    if (a->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        orve_ivf_paged_close(a->handle);
        std::free(a);
    }
}

}  // namespace orve

namespace {

template <typename T>
bool copy_array(T*& dst, const T* src, std::size_t n, std::size_t alignment = 0) {
    if (src == nullptr) return true;
    auto block = alignment ? orve::c_aligned_array<T>(n, alignment) : orve::c_alloc_array<T>(n);
    if (!block) return false;
    std::memcpy(block.get(), src, n * sizeof(T));
    dst = block.release();
    return true;
}

// A copy of `src` with everything but the leaves' rows: the routing data (level-1 centroids,
// leaf centroids, bucket offsets and sizes) stays usable, the rows live in the file now.
bool copy_without_rows(const orve_hivf_index& src, orve_hivf_index& dst) {
    std::memset(&dst, 0, sizeof dst);
    dst.b1 = src.b1;
    dst.b2 = src.b2;
    const std::size_t b1 = src.b1;
    if (!copy_array(dst.l1_centroid_codes, src.l1_centroid_codes, b1 * orve::kCodeBytes, 16) ||
        !copy_array(dst.l1_centroid_scales, src.l1_centroid_scales, b1) ||
        !copy_array(dst.l1_centroid_norms, src.l1_centroid_norms, b1)) {
        return false;
    }
    if (src.l2_indexes == nullptr) return true;
    dst.l2_indexes = static_cast<orve_ivf_index*>(std::calloc(b1, sizeof(orve_ivf_index)));
    if (dst.l2_indexes == nullptr) return false;
    for (std::size_t i = 0; i < b1; ++i) {
        const orve_ivf_index& s = src.l2_indexes[i];
        orve_ivf_index& d = dst.l2_indexes[i];
        d.n_rows = s.n_rows;
        d.n_buckets = s.n_buckets;
        const std::size_t nb = s.n_buckets;
        if (!copy_array(d.centroid_codes, s.centroid_codes, nb * orve::kCodeBytes, 64) ||
            !copy_array(d.centroid_scales, s.centroid_scales, nb) ||
            !copy_array(d.centroid_norms, s.centroid_norms, nb) ||
            !copy_array(d.bucket_offsets, s.bucket_offsets, nb) ||
            !copy_array(d.bucket_sizes, s.bucket_sizes, nb)) {
            return false;
        }
    }
    return true;
}

// Frees the compacted rows of the published H-IVF now that searches use the file. Searches
// that pinned it may still be scanning those rows, so the rows are not freed in place: a
// row-less copy is published in its stead and the last release of the old holder frees them.
// The caller holds the lock. When the copy cannot be made the rows simply stay.
void release_hivf_rows_locked(semantic_vector_indexing_system* sys) {
    hivf_live* live = sys->live_hivf.load(std::memory_order_acquire);
    if (live == nullptr) return;
    auto* copy = static_cast<hivf_live*>(std::calloc(1, sizeof(hivf_live)));
    if (copy == nullptr) return;
    if (!copy_without_rows(live->index, copy->index)) {
        orve_hivf_index_destroy(&copy->index);
        std::free(copy);
        return;
    }
    copy->refs.store(1, std::memory_order_relaxed);
    copy->generation = live->generation;
    // A search that missed the file (it was attached just after the search looked) and fell
    // to the H-IVF would scan no rows here and return an empty answer as final; the copy
    // refuses to pin, so such a search falls through to a path that has the rows.
    copy->rows_released = true;
    hivf_live_release(sys->live_hivf.exchange(copy, std::memory_order_acq_rel));
}

// Opens the paged file at `path` and makes it the object's paged index, releasing the one it
// replaces (and, when asked, the published H-IVF's rows). 0, or -1 with nothing changed when the
// file does not open or its holder cannot be allocated.
int open_and_attach(semantic_vector_indexing_system* sys, const char* path, bool release_rows) {
    orve_ivf_paged_index* handle = nullptr;
    if (orve_ivf_paged_open(path, &handle) != 0) return -1;
    paged_attachment* fresh = orve::paged_attachment_wrap(handle);
    if (fresh == nullptr) {
        orve_ivf_paged_close(handle);
        return -1;
    }
    paged_attachment* old;
    {
        orve::object_lock guard(sys);
        old = orve::paged_attachment_swap(sys, fresh);
        if (release_rows) release_hivf_rows_locked(sys);
    }
    orve::paged_attachment_release(old);
    return 0;
}

}  // namespace

extern "C" ORVE_API int semantic_vector_indexing_system_build_ivf_paged(
    semantic_vector_indexing_system* sys, const char* path) {
    if (sys == nullptr || path == nullptr || !sys->initialized) return -1;
    hivf_live* holder;
    {
        orve::object_lock guard(sys);
        holder = hivf_live_retain(sys->live_hivf.load(std::memory_order_acquire));
    }
    if (holder == nullptr) {
        std::fputs(
            "[IVF_PAGED] build_ivf_paged: no H-IVF built \u2014 call build_ivf_level2 first\n",
            stderr);
        return -1;
    }
    const hivf_pin guard(holder);

    const uint32_t n = orve::load_node_count(sys);
    auto ids = orve::c_alloc_array<uint32_t>(n);
    if (!ids) return -1;
    for (uint32_t k = 0; k < n; ++k) ids[k] = sys->nodes[k].node_id;
    if (orve_ivf_paged_build(&holder->index, ids.get(), path) != 0) return -1;
    ids.reset();

    if (open_and_attach(sys, path, true) != 0) return -1;
    std::fputs("[IVF_PAGED] paged index active \u2014 compacted slabs freed\n", stderr);
    return 0;
}

extern "C" ORVE_API int semantic_vector_indexing_system_open_ivf_paged(
    semantic_vector_indexing_system* sys, const char* path) {
    if (sys == nullptr || path == nullptr || !sys->initialized) return -1;
    return open_and_attach(sys, path, false);
}

extern "C" ORVE_API void semantic_vector_indexing_system_drop_ivf_paged_cache(
    semantic_vector_indexing_system* sys) {
    if (sys == nullptr) return;
    paged_attachment* a = orve::paged_attachment_pin(sys);
    if (a != nullptr) orve_ivf_paged_drop_cache(a->handle);
    orve::paged_attachment_release(a);
}

extern "C" ORVE_API void semantic_vector_indexing_system_set_paged_low_memory(
    semantic_vector_indexing_system* sys, uint32_t on) {
    if (sys == nullptr) return;
    paged_attachment* a = orve::paged_attachment_pin(sys);
    if (a != nullptr) orve_ivf_paged_set_low_memory(a->handle, on);
    orve::paged_attachment_release(a);
}
