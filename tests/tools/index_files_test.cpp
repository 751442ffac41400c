// The inspector's decoding of paged index and sidecar files: counts against files written by
// hand or by the library, and the problems it must notice in damaged files.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../../tools/orve/index_files.h"
#include "../../tools/orve/tool_error.h"
#include "semantic_vector_indexing.h"
#include "tool_test_files.h"

namespace {

using namespace orve_tool_test;
using orve::tool::index_file_kind;
using orve::tool::read_ivfp_report;
using orve::tool::read_sidecar_report;
using orve::tool::sniff_index_file;

// A sidecar header, then rows of (id, live byte) with zero padding and codes.
bytes sidecar(std::vector<std::pair<uint32_t, uint8_t>> rows, uint32_t version = 1,
              uint32_t dim = 512, uint32_t row_bytes = 2056) {
    bytes b = {'O', 'R', 'V', 'E', 'V', 'E', 'C', 'A'};
    for (uint32_t x : {version, dim, row_bytes}) put(b, &x);
    b.resize(32, 0);
    for (const auto& [id, live] : rows) {
        put(b, &id);
        b.push_back(live);
        b.resize(b.size() + 3 + 2048, 0);
    }
    return b;
}

// A paged index written by the library from n Gaussian rows with a b1 x b2 H-IVF.
std::string write_paged(const scratch_dir& dir, uint32_t n, uint32_t b1, uint32_t b2) {
    orve_test::system_block b(std::to_string(n).c_str());
    const std::vector<float> v = mixture(n, 11, 0);
    EXPECT_EQ(semantic_vector_indexing_system_load_vectors_f32(b.get(), v.data(), n),
              static_cast<int>(n));
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_level2(b.get(), b1, b2, 3), 0);
    const std::string path = dir.file("p.ivfp");
    EXPECT_EQ(semantic_vector_indexing_system_build_ivf_paged(b.get(), path.c_str()), 0);
    return path;
}

bool mentions(const std::vector<std::string>& problems, const std::string& text) {
    return std::any_of(problems.begin(), problems.end(),
                       [&](const std::string& p) { return p.find(text) != std::string::npos; });
}

// Counts of a well-formed file; headers the library would discard flagged, their rows uncounted.
TEST(SidecarReport, CountsRowsAndFlagsHeadersTheLibraryWouldDiscard) {
    scratch_dir dir;
    // id 0 is dead whatever the live byte says; live byte 0 is dead; id 5 comes twice.
    bytes b = sidecar({{5, 1}, {0, 1}, {7, 0}, {9, 1}, {5, 1}});
    b.resize(b.size() + 100, 0xab);
    write_file(dir.file("s.sc"), b);
    auto r = read_sidecar_report(dir.file("s.sc"));
    EXPECT_TRUE(r.header_ok);
    // file size, rows, live, dead, duplicate ids, partial bytes, smallest and largest id
    EXPECT_EQ((std::vector<uint64_t>{r.file_size, r.rows, r.live_rows, r.dead_rows, r.duplicate_ids,
                                     r.partial_bytes, r.min_id, r.max_id}),
              (std::vector<uint64_t>{32 + 5 * 2056 + 100, 5, 3, 2, 1, 100, 5, 9}));
    EXPECT_EQ(sniff_index_file(dir.file("s.sc")), index_file_kind::sidecar);
    for (const bytes& h :
         {sidecar({{1, 1}}, 2), sidecar({{1, 1}}, 1, 128), sidecar({{1, 1}}, 1, 512, 520),
          bytes{'O', 'R', 'V', 'E', 'V', 'E', 'C', 'A', 1}}) {
        write_file(dir.file("h.sc"), h);
        r = read_sidecar_report(dir.file("h.sc"));
        EXPECT_TRUE(r.magic_ok && !r.header_ok && r.rows == 0);
    }
    write_file(dir.file("empty.sc"), {});
    EXPECT_EQ(sniff_index_file(dir.file("empty.sc")), index_file_kind::unknown);
    EXPECT_THROW(sniff_index_file(dir.file("missing")), orve::tool::tool_error);
}

TEST(IvfpReport, DecodesALibraryWrittenFileAndNoticesDamage) {
    scratch_dir dir;
    const std::string path = write_paged(dir, 1200, 2, 3);
    ASSERT_EQ(sniff_index_file(path), index_file_kind::paged_index);
    const auto r = read_ivfp_report(path);  // a library-written file: no problem, every row seen
    EXPECT_TRUE(r.problems.empty()) << (r.problems.empty() ? "" : r.problems[0]);
    EXPECT_EQ(r.rows_in_leaves, 1200u);
    EXPECT_EQ(r.data_end, r.file_size);
    const bytes good = read_file(path);
    auto changed = [&](std::initializer_list<std::pair<size_t, uint8_t>> edits, size_t size) {
        bytes b = good;
        for (const auto& [at, value] : edits) b[at] = value;
        b.resize(size);
        return b;
    };
    const struct {
        bytes file;
        std::vector<std::string> problems;
    } cases[] = {
        // Leaf table count of slot 0 no longer matches the directory or the header.
        {changed({{4224 + 8, uint8_t(good[4224 + 8] ^ 1)}}, good.size()),
         {"disagree on their row count", "the header says 1200 rows"}},
        {changed({}, good.size() - 64), {"leaves are not where the layout puts them"}},
        {changed({}, 5000), {"file ends before the leaf data section at 8192"}},
        // b1 = 2 + 0xff00: its tables cannot fit.
        {changed({{17, 0xff}}, good.size()), {"extends past the end of the file"}},
        // Little-endian dim 0x200 becomes 0x100.
        {changed({{0, 'X'}, {13, 1}}, good.size()), {"bad magic", "dim 256"}},
        {bytes(40, 0), {"shorter than the 72-byte header"}},
    };
    for (const auto& c : cases) {
        write_file(path, c.file);
        const auto r = read_ivfp_report(path);
        for (const std::string& p : c.problems) EXPECT_TRUE(mentions(r.problems, p)) << p;
    }
}

}  // namespace
