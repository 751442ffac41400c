// Published indexes: reference-counted holders that searches pin, so a scan can run without
// the object's lock while a rebuild publishes a replacement or a teardown retires the index.
// The object's own pointer owns one reference; the last release frees the holder, in whatever
// thread that happens.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "semantic_vector_indexing.h"
#include "util/pin_guard.h"

namespace orve {

inline void destroy_index(orve_ivf_index* index) {
    orve_ivf_index_destroy(index);
}
inline void destroy_index(orve_hivf_index* index) {
    orve_hivf_index_destroy(index);
}

// One published index and the references to it.
template <typename Index>
struct live_holder {
    std::atomic<uint32_t> refs;
    uint64_t generation;  // ingest_generation the index was built from
    Index index;
    // Set only on the H-IVF copy published once a paged file holds the rows: it keeps the
    // routing data for a later write but can answer no search, so it is never pinned for one.
    bool rows_released;
};

template <typename Holder>
Holder* live_retain(Holder* holder) {
    if (holder != nullptr) holder->refs.fetch_add(1, std::memory_order_acquire);
    return holder;
}

// Drops one reference; the last frees the index and the holder.
template <typename Holder>
void live_release(Holder* holder) {
    if (holder == nullptr) return;
    if (holder->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        destroy_index(&holder->index);
        std::free(holder);
    }
}

}  // namespace orve

// Named types rather than aliases, so that other headers can declare them without this one.
struct ivf_live : orve::live_holder<orve_ivf_index> {};
struct hivf_live : orve::live_holder<orve_hivf_index> {};

inline constexpr auto ivf_live_retain = &orve::live_retain<ivf_live>;
inline constexpr auto ivf_live_release = &orve::live_release<ivf_live>;
inline constexpr auto hivf_live_retain = &orve::live_retain<hivf_live>;
inline constexpr auto hivf_live_release = &orve::live_release<hivf_live>;

// A pin released when its scope ends; every search path holds its pin through one of these.
using ivf_pin = orve::pin_guard<ivf_live, ivf_live_release>;
using hivf_pin = orve::pin_guard<hivf_live, hivf_live_release>;

// Pins the published index for a search: 0 with *out set (release it exactly once), or -1
// when there is none, it is stale (a row arrived, or an IVF teardown happened, since its
// build) or, for the H-IVF, its rows were released to a paged file.
int ivf_rcu_pin_live(semantic_vector_indexing_system* sys, ivf_live** out);
int hivf_rcu_pin_live(semantic_vector_indexing_system* sys, hivf_live** out);
