// Creation, teardown, statistics and the size and generation getters of the central object.
#include <cstdlib>
#include <cstring>

#include "core/paged_attachment.h"
#include "core/sidecar_attachment.h"
#include "core/system.h"
#include "util/c_alloc.h"

namespace {

// Builds the two legacy indexes into freshly allocated records. On failure nothing is left
// allocated and the object's pointers stay null, so teardown never runs a destroy function on
// a record that its create function did not fill.
int create_legacy_indexes(semantic_vector_indexing_system* sys) {
    orve::c_unique<enhanced_lsh_index> lsh(
        static_cast<enhanced_lsh_index*>(std::malloc(sizeof(enhanced_lsh_index))));
    orve::c_unique<enhanced_clustering_index> clu(
        static_cast<enhanced_clustering_index*>(std::malloc(sizeof(enhanced_clustering_index))));
    if (!lsh || !clu) return -1;
    if (enhanced_lsh_index_create(lsh.get(), orve::kLegacyDim, orve::kLshHashes) != 0) return -1;
    if (enhanced_clustering_index_create(clu.get(), orve::kClusterCount, orve::kLegacyDim) != 0) {
        enhanced_lsh_index_destroy(lsh.get());
        return -1;
    }
    sys->lsh_index = lsh.release();
    sys->clustering_index = clu.release();
    return 0;
}

void zero_object(semantic_vector_indexing_system* sys) {
    // The atomics are lock-free words with no other state, so zero bytes are their zero value.
    std::memset(static_cast<void*>(sys), 0, sizeof *sys);
}

}  // namespace

extern "C" ORVE_API int semantic_vector_indexing_system_create(
    semantic_vector_indexing_system* sys) {
    if (sys == nullptr) return -1;
    zero_object(sys);

    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0) return -1;
    // Recursive: a locked operation may call another that locks (a failed flat-store allocation
    // frees the store, which retires the published indexes under the same lock).
    if (pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) != 0 ||
        pthread_mutex_init(&sys->lock, &attr) != 0) {
        pthread_mutexattr_destroy(&attr);
        return -1;
    }
    pthread_mutexattr_destroy(&attr);

    sys->live_ivf.store(nullptr);
    sys->ingest_generation.store(0);
    sys->ivf_built_generation.store(0);
    sys->live_hivf.store(nullptr);
    sys->hivf_built_generation.store(0);

    sys->capacity = orve::parse_capacity(std::getenv("ORVE_VECTOR_CAPACITY"));

    sys->nodes = static_cast<indexed_node*>(std::calloc(sys->capacity, sizeof(indexed_node)));
    if (sys->nodes == nullptr) return -1;  // half-created: the mutex lives, destroy cleans up

    if (create_legacy_indexes(sys) != 0) {
        semantic_vector_indexing_system_destroy(sys);
        return -1;
    }
    sys->initialized = 1;
    orve::store_slabs_dropped(sys, false);
    return 0;
}

extern "C" ORVE_API void semantic_vector_indexing_system_destroy(
    semantic_vector_indexing_system* sys) {
    if (sys == nullptr) return;
    // A zeroed block never had its mutex initialised: there is nothing to free and no lock to
    // take. Every created or half-created object has a node table or a capacity.
    const bool has_lock = sys->capacity != 0;
    if (has_lock) orve_flat_index_free(sys);
    if (sys->nodes != nullptr) {
        for (uint32_t r = 0; r < sys->node_count; ++r) {
            orve_quantized_vector_record_free(sys->nodes[r].quantized);
        }
        std::free(sys->nodes);
    }
    if (sys->lsh_index != nullptr) {
        enhanced_lsh_index_destroy(sys->lsh_index);
        std::free(sys->lsh_index);
    }
    if (sys->clustering_index != nullptr) {
        enhanced_clustering_index_destroy(sys->clustering_index);
        std::free(sys->clustering_index);
    }
    orve::sidecar_detach(sys);
    // Closes it unless a search still holds it.
    orve::paged_attachment_release(orve::paged_attachment_swap(sys, nullptr));
    if (has_lock) pthread_mutex_destroy(&sys->lock);
    zero_object(sys);
}

extern "C" ORVE_API uint64_t semantic_vector_indexing_system_sizeof(void) {
    return sizeof(semantic_vector_indexing_system);
}

extern "C" ORVE_API uint32_t semantic_vector_indexing_system_get_vec_dim(void) {
    return ORVE512_DIM;
}

extern "C" ORVE_API int semantic_vector_indexing_system_get_stats(
    semantic_vector_indexing_system* sys, uint32_t* out_node_count, uint32_t* out_cluster_count,
    float* out_avg_similarity, float* out_silhouette) {
    if (sys == nullptr || out_node_count == nullptr || out_cluster_count == nullptr ||
        out_avg_similarity == nullptr || out_silhouette == nullptr) {
        return -1;
    }
    // An object that is not created has no clustering index to read: refuse rather than guess.
    if (!sys->initialized) return -1;
    *out_node_count = orve::load_node_count(sys);
    // The clustering index is absent only after a failed rebuild; it then has no clusters.
    const enhanced_clustering_index* c = sys->clustering_index;
    *out_cluster_count = c != nullptr ? c->n_active : 0;
    *out_silhouette = c != nullptr ? c->silhouette : 0.0f;
    *out_avg_similarity = 0.0f;
    return 0;
}

extern "C" ORVE_API uint64_t
semantic_vector_indexing_system_get_ivf_generation(semantic_vector_indexing_system* sys) {
    return sys == nullptr ? 0 : sys->ingest_generation.load();
}

extern "C" ORVE_API uint64_t
semantic_vector_indexing_system_get_ivf_built_generation(semantic_vector_indexing_system* sys) {
    return sys == nullptr ? 0 : sys->ivf_built_generation.load();
}
