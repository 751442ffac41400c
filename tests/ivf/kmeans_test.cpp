// Centroid training: k-means++ seeding, the int8 k-means assignment, and the IVF builders.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "ivf/ivf_internal.h"
#include "ivf_test_data.h"

namespace {

using ivf_test::dataset;

TEST(KmeansPlusPlus, WeightedPickFollowsTheRunningSum) {
    // Rows at squared distances 0, 1 and 3 from row 0.
    std::vector<int8_t> codes(512 * 3, 0);
    std::vector<float> rows(512 * 3, 0.0f);
    for (int l : {512, 1024, 1025, 1026}) codes[l] = 1, rows[l] = 1.0f;
    int to_row1 = 0, to_row2 = 0;
    for (unsigned seed = 1; seed < 400; ++seed) {
        unsigned int probe = seed;
        if (rand_r(&probe) % 3 != 0) continue;  // first pick must be row 0: d = (0, 1, 3)
        const double target = static_cast<double>(rand_r(&probe)) / 2147483647.0 * 4.0;
        // Running sums 0, 1, 4: the first one >= target.
        const uint32_t want = target <= 0.0 ? 0 : (target <= 1.0 ? 1 : 2);
        uint32_t out_i8[2], out_f[2];
        unsigned int si = seed, sf = seed;
        ASSERT_EQ(pick_kmeans_pp_indices_i8(codes.data(), 3, 2, &si, out_i8), 0);
        ASSERT_EQ(pick_kmeans_pp_indices(rows.data(), 3, 2, &sf, out_f), 0);
        EXPECT_EQ(out_i8[0], 0u);
        EXPECT_EQ(out_i8[1], want) << "seed " << seed;
        EXPECT_EQ(out_f[1], want) << "seed " << seed;
        EXPECT_EQ(si, probe);  // exactly two draws
        (want == 1 ? to_row1 : to_row2) += 1;
    }
    EXPECT_GT(to_row1, 0);
    EXPECT_GT(to_row2, 0);
}

TEST(KmeansPlusPlus, DrawEqualsOneRunningSumOverManyRows) {
    // The draw as one plain pass: the first running sum at least the target.
    const auto plain = [](const std::vector<float>& d, unsigned int* state) -> uint32_t {
        double total = 0.0;
        for (float v : d) total += v;
        if (total <= 1e-30) return static_cast<uint32_t>(rand_r(state) % d.size());
        const double target = static_cast<double>(rand_r(state)) / 2147483647.0 * total;
        double running = 0.0;
        for (std::size_t i = 0; i < d.size(); ++i) {
            running += d[i];
            if (running >= target) return static_cast<uint32_t>(i);
        }
        return static_cast<uint32_t>(d.size() - 1);
    };
    std::vector<float> spread(5000), zeros(4099, 0.0f), negative(3000), nan(2500);
    for (std::size_t i = 0; i < spread.size(); ++i) spread[i] = (i % 97 == 0) ? 1e6f : 1e-3f * i;
    // Blocks of 3 rows: the sum crosses a target inside block 499, back below by its end.
    for (std::size_t i = 0; i < negative.size(); ++i)
        negative[i] = i == 1497 ? 1e6f : (i == 1499 ? -1e6f : 1.0f);
    for (std::size_t i = 0; i < nan.size(); ++i) nan[i] = i == 1200 ? NAN : 1.0f;
    for (const auto* d : {&spread, &zeros, &negative, &nan}) {
        for (unsigned seed = 1; seed < 60; ++seed) {
            unsigned int a = seed, b = seed;
            EXPECT_EQ(orve::kmeans_pp_draw(d->data(), static_cast<uint32_t>(d->size()), &a),
                      plain(*d, &b));
            EXPECT_EQ(a, b);
        }
    }
}

using builder = int (*)(const float*, uint32_t, uint32_t, uint32_t, const int8_t*, const float*,
                        const float*, const uint8_t*, orve_ivf_index*);
const builder kBuilders[] = {orve_ivf_build_kmeans_centroids, orve_ivf_build_random_centroids};

TEST(IvfBuilders, SeedZeroActsAsOneFlagsAreIgnoredAndRejectionsWriteNothing) {
    const dataset d = ivf_test::clustered_rows(500, 9, 0.6f, 52);
    const float *r = d.rows.data(), *s = d.scales.data(), *m = d.norms.data();
    const int8_t* c = d.codes.data();
    const std::vector<uint8_t> flags(d.n, 0);
    for (builder build : kBuilders) {
        uint64_t h[3];
        const uint32_t seeds[3] = {0, 1, 7};
        for (int i = 0; i < 3; ++i) {
            orve_ivf_index idx{};
            ASSERT_EQ(build(r, d.n, 12, seeds[i], c, s, m, i == 1 ? flags.data() : nullptr, &idx),
                      0);
            h[i] = ivf_test::digest_ivf(ivf_test::kFnvOffset, idx);
            orve_ivf_index_destroy(&idx);
        }
        EXPECT_EQ(h[0], h[1]);
        EXPECT_NE(h[0], h[2]);

        orve_ivf_index out, before;
        std::memset(&out, 0xAB, sizeof out), before = out;
        EXPECT_EQ(build(nullptr, 10, 2, 1, c, s, m, nullptr, &out), -1);
        EXPECT_EQ(build(r, 10, 2, 1, nullptr, s, m, nullptr, &out), -1);
        EXPECT_EQ(build(r, 10, 2, 1, c, s, m, nullptr, nullptr), -1);
        for (uint32_t k : {0u, 11u}) EXPECT_EQ(build(r, 10, k, 1, c, s, m, nullptr, &out), -1);
        EXPECT_EQ(std::memcmp(&out, &before, sizeof out), 0);
    }
}

TEST(Int8Kmeans, FinalAssignmentIsTheLargestDotAgainstTheFinalCodes) {
    const dataset d = ivf_test::clustered_rows(300, 6, 0.7f, 57);
    std::vector<float> c1(512 * 10);
    std::vector<int8_t> q1(512 * 10);
    std::vector<uint32_t> a1(d.n);
    ASSERT_EQ(orve::kmeans_i8_train(d.codes.data(), d.scales.data(), d.n, 10, 5, c1.data(),
                                    q1.data(), a1.data()),
              0);
    for (uint32_t i = 0; i < d.n; ++i) {
        int64_t best = INT64_MIN, dot;
        uint32_t want = 0;
        for (uint32_t c = 0; c < 10; ++c) {
            dot = 0;
            for (int l = 0; l < 512; ++l) dot += int64_t{d.code(i)[l]} * q1[512 * c + l];
            if (dot > best) best = dot, want = c;
        }
        ASSERT_EQ(a1[i], want) << i;
    }
}

}  // namespace
