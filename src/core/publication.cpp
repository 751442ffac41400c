// Building and publishing the IVF and H-IVF from a snapshot of the flat store.
//
// A build holds the object's lock only for three short sections: reading the row count and
// generation, copying the snapshot, and publishing. Allocation and training run unlocked, so
// ingestion and searches go on meanwhile; a build publishes only if no row arrived during it.
#include "core/publication.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "core/system.h"
#include "ivf/ivf_internal.h"
#include "quant/dot512_kernels.h"
#include "util/c_alloc.h"

namespace {

constexpr uint32_t kMinRowsForIndex = 1000;
constexpr int kSnapshotAttempts = 8;

struct snapshot {
    orve::c_unique<int8_t[]> codes;
    orve::c_unique<float[]> scales;
    orve::c_unique<float[]> norms;
    uint32_t n = 0;
    uint64_t generation = 0;
};

bool all_rows_valid(const semantic_vector_indexing_system* sys, uint32_t n) {
    for (uint32_t r = 0; r < n; ++r) {
        if (!sys->row_valid[r]) return false;
    }
    return true;
}

// The checks a build makes before its first snapshot; the caller holds the lock.
using build_check = bool (*)(semantic_vector_indexing_system* sys, uint32_t n, uint32_t param_a,
                             uint32_t param_b);

// Copies the flat store's codes, scales and norms into private buffers, retrying while
// ingestion moves under it. Each attempt takes the lock twice: to read the row count and
// generation (the first attempt also runs `check` there), and to copy. No float copy of the
// rows is made: both builds train from the codes, which keeps a build's peak near one extra
// copy of the int8 rows. Returns 0 with `s` filled, -1 after a failed check, an allocation
// failure or eight moving attempts.
int take_snapshot(semantic_vector_indexing_system* sys, build_check check, uint32_t a, uint32_t b,
                  snapshot& s) {
    for (int attempt = 0; attempt < kSnapshotAttempts; ++attempt) {
        uint32_t n;
        uint64_t g;
        {
            orve::object_lock guard(sys);
            n = sys->node_count;
            if (attempt == 0 && !check(sys, n, a, b)) return -1;
            g = sys->ingest_generation.load(std::memory_order_acquire);
        }
        s = snapshot{};
        const std::size_t n_sz = n;
        s.codes = orve::c_aligned_array<int8_t>(n_sz * orve::kCodeBytes, 64);
        s.scales = orve::c_alloc_array<float>(n_sz);
        s.norms = orve::c_alloc_array<float>(n_sz);
        if (!s.codes || !s.scales || !s.norms) return -1;
        orve::object_lock guard(sys);
        if (sys->slab_i8 == nullptr) return -1;  // dropped while the buffers were allocated
        if (sys->ingest_generation.load(std::memory_order_acquire) != g || sys->node_count != n) {
            continue;
        }
        std::memcpy(s.codes.get(), sys->slab_i8, n_sz * orve::kCodeBytes);
        std::memcpy(s.scales.get(), sys->row_scale, n_sz * sizeof(float));
        std::memcpy(s.norms.get(), sys->row_norm, n_sz * sizeof(float));
        s.n = n;
        s.generation = g;
        return 0;
    }
    return -1;
}

template <typename Holder>
using holder_ptr = std::atomic<Holder*> semantic_vector_indexing_system::*;

// Publishes `fresh` if the object is still at the snapshot's generation and row count, and
// drops the object's reference to the index it replaces. Called with the lock held; on a
// mismatch nothing changes and the caller destroys `fresh`.
template <typename Holder>
bool publish_locked(semantic_vector_indexing_system* sys, Holder* fresh, uint32_t n,
                    uint64_t generation, holder_ptr<Holder> live,
                    std::atomic<uint64_t>& built_generation) {
    if (sys->ingest_generation.load(std::memory_order_acquire) != generation ||
        sys->node_count != n) {
        return false;
    }
    fresh->refs.store(1, std::memory_order_relaxed);
    fresh->generation = generation;
    Holder* old = (sys->*live).exchange(fresh, std::memory_order_acq_rel);
    built_generation.store(generation, std::memory_order_seq_cst);
    orve::live_release(old);
    return true;
}

// Snapshots the store, builds an index from the snapshot with `build` (without the lock) and
// publishes it.
template <typename Holder, typename Build>
int build_and_publish(semantic_vector_indexing_system* sys, build_check check, uint32_t a,
                      uint32_t b, holder_ptr<Holder> live, std::atomic<uint64_t>& built_generation,
                      Build build) {
    snapshot s;
    if (take_snapshot(sys, check, a, b, s) != 0) return -1;
    orve::c_unique<Holder> fresh(static_cast<Holder*>(std::calloc(1, sizeof(Holder))));
    if (!fresh) return -1;
    if (build(s, &fresh->index) != 0) {
        orve::destroy_index(&fresh->index);
        return -1;
    }
    const uint32_t n = s.n;
    const uint64_t g = s.generation;
    s = snapshot{};  // the index holds its own copies of the rows

    orve::object_lock guard(sys);
    if (!publish_locked<Holder>(sys, fresh.get(), n, g, live, built_generation)) {
        orve::destroy_index(&fresh->index);
        return -1;
    }
    fresh.release();
    return 0;
}

}  // namespace

