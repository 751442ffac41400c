// Seeded synthetic data for `orve demo`. Rows come out in chunks so that a million-row run
// never holds the whole data set; queries are drawn from the same distribution but are never
// ingested, so every path has to find neighbours it has not seen.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace orve::tool {

// xoshiro256** seeded through splitmix64: the same seed gives the same data on every platform
// and standard library, which <random>'s distributions do not promise.
class rng {
  public:
    explicit rng(uint64_t seed);
    uint64_t next();
    double uniform();  // [0, 1)
    double normal();   // standard normal
    uint64_t below(uint64_t n);

  private:
    uint64_t s_[4];
    bool have_spare_ = false;
    double spare_ = 0.0;
};

class dataset {
  public:
    virtual ~dataset() = default;
    virtual std::string describe() const = 0;
    virtual void make_queries(uint32_t count, float* out) = 0;
    // Writes the next `count` rows (count x 512 floats).
    virtual void next_rows(uint32_t count, float* out) = 0;
};

// A Gaussian mixture: about rows/100 random unit centres, each with its own spread (noise of
// expected length 0.8 to 2.0, so clusters are distinct but a cluster's rows are not all alike),
// and rows scaled by random factors so that cosine, not raw dot product, decides neighbours.
std::unique_ptr<dataset> make_clustered(uint64_t rows, uint64_t seed);

// Knowledge-graph facts (subject, relation, object) over a synthetic vocabulary, encoded by the
// library's HRR encoder. Each query is an unseen fact sharing two of its three terms with a
// stored one.
std::unique_ptr<dataset> make_facts(uint64_t rows, uint64_t seed);

}  // namespace orve::tool
