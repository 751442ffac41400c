#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <vector>

#include "clustering_fixture.h"
#include "semantic_vector_indexing.h"

namespace {

std::vector<indexed_node> node_table(uint32_t n) {
    std::vector<indexed_node> nodes(n);
    for (uint32_t i = 0; i < n; ++i) nodes[i].node_id = 100 + i;  // ids differ from positions
    return nodes;
}

TEST(ClusteringPass, FiveNodesSettleInClusterZeroAfterTwoIterations) {
    ScopedClusteringIndex ix;
    std::vector<float> v(128, 3.0f);
    enhanced_clustering_index_add_vector(&ix.rec, v.data(), 77);  // replaced by the pass
    ix[7].centroid[5] = 3.0f;                                     // reset by the pass
    auto nodes = node_table(5);
    ASSERT_EQ(enhanced_clustering_index_cluster(&ix.rec, nodes.data(), 5), 0);

    EXPECT_EQ(ix.rec.n_active, 100u);
    EXPECT_EQ(ix.rec.iterations, 2u);
    EXPECT_EQ(ix.rec.converged, 1);
    EXPECT_EQ(ix.rec.inertia, 0.0f);
    EXPECT_EQ(ix.rec.silhouette, 0.0f);
    ASSERT_EQ(ix[0].member_count, 5u);
    for (uint32_t i = 0; i < 5; ++i) EXPECT_EQ(ix[0].members[i], i);  // positions, not ids
    for (uint32_t k = 1; k < 100; ++k) EXPECT_EQ(ix[k].member_count, 0u) << k;
    for (uint32_t k = 0; k < 100; ++k) {
        for (float x : ix[k].centroid) ASSERT_EQ(x, 0.0f) << k;
    }
    EXPECT_EQ(ix[0].density, 5.0f);
    EXPECT_EQ(ix[0].nearest_centroid_distance, std::numeric_limits<float>::infinity());
    EXPECT_EQ(ix[0].quality, 0.0f);

    // All centroids are equal now, so a later add ties everywhere and lands in cluster 0.
    ASSERT_EQ(enhanced_clustering_index_add_vector(&ix.rec, v.data(), 77), 0);
    ASSERT_EQ(ix[0].member_count, 6u);
    EXPECT_EQ(ix[0].members[5], 77u);
}

TEST(ClusteringSteps, MetricsFromHandPlacedCentroids) {
    // Cluster 0 at the origin with 30 members, 1 at (3, 4) with 2, 2 empty, 3 at 12 on axis 2
    // with 1. Worked out by hand:
    //   c0: d 0,  density 30/1 = 30, nearest 5 (c1),  quality min(1, 30/6) = 1
    //   c1: d 5,  density 2/6,       nearest 5 (c0),  quality (2/6)/6
    //   c3: d 12, density 1/13,      nearest 12 (c0; c1 is sqrt(169) = 13), quality (1/13)/13
    ScopedClusteringIndex ix;
    ix.rec.n_active = 4;
    ix[0].member_count = 30;
    ix[1].centroid[0] = 3.0f;
    ix[1].centroid[1] = 4.0f;
    ix[1].member_count = 2;
    ix[2].centroid[0] = 1.0f;  // empty: no neighbour for anyone
    ix[2].density = ix[2].nearest_centroid_distance = 9.0f;
    ix[2].quality = 0.42f;
    ix[3].centroid[2] = 12.0f;
    ix[3].member_count = 1;
    auto nodes = node_table(1);
    ASSERT_EQ(calculate_cluster_metrics(&ix.rec, nodes.data(), 1), 0);

    EXPECT_EQ(ix[0].density, 30.0f);
    EXPECT_EQ(ix[0].nearest_centroid_distance, 5.0f);
    EXPECT_EQ(ix[0].quality, 1.0f);
    EXPECT_EQ(ix[1].avg_member_distance, 5.0f);
    EXPECT_EQ(ix[1].intra_distance, 5.0f);
    EXPECT_FLOAT_EQ(ix[1].density, 2.0f / 6.0f);
    EXPECT_EQ(ix[1].nearest_centroid_distance, 5.0f);
    EXPECT_FLOAT_EQ(ix[1].quality, 2.0f / 36.0f);
    EXPECT_EQ(ix[2].density, 0.0f);
    EXPECT_EQ(ix[2].nearest_centroid_distance, 0.0f);
    EXPECT_EQ(ix[2].quality, 0.42f);
    EXPECT_EQ(ix[3].avg_member_distance, 12.0f);
    EXPECT_FLOAT_EQ(ix[3].density, 1.0f / 13.0f);
    EXPECT_EQ(ix[3].nearest_centroid_distance, 12.0f);
    EXPECT_FLOAT_EQ(ix[3].quality, 1.0f / 169.0f);
}

TEST(ClusteringSilhouette, ZeroOverZeroNodesContributeZeroNotNan) {
    // Clusters 0 and 1 both occupied, so every node has another occupied cluster and counts,
    // with a = b = 0 since all members stand at the zero vector.
    ScopedClusteringIndex ix;
    ix.rec.n_active = 100;
    ix[0].member_count = 3;
    for (uint32_t j = 0; j < 3; ++j) ix[0].members[j] = j;
    ix[1].member_count = 1;
    ix[1].centroid[0] = 8.0f;  // centroids play no part in the silhouette
    auto nodes = node_table(4);
    nodes[1].cluster_id = 1;
    nodes[2].cluster_id = 50;    // active but empty
    nodes[3].cluster_id = 4000;  // beyond every cluster
    const float s = calculate_cluster_silhouette_score(&ix.rec, nodes.data(), 4);
    EXPECT_FALSE(std::isnan(s));
    EXPECT_EQ(s, 0.0f);
}

}  // namespace
