// orve build: vectors from a file into a sidecar and a paged index, the two files a host needs
// to start serving searches without the original vectors.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "commands.h"
#include "file_checks.h"
#include "ingest.h"
#include "library.h"
#include "outputs.h"
#include "progress.h"
#include "sharded_dir.h"
#include "tool_error.h"
#include "vector_file.h"

namespace orve::tool {

namespace {

// One side of an H-IVF with about `leaves` leaves in all.
uint32_t side_for_leaves(uint64_t leaves) {
    uint32_t side = 1;
    while (side < kPagedMaxBranching && uint64_t{side} * side < leaves) ++side;
    return side;
}

}  // namespace

const command_def& build_def() {
    static const command_def def{
        "build",
        "--vectors FILE (--sidecar FILE --ivfp FILE | --shard-rows N --dir DIR) [--ids FILE]\n"
        "                 [--leaves K] [--b1 B --b2 B] [--seed S] [--force]",
        "ingest vectors from a file, write a sidecar and a paged index",
        "Reads 512-dimension float32 vectors, ingests them into a new object with a new sidecar\n"
        "file attached (the sidecar then holds the exact vectors and their node ids), trains the\n"
        "two-level H-IVF and writes it as a paged .ivfp file. Both files are written under\n"
        "temporary names and renamed into place only when everything succeeded.\n"
        "At least 1000 vectors are needed to train the index.\n"
        "With --shard-rows the vectors are split into shards of at most N rows in a new\n"
        "directory (manifest.json and one subdirectory per shard, the layout orve.ShardedIndex\n"
        "opens); a last shard under 1000 rows gets no index and is searched exactly.",
        {
            {"--vectors", "FILE",
             ".npy of float32 '<f4', shape (n, 512), C order; or .fvecs (int32 dimension 512,\n"
             "then 512 float32, per vector)"},
            {"--sidecar", "FILE", "sidecar file to create"},
            {"--ivfp", "FILE", "paged index file to write (replaced if present)"},
            {"--shard-rows", "N", "rows per shard, 1000 to 1100000: write a sharded directory"},
            {"--dir", "DIR", "sharded directory to create (new or empty; with --shard-rows)"},
            {"--ids", "FILE",
             ".npy of any integer dtype, shape (n,): distinct node ids from 1 to 2^32-1\n"
             "(default 1..n)"},
            {"--leaves", "K",
             "total leaves wanted: b1 = b2 = ceil(sqrt(K)), at most 64 each (ignored when\n"
             "--b1/--b2 are given)"},
            {"--b1", "B", "level-1 buckets, 1 to 64 (default about 2 x n^(1/4))"},
            {"--b2", "B", "leaves per level-1 bucket, 1 to 64 (default as --b1)"},
            {"--seed", "S", "training seed (default 1)"},
            {"--force", "", "replace an existing non-empty sidecar"},
            {"--quiet", "", "no progress or warnings on standard error"},
            {"--help", "", "show this help"},
        }};
    return def;
}

namespace {

struct build_request {
    std::string vectors;
    std::string ids;  // empty: 1..n
    std::string sidecar;
    std::string ivfp;
    std::string dir;          // with --shard-rows: the sharded directory
    uint64_t shard_rows = 0;  // 0: one sidecar and one paged index
    uint32_t seed = 1;
};

// A sharded build writes into a directory that is new or empty: shards already there would be
// mixed with the new ones.
void check_shard_directory(const std::string& dir) {
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0) {
        if (errno == ENOENT) return;
        throw tool_error(dir + ": cannot stat: " + errno_text(errno));
    }
    if (!S_ISDIR(st.st_mode)) {
        throw tool_error(dir + ": exists and is not a directory");
    }
    std::unique_ptr<DIR, int (*)(DIR*)> d(::opendir(dir.c_str()), &::closedir);
    while (const dirent* e = d ? ::readdir(d.get()) : nullptr) {
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) {
            throw tool_error(dir + ": exists and is not empty");
        }
    }
}

