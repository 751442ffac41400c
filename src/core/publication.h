// Published indexes: reference-counted holders that searches pin, so a scan can run without
// the object's lock while a rebuild publishes a replacement or a teardown retires the index.
// The object's own pointer owns one reference; the last release frees the holder, in whatever
// thread that happens.
#pragma once

#include <atomic>
#include <cstdint>

#include "semantic_vector_indexing.h"

struct ivf_live {
    std::atomic<uint32_t> refs;
    uint64_t generation;  // ingest_generation the index was built from
    orve_ivf_index index;
};

struct hivf_live {
    std::atomic<uint32_t> refs;
    uint64_t generation;
    orve_hivf_index index;
    // Set on the copy published once a paged file holds the rows: it keeps the routing data
    // for a later write but can answer no search, so it is never pinned for one.
    bool rows_released;
};

ivf_live* ivf_live_retain(ivf_live* holder);
void ivf_live_release(ivf_live* holder);
hivf_live* hivf_live_retain(hivf_live* holder);
void hivf_live_release(hivf_live* holder);

// Pins the published index for a search: 0 with *out set (release it exactly once), or -1
// when there is none, it is stale (a row arrived, or an IVF teardown happened, since its
// build) or, for the H-IVF, its rows were released to a paged file.
int ivf_rcu_pin_live(semantic_vector_indexing_system* sys, ivf_live** out);
int hivf_rcu_pin_live(semantic_vector_indexing_system* sys, hivf_live** out);
