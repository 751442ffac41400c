// The flat int8 store: allocated once at full capacity on first need, never moved (searches
// hold row addresses), freed at teardown or dropped for good once other indexes serve queries.
#include <cstdlib>

#include "core/system.h"
#include "quant/dot512_kernels.h"
#include "util/c_alloc.h"

namespace {

void free_flat_arrays(semantic_vector_indexing_system* sys) {
    int8_t* slab = sys->slab_i8;
    orve::store_slab(sys, nullptr);
    std::free(slab);
    std::free(sys->row_scale);
    std::free(sys->row_norm);
    std::free(sys->row_valid);
    sys->row_scale = nullptr;
    sys->row_norm = nullptr;
    sys->row_valid = nullptr;
}

}  // namespace

extern "C" ORVE_API int orve_flat_index_ensure(semantic_vector_indexing_system* sys) {
    if (sys == nullptr) return -1;
    if (sys->slab_i8 != nullptr) return 0;
    // The code block is not zero-filled: its pages are touched only as rows arrive, so a large
    // capacity costs address space, not memory. Scans read only rows marked valid.
    auto slab = orve::c_aligned_array<int8_t>(
        static_cast<std::size_t>(sys->capacity) * orve::kCodeBytes, 64);
    if (!slab) return -1;
    orve::store_slab(sys, slab.release());
    sys->row_scale = static_cast<float*>(std::calloc(sys->capacity, sizeof(float)));
    sys->row_norm = static_cast<float*>(std::calloc(sys->capacity, sizeof(float)));
    sys->row_valid = static_cast<uint8_t*>(std::calloc(sys->capacity, 1));
    if (sys->row_scale == nullptr || sys->row_norm == nullptr || sys->row_valid == nullptr) {
        orve_flat_index_free(sys);
        return -1;
    }
    return 0;
}

extern "C" ORVE_API void orve_flat_index_free(semantic_vector_indexing_system* sys) {
    if (sys == nullptr) return;
    {
        orve::object_lock guard(sys);
        orve::retire_published_indexes(sys);
    }
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