// Everything that can be checked without reading the vectors: option values, and the kinds and
// identities of the paths. The --force test comes last, after the sidecar is known to be a
// regular file.
build_request check_request(const parsed_args& args) {
    if (!args.positionals().empty()) {
        throw usage_error("unexpected argument '" + args.positionals()[0] + "'");
    }
    build_request r;
    r.vectors = args.get("--vectors");
    r.ids = args.get_or("--ids", "");
    r.seed = static_cast<uint32_t>(args.get_uint("--seed", 1, 0, UINT32_MAX));
    args.get_uint("--leaves", 0, 1, UINT32_MAX);
    paged_branching_arg(args, "--b1", 1);
    paged_branching_arg(args, "--b2", 1);
    std::vector<std::string> inputs{r.vectors};
    if (!r.ids.empty()) inputs.push_back(r.ids);
    if (args.has("--shard-rows")) {
        if (args.has("--sidecar") || args.has("--ivfp")) {
            throw usage_error("--shard-rows writes --dir; --sidecar and --ivfp do not apply");
        }
        r.shard_rows = args.get_uint("--shard-rows", 0, ORVE_MIN_INDEX_ROWS, ORVE_MAX_CAPACITY);
        r.dir = args.get("--dir");
        for (const std::string& in : inputs) check_input_file(in);
        check_shard_directory(r.dir);
        return r;
    }
    r.sidecar = args.get("--sidecar");
    r.ivfp = args.get("--ivfp");
    check_paths({r.sidecar, r.ivfp}, inputs);
    struct stat st {};
    if (!args.has("--force") && ::stat(r.sidecar.c_str(), &st) == 0 && st.st_size > 0) {
        throw tool_error(r.sidecar + ": exists and is not empty (use --force to replace it)");
    }
    return r;
}

// b1 and b2 from the options or the row count; usage errors for shapes the rows cannot fill.
std::pair<uint32_t, uint32_t> choose_branching(const parsed_args& args, uint64_t rows) {
    uint32_t b1 = default_branching(rows);
    if (args.has("--leaves")) {
        b1 = side_for_leaves(args.get_uint("--leaves", 0, 1, rows));
        while (b1 > 1 && uint64_t{b1} * b1 > rows) --b1;
    }
    b1 = paged_branching_arg(args, "--b1", b1);
    const uint32_t b2 = paged_branching_arg(args, "--b2", b1);
    if (uint64_t{b1} * b2 > rows) {
        throw usage_error("--b1 x --b2 (" + std::to_string(uint64_t{b1} * b2) +
                          ") exceeds the number of vectors (" + std::to_string(rows) + ")");
    }
    return {b1, b2};
}

// Rows [first, first + count) of the file into a new object with the sidecar at sidecar_out's
// temporary name, its H-IVF (when b1 > 0) written at ivfp_out's, both published together. ids:
// one per row, or null for 1..count.
void build_files(const vector_file& vectors, uint64_t first, uint64_t count, const uint32_t* ids,
                 pending_file& sidecar_out, pending_file* ivfp_out, uint32_t b1, uint32_t b2,
                 uint32_t seed, const reporter& rep) {
    system_object sys(count);
    if (semantic_vector_indexing_system_open_sidecar(sys.get(), sidecar_out.temp_path().c_str()) !=
        0) {
        throw tool_error(sidecar_out.temp_path() + ": cannot create the sidecar");
    }
    ingest_plan plan;
    plan.rows = count;
    plan.ids = ids;
    plan.fill = [&](uint64_t done, uint32_t n, float* out) {
        vectors.read_rows(first + done, n, out);
    };
    plan.refused = [&](uint64_t done, int committed) {
        return vectors.path() + ": the library refused vector " +
               std::to_string(first + done + std::max(committed, 0));
    };
    plan.sidecar_file = sidecar_out.temp_path();
    plan.sidecar_name = sidecar_out.final_path();
    plan.unit = "vectors";
    ingest_rows(sys, plan, rep);
    if (ivfp_out) {
        step_timer train(
            rep, "training H-IVF (b1=" + std::to_string(b1) + ", b2=" + std::to_string(b2) + ")");
        if (semantic_vector_indexing_system_build_ivf_level2(sys.get(), b1, b2, seed) != 0) {
            throw tool_error(vectors.path() + ": training the H-IVF failed");
        }
        train.done();
        step_timer write(rep, "writing paged index");
        write_paged_index(sys.get(), ivfp_out->temp_path(), ivfp_out->final_path(), rep);
        write.done();
    }
    // Destroying the object flushes and closes the sidecar before it is moved into place.
    sys.destroy();
    // Both files flushed to disk, checked, then renamed into place and the renames flushed:
    // nothing reaches a final name unless all of it is on disk.
    check_sidecar_kept_up(sidecar_out.temp_path(), sidecar_out.final_path(), count, 0);
    sync_path(sidecar_out.temp_path(), sidecar_out.final_path());
    if (ivfp_out) {
        sync_path(ivfp_out->temp_path(), ivfp_out->final_path());
        ivfp_out->commit();
    }
    sidecar_out.commit();
    if (ivfp_out) sync_path(directory_of(ivfp_out->final_path()), ivfp_out->final_path());
    sync_path(directory_of(sidecar_out.final_path()), sidecar_out.final_path());
}

