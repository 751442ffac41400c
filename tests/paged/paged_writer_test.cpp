// The writer's output is compared byte for byte with the fixture's encoder, which shares no
// code with the library; sizes of known shapes hold the encoder itself to numbers.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "paged_fixture.h"
#include "support/test_math.h"

using namespace paged_test;

namespace {

int32_t build(const orve_hivf_index* h, const std::vector<uint32_t>& ids, const std::string& path,
              std::string* out = nullptr, std::string* err = nullptr) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int32_t rc = orve_ivf_paged_build(h, ids.data(), path.c_str());
    std::string sink;
    (err ? *err : sink) = testing::internal::GetCapturedStderr();
    (out ? *out : sink) = testing::internal::GetCapturedStdout();
    return rc;
}

// One level-1 bucket with one leaf per entry of rows.
std::vector<bucket_plan> one_bucket(std::vector<uint32_t> rows, uint64_t seed) {
    lcg g{seed};
    bucket_plan b{g.codes(512), 1, 1, {}};
    uint32_t next = 0;
    for (uint32_t m : rows) {
        b.leaves.push_back(random_leaf(g, next, [m] { return m; }));
        next += m;
    }
    return {b};
}

}  // namespace

TEST(PagedWriter, WritesTheFormatByteForByte) {
    scratch_dir d;
    std::vector<bucket_plan> no_rows = one_bucket({0, 0}, 2);
    no_rows.push_back({lcg{3}.codes(512), 1, 1, {}});
    struct shape {
        const char* what;
        uint32_t b1, b2;
        std::vector<bucket_plan> buckets;
        uint64_t size;
        int megabytes;
        uint64_t digest;  // 0: not checked
    };
    const shape shapes[] = {
        // DS 4096, the leaf's metadata at 4096 + 3 x 512, length align64(5632 + 3 x 16).
        {"one leaf of 3 rows", 1, 1, one_bucket({3}, 1), 5696, 0, 0},
        // The index part alone: DS = align4096(LD 4320 + 6 x 24).
        {"no rows", 2, 3, std::move(no_rows), 8192, 0, 0},
        // 4096 + align64(528 x 5949) = 3145216 bytes, 512 short of 3 MiB: reported as 2 MB.
        {"just under 3 MiB", 1, 1, one_bucket({5949}, 5), 3145216, 2, 0},
        // The digest was taken from this writer's output; the aarch64 run (under qemu) must
        // reproduce it, so files are the same bytes whichever architecture writes them.
        {"golden", 5, 4, random_buckets(5, 4, 9, 2024), 47232, 0, 0xa85b082048e9a45aull},
    };
    for (const shape& s : shapes) {
        SCOPED_TRACE(s.what);
        hand_hivf h(s.b1, s.b2, s.buckets);
        const auto ids = node_table(std::max(h.total_rows, 1u));
        const std::string p = d.file(std::string(s.what) + ".ivfp");
        std::string out;
        ASSERT_EQ(build(h.get(), ids, p, &out), 0);
        const bytes f = read_file(p);
        EXPECT_EQ(f, encode_ivfp(h, ids, 2));
        EXPECT_FALSE(file_exists(p + ".tmp"));
        EXPECT_EQ(out, "[IVF_PAGED] wrote " + std::to_string(s.megabytes) + " MB \xE2\x86\x92 " +
                           p + "  (B1=" + std::to_string(s.b1) + " B2=" + std::to_string(s.b2) +
                           " n=" + std::to_string(h.total_rows) + ")\n");
        EXPECT_EQ(f.size(), s.size);
        const uint64_t digest = test_math::fnv1a(test_math::kFnvOffset, f.data(), f.size());
        EXPECT_TRUE(s.digest == 0 || digest == s.digest) << std::hex << digest;
    }
}

TEST(PagedWriter, RefusalsAndFailuresLeaveThePathAsItWas) {
    scratch_dir d;
    hand_hivf h(1, 2, one_bucket({2, 1}, 6));
    const auto ids = node_table(3);
    orve_ivf_index short_leaf = h.get()->l2_indexes[0];
    short_leaf.n_rows = 2;  // the second leaf's row lies past the rows
    std::string long_path = d.path() + "/";
    long_path.resize(4092, 'a');  // path + ".tmp" needs 4096 characters: refused outright
    const std::string missing = d.file("no/such/dir/x.ivfp"), occupied = d.file("occupied");
    ASSERT_EQ(mkdir(occupied.c_str(), 0755), 0);
    write_file(occupied + "/keep", {1});
    struct refusal {
        std::function<void(orve_hivf_index&)> mutate;
        std::string path;
        int32_t rc;
        std::string err;  // the start of the line on standard error
    };
    const std::string x = d.file("x.ivfp");
    const refusal cases[] = {
        {[](orve_hivf_index& r) { r.b1 = 0; }, x, -1, ""},
        {[](orve_hivf_index& r) { r.b2 = 0; }, x, -1, ""},
        {[](orve_hivf_index& r) { r.l2_indexes = nullptr; }, x, -1, ""},
        {[](orve_hivf_index& r) { r.b2 = 1; }, x, -1, ""},  // leaf count above b2
        // More branches than a paged search handles: open would refuse the file.
        {[](orve_hivf_index& r) { r.b1 = ORVE_PAGED_MAX_BRANCHING + 1; }, x, -1, ""},
        {[&](orve_hivf_index& r) { r.l2_indexes = &short_leaf; }, x, -1, ""},
        {[](orve_hivf_index&) {}, long_path, -1, ""},
        // One character shorter is tried, and fails in open: no such directory.
        {[](orve_hivf_index&) {}, long_path.substr(0, 4091), -2, "[IVF_PAGED] open("},
        {[](orve_hivf_index&) {}, missing, -2, "[IVF_PAGED] open(" + missing + ".tmp): No such"},
        // A final path that is a directory: the rename fails after the file was written.
        {[](orve_hivf_index&) {}, occupied, -2, "[IVF_PAGED] rename(" + occupied + ".tmp"},
    };
    for (const refusal& c : cases) {
        SCOPED_TRACE(c.path.substr(0, 80) + " " + c.err);
        orve_hivf_index r = *h.get();
        c.mutate(r);
        std::string err;
        EXPECT_EQ(build(&r, ids, c.path, nullptr, &err), c.rc);
        EXPECT_EQ(err.substr(0, c.err.size()), c.err);
        EXPECT_EQ(c.err.empty(), err.empty());
        EXPECT_FALSE(file_exists(c.path + ".tmp"));
    }
    EXPECT_FALSE(file_exists(x));
    EXPECT_TRUE(file_exists(occupied + "/keep"));
}

