// The tool's readers against well-formed and malformed .npy, .fvecs and manifest files: each bad
// input is refused by a tool_error naming the file and the problem, never a crash or a path
// outside.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "../../tools/orve/sharded_dir.h"
#include "../../tools/orve/tool_error.h"
#include "../../tools/orve/vector_file.h"
#include "tool_test_files.h"

namespace {

using namespace orve_tool_test;
using orve::tool::read_ids;
using orve::tool::tool_error;
using orve::tool::vector_file;

std::vector<float> ramp(size_t rows) {
    std::vector<float> v(rows * 512);
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<float>(i % 977) * 0.25f - 100.0f;
    return v;
}

// The message of the tool_error that fn throws, or "" when it throws none.
std::string error_of(const std::function<void()>& fn) {
    try {
        fn();
    } catch (const tool_error& e) {
        return e.what();
    }
    return "";
}

// A 1-d array of any dtype from integer values, little-endian, `size` bytes each.
bytes ints(const char* descr, uint32_t size, const std::vector<int64_t>& values) {
    bytes b = npy_preamble(npy_dict(descr, "(" + std::to_string(values.size()) + ",)"));
    for (int64_t x : values) put(b, reinterpret_cast<const uint8_t*>(&x), size);
    return b;
}

// A float64 (rows, 512) array of the values.
bytes f8(const std::vector<float>& v, size_t rows) {
    bytes b = npy_preamble(npy_dict("<f8", "(" + std::to_string(rows) + ", 512)"));
    const std::vector<double> wide(v.begin(), v.end());
    put(b, wide.data(), wide.size());
    return b;
}

TEST(VectorFile, ReadsEveryValueOfEachFormatAndWindow) {
    scratch_dir dir;
    const std::vector<float> v = ramp(3);
    // Key order is free, double quotes are legal, and Python 2 wrote longs with an L suffix.
    bytes py2 =
        npy_preamble("{\"shape\": (3L, 512L), \"fortran_order\": False, \"descr\": \"<f4\"}");
    put(py2, v.data(), v.size());
    const struct {
        const char* name;
        bytes content;
    } files[] = {{"v1.npy", npy_f32(v, 3, 1)},
                 {"v2.npy", npy_f32(v, 3, 2)},
                 {"v.fvecs", fvecs(v, 3)},
                 {"f8.npy", f8(v, 3)},
                 {"py2.npy", py2},
                 {"v.bin", npy_f32(v, 3)}};
    // Any integer dtype numpy writes is read as ids, widened without loss.
    write_file(dir.file("i8.npy"), ints("<i8", 8, {5, 4294967295, 2}));
    write_file(dir.file("u1.npy"), ints("|u1", 1, {255, 1, 9}));
    EXPECT_EQ(read_ids(dir.file("i8.npy"), 3), (std::vector<uint32_t>{5, 4294967295u, 2}));
    EXPECT_EQ(read_ids(dir.file("u1.npy"), 3), (std::vector<uint32_t>{255, 1, 9}));
    for (const auto& f : files) {
        write_file(dir.file(f.name), f.content);
        const vector_file in(dir.file(f.name));
        ASSERT_EQ(in.rows(), 3u) << f.name;
        std::vector<float> out(3 * 512, 0.0f), last(512);
        in.read_rows(0, 3, out.data());
        in.read_rows(2, 1, last.data());
        EXPECT_EQ(out, v) << f.name;
        EXPECT_EQ(last, std::vector<float>(v.begin() + 1024, v.end())) << f.name;
    }
}

// How each case is read: opened as vectors, opened and read from row 1 on (so that row numbers
// in messages count from the file's start, not the window's), or read as 3 ids.
enum class as { open, rows, ids };

TEST(VectorFile, RefusesMalformedFilesNamingTheFileAndTheProblem) {
    scratch_dir dir;
    std::vector<float> v = ramp(3);
    auto with_data = [&](bytes b, size_t floats) {
        put(b, v.data(), floats);
        return b;
    };
    bytes v4 = npy_f32(v, 1), short_header = npy_f32(v, 1),
          huge = {0x93, 'N', 'U', 'M', 'P', 'Y', 2, 0};
    v4[6] = 4;
    short_header.resize(40);
    const uint32_t huge_len = 65537;
    put(huge, &huge_len);
    huge.resize(huge.size() + 65537, ' ');
    const std::vector<float> two(v.begin(), v.begin() + 1024);
    bytes cut = npy_f32(two, 2), extra = npy_f32(two, 2), later = fvecs(v, 3),
          fvecs_cut = fvecs(v, 3);
    cut.resize(cut.size() - 10);
    extra.push_back(0);
    later[2 * 2052 + 1] = 1;  // vector 2's little-endian dimension becomes 0x100
    fvecs_cut.resize(fvecs_cut.size() - 100);
    bytes col = npy_preamble(npy_dict("<u4", "(3, 1)"));
    col.resize(col.size() + 12);
    // float64 beyond float range would become an infinity and is refused like one.
    bytes big = f8(std::vector<float>(1024, 1.0f), 2);
    const double too_big = 1e300;
    std::memcpy(&big[big.size() - 24 * 8], &too_big, 8);  // component 488
    const bytes finite = npy_f32(v, 3);
    v[512 + 7] = std::numeric_limits<float>::quiet_NaN();
    std::vector<float> inf = ramp(3);
    inf[1024 + 9] = -std::numeric_limits<float>::infinity();
    const std::string f4 = "{'descr': '<f4', 'fortran_order': False";
    const bytes text = {'1', ' ', '2'};
    const std::string range = "id at row 1 is outside 1 to 4294967295 (node ids are 32-bit)";
    const struct {
        const char* name;
        bytes content;
        as how;
        std::string message;
    } cases[] = {
        {"zip.npy", {'P', 'K', 3, 4, 0, 0, 0, 0, 0, 0}, as::open, "not an NPY file (bad magic)"},
        {"v4.npy", v4, as::open, "unsupported NPY version 4.0"},
        {"short.npy", short_header, as::open, "truncated NPY header"},
        {"noshape.npy", npy_preamble(f4 + "}"), as::open, "no 'shape' entry"},
        {"key.npy", npy_preamble(f4 + ", 'shape': (1, 512), 'x': 1}"), as::open,
         "unexpected key 'x'"},
        {"neg.npy", npy_preamble(f4 + ", 'shape': (-1, 512)}"), as::open, "negative number"},
        {"fo.npy", npy_preamble("{'descr': '<f4', 'fortran_order': 0, 'shape': (1, 512)}"),
         as::open, "'fortran_order' is not True or False"},
        {"open.npy", npy_preamble(f4 + ", 'shape': (1, 512"), as::open, "malformed NPY header"},
        // A hostile header is refused by depth and length, before it could exhaust stack or memory.
        {"deep.npy", npy_preamble(f4 + ", 'shape': " + std::string(60000, '(')), as::open,
         "nested more than 16 levels deep"},
        {"huge.npy", huge, as::open, "NPY header of 65537 bytes (at most 65536 accepted)"},
        {"be.npy", with_data(npy_preamble(npy_dict(">f4", "(2, 512)")), 1024), as::open,
         "expected float32 '<f4' or float64 '<f8', found '>f4'"},
        {"rec.npy",
         with_data(
             npy_preamble("{'descr': [('a', '<f4')], 'fortran_order': False, 'shape': (2,), }"), 2),
         as::open, "found a structured dtype"},
        {"fortran.npy", with_data(npy_preamble(npy_dict("<f4", "(2, 512)", true)), 1024), as::open,
         "array is in Fortran order; save it in C order"},
        {"narrow.npy", with_data(npy_preamble(npy_dict("<f4", "(8, 128)")), 1024), as::open,
         "expected shape (n, 512), found (8, 128)"},
        {"cut.npy", cut, as::open,
         "truncated: shape (2, 512) needs 4096 bytes of data, found 4086"},
        {"extra.npy", extra, as::open, "1 unexpected bytes after the array data"},
        {"empty.npy", npy_preamble(npy_dict("<f4", "(0, 512)")), as::open, "holds no vectors"},
        {"v.txt", text, as::open, "unknown vector file format (expected .npy or .fvecs)"},
        {"d128.fvecs", fvecs(v, 12, 128), as::open, "expected dimension 512, found 128 (vector 0)"},
        {"later.fvecs", later, as::open, "expected dimension 512, found 256 (vector 2)"},
        {"cut.fvecs", fvecs_cut, as::open, "truncated: ends inside vector 2 (1952 bytes of 2052)"},
        {"empty.fvecs", {}, as::open, "holds no vectors"},
        {"missing.npy", {}, as::ids, "cannot open: No such file or directory"},
        {"nan.npy", npy_f32(v, 3), as::rows, "vector 1 holds NaN at component 7"},
        {"inf.npy", npy_f32(inf, 3), as::rows, "vector 2 holds an infinity at component 9"},
        {"f8.npy", big, as::rows, "vector 1 holds an infinity at component 488"},
        {"few.npy", npy_u32({1, 2}), as::ids, "holds 2 ids but the vectors file holds 3 rows"},
        {"zero.npy", npy_u32({1, 0, 2}), as::ids, "id 0 at row 1 (ids must be nonzero)"},
        {"dup.npy", npy_u32({9, 8, 9}), as::ids, "id 9 appears at rows 0 and 2"},
        {"big.npy", ints("<u8", 8, {1, 4294967296, 2}), as::ids, range},
        {"neg.npy", ints("<i2", 2, {1, -1, 2}), as::ids, range},
        {"f.npy", ints("<f4", 4, {1, 2, 3}), as::ids,
         "expected an integer dtype (int8 to int64, uint8 to uint64), found '<f4'"},
        {"col.npy", col, as::ids, "expected shape (n,), found (3, 1)"},
        {"finite.npy", finite, as::rows, ""},
    };
    for (const auto& c : cases) {
        const std::string path = dir.file(c.name);
        if (c.name != std::string("missing.npy")) write_file(path, c.content);
        const std::string e = error_of([&] {
            if (c.how == as::ids) (void)read_ids(path, 3);
            const vector_file f(path);
            std::vector<float> out(f.rows() * 512);
            if (c.how == as::rows) f.read_rows(1, f.rows() - 1, out.data());
        });
        EXPECT_EQ(e.rfind(path + ": ", 0), c.message.empty() ? std::string::npos : 0) << e;
        EXPECT_NE(e.find(c.message), std::string::npos) << e;
    }
}

// json.dump(indent=1, sort_keys=True) of two shards, one sealed; each case breaks it once.
const std::string kPython = R"({
 "format": "orve-sharded",
 "next_shard": 3,
 "settings": {
  "hivf": null,
  "nlist": 16,
  "seed": 7,
  "shard_rows": 1000
 },
 "shards": [
  {"hivf": [6, 5], "name": "shard-000001", "nlist": 16, "rows": 1000, "state": "sealed"},
  {"name": "shard-000002", "state": "open"}
 ],
 "version": 1
})";

