// Brute force through the public search entry point, checked against an independent model of
// the int8 scoring written here from the rules: codes = round-half-even(clamp(x * 127 / max)),
// cosine = dot / (((scale_q * scale_r) * norm_q) * norm_r), all single precision.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "core/system.h"
#include "support/system_fixture.h"

namespace {

using orve_test::create_with_capacity;
using orve_test::system_block;

struct model_row {
    std::vector<int> codes;
    float scale, norm;
};

model_row model_quantize(const float* x) {
    model_row m{std::vector<int>(512), 0.0f, 0.0f};
    float mx = 0.0f, s = 0.0f;
    for (int i = 0; i < 512; ++i) {
        mx = std::max(mx, std::fabs(x[i]));
        s += x[i] * x[i];
    }
    m.norm = std::sqrt(s);
    if (mx < 1e-12f) return m;
    m.scale = 127.0f / mx;
    for (int i = 0; i < 512; ++i) {
        const float y = std::min(127.0f, std::max(-127.0f, m.scale * x[i]));
        m.codes[i] = static_cast<int>(std::nearbyint(y));
    }
    return m;
}

float model_cosine(const model_row& a, const model_row& b) {
    long long dot = 0;
    for (int i = 0; i < 512; ++i) dot += a.codes[i] * b.codes[i];
    if (a.scale <= 0 || b.scale <= 0 || a.norm <= 0 || b.norm <= 0) return 0.0f;
    const float d = ((a.scale * b.scale) * a.norm) * b.norm;
    return static_cast<float>(dot) / d;
}

class BruteForce : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(create_with_capacity(b.get(), "5000"), 0);
        vecs = orve_test::gaussian_vectors(kRows, 21);
        ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(b.get(), vecs.data(), kRows),
                  static_cast<int>(kRows));
    }
    static constexpr uint32_t kRows = 3000;
    system_block b;
    std::vector<float> vecs;
};

TEST_F(BruteForce, MatchesIndependentModelOfInt8Scoring) {
    std::vector<model_row> rows;
    for (uint32_t r = 0; r < kRows; ++r) rows.push_back(model_quantize(&vecs[r * 512]));
    auto queries = orve_test::gaussian_vectors(5, 22);
    // Query 0 is a stored row, slightly perturbed: its row must come first.
    for (int i = 0; i < 512; ++i) queries[i] = vecs[1234 * 512 + i] + 0.01f * queries[i];
    for (int qi = 0; qi < 5; ++qi) {
        const float* qv = &queries[qi * 512];
        const model_row qm = model_quantize(qv);
        std::vector<std::pair<float, uint32_t>> want;
        for (uint32_t r = 0; r < kRows; ++r) want.push_back({model_cosine(qm, rows[r]), r + 1});
        std::sort(want.begin(), want.end(), [](auto& a, auto& c) { return a.first > c.first; });

        auto q = orve_test::int8_query(qv, 10);
        vector_similarity_result res[10];
        uint32_t n = 0;
        ASSERT_EQ(semantic_vector_indexing_system_search_similar(b.get(), &q, res, &n), 0);
        ASSERT_EQ(n, 10u);
        orve_test::expect_well_formed(res, n);
        for (uint32_t i = 0; i < n; ++i) {
            EXPECT_EQ(res[i].similarity, want[i].first) << "query " << qi << " rank " << i;
            if (want[i].first != want[i + 1].first &&
                (i == 0 || want[i].first != want[i - 1].first)) {
                EXPECT_EQ(res[i].node_id, want[i].second) << "query " << qi << " rank " << i;
            }
        }
        if (qi == 0) {
            EXPECT_EQ(res[0].node_id, 1235u);
        }
    }
}

TEST_F(BruteForce, ThresholdFilterAndResultCount) {
    const float* qv = &vecs[7 * 512];
    auto q = orve_test::int8_query(qv, 2);
    vector_similarity_result res[3] = {};
    res[2].node_id = 777;  // past the returned count: untouched
    uint32_t n = 0;
    ASSERT_EQ(semantic_vector_indexing_system_search_similar(b.get(), &q, res, &n), 0);
    ASSERT_EQ(n, 2u);
    EXPECT_EQ(res[0].node_id, 8u);
    EXPECT_EQ(res[2].node_id, 777u);
    // A threshold exactly equal to the best similarity keeps that row (>=).
    q.min_similarity = res[0].similarity;
    ASSERT_EQ(semantic_vector_indexing_system_search_similar(b.get(), &q, res, &n), 0);
    ASSERT_EQ(n, 1u);
    EXPECT_EQ(res[0].node_id, 8u);
    // A cluster filter that matches no node: nothing found, still success.
    q.min_similarity = -2.0f;
    q.cluster_filter = 7;
    ASSERT_EQ(semantic_vector_indexing_system_search_similar(b.get(), &q, res, &n), 0);
    EXPECT_EQ(n, 0u);
}

