#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "lsh_cluster/lsh_hash.h"
#include "semantic_vector_indexing.h"

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();

TEST(LshFormulas, CollisionProbabilityAndHash) {
    const struct {
        float s;
        uint32_t n;
        float p;
    } probabilities[] = {{0.5f, 8, 0.00390625f}, {0.0f, 8, 1.0f},  {1.0f, 8, 0.0f},
                         {0.25f, 3, 0.421875f},  {0.3f, 0, 1.0f},  {1.5f, 8, 0.0f},
                         {-0.01f, 8, 0.0f},      {-0.01f, 0, 0.0f}};
    for (const auto& c : probabilities)
        EXPECT_EQ(calculate_lsh_collision_probability(c.s, c.n), c.p) << c.s << " " << c.n;
    // v = e0, plane = -e0: the projection is offset - 1, scaled by 10^6.
    std::vector<float> v(128, 0.0f), plane(128, 0.0f);
    v[0] = 1.0f;
    plane[0] = -1.0f;
    const struct {
        float offset;
        uint64_t hash;
    } hashes[] = {{0.25f, 0},          {0.9999999f, 0},    {std::nanf(""), 0},
                  {1e20f, UINT64_MAX}, {kInf, UINT64_MAX}, {3.0f, 2000000}};
    for (const auto& c : hashes)
        EXPECT_EQ(generate_lsh_hash(v.data(), plane.data(), c.offset), c.hash) << c.offset;
    // Exactly 128 components summed in float in index order: v[128] is never read, and
    // 1e8 + 1 rounds back to 1e8, where a double or reordered sum would give 1.5e6.
    v.assign(129, 0.0f);
    plane.assign(129, 1.0f);
    v[128] = 1.0f;
    EXPECT_EQ(generate_lsh_hash(v.data(), plane.data(), 0.5f), 500000u);
    v[0] = 1e8f, v[1] = 1.0f, v[2] = -1e8f;
    EXPECT_EQ(generate_lsh_hash(v.data(), plane.data(), 0.5f), 500000u);
}

// An index made with ORVE_VECTOR_CAPACITY at `capacity` (null: unset), destroyed at scope exit.
struct ScopedLsh {
    enhanced_lsh_index rec{};
    explicit ScopedLsh(uint32_t dim = 128, uint32_t n_hashes = 8, const char* capacity = "2000") {
        capacity ? setenv("ORVE_VECTOR_CAPACITY", capacity, 1) : unsetenv("ORVE_VECTOR_CAPACITY");
        EXPECT_EQ(enhanced_lsh_index_create(&rec, dim, n_hashes), 0);
        unsetenv("ORVE_VECTOR_CAPACITY");
    }
    ~ScopedLsh() { enhanced_lsh_index_destroy(&rec); }
};

// The block hash and the filing of precomputed hashes (ingestion) against the one-row hash and
// add: every hash, entry and bucket equal, for row counts either side of the block's grouping,
// hyperplane strides above 128, fewer than 8 hashes and rows holding extreme values.
TEST(LshBlock, MatchesTheOneRowPath) {
    std::mt19937 gen(11);
    std::uniform_real_distribution<float> u(-3.0f, 3.0f);
    const struct {
        uint32_t dim, n_hashes, rows;
    } cases[] = {{128, 8, 1}, {128, 8, 7}, {128, 8, 32}, {130, 5, 9}, {256, 1, 4}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.dim << " " << c.n_hashes << " " << c.rows);
        ScopedLsh one(c.dim, c.n_hashes), block(c.dim, c.n_hashes);
        const std::size_t stride = 131;  // rows need not be 128 floats apart
        std::vector<float> rows(c.rows * stride);
        for (float& x : rows) x = u(gen);
        rows[3] = kInf;
        if (c.rows > 2) rows[2 * stride + 5] = std::nanf("");
        if (c.rows > 3) rows[3 * stride + 1] = 1e30f;
        std::memcpy(block.rec.hyperplanes, one.rec.hyperplanes, sizeof(float) * c.dim * c.n_hashes);
        std::memcpy(block.rec.offsets, one.rec.offsets, sizeof(float) * c.n_hashes);

        std::vector<uint64_t> hashes(c.rows * ENHANCED_LSH_MAX_HASHES);
        orve::lsh_hash_rows(&block.rec, rows.data(), stride, c.rows, hashes.data());
        for (uint32_t r = 0; r < c.rows; ++r) {
            // The entries hold the hashes, so equal entries mean equal hashes.
            ASSERT_EQ(enhanced_lsh_index_add_vector(&one.rec, rows.data() + r * stride, r + 1), 0);
            ASSERT_EQ(orve::lsh_index_add_hashed(
                          &block.rec, hashes.data() + r * ENHANCED_LSH_MAX_HASHES, r + 1),
                      0);
        }
        EXPECT_EQ(0, std::memcmp(one.rec.entries, block.rec.entries, sizeof(lsh_entry) * c.rows));
        EXPECT_EQ(0, std::memcmp(one.rec.bucket_counts, block.rec.bucket_counts,
                                 sizeof(uint32_t) * one.rec.n_buckets));
        EXPECT_EQ(0, std::memcmp(one.rec.bucket_table, block.rec.bucket_table,
                                 sizeof(uint32_t) * one.rec.n_buckets * 100));
        EXPECT_EQ(block.rec.count, c.rows);
    }
}

