// Bucket routing, leaf routing and the scored-pair order they share.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "ivf/ivf_internal.h"
#include "ivf_test_data.h"

namespace {

// Centroids given by their cosine with the query e0: t e0 + sqrt(1 - t^2) e1, quantised.
struct centroid_set {
    std::vector<int8_t> codes;
    std::vector<float> scales, norms;
    centroid_set(std::initializer_list<float> cosines) {
        for (float t : cosines) add(t);
    }
    void add(float t) {
        std::vector<float> v(512, 0.0f);
        v[0] = t, v[1] = std::sqrt(1.0f - t * t);
        codes.resize(codes.size() + 512), scales.push_back(0.0f), norms.push_back(0.0f);
        orve_quantize_float_vector_symmetric(v.data(), 512, &codes[codes.size() - 512],
                                             &scales.back(), &norms.back());
    }
    uint32_t size() const { return static_cast<uint32_t>(scales.size()); }
    void point(orve_ivf_index* x) {
        x->n_buckets = size(), x->centroid_codes = codes.data();
        x->centroid_scales = scales.data(), x->centroid_norms = norms.data();
    }
};

std::vector<float> e0_query() {
    std::vector<float> q(512, 0.0f);
    q[0] = 1.0f;
    return q;
}

TEST(ScoredPairOrder, NaNOnEitherSideLetsTheIndexDecide) {
    const ivf_scored_pair nan5{NAN, 5}, d2{0.7f, 2}, e9{-0.3f, 9};
    EXPECT_EQ(cmp_scored_desc(&nan5, &d2), 1);
    EXPECT_EQ(cmp_scored_desc(&d2, &nan5), -1);
    EXPECT_EQ(cmp_scored_desc(&nan5, &e9), -1);
}

// An H-IVF of centroids given by their cosines with e0; an empty list: an all-zero leaf.
struct hand_hivf {
    centroid_set level1;
    std::vector<centroid_set> leaves;
    std::vector<orve_ivf_index> entries;
    orve_hivf_index h{};

