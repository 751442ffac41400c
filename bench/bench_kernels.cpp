// Throughput of the 512-lane int8 scan kernels, in cache and over a slab far larger than the
// caches, beside a plain streaming read of the same slab (this machine's single-thread read
// bandwidth, the ceiling for any scan), and of quantisation.
//
// Prints Google Benchmark's table, then a summary: for every kernel, rows per second in cache,
// and over the large slab its throughput as a fraction of the streaming read; and the
// four-query form's (query, row) pairs per second beside the one-query form's.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "quant/kernel_table.h"
#include "semantic_vector_indexing.h"
#include "util/c_alloc.h"

#include "stream_read.h"

namespace {

constexpr std::size_t kL1Rows = 48;          // 24 KiB: inside any L1 data cache
constexpr std::size_t kL2Rows = 1024;        // 512 KiB: inside a typical L2
std::size_t g_slab_rows = (1u << 30) / 512;  // 1 GiB unless --slab-mib says otherwise

uint64_t splitmix(uint64_t& s) {
    uint64_t z = (s += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
}

// One slab shared by every benchmark, filled with random codes (touching every page up front
// so no benchmark pays for page faults).
int8_t* slab() {
    static orve::c_unique<int8_t[]> block = [] {
        auto b = orve::c_aligned_array<int8_t>(g_slab_rows * 512, 64);
        if (!b) {
            std::fprintf(stderr, "cannot allocate the %zu MiB slab\n", g_slab_rows / 2048);
            std::exit(1);
        }
        uint64_t s = 42;
        auto* w = reinterpret_cast<uint64_t*>(b.get());
        for (std::size_t i = 0; i < g_slab_rows * 64; ++i) w[i] = splitmix(s);
        return b;
    }();
    return block.get();
}

void scan(benchmark::State& state, const orve::kernel_table* k, std::size_t rows) {
    const int8_t* base = slab();
    const int8_t* q = base + 512 * (g_slab_rows - 1);
    constexpr std::size_t kBlock = 256;  // scores land in a small buffer, as in a real scan
    int32_t out[kBlock];
    for (auto _ : state) {
        for (std::size_t r = 0; r < rows; r += kBlock) {
            const std::size_t n = rows - r < kBlock ? rows - r : kBlock;
            k->dot512_many(q, base + 512 * r, n, out);
            benchmark::DoNotOptimize(out);
        }
        benchmark::ClobberMemory();
    }
    state.counters["rows_per_s"] =
        benchmark::Counter(static_cast<double>(rows) * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate);
    state.SetBytesProcessed(static_cast<int64_t>(rows * 512) * state.iterations());
}

// The four-query form over the same rows: (query, row) pairs scored per second.
void scan_multi(benchmark::State& state, const orve::kernel_table* k, std::size_t rows) {
    const int8_t* base = slab();
    const int8_t* q[orve::kMultiQueries];
    for (std::size_t j = 0; j < orve::kMultiQueries; ++j) q[j] = base + 512 * (g_slab_rows - 1 - j);
    constexpr std::size_t kBlock = 128;
    int32_t out[orve::kMultiQueries * kBlock];
    for (auto _ : state) {
        for (std::size_t r = 0; r < rows; r += kBlock) {
            const std::size_t n = rows - r < kBlock ? rows - r : kBlock;
            k->dot512_multi(q, base + 512 * r, n, out, kBlock);
            benchmark::DoNotOptimize(out);
        }
        benchmark::ClobberMemory();
    }
    state.counters["pairs_per_s"] = benchmark::Counter(
        static_cast<double>(rows * orve::kMultiQueries) * static_cast<double>(state.iterations()),
        benchmark::Counter::kIsRate);
}

void stream_read(benchmark::State& state) {
    const auto* w = reinterpret_cast<const uint64_t*>(slab());
    const std::size_t words = g_slab_rows * 64;
    for (auto _ : state) {
        benchmark::DoNotOptimize(orve_bench::sum_words(w, words));
    }
    state.SetBytesProcessed(static_cast<int64_t>(words * 8) * state.iterations());
}

void quantize(benchmark::State& state) {
    std::vector<float> v(512 * 64);
    uint64_t s = 7;
    for (float& x : v) x = static_cast<float>(splitmix(s) % 20001) / 10000.0f - 1.0f;
    int8_t codes[512];
    float scale, norm;
    std::size_t i = 0;
    for (auto _ : state) {
        orve_quantize_float_vector_symmetric(v.data() + 512 * (i++ % 64), 512, codes, &scale,
                                             &norm);
        benchmark::DoNotOptimize(codes);
    }
    state.counters["vectors_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// Collects the figures the summary needs while the console reporter prints as usual.
class summary_reporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.run_type != Run::RT_Iteration) continue;
            for (const char* c :
                 {"bytes_per_second", "rows_per_s", "pairs_per_s", "vectors_per_s"}) {
                auto it = r.counters.find(c);
                if (it != r.counters.end()) figures[r.benchmark_name()][c] = it->second.value;
            }
        }
    }
    std::map<std::string, std::map<std::string, double>> figures;
};

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--slab-mib=", 11) == 0) {
            g_slab_rows = std::strtoull(argv[i] + 11, nullptr, 10) * 2048;
            for (int j = i; j + 1 < argc; ++j) argv[j] = argv[j + 1];
            --argc;
            --i;
        }
    }
    if (g_slab_rows < kL2Rows) g_slab_rows = kL2Rows;
    benchmark::Initialize(&argc, argv);

    std::size_t n = 0;
    const orve::kernel_table* ks = orve::kernel_tables_available(&n);
    const std::string slab_label = "slab_" + std::to_string(g_slab_rows / 2048) + "MiB";
    for (std::size_t i = 0; i < n; ++i) {
        const orve::kernel_table* k = &ks[i];
        const std::string name = std::string("dot512/") + k->name;
        benchmark::RegisterBenchmark((name + "/L1_48rows").c_str(), scan, k, kL1Rows);
        benchmark::RegisterBenchmark((name + "/L2_1024rows").c_str(), scan, k, kL2Rows);
        benchmark::RegisterBenchmark((name + "/" + slab_label).c_str(), scan, k, g_slab_rows)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark((name + "/x4/L2_1024rows").c_str(), scan_multi, k, kL2Rows);
        benchmark::RegisterBenchmark((name + "/x4/" + slab_label).c_str(), scan_multi, k,
                                     g_slab_rows)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    }
    benchmark::RegisterBenchmark(("stream_read/" + slab_label).c_str(), stream_read)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("quantize_512", quantize);

    summary_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    auto& f = reporter.figures;
    const double stream = f["stream_read/" + slab_label + "/real_time"]["bytes_per_second"];
    std::printf("\nSummary (best kernel on this machine: %s)\n", orve::kernels().name);
    std::printf("%-14s %16s %16s %14s %12s\n", "kernel", "L1 rows/s", "L2 rows/s", "slab GB/s",
                "of stream");
    for (std::size_t i = 0; i < n; ++i) {
        const std::string name = std::string("dot512/") + ks[i].name;
        const double l1 = f[name + "/L1_48rows"]["rows_per_s"];
        const double l2 = f[name + "/L2_1024rows"]["rows_per_s"];
        const double big = f[name + "/" + slab_label + "/real_time"]["bytes_per_second"];
        std::printf("%-14s %16.3e %16.3e %14.2f %11.0f%%\n", ks[i].name, l1, l2, big / 1e9,
                    stream > 0 ? 100.0 * big / stream : 0.0);
    }
    std::printf("%-14s %16s %16s %14.2f %11s\n", "stream read", "", "", stream / 1e9, "100%");
    std::printf("\nFour queries per row load against one (query, row) pairs per second:\n");
    std::printf("%-14s %16s %16s %16s %16s\n", "kernel", "L2 one", "L2 four", "slab one",
                "slab four");
    for (std::size_t i = 0; i < n; ++i) {
        const std::string name = std::string("dot512/") + ks[i].name;
        const double slab_rows =
            f[name + "/" + slab_label + "/real_time"]["bytes_per_second"] / 512;
        std::printf("%-14s %16.3e %16.3e %16.3e %16.3e\n", ks[i].name,
                    f[name + "/L2_1024rows"]["rows_per_s"],
                    f[name + "/x4/L2_1024rows"]["pairs_per_s"], slab_rows,
                    f[name + "/x4/" + slab_label + "/real_time"]["pairs_per_s"]);
    }
    const double q = f["quantize_512"]["vectors_per_s"];
    std::printf("quantisation: %.3e vectors/s\n", q);
    benchmark::Shutdown();
    return 0;
}