// Two builds racing on one path (one temporary name) leave one complete file, never a mixture.
TEST(PagedWriter, ConcurrentBuildsToOnePathLeaveOneCompleteFile) {
    scratch_dir d;
    const std::string p = d.file("race.ivfp");
    hand_hivf a(2, 3, random_buckets(2, 3, 200, 21)), b(3, 2, random_buckets(3, 2, 150, 22));
    const auto ids_a = node_table(a.total_rows), ids_b = node_table(b.total_rows);
    const bytes want_a = encode_ivfp(a, ids_a, 2), want_b = encode_ivfp(b, ids_b, 2);
    testing::internal::CaptureStdout();
    for (int round = 0; round < 10; ++round) {
        int32_t rc_a = 1, rc_b = 1;
        std::thread ta([&] { rc_a = orve_ivf_paged_build(a.get(), ids_a.data(), p.c_str()); });
        rc_b = orve_ivf_paged_build(b.get(), ids_b.data(), p.c_str());
        ta.join();
        ASSERT_TRUE(rc_a == 0 && rc_b == 0) << rc_a << " " << rc_b;
        const bytes got = read_file(p);
        ASSERT_TRUE(got == want_a || got == want_b) << "round " << round;
        ASSERT_FALSE(file_exists(p + ".tmp"));
    }
    testing::internal::GetCapturedStdout();
}

// A child rewriting an index over a good file is killed at many moments: the path holds the whole
// old file or the whole new one, and a temporary left behind does not stop the next build.
TEST(PagedCrash, KilledWriterLeavesTheOldOrTheNewFile) {
    scratch_dir d;
    const std::string path = d.file("live.ivfp");
    hand_hivf old_index(2, 2, random_buckets(2, 2, 10, 61));
    hand_hivf new_index(4, 4, random_buckets(4, 4, 600, 62));
    const auto old_ids = node_table(old_index.total_rows);
    const auto new_ids = node_table(new_index.total_rows);
    const bytes want_old = encode_ivfp(old_index, old_ids, 2);
    const bytes want_new = encode_ivfp(new_index, new_ids, 2);
    // Kill moments spread over one and a half build durations; no check depends on where.
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(build(new_index.get(), new_ids, d.file("timing.ivfp")), 0);
    const auto build_us =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - t0)
            .count();
    const uint64_t span_us = static_cast<uint64_t>(build_us) * 3 / 2 + 1;

    lcg g{63};
    int saw_old = 0, saw_new = 0, saw_temp = 0;
    for (int iteration = 0; iteration < 20; ++iteration) {
        ASSERT_EQ(build(old_index.get(), old_ids, path), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            dup2(open("/dev/null", O_WRONLY), 1);
            _exit(orve_ivf_paged_build(new_index.get(), new_ids.data(), path.c_str()) ? 1 : 0);
        }
        usleep(static_cast<useconds_t>(g.next() % span_us));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(!WIFEXITED(status) || WEXITSTATUS(status) == 0);  // finished: succeeded
        const bytes got = read_file(path);
        const bool is_old = got == want_old, is_new = got == want_new;
        ASSERT_TRUE(is_old || is_new) << iteration << ": " << got.size() << " bytes";
        saw_old += is_old;
        saw_new += is_new;
        saw_temp += file_exists(path + ".tmp");
    }
    std::printf("kills: %d left the old file, %d the new one, %d a temporary file\n", saw_old,
                saw_new, saw_temp);
    // Whatever a killed build left under "<path>.tmp", the next build goes through.
    write_file(path + ".tmp", bytes(100000, 0xEE));
    ASSERT_EQ(build(new_index.get(), new_ids, path), 0);
    EXPECT_EQ(read_file(path), want_new);
    EXPECT_FALSE(file_exists(path + ".tmp"));
}
