#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "core/system.h"
#include "support/system_fixture.h"

namespace {

using orve_test::create_with_capacity;
using orve_test::system_block;

TEST(Capacity, ParsingRules) {
    EXPECT_EQ(orve::parse_capacity(nullptr), 1100000u);
    EXPECT_EQ(orve::parse_capacity("500000"), 500000u);
    EXPECT_EQ(orve::parse_capacity("1"), 1u);
    EXPECT_EQ(orve::parse_capacity("1100000"), 1100000u);
    EXPECT_EQ(orve::parse_capacity("1100001"), 1100000u);
    EXPECT_EQ(orve::parse_capacity("0"), 1100000u);
    EXPECT_EQ(orve::parse_capacity("-5"), 1100000u);
    EXPECT_EQ(orve::parse_capacity("abc"), 1100000u);
    EXPECT_EQ(orve::parse_capacity("123abc"), 123u);
    EXPECT_EQ(orve::parse_capacity("  +77"), 77u);
    EXPECT_EQ(orve::parse_capacity("4294967297"), 1u);  // low 32 bits of 2^32 + 1
    EXPECT_EQ(orve::parse_capacity("99999999999999999999"), 1100000u);
}

TEST(SystemObject, CreateReadsCapacityFromEnvironment) {
    for (auto [env, want] :
         {std::pair<const char*, uint32_t>{"2500", 2500}, {nullptr, 1100000}, {"junk", 1100000}}) {
        system_block b;
        ASSERT_EQ(create_with_capacity(b.get(), env), 0);
        EXPECT_EQ(b.get()->capacity, want);
        EXPECT_EQ(b.get()->initialized, 1);
    }
}

TEST(SystemObject, FreshObjectStatsAndGenerations) {
    system_block b;
    ASSERT_EQ(create_with_capacity(b.get(), "100"), 0);
    uint32_t nodes = 9, clusters = 9;
    float avg = 9.0f, sil = 9.0f;
    ASSERT_EQ(semantic_vector_indexing_system_get_stats(b.get(), &nodes, &clusters, &avg, &sil), 0);
    EXPECT_EQ(nodes, 0u);
    EXPECT_EQ(clusters, 0u);
    EXPECT_EQ(avg, 0.0f);
    EXPECT_EQ(sil, 0.0f);
    EXPECT_EQ(semantic_vector_indexing_system_get_ivf_generation(b.get()), 0u);
    EXPECT_EQ(semantic_vector_indexing_system_get_ivf_built_generation(b.get()), 0u);
    EXPECT_EQ(semantic_vector_indexing_system_get_ivf_generation(nullptr), 0u);
    EXPECT_EQ(semantic_vector_indexing_system_get_ivf_built_generation(nullptr), 0u);
    EXPECT_EQ(semantic_vector_indexing_system_get_stats(b.get(), nullptr, &clusters, &avg, &sil),
              -1);
    EXPECT_EQ(semantic_vector_indexing_system_get_vec_dim(), 512u);
    // Nothing but the node table and the legacy indexes exists before the first embedding.
    EXPECT_EQ(b.get()->slab_i8, nullptr);
    EXPECT_EQ(b.get()->sidecar, nullptr);
    for (uint32_t r = 0; r < 100; ++r) {
        indexed_node zero;
        std::memset(&zero, 0, sizeof zero);
        ASSERT_EQ(std::memcmp(&b.get()->nodes[r], &zero, sizeof zero), 0);
    }
}

TEST(SystemObject, SizeMatchesLayoutAndDestroyIsIdempotent) {
    // Eight pointers and words before the mutex, five after it (see the field list).
    EXPECT_EQ(semantic_vector_indexing_system_sizeof(), 152u + sizeof(pthread_mutex_t));
    EXPECT_EQ(orve512_batch_query_sizeof(), 56u);
    system_block b;
    semantic_vector_indexing_system_destroy(b.get());  // zeroed block
    semantic_vector_indexing_system_destroy(nullptr);
    ASSERT_EQ(create_with_capacity(b.get(), "10"), 0);
    semantic_vector_indexing_system_destroy(b.get());
    semantic_vector_indexing_system_destroy(b.get());
    EXPECT_EQ(b.get()->initialized, 0);
    uint32_t n, c;
    float a, s;
    EXPECT_EQ(semantic_vector_indexing_system_get_stats(b.get(), &n, &c, &a, &s), -1);
    ASSERT_EQ(create_with_capacity(b.get(), "10"), 0);  // usable again after destroy
    std::vector<float> v(512, 1.0f);
    EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(b.get(), 3, v.data()), 0);
    EXPECT_EQ(semantic_vector_indexing_system_create(nullptr), -1);
}

