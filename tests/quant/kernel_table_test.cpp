// Every kernel table compiled into this build and runnable here, each kernel checked against an
// independent computation (64-bit integer sums, the fused multiply-add order written out, a
// plain comparison) or, for the float bounds, against the portable table bit for bit.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "quant/kernel_table.h"
#include "semantic_vector_indexing.h"
#include "support/test_math.h"

namespace {

using test_math::bits;

int64_t expected_dot(const int8_t* a, const int8_t* b) {
    int64_t s = 0;
    for (int i = 0; i < 512; ++i) s += static_cast<int64_t>(a[i]) * b[i];
    return s;
}

// The order every float kernel must reproduce, so that trainings agree bit for bit on every
// processor: 16 partial sums advanced by the C library's fmaf, then
// S[l] = (P[8+l] + P[12+l]) + (P[l] + P[4+l]) and (S0 + S1) + (S2 + S3).
float model_l2sq(const float* a, const float* b) {
    float p[16] = {};
    for (int t = 0; t < 32; ++t) {
        for (int j = 0; j < 16; ++j) {
            const float d = a[16 * t + j] - b[16 * t + j];
            p[j] = std::fmaf(d, d, p[j]);
        }
    }
    float s[4];
    for (int l = 0; l < 4; ++l) s[l] = (p[8 + l] + p[12 + l]) + (p[l] + p[4 + l]);
    return (s[0] + s[1]) + (s[2] + s[3]);
}

struct inputs {
    static constexpr std::size_t kRows = 67;  // not a multiple of any unroll factor
    std::vector<int8_t> storage, queries;
    int8_t* rows;  // one byte into storage, so unaligned rows are exercised too
    std::vector<float> fa, fb;
    std::vector<int32_t> sums;

