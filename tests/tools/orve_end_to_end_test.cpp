// The orve program as a user runs it: build from a generated .npy, query in CSV, and compare
// every answer with the library called directly on the same vectors. Also the promises about
// bad input: one line naming the file, a non-zero exit, no file left behind.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "semantic_vector_indexing.h"
#include "tool_test_files.h"

namespace {

using namespace orve_tool_test;

struct run_result {
    int exit_code = -1;
    std::string out;
    std::string err;
};

// Runs the tool with stdout and stderr captured through files; `shell_setup` runs first in the
// same shell (resource limits, ignored signals), and `out_to` replaces the stdout capture.
run_result run_orve(const scratch_dir& dir, const std::string& args,
                    const std::string& shell_setup = "", const std::string& out_to = "") {
    const char* tool = std::getenv("ORVE_TOOL");
    run_result r;
    if (!tool) {
        ADD_FAILURE() << "ORVE_TOOL is not set; run this test through ctest";
        return r;
    }
    // A cross-built tool needs the emulator the tests themselves run under.
    const char* launcher = std::getenv("ORVE_TOOL_LAUNCHER");
    const std::string out = out_to.empty() ? dir.file("stdout.txt") : out_to;
    const std::string err = dir.file("stderr.txt");
    const std::string cmd = shell_setup + std::string(launcher ? launcher : "") + " '" + tool +
                            "' " + args + " >'" + out + "' 2>'" + err + "'";
    const int status = std::system(cmd.c_str());
    r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    // A redirection target such as /dev/full is not read back: it reads as endless zeros.
    const bytes o = out_to.empty() ? read_file(out) : bytes{}, e = read_file(err);
    r.out.assign(o.begin(), o.end());
    r.err.assign(e.begin(), e.end());
    return r;
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

// Rows around a few random centres, so neighbours are well defined and different queries
// have different answers.
std::vector<float> mixture(size_t rows, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> g;
    std::vector<float> centres(8 * 512);
    for (float& c : centres) c = g(rng);
    std::vector<float> v(rows * 512);
    for (size_t r = 0; r < rows; ++r) {
        const size_t c = rng() % 8;
        for (size_t j = 0; j < 512; ++j) v[r * 512 + j] = centres[c * 512 + j] + 0.8f * g(rng);
    }
    return v;
}

struct answer {
    uint32_t query, rank, node_id;
    float similarity;
    bool operator==(const answer&) const = default;
};

std::vector<answer> parse_csv(const std::string& text) {
    std::vector<answer> out;
    std::istringstream in(text);
    std::string line;
    std::getline(in, line);
    EXPECT_EQ(line, "query,rank,node_id,similarity");
    while (std::getline(in, line)) {
        answer a{};
        char sim[64] = {0};
        EXPECT_EQ(std::sscanf(line.c_str(), "%u,%u,%u,%63s", &a.query, &a.rank, &a.node_id, sim), 4)
            << line;
        a.similarity = std::strtof(sim, nullptr);
        out.push_back(a);
    }
    return out;
}

// The library used directly, without the tool: a fresh object holding the same vectors.
class direct_library {
  public:
    direct_library(const std::vector<float>& v, size_t rows, const std::vector<uint32_t>& ids)
        : block_(semantic_vector_indexing_system_sizeof(), 0) {
        setenv("ORVE_VECTOR_CAPACITY", std::to_string(rows).c_str(), 1);
        EXPECT_EQ(semantic_vector_indexing_system_create(sys()), 0);
        for (size_t r = 0; r < rows; ++r) {
            EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys(), ids[r],
                                                                            v.data() + r * 512),
                      0);
        }
    }
    ~direct_library() { semantic_vector_indexing_system_destroy(sys()); }
    semantic_vector_indexing_system* sys() {
        return reinterpret_cast<semantic_vector_indexing_system*>(block_.data());
    }

