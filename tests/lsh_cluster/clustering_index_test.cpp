#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "clustering_fixture.h"
#include "semantic_vector_indexing.h"

namespace {

TEST(ClusteringIndexAdd, PicksNearestActiveCentroidOnFirst128ComponentsTiesToLowest) {
    ScopedClusteringIndex ix;
    ix.rec.n_active = 3;
    ix[0].centroid[0] = 10.0f;
    ix[1].centroid[1] = 2.0f;
    ix[2].centroid[1] = 2.0f;           // same distance as cluster 1
    ix[3].centroid[1] = 1.0f;           // would be exact, but cluster 3 is not active
    std::vector<float> v(512, 1.0e6f);  // components past 128 must not count
    std::fill(v.begin(), v.begin() + 128, 0.0f);
    v[1] = 1.0f;
    ASSERT_EQ(enhanced_clustering_index_add_vector(&ix.rec, v.data(), 42), 0);
    ASSERT_EQ(ix[1].member_count, 1u);
    EXPECT_EQ(ix[1].members[0], 42u);
    EXPECT_EQ(ix[0].member_count + ix[2].member_count + ix[3].member_count, 0u);
    EXPECT_EQ(ix[1].centroid[1], 2.0f);  // adding does not move centroids
}

TEST(ClusteringIndexSearch, ListsMembersInOrderAndRefusesInactiveClusters) {
    ScopedClusteringIndex ix;
    vector_similarity_result out[4];
    std::memset(out, 0xEE, sizeof out);
    uint32_t count = 5;
    EXPECT_EQ(enhanced_clustering_index_search_by_cluster(nullptr, 0, out, &count), -1);
    EXPECT_EQ(enhanced_clustering_index_search_by_cluster(&ix.rec, 0, nullptr, &count), -1);
    EXPECT_EQ(enhanced_clustering_index_search_by_cluster(&ix.rec, 0, out, nullptr), -1);
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(enhanced_clustering_index_search_by_cluster(&ix.rec, 3, out, &count), -1);
    EXPECT_EQ(count, 0u);

    std::vector<float> v(128, 0.0f);
    for (uint32_t id : {9u, 4u, 7u}) enhanced_clustering_index_add_vector(&ix.rec, v.data(), id);
    ix.rec.n_active = 2;
    ix[0].quality = 0.75f;
    ASSERT_EQ(enhanced_clustering_index_search_by_cluster(&ix.rec, 0, out, &count), 0);
    ASSERT_EQ(count, 3u);
    const uint32_t ids[] = {9, 4, 7};
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(out[i].node_id, ids[i]);
        EXPECT_EQ(out[i].similarity, 1.0f);
        EXPECT_EQ(out[i].distance, 0.0f);
        EXPECT_EQ(out[i].cluster_id, 0u);
        EXPECT_EQ(out[i].node_score, 0.75f);
        EXPECT_EQ(out[i].rank, i + 1);
    }
    EXPECT_EQ(out[3].rank, 0xEEEEEEEEu);  // past the count: untouched
    EXPECT_EQ(enhanced_clustering_index_search_by_cluster(&ix.rec, 1, out, &count), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(enhanced_clustering_index_search_by_cluster(&ix.rec, 2, out, &count), -1);
}

}  // namespace