TEST(ShardedManifest, MalformedOrHostileManifestsAreRefused) {
    auto with = [](const std::string& from, const std::string& to) {
        std::string s = kPython;
        s.replace(s.find(from), from.size(), to);
        return s;
    };
    EXPECT_NO_THROW(orve::tool::parse_manifest(kPython, "m"));
    const std::string cases[] = {
        "{",
        "[]",
        std::string(100, '['),
        kPython + "x",
        with("orve-sharded", "other"),
        with("\"version\": 1", "\"version\": 2"),
        with("\"shard_rows\": 1000", "\"shard_rows\": 1.5"),
        with("\"shard_rows\": 1000", "\"shard_rows\": 2000000"),
        with("\"shard_rows\": 1000", "\"shard_rows\": \"1000\""),
        with("shard-000002", "../../etc"),
        with("shard-000002", "/tmp/x"),
        with("shard-000002", "shard-000001"),
        with("\"open\"", "\"sealing?\""),
        with("[6, 5]", "[6]"),
        with("\"seed\": 7", "\"seed\": -1"),
        with("\"shards\": [", "\"shards\": {\"a\": ["),
        with("\"name\": \"shard-000002\", ", ""),
        with("\"shard-000002\"", "\"shard-0000\\"),
    };
    for (const std::string& text : cases)
        EXPECT_THROW(orve::tool::parse_manifest(text, "m"), tool_error) << text;
}

}  // namespace