TEST_F(BruteForce, ArgumentChecks) {
    auto q = orve_test::int8_query(vecs.data(), 0);
    vector_similarity_result res[4];
    uint32_t n = 99;
    EXPECT_EQ(semantic_vector_indexing_system_search_similar(b.get(), &q, res, &n), -1);
    q.max_results = 4;
    q.query_vector = nullptr;
    EXPECT_EQ(semantic_vector_indexing_system_search_similar(b.get(), &q, res, &n), -1);
    EXPECT_EQ(n, 0u);
    n = 99;
    EXPECT_EQ(semantic_vector_indexing_system_search_similar(b.get(), nullptr, res, &n), -1);
    EXPECT_EQ(semantic_vector_indexing_system_search_similar(b.get(), &q, nullptr, &n), -1);
    EXPECT_EQ(n, 99u);
}

TEST(BruteForceEdges, EmptyTableAndQuantizedRecordOnlyRow) {
    system_block b;
    auto* sys = b.get();
    ASSERT_EQ(create_with_capacity(sys, "10"), 0);
    auto v = orve_test::gaussian_vectors(1, 30);
    auto q = orve_test::int8_query(v.data(), 3);
    vector_similarity_result res[3];
    uint32_t n = 5;
    ASSERT_EQ(semantic_vector_indexing_system_search_similar(sys, &q, res, &n), 0);
    EXPECT_EQ(n, 0u);

    // A host node whose vector lives only in its own quantised record is still scored.
    unsigned char host[632] = {};
    const uint32_t id = 55;
    std::memcpy(host, &id, 4);
    ASSERT_EQ(semantic_vector_indexing_system_add_node(sys, host), 0);
    ASSERT_EQ(orve_quantized_vector_record_create(v.data(), 55, &sys->nodes[0].quantized), 0);
    ASSERT_EQ(semantic_vector_indexing_system_search_similar(sys, &q, res, &n), 0);
    ASSERT_EQ(n, 1u);
    EXPECT_EQ(res[0].node_id, 55u);
    EXPECT_NEAR(res[0].similarity, 1.0f, 0.01f);
}

TEST(BruteForceEdges, DroppedSlabsGiveMinus7AndTheMessage) {
    system_block b;
    auto* sys = b.get();
    ASSERT_EQ(create_with_capacity(sys, "10"), 0);
    auto v = orve_test::gaussian_vectors(1, 31);
    ASSERT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 1, v.data()), 0);
    ASSERT_EQ(semantic_vector_indexing_system_evict_flat_slab(sys), 0);
    auto q = orve_test::int8_query(v.data(), 3);
    vector_similarity_result res[3];
    uint32_t n = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(semantic_vector_indexing_system_search_similar(sys, &q, res, &n), -7);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[ORVE] bruteforce fallback disabled: flat slabs were dropped\n");
    q.max_results = 0;  // brute force is refused before its own argument checks
    testing::internal::CaptureStderr();
    EXPECT_EQ(semantic_vector_indexing_system_search_similar(sys, &q, res, &n), -7);
    testing::internal::GetCapturedStderr();
}

