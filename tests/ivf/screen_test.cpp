// The int8 screen of the float k-means must never change a decision: its intervals hold, and
// screened assignments, seedings and whole trainings equal the full scans.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <vector>

#include "ivf/ivf_internal.h"
#include "ivf/l2sq_screen.h"
#include "quant/kernel_table.h"
#include "ivf_test_data.h"

namespace {

using ivf_test::dataset;

std::vector<uint32_t> full_assignment(const dataset& d, const std::vector<float>& centroids) {
    std::vector<uint32_t> a(d.n, 0);
    for (uint32_t i = 0; i < d.n; ++i) {
        float best = FLT_MAX;
        for (uint32_t c = 0; c < centroids.size() / 512; ++c) {
            const float dist = l2sq_512(d.row(i), &centroids[512 * c]);
            if (dist < best) best = dist, a[i] = c;
        }
    }
    return a;
}

// Centroids taken from rows (normalised or not), as the training starts.
std::vector<float> centroids_from(const dataset& d, uint32_t k, uint32_t stride) {
    std::vector<float> c(512 * k);
    for (uint32_t j = 0; j < k; ++j) std::memcpy(&c[512 * j], d.row((j * stride) % d.n), 2048);
    return c;
}

TEST(ScreenBounds, IntervalsContainTheFloatDistance) {
    // Unit rows, rows of magnitudes 2^-25 .. 2^4, a zero row and one below the zero threshold.
    dataset d = ivf_test::random_rows(32, 43);
    for (uint32_t r = 0; r < 20; ++r) l2_normalize_inplace(&d.rows[512 * r]);
    for (uint32_t r = 20; r < 30; ++r) {
        for (int l = 0; l < 512; ++l)
            d.rows[512 * r + l] *= std::ldexp(1.0f, static_cast<int>(r) - 25);
    }
    std::fill(&d.rows[512 * 30], &d.rows[512 * 31], 0.0f);
    std::fill(&d.rows[512 * 31], &d.rows[512 * 32], 1e-13f);
    orve::row_sketches all, one;
    ASSERT_TRUE(all.allocate(d.n));
    ASSERT_TRUE(one.allocate(1));
    all.fill(d.rows.data());
    ASSERT_TRUE(all.all_usable);
    // Every table computes the same bits (tests/quant/kernel_table_test.cpp), so one suffices.
    const orve::kernel_table& kernel = orve::kernels();
    for (uint32_t c = 0; c < d.n; ++c) {
        one.fill(d.row(c));  // a block of one row: its smallest upper bound is its own
        for (uint32_t i = 0; i < d.n; ++i) {
            int32_t dots[16] = {};
            for (int l = 0; l < 512; ++l) dots[0] += all.code(i)[l] * one.code(0)[l];
            float lo[16];
            const float hi = kernel.screen_bounds(all.point(i), one.columns(), dots, lo);
            const float f = l2sq_512(d.row(i), d.row(c));
            ASSERT_LE(lo[0], f) << i << "," << c;
            ASSERT_GE(hi, f) << i << "," << c;
        }
    }
}

// Rows the screen must handle: clusters, exact duplicates (ties), a zero row, and rows it may
// not screen (NaN, too large), which fall back to full scans.
dataset awkward_dataset() {
    dataset d = ivf_test::clustered_rows(400, 12, 0.4f, 44);
    for (uint32_t r = 0; r < d.n; ++r) l2_normalize_inplace(&d.rows[512 * r]);
    std::memcpy(&d.rows[512 * 10], d.row(11), 2048);
    std::memcpy(&d.rows[512 * 12], d.row(11), 2048);
    std::fill(&d.rows[512 * 20], &d.rows[512 * 21], 0.0f);
    d.rows[512 * 30 + 7] = NAN;
    for (int l = 0; l < 512; ++l) d.rows[512 * 31 + l] *= 1e12f;
    return d;
}

TEST(ScreenedAssignment, EqualsTheFullScanAcrossMovingCentroidsTiesAndUnscreenableRows) {
    dataset d = awkward_dataset();
    // Row 11 is duplicated as centroids 0 and 3 to force exact ties.
    const uint32_t k = 40;
    std::vector<float> centroids = centroids_from(d, k, 9);
    std::memcpy(&centroids[512 * 0], d.row(11), 2048);
    std::memcpy(&centroids[512 * 3], d.row(11), 2048);
    orve::l2sq_screen s;
    ASSERT_TRUE(s.init(d.rows.data(), d.n, k));
    std::vector<uint32_t> got(d.n);
    ivf_test::int_rng g(46);
    for (int round = 0; round < 6; ++round) {
        s.set_centroids(centroids.data());
        orve::assign_nearest_l2sq(d.rows.data(), d.n, centroids.data(), k, &s, got.data());
        ASSERT_EQ(got, full_assignment(d, centroids)) << "round " << round;
        if (round == 0) {
            EXPECT_EQ(got[10], 0u);         // tie between centroids 0 and 3 goes to the lower index
            EXPECT_EQ(s.rows_scanned, 2u);  // the NaN row and the huge row
        }
        // Move each centroid a little and one far (a re-seeded cluster): carried bounds in use.
        for (auto& v : centroids) v += 0.002f * g.bell();
        std::memcpy(&centroids[512 * (round % k + 5)], d.row(g.next() % d.n), 2048);
    }
    EXPECT_GT(s.rows_by_drift, 0u);
    EXPECT_GT(s.rows_by_neighbours, 0u);
    EXPECT_GT(s.rows_screened, 0u);
    // A NaN centroid turns the screen off for the whole pass; the result is still the same.
    centroids[512 * 7 + 3] = NAN;
    s.set_centroids(centroids.data());
    orve::assign_nearest_l2sq(d.rows.data(), d.n, centroids.data(), k, &s, got.data());
    EXPECT_EQ(got, full_assignment(d, centroids));
}

// The training seeds through the screen too, so equal centroids also mean equal seedings.
TEST(ScreenedTraining, WholeTrainingEqualsTheFullScanTraining) {
    struct Case {
        dataset d;
        uint32_t k;
    };
    Case cases[] = {{ivf_test::clustered_rows(500, 15, 0.5f, 49), 20},
                    {ivf_test::random_rows(250, 50), 12},
                    {awkward_dataset(), 50}};
    for (auto& c : cases) {
        std::vector<float> ca(512 * c.k), cb(512 * c.k);
        std::vector<uint32_t> aa(c.d.n), ab(c.d.n);
        ASSERT_EQ(
            orve::kmeans_f32_train_with(c.d.rows.data(), c.d.n, c.k, 3, ca.data(), aa.data(), true),
            0);
        ASSERT_EQ(orve::kmeans_f32_train_with(c.d.rows.data(), c.d.n, c.k, 3, cb.data(), ab.data(),
                                              false),
                  0);
        EXPECT_EQ(aa, ab);
        EXPECT_EQ(std::memcmp(ca.data(), cb.data(), ca.size() * 4), 0);
    }
}

}  // namespace
