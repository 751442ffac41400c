// Lifecycle of the clustering index and the two operations ingestion and hosts use between
// cluster passes: placing an identifier and listing a cluster.
#include <cstdlib>
#include <cstring>
#include <limits>

#include "lsh_cluster/clustering_common.h"
#include "semantic_vector_indexing.h"
#include "util/c_alloc.h"

namespace orve {

uint32_t nearest_active_cluster(const enhanced_clustering_index* index, const float* vector) {
    const uint32_t active = active_cluster_count(index);
    uint32_t target = 0;
    float best = std::numeric_limits<float>::infinity();
    for (uint32_t k = 0; k < active; ++k) {
        const float d = calculate_euclidean_distance(vector, index->clusters[k].centroid);
        if (d < best) {
            best = d;
            target = k;
        }
    }
    return target;
}

void nearest_active_clusters(const enhanced_clustering_index* index, const float* rows,
                             std::size_t stride, uint32_t m, uint32_t* targets) {
    const uint32_t active = active_cluster_count(index);
    // A centroid with the same bits as cluster 0's gives every row the same distance as
    // cluster 0 (or NaN when that one is NaN), never a strictly smaller one, so it can never
    // win: only the others are measured. After a cluster pass every centroid is zero, which
    // leaves one distance per row instead of one per cluster.
    constexpr uint32_t kRoom = 256;  // the system's index has 100 clusters
    uint32_t candidates[kRoom];
    uint32_t n_candidates = 0;
    const std::size_t centroid_bytes = sizeof index->clusters[0].centroid;
    for (uint32_t k = 0; k < active && n_candidates < kRoom; ++k) {
        if (k == 0 || std::memcmp(index->clusters[k].centroid, index->clusters[0].centroid,
                                  centroid_bytes) != 0) {
            candidates[n_candidates++] = k;
        }
    }
    const bool listed_all = n_candidates == kRoom;
    for (uint32_t r = 0; r < m; ++r) {
        const float* vector = rows + r * stride;
        // More distinct centroids than the list holds: measure every one as the one-row path.
        if (listed_all) {
            targets[r] = nearest_active_cluster(index, vector);
            continue;
        }
        uint32_t target = 0;
        float best = std::numeric_limits<float>::infinity();
        for (uint32_t c = 0; c < n_candidates; ++c) {
            const uint32_t k = candidates[c];
            const float d = calculate_euclidean_distance(vector, index->clusters[k].centroid);
            if (d < best) {
                best = d;
                target = k;
            }
        }
        targets[r] = target;
    }
}

int clustering_add_to(enhanced_clustering_index* index, uint32_t target, uint32_t node_id) {
    // A destroyed record (for instance after a rebuild whose re-creation failed) has no cluster
    // 0 to fall back on. Refusing lets ingestion fail that row cleanly instead of writing
    // through a null array.
    if (index->clusters == nullptr || index->max_clusters == 0) return -1;
    enhanced_cluster& c = index->clusters[target];
    // Centroids stay where they are: only a cluster pass moves them.
    if (c.member_count < c.member_capacity) c.members[c.member_count++] = node_id;
    return 0;
}

}  // namespace orve

extern "C" ORVE_API int32_t enhanced_clustering_index_create(enhanced_clustering_index* index,
                                                             uint32_t max_clusters, uint32_t dim) {
    if (index == nullptr || max_clusters == 0 || dim == 0) return -1;
    *index = enhanced_clustering_index{};
    index->max_clusters = max_clusters;
    index->dim = dim;
    index->tolerance = 0.001f;
    index->max_iterations = 100;

    auto clusters = orve::c_calloc_array<enhanced_cluster>(max_clusters);
    if (clusters == nullptr) return -1;
    // From here on the record owns the array, so destroy can undo a partial build: it frees
    // every member list that exists and skips the null ones calloc left behind.
    index->clusters = clusters.release();
    for (uint32_t k = 0; k < max_clusters; ++k) {
        enhanced_cluster& c = index->clusters[k];
        c.cluster_id = k;
        c.member_capacity = orve::kClusterMemberCapacity;
        auto members = orve::c_calloc_array<uint32_t>(orve::kClusterMemberCapacity);
        if (members == nullptr) {
            enhanced_clustering_index_destroy(index);
            return -1;
        }
        c.members = members.release();
    }
    return 0;
}

extern "C" ORVE_API void enhanced_clustering_index_destroy(enhanced_clustering_index* index) {
    if (index == nullptr) return;
    if (index->clusters != nullptr) {
        for (uint32_t k = 0; k < index->max_clusters; ++k) std::free(index->clusters[k].members);
        std::free(index->clusters);
    }
    *index = enhanced_clustering_index{};
}

extern "C" ORVE_API int32_t enhanced_clustering_index_add_vector(enhanced_clustering_index* index,
                                                                 const float* vector,
                                                                 uint32_t node_id) {
    if (index == nullptr || vector == nullptr) return -1;
    return orve::clustering_add_to(index, orve::nearest_active_cluster(index, vector), node_id);
}

extern "C" ORVE_API int32_t enhanced_clustering_index_search_by_cluster(
    const enhanced_clustering_index* index, uint32_t cluster, vector_similarity_result* results,
    uint32_t* count) {
    if (index == nullptr || results == nullptr || count == nullptr) return -1;
    *count = 0;
    if (cluster >= orve::active_cluster_count(index)) return -1;
    const enhanced_cluster& c = index->clusters[cluster];
    uint32_t n = c.member_count < orve::kClusterMemberCapacity ? c.member_count
                                                               : orve::kClusterMemberCapacity;
    if (n > c.member_capacity) n = c.member_capacity;
    for (uint32_t i = 0; i < n; ++i) {
        vector_similarity_result& r = results[i];
        r.node_id = c.members[i];
        r.similarity = 1.0f;
        r.distance = 0.0f;
        r.cluster_id = cluster;
        r.node_score = c.quality;
        r.rank = i + 1;
    }
    *count = n;
    return 0;
}
