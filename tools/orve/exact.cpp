#include "exact.h"

#include <algorithm>
#include <cmath>
#include <thread>

namespace orve::tool {

namespace {

constexpr uint32_t kDim = 512;
// Rows are scored in groups laid out dimension-major, so the innermost loop runs across rows:
// each (query, row) sum still adds its 512 products in index order, and the compiler can use
// vector lanes for different rows without reassociating any sum.
constexpr uint32_t kGroup = 32;

}  // namespace

exact_topk::exact_topk(const float* queries, uint32_t n_queries, uint32_t k)
    : k_(k),
      n_queries_(n_queries),
      queries_(uint64_t{n_queries} * kDim),
      query_norms_(n_queries),
      best_(n_queries) {
    for (uint32_t q = 0; q < n_queries; ++q) {
        double norm = 0.0;
        for (uint32_t j = 0; j < kDim; ++j) {
            const double v = queries[uint64_t{q} * kDim + j];
            queries_[uint64_t{q} * kDim + j] = v;
            norm += v * v;
        }
        query_norms_[q] = std::sqrt(norm);
    }
}

void exact_topk::offer(uint32_t q, double score, uint64_t row) {
    std::vector<entry>& best = best_[q];
    if (best.size() == k_ && score <= best.back().score) return;
    // Strictly better than an equal earlier score only: rows arrive in order, so the earlier
    // row wins a tie.
    auto pos = std::upper_bound(best.begin(), best.end(), score,
                                [](double s, const entry& e) { return s > e.score; });
    best.insert(pos, entry{score, row});
    if (best.size() > k_) best.pop_back();
}

void exact_topk::scan(uint32_t q_begin, uint32_t q_end, const std::vector<double>& block_t,
                      const std::vector<double>& norms, uint64_t first_row, uint32_t count) {
    double acc[kGroup];
    for (uint32_t g = 0; g < count; g += kGroup) {
        const uint32_t width = std::min(kGroup, count - g);
        const double* t = block_t.data() + uint64_t{g} * kDim;
        for (uint32_t q = q_begin; q < q_end; ++q) {
            const double* qv = queries_.data() + uint64_t{q} * kDim;
            std::fill(acc, acc + kGroup, 0.0);
            for (uint32_t j = 0; j < kDim; ++j) {
                const double qj = qv[j];
                const double* tj = t + uint64_t{j} * kGroup;
                for (uint32_t r = 0; r < kGroup; ++r) acc[r] += qj * tj[r];
            }
            for (uint32_t r = 0; r < width; ++r) {
                const double denom = query_norms_[q] * norms[g + r];
                offer(q, denom > 0.0 ? acc[r] / denom : 0.0, first_row + g + r);
            }
        }
    }
}

void exact_topk::add_rows(const float* rows, uint64_t first_row, uint32_t count) {
    const uint32_t groups = (count + kGroup - 1) / kGroup;
    std::vector<double> block_t(uint64_t{groups} * kGroup * kDim, 0.0);
    std::vector<double> norms(uint64_t{groups} * kGroup, 0.0);
    for (uint32_t r = 0; r < count; ++r) {
        double* t = block_t.data() + uint64_t{r / kGroup} * kGroup * kDim + r % kGroup;
        double norm = 0.0;
        for (uint32_t j = 0; j < kDim; ++j) {
            const double v = rows[uint64_t{r} * kDim + j];
            t[uint64_t{j} * kGroup] = v;
            norm += v * v;
        }
        norms[r] = std::sqrt(norm);
    }
    // Queries are independent, so they are split between the machine's cores.
    const uint32_t workers = std::clamp<uint32_t>(std::thread::hardware_concurrency(), 1,
                                                  std::max<uint32_t>(1, n_queries_));
    std::vector<std::thread> threads;
    for (uint32_t w = 1; w < workers; ++w) {
        const uint32_t b = n_queries_ * w / workers, e = n_queries_ * (w + 1) / workers;
        threads.emplace_back(
            [=, this, &block_t, &norms] { scan(b, e, block_t, norms, first_row, count); });
    }
    scan(0, n_queries_ / workers, block_t, norms, first_row, count);
    for (std::thread& t : threads) t.join();
}

std::vector<uint64_t> exact_topk::best_rows(uint32_t q) const {
    std::vector<uint64_t> out;
    for (const entry& e : best_[q]) out.push_back(e.row);
    return out;
}

std::vector<double> exact_topk::best_scores(uint32_t q) const {
    std::vector<double> out;
    for (const entry& e : best_[q]) out.push_back(e.score);
    return out;
}

double recall(const std::vector<uint32_t>& found, const std::vector<uint32_t>& truth) {
    if (truth.empty()) return 1.0;
    size_t hits = 0;
    for (uint32_t id : truth) {
        if (std::find(found.begin(), found.end(), id) != found.end()) ++hits;
    }
    return static_cast<double>(hits) / static_cast<double>(truth.size());
}

}  // namespace orve::tool