// Hyperplanes replaced by the first 8 axes with zero offsets, so hash h of a vector whose
// v[h] = m / 64 is exactly 15625 m, in bucket 9 m mod 16 (15625 = 976 * 16 + 9).
struct AxisIndex : ScopedLsh {
    AxisIndex() {
        std::memset(rec.hyperplanes, 0, sizeof(float) * 128 * 8);
        for (int h = 0; h < 8; ++h) {
            rec.hyperplanes[h * 128 + h] = 1.0f;
            rec.offsets[h] = 0.0f;
        }
    }
    static std::vector<float> sixty_fourths(std::vector<int> m) {
        std::vector<float> v(128, 0.0f);
        for (size_t h = 0; h < m.size(); ++h) v[h] = static_cast<float>(m[h]) / 64.0f;
        return v;
    }
    std::vector<uint32_t> hits(const std::vector<float>& q) {
        std::vector<vector_similarity_result> out(1000);
        uint32_t n = 12345;
        EXPECT_EQ(enhanced_lsh_index_search_similar(&rec, q.data(), 0.9f, out.data(), &n), 0);
        std::vector<uint32_t> ids;
        for (uint32_t k = 0; k < n; ++k) {
            EXPECT_EQ(out[k].rank, k + 1);
            EXPECT_EQ(out[k].similarity, 1.0f);
            ids.push_back(out[k].node_id);
        }
        return ids;
    }
};

TEST(LshSearch, HitsNeedAnEqualHashAndFullBucketsDropEntries) {
    AxisIndex ix;
    const auto spread = AxisIndex::sixty_fourths({1, 2, 3, 4, 5, 6, 7, 8});  // 8 buckets
    ASSERT_EQ(enhanced_lsh_index_add_vector(&ix.rec, spread.data(), 5), 0);
    EXPECT_EQ(ix.hits(spread), std::vector<uint32_t>(8, 5u));  // once per bucket slot
    // Hash 3 equal (62500, bucket 4): one hit. 17/64 shares hash 0's bucket 9 but no value.
    EXPECT_EQ(ix.hits(AxisIndex::sixty_fourths({0, 0, 0, 4})), std::vector<uint32_t>{5u});
    EXPECT_TRUE(ix.hits(AxisIndex::sixty_fourths({17})).empty());

    for (uint32_t id = 2; id <= 101; ++id)
        ASSERT_EQ(enhanced_lsh_index_add_vector(&ix.rec, spread.data(), id), 0);
    EXPECT_EQ(ix.rec.count, 101u);
    const auto ids = ix.hits(spread);  // 8 full buckets of 100; node 101 is in none
    ASSERT_EQ(ids.size(), 800u);
    for (uint32_t k = 0; k < 800; ++k) ASSERT_EQ(ids[k], k % 100 == 0 ? 5u : k % 100 + 1);
}

TEST(LshCreate, CapacityFromTheEnvironment) {
    // Unset, zero or non-numeric text gives the default; no upper cap; the low 32 bits count.
    const std::pair<const char*, uint32_t> cases[] = {{nullptr, 1100000},   {"0", 1100000},
                                                      {"abc", 1100000},     {"  +25xyz", 25},
                                                      {"1200000", 1200000}, {"4294967297", 1}};
    for (const auto& [env, capacity] : cases)
        EXPECT_EQ(ScopedLsh(128, 8, env).rec.capacity, capacity) << (env ? env : "(unset)");
}

}  // namespace
