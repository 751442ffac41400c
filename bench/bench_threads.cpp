// Many host threads searching one object: queries per second with 1, 2 and 4 threads on each
// search path (brute force, IVF, H-IVF, the paged file), the p50 and p99 latency, the CPU time
// per query, the share of the run the threads were on a core and their sleeps, and the same
// with one thread ingesting into the object meanwhile; then a brute-force batch of 64 queries
// against the same 64 queries one at a time.
//
// Usage: bench_threads [--rows N] [--seconds S] [--batch-only] (default 200000 rows, 3 s per
// figure, a thread count's figure taken in three passes of a third of that; --batch-only prints
// only the batch figure).
// An ingesting thread makes the IVF and H-IVF stale (their searches then brute-force), so the
// ingester figures are taken on the paths that stay as they are: brute force and the paged file.
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "semantic_vector_indexing.h"

#include "bench_rng.h"
#include "thread_clock.h"

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t0) {
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

using orve_bench::rng;

// Rows around a few hundred cluster centres, so queries have neighbours.
void fill_rows(float* buf, std::size_t n, std::size_t first_row, const std::vector<float>& centres,
               rng& r) {
    const std::size_t nc = centres.size() / 512;
    for (std::size_t i = 0; i < n; ++i) {
        const float* c = &centres[((first_row + i) * 2654435761u % nc) * 512];
        for (int d = 0; d < 512; ++d) buf[i * 512 + d] = c[d] + 0.5f * r.next();
    }
}

struct path {
    const char* name;
    vector_similarity_query q;
};

struct figures {
    double qps;
    double p50_us, p99_us;
    // What separates searches that wait on each other from a machine busy with other work: the
    // CPU time a query takes (grows when threads fight over shared cache lines), the share of
    // the run the searching threads spent on a core (low when other processes hold the cores
    // or a search sleeps on a lock), and the sleeps a search itself chose per 1000 queries
    // (voluntary context switches: a search blocked on a lock shows here).
    double cpu_us_per_query;
    double on_cpu_share;
    double waits_per_1k;
};

long voluntary_switches() {
    rusage u;
    getrusage(RUSAGE_THREAD, &u);
    return u.ru_nvcsw;
}

// `threads` threads search with `p`'s settings for `seconds`, each cycling through the queries.
figures run(semantic_vector_indexing_system* sys, const path& p, const std::vector<float>& queries,
            int threads, double seconds) {
    std::vector<std::vector<double>> lat(threads);
    std::vector<double> cpu(threads);
    std::vector<long> waits(threads);
    std::atomic<bool> stop{false};
    std::vector<std::thread> pool;
    const auto t0 = clock_type::now();
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            vector_similarity_query q = p.q;
            vector_similarity_result res[10];
            const std::size_t nq = queries.size() / 512;
            const double cpu0 = orve_bench::thread_seconds();
            const long waits0 = voluntary_switches();
            for (std::size_t i = t * 7; !stop.load(std::memory_order_relaxed); ++i) {
                q.query_vector = &queries[(i % nq) * 512];
                uint32_t n = 0;
                const auto s0 = clock_type::now();
                if (semantic_vector_indexing_system_search_similar(sys, &q, res, &n) != 0) {
                    std::fprintf(stderr, "%s: search failed\n", p.name);
                    std::exit(1);
                }
                lat[t].push_back(seconds_since(s0) * 1e6);
            }
            cpu[t] = orve_bench::thread_seconds() - cpu0;
            waits[t] = voluntary_switches() - waits0;
        });
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (auto& th : pool) th.join();
    const double wall = seconds_since(t0);
    std::vector<double> all;
    for (const auto& l : lat) all.insert(all.end(), l.begin(), l.end());
    std::sort(all.begin(), all.end());
    if (all.empty()) return {0, 0, 0, 0, 0, 0};
    double cpu_total = 0;
    long waits_total = 0;
    for (int t = 0; t < threads; ++t) {
        cpu_total += cpu[t];
        waits_total += waits[t];
    }
    const double n = static_cast<double>(all.size());
    return {n / wall,
            all[all.size() / 2],
            all[std::min(all.size() - 1, all.size() * 99 / 100)],
            cpu_total / n * 1e6,
            cpu_total / (threads * wall),
            static_cast<double>(waits_total) / n * 1000.0};
}

// Appends rows in small chunks at a steady pace until stopped or the object is full.
class ingester {
  public:
    ingester(semantic_vector_indexing_system* sys, const std::vector<float>& centres,
             std::size_t first_row)
        : thread_([this, sys, &centres, first_row] {
              rng r{4242};
              std::vector<float> buf(kChunk * 512);
              for (std::size_t row = first_row; !stop_.load(); row += kChunk) {
                  fill_rows(buf.data(), kChunk, row, centres, r);
                  if (semantic_vector_indexing_system_load_vectors_f32(sys, buf.data(), kChunk) !=
                      static_cast<int>(kChunk)) {
                      return;  // full
                  }
                  rows_ += kChunk;
                  std::this_thread::sleep_for(std::chrono::milliseconds(2));
              }
          }) {}
    ~ingester() {
        stop_ = true;
        thread_.join();
    }
    std::size_t rows() const { return rows_.load(); }

