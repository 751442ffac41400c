// orve demo: the library's whole life cycle on generated data, with recall and latency of
// every search path measured against exact neighbours, then a restart from the files.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "datasets.h"
#include "exact.h"
#include "file_checks.h"
#include "ingest.h"
#include "library.h"
#include "outputs.h"
#include "progress.h"
#include "tool_error.h"

namespace orve::tool {

namespace {

struct measured_path {
    std::string path;
    std::string settings;
    bool rerank = false;
    double recall = 0.0;
    double qps = 0.0;
    double p50_us = 0.0;
    double p99_us = 0.0;
    std::vector<std::vector<hit>> answers;
};

double percentile(std::vector<double> sorted_values, double p) {
    if (sorted_values.empty()) return 0.0;
    std::sort(sorted_values.begin(), sorted_values.end());
    // Nearest rank: the smallest value with at least p of the samples at or below it.
    size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(sorted_values.size())));
    rank = std::clamp<size_t>(rank, 1, sorted_values.size());
    return sorted_values[rank - 1];
}

std::vector<std::vector<hit>> answer_all(semantic_vector_indexing_system* sys,
                                         const search_params& params,
                                         const std::vector<float>& queries, uint32_t n,
                                         std::vector<double>* latencies_us, double* wall_s) {
    searcher s(sys, params);
    std::vector<std::vector<hit>> answers(n);
    // A few untimed queries first, so page faults of a freshly written file and cold caches
    // are not charged to the first timed queries.
    for (uint32_t q = 0; q < std::min<uint32_t>(n, 16); ++q)
        s.run(queries.data() + uint64_t{q} * 512);
    const auto start = std::chrono::steady_clock::now();
    for (uint32_t q = 0; q < n; ++q) {
        const auto t0 = std::chrono::steady_clock::now();
        answers[q] = s.run(queries.data() + uint64_t{q} * 512);
        const auto t1 = std::chrono::steady_clock::now();
        if (latencies_us) {
            latencies_us->push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
        }
    }
    if (wall_s) *wall_s = seconds_since(start);
    return answers;
}

measured_path measure(semantic_vector_indexing_system* sys, const search_params& params,
                      const std::string& settings, const std::vector<float>& queries, uint32_t n,
                      const std::vector<std::vector<uint32_t>>& truth) {
    measured_path m;
    m.path = path_name(params.path);
    m.settings = settings;
    m.rerank = params.rerank;
    std::vector<double> latencies;
    double wall = 0.0;
    m.answers = answer_all(sys, params, queries, n, &latencies, &wall);
    double total = 0.0;
    for (uint32_t q = 0; q < n; ++q) {
        std::vector<uint32_t> ids;
        for (const hit& h : m.answers[q]) ids.push_back(h.node_id);
        total += recall(ids, truth[q]);
    }
    m.recall = total / n;
    m.qps = wall > 0 ? n / wall : 0.0;
    m.p50_us = percentile(latencies, 0.50);
    m.p99_us = percentile(latencies, 0.99);
    return m;
}

uint32_t count_identical(const std::vector<std::vector<hit>>& a,
                         const std::vector<std::vector<hit>>& b) {
    uint32_t same = 0;
    for (size_t q = 0; q < a.size() && q < b.size(); ++q) same += a[q] == b[q] ? 1 : 0;
    return same;
}

uint64_t file_size(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

void check(int rc, const std::string& what) {
    if (rc != 0) throw tool_error(what + " failed (library code " + std::to_string(rc) + ")");
}

}  // namespace

const command_def& demo_def() {
    static const command_def def{
        "demo",
        "[--rows N] [--dataset clustered|facts] [--dir DIR] [--seed S] [--queries Q] [-k K]\n"
        "                 [--nlist K] [--nprobe N] [--b1 B --b2 B] [--nprobe-l1 A --nprobe-l2 B]",
        "generate a data set, build every index, measure every search path",
        "Generates a seeded data set, ingests it into a new object with a sidecar file, builds\n"
        "the IVF and the two-level H-IVF, writes the H-IVF to a paged .ivfp file, and answers\n"
        "held-out queries on every path (brute force, IVF, H-IVF, paged; each with and without\n"
        "exact re-ranking). The table gives recall@k against exact float cosine neighbours\n"
        "computed by the tool in double precision, queries per second and the median and\n"
        "99th-percentile latency of one query (single thread). The object is then destroyed and\n"
        "created again from the sidecar and the .ivfp, and the answers are compared.",
        {
            {"--rows", "N", "rows to ingest, 1000 to 1100000 (default 20000)"},
            {"--dataset", "KIND",
             "clustered: Gaussian mixture of about N/100 centres (default)\n"
             "facts: (subject, relation, object) facts encoded by the HRR encoder"},
            {"--dir", "DIR",
             "keep the sidecar and .ivfp as DIR/demo.sidecar and DIR/demo.ivfp (replaced if\n"
             "present); default: a temporary directory removed at the end"},
            {"--seed", "S", "seed of the data and of index training (default 1)"},
            {"--queries", "Q", "held-out queries, 1 to 100000 (default 300)"},
            {"-k", "K", "neighbours per query, 1 to 1000 (default 10)"},
            {"--nlist", "K", "IVF buckets (default about 4 x sqrt(N))"},
            {"--nprobe", "N", "IVF buckets probed (default nlist / 16)"},
            {"--b1", "B", "H-IVF level-1 buckets, at most 64 (default about 2 x N^(1/4))"},
            {"--b2", "B", "H-IVF leaves per level-1 bucket, at most 64 (default as --b1)"},
            {"--nprobe-l1", "A", "H-IVF level-1 buckets probed (default b1 / 2, rounded up)"},
            {"--nprobe-l2", "B",
             "H-IVF leaves probed per level-1 bucket (default b2 / 2, rounded up)"},
            {"--quiet", "", "no progress or warnings on standard error"},
            {"--help", "", "show this help"},
        }};
    return def;
}

