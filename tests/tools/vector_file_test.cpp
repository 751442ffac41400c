// The tool's readers against well-formed and malformed .npy and .fvecs files written here.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "../../tools/orve/tool_error.h"
#include "../../tools/orve/vector_file.h"
#include "tool_test_files.h"

namespace {

using namespace orve_tool_test;
using orve::tool::npy_header;
using orve::tool::parse_npy_header;
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

std::string open_error(const std::string& path) {
    return error_of([&] { vector_file f(path); });
}

TEST(NpyHeader, DecodesVersionOneAndTwoPreambles) {
    for (int major : {1, 2}) {
        const bytes b =
            npy_preamble("{'descr': '<f4', 'fortran_order': False, 'shape': (3, 512), }", major);
        const npy_header h = parse_npy_header(b.data(), b.size(), "x.npy");
        EXPECT_EQ(h.major, major);
        EXPECT_EQ(h.minor, 0);
        EXPECT_EQ(h.descr, "<f4");
        EXPECT_FALSE(h.fortran_order);
        EXPECT_EQ(h.shape, (std::vector<uint64_t>{3, 512}));
        // The helper pads the preamble to 64 bytes, so the data starts right after it.
        EXPECT_EQ(h.data_offset, b.size());
        EXPECT_EQ(h.data_offset % 64, 0u);
    }
}

TEST(NpyHeader, AcceptsTheFormsNumpyHasWritten) {
    // Key order is free, double quotes are legal, and Python 2 wrote longs with an L suffix.
    const bytes b =
        npy_preamble("{\"shape\": (2L, 512L), \"fortran_order\": True, \"descr\": \"<u4\"}");
    const npy_header h = parse_npy_header(b.data(), b.size(), "x.npy");
    EXPECT_EQ(h.descr, "<u4");
    EXPECT_TRUE(h.fortran_order);
    EXPECT_EQ(h.shape, (std::vector<uint64_t>{2, 512}));
    const bytes scalar = npy_preamble(npy_dict("<f4", "()"));
    EXPECT_TRUE(parse_npy_header(scalar.data(), scalar.size(), "s.npy").shape.empty());
}

TEST(NpyHeader, RejectsBrokenPreambles) {
    auto err = [](bytes b) {
        return error_of([&] { parse_npy_header(b.data(), b.size(), "f.npy"); });
    };
    EXPECT_EQ(err({'P', 'K', 3, 4, 0, 0, 0, 0, 0, 0}), "f.npy: not an NPY file (bad magic)");
    EXPECT_EQ(err({0x93, 'N', 'U', 'M'}), "f.npy: not an NPY file (bad magic)");
    EXPECT_EQ(err({0x93, 'N', 'U', 'M', 'P', 'Y', 1}), "f.npy: truncated NPY header");

    bytes v4 = npy_preamble(npy_dict("<f4", "(1, 512)"));
    v4[6] = 4;
    EXPECT_EQ(err(v4), "f.npy: unsupported NPY version 4.0");

    // Header length claims more bytes than the file has.
    bytes cut = npy_preamble(npy_dict("<f4", "(1, 512)"));
    cut.resize(40);
    EXPECT_EQ(err(cut), "f.npy: truncated NPY header");

    EXPECT_NE(
        err(npy_preamble("{'descr': '<f4', 'fortran_order': False}")).find("no 'shape' entry"),
        std::string::npos);
    EXPECT_NE(
        err(npy_preamble("{'descr': '<f4', 'fortran_order': False, 'shape': (1, 512), 'x': 1}"))
            .find("unexpected key 'x'"),
        std::string::npos);
    EXPECT_NE(err(npy_preamble("{'descr': '<f4', 'fortran_order': False, 'shape': (-1, 512)}"))
                  .find("negative number"),
              std::string::npos);
    EXPECT_NE(err(npy_preamble("{'descr': '<f4', 'fortran_order': 0, 'shape': (1, 512)}"))
                  .find("'fortran_order' is not True or False"),
              std::string::npos);
    EXPECT_NE(err(npy_preamble("{'descr': '<f4', 'shape': (1, 512")).find("malformed NPY header"),
              std::string::npos);

    // A hostile header is refused by its nesting depth and its length, before the parser's
    // recursion or allocation could exhaust the stack or memory.
    const std::string deep(60000, '(');
    EXPECT_EQ(err(npy_preamble("{'descr': '<f4', 'fortran_order': False, 'shape': " + deep)),
              "f.npy: malformed NPY header: nested more than 16 levels deep");
    bytes huge = {0x93, 'N', 'U', 'M', 'P', 'Y', 2, 0};
    put_le32(huge, 65537);
    huge.resize(huge.size() + 65537, ' ');
    EXPECT_EQ(err(huge), "f.npy: NPY header of 65537 bytes (at most 65536 accepted)");
}

TEST(NpyVectors, ReadsEveryValueOfVersionOneAndTwoFiles) {
    scratch_dir dir;
    const std::vector<float> v = ramp(3);
    for (int major : {1, 2}) {
        const std::string path = dir.file("v" + std::to_string(major) + ".npy");
        write_file(path, npy_f32(v, 3, major));
        const vector_file f(path);
        ASSERT_EQ(f.rows(), 3u);
        EXPECT_EQ(f.format(), orve::tool::vector_format::npy);
        std::vector<float> out(3 * 512, 0.0f);
        f.read_rows(0, 3, out.data());
        EXPECT_EQ(out, v);
        // A window in the middle starts at the right row.
        std::vector<float> one(512);
        f.read_rows(2, 1, one.data());
        EXPECT_EQ(one, std::vector<float>(v.begin() + 1024, v.end()));
    }
}

TEST(NpyVectors, NamesTheFileAndTheProblem) {
    scratch_dir dir;
    const std::vector<float> v = ramp(2);
    auto write_and_open = [&](const std::string& name, const bytes& b) {
        write_file(dir.file(name), b);
        return open_error(dir.file(name));
    };
    // float64 is converted (as the Python package does); a value beyond float range would
    // become an infinity and is refused like one.
    bytes f8 = npy_preamble(npy_dict("<f8", "(2, 512)"));
    for (size_t i = 0; i < 1024; ++i) {
        const double d = i == 1000 ? 1e300 : double(v[i]);
        const auto* p = reinterpret_cast<const uint8_t*>(&d);
        f8.insert(f8.end(), p, p + 8);
    }
    write_file(dir.file("f8.npy"), f8);
    const vector_file f(dir.file("f8.npy"));
    std::vector<float> back(512);
    f.read_rows(0, 1, back.data());
    EXPECT_EQ(back, std::vector<float>(v.begin(), v.begin() + 512));
    EXPECT_EQ(error_of([&] { f.read_rows(1, 1, back.data()); }),
              dir.file("f8.npy") + ": vector 1 holds an infinity at component 488");

    bytes be = npy_preamble(npy_dict(">f4", "(2, 512)"));
    be.resize(be.size() + 2 * 512 * 4);
    EXPECT_EQ(write_and_open("be.npy", be), dir.file("be.npy") +
                                                ": expected float32 '<f4' or float64 '<f8', "
                                                "found '>f4'");

    bytes rec = npy_preamble("{'descr': [('a', '<f4')], 'fortran_order': False, 'shape': (2,), }");
    rec.resize(rec.size() + 8);
    EXPECT_EQ(write_and_open("rec.npy", rec),
              dir.file("rec.npy") +
                  ": expected float32 '<f4' or float64 '<f8', found a structured dtype");

    bytes fortran = npy_preamble(npy_dict("<f4", "(2, 512)", true));
    put_floats(fortran, v.data(), v.size());
    EXPECT_EQ(write_and_open("f.npy", fortran),
              dir.file("f.npy") + ": array is in Fortran order; save it in C order");

    bytes narrow = npy_preamble(npy_dict("<f4", "(8, 128)"));
    put_floats(narrow, v.data(), 8 * 128);
    EXPECT_EQ(write_and_open("narrow.npy", narrow),
              dir.file("narrow.npy") + ": expected shape (n, 512), found (8, 128)");
    bytes flat = npy_preamble(npy_dict("<f4", "(512,)"));
    put_floats(flat, v.data(), 512);
    EXPECT_EQ(write_and_open("flat.npy", flat),
              dir.file("flat.npy") + ": expected shape (n, 512), found (512,)");
    bytes cube = npy_preamble(npy_dict("<f4", "(1, 2, 512)"));
    put_floats(cube, v.data(), 1024);
    EXPECT_EQ(write_and_open("cube.npy", cube),
              dir.file("cube.npy") + ": expected shape (n, 512), found (1, 2, 512)");

    bytes cut = npy_f32(v, 2);
    cut.resize(cut.size() - 10);
    EXPECT_EQ(
        write_and_open("cut.npy", cut),
        dir.file("cut.npy") + ": truncated: shape (2, 512) needs 4096 bytes of data, found 4086");

    bytes extra = npy_f32(v, 2);
    extra.push_back(0);
    EXPECT_EQ(write_and_open("extra.npy", extra),
              dir.file("extra.npy") + ": 1 unexpected bytes after the array data");

    EXPECT_EQ(write_and_open("empty.npy", npy_preamble(npy_dict("<f4", "(0, 512)"))),
              dir.file("empty.npy") + ": holds no vectors");
    EXPECT_EQ(write_and_open("text.npy", bytes{'h', 'i'}),
              dir.file("text.npy") + ": not an NPY file (bad magic)");
    EXPECT_EQ(open_error(dir.file("missing.npy")),
              dir.file("missing.npy") + ": cannot open: No such file or directory");
    EXPECT_EQ(write_and_open("v.bin", npy_f32(v, 2)), "");  // recognised by its magic
    EXPECT_EQ(write_and_open("v.txt", bytes{'1', ' ', '2'}),
              dir.file("v.txt") + ": unknown vector file format (expected .npy or .fvecs)");
}

TEST(NpyVectors, RefusesNonFiniteValuesAtTheRowThatHoldsThem) {
    scratch_dir dir;
    std::vector<float> v = ramp(3);
    v[512 + 7] = std::numeric_limits<float>::quiet_NaN();
    v[1024 + 9] = -std::numeric_limits<float>::infinity();
    write_file(dir.file("nan.npy"), npy_f32(v, 3));
    const vector_file f(dir.file("nan.npy"));
    std::vector<float> out(3 * 512);
    EXPECT_EQ(error_of([&] { f.read_rows(0, 1, out.data()); }), "");
    EXPECT_EQ(error_of([&] { f.read_rows(0, 3, out.data()); }),
              dir.file("nan.npy") + ": vector 1 holds NaN at component 7");
    EXPECT_EQ(error_of([&] { f.read_rows(2, 1, out.data()); }),
              dir.file("nan.npy") + ": vector 2 holds an infinity at component 9");
}

TEST(Fvecs, ReadsEveryValue) {
    scratch_dir dir;
    const std::vector<float> v = ramp(4);
    write_file(dir.file("v.fvecs"), fvecs(v, 4));
    const vector_file f(dir.file("v.fvecs"));
    ASSERT_EQ(f.rows(), 4u);
    EXPECT_EQ(f.format(), orve::tool::vector_format::fvecs);
    std::vector<float> out(4 * 512);
    f.read_rows(0, 4, out.data());
    EXPECT_EQ(out, v);
    std::vector<float> last(512);
    f.read_rows(3, 1, last.data());
    EXPECT_EQ(last, std::vector<float>(v.begin() + 3 * 512, v.end()));
}

TEST(Fvecs, RejectsWrongDimensionsAndTruncation) {
    scratch_dir dir;
    const std::vector<float> v = ramp(3);
    write_file(dir.file("d128.fvecs"), fvecs(v, 12, 128));
    EXPECT_EQ(open_error(dir.file("d128.fvecs")),
              dir.file("d128.fvecs") + ": expected dimension 512, found 128 (vector 0)");

    bytes later = fvecs(v, 3);
    later[2 * 2052 + 1] = 1;  // vector 2's little-endian dimension becomes 0x100
    write_file(dir.file("later.fvecs"), later);
    EXPECT_EQ(open_error(dir.file("later.fvecs")),
              dir.file("later.fvecs") + ": expected dimension 512, found 256 (vector 2)");

    bytes cut = fvecs(v, 3);
    cut.resize(cut.size() - 100);
    write_file(dir.file("cut.fvecs"), cut);
    EXPECT_EQ(open_error(dir.file("cut.fvecs")),
              dir.file("cut.fvecs") + ": truncated: ends inside vector 2 (1952 bytes of 2052)");

    write_file(dir.file("empty.fvecs"), {});
    EXPECT_EQ(open_error(dir.file("empty.fvecs")), dir.file("empty.fvecs") + ": holds no vectors");
}

TEST(Ids, ReadsNonzeroDistinctIdsOfTheRightCount) {
    scratch_dir dir;
    write_file(dir.file("ids.npy"), npy_u32({7, 3, 4000000000u}));
    EXPECT_EQ(read_ids(dir.file("ids.npy"), 3), (std::vector<uint32_t>{7, 3, 4000000000u}));

    auto err = [&](const std::string& name, const bytes& b, uint64_t rows) {
        write_file(dir.file(name), b);
        return error_of([&] { read_ids(dir.file(name), rows); });
    };
    EXPECT_EQ(err("few.npy", npy_u32({1, 2}), 3),
              dir.file("few.npy") + ": holds 2 ids but the vectors file holds 3 rows");
    EXPECT_EQ(err("zero.npy", npy_u32({1, 0, 2}), 3),
              dir.file("zero.npy") + ": id 0 at row 1 (ids must be nonzero)");
    EXPECT_EQ(err("dup.npy", npy_u32({9, 8, 9}), 3),
              dir.file("dup.npy") + ": id 9 appears at rows 0 and 2");
    // Any integer dtype numpy writes is read, widened without loss, then range-checked.
    auto ints = [](const char* descr, uint32_t size, std::vector<int64_t> values) {
        bytes b = npy_preamble(npy_dict(descr, "(" + std::to_string(values.size()) + ",)"));
        for (int64_t x : values) {
            for (uint32_t i = 0; i < size; ++i) b.push_back(uint8_t(uint64_t(x) >> (8 * i)));
        }
        return b;
    };
    EXPECT_EQ(read_ids((write_file(dir.file("i8.npy"), ints("<i8", 8, {5, 4294967295, 2})),
                        dir.file("i8.npy")),
                       3),
              (std::vector<uint32_t>{5, 4294967295u, 2}));
    EXPECT_EQ(
        read_ids((write_file(dir.file("u1.npy"), ints("|u1", 1, {255, 1})), dir.file("u1.npy")), 2),
        (std::vector<uint32_t>{255, 1}));
    const std::string range = ": id at row 1 is outside 1 to 4294967295 (node ids are 32-bit)";
    EXPECT_EQ(err("big.npy", ints("<u8", 8, {1, 4294967296}), 2), dir.file("big.npy") + range);
    EXPECT_EQ(err("neg.npy", ints("<i2", 2, {1, -1}), 2), dir.file("neg.npy") + range);
    EXPECT_EQ(err("f.npy", ints("<f4", 4, {1}), 1),
              dir.file("f.npy") +
                  ": expected an integer dtype (int8 to int64, uint8 to uint64), found '<f4'");
    bytes col = npy_preamble(npy_dict("<u4", "(3, 1)"));
    col.resize(col.size() + 12);
    EXPECT_EQ(err("col.npy", col, 3), dir.file("col.npy") + ": expected shape (n,), found (3, 1)");
}

}  // namespace
