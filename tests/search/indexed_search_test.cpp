// The IVF and H-IVF paths and the batch search through the public entry points; probing every
// bucket (or leaf), an index scan sees every row, so its answer must equal brute force's.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "core/publication.h"
#include "core/system.h"
#include "search/ivf_pinned_search.h"
#include "support/system_fixture.h"

namespace {

using orve_test::system_block;

constexpr uint32_t kRows = 1200;

class IndexedSearch : public ::testing::Test {
  protected:
    void SetUp() override {
        vecs = orve_test::gaussian_vectors(kRows, 90);
        ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys(), vecs.data(), kRows),
                  static_cast<int>(kRows));
        queries = orve_test::gaussian_vectors(6, 91);
    }
    semantic_vector_indexing_system* sys() { return b.get(); }

    auto search(const vector_similarity_query& q) { return orve_test::search(sys(), q); }
    static void expect_same(const std::vector<vector_similarity_result>& a,
                            const std::vector<vector_similarity_result>& b) {
        ASSERT_EQ(a.size(), b.size());
        for (std::size_t i = 0; i < a.size(); ++i) {
            EXPECT_EQ(a[i].similarity, b[i].similarity) << i;
            // Identifiers can differ only between exactly tied scores.
            if (i + 1 < a.size() && a[i].similarity != a[i + 1].similarity &&
                (i == 0 || a[i].similarity != a[i - 1].similarity)) {
                EXPECT_EQ(a[i].node_id, b[i].node_id) << i;
            }
        }
    }

    // Routes q through the IVF (ivf probes), the H-IVF (l1 and l2 probes) or neither (all 0).
    static vector_similarity_query route(vector_similarity_query q, uint32_t ivf, uint32_t l1 = 0,
                                         uint32_t l2 = 0) {
        q.use_ivf = ivf != 0, q.n_probe = ivf, q.use_hivf = l1 != 0;
        q.n_probe_l1 = l1, q.n_probe_l2 = l2;
        return q;
    }
    // An IVF of `buckets`, then (b1 != 0) an H-IVF of b1 x b2, each from its own seed.
    void build(uint32_t buckets, uint32_t seed, uint32_t b1 = 0, uint32_t b2 = 0,
               uint32_t l2_seed = 0) {
        ASSERT_EQ(semantic_vector_indexing_system_build_ivf(sys(), buckets, seed), 0);
        if (b1 == 0) return;
        ASSERT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys(), b1, b2, l2_seed), 0);
    }

    system_block b{"4000"};
    std::vector<float> vecs, queries;
};

TEST_F(IndexedSearch, BuildLimits) {
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf(sys(), 0, 1), -1);
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf(sys(), kRows + 1, 1), -1);
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys(), 0, 4, 1), -1);
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys(), 12, 101, 1), -1);
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys(), 12, 100, 1), 0);
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf(nullptr, 4, 1), -1);

    system_block small("2000");
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(small.get(), vecs.data(), 999), 999);
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf(small.get(), 4, 1), -1);
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_level2(small.get(), 2, 2, 1), -1);
    // One row without a vector makes both builds impossible.
    unsigned char host[632] = {1};
    ASSERT_EQ(semantic_vector_indexing_system_add_node(small.get(), host), 0);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(small.get(), vecs.data(), 10), 10);
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf(small.get(), 4, 1), -1);
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_level2(small.get(), 2, 2, 1), -1);
}

