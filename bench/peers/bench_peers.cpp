// This library against FAISS, hnswlib and USearch on seeded datasets (a Gaussian mixture and
// HRR facts), in one run: build time, resident memory, recall@10 against the exact answers,
// queries per second one at a time and in batches, and for each dataset a summary at recall
// 0.90, 0.95 and 0.99, beside this machine's read bandwidth measured in the same run.
// Everything runs on one thread. A benchmark: it prints figures and never fails on them.
//
// Usage: bench_peers [--rows N] [--queries N] [--centres N] [--noise S] [--seed N]
//                    [--nlist N] [--hivf-b N] [--min-time SECONDS] [--data clustered|hrr|both]
//                    [--no-faiss] [--no-hnswlib] [--no-usearch]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "engines.h"

namespace {

void usage() {
    std::printf(
        "usage: bench_peers [options]\n"
        "  --rows N          rows indexed (default 100000, at most 1100000)\n"
        "  --queries N       held-out queries (default 500)\n"
        "  --centres N       mixture centres (default 1000)\n"
        "  --noise S         deviation of a row around its centre, per dimension (default 1.0;\n"
        "                    centres have deviation 1)\n"
        "  --seed N          dataset seed (default 42)\n"
        "  --nlist N         IVF lists for ours and FAISS (default round(4 sqrt(rows)))\n"
        "  --hivf-b N        H-IVF level-1 and level-2 buckets (default: the power of two\n"
        "                    nearest sqrt(nlist), at most 64)\n"
        "  --min-time S      seconds each timed figure runs for, at least one pass (default 1)\n"
        "  --data D          clustered, hrr or both (default both, one after the other)\n"
        "  --no-faiss        skip FAISS (the exact answers then come from a plain float scan)\n"
        "  --no-hnswlib      skip hnswlib\n"
        "  --no-usearch      skip USearch\n");
}

std::string cpu_model() {
    FILE* f = std::fopen("/proc/cpuinfo", "r");
    if (f == nullptr) return "unknown";
    char line[512];
    std::string model = "unknown";
    while (std::fgets(line, sizeof line, f) != nullptr) {
        if (std::strncmp(line, "model name", 10) == 0) {
            const char* colon = std::strchr(line, ':');
            if (colon != nullptr) {
                model = colon + 2;
                if (!model.empty() && model.back() == '\n') model.pop_back();
            }
            break;
        }
    }
    std::fclose(f);
    return model;
}

// Every engine on one dataset, then its tables; the indexes are freed before the next one.
void run_dataset(const peers::options& opt, bool hrr) {
    const auto t_data = peers::clock_type::now();
    const peers::dataset d = hrr ? peers::make_hrr_dataset(opt) : peers::make_dataset(opt);
    std::printf("\n######## dataset: %s ########\n", d.name.c_str());
    if (hrr) {
        std::printf(
            "facts (subject, relation, object) by orve_hrr_encode over %zu entities and 64\n"
            "relations drawn uniformly; a query keeps the subject and relation of a stored fact\n"
            "and takes a random object; seed %llu\n",
            std::max<std::size_t>(100, opt.rows / 10), static_cast<unsigned long long>(opt.seed));
    } else {
        std::printf(
            "Gaussian mixture, %zu centres drawn from N(0, I); each row and query is a\n"
            "centre picked uniformly plus N(0, %.2f^2 I) noise, then scaled to unit length (so\n"
            "inner product = cosine for every engine); seed %llu\n",
            opt.centres, static_cast<double>(opt.noise), static_cast<unsigned long long>(opt.seed));
    }
    std::fflush(stdout);
    std::fprintf(stderr, "dataset generated in %.1f s\n", peers::seconds_since(t_data));

    peers::report rep;
    peers::keep_alive keep;
    peers::answers exact;
#if ORVE_PEERS_FAISS
    if (opt.faiss) exact = peers::run_faiss_flat(d, opt, rep, keep);
#endif
    if (exact.empty()) {
        const auto t0 = peers::clock_type::now();
        exact = peers::exact_answers_plain(d);
        rep.notes.push_back("exact answers from a plain float scan (" +
                            std::to_string(peers::seconds_since(t0)) + " s)");
    } else {
        rep.notes.push_back("exact answers: FAISS IndexFlatIP, all queries in one search");
    }
    std::fprintf(stderr, "exact answers ready\n");

    peers::run_ours(d, opt, exact, rep, keep);
#if ORVE_PEERS_FAISS
    if (opt.faiss) peers::run_faiss_quantised(d, opt, exact, rep, keep);
#endif
#if ORVE_PEERS_HNSWLIB
    if (opt.hnswlib) peers::run_hnswlib(d, opt, exact, rep, keep);
#endif
#if ORVE_PEERS_USEARCH
    if (opt.usearch) peers::run_usearch(d, opt, exact, rep, keep);
#endif
    rep.notes.push_back(
        "ours: rerank = exact re-ranking of 5 x k int8 candidates from the sidecar's float rows; "
        "the flat store's load time is our ingestion, sidecar appends and the legacy 128-dim "
        "indexes included; the IVF and H-IVF train on it");
    rep.notes.push_back(
        "resident MiB: growth of the resident set across the build, after freed heap memory is "
        "handed back (malloc_trim); peak MiB: highest resident set during the build over the "
        "start (scratch included)");

    rep.notes.push_back(
        "QPS: fastest pass over all queries; load average at the end: " + peers::load_average() +
        " (above 1 means other work shared the processors, and every figure is "
        "then lower than on an idle machine)");
    rep.print_builds();
    rep.print_searches();
    rep.print_matched_recall(peers::kOurs);
    rep.print_summary();
    std::fflush(stdout);
    keep.clear();
}

}  // namespace

