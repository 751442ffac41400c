// Files must be byte-identical whichever architecture writes them. The digest below was taken
// from this writer's output; its point is that the x86-64 run and the aarch64 run (under qemu)
// both reproduce it. The content itself is checked independently by the writer tests, which
// compare the output with the fixture's encoder.
#include <gtest/gtest.h>

#include "paged_fixture.h"

using namespace paged_test;

TEST(PagedGolden, SameBytesOnEveryArchitecture) {
    scratch_dir d;
    hand_hivf h(5, 4, random_buckets(5, 4, 9, 2024));
    const auto ids = node_table(h.total_rows());
    testing::internal::CaptureStdout();
    ASSERT_EQ(orve_ivf_paged_build(h.get(), ids.data(), d.path("golden.ivfp").c_str()), 0);
    testing::internal::GetCapturedStdout();
    const bytes f = read_file(d.path("golden.ivfp"));
    EXPECT_EQ(f.size(), 47232u);
    EXPECT_EQ(fnv1a64(f), 0xa85b082048e9a45aull);
}