    // The k best of each query as the tool should print them, in CSV order.
    std::vector<answer> search(const std::vector<float>& queries, size_t n, uint32_t k,
                               uint32_t l1 = 0, uint32_t l2 = 0) {
        std::vector<answer> out;
        std::vector<vector_similarity_result> res(k);
        for (size_t q = 0; q < n; ++q) {
            vector_similarity_query query;
            std::memset(&query, 0, sizeof query);
            query.use_orve512 = 1;
            query.query_vector = queries.data() + q * 512;
            query.max_results = k;
            query.min_similarity = -std::numeric_limits<float>::infinity();
            if (l1) {
                query.use_hivf = 1;
                query.n_probe_l1 = l1;
                query.n_probe_l2 = l2;
            }
            uint32_t count = 0;
            EXPECT_EQ(
                semantic_vector_indexing_system_search_similar(sys(), &query, res.data(), &count),
                0);
            for (uint32_t i = 0; i < count; ++i) {
                out.push_back({static_cast<uint32_t>(q), i + 1, res[i].node_id, res[i].similarity});
            }
        }
        return out;
    }

  private:
    std::vector<unsigned char> block_;
};

void expect_same_answers(const std::vector<answer>& tool, const std::vector<answer>& lib) {
    ASSERT_EQ(tool.size(), lib.size());
    for (size_t i = 0; i < tool.size(); ++i) EXPECT_TRUE(tool[i] == lib[i]) << "line " << i;
}

constexpr size_t kRows = 1500;
constexpr size_t kQueries = 9;

// Host ids from an .fvecs build survive into the answers of every path.
TEST(OrveEndToEnd, BuildThenQueryMatchesTheLibraryCalledDirectly) {
    scratch_dir dir;
    const std::vector<float> v = mixture(kRows, 1);
    const std::vector<float> q = mixture(kQueries, 2);
    std::vector<uint32_t> ids(kRows);
    for (size_t r = 0; r < kRows; ++r) ids[r] = static_cast<uint32_t>(7000000 + 13 * r);
    write_file(dir.file("v.fvecs"), fvecs(v, kRows));
    write_file(dir.file("ids.npy"), npy_u32(ids));
    write_file(dir.file("q.npy"), npy_f32(q, kQueries));

    run_result b = run_orve(dir, "build --quiet --vectors " + dir.file("v.fvecs") + " --ids " +
                                     dir.file("ids.npy") + " --sidecar " + dir.file("s.sc") +
                                     " --ivfp " + dir.file("i.ivfp") + " --b1 4 --b2 5");
    ASSERT_EQ(b.exit_code, 0) << b.err;
    EXPECT_EQ(b.err, "");  // --quiet

    direct_library lib(v, kRows, ids);
    const std::string sidecar_and_queries =
        " --sidecar " + dir.file("s.sc") + " --queries " + dir.file("q.npy");
    run_result brute = run_orve(dir, "query --quiet" + sidecar_and_queries + " -k 6 --format csv");
    ASSERT_EQ(brute.exit_code, 0) << brute.err;
    const std::vector<answer> tool_brute = parse_csv(brute.out);
    EXPECT_EQ(tool_brute.size(), kQueries * 6);
    expect_same_answers(tool_brute, lib.search(q, kQueries, 6));
    // Answers that never reached standard output are a failure, not a success.
    run_result full =
        run_orve(dir, "query --quiet" + sidecar_and_queries + " -k 6", "", "/dev/full");
    EXPECT_EQ(full.exit_code, 1);
    EXPECT_EQ(full.err, "orve: standard output: No space left on device\n");

    // The paged path: the library given the tool's .ivfp file answers the same.
    ASSERT_EQ(semantic_vector_indexing_system_open_ivf_paged(lib.sys(), dir.file("i.ivfp").c_str()),
              0);
    const std::string with_paged = sidecar_and_queries + " --ivfp " + dir.file("i.ivfp");
    run_result paged = run_orve(
        dir, "query --quiet" + with_paged + " -k 4 --nprobe-l1 2 --nprobe-l2 3 --format csv");
    ASSERT_EQ(paged.exit_code, 0) << paged.err;
    expect_same_answers(parse_csv(paged.out), lib.search(q, kQueries, 4, 2, 3));

    // tune: the setting it chooses reaches the target against exact float neighbours
    // computed here, and the library searched with that setting answers as tune measured.
    run_result tune = run_orve(dir, "tune --quiet" + with_paged + " --target-recall 0.9");
    ASSERT_EQ(tune.exit_code, 0) << tune.err;
    unsigned l1 = 0, l2 = 0;
    const size_t at = tune.out.find("chosen for --path paged: ");
    ASSERT_NE(at, std::string::npos) << tune.out;
    ASSERT_EQ(std::sscanf(tune.out.c_str() + at,
                          "chosen for --path paged: --nprobe-l1 %u --nprobe-l2 %u", &l1, &l2),
              2)
        << tune.out;
    const std::vector<answer> tuned = lib.search(q, kQueries, 10, l1, l2);
    size_t found = 0;
    for (size_t qi = 0; qi < kQueries; ++qi) {
        std::vector<std::pair<double, uint32_t>> exact;
        for (size_t r = 0; r < kRows; ++r) {
            double dot = 0, nq = 0, nr = 0;
            for (size_t j = 0; j < 512; ++j) {
                dot += double(q[qi * 512 + j]) * v[r * 512 + j];
                nq += double(q[qi * 512 + j]) * q[qi * 512 + j];
                nr += double(v[r * 512 + j]) * v[r * 512 + j];
            }
            exact.push_back({-dot / std::sqrt(nq * nr), ids[r]});
        }
        std::partial_sort(exact.begin(), exact.begin() + 10, exact.end());
        for (const answer& a : tuned) {
            for (size_t i = 0; i < 10; ++i) {
                found += a.query == qi && a.node_id == exact[i].second ? 1 : 0;
            }
        }
    }
    EXPECT_GE(double(found) / (10.0 * kQueries), 0.9) << tune.out;
}

