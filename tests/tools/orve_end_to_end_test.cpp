// The orve program as a user runs it: build from a generated .npy, query in CSV, and compare
// every answer with the library called directly on the same vectors. Also the promises about
// bad input: one line naming the file, a non-zero exit, no file left behind.
#include <sys/stat.h>
#include <sys/wait.h>

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

// Runs the tool with stdout and stderr captured through files.
run_result run_orve(const scratch_dir& dir, const std::string& args) {
    const char* tool = std::getenv("ORVE_TOOL");
    run_result r;
    if (!tool) {
        ADD_FAILURE() << "ORVE_TOOL is not set; run this test through ctest";
        return r;
    }
    // A cross-built tool needs the emulator the tests themselves run under.
    const char* launcher = std::getenv("ORVE_TOOL_LAUNCHER");
    const std::string out = dir.file("stdout.txt"), err = dir.file("stderr.txt");
    const std::string cmd = std::string(launcher ? launcher : "") + " '" + tool + "' " + args +
                            " >'" + out + "' 2>'" + err + "'";
    const int status = std::system(cmd.c_str());
    r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    const bytes o = read_file(out), e = read_file(err);
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
        if (ids.empty()) {
            EXPECT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys(), v.data(),
                                                                       static_cast<uint32_t>(rows)),
                      static_cast<int>(rows));
        } else {
            for (size_t r = 0; r < rows; ++r) {
                EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys(), ids[r],
                                                                                v.data() + r * 512),
                          0);
            }
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
    for (size_t i = 0; i < tool.size(); ++i) {
        EXPECT_EQ(tool[i].query, lib[i].query) << "line " << i;
        EXPECT_EQ(tool[i].rank, lib[i].rank) << "line " << i;
        EXPECT_EQ(tool[i].node_id, lib[i].node_id) << "line " << i;
        EXPECT_EQ(tool[i].similarity, lib[i].similarity) << "line " << i;
    }
}

constexpr size_t kRows = 1500;
constexpr size_t kQueries = 9;

TEST(OrveEndToEnd, BuildThenQueryMatchesTheLibraryCalledDirectly) {
    scratch_dir dir;
    const std::vector<float> v = mixture(kRows, 1);
    const std::vector<float> q = mixture(kQueries, 2);
    write_file(dir.file("v.npy"), npy_f32(v, kRows));
    write_file(dir.file("q.npy"), npy_f32(q, kQueries));

    run_result b =
        run_orve(dir, "build --quiet --vectors " + dir.file("v.npy") + " --sidecar " +
                          dir.file("s.sc") + " --ivfp " + dir.file("i.ivfp") + " --b1 4 --b2 5");
    ASSERT_EQ(b.exit_code, 0) << b.err;
    EXPECT_TRUE(exists(dir.file("s.sc")));
    EXPECT_TRUE(exists(dir.file("i.ivfp")));
    EXPECT_EQ(b.err, "");  // --quiet

    direct_library lib(v, kRows, {});
    run_result brute = run_orve(dir, "query --quiet --sidecar " + dir.file("s.sc") + " --queries " +
                                         dir.file("q.npy") + " -k 6 --format csv");
    ASSERT_EQ(brute.exit_code, 0) << brute.err;
    const std::vector<answer> tool_brute = parse_csv(brute.out);
    EXPECT_EQ(tool_brute.size(), kQueries * 6);
    expect_same_answers(tool_brute, lib.search(q, kQueries, 6));

    // The paged path: the library given the tool's .ivfp file answers the same.
    ASSERT_EQ(semantic_vector_indexing_system_open_ivf_paged(lib.sys(), dir.file("i.ivfp").c_str()),
              0);
    run_result paged = run_orve(dir, "query --quiet --sidecar " + dir.file("s.sc") + " --ivfp " +
                                         dir.file("i.ivfp") + " --queries " + dir.file("q.npy") +
                                         " -k 4 --nprobe-l1 2 --nprobe-l2 3 --format csv");
    ASSERT_EQ(paged.exit_code, 0) << paged.err;
    expect_same_answers(parse_csv(paged.out), lib.search(q, kQueries, 4, 2, 3));

    run_result inspect = run_orve(dir, "inspect " + dir.file("i.ivfp"));
    EXPECT_EQ(inspect.exit_code, 0) << inspect.err;
    EXPECT_NE(inspect.out.find("b1 4, b2 5, rows 1500"), std::string::npos) << inspect.out;
    EXPECT_NE(inspect.out.find("validates        yes"), std::string::npos) << inspect.out;
    inspect = run_orve(dir, "inspect " + dir.file("s.sc"));
    EXPECT_EQ(inspect.exit_code, 0) << inspect.err;
    EXPECT_NE(inspect.out.find("1500 (1500 live, 0 dead)"), std::string::npos) << inspect.out;
}

