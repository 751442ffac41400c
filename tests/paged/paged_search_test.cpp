// Results against a plain re-computation over the hand-built H-IVF the file was encoded from: its
// cosines, bucket and leaf choice by a stable sort (ties to the lower index), every chosen row.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <thread>
#include <tuple>

#include "paged_fixture.h"
#include "search/topk.h"

using namespace paged_test;

namespace {

struct query {
    std::vector<int8_t> codes;
    float scale, norm;
};

query random_query(uint64_t seed) {
    lcg g{seed};
    return {g.codes(512), g.unit(), g.unit() * 3.0f};
}

std::vector<uint32_t> best_first(const std::vector<float>& scores, uint32_t p) {
    std::vector<uint32_t> idx(scores.size());
    std::iota(idx.begin(), idx.end(), 0u);
    std::stable_sort(idx.begin(), idx.end(),
                     [&](uint32_t a, uint32_t b) { return scores[a] > scores[b]; });
    idx.resize(std::min<size_t>(p, idx.size()));
    return idx;
}

bool by_row(const bf_topk_entry& a, const bf_topk_entry& b) {
    return a.row < b.row;
}

// Every row the search should offer, sorted by row.
std::vector<bf_topk_entry> reference(const hand_hivf& h, const std::vector<uint32_t>& ids,
                                     const query& q, uint32_t p1, uint32_t p2, float min_sim) {
    auto cos = [&](const int8_t* c, float s, float n) {
        return plain_cosine(q.codes.data(), c, q.scale, s, q.norm, n);
    };
    std::vector<float> l1;
    for (const bucket_plan& b : h.buckets) l1.push_back(cos(b.centroid.data(), b.scale, b.norm));
    std::vector<bf_topk_entry> out;
    for (uint32_t c : best_first(l1, p1)) {
        const auto& leaves = h.buckets[c].leaves;
        std::vector<float> slots(h.b2(), 0.0f);  // an empty slot has scale 0
        for (size_t j = 0; j < leaves.size(); ++j)
            slots[j] = cos(leaves[j].centroid.data(), leaves[j].scale, leaves[j].norm);
        for (uint32_t j : best_first(slots, p2)) {
            for (uint32_t k = 0; j < leaves.size() && k < leaves[j].rows(); ++k) {
                const leaf_plan& l = leaves[j];
                const float s = cos(&l.codes[512ull * k], l.scales[k], l.norms[k]);
                if (s >= min_sim) out.push_back({s, ids[l.row_ids[k]], 0, 0.0f, l.row_ids[k]});
            }
        }
    }
    std::sort(out.begin(), out.end(), by_row);
    return out;
}

class PagedSearch : public ::testing::Test {
  protected:
    void open(const hand_hivf& h, const std::vector<uint32_t>& ids, uint32_t version) {
        write_file(dir_.file("s.ivfp"), encode_ivfp(h, ids, version));
        testing::internal::CaptureStdout();
        ASSERT_EQ(orve_ivf_paged_open(dir_.file("s.ivfp").c_str(), &handle_), 0);
        testing::internal::GetCapturedStdout();
    }
    void TearDown() override { orve_ivf_paged_close(handle_); }

    // Runs a search into a heap larger than any result and compares it with the reference.
    void expect(const query& q, uint32_t p1, uint32_t p2, float min_sim, const uint32_t* id_map,
                const std::vector<bf_topk_entry>& want) {
        std::vector<bf_topk_entry> heap(100001);
        uint32_t found = 0;
        EXPECT_EQ(orve_ivf_paged_search(handle_, nullptr, p1, p2, q.codes.data(), heap.data(),
                                        &found, 100000, id_map, q.scale, q.norm, min_sim),
                  0);
        heap.resize(found);
        for (uint32_t i = 1; i < found; ++i) EXPECT_GE(heap[i].score, heap[(i - 1) / 2].score);
        std::sort(heap.begin(), heap.end(), by_row);
        ASSERT_EQ(heap.size(), want.size());
        auto fields = [](const bf_topk_entry& e) {
            return std::tuple(e.row, e.node_id, e.score, e.cluster_id, e.node_score);
        };
        for (size_t i = 0; i < heap.size(); ++i) EXPECT_EQ(fields(heap[i]), fields(want[i])) << i;
    }

    scratch_dir dir_;
    orve_ivf_paged_index* handle_ = nullptr;
};

}  // namespace

// Two threads search one handle at once, in plain and in low-memory mode, with the cache
// dropped in between: none of it may change a result. Bucket 3 repeats bucket 2's centroid and
// leaf 1 of bucket 0 repeats leaf 2's, so ties must go to the lower index at both levels.
TEST_F(PagedSearch, MatchesThePlainComputationForEveryProbeSettingAndMode) {
    auto plan = random_buckets(5, 4, 12, 51);
    auto same_centroid = [](auto& to, const auto& from) {
        to.centroid = from.centroid, to.scale = from.scale, to.norm = from.norm;
    };
    same_centroid(plan[3], plan[2]);
    same_centroid(plan[0].leaves[1], plan[0].leaves[2]);
    hand_hivf h(5, 4, plan);
    const auto ids = node_table(h.total_rows);
    open(h, ids, 2);
    const uint32_t probes[][2] = {{1, 1}, {2, 2}, {3, 4}, {5, 1}, {1, 4}, {9, 9}};
    auto run = [&](uint64_t first_query) {
        for (uint64_t qs = first_query; qs < 4; qs += 2) {
            const query q = random_query(100 + qs);
            for (const auto& p : probes) {
                for (float min_sim : {-1e30f, 0.0f, 0.02f}) {
                    SCOPED_TRACE(testing::Message()
                                 << qs << " " << p[0] << "," << p[1] << " " << min_sim);
                    expect(q, p[0], p[1], min_sim, nullptr,
                           reference(h, ids, q, p[0], p[1], min_sim));
                }
            }
        }
    };
    for (uint32_t low_memory : {0u, 1u}) {
        orve_ivf_paged_set_low_memory(handle_, low_memory);
        std::thread other(run, 1);
        run(0);
        other.join();
        orve_ivf_paged_drop_cache(handle_);
    }
}

TEST_F(PagedSearch, VersionOneTakesNodeIdsFromTheMap) {
    hand_hivf h(3, 2, random_buckets(3, 2, 7, 56));
    std::vector<uint32_t> map(h.total_rows);
    for (uint32_t k = 0; k < map.size(); ++k) map[k] = 5 * k + 2;
    const query q = random_query(12);
    open(h, node_table(h.total_rows), 1);
    expect(q, 3, 2, -1e30f, map.data(), reference(h, map, q, 3, 2, -1e30f));
    expect(q, 3, 2, -1e30f, nullptr, {});
}