TEST(OrveEndToEnd, AFailedWriteGetsOneLineAndLeavesNoFiles) {
    scratch_dir dir;
    write_file(dir.file("v.npy"), npy_f32(mixture(kRows, 5), kRows));
    // A write that fails during the build (a file size limit stands in for a full disk): one
    // line naming the sidecar and the cause, and neither output nor a temporary survives.
    const run_result r = run_orve(dir,
                                  "build --quiet --vectors " + dir.file("v.npy") + " --sidecar " +
                                      dir.file("s.sc") + " --ivfp " + dir.file("i.ivfp"),
                                  "ulimit -f 1024; trap '' XFSZ; ");
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err.rfind("orve: " + dir.file("s.sc") + ": writing the sidecar failed after ", 0),
              0u)
        << r.err;
    EXPECT_NE(r.err.find(" of 1500 rows: File too large\n"), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    const std::string listing_cmd = "ls -A '" + dir.path() + "' > '" + dir.file("ls.txt") + "'";
    ASSERT_EQ(std::system(listing_cmd.c_str()), 0);
    const bytes listing = read_file(dir.file("ls.txt"));
    EXPECT_EQ(std::string(listing.begin(), listing.end()),
              "ls.txt\nstderr.txt\nstdout.txt\nv.npy\n");
}

TEST(OrveEndToEnd, RefusesToOverwriteASidecarWithoutForce) {
    scratch_dir dir;
    const std::vector<float> v = mixture(kRows, 7);
    write_file(dir.file("v.npy"), npy_f32(v, kRows));
    const bytes precious = {'k', 'e', 'e', 'p'};
    write_file(dir.file("s.sc"), precious);
    const std::string cmd = "build --quiet --vectors " + dir.file("v.npy") + " --sidecar " +
                            dir.file("s.sc") + " --ivfp " + dir.file("i.ivfp");
    run_result r = run_orve(dir, cmd);
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err, "orve: " + dir.file("s.sc") +
                         ": exists and is not empty (use --force to replace it)\n");
    EXPECT_EQ(read_file(dir.file("s.sc")), precious);
    EXPECT_FALSE(exists(dir.file("i.ivfp")));

    r = run_orve(dir, cmd + " --force");
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(read_file(dir.file("s.sc")).size(), 32 + kRows * 2056);
}

}  // namespace