  private:
    static constexpr uint32_t kChunk = 32;
    std::atomic<bool> stop_{false};
    std::atomic<std::size_t> rows_{0};
    std::thread thread_;
};

// Each thread count is measured in several passes, the counts taking turns within a pass, so
// that a drift in the machine's speed (other load, the host's clock) falls on all of them
// alike. A count's line is its median pass; its ratio to one thread is the median of the
// per-pass ratios, both sides of which were measured seconds apart. A single pass per count
// moved the two-thread ratio of brute force between 1.70x and 1.96x from run to run.
void thread_figures(semantic_vector_indexing_system* sys, const path& p,
                    const std::vector<float>& queries, double seconds) {
    constexpr int kPasses = 3;
    constexpr int kCounts[3] = {1, 2, 4};
    figures f[3][kPasses];
    for (int pass = 0; pass < kPasses; ++pass) {
        for (int c = 0; c < 3; ++c)
            f[c][pass] = run(sys, p, queries, kCounts[c], seconds / kPasses);
    }
    for (int c = 0; c < 3; ++c) {
        int order[kPasses];
        double ratio[kPasses];
        for (int pass = 0; pass < kPasses; ++pass) {
            order[pass] = pass;
            ratio[pass] = f[c][pass].qps / f[0][pass].qps;
        }
        std::sort(order, order + kPasses, [&](int a, int b) { return f[c][a].qps < f[c][b].qps; });
        std::sort(ratio, ratio + kPasses);
        const figures& m = f[c][order[kPasses / 2]];
        std::printf(
            "%-12s %d thread%s: %9.1f queries/s (%.2fx one thread), p50 %8.0f us, p99 "
            "%8.0f us; %6.1f CPU us/query, on a core %3.0f%% of the time, %5.1f sleeps per 1000 "
            "queries\n",
            p.name, kCounts[c], kCounts[c] == 1 ? " " : "s", m.qps, ratio[kPasses / 2], m.p50_us,
            m.p99_us, m.cpu_us_per_query, 100.0 * m.on_cpu_share, m.waits_per_1k);
    }
}

void ingester_figures(semantic_vector_indexing_system* sys, const path& p,
                      const std::vector<float>& queries, const std::vector<float>& centres,
                      std::size_t rows, double seconds) {
    for (int threads : {1, 2}) {
        const figures quiet = run(sys, p, queries, threads, seconds);
        std::size_t added;
        figures busy;
        {
            ingester ing(sys, centres, rows);
            busy = run(sys, p, queries, threads, seconds);
            added = ing.rows();
        }
        std::printf(
            "%-12s %d thread%s with an ingester (+%zu rows): %9.1f queries/s, p50 %8.0f "
            "us, p99 %8.0f us; p99 %.2fx without (%8.0f us)\n",
            p.name, threads, threads == 1 ? " " : "s", added, busy.qps, busy.p50_us, busy.p99_us,
            busy.p99_us / quiet.p99_us, quiet.p99_us);
    }
}