namespace orve {

void retire_published_indexes(semantic_vector_indexing_system* sys) {
    orve_ivf_ptr_free_unlocked(sys);
    orve_hivf_ptr_free_unlocked(sys);
}

}  // namespace orve

extern "C" ORVE_API void orve_ivf_ptr_free_unlocked(semantic_vector_indexing_system* sys) {
    if (sys == nullptr) return;
    ivf_live_release(sys->live_ivf.exchange(nullptr, std::memory_order_acq_rel));
}

extern "C" ORVE_API void orve_hivf_ptr_free_unlocked(semantic_vector_indexing_system* sys) {
    if (sys == nullptr) return;
    hivf_live_release(sys->live_hivf.exchange(nullptr, std::memory_order_acq_rel));
}

extern "C" ORVE_API void orve_ivf_snapshot_buffers_free(float* floats, int8_t* codes, float* scales,
                                                        float* norms, uint8_t* valid) {
    std::free(floats);
    std::free(codes);
    std::free(scales);
    std::free(norms);
    std::free(valid);
}

// ---- builds ---------------------------------------------------------------------------------

extern "C" ORVE_API int semantic_vector_indexing_system_build_ivf(
    semantic_vector_indexing_system* sys, uint32_t nlist, uint32_t seed) {
    if (sys == nullptr || !sys->initialized) return -1;
    // Training reads the snapshot's codes and turns each row into floats as it reads it, with
    // the same arithmetic as a dequantised copy, so the index is the one a float copy gives
    // (every row is valid here) without the 2 KB per row such a copy costs, under the lock or
    // not. The lock is held for three short sections only: checks, copy and publication.
    const build_check check = [](semantic_vector_indexing_system* s, uint32_t n, uint32_t nl,
                                 uint32_t) {
        return n >= kMinRowsForIndex && nl != 0 && nl <= n && s->slab_i8 != nullptr &&
               s->row_valid != nullptr && all_rows_valid(s, n);
    };
    return build_and_publish<ivf_live>(
        sys, check, nlist, 0, &semantic_vector_indexing_system::live_ivf, sys->ivf_built_generation,
        [&](snapshot& s, orve_ivf_index* index) {
            return orve::ivf_build_from_codes(s.codes.get(), s.scales.get(), s.norms.get(), s.n,
                                              nlist, seed, index);
        });
}

extern "C" ORVE_API int semantic_vector_indexing_system_build_ivf_level2(
    semantic_vector_indexing_system* sys, uint32_t b1, uint32_t b2, uint32_t seed) {
    if (sys == nullptr || !sys->initialized) return -1;
    const build_check check = [](semantic_vector_indexing_system* s, uint32_t n, uint32_t l1,
                                 uint32_t l2) {
        return n >= kMinRowsForIndex && l1 != 0 && l2 != 0 && static_cast<uint64_t>(l1) * l2 <= n &&
               s->slab_i8 != nullptr && s->row_valid != nullptr && all_rows_valid(s, n);
    };
    return build_and_publish<hivf_live>(
        sys, check, b1, b2, &semantic_vector_indexing_system::live_hivf, sys->hivf_built_generation,
        [&](snapshot& s, orve_hivf_index* index) {
            // The snapshot is this build's alone, so the build may sort it in place.
            return orve::hivf_build_i8_in_place(s.codes.get(), s.scales.get(), s.norms.get(), s.n,
                                                b1, b2, seed, index);
        });
}

extern "C" ORVE_API void semantic_vector_indexing_system_destroy_ivf(
    semantic_vector_indexing_system* sys) {
    if (sys == nullptr) return;
    {
        orve::object_lock guard(sys);
        orve_ivf_ptr_free_unlocked(sys);
    }
    // Makes builds that snapshotted before the teardown fail at publication, and a published
    // H-IVF stale for new searches.
    sys->ingest_generation.fetch_add(1, std::memory_order_relaxed);
}

extern "C" ORVE_API void semantic_vector_indexing_system_destroy_hivf(
    semantic_vector_indexing_system* sys) {
    if (sys == nullptr) return;
    orve::object_lock guard(sys);
    orve_hivf_ptr_free_unlocked(sys);
}

// ---- pinning --------------------------------------------------------------------------------

namespace {

template <typename Holder>
int pin_live(semantic_vector_indexing_system* sys, holder_ptr<Holder> live, Holder** out) {
    if (sys == nullptr) return -1;
    Holder* h;
    {
        // Writers exchange and release the object's reference only under the lock, so the
        // holder loaded here cannot be freed before the retain.
        orve::object_lock guard(sys);
        h = orve::live_retain((sys->*live).load(std::memory_order_acquire));
    }
    if (h == nullptr) return -1;
    if (h->rows_released ||
        sys->ingest_generation.load(std::memory_order_acquire) != h->generation) {
        orve::live_release(h);
        return -1;
    }
    *out = h;
    return 0;
}

}  // namespace

int ivf_rcu_pin_live(semantic_vector_indexing_system* sys, ivf_live** out) {
    return pin_live<ivf_live>(sys, &semantic_vector_indexing_system::live_ivf, out);
}

int hivf_rcu_pin_live(semantic_vector_indexing_system* sys, hivf_live** out) {
    return pin_live<hivf_live>(sys, &semantic_vector_indexing_system::live_hivf, out);
}