// Paths of the wrong kind, paths that name one file, and out-of-range options are refused
// before any work: the vectors file here has the wrong dtype, so reaching it would print a
// different message. Devices, FIFOs and inputs are left exactly as they were.
TEST(OrveEndToEnd, PathsOfTheWrongKindAndBadOptionsAreRefusedFirst) {
    scratch_dir dir;
    bytes f2 = npy_preamble(npy_dict("<f2", "(1500, 512)"));
    f2.resize(f2.size() + kRows * 512 * 2);
    write_file(dir.file("v2.npy"), f2);
    write_file(dir.file("s.sc"), {});
    ASSERT_EQ(::symlink("/dev/null", dir.file("null").c_str()), 0);
    ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0644), 0);
    ASSERT_EQ(::mkdir(dir.file("sub").c_str(), 0755), 0);
    ASSERT_EQ(::link(dir.file("s.sc").c_str(), dir.file("hard.ivfp").c_str()), 0);
    const std::string d = dir.path() + "/";
    const std::string v = " --vectors " + d + "v2.npy";
    struct refusal {
        std::string args;
        int exit_code;
        std::string message;
    };
    const refusal cases[] = {
        {"build" + v + " --force --sidecar " + d + "null --ivfp " + d + "i.ivfp", 1,
         d + "null: is a character device; an output must be a regular file or not exist yet"},
        {"build" + v + " --sidecar " + d + "fifo --ivfp " + d + "i.ivfp", 1,
         d + "fifo: is a FIFO; an output must be"},
        {"build" + v + " --sidecar " + d + "n.sc --ivfp " + d + "sub", 1,
         d + "sub: is a directory; an output must be"},
        {"build" + v + " --sidecar " + d + "n.sc --ivfp " + d + "sub/../n.sc", 2,
         d + "n.sc and " + d + "sub/../n.sc are the same file"},
        {"build" + v + " --sidecar " + d + "s.sc --ivfp " + d + "hard.ivfp", 2,
         d + "s.sc and " + d + "hard.ivfp are the same file"},
        {"build" + v + " --sidecar " + d + "n.sc --ivfp " + d + "v2.npy", 2,
         "output " + d + "v2.npy is the input " + d + "v2.npy"},
        {"build" + v + " --sidecar " + d + "n.sc --ivfp " + d + "i.ivfp --b2 65", 2,
         "--b2 65: the paged index supports at most 64 buckets per level"},
        {"build --vectors " + d + "fifo --sidecar " + d + "n.sc --ivfp " + d + "i.ivfp", 1,
         d + "fifo: is a FIFO, not a regular file"},
        {"inspect " + d + "fifo", 1, d + "fifo: is a FIFO, not a regular file"},
        {"query --sidecar " + d + "fifo --queries " + d + "v2.npy", 1,
         d + "fifo: is a FIFO, not a regular file"},
        {"query --sidecar " + d + "s.sc --queries " + d + "fifo", 1,
         d + "fifo: is a FIFO, not a regular file"},
        {"query --sidecar " + d + "s.sc --queries " + d + "v2.npy --ivfp " + d + "sub", 1,
         d + "sub: is a directory, not a regular file"},
        {"query --sidecar " + d + "s.sc --queries " + d + "v2.npy -k 0", 2,
         "-k expects a whole number from 1 to 100000, got '0'"},
        {"build" + v + " --sidecar " + d + "n.sc --ivfp " + d + "no/dir/i.ivfp", 1,
         d + "no/dir/i.ivfp: cannot write in"},
        {"query --sidecar " + d + "v2.npy --queries " + d + "v2.npy", 1,
         d + "v2.npy: not a sidecar file (bad magic)"},
        {"query --dir " + d + "sub --queries " + d + "v2.npy", 1,
         d + "sub: not a sharded directory (no manifest)"},
        {"build" + v + " --shard-rows 999 --dir " + d + "sharded", 2,
         "--shard-rows expects a whole number from 1000 to 1100000"},
    };
    for (const refusal& c : cases) {
        const run_result r = run_orve(dir, c.args);
        EXPECT_EQ(r.exit_code, c.exit_code) << c.args << "\n" << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.args << "\n" << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
    struct stat st {};
    ASSERT_EQ(::stat(dir.file("null").c_str(), &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    ASSERT_EQ(::stat(dir.file("fifo").c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_EQ(read_file(dir.file("v2.npy")), f2);
    EXPECT_FALSE(exists(dir.file("n.sc")));
    EXPECT_FALSE(exists(dir.file("i.ivfp")));
}

// Temporaries are named after the output and the process; a killed build's are removed by the
// next build, and nothing else is: not a live process's, not another output's.
TEST(OrveEndToEnd, TheNextBuildRemovesTemporariesOfKilledBuilds) {
    scratch_dir dir;
    write_file(dir.file("v.npy"), npy_f32(mixture(kRows, 8), kRows));
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    ASSERT_GT(child, 0);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    const std::string dead = std::to_string(child), live = std::to_string(::getpid());
    const std::vector<std::string> stale = {"s.sc.partial-" + dead, "i.ivfp.partial-" + dead,
                                            "i.ivfp.partial-" + dead + ".tmp"};
    const std::vector<std::string> kept = {"s.sc.partial-" + live, "s.sc.partial-" + dead + "x",
                                           "other.partial-" + dead};
    for (const std::string& f : stale) write_file(dir.file(f), {1, 2, 3});
    for (const std::string& f : kept) write_file(dir.file(f), {1, 2, 3});
    const run_result r = run_orve(dir, "build --vectors " + dir.file("v.npy") + " --sidecar " +
                                           dir.file("s.sc") + " --ivfp " + dir.file("i.ivfp"));
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_NE(r.err.find("removed 3 temporary files left by killed runs"), std::string::npos)
        << r.err;
    for (const std::string& f : stale) EXPECT_FALSE(exists(dir.file(f))) << f;
    for (const std::string& f : kept) EXPECT_TRUE(exists(dir.file(f))) << f;
}

// A paged index answers only for the sidecar it was built with: one from another data set of
// the same size (same ids 1..n), of another size, or with other ids is refused by name.
TEST(OrveEndToEnd, QueryRefusesAPagedIndexBuiltFromOtherRows) {
    scratch_dir dir;
    std::vector<uint32_t> ids(kRows);
    for (size_t r = 0; r < kRows; ++r) ids[r] = static_cast<uint32_t>(r + 2);
    write_file(dir.file("a.npy"), npy_f32(mixture(kRows, 9), kRows));
    write_file(dir.file("b.npy"), npy_f32(mixture(kRows, 10), kRows));
    write_file(dir.file("c.npy"), npy_f32(mixture(kRows + 1, 11), kRows + 1));
    write_file(dir.file("ids.npy"), npy_u32(ids));
    write_file(dir.file("q.npy"), npy_f32(mixture(2, 12), 2));
    const struct {
        std::string name, vectors, extra;
    } builds[] = {{"a", "a", ""},
                  {"b", "b", ""},
                  {"c", "c", ""},
                  {"aids", "a", " --ids " + dir.file("ids.npy")}};
    for (const auto& b : builds) {
        const run_result r =
            run_orve(dir, "build --quiet --vectors " + dir.file(b.vectors + ".npy") + b.extra +
                              " --sidecar " + dir.file(b.name + ".sc") + " --ivfp " +
                              dir.file(b.name + ".ivfp"));
        ASSERT_EQ(r.exit_code, 0) << r.err;
    }
    const struct {
        const char* ivfp;
        std::string problem;
    } cases[] = {
        {"b", "holds another vector than the sidecar's"},
        {"c", "it holds 1501 rows, the sidecar 1500"},
        {"aids", "the sidecar's row has id"},
    };
    for (const auto& c : cases) {
        const std::string ivfp = dir.file(std::string(c.ivfp) + ".ivfp");
        const run_result r =
            run_orve(dir, "query --quiet --sidecar " + dir.file("a.sc") + " --ivfp " + ivfp +
                              " --queries " + dir.file("q.npy"));
        EXPECT_EQ(r.exit_code, 1) << c.ivfp;
        EXPECT_EQ(
            r.err.rfind("orve: " + ivfp + ": does not belong to " + dir.file("a.sc") + ": ", 0), 0u)
            << r.err;
        EXPECT_NE(r.err.find(c.problem), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_EQ(r.out, "");
    }
    const run_result own =
        run_orve(dir, "query --quiet --sidecar " + dir.file("a.sc") + " --ivfp " +
                          dir.file("a.ivfp") + " --queries " + dir.file("q.npy"));
    EXPECT_EQ(own.exit_code, 0) << own.err;
}
