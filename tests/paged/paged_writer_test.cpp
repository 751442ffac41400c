// The writer's output is compared byte for byte with the fixture's encoder, which is written
// from the format's tables and shares no code with the library; the offsets of the format's
// worked examples are checked as numbers.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>
#include <thread>

#include "paged_fixture.h"

using namespace paged_test;

namespace {

std::string capture_build(const orve_hivf_index* h, const std::vector<uint32_t>& ids,
                          const std::string& path, int32_t* rc, std::string* err = nullptr) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    *rc = orve_ivf_paged_build(h, ids.data(), path.c_str());
    const std::string e = testing::internal::GetCapturedStderr();
    if (err != nullptr) *err = e;
    return testing::internal::GetCapturedStdout();
}

// One level-1 bucket with one leaf per entry of `rows`, codes and values from seed.
std::vector<bucket_plan> single_bucket(std::vector<uint32_t> rows, uint64_t seed) {
    lcg g{seed};
    bucket_plan b;
    b.centroid = random_codes(g, 512);
    uint32_t next = 0;
    for (uint32_t m : rows) {
        leaf_plan l;
        l.centroid = random_codes(g, 512);
        l.codes = random_codes(g, 512ull * m);
        for (uint32_t k = 0; k < m; ++k) {
            l.scales.push_back(g.unit());
            l.norms.push_back(g.unit());
            l.row_ids.push_back(next++);
        }
        b.leaves.push_back(std::move(l));
    }
    return {b};
}

}  // namespace

TEST(PagedWriter, WritesTheFormatByteForByte) {
    scratch_dir d;
    hand_hivf h(3, 4, random_buckets(3, 4, 5, 11));
    const auto ids = node_table(h.total_rows());
    int32_t rc;
    const std::string out = capture_build(h.get(), ids, d.path("a.ivfp"), &rc);
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(read_file(d.path("a.ivfp")), encode_ivfp(h, ids, 2));
    EXPECT_FALSE(file_exists(d.path("a.ivfp.tmp")));
    EXPECT_EQ(out, "[IVF_PAGED] wrote 0 MB \xE2\x86\x92 " + d.path("a.ivfp") +
                       "  (B1=3 B2=4 n=" + std::to_string(h.total_rows()) + ")\n");
}

TEST(PagedWriter, WorkedExampleOffsets) {
    scratch_dir d;
    int32_t rc;
    // B1 = 1, B2 = 1, one leaf of 3 rows: DS 4096, metadata at 5632, length align64(5680).
    {
        hand_hivf h(1, 1, single_bucket({3}, 1));
        capture_build(h.get(), node_table(3), d.path("one.ivfp"), &rc);
        ASSERT_EQ(rc, 0);
        const bytes f = read_file(d.path("one.ivfp"));
        EXPECT_EQ(f.size(), 5696u);
        EXPECT_EQ(get_u64(f, 1168), 4096u);  // LD = 1168
        EXPECT_EQ(get_u64(f, 1176), 5632u);
        EXPECT_EQ(get_u32(f, 1184), 3u);
        EXPECT_EQ(get_u32(f, 1152 + 8), 3u);  // leaf table count at LT = 1152
    }
    // B1 = 2, B2 = 3 without rows: the file is the index part alone, DS = 8192; every slot of
    // the bucket without rows is zero but for its offsets.
    {
        std::vector<bucket_plan> b = single_bucket({0, 0}, 2);
        b.push_back(single_bucket({}, 3)[0]);
        hand_hivf h(2, 3, std::move(b));
        capture_build(h.get(), node_table(1), d.path("empty.ivfp"), &rc);
        ASSERT_EQ(rc, 0);
        const bytes f = read_file(d.path("empty.ivfp"));
        EXPECT_EQ(f.size(), 8192u);
        for (uint64_t s = 0; s < 6; ++s) EXPECT_EQ(get_u64(f, 4320 + 24 * s), 8192u);
        for (uint64_t at = 1152 + 512 * 3; at < 4224; ++at) ASSERT_EQ(f[at], 0) << at;
        EXPECT_EQ(f, encode_ivfp(h, node_table(1), 2));
    }
}

TEST(PagedWriter, ReportsWholeMegabytesRoundedDown) {
    scratch_dir d;
    // 4096 + align64(528 x 5949) = 3145216 bytes, 512 short of 3 MiB.
    hand_hivf h(1, 1, single_bucket({5949}, 5));
    int32_t rc;
    const std::string out = capture_build(h.get(), node_table(5949), d.path("big.ivfp"), &rc);
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(read_file(d.path("big.ivfp")).size(), 3145216u);
    EXPECT_NE(out.find("wrote 2 MB"), std::string::npos) << out;
}

