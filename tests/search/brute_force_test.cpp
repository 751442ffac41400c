// Brute force through the public search entry point, checked against an independent model of
// the int8 scoring written here from the rules: codes = round-half-even(clamp(x * 127 / max)),
// cosine = dot / (((scale_q * scale_r) * norm_q) * norm_r), all single precision.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "core/system.h"
#include "support/system_fixture.h"

namespace {

using orve_test::int8_query;
using orve_test::search;
using orve_test::system_block;

struct model_row {
    std::vector<int> codes = std::vector<int>(512);
    float scale = 0.0f, norm = 0.0f;
};

model_row model_quantize(const float* x) {
    model_row m;
    float mx = 0.0f, s = 0.0f;
    for (int i = 0; i < 512; ++i) mx = std::max(mx, std::fabs(x[i])), s += x[i] * x[i];
    m.norm = std::sqrt(s);
    m.scale = mx < 1e-12f ? 0.0f : 127.0f / mx;
    for (int i = 0; i < 512 && m.scale > 0; ++i)
        m.codes[i] = static_cast<int>(std::nearbyint(std::clamp(m.scale * x[i], -127.0f, 127.0f)));
    return m;
}

float model_cosine(const model_row& a, const model_row& b) {
    long long dot = 0;
    for (int i = 0; i < 512; ++i) dot += a.codes[i] * b.codes[i];
    if (a.scale <= 0 || b.scale <= 0 || a.norm <= 0 || b.norm <= 0) return 0.0f;
    return static_cast<float>(dot) / (((a.scale * b.scale) * a.norm) * b.norm);
}

TEST(BruteForce, MatchesIndependentModelThresholdAndArguments) {
    constexpr uint32_t kRows = 3000;
    system_block b("5000");
    const auto vecs = orve_test::gaussian_vectors(kRows, 21);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(b.get(), vecs.data(), kRows), 3000);
    std::vector<model_row> rows;
    for (uint32_t r = 0; r < kRows; ++r) rows.push_back(model_quantize(&vecs[r * 512]));
    auto queries = orve_test::gaussian_vectors(5, 22);
    // Query 0 is a stored row, slightly perturbed: its row must come first.
    for (int i = 0; i < 512; ++i) queries[i] = vecs[1234 * 512 + i] + 0.01f * queries[i];
    for (int qi = 0; qi < 5; ++qi) {
        const model_row qm = model_quantize(&queries[qi * 512]);
        std::vector<std::pair<float, uint32_t>> want;
        for (uint32_t r = 0; r < kRows; ++r) want.push_back({model_cosine(qm, rows[r]), r + 1});
        std::sort(want.begin(), want.end(), [](auto& a, auto& c) { return a.first > c.first; });
        const auto res = search(b.get(), int8_query(&queries[qi * 512], 10));
        ASSERT_EQ(res.size(), 10u);
        for (uint32_t i = 0; i < 10; ++i) {
            EXPECT_EQ(res[i].similarity, want[i].first) << qi << " " << i;
            const bool tied =
                want[i].first == want[i + 1].first || (i > 0 && want[i].first == want[i - 1].first);
            EXPECT_TRUE(tied || res[i].node_id == want[i].second) << qi << " " << i;
        }
        EXPECT_TRUE(qi > 0 || res[0].node_id == 1235u);
    }
    // A threshold equal to the best similarity keeps that row (>=); later slots are left alone.
    auto q = int8_query(&vecs[7 * 512], 2);
    q.min_similarity = search(b.get(), q)[0].similarity;
    vector_similarity_result res[2] = {};
    res[1].node_id = 777;
    uint32_t n = 0;
    ASSERT_EQ(semantic_vector_indexing_system_search_similar(b.get(), &q, res, &n), 0);
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(res[0].node_id, 8u);
    EXPECT_EQ(res[1].node_id, 777u);
    q.min_similarity = -2.0f;
    q.cluster_filter = 7;  // matches no node: nothing found, still success
    EXPECT_TRUE(search(b.get(), q).empty());

    auto no_k = int8_query(vecs.data(), 0), no_vec = int8_query(nullptr, 4);
    for (auto [qp, out] : {std::pair{&no_k, res}, {&no_vec, res}, {nullptr, res}, {&q, nullptr}})
        EXPECT_EQ(semantic_vector_indexing_system_search_similar(b.get(), qp, out, &n), -1);
}

