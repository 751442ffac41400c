// The tool's readers against well-formed and malformed .npy and .fvecs files written here.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

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
    for (float x : v) {
        const double d = x;
        put(b, &d);
    }
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

TEST(VectorFile, RefusesMalformedFilesNamingTheFileAndTheProblem) {
    scratch_dir dir;
    const std::vector<float> v = ramp(3);
    auto with_data = [&](bytes b, size_t floats) {
        put(b, v.data(), floats);
        return b;
    };
    bytes v4 = npy_f32(v, 1);
    v4[6] = 4;
    bytes short_header = npy_f32(v, 1);
    short_header.resize(40);
    bytes huge = {0x93, 'N', 'U', 'M', 'P', 'Y', 2, 0};
    const uint32_t huge_len = 65537;
    put(huge, &huge_len);
    huge.resize(huge.size() + 65537, ' ');
    const std::vector<float> two = ramp(2);
    bytes cut = npy_f32(two, 2);
    cut.resize(cut.size() - 10);
    bytes extra = npy_f32(two, 2);
    extra.push_back(0);
    bytes later = fvecs(v, 3);
    later[2 * 2052 + 1] = 1;  // vector 2's little-endian dimension becomes 0x100
    bytes fvecs_cut = fvecs(v, 3);
    fvecs_cut.resize(fvecs_cut.size() - 100);
    const std::string f4 = "{'descr': '<f4', 'fortran_order': False";
    const struct {
        const char* name;
        bytes content;
        std::string message;
    } cases[] = {
        {"zip.npy", {'P', 'K', 3, 4, 0, 0, 0, 0, 0, 0}, "not an NPY file (bad magic)"},
        {"v4.npy", v4, "unsupported NPY version 4.0"},
        {"short.npy", short_header, "truncated NPY header"},
        {"noshape.npy", npy_preamble(f4 + "}"), "no 'shape' entry"},
        {"key.npy", npy_preamble(f4 + ", 'shape': (1, 512), 'x': 1}"), "unexpected key 'x'"},
        {"neg.npy", npy_preamble(f4 + ", 'shape': (-1, 512)}"), "negative number"},
        {"fo.npy", npy_preamble("{'descr': '<f4', 'fortran_order': 0, 'shape': (1, 512)}"),
         "'fortran_order' is not True or False"},
        {"open.npy", npy_preamble(f4 + ", 'shape': (1, 512"), "malformed NPY header"},
        // A hostile header is refused by its nesting depth and its length, before recursion
        // or allocation could exhaust the stack or memory.
        {"deep.npy", npy_preamble(f4 + ", 'shape': " + std::string(60000, '(')),
         "nested more than 16 levels deep"},
        {"huge.npy", huge, "NPY header of 65537 bytes (at most 65536 accepted)"},
        {"be.npy", with_data(npy_preamble(npy_dict(">f4", "(2, 512)")), 1024),
         "expected float32 '<f4' or float64 '<f8', found '>f4'"},
        {"rec.npy",
         with_data(npy_preamble("{'descr': [('a', '<f4')], 'fortran_order': False, "
                                "'shape': (2,), }"),
                   2),
         "found a structured dtype"},
        {"fortran.npy", with_data(npy_preamble(npy_dict("<f4", "(2, 512)", true)), 1024),
         "array is in Fortran order; save it in C order"},
        {"narrow.npy", with_data(npy_preamble(npy_dict("<f4", "(8, 128)")), 1024),
         "expected shape (n, 512), found (8, 128)"},
        {"flat.npy", with_data(npy_preamble(npy_dict("<f4", "(512,)")), 512),
         "expected shape (n, 512), found (512,)"},
        {"cut.npy", cut, "truncated: shape (2, 512) needs 4096 bytes of data, found 4086"},
        {"extra.npy", extra, "1 unexpected bytes after the array data"},
        {"empty.npy", npy_preamble(npy_dict("<f4", "(0, 512)")), "holds no vectors"},
        {"v.txt", {'1', ' ', '2'}, "unknown vector file format (expected .npy or .fvecs)"},
        {"d128.fvecs", fvecs(v, 12, 128), "expected dimension 512, found 128 (vector 0)"},
        {"later.fvecs", later, "expected dimension 512, found 256 (vector 2)"},
        {"cut.fvecs", fvecs_cut, "truncated: ends inside vector 2 (1952 bytes of 2052)"},
        {"empty.fvecs", {}, "holds no vectors"},
    };
    for (const auto& c : cases) {
        write_file(dir.file(c.name), c.content);
        const std::string e = error_of([&] { vector_file f(dir.file(c.name)); });
        EXPECT_EQ(e.rfind(dir.file(c.name) + ": ", 0), 0u) << e;
        EXPECT_NE(e.find(c.message), std::string::npos) << e;
    }
    EXPECT_EQ(error_of([&] { vector_file f(dir.file("missing.npy")); }),
              dir.file("missing.npy") + ": cannot open: No such file or directory");
}

