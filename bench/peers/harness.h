// Shared pieces of bench_peers: the seeded dataset, the clock, the resident-memory probe, recall
// against the exact answers, and the tables every engine adds its figures to.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace peers {

constexpr std::size_t kDim = 512;
constexpr std::size_t kTopK = 10;

struct options {
    std::size_t rows = 100000;
    std::size_t queries = 500;
    std::size_t centres = 1000;
    float noise = 1.0f;  // per-dimension deviation of a row around its centre (centres have 1)
    uint64_t seed = 42;
    uint32_t nlist = 0;     // 0: about 4 * sqrt(rows)
    uint32_t hivf_b = 0;    // 0: the power of two nearest sqrt(nlist), at most 64
    double min_time = 1.0;  // seconds each timed figure runs for, at least one pass
    bool faiss = true;
    bool hnswlib = true;
    bool usearch = true;
    bool clustered = true;  // the Gaussian mixture
    bool hrr = true;        // the HRR facts
};

// Rows and held-out queries, every vector of unit length so that the inner product every engine
// computes is the cosine.
struct dataset {
    std::string name;
    std::size_t n = 0, nq = 0;
    std::vector<float> rows;     // n x 512
    std::vector<float> queries;  // nq x 512
    const float* row(std::size_t i) const { return rows.data() + i * kDim; }
    const float* query(std::size_t i) const { return queries.data() + i * kDim; }
};

// A Gaussian mixture of opt.centres centres.
dataset make_dataset(const options& opt);

// Facts (subject, relation, object) encoded by the library's HRR encoder, over opt.rows / 10
// entities and 64 relations drawn uniformly. Each query keeps the subject and relation of a
// stored fact and takes a random object, as a lookup of "what else does s relate to by r" does.
dataset make_hrr_dataset(const options& opt);

// Single-thread streaming read of a buffer far larger than the caches, in GB/s (best of a few
// passes); the ceiling for any scan of rows held in memory.
double read_bandwidth_gbs();

// Row indexes (0-based) of the exact top kTopK of every query, best first.
using answers = std::vector<int64_t>;  // nq x kTopK

// Exact answers by a plain float scan, for when no peer supplies them.
answers exact_answers_plain(const dataset& d);

// Mean over the queries of |found top-k intersect exact top-k| / k; `found` holds kTopK row
// indexes per query, -1 for an empty slot.
double recall_at_k(const answers& exact, const answers& found, std::size_t nq);

using clock_type = std::chrono::steady_clock;
inline double seconds_since(clock_type::time_point t0) {
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

// Runs `pass` (one pass over every query) until min_time has gone by, at least once; returns
// the seconds of the fastest pass.
double time_passes(double min_time, const std::function<void()>& pass);

// The system's 1, 5 and 15 minute load averages, as text: anything above 1 on top of this
// program means it shared the processors with other work.
std::string load_average();

// Resident set growth across a build: before() resets the peak, after() reads both figures.
class memory_probe {
  public:
    void before();
    void after();
    long growth = 0;       // resident bytes after minus before
    long peak_growth = 0;  // highest resident bytes during the build minus before

  private:
    long start_ = 0;
};

struct build_row {
    std::string engine, index;
    double load_s = 0;   // ingestion or add
    double train_s = 0;  // index build or training; 0 when the index needs none
    memory_probe mem;
    std::size_t rows = 0;
    long file_bytes = 0;     // a file the index is searched from, beside its resident memory
    std::string base_index;  // index of the same engine this one is built on, if any
};

struct search_row {
    std::string engine, index, setting;
    double recall = 0;
    double qps = 0;
    double batch_qps = -1;  // below 0: the engine has no batch call for this setting
};

struct report {
    std::vector<build_row> builds;
    std::vector<search_row> searches;
    std::vector<std::string> notes;
    void add_search(const std::string& engine, const std::string& index, const std::string& setting,
                    double recall, double qps, double batch_qps = -1);
    void print_builds() const;
    void print_searches() const;
    void print_matched_recall(const std::string& ours) const;
    // One line per engine and index (re-ranked settings apart): build time and bytes per row
    // with the index it is built on, and the best QPS, one at a time and batch, at recall@10
    // 0.90, 0.95 and 0.99.
    void print_summary() const;
};

}  // namespace peers