// A batch answers each query exactly as a lone search does: same count, same result bytes
// (ids, order, score bits, zeroed tail), across blocks of the batch, partial row tiles, a row
// without a vector in the middle of the store, thresholds and re-ranking from the sidecar.
TEST(BruteForceBatch, EqualsOneQueryAtATime) {
    char dir[] = "/tmp/orve_batch_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/v.sidecar";
    {
        system_block b;
        auto* sys = b.get();
        ASSERT_EQ(create_with_capacity(sys, "1000"), 0);
        ASSERT_EQ(semantic_vector_indexing_system_open_sidecar(sys, path.c_str()), 0);
        const auto vecs = orve_test::gaussian_vectors(700, 50);
        ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), 300), 300);
        unsigned char host[632] = {};
        host[0] = 201;  // a row with no vector
        ASSERT_EQ(semantic_vector_indexing_system_add_node(sys, host), 0);
        ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, &vecs[300 * 512], 400),
                  400);
        auto queries = orve_test::gaussian_vectors(64, 51);
        std::copy(vecs.begin(), vecs.begin() + 512, queries.begin() + 3 * 512);  // a stored row

        struct {
            uint32_t n, k;
            float min_similarity;
            uint32_t rerank, factor;
        } const cases[] = {{1, 10, -2.0f, 0, 0},   {7, 1, -2.0f, 1, 0},  {16, 10, 0.05f, 0, 0},
                           {17, 701, -2.0f, 1, 3}, {64, 5, -2.0f, 0, 0}, {64, 3, 0.1f, 1, 2}};
        for (const auto& c : cases) {
            std::vector<vector_similarity_result> batch(c.n * c.k);
            std::vector<uint32_t> counts(c.n, 99);
            orve512_batch_query bq;
            std::memset(&bq, 0, sizeof bq);
            bq.n_queries = c.n;
            bq.k = c.k;
            bq.min_similarity = c.min_similarity;
            bq.queries = queries.data();
            bq.results = batch.data();
            bq.counts = counts.data();
            bq.rerank = c.rerank;
            bq.rerank_factor = c.factor;
            ASSERT_EQ(semantic_vector_indexing_system_search_similar_orve512_batch(sys, &bq), 0);
            for (uint32_t i = 0; i < c.n; ++i) {
                auto q = orve_test::int8_query(&queries[i * 512], c.k);
                q.min_similarity = c.min_similarity;
                q.rerank = c.rerank;
                q.rerank_factor = c.factor;
                std::vector<vector_similarity_result> one(c.k);
                uint32_t n = 0;
                ASSERT_EQ(semantic_vector_indexing_system_search_similar(sys, &q, one.data(), &n),
                          0);
                EXPECT_EQ(counts[i], n) << c.n << " " << i;
                EXPECT_EQ(std::memcmp(one.data(), &batch[i * c.k], c.k * sizeof one[0]), 0)
                    << "batch " << c.n << " k " << c.k << " query " << i;
            }
        }
    }
    unlink(path.c_str());
    rmdir(dir);
}

TEST(LegacyFamily, ListingInTableOrderWithThresholdAndFilter) {
    system_block b;
    auto* sys = b.get();
    ASSERT_EQ(create_with_capacity(sys, "10"), 0);
    auto vecs = orve_test::gaussian_vectors(5, 40);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), 5), 5);
    sys->nodes[1].cluster_id = 7;
    sys->nodes[3].cluster_id = 7;
    sys->nodes[3].score = 0.25f;

    vector_similarity_query q{};  // all zero: the legacy listing
    q.max_results = 3;
    vector_similarity_result res[5];
    uint32_t n = 0;
    ASSERT_EQ(semantic_vector_indexing_system_search_similar(sys, &q, res, &n), 0);
    ASSERT_EQ(n, 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(res[i].node_id, i + 1);
        EXPECT_EQ(res[i].rank, i + 1);
        EXPECT_EQ(res[i].similarity, 0.0f);
        EXPECT_EQ(res[i].distance, 0.0f);
    }
    q.cluster_filter = 7;
    q.max_results = 5;
    ASSERT_EQ(semantic_vector_indexing_system_search_similar(sys, &q, res, &n), 0);
    ASSERT_EQ(n, 2u);
    EXPECT_EQ(res[0].node_id, 2u);
    EXPECT_EQ(res[1].node_id, 4u);
    EXPECT_EQ(res[1].node_score, 0.25f);
    EXPECT_EQ(res[1].cluster_id, 7u);
    q.min_similarity = 0.01f;
    ASSERT_EQ(semantic_vector_indexing_system_search_similar(sys, &q, res, &n), 0);
    EXPECT_EQ(n, 0u);
    q.min_similarity = 0.0f;
    q.max_results = 0;
    ASSERT_EQ(semantic_vector_indexing_system_search_similar(sys, &q, res, &n), 0);
    EXPECT_EQ(n, 0u);
}

}  // namespace
