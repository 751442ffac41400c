#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <tuple>
#include <vector>

#include "lsh_cluster/clustering_common.h"
#include "semantic_vector_indexing.h"

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();

struct ScopedClustering {
    enhanced_clustering_index rec{};
    ScopedClustering() { EXPECT_EQ(enhanced_clustering_index_create(&rec, 100, 128), 0); }
    ~ScopedClustering() { enhanced_clustering_index_destroy(&rec); }
    enhanced_cluster& operator[](uint32_t k) { return rec.clusters[k]; }
};

std::vector<indexed_node> node_table(uint32_t n) {
    std::vector<indexed_node> nodes(n);
    for (uint32_t i = 0; i < n; ++i) nodes[i].node_id = 100 + i;  // ids differ from positions
    return nodes;
}

// The block search for nearest clusters against the one-row one, over centroid layouts with
// copies of cluster 0 (skipped by the block search), a NaN centroid, ties and inactive
// clusters, and rows with extreme values.
TEST(ClusteringBlock, NearestClustersMatchTheOneRowSearch) {
    std::mt19937 gen(5);
    std::uniform_real_distribution<float> u(-2.0f, 2.0f);
    const std::size_t stride = 512;
    std::vector<float> rows(12 * stride);
    for (float& x : rows) x = u(gen);
    rows[0] = kInf;
    rows[stride + 7] = std::nanf("");
    rows[2 * stride + 1] = 1e30f;
    std::memset(&rows[3 * stride], 0, 128 * sizeof(float));
    enum layout { kFresh, kAllZero, kCopiesOfZero, kNanFirst, kDistinct };
    for (layout l : {kFresh, kAllZero, kCopiesOfZero, kNanFirst, kDistinct}) {
        SCOPED_TRACE(l);
        ScopedClustering ix;
        if (l != kFresh) ix.rec.n_active = l == kDistinct ? 60 : 100;
        for (uint32_t k = 0; l >= kCopiesOfZero && k < 100; ++k) {
            // Every third cluster a copy of cluster 0, the rest spread out.
            const bool copy = l == kCopiesOfZero && k % 3 == 0;
            for (float& x : ix[k].centroid) x = copy ? 0.5f : u(gen);
        }
        if (l == kCopiesOfZero) ix[42].centroid[127] = 0.25f;  // differs in one component only
        if (l == kNanFirst) ix[0].centroid[3] = std::nanf("");
        if (l == kDistinct) std::memcpy(ix[8].centroid, ix[9].centroid, sizeof ix[9].centroid);
        uint32_t targets[12];
        orve::nearest_active_clusters(&ix.rec, rows.data(), stride, 12, targets);
        for (uint32_t r = 0; r < 12; ++r)
            EXPECT_EQ(targets[r], orve::nearest_active_cluster(&ix.rec, &rows[r * stride])) << r;
    }
}

TEST(ClusteringIndex, AddPicksNearestActiveCentroidAndSearchListsMembers) {
    ScopedClustering ix;
    ix.rec.n_active = 3;
    ix[0].centroid[0] = 10.0f;
    ix[1].centroid[1] = 2.0f;
    ix[2].centroid[1] = 2.0f;           // same distance as cluster 1: the lower index wins
    ix[3].centroid[1] = 1.0f;           // would be exact, but cluster 3 is not active
    std::vector<float> v(512, 1.0e6f);  // components past 128 must not count
    std::fill(v.begin(), v.begin() + 128, 0.0f);
    v[1] = 1.0f;
    for (uint32_t id : {42u, 9u})
        ASSERT_EQ(enhanced_clustering_index_add_vector(&ix.rec, v.data(), id), 0);
    EXPECT_EQ(ix[0].member_count + ix[2].member_count + ix[3].member_count, 0u);
    EXPECT_EQ(ix[1].centroid[1], 2.0f);  // adding does not move centroids

    vector_similarity_result out[3];
    std::memset(out, 0xEE, sizeof out);
    uint32_t count = 5;
    ix[1].quality = 0.75f;
    ASSERT_EQ(enhanced_clustering_index_search_by_cluster(&ix.rec, 1, out, &count), 0);
    ASSERT_EQ(count, 2u);
    for (uint32_t i = 0; i < 2; ++i)
        EXPECT_EQ(std::tuple(out[i].node_id, out[i].cluster_id, out[i].node_score, out[i].rank),
                  std::tuple(i == 0 ? 42u : 9u, 1u, 0.75f, i + 1));
    EXPECT_EQ(out[2].rank, 0xEEEEEEEEu);  // past the count: untouched
    EXPECT_EQ(enhanced_clustering_index_search_by_cluster(&ix.rec, 3, out, &count), -1);
    EXPECT_EQ(count, 0u);
}

