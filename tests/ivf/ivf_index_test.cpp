// Bucket compaction into an orve_ivf_index and its teardown.
#include <gtest/gtest.h>

#include <vector>

#include "ivf/ivf_internal.h"
#include "ivf_test_data.h"

namespace {

TEST(IvfCompaction, FiveRowExampleAndTeardown) {
    // Rows whose codes, scales and norms identify them: code lanes of row r are all r + 1.
    std::vector<int8_t> codes(512 * 5);
    std::vector<float> scales(5), norms(5), centroids(512 * 3, 0.0f);
    for (uint32_t r = 0; r < 5; ++r) {
        std::fill_n(codes.begin() + 512 * r, 512, static_cast<int8_t>(r + 1));
        scales[r] = 10.0f + r;
        norms[r] = 20.0f + r;
    }
    for (uint32_t b = 0; b < 3; ++b) centroids[512 * b + b] = b + 1.0f;  // b + 1 on lane b
    const uint32_t assignment[5] = {2, 0, 2, 1, 0};
    orve_ivf_index idx{};
    ASSERT_EQ(ivf_finish_index(5, 3, assignment, centroids.data(), codes.data(), scales.data(),
                               norms.data(), &idx),
              0);
    auto vec = [](const uint32_t* p, uint32_t n) { return std::vector<uint32_t>(p, p + n); };
    EXPECT_EQ(vec(idx.bucket_sizes, 3), (std::vector<uint32_t>{2, 1, 2}));
    EXPECT_EQ(vec(idx.bucket_offsets, 3), (std::vector<uint32_t>{0, 2, 3}));
    EXPECT_EQ(vec(idx.row_ids, 5), (std::vector<uint32_t>{1, 4, 3, 0, 2}));
    for (uint32_t p = 0; p < 5; ++p) {  // each row's record travels with its id
        const uint32_t r = idx.row_ids[p];
        EXPECT_EQ(idx.codes[512 * p + 511], static_cast<int8_t>(r + 1));
        EXPECT_EQ(idx.row_scales[p], 10.0f + r);
        EXPECT_EQ(idx.row_norms[p], 20.0f + r);
    }
    // Centroid b quantises to 127 on lane b.
    for (uint32_t b = 0; b < 3; ++b) EXPECT_EQ(idx.centroid_codes[512 * b + b], 127);
    orve_ivf_index_destroy(&idx);
    orve_ivf_index_destroy(&idx);  // the sanitiser build would report a double free
    EXPECT_TRUE(ivf_test::all_zero(&idx, sizeof idx));
    orve_ivf_index_destroy(nullptr);
}

}  // namespace
