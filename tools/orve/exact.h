// Exact nearest neighbours by float cosine, accumulated in double precision, as the yardstick
// for every search path. It is computed independently of the library, from the same float
// rows that are ingested, chunk by chunk as they are generated.
#pragma once

#include <cstdint>
#include <vector>

namespace orve::tool {

class exact_topk {
  public:
    // queries: n_queries x 512 floats, copied.
    exact_topk(const float* queries, uint32_t n_queries, uint32_t k);

    // Offers rows first_row .. first_row + count - 1 (count x 512 floats). Rows must arrive in
    // ascending order: ties keep the earlier row, as a stable ranking would.
    void add_rows(const float* rows, uint64_t first_row, uint32_t count);

    // Row numbers of query q's best k, best first.
    std::vector<uint64_t> best_rows(uint32_t q) const;
    std::vector<double> best_scores(uint32_t q) const;

  private:
    struct entry {
        double score;
        uint64_t row;
    };
    void offer(uint32_t q, double score, uint64_t row);
    void scan(uint32_t q_begin, uint32_t q_end, const std::vector<double>& block_t,
              const std::vector<double>& norms, uint64_t first_row, uint32_t count);

    uint32_t k_;
    uint32_t n_queries_;
    std::vector<double> queries_;  // n_queries x 512
    std::vector<double> query_norms_;
    std::vector<std::vector<entry>> best_;  // per query, sorted best first
};

// Fraction of `truth` found in `found` (both node identifier lists), over truth's size.
double recall(const std::vector<uint32_t>& found, const std::vector<uint32_t>& truth);

}  // namespace orve::tool
