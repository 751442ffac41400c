// Quality figures of the clustering index: per-cluster metrics and the mean silhouette.
// Members are stood in for by the zero vector (the index keeps no vectors), so the figures
// describe centroid placement and cluster sizes rather than real member spread.
#include <algorithm>
#include <cfloat>
#include <limits>

#include "lsh_cluster/clustering_common.h"
#include "semantic_vector_indexing.h"

extern "C" ORVE_API int32_t calculate_cluster_metrics(enhanced_clustering_index* index,
                                                      const indexed_node* nodes,
                                                      uint32_t node_count) {
    (void)node_count;
    if (index == nullptr || nodes == nullptr) return -1;
    constexpr float kInf = std::numeric_limits<float>::infinity();
    const uint32_t active = orve::active_cluster_count(index);
    for (uint32_t k = 0; k < active; ++k) {
        enhanced_cluster& c = index->clusters[k];
        const uint32_t m = c.member_count;
        if (m == 0) {
            // quality is left as it was: an emptied cluster keeps its last rating.
            c.avg_member_distance = 0.0f;
            c.density = 0.0f;
            c.intra_distance = 0.0f;
            c.nearest_centroid_distance = 0.0f;
            continue;
        }
        // Every member's distance to the centroid is the same; measure it once and keep the
        // member-by-member running sum so the mean rounds like one.
        const float to_centroid = calculate_euclidean_distance(orve::kZeroEmbedding, c.centroid);
        float sum = 0.0f;
        for (uint32_t j = 0; j < m; ++j) sum += to_centroid;
        const float d = sum / static_cast<float>(m);
        c.avg_member_distance = d;
        c.intra_distance = d;
        c.density = static_cast<float>(m) / (d + 1.0f);

        float nearest = kInf;
        for (uint32_t o = 0; o < active; ++o) {
            if (o == k || index->clusters[o].member_count == 0) continue;
            const float between =
                calculate_euclidean_distance(c.centroid, index->clusters[o].centroid);
            if (between < nearest) nearest = between;
        }
        c.nearest_centroid_distance = nearest;
        // A lone non-empty cluster has nothing to be separated from: density / +inf gives 0.
        c.quality = std::min(1.0f, c.density / (nearest + 1.0f));
    }
    return 0;
}

extern "C" ORVE_API float calculate_cluster_silhouette_score(const enhanced_clustering_index* index,
                                                             const indexed_node* nodes,
                                                             uint32_t node_count) {
    if (index == nullptr || nodes == nullptr || node_count == 0) return 0.0f;
    constexpr float kInf = std::numeric_limits<float>::infinity();
    const uint32_t active = orve::active_cluster_count(index);

    // Every member's vector is the zero stand-in, so every distance in this score is the one
    // from the zero vector to itself: a single value z, measured once. A sum of n such
    // distances is then n * z, and a mean over a cluster is z.
    const float z = calculate_euclidean_distance(orve::kZeroEmbedding, orve::kZeroEmbedding);

    // b for a node is the smallest per-cluster mean distance over the non-empty active clusters
    // other than the node's own. Those means do not depend on the node, so keep the best and
    // the runner-up (the best among all but the best's cluster) and pick per node.
    float best = kInf, runner_up = kInf;
    uint32_t best_cluster = UINT32_MAX;
    for (uint32_t k = 0; k < active; ++k) {
        const uint32_t m = index->clusters[k].member_count;
        if (m == 0) continue;
        const float mean = z * static_cast<float>(m) / static_cast<float>(m);
        if (mean < best) {
            runner_up = best;
            best = mean;
            best_cluster = k;
        } else if (mean < runner_up) {
            runner_up = mean;
        }
    }

    float sum = 0.0f;
    uint32_t counted = 0;
    for (uint32_t i = 0; i < node_count; ++i) {
        const uint32_t g = nodes[i].cluster_id;
        const float b = g == best_cluster ? runner_up : best;
        if (b > FLT_MAX) continue;  // no other cluster has members: the node does not count

        float a = 0.0f;
        if (g < active && index->clusters[g].member_count > 1) {
            const enhanced_cluster& own = index->clusters[g];
            const uint32_t listed = std::min(own.member_count, own.member_capacity);
            uint32_t others = 0;
            for (uint32_t j = 0; j < listed; ++j) others += own.members[j] != i ? 1u : 0u;
            a = z * static_cast<float>(others) / static_cast<float>(own.member_count - 1);
        }
        // Left to us: with every distance zero, a node that counts has a = b = 0 and the usual
        // (b - a) / max(a, b) is 0/0. Such a node is neither closer to its own cluster nor to
        // another, so it contributes 0 (the neutral silhouette value) instead of a NaN that
        // would poison the mean and the index's reported silhouette.
        const float denom = std::max(a, b);
        sum += denom > 0.0f ? (b - a) / denom : 0.0f;
        ++counted;
    }
    return counted == 0 ? 0.0f : sum / static_cast<float>(counted);
}
