// The orve program as a user runs it, every answer compared with the library called directly on
// the same vectors; bad input gets one line naming the file, a non-zero exit, no file left behind.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <sstream>

#include "semantic_vector_indexing.h"
#include "support/test_math.h"
#include "tool_test_files.h"

namespace {

using namespace orve_tool_test;

struct run_result {
    int exit_code = -1;
    std::string out, err;
};

// Runs the tool inside `dir` (paths are relative to it) with stdout and stderr captured through
// files; `shell_setup` runs first in the same shell, and `out_to` replaces the stdout capture.
run_result run_orve(const scratch_dir& dir, const std::string& args,
                    const std::string& shell_setup = "", const std::string& out_to = "") {
    const char* tool = std::getenv("ORVE_TOOL");
    const char* launcher = std::getenv("ORVE_TOOL_LAUNCHER");  // a cross-built tool's emulator
    run_result r;
    if (!tool) {
        ADD_FAILURE() << "ORVE_TOOL is not set; run this test through ctest";
        return r;
    }
    const std::string out = out_to.empty() ? dir.file("stdout.txt") : out_to;
    const std::string cmd = "cd '" + dir.path() + "' && " + shell_setup +
                            (launcher ? launcher : "") + " '" + tool + "' " + args + " >'" + out +
                            "' 2>'" + dir.file("stderr.txt") + "'";
    const int status = std::system(cmd.c_str());
    r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    // A redirection target such as /dev/full is not read back: it reads as endless zeros.
    const bytes o = out_to.empty() ? read_file(out) : bytes{},
                e = read_file(dir.file("stderr.txt"));
    r.out.assign(o.begin(), o.end());
    r.err.assign(e.begin(), e.end());
    return r;
}

size_t lines(const std::string& s) {
    return std::count(s.begin(), s.end(), '\n');
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
        answer a{};  // %f converts as strtof does
        EXPECT_EQ(
            std::sscanf(line.c_str(), "%u,%u,%u,%f", &a.query, &a.rank, &a.node_id, &a.similarity),
            4);
        out.push_back(a);
    }
    return out;
}

// The library used directly, without the tool: a fresh object holding the same vectors.
class direct_library {
  public:
    direct_library(const std::vector<float>& v, size_t rows, const std::vector<uint32_t>& ids)
        : block_(std::to_string(rows).c_str()) {
        for (size_t r = 0; r < rows; ++r)
            EXPECT_EQ(
                semantic_vector_indexing_system_add_embedding_orve512(sys(), ids[r], &v[r * 512]),
                0);
    }
    semantic_vector_indexing_system* sys() { return block_.get(); }

    // The k best of each query as the tool should print them, in CSV order.
    std::vector<answer> search(const std::vector<float>& queries, size_t n, uint32_t k,
                               uint32_t l1 = 0, uint32_t l2 = 0) {
        std::vector<answer> out;
        for (size_t q = 0; q < n; ++q) {
            auto query = orve_test::int8_query(&queries[q * 512], k);
            query.min_similarity = -std::numeric_limits<float>::infinity();
            query.use_hivf = l1 ? 1 : 0, query.n_probe_l1 = l1, query.n_probe_l2 = l2;
            for (const auto& r : orve_test::search(sys(), query))
                out.push_back({uint32_t(q), r.rank, r.node_id, r.similarity});
        }
        return out;
    }

  private:
    orve_test::system_block block_;
};

constexpr size_t kRows = 1500;
constexpr size_t kQueries = 9;