    hand_hivf(std::initializer_list<float> l1, std::vector<centroid_set> l2, uint32_t b2)
        : level1(l1), leaves(std::move(l2)), entries(leaves.size(), orve_ivf_index{}) {
        for (size_t i = 0; i < leaves.size(); ++i)
            if (leaves[i].size() > 0) leaves[i].point(&entries[i]);
        h = {level1.size(), b2, level1.codes.data(), level1.scales.data(), level1.norms.data(),
             entries.data()};
    }
};

using leaf_list = std::vector<std::pair<uint32_t, uint32_t>>;

leaf_list leaves_of(const orve_hivf_index& h, const std::vector<float>& q, uint32_t p1,
                    uint32_t p2) {
    std::vector<uint32_t> l1(64, 0xDEAD), l2(64, 0xDEAD);
    uint32_t count = 0xDEAD;
    EXPECT_EQ(orve_hivf_route_top_leaves(&h, q.data(), p1, p2, l1.data(), l2.data(), &count), 0);
    leaf_list out;
    for (uint32_t t = 0; t < count && t < 64; ++t) out.emplace_back(l1[t], l2[t]);
    return out;
}

TEST(LeafRouting, GroupsLeavesUnderTheirLevelOneBucket) {
    hand_hivf x({0.2f, 0.8f, 0.5f},
                {centroid_set{0.3f, 0.95f}, centroid_set{0.1f, 0.7f}, centroid_set{0.4f}}, 2);
    const auto q = e0_query();
    EXPECT_EQ(leaves_of(x.h, q, 2, 2), (leaf_list{{1, 1}, {1, 0}, {2, 0}}));
    EXPECT_EQ(leaves_of(x.h, q, 0, 2), leaf_list{});
    EXPECT_EQ(leaves_of(x.h, q, 2, 0), leaf_list{});
    // Probes at or above b1 and b2: every leaf exactly once.
    EXPECT_EQ(leaves_of(x.h, q, 9, 9), (leaf_list{{1, 1}, {1, 0}, {2, 0}, {0, 1}, {0, 0}}));
    // A zero query ties everything at 0: ascending at both levels.
    const std::vector<float> tiny(512, 1e-13f);
    EXPECT_EQ(leaves_of(x.h, tiny, 3, 2), (leaf_list{{0, 0}, {0, 1}, {1, 0}, {1, 1}, {2, 0}}));
    // An empty level-1 bucket contributes nothing and is not replaced by the next one.
    hand_hivf y({0.2f, 0.8f, 0.5f}, {centroid_set{0.3f, 0.95f}, centroid_set{}, centroid_set{0.4f}},
                2);
    EXPECT_EQ(leaves_of(y.h, q, 2, 2), (leaf_list{{2, 0}}));
}

TEST(LeafRouting, RejectsBadArgumentsAndMalformedRecords) {
    hand_hivf x({0.2f, 0.8f}, {centroid_set{0.3f}, centroid_set{0.1f, 0.7f}}, 2);
    const auto q = e0_query();
    uint32_t l1[8], l2[8], count = 77;
    EXPECT_EQ(orve_hivf_route_top_leaves(nullptr, q.data(), 1, 1, l1, l2, &count), -1);
    EXPECT_EQ(orve_hivf_route_top_leaves(&x.h, q.data(), 1, 1, l1, l2, nullptr), -1);
    // b1 = 0; a leaf count above b2 cannot come from a build and would overrun the scratch.
    for (auto [b1, b2] : {std::pair{0u, 2u}, {2u, 1u}}) {
        orve_hivf_index bad = x.h;
        bad.b1 = b1, bad.b2 = b2;
        EXPECT_EQ(orve_hivf_route_top_leaves(&bad, q.data(), 2, 1, l1, l2, &count), -1);
    }
    EXPECT_EQ(count, 77u);
}

// Many centroids with few distinct scores (many ties), for every probe count: the chosen buckets
// are the first of an independent stable sort by score, descending. A centroid stored with scale 0
// scores 0, as does every centroid for a query below the quantiser's zero threshold.
TEST(BucketRouting, ChoosesTheFirstOfAStableSortByScore) {
    centroid_set set{};
    for (int i = 0; i < 300; ++i) set.add(((i * 37) % 11) / 10.0f - 0.5f);
    set.scales[5] = 0.0f;
    orve_ivf_index idx{};
    set.point(&idx);
    for (const std::vector<float>& q : {e0_query(), std::vector<float>(512, 1e-13f)}) {
        // The scores the routing sees, computed here from the codes with plain loops.
        int8_t qc[512];
        float qs = 0.0f, qn = 0.0f;
        ASSERT_EQ(orve_quantize_float_vector_symmetric(q.data(), 512, qc, &qs, &qn), 0);
        std::vector<std::pair<float, uint32_t>> want;
        for (uint32_t c = 0; c < set.size(); ++c) {
            int32_t dot = 0;
            for (int i = 0; i < 512; ++i) dot += qc[i] * set.codes[c * 512 + i];
            const float s =
                orve_cosine_from_quantized_dot(dot, qs, set.scales[c], qn, set.norms[c]);
            want.push_back({qs <= 0.0f || set.scales[c] <= 0.0f ? 0.0f : s, c});
        }
        std::stable_sort(want.begin(), want.end(),
                         [](const auto& a, const auto& b) { return a.first > b.first; });
        for (uint32_t p : {1u, 2u, 7u, 40u, 299u, 300u, 1000u}) {
            std::vector<uint32_t> got(set.size(), 0xDEADu);
            ASSERT_EQ(orve_ivf_route_top_buckets(&idx, q.data(), p, got.data()), 0);
            for (uint32_t t = 0; t < std::min(p, set.size()); ++t)
                ASSERT_EQ(got[t], want[t].second) << p << " " << t;
        }
    }
    // Rejections write nothing.
    uint32_t out[1] = {77};
    EXPECT_EQ(orve_ivf_route_top_buckets(nullptr, e0_query().data(), 1, out), -1);
    EXPECT_EQ(orve_ivf_route_top_buckets(&idx, e0_query().data(), 0, out), -1);
    const orve_ivf_index empty{};
    EXPECT_EQ(orve_ivf_route_top_buckets(&empty, e0_query().data(), 1, out), -1);
    EXPECT_EQ(out[0], 77u);
}

}  // namespace