TEST(OrveEndToEnd, HostIdsFromFvecsSurviveIntoTheAnswers) {
    scratch_dir dir;
    const std::vector<float> v = mixture(kRows, 3);
    const std::vector<float> q = mixture(kQueries, 4);
    std::vector<uint32_t> ids(kRows);
    for (size_t r = 0; r < kRows; ++r) ids[r] = static_cast<uint32_t>(7000000 + 13 * r);
    write_file(dir.file("v.fvecs"), fvecs(v, kRows));
    write_file(dir.file("ids.npy"), npy_u32(ids));
    write_file(dir.file("q.fvecs"), fvecs(q, kQueries));

    run_result b = run_orve(dir, "build --quiet --vectors " + dir.file("v.fvecs") + " --ids " +
                                     dir.file("ids.npy") + " --sidecar " + dir.file("s.sc") +
                                     " --ivfp " + dir.file("i.ivfp"));
    ASSERT_EQ(b.exit_code, 0) << b.err;
    run_result r = run_orve(dir, "query --quiet --sidecar " + dir.file("s.sc") + " --queries " +
                                     dir.file("q.fvecs") + " -k 5 --path brute --format csv");
    ASSERT_EQ(r.exit_code, 0) << r.err;
    direct_library lib(v, kRows, ids);
    expect_same_answers(parse_csv(r.out), lib.search(q, kQueries, 5));
}

TEST(OrveEndToEnd, BadInputGetsOneLineAndLeavesNoFiles) {
    scratch_dir dir;
    const std::vector<float> v = mixture(kRows, 5);
    bytes f8 = npy_preamble(npy_dict("<f8", "(1500, 512)"));
    f8.resize(f8.size() + kRows * 512 * 8);
    write_file(dir.file("v8.npy"), f8);
    const std::string outputs = " --sidecar " + dir.file("s.sc") + " --ivfp " + dir.file("i.ivfp");

    run_result r = run_orve(dir, "build --vectors " + dir.file("v8.npy") + outputs);
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err, "orve: " + dir.file("v8.npy") + ": expected float32 '<f4', found '<f8'\n");
    EXPECT_EQ(r.out, "");

    // Bad index sizes and unwritable outputs are refused before any work is done.
    write_file(dir.file("v.npy"), npy_f32(v, kRows));
    r = run_orve(dir, "build --quiet --vectors " + dir.file("v.npy") + " --sidecar " +
                          dir.file("s.sc") + " --ivfp " + dir.file("i.ivfp") + " --b1 64 --b2 64");
    EXPECT_EQ(r.exit_code, 2);  // 64 x 64 > 1500 rows: refused before any work
    r = run_orve(dir, "build --quiet --vectors " + dir.file("v.npy") + " --sidecar " +
                          dir.file("s.sc") + " --ivfp " + dir.file("no/such/dir/i.ivfp"));
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_NE(r.err.find("no/such/dir/i.ivfp: cannot write in"), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;

    // A failure at the very end, after ingestion, training and writing: the finished index
    // cannot be renamed over a directory. Neither output may survive.
    ASSERT_EQ(::mkdir(dir.file("taken.ivfp").c_str(), 0755), 0);
    r = run_orve(dir, "build --quiet --vectors " + dir.file("v.npy") + " --sidecar " +
                          dir.file("s.sc") + " --ivfp " + dir.file("taken.ivfp"));
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_NE(r.err.find("taken.ivfp: cannot move the finished file into place"), std::string::npos)
        << r.err;
    EXPECT_FALSE(exists(dir.file("s.sc")));

    bytes q_trunc = npy_f32(mixture(2, 6), 2);
    q_trunc.resize(q_trunc.size() - 4);
    write_file(dir.file("q.npy"), q_trunc);
    r = run_orve(dir, "query --sidecar " + dir.file("v.npy") + " --queries " + dir.file("q.npy"));
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err, "orve: " + dir.file("v.npy") + ": not a sidecar file (bad magic)\n");

    // Nothing of any attempt is left in the directory but the inputs and captured output.
    const std::string listing_cmd = "ls -A '" + dir.path() + "' > '" + dir.file("ls.txt") + "'";
    ASSERT_EQ(std::system(listing_cmd.c_str()), 0);
    const bytes listing = read_file(dir.file("ls.txt"));
    EXPECT_EQ(std::string(listing.begin(), listing.end()),
              "ls.txt\nq.npy\nstderr.txt\nstdout.txt\ntaken.ivfp\nv.npy\nv8.npy\n");
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