// Host ids from an .fvecs build survive into the answers of every path.
TEST(OrveEndToEnd, BuildThenQueryMatchesTheLibraryCalledDirectly) {
    scratch_dir dir;
    const std::vector<float> v = mixture(kRows, 1), q = mixture(kQueries, 2);
    std::vector<uint32_t> ids(kRows);
    for (size_t r = 0; r < kRows; ++r) ids[r] = static_cast<uint32_t>(7000000 + 13 * r);
    write_file(dir.file("v.fvecs"), fvecs(v, kRows));
    write_file(dir.file("ids.npy"), npy_u32(ids));
    write_file(dir.file("q.npy"), npy_f32(q, kQueries));
    const run_result b =
        run_orve(dir,
                 "build --quiet --vectors v.fvecs --ids ids.npy --sidecar s.sc --ivfp i.ivfp "
                 "--b1 4 --b2 5");
    ASSERT_EQ(b.exit_code, 0) << b.err;
    EXPECT_EQ(b.err, "");  // --quiet

    direct_library lib(v, kRows, ids);
    const std::string files = " --sidecar s.sc --queries q.npy";
    const run_result brute = run_orve(dir, "query --quiet" + files + " -k 6 --format csv");
    ASSERT_EQ(brute.exit_code, 0) << brute.err;
    EXPECT_EQ(parse_csv(brute.out), lib.search(q, kQueries, 6));
    EXPECT_EQ(lib.search(q, kQueries, 6).size(), kQueries * 6);
    // Answers that never reached standard output are a failure, not a success.
    const run_result full = run_orve(dir, "query --quiet" + files + " -k 6", "", "/dev/full");
    EXPECT_EQ(full.exit_code, 1);
    EXPECT_EQ(full.err, "orve: standard output: No space left on device\n");

    // The paged path: the library given the tool's .ivfp file answers the same.
    ASSERT_EQ(semantic_vector_indexing_system_open_ivf_paged(lib.sys(), dir.file("i.ivfp").c_str()),
              0);
    const std::string paged_files = files + " --ivfp i.ivfp";
    const run_result paged = run_orve(
        dir, "query --quiet" + paged_files + " -k 4 --nprobe-l1 2 --nprobe-l2 3 --format csv");
    ASSERT_EQ(paged.exit_code, 0) << paged.err;
    EXPECT_EQ(parse_csv(paged.out), lib.search(q, kQueries, 4, 2, 3));

    // tune: the library searched at the chosen setting reaches the target on exact neighbours.
    const run_result tune = run_orve(dir, "tune --quiet" + paged_files + " --target-recall 0.9");
    ASSERT_EQ(tune.exit_code, 0) << tune.err;
    unsigned l1 = 0, l2 = 0;
    const size_t at = tune.out.find("chosen for --path paged: ");
    ASSERT_NE(at, std::string::npos) << tune.out;
    ASSERT_EQ(std::sscanf(&tune.out[at], "chosen for --path paged: --nprobe-l1 %u --nprobe-l2 %u",
                          &l1, &l2),
              2);
    const std::vector<answer> tuned = lib.search(q, kQueries, 10, l1, l2);
    size_t found = 0;
    for (size_t qi = 0; qi < kQueries; ++qi) {
        std::vector<std::pair<double, uint32_t>> exact;
        for (size_t r = 0; r < kRows; ++r)
            exact.push_back({-test_math::cosine512(&q[qi * 512], &v[r * 512]), ids[r]});
        std::partial_sort(exact.begin(), exact.begin() + 10, exact.end());
        for (const answer& a : tuned)
            for (size_t i = 0; i < 10; ++i) found += a.query == qi && a.node_id == exact[i].second;
    }
    EXPECT_GE(double(found) / (10.0 * kQueries), 0.9) << tune.out;
}