// Five identical nodes: the pass resets every centroid (even ones set by hand or by adds),
// puts all five, by position, in cluster 0 and settles on the second iteration.
TEST(ClusteringPass, FiveNodesSettleInClusterZeroAfterTwoIterations) {
    ScopedClustering ix;
    std::vector<float> v(128, 3.0f);
    enhanced_clustering_index_add_vector(&ix.rec, v.data(), 77);
    ix[7].centroid[5] = 3.0f;
    auto nodes = node_table(5);
    ASSERT_EQ(enhanced_clustering_index_cluster(&ix.rec, nodes.data(), 5), 0);
    EXPECT_EQ(ix.rec.n_active, 100u);
    EXPECT_EQ(ix.rec.iterations, 2u);
    EXPECT_EQ(ix.rec.converged, 1);
    EXPECT_EQ(ix.rec.inertia, 0.0f);
    ASSERT_EQ(ix[0].member_count, 5u);
    for (uint32_t i = 0; i < 5; ++i) EXPECT_EQ(ix[0].members[i], i);
    for (uint32_t k = 1; k < 100; ++k) ASSERT_EQ(ix[k].member_count, 0u) << k;
    EXPECT_EQ(ix[7].centroid[5], 0.0f);
}

TEST(ClusteringPass, MetricsFromHandPlacedCentroidsAndANeutralSilhouette) {
    // Cluster 0 at the origin with 30 members, 1 at (3, 4) with 2, 2 empty, 3 at 12 on axis 2
    // with 1. Worked out by hand:
    //   c0: d 0,  density 30/1 = 30, nearest 5 (c1),  quality min(1, 30/6) = 1
    //   c1: d 5,  density 2/6,       nearest 5 (c0),  quality (2/6)/6
    //   c3: d 12, density 1/13,      nearest 12 (c0; c1 is sqrt(169) = 13), quality (1/13)/13
    ScopedClustering ix;
    ix.rec.n_active = 4;
    ix[0].member_count = 30;
    ix[1].centroid[0] = 3.0f, ix[1].centroid[1] = 4.0f, ix[1].member_count = 2;
    ix[2].centroid[0] = 1.0f;  // empty: no neighbour for anyone
    ix[2].density = ix[2].nearest_centroid_distance = 9.0f;
    ix[2].quality = 0.42f;
    ix[3].centroid[2] = 12.0f;
    ix[3].member_count = 1;
    auto nodes = node_table(4);
    ASSERT_EQ(calculate_cluster_metrics(&ix.rec, nodes.data(), 1), 0);
    const struct {
        uint32_t k;
        float distance, density, nearest, quality;
    } want[] = {{0, 0.0f, 30.0f, 5.0f, 1.0f},
                {1, 5.0f, 2.0f / 6.0f, 5.0f, 2.0f / 36.0f},
                {2, 0.0f, 0.0f, 0.0f, 0.42f},  // emptied: quality kept
                {3, 12.0f, 1.0f / 13.0f, 12.0f, 1.0f / 169.0f}};
    for (const auto& w : want) {
        SCOPED_TRACE(w.k);
        EXPECT_EQ(ix[w.k].avg_member_distance, w.distance);
        EXPECT_EQ(ix[w.k].intra_distance, w.distance);
        EXPECT_FLOAT_EQ(ix[w.k].density, w.density);
        EXPECT_EQ(ix[w.k].nearest_centroid_distance, w.nearest);
        EXPECT_FLOAT_EQ(ix[w.k].quality, w.quality);
    }
    // Every node counts (another cluster is occupied) with a = b = 0: the neutral 0, not 0/0.
    for (uint32_t j = 0; j < 3; ++j) ix[0].members[j] = j;
    nodes[1].cluster_id = 1;
    nodes[2].cluster_id = 2;     // active but empty
    nodes[3].cluster_id = 4000;  // beyond every cluster
    EXPECT_EQ(calculate_cluster_silhouette_score(&ix.rec, nodes.data(), 4), 0.0f);
}

}  // namespace