// A batch answers each query as a lone search does, to the byte, across blocks of the batch,
// partial row tiles, a row without a vector mid-store, ties, zero vectors, thresholds and
// re-ranking from the sidecar.
TEST(BruteForce, BatchEqualsOneQueryAtATime) {
    orve_test::scratch_dir dir;
    system_block b("1000");
    auto* sys = b.get();
    ASSERT_EQ(semantic_vector_indexing_system_open_sidecar(sys, dir.file("v.sidecar").c_str()), 0);
    auto vecs = orve_test::gaussian_vectors(700, 50);
    // Rows 1-3 repeat row 0, so a query equal to it meets ties at its heap's weakest entry, and
    // row 400 is zero, so its score is 0 by the zero-scale rule rather than by a division.
    for (int r = 1; r <= 3; ++r)
        std::copy(vecs.begin(), vecs.begin() + 512, vecs.begin() + r * 512);
    std::fill(vecs.begin() + 400 * 512, vecs.begin() + 401 * 512, 0.0f);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), 300), 300);
    unsigned char host[632] = {201};  // a row with no vector
    ASSERT_EQ(semantic_vector_indexing_system_add_node(sys, host), 0);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, &vecs[300 * 512], 400), 400);
    auto queries = orve_test::gaussian_vectors(64, 51);
    std::copy(vecs.begin(), vecs.begin() + 512, queries.begin() + 3 * 512);  // a stored row
    std::fill(queries.begin() + 5 * 512, queries.begin() + 6 * 512, 0.0f);  // every score ties at 0
    struct {
        uint32_t n, k;
        float min_similarity;
        uint32_t rerank, factor;
    } const cases[] = {{1, 10, -2.0f, 0, 0},   {7, 1, -2.0f, 1, 0},  {16, 10, 0.05f, 0, 0},
                       {17, 701, -2.0f, 1, 3}, {64, 5, -2.0f, 0, 0}, {64, 3, 0.1f, 1, 2}};
    for (const auto& c : cases) {
        std::vector<vector_similarity_result> batch(c.n * c.k);
        std::vector<uint32_t> counts(c.n, 99);
        const orve512_batch_query bq{
            c.n,          c.k,           c.min_similarity, 0,       0, queries.data(),
            batch.data(), counts.data(), c.rerank,         c.factor};
        ASSERT_EQ(semantic_vector_indexing_system_search_similar_orve512_batch(sys, &bq), 0);
        for (uint32_t i = 0; i < c.n; ++i) {
            auto q = int8_query(&queries[i * 512], c.k);
            q.min_similarity = c.min_similarity;
            q.rerank = c.rerank;
            q.rerank_factor = c.factor;
            auto one = search(sys, q);
            EXPECT_EQ(counts[i], one.size()) << c.n << " " << i;
            one.resize(c.k);  // zeroed tail, as the batch leaves it
            EXPECT_EQ(std::memcmp(one.data(), &batch[i * c.k], c.k * sizeof one[0]), 0)
                << "batch " << c.n << " k " << c.k << " query " << i;
        }
    }
}

// The all-zero query lists rows in table order with zero scores, by cluster when asked.
TEST(BruteForce, LegacyListingInTableOrder) {
    system_block b("10");
    auto* sys = b.get();
    const auto vecs = orve_test::gaussian_vectors(5, 40);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), 5), 5);
    sys->nodes[1].cluster_id = sys->nodes[3].cluster_id = 7;
    vector_similarity_query q{};
    q.max_results = 3;
    for (const auto& [filter, want] :
         {std::pair{0u, std::vector<uint32_t>{1, 2, 3}}, {7u, {2, 4}}}) {
        q.cluster_filter = filter;
        std::vector<uint32_t> ids;
        for (const auto& r : search(sys, q)) {
            ids.push_back(r.node_id);
            EXPECT_TRUE(r.similarity == 0.0f && r.distance == 0.0f);
        }
        EXPECT_EQ(ids, want);
    }
    q.min_similarity = 0.01f;
    EXPECT_TRUE(search(sys, q).empty());
}

}  // namespace
