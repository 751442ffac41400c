#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "semantic_vector_indexing.h"

namespace {

constexpr uint32_t kDefaultCapacity = 1100000;

// Sets or clears ORVE_VECTOR_CAPACITY for one test and puts the old value back afterwards.
class CapacityEnv {
  public:
    explicit CapacityEnv(const char* value) {
        const char* old = std::getenv("ORVE_VECTOR_CAPACITY");
        had_ = old != nullptr;
        if (had_) old_ = old;
        if (value != nullptr) {
            setenv("ORVE_VECTOR_CAPACITY", value, 1);
        } else {
            unsetenv("ORVE_VECTOR_CAPACITY");
        }
    }
    ~CapacityEnv() {
        if (had_) {
            setenv("ORVE_VECTOR_CAPACITY", old_.c_str(), 1);
        } else {
            unsetenv("ORVE_VECTOR_CAPACITY");
        }
    }

  private:
    bool had_ = false;
    std::string old_;
};

// Created index whose hyperplanes are replaced by the first 8 axes with zero offsets, so hash
// h of a vector is v[h] * 10^6 truncated. With v[h] = m / 64 that is exactly 15625 m, and its
// bucket among 16 is 9 m mod 16 (15625 = 976 * 16 + 9).
class AxisIndex : public ::testing::Test {
  protected:
    void SetUp() override {
        CapacityEnv env(nullptr);
        ASSERT_EQ(enhanced_lsh_index_create(&idx_, 128, 8), 0);
        std::memset(idx_.hyperplanes, 0, sizeof(float) * 128 * 8);
        for (int h = 0; h < 8; ++h) {
            idx_.hyperplanes[h * 128 + h] = 1.0f;
            idx_.offsets[h] = 0.0f;
        }
    }
    void TearDown() override { enhanced_lsh_index_destroy(&idx_); }

    // 128 floats whose first eight are m[h] / 64.
    static std::vector<float> sixty_fourths(std::vector<int> m) {
        std::vector<float> v(128, 0.0f);
        for (size_t h = 0; h < m.size(); ++h) v[h] = static_cast<float>(m[h]) / 64.0f;
        return v;
    }

    std::vector<vector_similarity_result> search(const std::vector<float>& q) {
        std::vector<vector_similarity_result> out(1000);
        uint32_t n = 12345;
        EXPECT_EQ(enhanced_lsh_index_search_similar(&idx_, q.data(), 0.9f, out.data(), &n), 0);
        out.resize(n);
        return out;
    }

    enhanced_lsh_index idx_{};
};

// Every hash in its own bucket: 9, 2, 11, 4, 13, 6, 15, 8.
const std::vector<int> kSpread = {1, 2, 3, 4, 5, 6, 7, 8};

TEST_F(AxisIndex, SameVectorIsFoundOncePerBucketSlot) {
    ASSERT_EQ(enhanced_lsh_index_add_vector(&idx_, sixty_fourths(kSpread).data(), 5), 0);
    const auto r = search(sixty_fourths(kSpread));
    ASSERT_EQ(r.size(), 8u);
    for (uint32_t k = 0; k < 8; ++k) {
        EXPECT_EQ(r[k].node_id, 5u);
        EXPECT_EQ(r[k].similarity, 1.0f);
        EXPECT_EQ(r[k].distance, 0.0f);
        EXPECT_EQ(r[k].cluster_id, 0u);
        EXPECT_EQ(r[k].node_score, 1.0f);
        EXPECT_EQ(r[k].rank, k + 1);
    }
}

TEST_F(AxisIndex, OneEqualHashIsAHitAndASharedBucketAloneIsNot) {
    ASSERT_EQ(enhanced_lsh_index_add_vector(&idx_, sixty_fourths(kSpread).data(), 5), 0);
    // Hash 3 equals the entry's (62500, bucket 4); the other hashes are 0, bucket 0, empty.
    auto r = search(sixty_fourths({0, 0, 0, 4, 0, 0, 0, 0}));
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].node_id, 5u);
    EXPECT_EQ(r[0].rank, 1u);
    // 17/64 hashes to 265625, bucket 9 like the entry's hash 0, but no hash value is equal.
    r = search(sixty_fourths({17, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(r.empty());
    // A query matching nothing.
    r = search(sixty_fourths({9, 10, 11, 12, 13, 14, 15, 16}));
    EXPECT_TRUE(r.empty());
}

TEST_F(AxisIndex, FullBucketDropsTheEntryButAddSucceeds) {
    const auto v = sixty_fourths(kSpread);
    for (uint32_t id = 1; id <= 101; ++id) {
        ASSERT_EQ(enhanced_lsh_index_add_vector(&idx_, v.data(), id), 0) << id;
    }
    EXPECT_EQ(idx_.count, 101u);
    EXPECT_EQ(idx_.entries[100].node_id, 101u);
    for (uint32_t b : {9u, 2u, 11u, 4u, 13u, 6u, 15u, 8u}) {
        EXPECT_EQ(idx_.bucket_counts[b], 100u);
        EXPECT_EQ(idx_.bucket_table[b * 100 + 99], 99u);
    }
    // 8 buckets of 100 slots each; entry 100 (node 101) is in none of them.
    const auto r = search(v);
    ASSERT_EQ(r.size(), 800u);
    for (uint32_t k = 0; k < 800; ++k) {
        ASSERT_EQ(r[k].node_id, k % 100 + 1);
        ASSERT_EQ(r[k].rank, k + 1);
    }
}

struct CapacityCase {
    const char* env;
    uint32_t capacity;
};

TEST(LshIndexCreate, CapacityFromTheEnvironment) {
    const CapacityCase cases[] = {
        {nullptr, kDefaultCapacity}, {"0", kDefaultCapacity},  {"abc", kDefaultCapacity},
        {"", kDefaultCapacity},      {"-5", kDefaultCapacity}, {"  +25xyz", 25},
        {"1200000", 1200000},  // no upper cap, unlike the system object's rule
        {"4294967297", 1},     // low 32 bits of 2^32 + 1
    };
    for (const CapacityCase& c : cases) {
        SCOPED_TRACE(c.env ? c.env : "(unset)");
        CapacityEnv env(c.env);
        enhanced_lsh_index idx{};
        ASSERT_EQ(enhanced_lsh_index_create(&idx, 128, 8), 0);
        EXPECT_EQ(idx.capacity, c.capacity);
        enhanced_lsh_index_destroy(&idx);
    }
}

}  // namespace