TEST_F(IndexedSearch, FullProbeEqualsBruteForceAndGenerationsTrackStaleness) {
    build(16, 7, 4, 4, 3);
    EXPECT_EQ(semantic_vector_indexing_system_get_ivf_generation(sys()), kRows);
    EXPECT_EQ(semantic_vector_indexing_system_get_ivf_built_generation(sys()), kRows);
    // Probes at or past the buckets mean all, also where an H-IVF product wraps in 32 bits;
    // zero level-2 probes skip the H-IVF (brute force answers).
    const struct {
        uint32_t ivf_probes, l1, l2;
    } table[] = {
        {16, 0, 0},      {1000, 0, 0}, {0, 4, 4}, {0, 65536, 65536}, {0, 0xFFFFFFFFu, 0xFFFFFFFFu},
        {0, 0x10000, 4}, {0, 1, 0}};
    for (int qi = 0; qi < 3; ++qi) {
        auto q = orve_test::int8_query(&queries[qi * 512], 10);
        const auto brute = search(q);
        for (const auto& t : table) expect_same(search(route(q, t.ivf_probes, t.l1, t.l2)), brute);
    }
    // A few probes: still a well-formed answer, from the index (not the full brute-force set).
    const auto few = search(route(orve_test::int8_query(vecs.data(), 5), 2));
    ASSERT_GE(few.size(), 1u);
    EXPECT_EQ(few[0].node_id, 1u);  // a stored row finds itself in its own bucket

    // One more row: the IVF is stale and brute force answers (with the new row) until a build.
    auto extra = orve_test::gaussian_vectors(1, 92);
    ASSERT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys(), 5000, extra.data()), 0);
    EXPECT_EQ(semantic_vector_indexing_system_get_ivf_generation(sys()),
              semantic_vector_indexing_system_get_ivf_built_generation(sys()) + 1);
    ivf_live* pinned = nullptr;
    EXPECT_EQ(ivf_rcu_pin_live(sys(), &pinned), -1);
    EXPECT_EQ(search(route(orve_test::int8_query(extra.data(), 3), 1))[0].node_id, 5000u);
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf(sys(), 16, 7), 0);
    ASSERT_EQ(ivf_rcu_pin_live(sys(), &pinned), 0);
    EXPECT_EQ(pinned->index.n_rows, kRows + 1);
    ivf_live_release(pinned);
}

// The cluster filter on both index scans against an unfiltered brute force, filtered here.
TEST_F(IndexedSearch, ClusterFilterOnIvfAndHivfScans) {
    for (uint32_t s = 0; s < kRows; ++s) sys()->nodes[s].cluster_id = s % 3 + 1;
    build(16, 7, 4, 4, 3);
    auto q = orve_test::int8_query(&queries[0], kRows);
    std::vector<vector_similarity_result> expected;
    for (const auto& r : search(q)) {
        if (r.cluster_id == 2 && expected.size() < 10) expected.push_back(r);
    }
    ASSERT_EQ(expected.size(), 10u);
    q.max_results = 10;
    q.cluster_filter = 2;
    for (const vector_similarity_query& path : {route(q, 16), route(q, 0, 4, 4)}) {
        const auto got = search(path);
        expect_same(got, expected);
        for (const auto& r : got) EXPECT_EQ(r.cluster_id, 2u);
    }
}

TEST_F(IndexedSearch, KBeyondTheRowsReturnsEveryRowOnEveryPath) {
    // k = 2^32 - 1 must neither ask for a heap that large nor lose rows: every row is answered,
    // as with k equal to the row count, into an array that holds only the rows.
    build(8, 2, 4, 4, 2);
    auto exact = orve_test::int8_query(queries.data(), kRows);
    exact.min_similarity = -2.0f;
    const auto all = search(exact);
    ASSERT_EQ(all.size(), kRows);
    for (int path = 0; path < 3; ++path) {
        auto q = route(exact, path == 1 ? 8 : 0, path == 2 ? 4 : 0, 4);
        q.max_results = 0xFFFFFFFFu;
        std::vector<vector_similarity_result> r(kRows);
        uint32_t n = 0;
        ASSERT_EQ(semantic_vector_indexing_system_search_similar(sys(), &q, r.data(), &n), 0)
            << path;
        r.resize(n);
        expect_same(r, all);
    }
}

