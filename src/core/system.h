// The central object's layout and the few internal helpers that every part of the library that
// touches it shares.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "semantic_vector_indexing.h"

struct ivf_live;
struct hivf_live;
struct paged_attachment;

// Types of the sub-records are named by their struct tags so this layout does not depend on
// which parts of the library are built.
// Field order is part of the object's contract (tools and debuggers read it), so fields are
// never reordered. The host sees only the size.
struct semantic_vector_indexing_system {
    struct indexed_node* nodes;
    struct enhanced_lsh_index* lsh_index;
    struct enhanced_clustering_index* clustering_index;
    uint32_t node_count;
    uint32_t capacity;
    uint8_t initialized;
    int64_t last_update_time;
    int8_t* slab_i8;
    float* row_scale;
    float* row_norm;
    uint8_t* row_valid;
    float*
        dequant_cache;  // always null: IVF training reads the int8 rows, so no float copy is kept
    std::atomic<ivf_live*> live_ivf;
    std::atomic<uint64_t> ingest_generation;
    std::atomic<uint64_t> ivf_built_generation;
    pthread_mutex_t lock;
    std::atomic<hivf_live*> live_hivf;
    std::atomic<uint64_t> hivf_built_generation;
    struct orve_vec_sidecar* sidecar;
    paged_attachment* paged;  // the open paged index, reference-counted (see paged_attachment.h)
    uint8_t slabs_dropped;
};

namespace orve {

constexpr uint32_t kMaxCapacity = ORVE_MAX_CAPACITY;
// The legacy LSH and clustering indexes hold the hashed text embeddings.
constexpr int kLegacyDim = ORVE_HASHED_EMBEDDING_DIM;
constexpr int kLshHashes = 8;
constexpr int kClusterCount = 100;

// Holds the object's recursive lock for a scope.
class object_lock {
  public:
    explicit object_lock(semantic_vector_indexing_system* sys) : m_(&sys->lock) {
        pthread_mutex_lock(m_);
    }
    ~object_lock() { pthread_mutex_unlock(m_); }
    object_lock(const object_lock&) = delete;
    object_lock& operator=(const object_lock&) = delete;

  private:
    pthread_mutex_t* m_;
};

// node_count is written under the lock but also read without it: by the index searches, the
// unlocked capacity pre-checks of ingestion and by get_stats. Those reads, and every write, go
// through atomic_ref so that they are atomic accesses rather than data races.
inline uint32_t load_node_count(semantic_vector_indexing_system* sys) {
    return std::atomic_ref<uint32_t>(sys->node_count).load(std::memory_order_acquire);
}
inline void store_node_count(semantic_vector_indexing_system* sys, uint32_t n) {
    std::atomic_ref<uint32_t>(sys->node_count).store(n, std::memory_order_release);
}

// slab_i8 and slabs_dropped are written under the lock but read without it by the front end's
// brute-force guard; the same atomic_ref scheme keeps those reads race-free.
inline int8_t* load_slab(semantic_vector_indexing_system* sys) {
    return std::atomic_ref<int8_t*>(sys->slab_i8).load(std::memory_order_acquire);
}
inline void store_slab(semantic_vector_indexing_system* sys, int8_t* slab) {
    std::atomic_ref<int8_t*>(sys->slab_i8).store(slab, std::memory_order_release);
}
inline bool load_slabs_dropped(semantic_vector_indexing_system* sys) {
    return std::atomic_ref<uint8_t>(sys->slabs_dropped).load(std::memory_order_acquire) != 0;
}
inline void store_slabs_dropped(semantic_vector_indexing_system* sys, bool dropped) {
    std::atomic_ref<uint8_t>(sys->slabs_dropped).store(dropped ? 1 : 0, std::memory_order_release);
}

// Parses a capacity the way ORVE_VECTOR_CAPACITY is read: base-10 signed 64-bit, leading blanks
// and a sign allowed, stopping at the first non-digit; the low 32 bits taken as unsigned; any
// value outside 1..1,100,000 (or null text) gives 1,100,000.
uint32_t parse_capacity(const char* text);

// Swaps the published IVF and H-IVF out of the object and drops the object's reference to
// each. The caller holds the object's lock.
void retire_published_indexes(semantic_vector_indexing_system* sys);

}  // namespace orve
