// A clustering index created with the system's parameters and destroyed at scope exit.
#pragma once

#include <gtest/gtest.h>

#include "semantic_vector_indexing.h"

struct ScopedClusteringIndex {
    enhanced_clustering_index rec{};
    explicit ScopedClusteringIndex(uint32_t clusters = 100) {
        EXPECT_EQ(enhanced_clustering_index_create(&rec, clusters, 128), 0);
    }
    ~ScopedClusteringIndex() { enhanced_clustering_index_destroy(&rec); }
    enhanced_cluster& operator[](uint32_t k) { return rec.clusters[k]; }
};