TEST_F(IndexedSearch, TeardownsPinnedIndexesAndTheDroppedStore) {
    build(8, 1, 4, 4, 1);
    hivf_live* h = nullptr;
    ASSERT_EQ(hivf_rcu_pin_live(sys(), &h), 0);
    hivf_live_release(h);
    semantic_vector_indexing_system_destroy_hivf(sys());
    EXPECT_EQ(semantic_vector_indexing_system_get_ivf_generation(sys()), kRows);
    EXPECT_EQ(hivf_rcu_pin_live(sys(), &h), -1);

    ASSERT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys(), 4, 4, 1), 0);
    semantic_vector_indexing_system_destroy_ivf(sys());
    EXPECT_EQ(semantic_vector_indexing_system_get_ivf_generation(sys()), kRows + 1);
    EXPECT_EQ(semantic_vector_indexing_system_get_ivf_built_generation(sys()), kRows);
    EXPECT_EQ(sys()->live_ivf.load(), nullptr);
    EXPECT_EQ(hivf_rcu_pin_live(sys(), &h), -1) << "an IVF teardown makes the H-IVF stale";
    semantic_vector_indexing_system_destroy_ivf(nullptr);
    semantic_vector_indexing_system_destroy_hivf(nullptr);

    build(8, 1);
    ivf_live* old = nullptr;
    ASSERT_EQ(ivf_rcu_pin_live(sys(), &old), 0);
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf(sys(), 12, 2), 0);
    EXPECT_NE(sys()->live_ivf.load(), old);
    EXPECT_EQ(old->refs.load(), 1u);  // only this search holds it now
    // The old index is still whole and searchable (ASan would flag a freed one).
    auto q = orve_test::int8_query(queries.data(), 5);
    q.n_probe = 8;
    vector_similarity_result r[5];
    uint32_t n = 0;
    ASSERT_EQ(search_similar_orve512_ivf_rcu_pinned(sys(), old, &q, r, &n), 0);
    EXPECT_EQ(n, 5u);
    ivf_live_release(old);
    ASSERT_EQ(semantic_vector_indexing_system_evict_flat_slab(sys()), 0);
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf(sys(), 8, 1), -1);
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_level2(sys(), 2, 2, 1), -1);
    EXPECT_EQ(search(route(orve_test::int8_query(vecs.data() + 512 * 3, 3), 12))[0].node_id, 4u);
}

TEST_F(IndexedSearch, ObjectBuildEqualsTheFloatBuildOnDequantisedRows) {
    // The object trains from its int8 rows; the module builder given the dequantised rows
    // (code x 1/scale, what earlier builds trained on) must produce the same arrays.
    std::vector<float> floats(static_cast<std::size_t>(kRows) * 512);
    for (uint32_t r = 0; r < kRows; ++r) {
        const float w = 1.0f / sys()->row_scale[r];
        for (int i = 0; i < 512; ++i)
            floats[r * 512 + i] = static_cast<float>(sys()->slab_i8[r * 512 + i]) * w;
    }
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf(sys(), 8, 5), 0);
    ivf_live* a = nullptr;
    ASSERT_EQ(ivf_rcu_pin_live(sys(), &a), 0);
    orve_ivf_index b{};
    ASSERT_EQ(
        orve_ivf_build_kmeans_centroids(floats.data(), kRows, 8, 5, sys()->slab_i8,
                                        sys()->row_scale, sys()->row_norm, sys()->row_valid, &b),
        0);
    EXPECT_EQ(std::memcmp(a->index.bucket_sizes, b.bucket_sizes, 8 * 4), 0);
    EXPECT_EQ(std::memcmp(a->index.row_ids, b.row_ids, kRows * 4), 0);
    EXPECT_EQ(std::memcmp(a->index.centroid_codes, b.centroid_codes, 8 * 512), 0);
    EXPECT_EQ(std::memcmp(a->index.centroid_scales, b.centroid_scales, 8 * 4), 0);
    EXPECT_EQ(std::memcmp(a->index.codes, b.codes, kRows * 512), 0);
    orve_ivf_index_destroy(&b);
    ivf_live_release(a);
}