TEST(VectorFile, RefusesNonFiniteValuesAtTheRowThatHoldsThem) {
    scratch_dir dir;
    std::vector<float> v = ramp(3);
    v[512 + 7] = std::numeric_limits<float>::quiet_NaN();
    v[1024 + 9] = -std::numeric_limits<float>::infinity();
    write_file(dir.file("nan.npy"), npy_f32(v, 3));
    // float64 beyond float range would become an infinity and is refused like one.
    bytes big = f8(std::vector<float>(512, 1.0f), 1);
    const double too_big = 1e300;
    std::memcpy(&big[big.size() - 24 * 8], &too_big, 8);  // component 488
    write_file(dir.file("f8.npy"), big);
    const vector_file f(dir.file("nan.npy")), g(dir.file("f8.npy"));
    std::vector<float> out(3 * 512);
    EXPECT_EQ(error_of([&] { f.read_rows(0, 1, out.data()); }), "");
    EXPECT_EQ(error_of([&] { f.read_rows(0, 3, out.data()); }),
              dir.file("nan.npy") + ": vector 1 holds NaN at component 7");
    EXPECT_EQ(error_of([&] { f.read_rows(2, 1, out.data()); }),
              dir.file("nan.npy") + ": vector 2 holds an infinity at component 9");
    EXPECT_EQ(error_of([&] { g.read_rows(0, 1, out.data()); }),
              dir.file("f8.npy") + ": vector 0 holds an infinity at component 488");
}

TEST(Ids, ReadsAnyIntegerDtypeAndRefusesBadIdsByRow) {
    scratch_dir dir;
    // Any integer dtype numpy writes is read, widened without loss, then range-checked.
    const struct {
        const char* name;
        bytes content;
        std::vector<uint32_t> ids;
    } good[] = {{"u4.npy", npy_u32({7, 3, 4000000000u}), {7, 3, 4000000000u}},
                {"i8.npy", ints("<i8", 8, {5, 4294967295, 2}), {5, 4294967295u, 2}},
                {"u1.npy", ints("|u1", 1, {255, 1, 9}), {255, 1, 9}}};
    for (const auto& g : good) {
        write_file(dir.file(g.name), g.content);
        EXPECT_EQ(read_ids(dir.file(g.name), 3), g.ids) << g.name;
    }
    bytes col = npy_preamble(npy_dict("<u4", "(3, 1)"));
    col.resize(col.size() + 12);
    const std::string range = "id at row 1 is outside 1 to 4294967295 (node ids are 32-bit)";
    const struct {
        const char* name;
        bytes content;
        std::string message;
    } bad[] = {
        {"few.npy", npy_u32({1, 2}), "holds 2 ids but the vectors file holds 3 rows"},
        {"zero.npy", npy_u32({1, 0, 2}), "id 0 at row 1 (ids must be nonzero)"},
        {"dup.npy", npy_u32({9, 8, 9}), "id 9 appears at rows 0 and 2"},
        {"big.npy", ints("<u8", 8, {1, 4294967296, 2}), range},
        {"neg.npy", ints("<i2", 2, {1, -1, 2}), range},
        {"f.npy", ints("<f4", 4, {1, 2, 3}),
         "expected an integer dtype (int8 to int64, uint8 to uint64), found '<f4'"},
        {"col.npy", col, "expected shape (n,), found (3, 1)"},
    };
    for (const auto& b : bad) {
        write_file(dir.file(b.name), b.content);
        EXPECT_EQ(error_of([&] { read_ids(dir.file(b.name), 3); }),
                  dir.file(b.name) + ": " + b.message);
    }
}

}  // namespace
