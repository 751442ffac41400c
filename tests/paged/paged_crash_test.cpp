// Crash safety of the writer: a child process rewrites an index over an existing good file and
// is killed outright at many different moments. Whatever the moment, the final path must hold
// the complete old file or the complete new one (byte for byte: the reader is tested on both
// elsewhere), and a temporary file left behind must not stop the next build.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "paged_fixture.h"

using namespace paged_test;

namespace {

int32_t build_quietly(const hand_hivf& h, const std::vector<uint32_t>& ids,
                      const std::string& path) {
    testing::internal::CaptureStdout();
    const int32_t rc = orve_ivf_paged_build(h.get(), ids.data(), path.c_str());
    testing::internal::GetCapturedStdout();
    return rc;
}

}  // namespace

TEST(PagedCrash, KilledWriterLeavesTheOldOrTheNewFile) {
    scratch_dir d;
    const std::string path = d.path("live.ivfp");
    hand_hivf old_index(2, 2, random_buckets(2, 2, 10, 61));
    hand_hivf new_index(4, 4, random_buckets(4, 4, 600, 62));
    const auto old_ids = node_table(old_index.total_rows());
    const auto new_ids = node_table(new_index.total_rows());
    const bytes want_old = encode_ivfp(old_index, old_ids, 2);
    const bytes want_new = encode_ivfp(new_index, new_ids, 2);

    // Kill moments are spread over about one and a half build durations, so that some land
    // before, some during and some after the write. Nothing below depends on where they land.
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(build_quietly(new_index, new_ids, d.path("timing.ivfp")), 0);
    const auto build_us =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - t0)
            .count();
    const uint64_t span_us = static_cast<uint64_t>(build_us) * 3 / 2 + 1;

    lcg g{63};
    int saw_old = 0, saw_new = 0, saw_temp = 0;
    for (int iteration = 0; iteration < 20; ++iteration) {
        ASSERT_EQ(build_quietly(old_index, old_ids, path), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            const int null_fd = open("/dev/null", O_WRONLY);
            dup2(null_fd, 1);
            const int32_t rc = orve_ivf_paged_build(new_index.get(), new_ids.data(), path.c_str());
            _exit(rc == 0 ? 0 : 1);
        }
        usleep(static_cast<useconds_t>(g.next() % span_us));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        // A child that finished before the kill must have succeeded.
        if (WIFEXITED(status)) {
            ASSERT_EQ(WEXITSTATUS(status), 0);
        }

        const bytes got = read_file(path);
        const bool is_old = got == want_old, is_new = got == want_new;
        ASSERT_TRUE(is_old || is_new)
            << "iteration " << iteration << ": " << got.size() << " bytes of neither file";
        saw_old += is_old;
        saw_new += is_new;
        saw_temp += file_exists(path + ".tmp");
    }
    std::printf("kills: %d left the old file, %d the new one, %d a temporary file\n", saw_old,
                saw_new, saw_temp);

    // Whatever a killed build left behind under "<path>.tmp", the next build goes through and
    // cleans up.
    write_file(path + ".tmp", bytes(100000, 0xEE));
    ASSERT_EQ(build_quietly(new_index, new_ids, path), 0);
    EXPECT_EQ(read_file(path), want_new);
    EXPECT_FALSE(file_exists(path + ".tmp"));
}
