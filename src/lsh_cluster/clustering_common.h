// Pieces shared by the clustering index's lifecycle, its cluster pass and its statistics.
#pragma once

#include <cstddef>
#include <cstdint>

#include "semantic_vector_indexing.h"

namespace orve {

// Components of a centroid, and of the prefix of a vector that clustering compares with it.
inline constexpr int kCentroidDim =
    static_cast<int>(sizeof(enhanced_cluster::centroid) / sizeof(float));

// The index keeps member identifiers only, never vectors, so wherever the cluster pass needs a
// member's vector it stands in this all-zero one. Every distance the pass and its statistics
// measure is therefore taken from or to the zero vector.
inline constexpr float kZeroEmbedding[kCentroidDim] = {};

// Length of every member list; identifiers offered to a full list are dropped.
inline constexpr uint32_t kClusterMemberCapacity = 1000;

// Number of cluster records that may be touched as active. A destroyed or half-created record
// has no cluster array, and a record the host has edited could claim more active clusters than
// it holds; neither may send a loop past the array.
inline uint32_t active_cluster_count(const enhanced_clustering_index* index) {
    if (index->clusters == nullptr) return 0;
    return index->n_active < index->max_clusters ? index->n_active : index->max_clusters;
}

// Index of the active cluster whose centroid is nearest to `vector` (first kCentroidDim floats):
// the first strictly smaller distance wins, starting from +infinity, so ties go to the lowest
// index. Cluster 0 when nothing is active or no distance is below +infinity.
uint32_t nearest_active_cluster(const enhanced_clustering_index* index, const float* vector);

// nearest_active_cluster for each of m rows (`stride` floats apart) into targets[0..m), with
// the same answers. Centroids do not move between cluster passes, so which of them can win is
// settled once for the block rather than once per row.
void nearest_active_clusters(const enhanced_clustering_index* index, const float* rows,
                             std::size_t stride, uint32_t m, uint32_t* targets);

// Places node_id in cluster `target` as enhanced_clustering_index_add_vector does once it has
// found the cluster; -1 when the record has no cluster array (nothing is changed then).
int clustering_add_to(enhanced_clustering_index* index, uint32_t target, uint32_t node_id);

}  // namespace orve
