// Each open check's code and line, in order, on damaged files; refusals leak no fd or mapping.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>

#include "paged_fixture.h"

using namespace paged_test;

namespace {

int32_t open_quietly(const std::string& path, orve_ivf_paged_index** h, std::string* err) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int32_t rc = orve_ivf_paged_open(path.c_str(), h);
    *err = testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
    return rc;
}

long open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

bool mapped_anywhere(const std::string& path) {
    std::ifstream maps("/proc/self/maps");
    return std::string(std::istreambuf_iterator<char>(maps), {}).find(path) != std::string::npos;
}

// B1 = 2, B2 = 3: LC 1152, LT 4224, LD 4320, DS 8192.
constexpr uint64_t kLT = 4224, kLD = 4320;

struct damage {
    const char* what;
    std::function<void(bytes&)> apply;
    int32_t code = -7;
    std::string line = "[IVF_PAGED] corrupt or missing: %s\n";  // "%s" stands for the path
};

}  // namespace

TEST(PagedOpen, EachCheckHasItsCodeAndLineInOrder) {
    scratch_dir d;
    hand_hivf h(2, 3, random_buckets(2, 3, 4, 31));
    const uint32_t n = h.total_rows;
    const bytes good = encode_ivfp(h, node_table(n), 2);
    // Bucket 0: three leaves, the first empty (slot 1: first with rows, slot 2: last); 1: none.
    const uint64_t slot1 = kLD + 24, slot2 = kLD + 48;
    const uint64_t m2 = get<uint32_t>(good, slot2 + 16);
    auto g64 = [&](uint64_t at) { return get<uint64_t>(good, at); };
    auto u32 = [](uint64_t at, uint32_t v) { return [=](bytes& f) { put(f, at, v); }; };
    auto leaf = [](uint64_t slot, uint64_t codes, uint64_t meta) {
        return [=](bytes& f) {
            put(f, slot, codes);
            put(f, slot + 8, meta);
        };
    };
    const std::string magic = "[IVF_PAGED] bad magic in %s (not an .ivfp file)\n";
    const std::string version9 = "[IVF_PAGED] unsupported version 9 in %s (expected 1 or 2)\n";
    const damage cases[] = {
        {"71 bytes", [](bytes& f) { f.resize(71); }},
        {"72 bytes, bad magic", [](bytes& f) { f.resize(72), f[0] = 'X'; }, -4, magic},
        {"letters at offset 0", [](bytes& f) { std::memcpy(f.data(), "ORVEVFP", 8); }, -4, magic},
        {"version 9", u32(8, 9), -5, version9},
        {"dim 256", u32(12, 256), -6, "[IVF_PAGED] dim mismatch: file=256 runtime=512 in %s\n"},
        {"b1 0", u32(16, 0), -7, "[IVF_PAGED] corrupt B1/B2 (0) in %s\n"},
        // Order: the first failing check decides.
        {"magic and version", [](bytes& f) { f[1] = 'o', put<uint32_t>(f, 8, 9); }, -4, magic},
        {"version and dim", [](bytes& f) { put<uint32_t>(f, 8, 9), put<uint32_t>(f, 12, 1); }, -5,
         version9},
        {"dim and b1", [](bytes& f) { put<uint32_t>(f, 12, 1), put<uint32_t>(f, 16, 0); }, -6,
         "[IVF_PAGED] dim mismatch: file=1 runtime=512 in %s\n"},
        // Structure.
        {"index part cut", [](bytes& f) { f.resize(8191); }},
        {"no rows, cut after the directory",
         [](bytes& f) {
             for (uint64_t s = 0; s < 6; ++s) put<uint32_t>(f, kLT + 16 * s + 8, 0);
             for (uint64_t s = 0; s < 6; ++s) put<uint32_t>(f, kLD + 24 * s + 16, 0);
             put<uint32_t>(f, 24, 0);
             f.resize(kLD + 24 * 6);
         }},
        {"last leaf cut", [](bytes& f) { f.resize(f.size() - 64); }},
        {"b1 65", u32(16, 65)},
        {"b2 beyond the file", u32(20, 64)},
        {"table and directory disagree", u32(kLT + 16 + 8, 99)},
        {"n_rows off by one", u32(24, n + 1)},
        {"misaligned leaf", leaf(slot1, g64(slot1) + 8, g64(slot1 + 8) + 8)},
        {"leaf inside the index part",
         leaf(slot1, 4096, 4096 + 512 * uint64_t{get<uint32_t>(good, slot1 + 16)})},
        {"metadata not behind the codes", leaf(slot2, g64(slot2), g64(slot2))},
        {"leaves overlap", leaf(slot2, g64(slot1), g64(slot1) + 512 * m2)},
        {"offset wraps 64 bits", leaf(slot2, ~uint64_t{63}, ~uint64_t{63} + 512 * m2)},
        {"count past the file",  // counts still agree, n_rows too
         [=](bytes& f) {
             put<uint32_t>(f, 24, static_cast<uint32_t>(n - m2 + 1000000));
             put<uint32_t>(f, slot2 + 16, 1000000);
             put<uint32_t>(f, kLT + 32 + 8, 1000000);
         }},
    };
    const long fds_before = open_descriptors();
    const std::string p = d.file("bad.ivfp");
    for (const damage& c : cases) {
        SCOPED_TRACE(c.what);
        bytes f = good;
        c.apply(f);
        write_file(p, f);
        orve_ivf_paged_index* handle = nullptr;
        std::string err, want = c.line;
        EXPECT_EQ(open_quietly(p, &handle, &err), c.code);
        EXPECT_EQ(err, want.replace(want.find("%s"), 2, p));
        EXPECT_TRUE(handle == nullptr && !mapped_anywhere(p));
    }
    EXPECT_EQ(open_descriptors(), fds_before);
    orve_ivf_paged_index* handle = nullptr;
    std::string err;
    EXPECT_EQ(open_quietly(d.file("absent"), &handle, &err), -2);
    EXPECT_EQ(err, "[IVF_PAGED] open(" + d.file("absent") + "): No such file or directory\n");
    EXPECT_EQ(orve_ivf_paged_open(nullptr, &handle), -1);

    // The good file: the handle points into the mapping, which close removes.
    write_file(p, good);
    testing::internal::CaptureStdout();
    ASSERT_EQ(orve_ivf_paged_open(p.c_str(), &handle), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[IVF_PAGED] opened " + p + "  B1=2 B2=3 n=" + std::to_string(n) + "  (0.0 MB)\n");
    EXPECT_EQ(std::memcmp(handle->base, good.data(), good.size()), 0);
    orve_ivf_paged_close(handle);
    orve_ivf_paged_close(nullptr);
    EXPECT_FALSE(mapped_anywhere(p));
}
