// A created object with a chosen capacity, for tests of the object and its search paths.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "semantic_vector_indexing.h"
#include "test_files.h"

namespace orve_test {

// Sets ORVE_VECTOR_CAPACITY for one create and restores the old value afterwards.
inline int create_with_capacity(semantic_vector_indexing_system* sys, const char* capacity) {
    const char* old = std::getenv("ORVE_VECTOR_CAPACITY");
    const std::string saved = old ? old : "";
    auto set = [](const char* v) {
        v ? setenv("ORVE_VECTOR_CAPACITY", v, 1) : unsetenv("ORVE_VECTOR_CAPACITY");
    };
    set(capacity);
    const int rc = semantic_vector_indexing_system_create(sys);
    set(old ? saved.c_str() : nullptr);
    return rc;
}

// Owns a host block for the object; create and destroy are explicit so tests can check them.
class system_block {
  public:
    system_block() = default;
    explicit system_block(const char* capacity) {  // created, with room for `capacity` rows
        EXPECT_EQ(create_with_capacity(get(), capacity), 0);
    }
    semantic_vector_indexing_system* get() {
        return reinterpret_cast<semantic_vector_indexing_system*>(mem_.data());
    }
    ~system_block() { semantic_vector_indexing_system_destroy(get()); }

  private:
    std::vector<unsigned char> mem_ =
        std::vector<unsigned char>(semantic_vector_indexing_system_sizeof());
};

// n Gaussian vectors of 512 floats, back to back.
inline std::vector<float> gaussian_vectors(std::size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> g;
    std::vector<float> v(n * 512);
    for (float& x : v) x = g(rng);
    return v;
}

inline vector_similarity_query int8_query(const float* vec, uint32_t k) {
    vector_similarity_query q{};
    q.use_orve512 = 1, q.query_vector = vec, q.max_results = k, q.min_similarity = -2.0f;
    return q;
}

using test_files::scratch_dir;

// Checks what every int8 answer must satisfy: ranks 1..n, scores in order, distance = 1 - score.
inline void expect_well_formed(const vector_similarity_result* r, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        EXPECT_EQ(r[i].rank, i + 1);
        EXPECT_EQ(r[i].distance, 1.0f - r[i].similarity);
        EXPECT_TRUE(i == 0 || r[i - 1].similarity >= r[i].similarity) << i;
    }
}

// One search that must succeed; its answer, checked well formed on the int8 family.
inline std::vector<vector_similarity_result> search(semantic_vector_indexing_system* sys,
                                                    const vector_similarity_query& q) {
    std::vector<vector_similarity_result> r(q.max_results);
    uint32_t n = ~0u;  // a success must set the count
    EXPECT_EQ(semantic_vector_indexing_system_search_similar(sys, &q, r.data(), &n), 0);
    EXPECT_LE(n, q.max_results);
    r.resize(std::min(n, q.max_results));
    if (q.use_orve512) expect_well_formed(r.data(), static_cast<uint32_t>(r.size()));
    return r;
}

}  // namespace orve_test
