// orve build: vectors from a file into a sidecar and a paged index, the two files a host needs
// to start serving searches without the original vectors.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
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
    while (side < ORVE_IVF_PAGED_MAX_B && uint64_t{side} * side < leaves) ++side;
    return side;
}

}  // namespace

const command_def& build_def() {
    static const command_def def{
        "build",
        "--vectors FILE --sidecar FILE --ivfp FILE [--ids FILE] [--nlist K] [--b1 B --b2 B] "
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
             ".npy of uint32 '<u4', shape (n,): nonzero, distinct node ids (default 1..n)"},
            {"--nlist", "K",
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

int run_build(const parsed_args& args) {
    const reporter rep(args.has("--quiet"));
    if (!args.positionals().empty()) {
        throw usage_error("unexpected argument '" + args.positionals()[0] + "'");
    }
    const std::string vectors_path = args.get("--vectors");
    const std::string sidecar_path = args.get("--sidecar");
    const std::string ivfp_path = args.get("--ivfp");
    const uint64_t seed = args.get_uint("--seed", 1, 0, UINT32_MAX);
    if (sidecar_path == ivfp_path) throw usage_error("--sidecar and --ivfp name the same file");

    struct stat st {};
    if (!args.has("--force") && ::stat(sidecar_path.c_str(), &st) == 0 && st.st_size > 0) {
        throw tool_error(sidecar_path + ": exists and is not empty (use --force to replace it)");
    }

    const vector_file vectors(vectors_path);
    const uint64_t rows = vectors.rows();
    if (rows < kMinRows) {
        throw tool_error(vectors_path + ": " + std::to_string(rows) +
                         " vectors; building an index needs at least 1000");
    }
    if (rows > kMaxRows) {
        throw tool_error(vectors_path + ": " + std::to_string(rows) +
                         " vectors; the library holds at most 1100000");
    }
    std::optional<std::vector<uint32_t>> ids;
    if (args.has("--ids")) ids = read_ids(args.get("--ids"), rows);

    uint32_t b1 = default_branching(rows);
    if (args.has("--nlist")) {
        b1 = side_for_leaves(args.get_uint("--nlist", 0, 1, rows));
        while (b1 > 1 && uint64_t{b1} * b1 > rows) --b1;
    }
    b1 = static_cast<uint32_t>(args.get_uint("--b1", b1, 1, ORVE_IVF_PAGED_MAX_B));
    const uint32_t b2 = static_cast<uint32_t>(args.get_uint("--b2", b1, 1, ORVE_IVF_PAGED_MAX_B));
    if (uint64_t{b1} * b2 > rows) {
        throw usage_error("--b1 x --b2 (" + std::to_string(uint64_t{b1} * b2) +
                          ") exceeds the number of vectors (" + std::to_string(rows) + ")");
    }

    pending_file sidecar_out(sidecar_path);
    pending_file ivfp_out(ivfp_path);
    system_object sys(rows);
    if (semantic_vector_indexing_system_open_sidecar(sys.get(), sidecar_out.temp_path().c_str()) !=
        0) {
        throw tool_error(sidecar_out.temp_path() + ": cannot create the sidecar");
    }

    std::vector<float> chunk(uint64_t{kChunk} * kDim);
    {
        progress_bar bar(rep, "ingesting", rows, "vectors");
        for (uint64_t done = 0; done < rows;) {
            const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(kChunk, rows - done));
            vectors.read_rows(done, n, chunk.data());
            if (ids) {
                for (uint32_t i = 0; i < n; ++i) {
                    if (semantic_vector_indexing_system_add_embedding_orve512(
                            sys.get(), (*ids)[done + i], chunk.data() + uint64_t{i} * kDim) != 0) {
                        throw tool_error(vectors_path + ": the library refused vector " +
                                         std::to_string(done + i));
                    }
                }
            } else {
                const int committed =
                    semantic_vector_indexing_system_load_vectors_f32(sys.get(), chunk.data(), n);
                if (committed != static_cast<int>(n)) {
                    throw tool_error(vectors_path + ": the library refused vector " +
                                     std::to_string(done + std::max(committed, 0)));
                }
            }
            done += n;
            bar.update(done);
        }
    }

    step_timer train(
        rep, "training H-IVF (b1=" + std::to_string(b1) + ", b2=" + std::to_string(b2) + ")");
    if (semantic_vector_indexing_system_build_ivf_level2(sys.get(), b1, b2,
                                                         static_cast<uint32_t>(seed)) != 0) {
        throw tool_error(vectors_path + ": training the H-IVF failed");
    }
    train.done();

    step_timer write(rep, "writing paged index");
    library_output log;
    const int rc =
        semantic_vector_indexing_system_build_ivf_paged(sys.get(), ivfp_out.temp_path().c_str());
    const std::string log_text = log.finish();
    if (rc != 0) {
        std::string reason = log_text.substr(0, log_text.find('\n'));
        throw tool_error(ivfp_path + ": writing the paged index failed" +
                         (reason.empty() ? "" : ": " + reason));
    }
    write.done();
    if (!rep.quiet()) std::fputs(log_text.c_str(), stderr);

    // Destroying the object flushes and closes the sidecar before it is moved into place.
    sys.destroy();
    ivfp_out.commit();
    sidecar_out.commit();

    struct stat ivfp_st {
    }, sidecar_st{};
    ::stat(ivfp_path.c_str(), &ivfp_st);
    ::stat(sidecar_path.c_str(), &sidecar_st);
    std::printf("built %llu vectors: %s (%.1f MB), %s (%.1f MB, b1=%u, b2=%u)\n",
                static_cast<unsigned long long>(rows), sidecar_path.c_str(),
                static_cast<double>(sidecar_st.st_size) / 1e6, ivfp_path.c_str(),
                static_cast<double>(ivfp_st.st_size) / 1e6, b1, b2);
    return 0;
}

}  // namespace orve::tool