TEST(OrveEndToEnd, AFailedWriteGetsOneLineAndLeavesNoFiles) {
    scratch_dir dir;
    write_file(dir.file("v.npy"), npy_f32(mixture(kRows, 5), kRows));
    // A write failing mid-build (a file size limit for a full disk): one line naming the sidecar
    // and the cause; neither output nor a temporary survives.
    const run_result r = run_orve(dir, "build --quiet --vectors v.npy --sidecar s.sc --ivfp i.ivfp",
                                  "ulimit -f 1024; trap '' XFSZ; ");
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err.rfind("orve: s.sc: writing the sidecar failed after ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(" of 1500 rows: File too large\n"), std::string::npos) << r.err;
    EXPECT_EQ(lines(r.err), 1u) << r.err;
    ASSERT_EQ(std::system(("ls -A '" + dir.path() + "' > '" + dir.file("ls.txt") + "'").c_str()),
              0);
    const bytes listing = read_file(dir.file("ls.txt"));
    EXPECT_EQ(std::string(listing.begin(), listing.end()),
              "ls.txt\nstderr.txt\nstdout.txt\nv.npy\n");
}

// Existing outputs, paths of the wrong kind or naming one file, and bad options are refused before
// any work (reaching the <f2 vectors would print another message); nothing is changed.
TEST(OrveEndToEnd, PathsOfTheWrongKindAndBadOptionsAreRefusedFirst) {
    scratch_dir dir;
    bytes f2 = npy_preamble(npy_dict("<f2", "(1500, 512)"));
    f2.resize(f2.size() + kRows * 512 * 2);
    write_file(dir.file("v2.npy"), f2);
    const bytes precious = {'k', 'e', 'e', 'p'};
    write_file(dir.file("s.sc"), precious);
    ASSERT_EQ(::symlink("/dev/null", dir.file("null").c_str()), 0);
    ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0644), 0);
    ASSERT_EQ(::mkdir(dir.file("sub").c_str(), 0755), 0);
    ASSERT_EQ(::link(dir.file("s.sc").c_str(), dir.file("hard.ivfp").c_str()), 0);
    const std::string v = "build --vectors v2.npy", b = v + " --sidecar n.sc --ivfp ",
                      q = "query --sidecar s.sc --queries v2.npy";
    const struct {
        std::string args;
        int exit_code;
        std::string message;
    } cases[] = {
        {v + " --sidecar s.sc --ivfp i.ivfp", 1,
         "s.sc: exists and is not empty (use --force to replace it)"},
        {v + " --force --sidecar null --ivfp i.ivfp", 1,
         "null: is a character device; an output must be a regular file or not exist yet"},
        {b + "sub", 1, "sub: is a directory; an output must be"},
        {b + "sub/../n.sc", 2, "n.sc and sub/../n.sc are the same file"},
        {v + " --force --sidecar s.sc --ivfp hard.ivfp", 2, "s.sc and hard.ivfp are the same file"},
        {b + "v2.npy", 2, "output v2.npy is the input v2.npy"},
        {b + "i.ivfp --b2 65", 2, "--b2 65: the paged index supports at most 64 buckets per level"},
        {"build --vectors fifo --sidecar n.sc --ivfp i.ivfp", 1, "fifo: is a FIFO, not a regular"},
        {"inspect fifo", 1, "fifo: is a FIFO, not a regular file"},
        {"query --sidecar s.sc --queries fifo", 1, "fifo: is a FIFO, not a regular file"},
        {q + " --ivfp sub", 1, "sub: is a directory, not a regular file"},
        {q + " -k 0", 2, "-k expects a whole number from 1 to 100000, got '0'"},
        {b + "no/dir/i.ivfp", 1, "no/dir/i.ivfp: cannot write in"},
        {"query --sidecar v2.npy --queries v2.npy", 1, "v2.npy: not a sidecar file (bad magic)"},
        {"query --dir sub --queries v2.npy", 1, "sub: not a sharded directory (no manifest)"},
        {v + " --shard-rows 999 --dir sharded", 2, "--shard-rows expects a whole number from 1000"},
    };
    for (const auto& c : cases) {
        const run_result r = run_orve(dir, c.args);
        EXPECT_EQ(r.exit_code, c.exit_code) << c.args << "\n" << r.err;
        EXPECT_NE(r.err.find(": " + c.message), std::string::npos) << c.args << "\n" << r.err;
        EXPECT_EQ(lines(r.err), 1u) << r.err;
    }
    struct stat st {};
    EXPECT_TRUE(::stat(dir.file("null").c_str(), &st) == 0 && S_ISCHR(st.st_mode));
    EXPECT_TRUE(::stat(dir.file("fifo").c_str(), &st) == 0 && S_ISFIFO(st.st_mode));
    EXPECT_EQ(read_file(dir.file("v2.npy")), f2);
    EXPECT_EQ(read_file(dir.file("s.sc")), precious);
    EXPECT_FALSE(file_exists(dir.file("n.sc")) || file_exists(dir.file("i.ivfp")));
}

// The next build removes a killed build's temporaries (named after output and process), not a
// live process's or another output's; --force replaces a non-empty sidecar.
TEST(OrveEndToEnd, TheNextBuildRemovesTemporariesOfKilledBuilds) {
    scratch_dir dir;
    write_file(dir.file("v.npy"), npy_f32(mixture(kRows, 8), kRows));
    write_file(dir.file("s.sc"), {'k', 'e', 'e', 'p'});
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
    const run_result r =
        run_orve(dir, "build --force --vectors v.npy --sidecar s.sc --ivfp i.ivfp");
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_NE(r.err.find("removed 3 temporary files left by killed runs"), std::string::npos)
        << r.err;
    for (const std::string& f : stale) EXPECT_FALSE(file_exists(dir.file(f))) << f;
    for (const std::string& f : kept) EXPECT_TRUE(file_exists(dir.file(f))) << f;
    EXPECT_EQ(read_file(dir.file("s.sc")).size(), 32 + kRows * 2056);
}

// A paged index of other rows (same size and ids 1..n, another size, other ids) is refused.
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
        std::string name, vectors, extra, problem;
    } cases[] = {{"a", "a", "", ""},
                 {"b", "b", "", "holds another vector than the sidecar's"},
                 {"c", "c", "", "it holds 1501 rows, the sidecar 1500"},
                 {"aids", "a", " --ids ids.npy", "the sidecar's row has id"}};
    for (const auto& c : cases) {
        const std::string ivfp = c.name + ".ivfp";
        const run_result b =
            run_orve(dir, "build --quiet --vectors " + c.vectors + ".npy" + c.extra +
                              " --sidecar " + c.name + ".sc --ivfp " + ivfp);
        ASSERT_EQ(b.exit_code, 0) << b.err;
        const run_result r =
            run_orve(dir, "query --quiet --sidecar a.sc --ivfp " + ivfp + " --queries q.npy");
        if (c.problem.empty()) {  // its own index
            EXPECT_EQ(r.exit_code, 0) << r.err;
            continue;
        }
        EXPECT_EQ(r.exit_code, 1) << c.name;
        EXPECT_EQ(r.err.rfind("orve: " + ivfp + ": does not belong to a.sc: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(c.problem), std::string::npos) << r.err;
        EXPECT_EQ(lines(r.err), 1u) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

}  // namespace
