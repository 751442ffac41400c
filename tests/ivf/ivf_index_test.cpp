// Bucket compaction into an orve_ivf_index and its teardown.
#include <gtest/gtest.h>

#include <vector>

#include "ivf/ivf_internal.h"
#include "ivf_test_data.h"

namespace {

using ivf_test::zero_ivf;

// Rows whose codes, scales and norms identify them: code lanes of row r are all r + 1.
struct tagged_rows {
    std::vector<int8_t> codes;
    std::vector<float> scales, norms;
    explicit tagged_rows(uint32_t n) : codes(512 * n), scales(n), norms(n) {
        for (uint32_t r = 0; r < n; ++r) {
            for (int l = 0; l < 512; ++l) codes[512 * r + l] = static_cast<int8_t>(r + 1);
            scales[r] = 10.0f + r;
            norms[r] = 20.0f + r;
        }
    }
};

// Centroid b is (b + 1) on lane b and 0 elsewhere.
std::vector<float> axis_centroids(uint32_t k) {
    std::vector<float> c(512 * k, 0.0f);
    for (uint32_t b = 0; b < k; ++b) c[512 * b + b] = static_cast<float>(b + 1);
    return c;
}

std::vector<uint32_t> as_vector(const uint32_t* p, uint32_t n) {
    return {p, p + n};
}

TEST(IvfCompaction, FiveRowExample) {
    const uint32_t assignment[5] = {2, 0, 2, 1, 0};
    tagged_rows in(5);
    const auto centroids = axis_centroids(3);
    orve_ivf_index idx = zero_ivf();
    ASSERT_EQ(ivf_finish_index(5, 3, assignment, centroids.data(), in.codes.data(),
                               in.scales.data(), in.norms.data(), &idx),
              0);
    EXPECT_EQ(as_vector(idx.bucket_sizes, 3), (std::vector<uint32_t>{2, 1, 2}));
    EXPECT_EQ(as_vector(idx.bucket_offsets, 3), (std::vector<uint32_t>{0, 2, 3}));
    EXPECT_EQ(as_vector(idx.row_ids, 5), (std::vector<uint32_t>{1, 4, 3, 0, 2}));
    for (uint32_t p = 0; p < 5; ++p) {  // each row's record travels with its id
        const uint32_t r = idx.row_ids[p];
        EXPECT_EQ(idx.codes[512 * p + 511], static_cast<int8_t>(r + 1));
        EXPECT_EQ(idx.row_scales[p], 10.0f + r);
        EXPECT_EQ(idx.row_norms[p], 20.0f + r);
    }
    // Centroid b quantises to 127 on lane b.
    for (uint32_t b = 0; b < 3; ++b) EXPECT_EQ(idx.centroid_codes[512 * b + b], 127);
    orve_ivf_index_destroy(&idx);
}

TEST(IvfIndexDestroy, NullZeroedAndTwiceAreHarmless) {
    orve_ivf_index_destroy(nullptr);
    orve_ivf_index idx = zero_ivf();
    orve_ivf_index_destroy(&idx);
    tagged_rows in(3);
    const auto centroids = axis_centroids(2);
    const uint32_t assignment[3] = {1, 0, 1};
    ASSERT_EQ(ivf_finish_index(3, 2, assignment, centroids.data(), in.codes.data(),
                               in.scales.data(), in.norms.data(), &idx),
              0);
    orve_ivf_index_destroy(&idx);
    orve_ivf_index_destroy(&idx);  // the sanitiser build would report a double free
    EXPECT_TRUE(ivf_test::all_zero(&idx, sizeof idx));
}

}  // namespace
