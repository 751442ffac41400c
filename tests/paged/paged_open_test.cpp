// Opening: each check of the header with its code and line, in the stated order; the refusal
// of files whose sections, counts or leaf blocks do not fit; and what a successful open
// exposes. Files are encoded by the fixture and damaged by hand.
#include <gtest/gtest.h>

#include <dirent.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <string>

#include "paged_fixture.h"
#include "search/topk.h"

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

int open_descriptors() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (d != nullptr && readdir(d) != nullptr) ++n;
    if (d != nullptr) closedir(d);
    return n;
}

bool mapped_anywhere(const std::string& path) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        if (line.find(path) != std::string::npos) return true;
    return false;
}

// B1 = 2, B2 = 3: LC 1152, LT 4224, LD 4320, DS 8192.
constexpr uint64_t kLT = 4224, kLD = 4320;

struct damage {
    const char* what;
    std::function<void(bytes&)> apply;
    int32_t code;
    std::string line;  // "%s" stands for the path
};

}  // namespace

TEST(PagedOpen, EachCheckHasItsCodeAndLineInOrder) {
    scratch_dir d;
    hand_hivf h(2, 3, random_buckets(2, 3, 4, 31));
    const bytes good = encode_ivfp(h, node_table(h.total_rows()), 2);
    const uint32_t n = h.total_rows();
    // Bucket 0 has three leaves, the first empty; bucket 1 has none. So slot 1 is the first
    // leaf with rows and slot 2 the last.
    const uint64_t slot1 = kLD + 24, slot2 = kLD + 48;
    const std::string corrupt = "[IVF_PAGED] corrupt or missing: %s\n";
    const std::vector<damage> cases = {
        {"71 bytes", [](bytes& f) { f.resize(71); }, -7, corrupt},
        {"72 bytes, bad magic",
         [](bytes& f) {
             f.resize(72);
             f[0] = 'X';
         },
         -4, "[IVF_PAGED] bad magic in %s (not an .ivfp file)\n"},
        {"letters at offset 0", [](bytes& f) { std::memcpy(f.data(), "ORVEVFP", 8); }, -4,
         "[IVF_PAGED] bad magic in %s (not an .ivfp file)\n"},
        {"version 3", [](bytes& f) { set_u32(f, 8, 3); }, -5,
         "[IVF_PAGED] unsupported version 3 in %s (expected 1 or 2)\n"},
        {"dim 256", [](bytes& f) { set_u32(f, 12, 256); }, -6,
         "[IVF_PAGED] dim mismatch: file=256 runtime=512 in %s\n"},
        {"b1 0", [](bytes& f) { set_u32(f, 16, 0); }, -7, "[IVF_PAGED] corrupt B1/B2 (0) in %s\n"},
        // Order: the first failing check decides.
        {"magic and version",
         [](bytes& f) {
             f[1] = 'o';
             set_u32(f, 8, 9);
         },
         -4, "[IVF_PAGED] bad magic in %s (not an .ivfp file)\n"},
        {"version and dim",
         [](bytes& f) {
             set_u32(f, 8, 9);
             set_u32(f, 12, 1);
         },
         -5, "[IVF_PAGED] unsupported version 9 in %s (expected 1 or 2)\n"},
        {"dim and b1",
         [](bytes& f) {
             set_u32(f, 12, 1);
             set_u32(f, 16, 0);
         },
         -6, "[IVF_PAGED] dim mismatch: file=1 runtime=512 in %s\n"},
        // Structure.
        {"index part cut", [](bytes& f) { f.resize(8191); }, -7, corrupt},
        {"no rows, cut after the directory",
         [](bytes& f) {
             for (uint64_t s = 0; s < 6; ++s) set_u32(f, kLT + 16 * s + 8, 0);
             for (uint64_t s = 0; s < 6; ++s) set_u32(f, kLD + 24 * s + 16, 0);
             set_u32(f, 24, 0);
             f.resize(kLD + 24 * 6);
         },
         -7, corrupt},
        {"last leaf cut", [](bytes& f) { f.resize(f.size() - 64); }, -7, corrupt},
        {"b1 65", [](bytes& f) { set_u32(f, 16, 65); }, -7, corrupt},
        {"b2 beyond the file", [](bytes& f) { set_u32(f, 20, 64); }, -7, corrupt},
        {"table and directory disagree", [=](bytes& f) { set_u32(f, kLT + 16 + 8, 99); }, -7,
         corrupt},
        {"n_rows off by one", [=](bytes& f) { set_u32(f, 24, n + 1); }, -7, corrupt},
        {"misaligned leaf",
         [=](bytes& f) {
             set_u64(f, slot1, get_u64(f, slot1) + 8);
             set_u64(f, slot1 + 8, get_u64(f, slot1 + 8) + 8);
         },
         -7, corrupt},
        {"leaf inside the index part",
         [=](bytes& f) {
             set_u64(f, slot1, 4096);
             set_u64(f, slot1 + 8, 4096 + 512 * uint64_t{get_u32(f, slot1 + 16)});
         },
         -7, corrupt},
        {"metadata not behind the codes",
         [=](bytes& f) { set_u64(f, slot2 + 8, get_u64(f, slot2)); }, -7, corrupt},
        {"leaves overlap",
         [=](bytes& f) {
             set_u64(f, slot2, get_u64(f, slot1));
             set_u64(f, slot2 + 8, get_u64(f, slot1) + 512 * uint64_t{get_u32(f, slot2 + 16)});
         },
         -7, corrupt},
        {"offset wraps 64 bits",
         [=](bytes& f) {
             const uint64_t c = 0xFFFFFFFFFFFFFFC0ull;
             set_u64(f, slot2, c);
             set_u64(f, slot2 + 8, c + 512 * uint64_t{get_u32(f, slot2 + 16)});  // wraps
         },
         -7, corrupt},
        {"count past the file",
         [=](bytes& f) {  // counts still agree, n_rows too
             set_u32(f, 24, n - get_u32(f, slot2 + 16) + 1000000);
             set_u32(f, slot2 + 16, 1000000);
             set_u32(f, kLT + 32 + 8, 1000000);
         },
         -7, corrupt},
    };
    const int fds_before = open_descriptors();
    for (const damage& c : cases) {
        bytes f = good;
        c.apply(f);
        const std::string p = d.path("bad.ivfp");
        write_file(p, f);
        orve_ivf_paged_index* handle = nullptr;
        std::string err;
        EXPECT_EQ(open_quietly(p, &handle, &err), c.code) << c.what;
        std::string want = c.line;
        want.replace(want.find("%s"), 2, p);
        EXPECT_EQ(err, want) << c.what;
        EXPECT_EQ(handle, nullptr) << c.what;
        EXPECT_FALSE(mapped_anywhere(p)) << c.what;
    }
    EXPECT_EQ(open_descriptors(), fds_before);

    orve_ivf_paged_index* handle = nullptr;
    std::string err;
    EXPECT_EQ(open_quietly(d.path("absent"), &handle, &err), -2);
    EXPECT_EQ(err, "[IVF_PAGED] open(" + d.path("absent") + "): No such file or directory\n");
    EXPECT_EQ(orve_ivf_paged_open(nullptr, &handle), -1);
    EXPECT_EQ(orve_ivf_paged_open(d.path("absent").c_str(), nullptr), -1);
}