namespace {

struct demo_options {
    uint64_t rows = 0;
    uint32_t n_queries = 0;
    uint32_t k = 0;
    uint64_t seed = 1;
    std::string kind;
    std::string dir;  // empty: a private temporary directory
    uint32_t nlist = 0, nprobe = 0;
    uint32_t b1 = 0, b2 = 0, nprobe_l1 = 0, nprobe_l2 = 0;
};

demo_options parse_demo_options(const parsed_args& args) {
    if (!args.positionals().empty()) {
        throw usage_error("unexpected argument '" + args.positionals()[0] + "'");
    }
    demo_options o;
    o.rows = args.get_uint("--rows", 20000, ORVE_MIN_INDEX_ROWS, ORVE_MAX_CAPACITY);
    o.n_queries = static_cast<uint32_t>(args.get_uint("--queries", 300, 1, 100000));
    o.k = static_cast<uint32_t>(args.get_uint("-k", 10, 1, 1000));
    o.seed = args.get_uint("--seed", 1, 0, UINT32_MAX);
    o.kind = args.get_or("--dataset", "clustered");
    if (o.kind != "clustered" && o.kind != "facts") {
        throw usage_error("--dataset expects clustered or facts, got '" + o.kind + "'");
    }
    o.dir = args.get_or("--dir", "");
    o.nlist = static_cast<uint32_t>(args.get_uint("--nlist", default_nlist(o.rows), 1, o.rows));
    o.nprobe =
        static_cast<uint32_t>(args.get_uint("--nprobe", default_nprobe(o.nlist), 1, o.nlist));
    o.b1 = paged_branching_arg(args, "--b1", default_branching(o.rows));
    o.b2 = paged_branching_arg(args, "--b2", o.b1);
    if (uint64_t{o.b1} * o.b2 > o.rows) throw usage_error("--b1 x --b2 must not exceed --rows");
    o.nprobe_l1 =
        static_cast<uint32_t>(args.get_uint("--nprobe-l1", default_nprobe_level(o.b1), 1, o.b1));
    o.nprobe_l2 =
        static_cast<uint32_t>(args.get_uint("--nprobe-l2", default_nprobe_level(o.b2), 1, o.b2));
    return o;
}

// The sidecar and the .ivfp: kept in --dir, or in a private directory that goes away with the
// demo.
struct demo_files {
    explicit demo_files(const std::string& dir) {
        if (dir.empty()) {
            scratch.emplace();
            sidecar = scratch->file("demo.sidecar");
            ivfp = scratch->file("demo.ivfp");
            return;
        }
        if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
            throw tool_error(dir + ": cannot create directory: " + errno_text(errno));
        }
        sidecar = dir + "/demo.sidecar";
        ivfp = dir + "/demo.ivfp";
        check_paths({sidecar, ivfp}, {});
        // A sidecar left by an earlier run would be replayed into the new object.
        ::unlink(sidecar.c_str());
        ::unlink(ivfp.c_str());
        kept.emplace(std::vector<std::string>{sidecar, ivfp});
    }
    std::optional<temp_directory> scratch;
    std::optional<discard_on_failure> kept;
    std::string sidecar, ivfp;
};

