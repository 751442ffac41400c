// orve query: a restarted host. It rebuilds the object from a sidecar (and a paged index),
// answers queries from a file on the chosen path and prints the results.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cmath>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "commands.h"
#include "file_checks.h"
#include "index_files.h"
#include "library.h"
#include "progress.h"
#include "sharded_dir.h"
#include "tool_error.h"
#include "vector_file.h"

namespace orve::tool {

namespace {

enum class output_format { table, json, csv };

output_format parse_format(const std::string& text) {
    if (text == "table") return output_format::table;
    if (text == "json") return output_format::json;
    if (text == "csv") return output_format::csv;
    throw usage_error("--format expects table, json or csv, got '" + text + "'");
}

// Nine significant digits identify a float exactly, so printed similarities read back as the
// very values the library returned.
std::string number_text(float v, bool json) {
    if (json && !std::isfinite(v)) return "null";
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.9g", static_cast<double>(v));
    return buf;
}

std::string first_line_of(const std::string& log) {
    std::string line = log.substr(0, log.find('\n'));
    const std::string tag = "[IVF_PAGED] ";
    if (line.rfind(tag, 0) == 0) line.erase(0, tag.size());
    return line;
}

void print_results(output_format format, const search_params& params,
                   const std::vector<std::vector<hit>>& answers) {
    switch (format) {
        case output_format::csv:
            std::printf("query,rank,node_id,similarity\n");
            for (size_t q = 0; q < answers.size(); ++q) {
                for (size_t r = 0; r < answers[q].size(); ++r) {
                    std::printf("%zu,%zu,%u,%s\n", q, r + 1, answers[q][r].node_id,
                                number_text(answers[q][r].similarity, false).c_str());
                }
            }
            break;
        case output_format::json:
            std::printf("{\"path\": \"%s\", \"k\": %u, \"rerank\": %s, \"queries\": [",
                        path_name(params.path), params.k, params.rerank ? "true" : "false");
            for (size_t q = 0; q < answers.size(); ++q) {
                std::printf("%s\n  {\"query\": %zu, \"results\": [", q ? "," : "", q);
                for (size_t r = 0; r < answers[q].size(); ++r) {
                    std::printf("%s{\"rank\": %zu, \"node_id\": %u, \"similarity\": %s}",
                                r ? ", " : "", r + 1, answers[q][r].node_id,
                                number_text(answers[q][r].similarity, true).c_str());
                }
                std::printf("]}");
            }
            std::printf("\n]}\n");
            break;
        case output_format::table:
            std::printf("%7s  %5s  %10s  %12s\n", "query", "rank", "node_id", "similarity");
            for (size_t q = 0; q < answers.size(); ++q) {
                for (size_t r = 0; r < answers[q].size(); ++r) {
                    std::printf("%7zu  %5zu  %10u  %12.6f\n", q, r + 1, answers[q][r].node_id,
                                static_cast<double>(answers[q][r].similarity));
                }
            }
            break;
    }
}

// What the sidecar holds, checked before the library is let near it: the library reinitialises
// a file whose header it does not recognise, which must never happen to a user's other file.
sidecar_report check_sidecar(const std::string& path, bool rerank, const reporter& rep,
                             sidecar_live_rows* live) {
    const sidecar_report s = read_sidecar_report(path, live);
    if (!s.magic_ok) throw tool_error(path + ": not a sidecar file (bad magic)");
    if (!s.header_ok) {
        throw tool_error(path + ": unsupported sidecar header (version " +
                         std::to_string(s.version) + ", dim " + std::to_string(s.dim) +
                         ", row size " + std::to_string(s.row_bytes) + ")");
    }
    if (s.live_rows == 0) throw tool_error(path + ": holds no live rows");
    if (s.live_rows > ORVE_MAX_CAPACITY) {
        throw tool_error(path + ": " + std::to_string(s.live_rows) +
                         " rows; the library holds at most " + std::to_string(ORVE_MAX_CAPACITY));
    }
    if (s.partial_bytes) {
        rep.warn(path + ": ends in a partial row of " + std::to_string(s.partial_bytes) +
                 " bytes, which the library cuts off when it attaches the file");
    }
    // Re-ranking reads the sidecar by row number, and skipped rows shift the numbering.
    if (rerank && s.dead_rows) {
        throw tool_error(path + ": " + std::to_string(s.dead_rows) +
                         " dead rows; exact re-ranking would read the wrong rows");
    }
    return s;
}

}  // namespace

namespace {

// The options that train an in-memory index, shared by query and tune so that each keeps one
// meaning and one help text: `head`, then the training options, then `tail`.
std::vector<option_def> with_training_options(std::vector<option_def> head,
                                              const std::vector<option_def>& tail) {
    static const std::vector<option_def> training{
        {"--nlist", "K", "IVF buckets for --path ivf (default about 4 x sqrt(n))"},
        {"--b1", "B", "H-IVF level-1 buckets for --path hivf (default about 2 x n^(1/4))"},
        {"--b2", "B", "H-IVF leaves per level-1 bucket for --path hivf (default as --b1)"},
        {"--seed", "S", "training seed for --path ivf and hivf (default 1)"},
    };
    head.insert(head.end(), training.begin(), training.end());
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

}  // namespace

const command_def& query_def() {
    static const command_def def{
        "query",
        "(--sidecar FILE [--ivfp FILE] | --dir DIR) --queries FILE -k K "
        "[--path brute|ivf|hivf|paged] "
        "[--nprobe N] [--nprobe-l1 A --nprobe-l2 B] [--nlist K] [--rerank] "
        "[--format table|json|csv]",
        "restart from a sidecar (and paged index) and answer queries",
        "Creates an object, replays the sidecar into it (the library keeps the file open for\n"
        "appending, so it must be writable; nothing is appended), attaches the paged index when\n"
        "one is given, builds an in-memory index when the path needs one, and prints the k best\n"
        "nodes of every query: query index (from 0), rank (from 1), node id and similarity\n"
        "(int8 cosine, or exact float cosine with --rerank).\n"
        "With --dir, every shard of a sharded directory is searched, one after another, and the\n"
        "answers merge: similarity descending, ties to the lower node id. Sealed shards take\n"
        "the path (default paged; hivf and paged both read the shard's paged index; ivf uses\n"
        "the IVF the shard was sealed with, or trains one now when it has none); shards not\n"
        "sealed yet are searched by brute force.",
        with_training_options(
            {
                {"--sidecar", "FILE", "sidecar written by orve build or by a host"},
                {"--ivfp", "FILE", "paged index to attach (used by --path paged)"},
                {"--dir", "DIR", "sharded directory written by orve build --shard-rows"},
                {"--queries", "FILE", "queries: .npy float32 (n, 512) or .fvecs"},
                {"-k", "K", "results per query, 1 to 100000 (default 10)"},
                {"--path", "PATH",
                 "brute: exact int8 scan of every row\n"
                 "ivf: IVF trained now over the sidecar's rows\n"
                 "hivf: in-memory H-IVF trained now\n"
                 "paged: the attached .ivfp file\n"
                 "(default: paged with --ivfp, else brute)"},
                {"--nprobe", "N", "IVF buckets probed (default nlist / 16)"},
                {"--nprobe-l1", "A",
                 "level-1 buckets probed by hivf/paged (default b1 / 2, rounded up)"},
                {"--nprobe-l2", "B",
                 "leaves probed per level-1 bucket (default b2 / 2, rounded up)"},
            },
            {
                {"--rerank", "", "re-rank candidates by exact float cosine from the sidecar"},
                {"--rerank-factor", "F", "candidates per result when re-ranking (default 5)"},
                {"--format", "FORMAT", "table (default), json or csv"},
                {"--quiet", "", "no progress or warnings on standard error"},
                {"--help", "", "show this help"},
            })};
    return def;
}

namespace {

struct query_request {
    std::string sidecar;
    std::string queries;
    std::string ivfp;  // empty unless the paged path attaches one
    output_format format = output_format::table;
    search_params params;
    uint32_t seed = 1;
    uint32_t nlist = 0;  // --path ivf
    uint32_t b1 = 0;     // --path hivf
    uint32_t b2 = 0;
};

// The options that need no file, and the kinds of the input files.
query_request check_options(const parsed_args& args, const reporter& rep) {
    if (!args.positionals().empty()) {
        throw usage_error("unexpected argument '" + args.positionals()[0] + "'");
    }
    query_request r;
    r.sidecar = args.get("--sidecar");
    r.queries = args.get("--queries");
    const bool has_ivfp = args.has("--ivfp");
    r.format = parse_format(args.get_or("--format", "table"));
    r.params.k = static_cast<uint32_t>(args.get_uint("-k", 10, 1, 100000));
    r.params.path = parse_search_path(args.get_or("--path", has_ivfp ? "paged" : "brute"));
    r.params.rerank = args.has("--rerank");
    // Kept for hosts that drive the tool: a query has a sidecar, so --rerank is always
    // honoured here; tune measures with its own exact reference instead.
    r.params.rerank_factor = static_cast<uint32_t>(args.get_uint("--rerank-factor", 0, 1, 1000));
    r.seed = static_cast<uint32_t>(args.get_uint("--seed", 1, 0, UINT32_MAX));
    if (r.params.path == search_path::paged && !has_ivfp) {
        throw usage_error("--path paged needs --ivfp");
    }
    if (has_ivfp && r.params.path != search_path::paged) {
        rep.warn("--ivfp is only used by --path paged; not attaching it");
    }
    if (r.params.path == search_path::paged) r.ivfp = args.get("--ivfp");
    check_input_file(r.sidecar);
    check_input_file(r.queries);
    if (!r.ivfp.empty()) check_input_file(r.ivfp);
    return r;
}

// Index sizes and probe counts of the in-memory paths, against the sidecar's row count.
void choose_index_sizes(const parsed_args& args, uint64_t rows, query_request& r) {
    if (r.params.path != search_path::ivf && r.params.path != search_path::hivf) return;
    if (rows < ORVE_MIN_INDEX_ROWS) {
        throw tool_error(r.sidecar + ": " + std::to_string(rows) + " rows; --path " +
                         path_name(r.params.path) + " needs at least " +
                         std::to_string(ORVE_MIN_INDEX_ROWS) + " to train an index");
    }
    if (r.params.path == search_path::ivf) {
        r.nlist = static_cast<uint32_t>(args.get_uint("--nlist", default_nlist(rows), 1, rows));
        r.params.nprobe =
            static_cast<uint32_t>(args.get_uint("--nprobe", default_nprobe(r.nlist), 1, r.nlist));
        return;
    }
    r.b1 = static_cast<uint32_t>(
        args.get_uint("--b1", default_branching(rows), 1, ORVE_IVF_PAGED_MAX_B));
    r.b2 = static_cast<uint32_t>(args.get_uint("--b2", r.b1, 1, ORVE_IVF_PAGED_MAX_B));
    if (uint64_t{r.b1} * r.b2 > rows) throw usage_error("--b1 x --b2 exceeds the sidecar's rows");
    r.params.nprobe_l1 =
        static_cast<uint32_t>(args.get_uint("--nprobe-l1", default_nprobe_level(r.b1), 1, r.b1));
    r.params.nprobe_l2 =
        static_cast<uint32_t>(args.get_uint("--nprobe-l2", default_nprobe_level(r.b2), 1, r.b2));
}

// The paged file must hold the very rows the sidecar replays, at the same positions: a file
// from another data set, or one renamed into place without its sidecar by an interrupted
// build, would otherwise answer with ids of unrelated rows.
ivfp_report verify_paged_index(const std::string& ivfp, const std::string& sidecar,
                               const sidecar_live_rows& live) {
    if (sniff_index_file(ivfp) != index_file_kind::paged_index) {
        throw tool_error(ivfp + ": not a paged index file (bad magic)");
    }
    ivfp_report layout = read_ivfp_report(ivfp);
    if (!layout.problems.empty()) {
        throw tool_error(ivfp + ": damaged paged index: " + layout.problems.front());
    }
    const std::string mismatch = paged_rows_mismatch(ivfp, layout, sidecar, live);
    if (!mismatch.empty()) {
        throw tool_error(ivfp + ": does not belong to " + sidecar + ": " + mismatch +
                         " (were they built together?)");
    }
    return layout;
}

void check_paged_index(const parsed_args& args, const sidecar_live_rows& live, query_request& r) {
    const ivfp_report layout = verify_paged_index(r.ivfp, r.sidecar, live);
    r.params.nprobe_l1 = static_cast<uint32_t>(
        args.get_uint("--nprobe-l1", default_nprobe_level(layout.b1), 1, layout.b1));
    r.params.nprobe_l2 = static_cast<uint32_t>(
        args.get_uint("--nprobe-l2", default_nprobe_level(layout.b2), 1, layout.b2));
}

// The object replayed from the sidecar, with the index the path searches built or attached.
void prepare_object(system_object& sys, const query_request& r, uint64_t rows,
                    const reporter& rep) {
    {
        step_timer t(rep, "loading " + std::to_string(rows) + " rows from the sidecar");
        if (semantic_vector_indexing_system_open_sidecar(sys.get(), r.sidecar.c_str()) != 0) {
            throw tool_error(r.sidecar +
                             ": the library could not attach it (it opens the "
                             "file for appending: is it writable?)");
        }
        t.done();
    }
    if (sys.node_count() != rows) {
        throw tool_error(r.sidecar + ": replayed " + std::to_string(sys.node_count()) +
                         " rows, expected " + std::to_string(rows));
    }
    if (r.params.path == search_path::ivf) {
        step_timer t(rep, "training IVF (nlist=" + std::to_string(r.nlist) + ")");
        if (semantic_vector_indexing_system_build_ivf(sys.get(), r.nlist, r.seed) != 0) {
            throw tool_error(r.sidecar + ": training the IVF failed");
        }
        t.done();
    } else if (r.params.path == search_path::hivf) {
        step_timer t(rep, "training H-IVF (b1=" + std::to_string(r.b1) +
                              ", b2=" + std::to_string(r.b2) + ")");
        if (semantic_vector_indexing_system_build_ivf_level2(sys.get(), r.b1, r.b2, r.seed) != 0) {
            throw tool_error(r.sidecar + ": training the H-IVF failed");
        }
        t.done();
    } else if (r.params.path == search_path::paged) {
        library_output log;
        const int rc = semantic_vector_indexing_system_open_ivf_paged(sys.get(), r.ivfp.c_str());
        const std::string text = log.finish();
        if (rc != 0) throw tool_error(r.ivfp + ": cannot be opened: " + first_line_of(text));
        if (!rep.quiet()) std::fputs(text.c_str(), stderr);
    }
}

}  // namespace

namespace {

std::vector<float> read_queries(const std::string& path) {
    const vector_file file(path);
    std::vector<float> queries(file.rows() * kDim);
    file.read_rows(0, file.rows(), queries.data());
    return queries;
}

std::vector<std::vector<hit>> answer_all(system_object& sys, const search_params& params,
                                         const std::vector<float>& queries, const reporter& rep) {
    searcher s(sys.get(), params);
    std::vector<std::vector<hit>> answers(queries.size() / kDim);
    progress_bar bar(rep, "querying", answers.size(), "queries");
    for (size_t q = 0; q < answers.size(); ++q) {
        answers[q] = s.run(queries.data() + q * kDim);
        bar.update(q + 1);
    }
    return answers;
}

int query_files(const parsed_args& args, const reporter& rep) {
    query_request req = check_options(args, rep);
    sidecar_live_rows live;
    const sidecar_report sidecar = check_sidecar(req.sidecar, req.params.rerank, rep, &live);
    const uint64_t rows = sidecar.live_rows;
    choose_index_sizes(args, rows, req);
    if (!req.ivfp.empty()) check_paged_index(args, live, req);
    const std::vector<float> queries = read_queries(req.queries);
    system_object sys(rows);
    prepare_object(sys, req, rows, rep);
    print_results(req.format, req.params, answer_all(sys, req.params, queries, rep));
    return 0;
}

// The index a sealed shard is searched with on the chosen path. A shard that is not sealed
// takes rows and is always searched by brute force, as the package does.
void choose_shard_index(const parsed_args& args, const shard_entry& shard, uint32_t seed,
                        uint64_t rows, const sidecar_live_rows& live, query_request& r) {
    if (!shard.sealed || r.params.path == search_path::brute) {
        r.params.path = search_path::brute;
        return;
    }
    if (r.params.path == search_path::ivf) {
        // The IVF the package builds at every open: the seal's nlist with the directory's seed.
        // Another one would answer other rows than the package under the same name. A shard
        // sealed without an IVF (as orve build writes them) gets one trained now.
        r.seed = seed;
        r.nlist = shard.nlist;
        if (shard.nlist && args.has("--nlist") &&
            args.get_uint("--nlist", 0, 1, rows) != shard.nlist) {
            throw usage_error(shard.name + " was sealed with an IVF of nlist " +
                              std::to_string(shard.nlist) + "; --nlist must match or be left out");
        }
        if (!shard.nlist) {
            r.seed = static_cast<uint32_t>(args.get_uint("--seed", seed, 0, UINT32_MAX));
            r.nlist = static_cast<uint32_t>(args.get_uint("--nlist", default_nlist(rows), 1, rows));
        }
        // Shards may differ in nlist, so --nprobe is bounded per shard by the library only.
        r.params.nprobe = static_cast<uint32_t>(
            args.get_uint("--nprobe", default_nprobe(r.nlist), 1, UINT32_MAX));
        return;
    }
    // A sealed shard's H-IVF is its paged file (the package too answers hivf from it), so
    // nothing is trained and both paths read the same leaves.
    r.ivfp = r.sidecar.substr(0, r.sidecar.rfind('/')) + "/index.ivfp";
    check_input_file(r.ivfp);
    const ivfp_report layout = verify_paged_index(r.ivfp, r.sidecar, live);
    r.params.path = search_path::paged;
    r.params.nprobe_l1 = static_cast<uint32_t>(
        args.get_uint("--nprobe-l1", default_nprobe_level(layout.b1), 1, ORVE_IVF_PAGED_MAX_B));
    r.params.nprobe_l2 = static_cast<uint32_t>(
        args.get_uint("--nprobe-l2", default_nprobe_level(layout.b2), 1, ORVE_IVF_PAGED_MAX_B));
}

// One shard's best rows for every query, as node ids. Deleted rows are asked for on top of k
// and dropped, so a brute-force answer stays exact. Shards are searched one after another and
// each object is freed before the next is made, so memory holds one shard's index at a time.
void query_shard(const parsed_args& args, const std::string& dir, const shard_entry& shard,
                 uint32_t seed, const query_request& base, const std::vector<float>& queries,
                 const reporter& rep, std::vector<std::vector<hit>>& merged) {
    query_request r = base;
    const std::string shard_dir = dir + "/" + shard.name;
    r.sidecar = shard_dir + "/rows.vec";
    check_input_file(r.sidecar);
    // A shard named before its first row was added (a writer's tail) holds nothing yet.
    if (sidecar_whole_rows(r.sidecar) == 0) return;
    sidecar_live_rows live;
    const sidecar_report sidecar = check_sidecar(r.sidecar, r.params.rerank, rep, &live);
    const std::vector<uint32_t> ids = read_shard_ids(shard_dir);
    if (sidecar.max_id > ids.size()) {
        throw tool_error(shard_dir + ": row key " + std::to_string(sidecar.max_id) + " but only " +
                         std::to_string(ids.size()) + " node ids");
    }
    const std::set<uint32_t> dead = read_tombstones(shard_dir);
    choose_shard_index(args, shard, seed, sidecar.live_rows, live, r);
    r.params.k = static_cast<uint32_t>(
        std::min<uint64_t>(sidecar.live_rows, uint64_t{base.params.k} + dead.size()));
    system_object sys(sidecar.live_rows);
    prepare_object(sys, r, sidecar.live_rows, rep);
    const auto answers = answer_all(sys, r.params, queries, rep);
    for (size_t q = 0; q < answers.size(); ++q) {
        for (const hit& h : answers[q]) {
            if (!dead.count(h.node_id)) merged[q].push_back({ids[h.node_id - 1], h.similarity});
        }
    }
}

// Every shard of a sharded directory, one after another, merged as one scan over all rows
// would rank them: similarity descending, ties to the lower node id.
int query_sharded(const parsed_args& args, const reporter& rep) {
    if (args.has("--sidecar") || args.has("--ivfp")) {
        throw usage_error(
            "--dir searches the shards' own files; --sidecar and --ivfp do not apply");
    }
    query_request req;
    req.queries = args.get("--queries");
    req.format = parse_format(args.get_or("--format", "table"));
    req.params.k = static_cast<uint32_t>(args.get_uint("-k", 10, 1, 100000));
    req.params.path = parse_search_path(args.get_or("--path", "paged"));
    if (args.has("--b1") || args.has("--b2")) {
        throw usage_error(
            "--dir searches each sealed shard's own H-IVF; --b1 and --b2 do not apply");
    }
    req.params.rerank = args.has("--rerank");
    req.params.rerank_factor = static_cast<uint32_t>(args.get_uint("--rerank-factor", 0, 1, 1000));
    check_input_file(req.queries);
    const std::string dir = args.get("--dir");
    if (!is_sharded_directory(dir))
        throw tool_error(dir + ": not a sharded directory (no manifest)");
    const sharded_manifest m = read_manifest(dir);
    const std::vector<float> queries = read_queries(req.queries);
    std::vector<std::vector<hit>> merged(queries.size() / kDim);
    for (const shard_entry& shard : m.shards)
        query_shard(args, dir, shard, m.seed, req, queries, rep, merged);
    for (std::vector<hit>& hits : merged) {
        std::sort(hits.begin(), hits.end(), [](const hit& a, const hit& b) {
            return a.similarity != b.similarity ? a.similarity > b.similarity
                                                : a.node_id < b.node_id;
        });
        if (hits.size() > req.params.k) hits.resize(req.params.k);
    }
    print_results(req.format, req.params, merged);
    return 0;
}

}  // namespace

int run_query(const parsed_args& args) {
    const reporter rep(args.has("--quiet"));
    return args.has("--dir") ? query_sharded(args, rep) : query_files(args, rep);
}

const command_def& tune_def() {
    static const command_def def{
        "tune",
        "--sidecar FILE [--ivfp FILE] --queries FILE [--path ivf|hivf|paged] [-k K] "
        "[--target-recall R] [--nlist K] [--b1 B --b2 B] [--seed S]",
        "find the cheapest probe setting that reaches a recall",
        "Restarts from the sidecar as query does, computes the exact k nearest rows of every\n"
        "query (brute force re-ranked by float cosine from the sidecar), then tries probe\n"
        "settings from the cheapest up (nprobe 1, 2, 4, ..., nlist; for hivf/paged nprobe-l1 x\n"
        "nprobe-l2 by their product) and stops at the first whose recall@k reaches the target.\n"
        "Prints recall and queries/s of every setting tried and the options to pass to query.",
        with_training_options(
            {
                {"--sidecar", "FILE", "sidecar written by orve build or by a host"},
                {"--ivfp", "FILE", "paged index to tune (implies --path paged)"},
                {"--queries", "FILE", "sample queries: .npy float32/float64 (n, 512) or .fvecs"},
                {"-k", "K", "results per query the recall is measured at (default 10)"},
                {"--path", "PATH", "ivf, hivf or paged (default: paged with --ivfp, else ivf)"},
                {"--target-recall", "R", "recall to reach, 0.01 to 1 (default 0.95)"},
            },
            {
                {"--quiet", "", "no progress or warnings on standard error"},
                {"--help", "", "show this help"},
            })};
    return def;
}

namespace {

double parse_target(const std::string& text) {
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(v >= 0.01 && v <= 1.0)) {
        throw usage_error("--target-recall expects a number from 0.01 to 1, got '" + text + "'");
    }
    return v;
}

// 1, 2, 4, ... below n, then n: the probe counts tried per level.
std::vector<uint32_t> probe_ladder(uint32_t n) {
    std::vector<uint32_t> out;
    for (uint32_t p = 1; p < n; p *= 2) out.push_back(p);
    out.push_back(n);
    return out;
}

std::vector<search_params> tune_settings(const search_params& base, uint32_t a, uint32_t b) {
    std::vector<search_params> out;
    if (base.path == search_path::ivf) {
        for (uint32_t p : probe_ladder(a)) {
            out.push_back(base);
            out.back().nprobe = p;
        }
        return out;
    }
    for (uint32_t l1 : probe_ladder(a)) {
        for (uint32_t l2 : probe_ladder(b)) {
            out.push_back(base);
            out.back().nprobe_l1 = l1;
            out.back().nprobe_l2 = l2;
        }
    }
    std::stable_sort(out.begin(), out.end(), [](const search_params& x, const search_params& y) {
        return uint64_t{x.nprobe_l1} * x.nprobe_l2 < uint64_t{y.nprobe_l1} * y.nprobe_l2;
    });
    return out;
}

std::vector<std::vector<hit>> run_all(system_object& sys, const search_params& params,
                                      const std::vector<float>& queries) {
    searcher s(sys.get(), params);
    std::vector<std::vector<hit>> out(queries.size() / kDim);
    for (size_t q = 0; q < out.size(); ++q) out[q] = s.run(queries.data() + q * kDim);
    return out;
}

double recall_of(const std::vector<std::vector<hit>>& found,
                 const std::vector<std::vector<hit>>& truth) {
    size_t hits = 0, total = 0;
    for (size_t q = 0; q < truth.size(); ++q) {
        total += truth[q].size();
        for (const hit& t : truth[q]) {
            for (const hit& f : found[q]) hits += f.node_id == t.node_id ? 1 : 0;
        }
    }
    return total ? static_cast<double>(hits) / static_cast<double>(total) : 1.0;
}

std::string setting_text(const search_params& p) {
    if (p.path == search_path::ivf) return "--nprobe " + std::to_string(p.nprobe);
    return "--nprobe-l1 " + std::to_string(p.nprobe_l1) + " --nprobe-l2 " +
           std::to_string(p.nprobe_l2);
}

}  // namespace

int run_tune(const parsed_args& args) {
    const reporter rep(args.has("--quiet"));
    query_request req = check_options(args, rep);
    // check_options' own default is brute, which has no probes to tune.
    if (!args.has("--path") && !args.has("--ivfp")) req.params.path = search_path::ivf;
    if (req.params.path == search_path::brute) throw usage_error("--path brute has no probes");
    const double target = parse_target(args.get_or("--target-recall", "0.95"));
    sidecar_live_rows live;
    const sidecar_report sidecar = check_sidecar(req.sidecar, false, rep, &live);
    const uint64_t rows = sidecar.live_rows;
    choose_index_sizes(args, rows, req);
    uint32_t side_a = req.params.path == search_path::ivf ? req.nlist : req.b1;
    uint32_t side_b = req.b2;
    if (!req.ivfp.empty()) {
        check_paged_index(args, live, req);
        const ivfp_report layout = read_ivfp_report(req.ivfp);
        side_a = layout.b1;
        side_b = layout.b2;
    }
    const vector_file query_file(req.queries);
    std::vector<float> queries(query_file.rows() * kDim);
    query_file.read_rows(0, query_file.rows(), queries.data());
    system_object sys(rows);
    prepare_object(sys, req, rows, rep);
    // The exact reference re-ranks from the sidecar, except when dead rows would shift the
    // row numbering re-ranking reads by: then the int8 scan is the best reference there is.
    search_params exact = req.params;
    exact.path = search_path::brute;
    exact.rerank = sidecar.dead_rows == 0;
    if (!exact.rerank) rep.warn(req.sidecar + ": dead rows; measuring against the int8 scan");
    const auto truth = run_all(sys, exact, queries);
    std::printf("%-32s  %8s  %10s\n", "setting", "recall", "queries/s");
    search_params chosen = req.params;
    for (const search_params& p : tune_settings(req.params, side_a, side_b)) {
        const auto t0 = std::chrono::steady_clock::now();
        const auto found = run_all(sys, p, queries);
        const double secs =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        const double r = recall_of(found, truth);
        std::printf("%-32s  %8.4f  %10.0f\n", setting_text(p).c_str(), r,
                    static_cast<double>(found.size()) / std::max(secs, 1e-9));
        chosen = p;
        if (r >= target) break;
    }
    std::printf("chosen for --path %s: %s\n", path_name(chosen.path), setting_text(chosen).c_str());
    return 0;
}

}  // namespace orve::tool