void batch_figures(semantic_vector_indexing_system* sys, const std::vector<float>& queries,
                   double seconds) {
    constexpr uint32_t kQ = 64, kK = 10;
    std::vector<vector_similarity_result> res(kQ * kK);
    vector_similarity_query q;
    std::memset(&q, 0, sizeof q);
    q.use_orve512 = 1;
    q.max_results = kK;
    q.min_similarity = -2.0f;
    std::size_t done = 0;
    auto t0 = clock_type::now();
    while (seconds_since(t0) < seconds) {
        for (uint32_t i = 0; i < kQ; ++i) {
            q.query_vector = &queries[i * 512];
            uint32_t n = 0;
            semantic_vector_indexing_system_search_similar(sys, &q, &res[i * kK], &n);
        }
        done += kQ;
    }
    const double single = done / seconds_since(t0);
    orve512_batch_query b;
    std::memset(&b, 0, sizeof b);
    b.n_queries = kQ;
    b.k = kK;
    b.min_similarity = -2.0f;
    b.queries = queries.data();
    b.results = res.data();
    done = 0;
    t0 = clock_type::now();
    while (seconds_since(t0) < seconds) {
        if (semantic_vector_indexing_system_search_similar_orve512_batch(sys, &b) != 0) {
            std::fprintf(stderr, "batch failed\n");
            std::exit(1);
        }
        done += kQ;
    }
    const double batch = done / seconds_since(t0);
    std::printf("brute force, batch of 64: %9.1f queries/s; one at a time %9.1f queries/s; %.2fx\n",
                batch, single, batch / single);
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::size_t rows = 200000;
    double seconds = 3.0;
    bool batch_only = false;
    for (int i = 1; i < argc; ++i)
        batch_only = batch_only || std::strcmp(argv[i], "--batch-only") == 0;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "--rows") == 0) rows = std::strtoull(argv[++i], nullptr, 10);
        if (std::strcmp(argv[i], "--seconds") == 0) seconds = std::strtod(argv[++i], nullptr);
    }
    std::printf("%zu rows, %.1f s per figure, %u hardware threads\n", rows, seconds,
                std::thread::hardware_concurrency());
    // With autogroup scheduling the kernel shares the cores out per session, not per thread:
    // on a machine busy with other sessions, more threads here do not get more cores, and the
    // on-core share printed with each figure falls as the thread count rises while the total
    // stays put.
    if (FILE* f = std::fopen("/proc/sys/kernel/sched_autogroup_enabled", "r")) {
        int on = 0;
        if (std::fscanf(f, "%d", &on) == 1 && on != 0) {
            std::printf(
                "the scheduler shares cores per session (autogroup): with other sessions "
                "busy, this process's threads share one session's part\n");
        }
        std::fclose(f);
    }
    std::vector<float> centres(256 * 512);
    rng r{7};
    for (float& x : centres) x = r.next();

    std::vector<unsigned char> mem(semantic_vector_indexing_system_sizeof());
    auto* sys = reinterpret_cast<semantic_vector_indexing_system*>(mem.data());
    // Room for what the ingester can add: four figures of `seconds` each, at most 32 rows per
    // 2 ms. A full object would leave the last figures without any ingestion.
    const auto headroom = static_cast<std::size_t>(4 * seconds * 16000);
    setenv("ORVE_VECTOR_CAPACITY", std::to_string(rows + headroom).c_str(), 1);
    if (semantic_vector_indexing_system_create(sys) != 0) return 1;
    {
        std::vector<float> buf(10000 * 512);
        for (std::size_t done = 0; done < rows; done += 10000) {
            const std::size_t n = std::min<std::size_t>(10000, rows - done);
            fill_rows(buf.data(), n, done, centres, r);
            if (semantic_vector_indexing_system_load_vectors_f32(
                    sys, buf.data(), static_cast<uint32_t>(n)) != static_cast<int>(n)) {
                return 1;
            }
        }
    }
    std::vector<float> queries(64 * 512);
    rng rq{999};
    fill_rows(queries.data(), 64, 7, centres, rq);

    if (batch_only) {
        batch_figures(sys, queries, seconds);
        semantic_vector_indexing_system_destroy(sys);
        return 0;
    }
    vector_similarity_query base;
    std::memset(&base, 0, sizeof base);
    base.use_orve512 = 1;
    base.max_results = 10;
    base.min_similarity = -2.0f;
    const auto nlist = static_cast<uint32_t>(2.0 * std::sqrt(static_cast<double>(rows)));
    const auto b = static_cast<uint32_t>(std::ceil(std::sqrt(static_cast<double>(nlist))));
    if (semantic_vector_indexing_system_build_ivf(sys, nlist, 42) != 0 ||
        semantic_vector_indexing_system_build_ivf_level2(sys, b, b, 42) != 0) {
        return 1;
    }
    path brute{"brute force", base};
    path ivf{"IVF", base};
    ivf.q.use_ivf = 1;
    ivf.q.n_probe = 8;
    path hivf{"H-IVF", base};
    hivf.q.use_hivf = 1;
    hivf.q.n_probe_l1 = 4;
    hivf.q.n_probe_l2 = 8;
    std::printf("IVF nlist %u at n_probe 8; H-IVF %u x %u at probes 4 x 8\n", nlist, b, b);

    thread_figures(sys, brute, queries, seconds);
    thread_figures(sys, ivf, queries, seconds);
    thread_figures(sys, hivf, queries, seconds);
    const figures in_memory = run(sys, hivf, queries, 1, seconds);

    char dir[] = "/tmp/orve_threads_XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    const std::string file = std::string(dir) + "/index.ivfp";
    if (semantic_vector_indexing_system_build_ivf_paged(sys, file.c_str()) != 0) return 1;
    path paged{"paged", hivf.q};
    run(sys, paged, queries, 1, seconds);  // warms the mapping
    const figures warm = run(sys, paged, queries, 1, seconds);
    std::printf(
        "warm paged %9.1f queries/s, in-memory H-IVF %9.1f: paged time per query %.2fx "
        "the in-memory one; in CPU time (which load from other processes does not stretch) "
        "%.1f us against %.1f, %.2fx\n",
        warm.qps, in_memory.qps, in_memory.qps / warm.qps, warm.cpu_us_per_query,
        in_memory.cpu_us_per_query, warm.cpu_us_per_query / in_memory.cpu_us_per_query);
    thread_figures(sys, paged, queries, seconds);

    ingester_figures(sys, brute, queries, centres, rows, seconds);
    ingester_figures(sys, paged, queries, centres, rows, seconds);
    batch_figures(sys, queries, seconds);

    semantic_vector_indexing_system_destroy(sys);
    unlink(file.c_str());
    rmdir(dir);
    return 0;
}