// Rows are generated, ingested and offered to the exact search one chunk at a time. Returns
// the seconds spent in the library.
double ingest_generated(system_object& sys, dataset& data, exact_topk& exact, uint64_t rows,
                        const std::string& sidecar, const reporter& rep) {
    ingest_plan plan;
    plan.rows = rows;
    plan.fill = [&](uint64_t, uint32_t n, float* out) { data.next_rows(n, out); };
    plan.taken = [&](const float* chunk, uint64_t done, uint32_t n) {
        exact.add_rows(chunk, done, n);
    };
    plan.refused = [](uint64_t done, int committed) {
        return "ingestion stopped at row " + std::to_string(done) + " (library returned " +
               std::to_string(committed) + ")";
    };
    // The restart replays the sidecar: a row it lost must fail here, by name.
    plan.sidecar_file = plan.sidecar_name = sidecar;
    plan.unit = "rows";
    return ingest_rows(sys, plan, rep);
}

const std::vector<std::vector<hit>>& answers_of(const std::vector<measured_path>& table,
                                                search_path p) {
    for (const measured_path& m : table) {
        if (m.path == path_name(p) && !m.rerank) return m.answers;
    }
    throw tool_error("internal: no answers recorded for " + std::string(path_name(p)));
}

// A new object that knows only the two files answers again; returns how many queries got
// identical answers on brute force and on the paged path.
std::pair<uint32_t, uint32_t> restart_and_compare(system_object& sys, const demo_options& o,
                                                  const demo_files& files,
                                                  const search_params& base,
                                                  const std::vector<float>& queries,
                                                  const std::vector<measured_path>& table,
                                                  const reporter& rep) {
    step_timer restart_step(rep, "restarting from the sidecar and the paged index");
    sys.recreate(o.rows);
    check(semantic_vector_indexing_system_open_sidecar(sys.get(), files.sidecar.c_str()),
          files.sidecar + ": reattaching the sidecar");
    library_output reopen_log;
    const int reopen_rc =
        semantic_vector_indexing_system_open_ivf_paged(sys.get(), files.ivfp.c_str());
    const std::string reopen_text = reopen_log.finish();
    if (reopen_rc != 0) throw tool_error(files.ivfp + ": reopening failed: " + reopen_text);
    restart_step.done();
    if (!rep.quiet()) std::fputs(reopen_text.c_str(), stderr);
    if (sys.node_count() != o.rows) {
        throw tool_error(files.sidecar + ": restart replayed " + std::to_string(sys.node_count()) +
                         " rows, expected " + std::to_string(o.rows));
    }
    search_params brute = base;
    brute.path = search_path::brute;
    search_params paged = base;
    paged.path = search_path::paged;
    return {count_identical(answers_of(table, search_path::brute),
                            answer_all(sys.get(), brute, queries, o.n_queries, nullptr, nullptr)),
            count_identical(answers_of(table, search_path::paged),
                            answer_all(sys.get(), paged, queries, o.n_queries, nullptr, nullptr))};
}

struct demo_timings {
    double ingest_s = 0, ivf_s = 0, hivf_s = 0, paged_s = 0;
};

void print_report(const demo_options& o, const std::string& describe, const demo_timings& t,
                  uint64_t ivfp_bytes, const std::vector<measured_path>& table) {
    std::printf("orve demo: %s, %llu rows x 512, %u held-out queries, k=%u, seed %llu\n",
                describe.c_str(), static_cast<unsigned long long>(o.rows), o.n_queries, o.k,
                static_cast<unsigned long long>(o.seed));
    std::printf(
        "ingest %.1f s (%.0f rows/s) | IVF nlist=%u: %.1f s | H-IVF %ux%u: %.1f s | "
        "paged file %s: %.1f s\n\n",
        t.ingest_s, t.ingest_s > 0 ? static_cast<double>(o.rows) / t.ingest_s : 0.0, o.nlist,
        t.ivf_s, o.b1, o.b2, t.hivf_s, mib_text(ivfp_bytes).c_str(), t.paged_s);
    char recall_head[32];
    std::snprintf(recall_head, sizeof recall_head, "recall@%u", o.k);
    std::printf("%-6s  %-22s  %-6s  %9s  %9s  %9s  %9s\n", "path", "settings", "rerank",
                recall_head, "qps", "p50 us", "p99 us");
    for (const measured_path& m : table) {
        std::printf("%-6s  %-22s  %-6s  %9.3f  %9.0f  %9.1f  %9.1f\n", m.path.c_str(),
                    m.settings.c_str(), m.rerank ? "yes" : "no", m.recall, m.qps, m.p50_us,
                    m.p99_us);
    }
}

search_params base_params(const demo_options& o) {
    search_params base;
    base.k = o.k;
    base.nprobe = o.nprobe;
    base.nprobe_l1 = o.nprobe_l1;
    base.nprobe_l2 = o.nprobe_l2;
    return base;
}

