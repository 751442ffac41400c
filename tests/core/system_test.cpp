#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "core/system.h"
#include "support/system_fixture.h"

namespace {

using orve_test::create_with_capacity;
using orve_test::system_block;

TEST(Capacity, ParsingRules) {
    // Out of range or not a number: the default. Only the low 32 bits of a number count.
    const struct {
        const char* text;
        uint32_t want;
    } table[] = {{nullptr, 1100000},   {"500000", 500000},   {"1", 1},
                 {"1100000", 1100000}, {"1100001", 1100000}, {"0", 1100000},
                 {"-5", 1100000},      {"abc", 1100000},     {"123abc", 123},
                 {"  +77", 77},        {"4294967297", 1},    {"99999999999999999999", 1100000}};
    for (const auto& t : table) EXPECT_EQ(orve::parse_capacity(t.text), t.want) << t.text;
}

// Repeated destroys are covered wherever a test destroys before its block's destructor does.
TEST(SystemObject, RefusalsAndReuseAfterDestroy) {
    system_block b;
    uint32_t nodes = 9, clusters = 9;
    float avg = 9.0f, sil = 9.0f;
    semantic_vector_indexing_system_destroy(nullptr);
    EXPECT_EQ(semantic_vector_indexing_system_create(nullptr), -1);
    EXPECT_EQ(semantic_vector_indexing_system_get_stats(b.get(), &nodes, &clusters, &avg, &sil),
              -1);  // never created
    ASSERT_EQ(create_with_capacity(b.get(), "10"), 0);
    EXPECT_EQ(semantic_vector_indexing_system_get_stats(b.get(), nullptr, &clusters, &avg, &sil),
              -1);
    semantic_vector_indexing_system_destroy(b.get());
    ASSERT_EQ(create_with_capacity(b.get(), "10"), 0);
    std::vector<float> v(512, 1.0f);
    EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(b.get(), 3, v.data()), 0);
}

// Scores and row numbers are checked by the brute-force tests, generations by the indexed-search
// tests; here: refusals and the host record's byte layout.
TEST(Ingestion, RefusalsHostRecordLayoutAndTheDroppedStore) {
    system_block b("4");
    auto* sys = b.get();
    auto v = orve_test::gaussian_vectors(5, 1);
    // Refused: id 0, no vector, more rows than the capacity, no rows. Nothing is counted.
    EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 0, v.data()), -1);
    EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 5, nullptr), -1);
    EXPECT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, v.data(), 5), -1);
    EXPECT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, v.data(), 0), -1);
    EXPECT_EQ(semantic_vector_indexing_system_add_node(sys, nullptr), -1);
    EXPECT_EQ(sys->node_count, 0u);

    // The host record's fields at their byte positions, filled independently of any header type.
    unsigned char host[632] = {42};
    const double weight = 2.5;
    const int64_t ts = 1700000000;
    std::memcpy(host + 616, &weight, 8);
    std::memcpy(host + 624, &ts, 8);
    ASSERT_EQ(semantic_vector_indexing_system_add_node(sys, host), 0);
    EXPECT_EQ(sys->nodes[0].node_id, 42u);
    EXPECT_EQ(sys->nodes[0].weight, 2.5f);
    EXPECT_EQ(sys->nodes[0].timestamp, ts);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, v.data(), 2), 2);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(sys->slab_i8) % 64, 0u);
    EXPECT_EQ(sys->row_valid[0] + 2 * sys->row_valid[1], 2);
    // Dropping the flat store is idempotent and refuses ingestion from then on (with room left).
    EXPECT_EQ(orve512_drop_flat_slabs(sys, false), -1);
    EXPECT_NE(sys->slab_i8, nullptr);
    EXPECT_EQ(semantic_vector_indexing_system_evict_flat_slab(sys), 0);
    EXPECT_EQ(sys->slab_i8, nullptr);
    EXPECT_EQ(semantic_vector_indexing_system_evict_flat_slab(sys), 0);
    EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 21, v.data()), -1);
    EXPECT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, v.data(), 1), -1);
    EXPECT_EQ(sys->node_count, 3u);
}

}  // namespace
