// orve build: vectors from a file into a sidecar and a paged index, the two files a host needs
// to start serving searches without the original vectors.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "file_checks.h"
#include "library.h"
#include "outputs.h"
#include "progress.h"
#include "tool_error.h"
#include "vector_file.h"

namespace orve::tool {

namespace {

constexpr uint32_t kChunk = 4096;
constexpr uint64_t kMinRows = 1000;  // the library's smallest trainable index
constexpr uint64_t kMaxRows = 1100000;

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
        "--vectors FILE --sidecar FILE --ivfp FILE [--ids FILE] [--leaves K] [--b1 B --b2 B] "
        "[--seed S] [--force]",
        "ingest vectors from a file, write a sidecar and a paged index",
        "Reads 512-dimension float32 vectors, ingests them into a new object with a new sidecar\n"
        "file attached (the sidecar then holds the exact vectors and their node ids), trains the\n"
        "two-level H-IVF and writes it as a paged .ivfp file. Both files are written under\n"
        "temporary names and renamed into place only when everything succeeded.\n"
        "At least 1000 vectors are needed to train the index.",
        {
            {"--vectors", "FILE",
             ".npy of float32 '<f4', shape (n, 512), C order; or .fvecs (int32 dimension 512,\n"
             "then 512 float32, per vector)"},
            {"--sidecar", "FILE", "sidecar file to create"},
            {"--ivfp", "FILE", "paged index file to write (replaced if present)"},
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
    uint32_t seed = 1;
};

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
    r.sidecar = args.get("--sidecar");
    r.ivfp = args.get("--ivfp");
    r.seed = static_cast<uint32_t>(args.get_uint("--seed", 1, 0, UINT32_MAX));
    args.get_uint("--leaves", 0, 1, UINT32_MAX);
    paged_branching_arg(args, "--b1", 1);
    paged_branching_arg(args, "--b2", 1);
    std::vector<std::string> inputs{r.vectors};
    if (!r.ids.empty()) inputs.push_back(r.ids);
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

// One chunk into the object; errno is sampled right after the call so that a failed append's
// cause can be named.
int ingest_chunk(semantic_vector_indexing_system* sys, const float* rows, uint32_t n,
                 const uint32_t* ids, int* err) {
    errno = 0;
    int committed = 0;
    if (!ids) {
        committed = semantic_vector_indexing_system_load_vectors_f32(sys, rows, n);
    } else {
        while (committed < static_cast<int>(n) &&
               semantic_vector_indexing_system_add_embedding_orve512(
                   sys, ids[committed], rows + uint64_t(committed) * kDim) == 0) {
            ++committed;
        }
    }
    *err = errno;
    return committed;
}

// Every row into the object, checking after each chunk that the sidecar received them all: the
// library keeps a row whose append failed and says nothing.
void ingest_all(system_object& sys, const vector_file& vectors,
                const std::optional<std::vector<uint32_t>>& ids, const pending_file& sidecar,
                const reporter& rep) {
    const uint64_t rows = vectors.rows();
    std::vector<float> chunk(uint64_t{kChunk} * kDim);
    progress_bar bar(rep, "ingesting", rows, "vectors");
    for (uint64_t done = 0; done < rows;) {
        const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(kChunk, rows - done));
        vectors.read_rows(done, n, chunk.data());
        int err = 0;
        const int committed =
            ingest_chunk(sys.get(), chunk.data(), n, ids ? ids->data() + done : nullptr, &err);
        if (committed != static_cast<int>(n)) {
            throw tool_error(vectors.path() + ": the library refused vector " +
                             std::to_string(done + std::max(committed, 0)));
        }
        done += n;
        check_sidecar_kept_up(sidecar.temp_path(), sidecar.final_path(), done, err);
        bar.update(done);
    }
}

// Both files flushed to disk, checked, then renamed into place and the renames flushed: nothing
// reaches a final name unless all of it is on disk.
void publish(pending_file& sidecar, pending_file& ivfp, uint64_t rows) {
    check_sidecar_kept_up(sidecar.temp_path(), sidecar.final_path(), rows, 0);
    sync_path(sidecar.temp_path(), sidecar.final_path());
    sync_path(ivfp.temp_path(), ivfp.final_path());
    ivfp.commit();
    sidecar.commit();
    sync_path(directory_of(ivfp.final_path()), ivfp.final_path());
    sync_path(directory_of(sidecar.final_path()), sidecar.final_path());
}

}  // namespace

int run_build(const parsed_args& args) {
    const reporter rep(args.has("--quiet"));
    const build_request req = check_request(args);
    pending_file sidecar_out(req.sidecar);
    pending_file ivfp_out(req.ivfp);
    if (const int stale = sidecar_out.stale_removed() + ivfp_out.stale_removed()) {
        rep.warn("removed " + std::to_string(stale) + " temporary files left by killed runs");
    }

    const vector_file vectors(req.vectors);
    const uint64_t rows = vectors.rows();
    if (rows < kMinRows) {
        throw tool_error(req.vectors + ": " + std::to_string(rows) +
                         " vectors; building an index needs at least 1000");
    }
    if (rows > kMaxRows) {
        throw tool_error(req.vectors + ": " + std::to_string(rows) +
                         " vectors; the library holds at most 1100000");
    }
    std::optional<std::vector<uint32_t>> ids;
    if (!req.ids.empty()) ids = read_ids(req.ids, rows);
    const auto [b1, b2] = choose_branching(args, rows);

    system_object sys(rows);
    if (semantic_vector_indexing_system_open_sidecar(sys.get(), sidecar_out.temp_path().c_str()) !=
        0) {
        throw tool_error(sidecar_out.temp_path() + ": cannot create the sidecar");
    }
    ingest_all(sys, vectors, ids, sidecar_out, rep);

    step_timer train(
        rep, "training H-IVF (b1=" + std::to_string(b1) + ", b2=" + std::to_string(b2) + ")");
    if (semantic_vector_indexing_system_build_ivf_level2(sys.get(), b1, b2, req.seed) != 0) {
        throw tool_error(req.vectors + ": training the H-IVF failed");
    }
    train.done();

    step_timer write(rep, "writing paged index");
    write_paged_index(sys.get(), ivfp_out.temp_path(), req.ivfp, rep);
    write.done();

    // Destroying the object flushes and closes the sidecar before it is moved into place.
    sys.destroy();
    publish(sidecar_out, ivfp_out, rows);

    struct stat ivfp_st {
    }, sidecar_st{};
    ::stat(req.ivfp.c_str(), &ivfp_st);
    ::stat(req.sidecar.c_str(), &sidecar_st);
    std::printf("built %llu vectors: %s (%s), %s (%s, b1=%u, b2=%u)\n",
                static_cast<unsigned long long>(rows), req.sidecar.c_str(),
                mib_text(static_cast<uint64_t>(sidecar_st.st_size)).c_str(), req.ivfp.c_str(),
                mib_text(static_cast<uint64_t>(ivfp_st.st_size)).c_str(), b1, b2);
    return 0;
}

}  // namespace orve::tool