TEST(PagedWriter, RefusalsTouchNothingAndSayNothing) {
    scratch_dir d;
    hand_hivf h(1, 2, single_bucket({2, 1}, 6));
    const auto ids = node_table(3);
    const std::string p = d.path("x.ivfp");
    int32_t rc;
    std::string err;
    orve_hivf_index bad = *h.get();
    for (auto mutate :
         {+[](orve_hivf_index& x) { x.b1 = 0; }, +[](orve_hivf_index& x) { x.b2 = 0; },
          +[](orve_hivf_index& x) { x.l2_indexes = nullptr; },
          +[](orve_hivf_index& x) { x.b2 = 1; },  // leaf count above b2
          // More branches than a paged search handles: open would refuse the file.
          +[](orve_hivf_index& x) { x.b1 = ORVE_PAGED_MAX_BRANCHING + 1; },
          +[](orve_hivf_index& x) { x.b2 = ORVE_PAGED_MAX_BRANCHING + 1; }}) {
        orve_hivf_index m = bad;
        mutate(m);
        capture_build(&m, ids, p, &rc, &err);
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(err, "");
    }
    orve_ivf_index leaf = h.get()->l2_indexes[0];
    leaf.n_rows = 2;  // the second leaf's row lies past the rows
    bad.l2_indexes = &leaf;
    capture_build(&bad, ids, p, &rc, &err);
    EXPECT_EQ(rc, -1);

    // The temporary name needs path + ".tmp" in 4095 characters: a 4092-character path is
    // refused outright, a 4091-character one is tried (and fails in open: no such directory).
    std::string long_path = d.dir() + "/";
    long_path.resize(4092, 'a');
    capture_build(h.get(), ids, long_path, &rc, &err);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(err, "");
    long_path.resize(4091);
    capture_build(h.get(), ids, long_path, &rc, &err);
    EXPECT_EQ(rc, -2);
    EXPECT_FALSE(file_exists(p));
}

TEST(PagedWriter, FailuresNameTheStepAndRemoveTheTemporaryFile) {
    scratch_dir d;
    hand_hivf h(1, 1, single_bucket({2}, 7));
    const auto ids = node_table(2);
    int32_t rc;
    std::string err;

    const std::string missing = d.path("no/such/dir/x.ivfp");
    capture_build(h.get(), ids, missing, &rc, &err);
    EXPECT_EQ(rc, -2);
    EXPECT_EQ(err, "[IVF_PAGED] open(" + missing + ".tmp): No such file or directory\n");

    // A final path that is a directory: the rename fails after the file was written.
    const std::string dir_target = d.path("occupied");
    ASSERT_EQ(mkdir(dir_target.c_str(), 0755), 0);
    write_file(dir_target + "/keep", {1});
    capture_build(h.get(), ids, dir_target, &rc, &err);
    EXPECT_EQ(rc, -2);
    EXPECT_EQ(
        err.rfind("[IVF_PAGED] rename(" + dir_target + ".tmp \xE2\x86\x92 " + dir_target + "): ",
                  0),
        0u)
        << err;
    EXPECT_FALSE(file_exists(dir_target + ".tmp"));
    EXPECT_TRUE(file_exists(dir_target + "/keep"));
}

TEST(PagedWriter, RewritingReplacesTheFileAndReusesAStaleTemporary) {
    scratch_dir d;
    const std::string p = d.path("r.ivfp");
    hand_hivf first(2, 2, random_buckets(2, 2, 30, 8));
    hand_hivf second(1, 3, random_buckets(1, 3, 4, 9));
    int32_t rc;
    capture_build(first.get(), node_table(first.total_rows()), p, &rc);
    ASSERT_EQ(rc, 0);
    write_file(p + ".tmp", bytes(100000, 0xEE));  // left by a build that died
    const auto ids = node_table(second.total_rows());
    capture_build(second.get(), ids, p, &rc);
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(read_file(p), encode_ivfp(second, ids, 2));
    EXPECT_FALSE(file_exists(p + ".tmp"));
}

// Two builds racing on one path share the temporary name; the result must still be one of the
// two complete files, never a mixture or a truncated one.
TEST(PagedWriter, ConcurrentBuildsToOnePathLeaveOneCompleteFile) {
    scratch_dir d;
    const std::string p = d.path("race.ivfp");
    hand_hivf a(2, 3, random_buckets(2, 3, 200, 21));
    hand_hivf b(3, 2, random_buckets(3, 2, 150, 22));
    const auto ids_a = node_table(a.total_rows());
    const auto ids_b = node_table(b.total_rows());
    const bytes want_a = encode_ivfp(a, ids_a, 2), want_b = encode_ivfp(b, ids_b, 2);
    testing::internal::CaptureStdout();
    for (int round = 0; round < 10; ++round) {
        int32_t rc_a = 1, rc_b = 1;
        std::thread ta([&] { rc_a = orve_ivf_paged_build(a.get(), ids_a.data(), p.c_str()); });
        std::thread tb([&] { rc_b = orve_ivf_paged_build(b.get(), ids_b.data(), p.c_str()); });
        ta.join();
        tb.join();
        ASSERT_EQ(rc_a, 0);
        ASSERT_EQ(rc_b, 0);
        const bytes got = read_file(p);
        ASSERT_TRUE(got == want_a || got == want_b) << "round " << round;
        ASSERT_FALSE(file_exists(p + ".tmp"));
    }
    testing::internal::GetCapturedStdout();
}
