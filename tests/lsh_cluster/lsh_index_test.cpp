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

TEST_F(AxisIndex, AddStoresHashesBucketsAndSlots) {
    ASSERT_EQ(enhanced_lsh_index_add_vector(&idx_, sixty_fourths(kSpread).data(), 5), 0);
    EXPECT_EQ(idx_.count, 1u);
    const lsh_entry& e = idx_.entries[0];
    EXPECT_EQ(e.node_id, 5u);
    EXPECT_EQ(e.confidence, 0.8f);
    EXPECT_EQ(e.n_hashes, 8u);
    const uint32_t want_bucket[8] = {9, 2, 11, 4, 13, 6, 15, 8};
    for (int h = 0; h < 8; ++h) {
        EXPECT_EQ(e.hashes[h], 15625u * (h + 1)) << h;
        EXPECT_EQ(e.buckets[h], want_bucket[h]) << h;
        EXPECT_EQ(idx_.bucket_counts[want_bucket[h]], 1u);
        EXPECT_EQ(idx_.bucket_table[want_bucket[h] * 100], 0u);
    }
    EXPECT_EQ(idx_.bucket_counts[0], 0u);
}

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

TEST_F(AxisIndex, HashesSharingABucketRecordTheEntryRepeatedly) {
    // All eight hashes are 15625, bucket 9: the entry takes 8 slots there, and each of the
    // query's 8 hash functions scans those 8 slots.
    const auto same = sixty_fourths({1, 1, 1, 1, 1, 1, 1, 1});
    ASSERT_EQ(enhanced_lsh_index_add_vector(&idx_, same.data(), 7), 0);
    EXPECT_EQ(idx_.bucket_counts[9], 8u);
    const auto r = search(same);
    ASSERT_EQ(r.size(), 64u);
    for (uint32_t k = 0; k < 64; ++k) {
        EXPECT_EQ(r[k].node_id, 7u);
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

TEST_F(AxisIndex, NegativeProjectionHashesToZero) {
    ASSERT_EQ(enhanced_lsh_index_add_vector(&idx_, sixty_fourths({-1, 2}).data(), 3), 0);
    EXPECT_EQ(idx_.entries[0].hashes[0], 0u);
    EXPECT_EQ(idx_.entries[0].buckets[0], 0u);
    EXPECT_EQ(idx_.entries[0].hashes[1], 31250u);
    // Hashes 0 and 2..7 are all 0, so bucket 0 holds the entry 7 times.
    EXPECT_EQ(idx_.bucket_counts[0], 7u);
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

TEST_F(AxisIndex, RefusedAddsLeaveNoTrace) {
    const auto v = sixty_fourths(kSpread);
    EXPECT_EQ(enhanced_lsh_index_add_vector(&idx_, v.data(), 0), -1);
    EXPECT_EQ(enhanced_lsh_index_add_vector(&idx_, nullptr, 4), -1);
    EXPECT_EQ(enhanced_lsh_index_add_vector(nullptr, v.data(), 4), -1);
    EXPECT_EQ(idx_.count, 0u);
    for (int b = 0; b < 16; ++b) EXPECT_EQ(idx_.bucket_counts[b], 0u);
    EXPECT_TRUE(search(v).empty());
}

TEST_F(AxisIndex, SearchRefusesNullsAndLeavesRecordsPastTheCount) {
    const auto v = sixty_fourths(kSpread);
    ASSERT_EQ(enhanced_lsh_index_add_vector(&idx_, v.data(), 5), 0);
    std::vector<vector_similarity_result> out(1000);
    uint32_t n = 0;
    EXPECT_EQ(enhanced_lsh_index_search_similar(nullptr, v.data(), 0.0f, out.data(), &n), -1);
    EXPECT_EQ(enhanced_lsh_index_search_similar(&idx_, nullptr, 0.0f, out.data(), &n), -1);
    EXPECT_EQ(enhanced_lsh_index_search_similar(&idx_, v.data(), 0.0f, nullptr, &n), -1);
    EXPECT_EQ(enhanced_lsh_index_search_similar(&idx_, v.data(), 0.0f, out.data(), nullptr), -1);

    out[8].node_id = 4242;
    ASSERT_EQ(enhanced_lsh_index_search_similar(&idx_, v.data(), 0.5f, out.data(), &n), 0);
    EXPECT_EQ(n, 8u);
    EXPECT_EQ(out[8].node_id, 4242u);
}

TEST(LshIndexCreate, SetsUpTheRecord) {
    CapacityEnv env(nullptr);
    enhanced_lsh_index idx;
    std::memset(&idx, 0xAB, sizeof(idx));
    ASSERT_EQ(enhanced_lsh_index_create(&idx, 128, 8), 0);
    EXPECT_EQ(idx.n_buckets, 16u);
    EXPECT_EQ(idx.n_hashes, 8u);
    EXPECT_EQ(idx.dim, 128u);
    EXPECT_EQ(idx.count, 0u);
    EXPECT_EQ(idx.capacity, kDefaultCapacity);
    ASSERT_NE(idx.entries, nullptr);
    ASSERT_NE(idx.bucket_table, nullptr);
    ASSERT_NE(idx.bucket_counts, nullptr);
    ASSERT_NE(idx.hyperplanes, nullptr);
    ASSERT_NE(idx.offsets, nullptr);
    EXPECT_EQ(idx.bucket_counts[15], 0u);
    EXPECT_EQ(idx.entries[kDefaultCapacity - 1].node_id, 0u);
    for (int i = 0; i < 128 * 8; ++i) {
        ASSERT_GE(idx.hyperplanes[i], -1.0f);
        ASSERT_LE(idx.hyperplanes[i], 1.0f);
    }
    for (int h = 0; h < 8; ++h) {
        EXPECT_GE(idx.offsets[h], 0.0f);
        EXPECT_LE(idx.offsets[h], 1.0f);
    }
    enhanced_lsh_index_destroy(&idx);
}

TEST(LshIndexCreate, BucketCountIsTwoToHalfTheHashCount) {
    CapacityEnv env("10");
    const uint32_t want[9] = {0, 1, 2, 2, 4, 4, 8, 8, 16};
    for (uint32_t n = 1; n <= 8; ++n) {
        enhanced_lsh_index idx{};
        ASSERT_EQ(enhanced_lsh_index_create(&idx, 130, n), 0);
        EXPECT_EQ(idx.n_buckets, want[n]) << n;
        enhanced_lsh_index_destroy(&idx);
    }
}

TEST(LshIndexCreate, DrawsFromRandReseededWithTheTime) {
    // Hyperplane h's components, then its offset, for each h in turn, after srand(time(NULL)).
    // The clock may tick during create, so either neighbouring second is accepted as the seed.
    CapacityEnv env("4");
    enhanced_lsh_index idx{};
    const std::time_t before = std::time(nullptr);
    ASSERT_EQ(enhanced_lsh_index_create(&idx, 130, 3), 0);
    const std::time_t after = std::time(nullptr);
    bool matched = false;
    for (std::time_t seed = before; seed <= after && !matched; ++seed) {
        std::srand(static_cast<unsigned>(seed));
        bool same = true;
        for (int h = 0; h < 3; ++h) {
            for (int i = 0; i < 130; ++i) {
                same = same && idx.hyperplanes[h * 130 + i] == random_float_range(-1.0f, 1.0f);
            }
            same = same && idx.offsets[h] == random_float_range(0.0f, 1.0f);
        }
        matched = same;
    }
    EXPECT_TRUE(matched);
    enhanced_lsh_index_destroy(&idx);
}

TEST(LshIndexCreate, BadArgumentsAreRefusedWithoutTouchingTheRecord) {
    enhanced_lsh_index idx;
    std::memset(&idx, 0xAB, sizeof(idx));
    unsigned char before[sizeof(idx)];
    std::memcpy(before, &idx, sizeof(idx));
    EXPECT_EQ(enhanced_lsh_index_create(nullptr, 128, 8), -1);
    EXPECT_EQ(enhanced_lsh_index_create(&idx, 0, 8), -1);
    EXPECT_EQ(enhanced_lsh_index_create(&idx, 128, 0), -1);
    EXPECT_EQ(enhanced_lsh_index_create(&idx, 128, 9), -1);  // entries keep 8 hashes
    EXPECT_EQ(enhanced_lsh_index_create(&idx, 127, 8), -1);  // the hash reads 128 components
    EXPECT_EQ(std::memcmp(before, &idx, sizeof(idx)), 0);
}

TEST(LshIndexCreate, HyperplaneTableBeyond32BitsFailsLeavingTheRecordZeroed) {
    enhanced_lsh_index idx;
    std::memset(&idx, 0xAB, sizeof(idx));
    EXPECT_EQ(enhanced_lsh_index_create(&idx, 0x20000000u, 8), -1);  // 2^32 floats
    const unsigned char zero[sizeof(idx)] = {};
    EXPECT_EQ(std::memcmp(&idx, zero, sizeof(idx)), 0);
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

TEST(LshIndexCreate, FullIndexRefusesFurtherAdds) {
    CapacityEnv env("3");
    enhanced_lsh_index idx{};
    ASSERT_EQ(enhanced_lsh_index_create(&idx, 128, 8), 0);
    std::vector<float> v(128, 0.1f);
    for (uint32_t id = 1; id <= 3; ++id)
        EXPECT_EQ(enhanced_lsh_index_add_vector(&idx, v.data(), id), 0);
    EXPECT_EQ(enhanced_lsh_index_add_vector(&idx, v.data(), 4), -1);
    EXPECT_EQ(idx.count, 3u);
    enhanced_lsh_index_destroy(&idx);
}

TEST(LshIndex, RandomHyperplanesFindAStoredVector) {
    CapacityEnv env("16");
    enhanced_lsh_index idx{};
    ASSERT_EQ(enhanced_lsh_index_create(&idx, 128, 8), 0);
    std::vector<float> v(128);
    for (int i = 0; i < 128; ++i) {
        v[i] = static_cast<float>((i * 37) % 11) / 10.0f;
    }
    ASSERT_EQ(enhanced_lsh_index_add_vector(&idx, v.data(), 21), 0);
    for (int h = 0; h < 8; ++h) {
        EXPECT_EQ(idx.entries[0].hashes[h],
                  generate_lsh_hash(v.data(), idx.hyperplanes + h * 128, idx.offsets[h]));
    }
    std::vector<vector_similarity_result> out(1000);
    uint32_t n = 0;
    ASSERT_EQ(enhanced_lsh_index_search_similar(&idx, v.data(), 0.0f, out.data(), &n), 0);
    // Once per hash function at least, and at most 8 slots per scanned bucket.
    EXPECT_GE(n, 8u);
    EXPECT_LE(n, 64u);
    for (uint32_t k = 0; k < n; ++k) {
        EXPECT_EQ(out[k].node_id, 21u);
        EXPECT_EQ(out[k].rank, k + 1);
    }
    enhanced_lsh_index_destroy(&idx);
}

TEST(LshIndex, DestroyZeroesAndToleratesRepeatsAndNull) {
    CapacityEnv env("2");
    enhanced_lsh_index idx{};
    ASSERT_EQ(enhanced_lsh_index_create(&idx, 128, 8), 0);
    enhanced_lsh_index_destroy(&idx);
    const unsigned char zero[sizeof(idx)] = {};
    EXPECT_EQ(std::memcmp(&idx, zero, sizeof(idx)), 0);
    enhanced_lsh_index_destroy(&idx);
    EXPECT_EQ(std::memcmp(&idx, zero, sizeof(idx)), 0);
    enhanced_lsh_index_destroy(nullptr);

    // A zeroed record refuses adds and answers searches with nothing.
    std::vector<float> v(128, 0.5f);
    EXPECT_EQ(enhanced_lsh_index_add_vector(&idx, v.data(), 1), -1);
    std::vector<vector_similarity_result> out(1000);
    uint32_t n = 99;
    EXPECT_EQ(enhanced_lsh_index_search_similar(&idx, v.data(), 0.0f, out.data(), &n), 0);
    EXPECT_EQ(n, 0u);
}

}  // namespace