TEST(Ingestion, EmbeddingRowsAndRefusals) {
    system_block b;
    auto* sys = b.get();
    ASSERT_EQ(create_with_capacity(sys, "2"), 0);
    std::vector<float> v(512, 0.0f);
    v[3] = 0.5f;
    EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 0, v.data()), -1);
    EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 5, nullptr), -1);
    EXPECT_EQ(sys->node_count, 0u);
    EXPECT_EQ(sys->ingest_generation.load(), 0u);

    ASSERT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 5, v.data()), 0);
    const indexed_node& n = sys->nodes[0];
    EXPECT_EQ(n.node_id, 5u);
    EXPECT_EQ(n.active, 1u);
    EXPECT_EQ(n.weight, 1.0f);
    EXPECT_EQ(n.cluster_id, 0u);
    EXPECT_EQ(n.score, 0.0f);
    EXPECT_EQ(n.quantized, nullptr);
    EXPECT_GT(n.timestamp, 1600000000);
    EXPECT_EQ(sys->row_valid[0], 1);
    EXPECT_EQ(sys->row_scale[0], 254.0f);
    EXPECT_EQ(sys->row_norm[0], 0.5f);
    EXPECT_EQ(sys->slab_i8[3], 127);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(sys->slab_i8) % 64, 0u);
    EXPECT_EQ(sys->ingest_generation.load(), 1u);

    // A zero vector is an ordinary row.
    std::vector<float> zero(512, 0.0f);
    ASSERT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 6, zero.data()), 0);
    EXPECT_EQ(sys->row_valid[1], 1);
    EXPECT_EQ(sys->row_scale[1], 0.0f);
    // Full.
    EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 7, v.data()), -1);
    EXPECT_EQ(sys->node_count, 2u);
}

TEST(Ingestion, LoadVectorsNumbersRowsAndShareOneTimestamp) {
    system_block b;
    auto* sys = b.get();
    ASSERT_EQ(create_with_capacity(sys, "3"), 0);
    auto vecs = orve_test::gaussian_vectors(4, 1);
    EXPECT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), 4), -1);
    EXPECT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), 0), -1);
    EXPECT_EQ(sys->node_count, 0u);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), 3), 3);
    for (uint32_t r = 0; r < 3; ++r) {
        EXPECT_EQ(sys->nodes[r].node_id, r + 1);
        EXPECT_EQ(sys->nodes[r].timestamp, sys->nodes[0].timestamp);
    }
    EXPECT_EQ(sys->ingest_generation.load(), 3u);
    EXPECT_EQ(sys->last_update_time, sys->nodes[0].timestamp);
}

TEST(Ingestion, LoadIntoCapacityOneRefusesTwo) {
    system_block b;
    ASSERT_EQ(create_with_capacity(b.get(), "1"), 0);
    auto vecs = orve_test::gaussian_vectors(2, 2);
    EXPECT_EQ(semantic_vector_indexing_system_load_vectors_f32(b.get(), vecs.data(), 2), -1);
    EXPECT_EQ(b.get()->node_count, 0u);
    EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(b.get(), 1, vecs.data()), 0);
    EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(b.get(), 2, vecs.data()), -1);
}

TEST(Ingestion, HostNodeTakesARowWithoutAVector) {
    system_block b;
    auto* sys = b.get();
    ASSERT_EQ(create_with_capacity(sys, "10"), 0);
    // The host record's fields at their byte positions, filled independently of any header type.
    unsigned char host[632] = {};
    const uint32_t id = 42;
    const double weight = 2.5;
    const int64_t ts = 1700000000;
    std::memcpy(host, &id, 4);
    std::memcpy(host + 616, &weight, 8);
    std::memcpy(host + 624, &ts, 8);
    ASSERT_EQ(semantic_vector_indexing_system_add_node(sys, host), 0);
    EXPECT_EQ(sys->ingest_generation.load(), 0u);
    auto v = orve_test::gaussian_vectors(1, 3);
    ASSERT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 9, v.data()), 0);
    EXPECT_EQ(sys->ingest_generation.load(), 1u);
    EXPECT_EQ(sys->nodes[0].node_id, 42u);
    EXPECT_EQ(sys->nodes[0].weight, 2.5f);
    EXPECT_EQ(sys->nodes[0].timestamp, ts);
    EXPECT_EQ(sys->row_valid[0], 0);
    EXPECT_EQ(sys->nodes[1].node_id, 9u);
    EXPECT_EQ(sys->row_valid[1], 1);
    EXPECT_EQ(semantic_vector_indexing_system_add_node(sys, nullptr), -1);
}

TEST(FlatStore, DropRefusesIngestionAndIsIdempotent) {
    system_block b;
    auto* sys = b.get();
    ASSERT_EQ(create_with_capacity(sys, "10"), 0);
    auto v = orve_test::gaussian_vectors(1, 4);
    ASSERT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 1, v.data()), 0);
    EXPECT_EQ(orve512_drop_flat_slabs(sys, false), -1);
    EXPECT_NE(sys->slab_i8, nullptr);
    EXPECT_EQ(semantic_vector_indexing_system_evict_flat_slab(sys), 0);
    EXPECT_EQ(sys->slab_i8, nullptr);
    EXPECT_EQ(sys->slabs_dropped, 1);
    EXPECT_EQ(semantic_vector_indexing_system_evict_flat_slab(sys), 0);
    EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 2, v.data()), -1);
    EXPECT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, v.data(), 1), -1);
    EXPECT_EQ(sys->node_count, 1u);
}

TEST(LegacyRefresh, UpdateEmbeddingsEmptiesLshAndKeepsRows) {
    system_block b;
    auto* sys = b.get();
    ASSERT_EQ(create_with_capacity(sys, "50"), 0);
    auto vecs = orve_test::gaussian_vectors(20, 5);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), 20), 20);
    EXPECT_EQ(sys->lsh_index->count, 20u);
    EXPECT_EQ(semantic_vector_indexing_system_update_embeddings(sys), 0);
    EXPECT_EQ(sys->lsh_index->count, 0u);
    EXPECT_EQ(sys->node_count, 20u);
    EXPECT_NE(sys->slab_i8, nullptr);
    EXPECT_EQ(semantic_vector_indexing_system_rebuild_clustering(nullptr), -1);
}

}  // namespace
