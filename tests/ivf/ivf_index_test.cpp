// Bucket compaction into an orve_ivf_index, its teardown, and the compaction's sort order.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
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

TEST(IvfCompaction, FiveRowExampleFromTheDesign) {
    const uint32_t assignment[5] = {2, 0, 2, 1, 0};
    tagged_rows in(5);
    const auto centroids = axis_centroids(3);
    orve_ivf_index idx = zero_ivf();
    ASSERT_EQ(ivf_finish_index(5, 3, assignment, centroids.data(), in.codes.data(),
                               in.scales.data(), in.norms.data(), &idx),
              0);
    EXPECT_EQ(idx.n_rows, 5u);
    EXPECT_EQ(idx.n_buckets, 3u);
    EXPECT_EQ(as_vector(idx.bucket_sizes, 3), (std::vector<uint32_t>{2, 1, 2}));
    EXPECT_EQ(as_vector(idx.bucket_offsets, 3), (std::vector<uint32_t>{0, 2, 3}));
    EXPECT_EQ(as_vector(idx.row_ids, 5), (std::vector<uint32_t>{1, 4, 3, 0, 2}));
    for (uint32_t p = 0; p < 5; ++p) {
        const uint32_t r = idx.row_ids[p];
        EXPECT_EQ(idx.codes[512 * p], static_cast<int8_t>(r + 1));
        EXPECT_EQ(idx.codes[512 * p + 511], static_cast<int8_t>(r + 1));
        EXPECT_EQ(idx.row_scales[p], 10.0f + r);
        EXPECT_EQ(idx.row_norms[p], 20.0f + r);
    }
    // Centroid b quantises to 127 on lane b, scale 127 / (b + 1), norm b + 1.
    for (uint32_t b = 0; b < 3; ++b) {
        EXPECT_EQ(idx.centroid_codes[512 * b + b], 127);
        EXPECT_EQ(idx.centroid_codes[512 * b + (b + 1) % 512], 0);
        EXPECT_EQ(idx.centroid_scales[b], 127.0f / static_cast<float>(b + 1));
        EXPECT_EQ(idx.centroid_norms[b], static_cast<float>(b + 1));
    }
    EXPECT_EQ(reinterpret_cast<uintptr_t>(idx.codes) % 64, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(idx.centroid_codes) % 64, 0u);
    orve_ivf_index_destroy(&idx);
}

TEST(IvfCompaction, EmptyBucketsAndAllRowsInOneBucket) {
    tagged_rows in(6);
    const auto centroids = axis_centroids(4);
    struct Case {
        uint32_t bucket;
        std::vector<uint32_t> sizes, offsets;
    } cases[] = {{2, {0, 0, 6, 0}, {0, 0, 0, 6}}, {0, {6, 0, 0, 0}, {0, 6, 6, 6}}};
    for (const auto& c : cases) {
        const std::vector<uint32_t> assignment(6, c.bucket);
        orve_ivf_index idx = zero_ivf();
        ASSERT_EQ(ivf_finish_index(6, 4, assignment.data(), centroids.data(), in.codes.data(),
                                   in.scales.data(), in.norms.data(), &idx),
                  0);
        EXPECT_EQ(as_vector(idx.bucket_sizes, 4), c.sizes);
        EXPECT_EQ(as_vector(idx.bucket_offsets, 4), c.offsets);
        EXPECT_EQ(as_vector(idx.row_ids, 6), (std::vector<uint32_t>{0, 1, 2, 3, 4, 5}));
        EXPECT_EQ(idx.centroid_codes[512 * 3 + 3], 127);  // empty buckets keep their centroid
        orve_ivf_index_destroy(&idx);
    }
}

TEST(IvfCompaction, NearZeroCentroidGetsZeroCodesAndKeepsItsNorm) {
    tagged_rows in(2);
    std::vector<float> centroids(512 * 2, 1e-13f);  // largest magnitude below 1e-12
    centroids[512] = 1.0f;
    const uint32_t assignment[2] = {1, 1};
    orve_ivf_index idx = zero_ivf();
    ASSERT_EQ(ivf_finish_index(2, 2, assignment, centroids.data(), in.codes.data(),
                               in.scales.data(), in.norms.data(), &idx),
              0);
    EXPECT_TRUE(ivf_test::all_zero(idx.centroid_codes, 512));
    EXPECT_EQ(idx.centroid_scales[0], 0.0f);
    // sqrt(512) x 1e-13, up to float rounding of the sum.
    EXPECT_NEAR(idx.centroid_norms[0], 2.2627417e-12f, 1e-15f);
    EXPECT_GT(idx.centroid_scales[1], 0.0f);
    orve_ivf_index_destroy(&idx);
}

TEST(IvfIndexDestroy, NullZeroedAndTwiceAreHarmless) {
    orve_ivf_index_destroy(nullptr);
    orve_ivf_index idx = zero_ivf();
    orve_ivf_index_destroy(&idx);
    EXPECT_TRUE(ivf_test::all_zero(&idx, sizeof idx));

    tagged_rows in(3);
    const auto centroids = axis_centroids(2);
    const uint32_t assignment[3] = {1, 0, 1};
    ASSERT_EQ(ivf_finish_index(3, 2, assignment, centroids.data(), in.codes.data(),
                               in.scales.data(), in.norms.data(), &idx),
              0);
    orve_ivf_index_destroy(&idx);
    EXPECT_TRUE(ivf_test::all_zero(&idx, sizeof idx));
    orve_ivf_index_destroy(&idx);  // the sanitiser build would report a double free
    EXPECT_TRUE(ivf_test::all_zero(&idx, sizeof idx));
}

TEST(IvfCompaction, RouteOrderIsBucketThenRowBothUnsigned) {
    ivf_route_pair pairs[] = {{0xFFFFFFFFu, 0}, {1, 0x80000000u}, {1, 2}, {0, 9}};
    std::qsort(pairs, 4, sizeof pairs[0], cmp_route);
    const ivf_route_pair want[] = {{0, 9}, {1, 2}, {1, 0x80000000u}, {0xFFFFFFFFu, 0}};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(pairs[i].bucket, want[i].bucket) << i;
        EXPECT_EQ(pairs[i].row, want[i].row) << i;
    }
    EXPECT_EQ(cmp_route(&want[1], &want[1]), 0);
    EXPECT_EQ(cmp_route(&want[2], &want[1]), 1);
}

}  // namespace
