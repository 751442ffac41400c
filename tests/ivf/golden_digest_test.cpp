// Cross-architecture agreement check. The constants below were produced by an x86-64 run of
// this test and must be reproduced exactly by the aarch64 build (run under qemu): the training
// is defined down to its float rounding, so the same input and seed give the same bytes on
// every processor. They are not independent expectations of the values, only of agreement; a
// change to the training or to the quantiser that is meant to change results must update them.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <vector>

#include "ivf/ivf_internal.h"
#include "ivf_test_data.h"

namespace {

using ivf_test::dataset;
using ivf_test::kFnvOffset;

uint64_t digest_hivf(const orve_hivf_index& h) {
    uint64_t x = ivf_test::fnv1a(kFnvOffset, &h.b1, 4);
    x = ivf_test::fnv1a(x, &h.b2, 4);
    x = ivf_test::fnv1a(x, h.l1_centroid_codes, 512 * static_cast<size_t>(h.b1));
    x = ivf_test::fnv1a(x, h.l1_centroid_scales, 4 * static_cast<size_t>(h.b1));
    x = ivf_test::fnv1a(x, h.l1_centroid_norms, 4 * static_cast<size_t>(h.b1));
    for (uint32_t i = 0; i < h.b1; ++i) x = ivf_test::digest_ivf(x, h.l2_indexes[i]);
    return x;
}

const dataset& input() {
    static const dataset d = ivf_test::clustered_rows(1500, 24, 0.8f, 20240607);
    return d;
}

TEST(GoldenDigest, InputRowsAndCodes) {
    const dataset& d = input();
    uint64_t x = ivf_test::fnv1a(kFnvOffset, d.rows.data(), d.rows.size() * 4);
    x = ivf_test::fnv1a(x, d.codes.data(), d.codes.size());
    x = ivf_test::fnv1a(x, d.scales.data(), d.scales.size() * 4);
    x = ivf_test::fnv1a(x, d.norms.data(), d.norms.size() * 4);
    std::printf("input digest 0x%016" PRIx64 "\n", x);
    EXPECT_EQ(x, 0xeec5cd24a9baafbdull);
}

TEST(GoldenDigest, IvfBuilders) {
    const dataset& d = input();
    orve_ivf_index idx = ivf_test::zero_ivf();
    ASSERT_EQ(orve_ivf_build_kmeans_centroids(d.rows.data(), d.n, 37, 99, d.codes.data(),
                                              d.scales.data(), d.norms.data(), nullptr, &idx),
              0);
    const uint64_t kmeans = ivf_test::digest_ivf(kFnvOffset, idx);
    orve_ivf_index_destroy(&idx);
    ASSERT_EQ(orve_ivf_build_random_centroids(d.rows.data(), d.n, 37, 99, d.codes.data(),
                                              d.scales.data(), d.norms.data(), nullptr, &idx),
              0);
    const uint64_t random = ivf_test::digest_ivf(kFnvOffset, idx);
    orve_ivf_index_destroy(&idx);
    std::printf("ivf k-means digest 0x%016" PRIx64 ", random centroids 0x%016" PRIx64 "\n", kmeans,
                random);
    EXPECT_EQ(kmeans, 0x200056ed2f2f181full);
    EXPECT_EQ(random, 0x47aebda332cebf53ull);
}

TEST(GoldenDigest, HivfBuilders) {
    const dataset& d = input();
    orve_hivf_index h = ivf_test::zero_hivf();
    ASSERT_EQ(
        orve_hivf_build_i8(d.codes.data(), d.scales.data(), d.norms.data(), d.n, 6, 7, 99, &h), 0);
    const uint64_t from_codes = digest_hivf(h);
    orve_hivf_index_destroy(&h);
    ASSERT_EQ(orve_hivf_build(d.rows.data(), d.n, 6, 7, 99, d.codes.data(), d.scales.data(),
                              d.norms.data(), nullptr, &h),
              0);
    const uint64_t from_floats = digest_hivf(h);
    orve_hivf_index_destroy(&h);
    // The system's build sorts its private snapshot in place and releases it as it goes.
    std::vector<int8_t> codes = d.codes;
    std::vector<float> scales = d.scales, norms = d.norms;
    ASSERT_EQ(
        orve::hivf_build_i8_in_place(codes.data(), scales.data(), norms.data(), d.n, 6, 7, 99, &h),
        0);
    EXPECT_EQ(digest_hivf(h), from_codes);
    orve_hivf_index_destroy(&h);
    std::printf("hivf digest from codes 0x%016" PRIx64 ", from floats 0x%016" PRIx64 "\n",
                from_codes, from_floats);
    EXPECT_EQ(from_codes, 0x7b3e63bcd619bbdbull);
    EXPECT_EQ(from_floats, 0x4c07a7a89baa3cbdull);
}

}  // namespace