// Each batch answer equals its queries searched one at a time, whole records compared. Cases:
// exact ties (60 copied rows: winners depend on the order candidates are offered in), 4000
// queries probing every row (more dot products than one 4 Mi chunk: answered in chunks), and
// routing that refuses, so the batch is answered again one query at a time over buffers the
// failed attempt may have scribbled on.
TEST_F(IndexedSearch, BatchMatchesSingleQueries) {
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys(), vecs.data(), 60), 60);
    ASSERT_EQ(semantic_vector_indexing_system_build_ivf(sys(), 16, 9), 0);
    const std::vector<float> pool = orve_test::gaussian_vectors(40, 92);
    struct Case {
        uint32_t n_queries, k, n_probe, repeat;  // query i is pool row (i % repeat)
        float min_similarity;
        bool routing_refuses;
    } cases[] = {{1, 10, 4, 40, -2.0f, false},    {7, 5, 3, 40, -2.0f, false},
                 {37, 20, 16, 40, -2.0f, false},  {13, 1, 1, 5, -2.0f, false},
                 {9, 64, 99, 3, 0.05f, false},    {20, 300, 6, 40, -2.0f, false},
                 {4000, 2, 99, 40, -2.0f, false}, {21, 300, 5, 40, 0.1f, true}};
    orve_ivf_index& live = sys()->live_ivf.load()->index;
    int8_t* const centroids = live.centroid_codes;
    for (const Case& c : cases) {
        std::vector<float> qs(static_cast<std::size_t>(c.n_queries) * 512);
        for (uint32_t i = 0; i < c.n_queries; ++i)
            std::memcpy(&qs[512 * i], &pool[512 * (i % c.repeat)], 2048);
        std::vector<vector_similarity_result> results(c.n_queries * c.k);
        std::memset(results.data(), 0xAB, results.size() * sizeof results[0]);
        std::vector<uint32_t> counts(c.n_queries, 99);
        const orve512_batch_query bq{c.n_queries, c.k,       c.min_similarity, 1,
                                     c.n_probe,   qs.data(), results.data(),   counts.data(),
                                     0,           0};
        // No build makes an index without centroids: routing refuses it, every search falls back.
        live.centroid_codes = c.routing_refuses ? nullptr : centroids;
        ASSERT_EQ(semantic_vector_indexing_system_search_similar_orve512_batch(sys(), &bq), 0);
        for (uint32_t i = 0; i < c.n_queries; ++i) {
            auto q = route(orve_test::int8_query(&qs[512 * i], c.k), c.n_probe);
            q.min_similarity = c.min_similarity;
            std::vector<vector_similarity_result> single(c.k);
            std::memset(single.data(), 0, single.size() * sizeof single[0]);
            uint32_t n = 0;
            ASSERT_EQ(semantic_vector_indexing_system_search_similar(sys(), &q, single.data(), &n),
                      0);
            ASSERT_EQ(counts[i], n) << "k " << c.k << " query " << i;
            EXPECT_EQ(std::memcmp(&results[i * c.k], single.data(), c.k * sizeof single[0]), 0)
                << "n " << c.n_queries << " k " << c.k << " probes " << c.n_probe << " query " << i;
        }
    }
    live.centroid_codes = centroids;
    // Bad arguments, missing counts, and a batch failing once the store's drop refuses it.
    std::vector<vector_similarity_result> results(3 * 2);
    orve512_batch_query bq{3, 0, -2.0f, 0, 0, queries.data(), results.data(), nullptr, 0, 0};
    EXPECT_EQ(semantic_vector_indexing_system_search_similar_orve512_batch(sys(), &bq), -1);
    bq.k = 2;
    EXPECT_EQ(semantic_vector_indexing_system_search_similar_orve512_batch(sys(), nullptr), -1);
    // Counts are optional on the pinned path and on brute force.
    bq.use_ivf = bq.n_probe = 1;
    EXPECT_EQ(semantic_vector_indexing_system_search_similar_orve512_batch(sys(), &bq), 0);
    semantic_vector_indexing_system_destroy_ivf(sys());
    EXPECT_EQ(semantic_vector_indexing_system_search_similar_orve512_batch(sys(), &bq), 0);
    ASSERT_EQ(semantic_vector_indexing_system_evict_flat_slab(sys()), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(semantic_vector_indexing_system_search_similar_orve512_batch(sys(), &bq), -1);
    testing::internal::GetCapturedStderr();
}

}  // namespace