uint64_t size_of(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

void write_ids_file(const std::string& path, const uint32_t* ids, uint64_t n) {
    std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(path.c_str(), "wb"), &std::fclose);
    std::vector<uint8_t> bytes(n * 4);
    for (uint64_t i = 0; i < n; ++i) {
        for (int b = 0; b < 4; ++b) bytes[4 * i + b] = static_cast<uint8_t>(ids[i] >> (8 * b));
    }
    if (!f || std::fwrite(bytes.data(), 1, bytes.size(), f.get()) != bytes.size() ||
        std::fflush(f.get()) != 0) {
        throw tool_error(path + ": cannot write: " + errno_text(errno));
    }
    sync_path(path, path);
}

// One shard: its node ids first (a reader maps every row key through them), then the sidecar
// of row keys 1..count and, when the shard has rows enough to train one, its paged index.
shard_entry build_shard(const parsed_args& args, const build_request& req,
                        const vector_file& vectors, uint64_t first, uint64_t count,
                        const uint32_t* ids, uint64_t number, const reporter& rep) {
    char name[32];
    std::snprintf(name, sizeof name, "shard-%06llu", static_cast<unsigned long long>(number));
    const std::string dir = req.dir + "/" + name;
    if (::mkdir(dir.c_str(), 0755) != 0) {
        throw tool_error(dir + ": cannot create directory: " + errno_text(errno));
    }
    write_ids_file(dir + "/ids.u32", ids, count);
    shard_entry entry{name, count >= ORVE_MIN_INDEX_ROWS, 0, 0};
    // A last shard too small for the shape asked for takes the one its size gives, as a seal
    // in the Python package does.
    if (entry.sealed) {
        std::tie(entry.b1, entry.b2) = choose_branching(args, std::max(count, req.shard_rows));
        if (uint64_t{entry.b1} * entry.b2 > count) entry.b1 = entry.b2 = default_branching(count);
    }
    pending_file sidecar_out(dir + "/rows.vec");
    pending_file ivfp_out(dir + "/index.ivfp");
    build_files(vectors, first, count, nullptr, sidecar_out, entry.sealed ? &ivfp_out : nullptr,
                entry.b1, entry.b2, req.seed, rep);
    return entry;
}

// After a failed build: the shard directories made so far (numbers below `next`, the one that
// failed included) and, when this run made it, the directory itself, so a second run starts
// from an empty directory. Unfinished files were removed as their pending_file went away.
void remove_shards(const std::string& dir, uint64_t next, bool made_dir) {
    for (uint64_t number = 1; number <= next; ++number) {
        char name[32];
        std::snprintf(name, sizeof name, "/shard-%06llu", static_cast<unsigned long long>(number));
        for (const char* f : {"/rows.vec", "/ids.u32", "/index.ivfp"}) {
            ::unlink((dir + name + f).c_str());
        }
        ::rmdir((dir + name).c_str());
    }
    ::unlink((dir + "/" + kManifestName + ".tmp").c_str());
    if (made_dir) ::rmdir(dir.c_str());
}