// Every row into the object with the sidecar attached, and the exact k best rows of each query
// as node ids (load_vectors_f32 numbers rows from 1).
std::vector<std::vector<uint32_t>> ingest_with_truth(system_object& sys, const demo_options& o,
                                                     const demo_files& files, dataset& data,
                                                     const std::vector<float>& queries,
                                                     demo_timings& times, const reporter& rep) {
    check(semantic_vector_indexing_system_open_sidecar(sys.get(), files.sidecar.c_str()),
          files.sidecar + ": attaching the sidecar");
    exact_topk exact(queries.data(), o.n_queries, o.k);
    times.ingest_s = ingest_generated(sys, data, exact, o.rows, files.sidecar, rep);
    std::vector<std::vector<uint32_t>> truth(o.n_queries);
    for (uint32_t q = 0; q < o.n_queries; ++q) {
        for (uint64_t row : exact.best_rows(q)) truth[q].push_back(static_cast<uint32_t>(row + 1));
    }
    return truth;
}

void train_indexes(system_object& sys, const demo_options& o, demo_timings& times,
                   const reporter& rep) {
    const uint32_t seed = static_cast<uint32_t>(o.seed);
    step_timer ivf_step(rep, "training IVF (nlist=" + std::to_string(o.nlist) + ")");
    check(semantic_vector_indexing_system_build_ivf(sys.get(), o.nlist, seed), "IVF build");
    times.ivf_s = ivf_step.done();
    step_timer hivf_step(
        rep, "training H-IVF (b1=" + std::to_string(o.b1) + ", b2=" + std::to_string(o.b2) + ")");
    check(semantic_vector_indexing_system_build_ivf_level2(sys.get(), o.b1, o.b2, seed),
          "H-IVF build");
    times.hivf_s = hivf_step.done();
}

// Every path with and without re-ranking. The in-memory H-IVF is measured before the paged file
// is written: writing it frees the H-IVF's rows, and from then on the same flag searches the
// file.
std::vector<measured_path> measure_paths(system_object& sys, const demo_options& o,
                                         const demo_files& files, const std::vector<float>& queries,
                                         const std::vector<std::vector<uint32_t>>& truth,
                                         demo_timings& times, const reporter& rep) {
    const std::string ivf_settings =
        "nprobe " + std::to_string(o.nprobe) + "/" + std::to_string(o.nlist);
    const std::string hivf_settings = "nprobe " + std::to_string(o.nprobe_l1) + "x" +
                                      std::to_string(o.nprobe_l2) + " of " + std::to_string(o.b1) +
                                      "x" + std::to_string(o.b2);
    std::vector<measured_path> table;
    auto run_both = [&](search_path p, const std::string& settings) {
        for (bool rerank : {false, true}) {
            search_params params = base_params(o);
            params.path = p;
            params.rerank = rerank;
            step_timer t(rep,
                         std::string("querying ") + path_name(p) + (rerank ? " + rerank" : ""));
            table.push_back(measure(sys.get(), params, settings, queries, o.n_queries, truth));
            t.done();
        }
    };
    run_both(search_path::brute, "exact int8 scan");
    run_both(search_path::ivf, ivf_settings);
    run_both(search_path::hivf, hivf_settings);
    step_timer paged_step(rep, "writing paged index");
    write_paged_index(sys.get(), files.ivfp, files.ivfp, rep);
    times.paged_s = paged_step.done();
    run_both(search_path::paged, hivf_settings);
    return table;
}

}  // namespace

int run_demo(const parsed_args& args) {
    const reporter rep(args.has("--quiet"));
    const demo_options o = parse_demo_options(args);
    demo_files files(o.dir);

    step_timer gen_step(rep, "generating " + o.kind + " data set");
    std::unique_ptr<dataset> data =
        o.kind == "facts" ? make_facts(o.rows, o.seed) : make_clustered(o.rows, o.seed);
    std::vector<float> queries(uint64_t{o.n_queries} * 512);
    data->make_queries(o.n_queries, queries.data());
    gen_step.done();

    system_object sys(o.rows);
    demo_timings times;
    const auto truth = ingest_with_truth(sys, o, files, *data, queries, times, rep);
    train_indexes(sys, o, times, rep);
    const std::vector<measured_path> table =
        measure_paths(sys, o, files, queries, truth, times, rep);
    const auto [same_brute, same_paged] =
        restart_and_compare(sys, o, files, base_params(o), queries, table, rep);
    print_report(o, data->describe(), times, file_size(files.ivfp), table);
    const uint32_t n = o.n_queries;
    std::printf("\nrestart: %u/%u queries gave identical answers on brute, %u/%u on paged\n",
                same_brute, n, same_paged, n);
    if (files.kept) {
        files.kept->keep();
        std::printf("files: %s, %s\n", files.sidecar.c_str(), files.ivfp.c_str());
    }
    if (same_brute != n || same_paged != n) {
        throw tool_error("the restarted object answered " +
                         std::to_string(2 * n - same_brute - same_paged) + " queries differently");
    }
    return 0;
}

}  // namespace orve::tool