    inputs() : storage(512 * (kRows + 1) + 1), queries(512 * 4), fa(512 * 16), fb(512 * 16) {
        std::mt19937 rng(1234);
        std::uniform_int_distribution<int> byte(-128, 127);
        for (auto& x : storage) x = static_cast<int8_t>(byte(rng));
        for (auto& x : queries) x = static_cast<int8_t>(byte(rng));
        rows = storage.data() + 1;
        // Rows 0-3 all at one extreme each, row 4 alternating extremes; query 0 mixes extremes,
        // query 1 is all -128, so -128 x -128 meets every lane position.
        const int8_t fills[4] = {127, -128, -128, 0};
        for (int r = 0; r < 4; ++r) std::memset(rows + 512 * r, fills[r], 512);
        for (int i = 0; i < 512; ++i) {
            rows[512 * 4 + i] = (i % 5 < 2) ? -128 : (i % 5 == 2 ? 127 : -1);
            queries[i] = (i % 3 == 0) ? -128 : 127;
            queries[512 + i] = -128;
        }
        // Floats of mixed magnitudes, so rounding really happens in the partial sums.
        const float magnitude[4] = {1e-3f, 3e2f, 1.0f, 1.0f};
        std::normal_distribution<float> bell(0.0f, 1.0f);
        for (auto* v : {&fa, &fb})
            for (auto& x : *v) x = bell(rng) * magnitude[rng() % 4];
        for (std::size_t r = 0; r < kRows; ++r) {
            int32_t s = 0;
            for (int i = 0; i < 512; ++i) s += rows[512 * r + i];
            sums.push_back(s);
        }
    }
};

TEST(KernelTables, EveryTableMatchesTheIndependentModels) {
    const inputs in;
    const int8_t* q[4] = {in.queries.data(), in.queries.data() + 512, in.queries.data() + 1024,
                          in.queries.data() + 1536};
    std::size_t n = 0;
    const orve::kernel_table* tables = orve::kernel_tables_available(&n);
    ASSERT_GE(n, 1u);
    for (const auto* t = tables; t != tables + n; ++t) {
        std::printf("kernel table: %s\n", t->name);
        constexpr std::size_t R = inputs::kRows, ld = R + 3;
        std::vector<int32_t> many(R + 1, 0x5a5a5a5a), multi(4 * ld, 0x5a5a5a5a);
        t->dot512_many(q[0], in.rows, R, many.data());
        t->dot512_multi(q, in.rows, R, multi.data(), ld);
        for (std::size_t r = 0; r < R; ++r) {
            const int8_t* row = in.rows + 512 * r;
            ASSERT_EQ(many[r], expected_dot(q[0], row)) << t->name << " row " << r;
            ASSERT_EQ(t->dot512(row, q[1]), expected_dot(row, q[1])) << t->name << " row " << r;
            for (int j = 0; j < 4; ++j)
                ASSERT_EQ(multi[j * ld + r], expected_dot(q[j], row)) << t->name << " q" << j;
        }
        EXPECT_EQ(many[R], 0x5a5a5a5a) << t->name << " wrote past n";
        for (int j = 0; j < 4; ++j) EXPECT_EQ(multi[j * ld + R], 0x5a5a5a5a) << t->name;

        // Screen dots: four queries against the first 64 rows (a multiple of 4).
        std::vector<int32_t> dots4(4 * 64);
        t->screen_dots4(q, in.rows, in.sums.data(), 64, dots4.data(), 64);
        for (int j = 0; j < 4; ++j)
            for (int c = 0; c < 64; ++c)
                ASSERT_EQ(dots4[64 * j + c], expected_dot(q[j], in.rows + 512 * c)) << t->name;

        for (int r = 0; r < 16; ++r) {
            float partial[16];
            t->l2sq_partials(&in.fa[512 * r], &in.fb[512 * r], partial);
            ASSERT_EQ(bits(orve::l2sq_combine(partial)),
                      bits(model_l2sq(&in.fa[512 * r], &in.fb[512 * r])))
                << t->name << " row " << r;
        }

        // Re-ranking sums of eight rows: each in one plain double loop, value 0 to 511.
        const float* frows[8];
        for (int l = 0; l < 8; ++l) frows[l] = &in.fb[512 * (l + 3)];
        double qr[8], rr[8];
        t->rerank_sums8(in.fa.data(), frows, qr, rr);
        for (int l = 0; l < 8; ++l) {
            double want_qr = 0.0, want_rr = 0.0;
            for (int i = 0; i < 512; ++i) {
                const double q = in.fa[i], r = frows[l][i];
                want_qr += q * r;
                want_rr += r * r;
            }
            ASSERT_EQ(bits(qr[l]), bits(want_qr)) << t->name << " lane " << l;
            ASSERT_EQ(bits(rr[l]), bits(want_rr)) << t->name << " lane " << l;
        }

        // Bounds from arbitrary columns (32 lanes, two blocks): same bits as the portable table.
        std::vector<float> col(5 * 32), lo(32), lo_ref(32);
        for (std::size_t i = 0; i < col.size(); ++i) col[i] = std::fabs(in.fa[i]) + 0.01f;
        const orve::sketch_columns y{&col[0], &col[32], &col[64], &col[96], &col[128], 32};
        const orve::sketch_point x{2.5f, 1.5f, 0.01f, 0.02f};
        const float h = t->screen_bounds(x, y, many.data(), lo.data());
        const float h_ref = tables[0].screen_bounds(x, y, many.data(), lo_ref.data());
        EXPECT_EQ(bits(h), bits(h_ref)) << t->name;
        for (int c = 0; c < 32; ++c) ASSERT_EQ(bits(lo[c]), bits(lo_ref[c])) << t->name << c;

        std::vector<float> cand_lo(77);
        for (std::size_t c = 0; c < cand_lo.size(); ++c) cand_lo[c] = static_cast<float>(c * 7 % 9);
        cand_lo[3] = NAN;
        std::vector<uint32_t> want, got(cand_lo.size());
        for (uint32_t c = 0; c < cand_lo.size(); ++c)
            if (cand_lo[c] <= 4.0f) want.push_back(c);
        got.resize(t->screen_candidates(cand_lo.data(), 77, 4.0f, got.data()));
        EXPECT_EQ(got, want) << t->name;
    }
    // The exported entry points reach the chosen table; null inputs give 0.
    EXPECT_EQ(orve_dotprod512_i8(in.rows, q[1]), expected_dot(in.rows, q[1]));
    EXPECT_EQ(orve_dot512_ivf(in.rows, q[1]), expected_dot(in.rows, q[1]));
    EXPECT_EQ(orve_dotprod512_i8(nullptr, q[1]) + orve_dot512_ivf(in.rows, nullptr), 0);
}

TEST(Dot512Scalar, ThirtyTwoBitElementsKeepLow32BitsOfSum) {
    struct Case {
        int32_t a, b, a0, b0, want;
    } cases[] = {
        {65536, 65536, 65536, 65536, 0},  // 2^41 has zero low bits
        {-3, 1000, -3, 1000, -1536000},
        {INT32_MIN, INT32_MIN, INT32_MIN, INT32_MIN, 0},  // 2^71 wraps without UB
        {INT32_MIN, INT32_MIN, 3, 5, 15},                 // 511 * 2^62 + 15
    };
    for (const auto& c : cases) {
        std::vector<int32_t> a(512, c.a), b(512, c.b);
        a[0] = c.a0;
        b[0] = c.b0;
        EXPECT_EQ(orve_dotprod512_scalar(a.data(), b.data()), c.want);
    }
    std::vector<int32_t> b(512, 1);
    EXPECT_EQ(orve_dotprod512_scalar(nullptr, b.data()), 0);
}

}  // namespace