int build_sharded(const parsed_args& args, const build_request& req, const reporter& rep) {
    const vector_file vectors(req.vectors);
    const uint64_t rows = vectors.rows();
    if (rows == 0) throw tool_error(req.vectors + ": holds no vectors");
    std::vector<uint32_t> ids;
    if (!req.ids.empty()) {
        ids = read_ids(req.ids, rows);
    } else {
        if (rows > UINT32_MAX) throw tool_error(req.vectors + ": more vectors than node ids");
        ids.resize(rows);
        for (uint64_t i = 0; i < rows; ++i) ids[i] = static_cast<uint32_t>(i + 1);
    }
    sharded_manifest m;
    m.shard_rows = req.shard_rows;
    if (args.has("--b1") || args.has("--b2")) {
        std::tie(m.hivf_b1, m.hivf_b2) = choose_branching(args, req.shard_rows);
    }
    m.seed = req.seed;
    const bool made_dir = ::mkdir(req.dir.c_str(), 0755) == 0;
    if (!made_dir && errno != EEXIST) {
        throw tool_error(req.dir + ": cannot create directory: " + errno_text(errno));
    }
    try {
        for (uint64_t first = 0; first < rows; first += req.shard_rows) {
            const uint64_t count = std::min(req.shard_rows, rows - first);
            m.shards.push_back(build_shard(args, req, vectors, first, count, ids.data() + first,
                                           m.next_shard, rep));
            ++m.next_shard;
        }
        // Named last: until the manifest exists the directory is not an index to any reader.
        write_manifest(req.dir, m);
    } catch (...) {
        remove_shards(req.dir, m.next_shard, made_dir);
        throw;
    }
    uint64_t bytes = 0;
    for (const shard_entry& s : m.shards) {
        for (const char* f : {"/rows.vec", "/ids.u32", "/index.ivfp"}) {
            bytes += size_of(req.dir + "/" + s.name + f);
        }
    }
    std::printf("built %llu vectors in %zu shards: %s (%s)\n",
                static_cast<unsigned long long>(rows), m.shards.size(), req.dir.c_str(),
                mib_text(bytes).c_str());
    return 0;
}

int build_single(const parsed_args& args, const build_request& req, const reporter& rep) {
    pending_file sidecar_out(req.sidecar);
    pending_file ivfp_out(req.ivfp);
    if (const int stale = sidecar_out.stale_removed() + ivfp_out.stale_removed()) {
        rep.warn("removed " + std::to_string(stale) + " temporary files left by killed runs");
    }
    const vector_file vectors(req.vectors);
    const uint64_t rows = vectors.rows();
    if (rows < ORVE_MIN_INDEX_ROWS) {
        throw tool_error(req.vectors + ": " + std::to_string(rows) +
                         " vectors; building an index needs at least " +
                         std::to_string(ORVE_MIN_INDEX_ROWS));
    }
    if (rows > ORVE_MAX_CAPACITY) {
        throw tool_error(req.vectors + ": " + std::to_string(rows) +
                         " vectors; the library holds at most " +
                         std::to_string(ORVE_MAX_CAPACITY));
    }
    std::optional<std::vector<uint32_t>> ids;
    if (!req.ids.empty()) ids = read_ids(req.ids, rows);
    const auto [b1, b2] = choose_branching(args, rows);
    build_files(vectors, 0, rows, ids ? ids->data() : nullptr, sidecar_out, &ivfp_out, b1, b2,
                req.seed, rep);
    std::printf("built %llu vectors: %s (%s), %s (%s, b1=%u, b2=%u)\n",
                static_cast<unsigned long long>(rows), req.sidecar.c_str(),
                mib_text(size_of(req.sidecar)).c_str(), req.ivfp.c_str(),
                mib_text(size_of(req.ivfp)).c_str(), b1, b2);
    return 0;
}

}  // namespace

int run_build(const parsed_args& args) {
    const reporter rep(args.has("--quiet"));
    const build_request req = check_request(args);
    return req.shard_rows ? build_sharded(args, req, rep) : build_single(args, req, rep);
}

}  // namespace orve::tool
