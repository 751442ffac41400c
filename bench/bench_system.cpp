// End-to-end figures for the system object: ingestion rate (with and without a sidecar),
// brute-force queries per second at two sizes with the scan rate as a fraction of this
// machine's single-thread read bandwidth, the IVF and H-IVF scan rates at high probe counts
// against brute force's, an IVF batch against the same queries one at a time, resident memory per
// stored row, and the IVF and H-IVF build times with the peak memory of each stage.
//
// Usage: bench_system [--rows N] [--builds-only [--skip-ivf] | --ingestion | --scans |
// --rerank] (default 1000000; the small size is N / 10).
//   --scans         only the scan rates (medians of interleaved passes) and the batch
//                   figures, at both sizes
//   --builds-only   only the build figures, at both sizes
//   --skip-ivf      with --builds-only: no IVF build, so the H-IVF figures hold no IVF index
//   --ingestion     only the ingestion and sidecar replay rates, at both sizes
//   --rerank        only plain against re-ranked IVF queries/s, at both sizes
//   --batch         only the IVF batch figures, at N rows only (IVF built, no H-IVF)
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/sidecar_attachment.h"
#include "semantic_vector_indexing.h"
#include "core/publication.h"
#include "util/c_alloc.h"

#include "bench_rng.h"
#include "process_memory.h"
#include "stream_read.h"
#include "thread_clock.h"

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t0) {
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

// The part of this thread's CPU time spent in the kernel on its behalf (page faults, file
// writes), in seconds.
double thread_kernel_seconds() {
    rusage u;
    if (getrusage(RUSAGE_THREAD, &u) != 0) return 0;
    return static_cast<double>(u.ru_stime.tv_sec) + 1e-6 * static_cast<double>(u.ru_stime.tv_usec);
}

using orve_bench::peak_resident_bytes;
using orve_bench::resident_bytes;

using orve_bench::rng;

// Fills a chunk of rows: a few hundred cluster centres plus noise, so queries have neighbours.
void fill_rows(std::vector<float>& buf, std::size_t first_row, const std::vector<float>& centres,
               rng& r) {
    const std::size_t n = buf.size() / 512, nc = centres.size() / 512;
    for (std::size_t i = 0; i < n; ++i) {
        const float* c = &centres[((first_row + i) * 2654435761u % nc) * 512];
        for (int d = 0; d < 512; ++d) buf[i * 512 + d] = c[d] + 0.5f * r.next();
    }
}

double stream_bandwidth() {
    return orve_bench::stream_read_rate(std::size_t{1} << 30);
}

struct object {
    std::vector<unsigned char> mem;
    semantic_vector_indexing_system* sys;
    explicit object(std::size_t capacity) : mem(semantic_vector_indexing_system_sizeof()) {
        sys = reinterpret_cast<semantic_vector_indexing_system*>(mem.data());
        setenv("ORVE_VECTOR_CAPACITY", std::to_string(capacity).c_str(), 1);
        if (semantic_vector_indexing_system_create(sys) != 0) {
            std::fprintf(stderr, "create failed\n");
            std::exit(1);
        }
    }
    ~object() { semantic_vector_indexing_system_destroy(sys); }
};

// CPU time of one measured step: all of it, and the kernel's share.
struct cpu_use {
    double total = 0;
    double kernel = 0;
};

// Ingests `rows` rows in chunks, each generated before its load is timed; returns rows per
// second.
double ingest(object& o, std::size_t rows, const std::vector<float>& centres) {
    rng r{12345};
    std::vector<float> buf(10000 * 512);
    double busy = 0;
    for (std::size_t done = 0; done < rows;) {
        const std::size_t n = std::min<std::size_t>(10000, rows - done);
        buf.resize(n * 512);
        fill_rows(buf, done, centres, r);
        const auto t0 = clock_type::now();
        const int got = semantic_vector_indexing_system_load_vectors_f32(o.sys, buf.data(),
                                                                         static_cast<uint32_t>(n));
        busy += seconds_since(t0);
        if (got != static_cast<int>(n)) {
            std::fprintf(stderr, "ingestion stopped at %zu rows\n", done);
            std::exit(1);
        }
        done += n;
    }
    return rows / busy;
}

// The rows ingest() loads, generated all at once: 2 KB per row.
std::vector<float> generated_rows(std::size_t rows, const std::vector<float>& centres) {
    rng r{12345};
    std::vector<float> all(rows * 512), buf;
    for (std::size_t done = 0; done < rows; done += 10000) {
        buf.resize(std::min<std::size_t>(10000, rows - done) * 512);
        fill_rows(buf, done, centres, r);
        std::copy(buf.begin(), buf.end(), all.begin() + static_cast<std::ptrdiff_t>(done * 512));
    }
    return all;
}

// Loads rows generated beforehand in the same 10,000-row calls as ingest(); returns the wall
// seconds and in *cpu this thread's CPU time. Nothing but the loads runs between the first
// load and the last.
double load_generated(object& o, const std::vector<float>& all, cpu_use* cpu) {
    const std::size_t rows = all.size() / 512;
    const double c0 = orve_bench::thread_seconds();
    const double k0 = thread_kernel_seconds();
    const auto t0 = clock_type::now();
    for (std::size_t done = 0; done < rows; done += 10000) {
        const std::size_t n = std::min<std::size_t>(10000, rows - done);
        if (semantic_vector_indexing_system_load_vectors_f32(
                o.sys, all.data() + done * 512, static_cast<uint32_t>(n)) != static_cast<int>(n)) {
            std::fprintf(stderr, "ingestion stopped at %zu rows\n", done);
            std::exit(1);
        }
    }
    const double wall = seconds_since(t0);
    *cpu = cpu_use{orve_bench::thread_seconds() - c0, thread_kernel_seconds() - k0};
    return wall;
}

void print_rate(const char* what, std::size_t rows, double wall_seconds, const cpu_use& cpu) {
    std::printf("%-40s %10.0f rows/s, %10.0f rows/CPU-s, %3.0f%% of CPU in the kernel (%zu rows)\n",
                what, rows / wall_seconds, rows / cpu.total, 100.0 * cpu.kernel / cpu.total, rows);
}

// Ingestion and sidecar replay rates at one size: rows/s without a sidecar, with one, and for
// re-opening that sidecar into an empty object (the replay ingests every row of the file).
//
// Every figure loads the same rows, generated before any timing, into a fresh object. Memory
// a load touches for the first time costs far more when it was never used or sat free for a
// while: on a virtual machine whose host takes idle guest memory back (this one does), such a
// first touch costs several times what a touch of memory freed moments ago costs. The first
// large load of a process pays that, and so did any load that generated its rows between its
// calls, long enough for memory freed before it to be handed back. So the first load of a size
// is printed on its own line, and each of the other three figures starts right after an object
// of the same size was released and runs without pauses.
void ingestion_figures(std::size_t rows, const std::vector<float>& centres) {
    const std::vector<float> all = generated_rows(rows, centres);
    cpu_use cpu;
    {
        object o(rows);
        print_rate("ingestion, no sidecar, first of the size:", rows, load_generated(o, all, &cpu),
                   cpu);
    }
    {
        object o(rows);
        print_rate("ingestion, no sidecar:", rows, load_generated(o, all, &cpu), cpu);
    }
    char dir[] = "/tmp/orve_bench_XXXXXX";
    if (mkdtemp(dir) == nullptr) std::exit(1);
    const std::string path = std::string(dir) + "/bench.sidecar";
    {
        object o(rows);
        if (semantic_vector_indexing_system_open_sidecar(o.sys, path.c_str()) != 0) std::exit(1);
        print_rate("ingestion, with sidecar:", rows, load_generated(o, all, &cpu), cpu);
    }
    {
        object o(rows);
        const double c0 = orve_bench::thread_seconds();
        const double k0 = thread_kernel_seconds();
        const auto t0 = clock_type::now();
        if (semantic_vector_indexing_system_open_sidecar(o.sys, path.c_str()) != 0) std::exit(1);
        const double wall = seconds_since(t0);
        print_rate("sidecar replay:", rows, wall,
                   cpu_use{orve_bench::thread_seconds() - c0, thread_kernel_seconds() - k0});
    }
    unlink(path.c_str());
    rmdir(dir);
}

void brute_force(object& o, std::size_t rows, const std::vector<float>& centres, double bw) {
    rng r{999};
    std::vector<float> queries(64 * 512);
    fill_rows(queries, 7, centres, r);
    vector_similarity_query q;
    std::memset(&q, 0, sizeof q);
    q.use_orve512 = 1;
    q.max_results = 10;
    q.min_similarity = -2.0f;
    vector_similarity_result res[10];
    uint32_t n = 0;
    const int reps = rows >= 1000000 ? 32 : 128;
    const auto t0 = clock_type::now();
    for (int i = 0; i < reps; ++i) {
        q.query_vector = &queries[(i % 64) * 512];
        semantic_vector_indexing_system_search_similar(o.sys, &q, res, &n);
    }
    const double s = seconds_since(t0) / reps;
    const double rows_per_s = rows / s;
    std::printf(
        "brute force, %8zu rows: %8.1f queries/s, %.3e rows/s, %6.2f GB/s scanned, "
        "%3.0f%% of read bandwidth\n",
        rows, 1.0 / s, rows_per_s, rows_per_s * 512 / 1e9, 100.0 * rows_per_s * 512 / bw);
}

// Queries per second of `run` over the 64 queries, repeated for at least about 0.3 s.
template <typename Run>
double queries_per_second(Run run) {
    int reps = 0;
    const auto t0 = clock_type::now();
    do {
        for (uint32_t i = 0; i < 64; ++i) run(i);
        reps += 64;
    } while (seconds_since(t0) < 0.3);
    return reps / seconds_since(t0);
}

// Rows a query scans at n_probe: the sizes of its routed buckets, averaged over the first nq
// queries.
double ivf_rows_scanned(object& o, const std::vector<float>& queries, uint32_t n_probe,
                        uint32_t nq = 64) {
    ivf_live* live = nullptr;
    if (ivf_rcu_pin_live(o.sys, &live) != 0) return 0;
    const orve_ivf_index& idx = live->index;
    const uint32_t n = n_probe < idx.n_buckets ? n_probe : idx.n_buckets;
    std::vector<uint32_t> b(n);
    double rows = 0;
    for (uint32_t i = 0; i < nq; ++i) {
        if (orve_ivf_route_top_buckets(&idx, &queries[512 * i], n, b.data()) != 0) continue;
        for (uint32_t j = 0; j < n; ++j) rows += idx.bucket_sizes[b[j]];
    }
    ivf_live_release(live);
    return rows / nq;
}

// An IVF batch of the 64 queries at n_probe 8, k 10, against the same queries one at a time.
void batch_figures(object& o, std::vector<float>& queries, const char* label) {
    std::vector<vector_similarity_result> out(64 * 10);
    orve512_batch_query bq = {};
    bq.n_queries = 64;
    bq.k = 10;
    bq.min_similarity = -2.0f;
    bq.use_ivf = 1;
    bq.n_probe = 8;
    bq.queries = queries.data();
    bq.results = out.data();
    const double batch = queries_per_second([&](uint32_t i) {
        if (i == 0) semantic_vector_indexing_system_search_similar_orve512_batch(o.sys, &bq);
    });
    const double single = queries_per_second([&](uint32_t i) {
        vector_similarity_query q = {};
        q.use_orve512 = 1;
        q.max_results = 10;
        q.min_similarity = -2.0f;
        q.query_vector = &queries[512 * i];
        q.use_ivf = 1;
        q.n_probe = 8;
        uint32_t n = 0;
        semantic_vector_indexing_system_search_similar(o.sys, &q, out.data(), &n);
    });
    std::printf(
        "  IVF n_probe 8, k 10%s: batch of 64 %.0f queries/s, one at a time %.0f "
        "queries/s (%.2fx)\n",
        label, batch, single, batch / single);
}

// Scan rates of brute force, the IVF and the H-IVF at high probe counts (rows scored per
// second), and an IVF batch of 64 queries at n_probe 8 against the same queries one at a time.
void index_scans(object& o, std::size_t rows, const std::vector<float>& centres) {
    rng r{4242};
    std::vector<float> queries(64 * 512);
    fill_rows(queries, 11, centres, r);
    const auto nlist = static_cast<uint32_t>(2.0 * std::sqrt(static_cast<double>(rows)));
    const auto b = static_cast<uint32_t>(std::ceil(std::sqrt(static_cast<double>(nlist))));
    if (semantic_vector_indexing_system_build_ivf(o.sys, nlist, 42) != 0 ||
        semantic_vector_indexing_system_build_ivf_level2(o.sys, b, b, 42) != 0) {
        std::printf("index scans, %zu rows: build failed\n", rows);
        return;
    }
    // One measurement: the same `nq` queries once each, as rows scored per second. `rows_per_query`
    // is the rows each query scans (all of them for brute force and the H-IVF with every leaf).
    const uint32_t nq = rows > 200000 ? 16 : 64;
    vector_similarity_result res[10];
    uint32_t n = 0;
    auto rate = [&](uint8_t ivf, uint32_t probes, uint8_t hivf, uint32_t p1, uint32_t p2,
                    double rows_per_query) {
        const auto t0 = clock_type::now();
        for (uint32_t i = 0; i < nq; ++i) {
            vector_similarity_query q = {};
            q.use_orve512 = 1;
            q.max_results = 10;
            q.min_similarity = -2.0f;
            q.query_vector = &queries[512 * i];
            q.use_ivf = ivf;
            q.n_probe = probes;
            q.use_hivf = hivf;
            q.n_probe_l1 = p1;
            q.n_probe_l2 = p2;
            semantic_vector_indexing_system_search_similar(o.sys, &q, res, &n);
        }
        return nq * rows_per_query / seconds_since(t0);
    };
    // A single figure per path, taken once and one path after the other, swung by a third
    // between runs on the same machine: it took in the first touches of whichever path ran
    // first, and the load of other processes (and with it the core's clock) drifted between
    // the paths, so a ratio compared two different machines. So
    // every pass measures all the paths back to back, a warm-up pass is thrown away, and each
    // figure is the median over the passes, its ratio the median of the per-pass ratios, both
    // sides of which were measured seconds apart.
    constexpr int kPasses = 5;
    const uint32_t probe_set[3] = {nlist, nlist / 2, nlist / 8};
    double per_probe_rows[3];
    for (int k = 0; k < 3; ++k) per_probe_rows[k] = ivf_rows_scanned(o, queries, probe_set[k], nq);
    std::vector<double> brute_rates, ivf_rates[3], ivf_ratios[3], hivf_rates, hivf_ratios;
    for (int pass = 0; pass <= kPasses; ++pass) {
        const double brute = rate(0, 0, 0, 0, 0, static_cast<double>(rows));
        double ivf[3];
        for (int k = 0; k < 3; ++k) ivf[k] = rate(1, probe_set[k], 0, 0, 0, per_probe_rows[k]);
        // Every leaf probed: the H-IVF scans every row.
        const double hivf = rate(0, 0, 1, b, b, static_cast<double>(rows));
        if (pass == 0) continue;
        brute_rates.push_back(brute);
        for (int k = 0; k < 3; ++k) {
            ivf_rates[k].push_back(ivf[k]);
            ivf_ratios[k].push_back(ivf[k] / brute);
        }
        hivf_rates.push_back(hivf);
        hivf_ratios.push_back(hivf / brute);
    }
    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    std::printf(
        "scan rates, %8zu rows (nlist %u, H-IVF %u x %u; medians of %d interleaved passes of "
        "the same %u queries per path, after one warm-up pass):\n",
        rows, nlist, b, b, kPasses, nq);
    std::printf("  brute force:              %.3e rows/s (passes %.3e .. %.3e)\n",
                median(brute_rates), *std::min_element(brute_rates.begin(), brute_rates.end()),
                *std::max_element(brute_rates.begin(), brute_rates.end()));
    for (int k = 0; k < 3; ++k) {
        std::printf("  IVF n_probe %5u:        %.3e rows/s (%3.0f%% of brute force)\n",
                    probe_set[k], median(ivf_rates[k]), 100.0 * median(ivf_ratios[k]));
    }
    std::printf("  H-IVF all %3u x %3u:      %.3e rows/s (%3.0f%% of brute force)\n", b, b,
                median(hivf_rates), 100.0 * median(hivf_ratios));

    batch_figures(o, queries, "");
    // Batches whose queries are near each other probe the same buckets, which is where
    // scoring a bucket once for all its queries pays: 64 queries around 8 of the above.
    std::vector<float> near(queries.size());
    for (std::size_t i = 0; i < near.size(); ++i) {
        near[i] = queries[i % (8 * 512)] + 0.05f * r.next();
    }
    batch_figures(o, near, " (64 queries near 8)");
}

// --batch: the IVF batch figures alone at one size, for measuring batch changes without the
// H-IVF build and the scan-rate sweeps.
void batch_only(std::size_t rows, const std::vector<float>& centres) {
    object o(rows);
    ingest(o, rows, centres);
    rng r{4242};
    std::vector<float> queries(64 * 512);
    fill_rows(queries, 11, centres, r);
    const auto nlist = static_cast<uint32_t>(2.0 * std::sqrt(static_cast<double>(rows)));
    if (semantic_vector_indexing_system_build_ivf(o.sys, nlist, 42) != 0) {
        std::printf("IVF batch, %zu rows: build failed\n", rows);
        return;
    }
    std::printf("IVF batch, %8zu rows (nlist %u):\n", rows, nlist);
    batch_figures(o, queries, "");
    std::vector<float> near(queries.size());
    for (std::size_t i = 0; i < near.size(); ++i) {
        near[i] = queries[i % (8 * 512)] + 0.05f * r.next();
    }
    batch_figures(o, near, " (64 queries near 8)");
}

// One stage of a build: seconds, and the peak resident memory during it per stored row, both
// in total and above what was resident when the stage began.
template <typename Stage>
void build_stage(const char* name, std::size_t rows, Stage stage) {
    const bool reset = orve_bench::reset_peak_resident();
    const long before = resident_bytes();
    const auto t0 = clock_type::now();
    const int rc = stage();
    const double s = seconds_since(t0);
    const long peak = peak_resident_bytes();
    if (!reset) {
        std::printf("%-22s %8zu rows: %8.2f s (rc %d), peak memory not measurable here\n", name,
                    rows, s, rc);
        return;
    }
    std::printf("%-22s %8zu rows: %8.2f s (rc %d), peak %6.2f KB/row, %6.2f KB/row above start\n",
                name, rows, s, rc, peak / 1024.0 / rows, (peak - before) / 1024.0 / rows);
}

// Ingestion, an IVF build with nlist = 2 sqrt(n) and an H-IVF build with b1 = b2 about
// sqrt(2 sqrt(n)), each with its time and peak memory.
void builds(std::size_t rows, const std::vector<float>& centres, bool skip_ivf) {
    object o(rows);
    build_stage("ingestion", rows, [&] {
        ingest(o, rows, centres);
        return 0;
    });
    const auto nlist = static_cast<uint32_t>(2.0 * std::sqrt(static_cast<double>(rows)));
    if (!skip_ivf) {
        build_stage("IVF build", rows,
                    [&] { return semantic_vector_indexing_system_build_ivf(o.sys, nlist, 42); });
    }
    const auto b = static_cast<uint32_t>(std::ceil(std::sqrt(static_cast<double>(nlist))));
    build_stage("H-IVF build", rows,
                [&] { return semantic_vector_indexing_system_build_ivf_level2(o.sys, b, b, 42); });
    std::printf("  (nlist %u, H-IVF %u x %u)\n", nlist, b, b);
}

// IVF queries/s at nprobe 8, k 10 (nlist 2 sqrt(n)): plain, re-ranked at factor 5 through the
// sidecar's mapping, and re-ranked through positional reads (the mapping hidden from the
// search for that run), with the re-ranked rates as a share of the plain one.
void rerank_figures(std::size_t rows, const std::vector<float>& centres) {
    char dir[] = "/tmp/orve_bench_XXXXXX";
    if (mkdtemp(dir) == nullptr) std::exit(1);
    const std::string path = std::string(dir) + "/bench.sidecar";
    {
        object o(rows);
        if (semantic_vector_indexing_system_open_sidecar(o.sys, path.c_str()) != 0) std::exit(1);
        ingest(o, rows, centres);
        const auto nlist = static_cast<uint32_t>(2.0 * std::sqrt(static_cast<double>(rows)));
        if (semantic_vector_indexing_system_build_ivf(o.sys, nlist, 42) != 0) std::exit(1);
        rng r{4242};
        std::vector<float> queries(256 * 512);
        fill_rows(queries, 11, centres, r);
        auto run = [&](bool rerank) {
            vector_similarity_query q;
            std::memset(&q, 0, sizeof q);
            q.use_orve512 = 1;
            q.max_results = 10;
            q.min_similarity = -2.0f;
            q.use_ivf = 1;
            q.n_probe = 8;
            q.rerank = rerank ? 1 : 0;
            q.rerank_factor = 5;
            vector_similarity_result res[10];
            uint32_t n = 0;
            const int reps = 1000;
            const double t0 = orve_bench::thread_seconds();
            for (int i = 0; i < reps; ++i) {
                q.query_vector = &queries[(i % 256) * 512];
                semantic_vector_indexing_system_search_similar(o.sys, &q, res, &n);
            }
            return reps / (orve_bench::thread_seconds() - t0);
        };
        auto* a = orve::attachment_of(o.sys->sidecar);
        const orve::sidecar::row_mapping kept = a->mapped;
        run(true);  // warm: the index, the file's pages
        // The best of five rounds, each mode in every round, so that load from other processes
        // on a shared machine falls on all three alike.
        double plain = 0, mapped = 0, read = 0;
        for (int round = 0; round < 5; ++round) {
            plain = std::max(plain, run(false));
            mapped = std::max(mapped, run(true));
            a->mapped = {};
            read = std::max(read, run(true));
            a->mapped = kept;
        }
        std::printf(
            "IVF nprobe 8 k 10, %8zu rows (nlist %u), per CPU second: plain %8.0f q/s; re-ranked "
            "x5 "
            "mapped "
            "%8.0f q/s (%3.0f%%), by reads %8.0f q/s (%3.0f%%)\n",
            rows, nlist, plain, mapped, 100.0 * mapped / plain, read, 100.0 * read / plain);
    }
    unlink(path.c_str());
    rmdir(dir);
}

// --ingestion: only the ingestion and replay figures, at N / 10 and N rows.
bool ingestion_only(int argc, char** argv, std::size_t big) {
    bool only = false;
    for (int i = 1; i < argc; ++i) only = only || std::strcmp(argv[i], "--ingestion") == 0;
    if (!only) return false;
    std::vector<float> centres(256 * 512);
    rng r{7};
    for (float& x : centres) x = r.next();
    ingestion_figures(big / 10, centres);
    ingestion_figures(big, centres);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // figures appear as they come, also in a log
    std::size_t big = 1000000;
    bool builds_only = false, skip_ivf = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--rows") == 0 && i + 1 < argc) {
            big = std::strtoull(argv[++i], nullptr, 10);
        } else if (std::strcmp(argv[i], "--builds-only") == 0) {
            builds_only = true;
        } else if (std::strcmp(argv[i], "--skip-ivf") == 0) {
            skip_ivf = true;
        }
    }
    if (ingestion_only(argc, argv, big)) return 0;
    for (int i = 1; i < argc; ++i) {
        const bool scans = std::strcmp(argv[i], "--scans") == 0;
        const bool batch = std::strcmp(argv[i], "--batch") == 0;
        if (!scans && !batch && std::strcmp(argv[i], "--rerank") != 0) continue;
        std::vector<float> centres(256 * 512);
        rng r{7};
        for (float& x : centres) x = r.next();
        if (batch) {
            batch_only(big, centres);
            return 0;
        }
        if (!scans) {
            rerank_figures(big / 10, centres);
            if (big > 100000) rerank_figures(big, centres);
            return 0;
        }
        for (std::size_t rows : {big / 10, big}) {
            object o(rows);
            ingest(o, rows, centres);
            index_scans(o, rows, centres);
        }
        return 0;
    }
    const std::size_t small = big / 10;
    std::vector<float> centres(256 * 512);
    rng r{7};
    for (float& x : centres) x = r.next();

    if (builds_only) {
        builds(small, centres, skip_ivf);
        builds(big, centres, skip_ivf);
        return 0;
    }

    const double bw = stream_bandwidth();
    std::printf("single-thread streaming read: %.2f GB/s\n", bw / 1e9);

    {
        object o(small);
        std::printf("ingestion, no sidecar:   %.0f rows/s (%zu rows)\n", ingest(o, small, centres),
                    small);
    }
    {
        char dir[] = "/tmp/orve_bench_XXXXXX";
        if (mkdtemp(dir) == nullptr) return 1;
        const std::string path = std::string(dir) + "/bench.sidecar";
        {
            object o(small);
            if (semantic_vector_indexing_system_open_sidecar(o.sys, path.c_str()) != 0) return 1;
            std::printf("ingestion, with sidecar: %.0f rows/s (%zu rows)\n",
                        ingest(o, small, centres), small);
        }
        unlink(path.c_str());
        rmdir(dir);
    }
    {
        object o(small);
        ingest(o, small, centres);
        brute_force(o, small, centres, bw);
        index_scans(o, small, centres);
    }
    {
        const long before = resident_bytes();
        object o(big);
        ingest(o, big, centres);
        const long after = resident_bytes();
        brute_force(o, big, centres, bw);
        index_scans(o, big, centres);
        std::printf("resident memory: %.0f bytes per stored row (%zu rows)\n",
                    static_cast<double>(after - before) / big, big);
    }
    builds(small, centres, false);
    builds(big, centres, false);
    return 0;
}