TEST(PagedOpen, HandlePointsIntoTheMapping) {
    scratch_dir d;
    hand_hivf h(2, 3, random_buckets(2, 3, 4, 31));
    const bytes f = encode_ivfp(h, node_table(h.total_rows()), 1);
    const std::string p = d.path("ok.ivfp");
    write_file(p, f);
    orve_ivf_paged_index* handle = nullptr;
    testing::internal::CaptureStdout();
    ASSERT_EQ(orve_ivf_paged_open(p.c_str(), &handle), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[IVF_PAGED] opened " + p + "  B1=2 B2=3 n=" + std::to_string(h.total_rows()) +
                  "  (0.0 MB)\n");
    EXPECT_EQ(std::memcmp(handle->base, f.data(), f.size()), 0);

    orve_ivf_paged_close(handle);
    orve_ivf_paged_close(nullptr);
    EXPECT_FALSE(mapped_anywhere(p));
}

// Row positions are the caller's to map, so open does not bound them. A first-version file
// whose position passes its row count opens, and the search (whose map has n_rows entries)
// skips that row instead of reading past the map; a second-version file offers it.
TEST(PagedOpen, RowPositionsPastTheRowCountOpenAndAreNeverMappedOutOfBounds) {
    scratch_dir d;
    hand_hivf h(2, 3, random_buckets(2, 3, 4, 77));
    const uint32_t n = h.total_rows();
    for (uint32_t version : {1u, 2u}) {
        bytes f = encode_ivfp(h, node_table(n), version);
        uint64_t slot = 0;
        while (get_u32(f, kLD + 24 * slot + 16) == 0) ++slot;  // first non-empty leaf
        const uint32_t m = get_u32(f, kLD + 24 * slot + 16);
        const uint64_t meta = get_u64(f, kLD + 24 * slot + 8);
        set_u32(f, meta + 8 * uint64_t{m}, n);  // its first row position, one past the end
        write_file(d.path("rows.ivfp"), f);
        orve_ivf_paged_index* handle = nullptr;
        std::string err;
        ASSERT_EQ(open_quietly(d.path("rows.ivfp"), &handle, &err), 0) << version;
        const std::vector<uint32_t> map = node_table(n);  // exactly n entries
        std::vector<bf_topk_entry> heap(n);
        uint32_t found = 0;
        const std::vector<int8_t> codes(512, 1);
        EXPECT_EQ(orve_ivf_paged_search(handle, nullptr, 9, 9, codes.data(), heap.data(), &found, n,
                                        map.data(), 1.0f, 1.0f, -1e30f),
                  0);
        EXPECT_EQ(found, version == 1 ? n - 1 : n) << version;
        for (uint32_t i = 0; version == 1 && i < found; ++i) EXPECT_LT(heap[i].row, n);
        orve_ivf_paged_close(handle);
    }
}
