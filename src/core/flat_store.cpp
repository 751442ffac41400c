// The flat int8 store: allocated once at full capacity on first need, never moved (searches
// hold row addresses), freed at teardown or dropped for good once other indexes serve queries.
#include <cstdlib>
#include <new>

#include "core/flat_pin.h"
#include "core/system.h"
#include "quant/dot512_kernels.h"
#include "util/c_alloc.h"

namespace {

flat_rows* rows_of(int8_t* slab) {
    return reinterpret_cast<flat_rows*>(slab - orve::kFlatHeaderBytes);
}

// Takes the store out of the object and drops the object's reference; the caller holds the
// lock. A scan that pinned the store keeps the arrays until it releases them.
void free_flat_arrays(semantic_vector_indexing_system* sys) {
    int8_t* slab = sys->slab_i8;
    orve::store_slab(sys, nullptr);
    sys->row_scale = nullptr;
    sys->row_norm = nullptr;
    sys->row_valid = nullptr;
    if (slab != nullptr) orve::flat_release(rows_of(slab));
}

}  // namespace

namespace orve {

flat_view flat_pin(semantic_vector_indexing_system* sys) {
    object_lock guard(sys);
    flat_view v{nullptr, load_node_count(sys), sys->slabs_dropped && sys->slab_i8 == nullptr};
    if (sys->slab_i8 != nullptr) {
        v.store = rows_of(sys->slab_i8);
        v.store->refs.fetch_add(1, std::memory_order_relaxed);
    }
    return v;
}

void flat_release(flat_rows* store) {
    if (store == nullptr || store->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    std::free(const_cast<float*>(store->scale));
    std::free(const_cast<float*>(store->norm));
    std::free(const_cast<uint8_t*>(store->valid));
    store->~flat_rows();
    std::free(store);
}

}  // namespace orve

extern "C" ORVE_API int orve_flat_index_ensure(semantic_vector_indexing_system* sys) {
    if (sys == nullptr) return -1;
    if (sys->slab_i8 != nullptr) return 0;
    // The code block is not zero-filled: its pages are touched only as rows arrive, so a large
    // capacity costs address space, not memory. Scans read only rows marked valid.
    auto block = orve::c_aligned_array<int8_t>(
        orve::kFlatHeaderBytes + static_cast<std::size_t>(sys->capacity) * orve::kCodeBytes, 64);
    auto scale = orve::c_calloc_array<float>(sys->capacity);
    auto norm = orve::c_calloc_array<float>(sys->capacity);
    auto valid = orve::c_calloc_array<uint8_t>(sys->capacity);
    if (!block || !scale || !norm || !valid) return -1;
    int8_t* slab = block.get() + orve::kFlatHeaderBytes;
    new (block.release()) flat_rows{{1}, slab, scale.get(), norm.get(), valid.get()};
    sys->row_scale = scale.release();
    sys->row_norm = norm.release();
    sys->row_valid = valid.release();
    orve::store_slab(sys, slab);
    return 0;
}

extern "C" ORVE_API void orve_flat_index_free(semantic_vector_indexing_system* sys) {
    if (sys == nullptr) return;
    orve::object_lock guard(sys);
    orve::retire_published_indexes(sys);
    free_flat_arrays(sys);
}

extern "C" ORVE_API int orve512_drop_flat_slabs(semantic_vector_indexing_system* sys,
                                                bool confirm) {
    if (sys == nullptr || !confirm) return -1;
    orve::object_lock guard(sys);
    if (sys->slabs_dropped) return 0;
    // The published indexes hold their own copies of the rows and keep serving searches.
    free_flat_arrays(sys);
    orve::store_slabs_dropped(sys, true);
    return 0;
}

extern "C" ORVE_API int semantic_vector_indexing_system_evict_flat_slab(
    semantic_vector_indexing_system* sys) {
    return orve512_drop_flat_slabs(sys, true);
}