int main(int argc, char** argv) {
    peers::options opt;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool has_value = i + 1 < argc;
        auto value = [&] { return std::string(argv[++i]); };
        if (a == "--rows" && has_value) {
            opt.rows = std::strtoull(value().c_str(), nullptr, 10);
        } else if (a == "--queries" && has_value) {
            opt.queries = std::strtoull(value().c_str(), nullptr, 10);
        } else if (a == "--centres" && has_value) {
            opt.centres = std::strtoull(value().c_str(), nullptr, 10);
        } else if (a == "--noise" && has_value) {
            opt.noise = std::strtof(value().c_str(), nullptr);
        } else if (a == "--seed" && has_value) {
            opt.seed = std::strtoull(value().c_str(), nullptr, 10);
        } else if (a == "--nlist" && has_value) {
            opt.nlist = static_cast<uint32_t>(std::strtoul(value().c_str(), nullptr, 10));
        } else if (a == "--hivf-b" && has_value) {
            opt.hivf_b = static_cast<uint32_t>(std::strtoul(value().c_str(), nullptr, 10));
        } else if (a == "--min-time" && has_value) {
            opt.min_time = std::strtod(value().c_str(), nullptr);
        } else if (a == "--data" && has_value) {
            const std::string v = value();
            opt.clustered = v == "clustered" || v == "both";
            opt.hrr = v == "hrr" || v == "both";
            if (!opt.clustered && !opt.hrr) {
                usage();
                return 2;
            }
        } else if (a == "--no-faiss") {
            opt.faiss = false;
        } else if (a == "--no-hnswlib") {
            opt.hnswlib = false;
        } else if (a == "--no-usearch") {
            opt.usearch = false;
        } else {
            usage();
            return a == "--help" || a == "-h" ? 0 : 2;
        }
    }
    // Our indexes need 1000 rows; the object holds at most 1,100,000.
    if (opt.rows < 1000 || opt.rows > 1100000 || opt.queries == 0 || opt.centres == 0) {
        std::fprintf(stderr,
                     "bench_peers: --rows must be 1000..1100000, --queries and "
                     "--centres at least 1\n");
        return 2;
    }
#if !ORVE_PEERS_FAISS
    opt.faiss = false;
#endif
#if !ORVE_PEERS_HNSWLIB
    opt.hnswlib = false;
#endif
#if !ORVE_PEERS_USEARCH
    opt.usearch = false;
#endif
    const uint32_t b = peers::hivf_b(opt);
    if (static_cast<std::size_t>(b) * b > opt.rows || peers::ivf_nlist(opt) > opt.rows) {
        std::fprintf(stderr, "bench_peers: nlist and b1 x b2 must not exceed the rows\n");
        return 2;
    }

    std::printf("bench_peers: %zu rows, %zu held-out queries, 512 dimensions, k = %zu\n", opt.rows,
                opt.queries, peers::kTopK);
    std::printf("processor: %s; one thread everywhere; load average at start: %s\n",
                cpu_model().c_str(), peers::load_average().c_str());
    std::printf("peers: FAISS %s, hnswlib %s, USearch %s\n",
                opt.faiss ? "yes" : (ORVE_PEERS_FAISS ? "skipped" : "not available"),
                opt.hnswlib ? "yes" : (ORVE_PEERS_HNSWLIB ? "skipped" : "not available"),
                opt.usearch ? "yes" : (ORVE_PEERS_USEARCH ? "skipped" : "not available"));
    std::printf("single-thread streaming read at start: %.1f GB/s\n", peers::read_bandwidth_gbs());
    std::fflush(stdout);
    if (opt.clustered) run_dataset(opt, false);
    if (opt.hrr) run_dataset(opt, true);
    std::printf("\nsingle-thread streaming read at the end: %.1f GB/s; load average: %s\n",
                peers::read_bandwidth_gbs(), peers::load_average().c_str());
    return 0;
}
