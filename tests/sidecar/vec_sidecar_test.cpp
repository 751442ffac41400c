// The sidecar file against encodings spelled out here, byte for byte; reader files by hand.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>

#include "core/system.h"
#include "support/system_fixture.h"
#include "support/test_math.h"

namespace {

using bytes = std::vector<uint8_t>;
using test_files::read_file;
using test_files::write_file;
using test_math::bits;

constexpr size_t kRow = 2056;

// "ORVEVECA", version 1, dim 512 (0x200), row size 2056 (0x808), 12 zero bytes.
const bytes kFreshHeader = {'O', 'R', 'V', 'E', 'V', 'E', 'C', 'A', 1, 0, 0, 0, 0, 2, 0, 0,
                            8,   8,   0,   0,   0,   0,   0,   0,   0, 0, 0, 0, 0, 0, 0, 0};

// Buffers are sized up front: growing one byte by byte made GCC 12 report a false overflow.
void put_le32(bytes& b, size_t at, uint32_t v) {
    for (size_t i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

bytes header(const char* magic, uint32_t version, uint32_t dim, uint32_t row_bytes) {
    bytes b(32, 0);
    std::memcpy(b.data(), magic, 8);
    const uint32_t fields[] = {version, dim, row_bytes};
    for (size_t i = 0; i < 3; ++i) put_le32(b, 8 + 4 * i, fields[i]);
    return b;
}

bytes row(uint32_t id, uint8_t live, const std::vector<float>& v) {
    bytes b(8 + 4 * v.size(), 0);
    put_le32(b, 0, id);
    b[4] = live;
    for (size_t i = 0; i < v.size(); ++i) put_le32(b, 8 + 4 * i, bits(v[i]));
    return b;
}

// Distinct per seed, with a negative zero and a NaN payload that only a bit-exact trip keeps.
std::vector<float> vec(float seed) {
    std::vector<float> v(512);
    for (int i = 0; i < 512; ++i) v[i] = seed + 0.25f * static_cast<float>(i) - 40.0f;
    v[0] = -0.0f;
    v[1] = std::bit_cast<float>(0x7FC01234u);
    return v;
}

bytes cat(std::initializer_list<bytes> parts) {
    bytes out;
    for (const bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

void expect_same_bits(const float* got, const std::vector<float>& want) {
    for (int i = 0; i < 512; ++i) ASSERT_EQ(bits(got[i]), bits(want[i])) << "component " << i;
}

struct collected {
    std::vector<uint32_t> ids;
    std::vector<std::vector<float>> values;
    size_t stop_at = 0;  // 0: never stop
    int32_t stop_value = 0;
};

int32_t collect(uint32_t id, const float* values, void* user) {
    auto* c = static_cast<collected*>(user);
    c->ids.push_back(id);
    c->values.emplace_back(values, values + 512);
    return c->ids.size() == c->stop_at ? c->stop_value : 0;
}

collected load(const std::string& p, int32_t* rc, size_t stop_at = 0, int32_t stop_value = 0) {
    collected c{{}, {}, stop_at, stop_value};
    *rc = orve_vec_sidecar_load(p.c_str(), collect, &c);
    return c;
}

// What load hands over from a file as it lies (unchanged), and the file once opened and given two
// rows: foreign or short headers start over, reserved header bytes stay, a torn last row is cut so
// new rows keep their numbers, dead rows and id 0 are skipped by load but keep their place.
TEST(SidecarFile, LoadAndOpenThenAppendOnEveryKindOfFile) {
    test_files::scratch_dir dir;
    const bytes one_row = row(1, 1, vec(1));
    const bytes two_rows = cat({kFreshHeader, one_row, row(2, 1, vec(2))});
    const bytes torn = row(3, 1, vec(3)), head31(kFreshHeader.begin(), kFreshHeader.begin() + 31);
    const bytes torn_file = cat({two_rows, bytes(torn.begin(), torn.begin() + 1000)});
    bytes reserved = kFreshHeader;
    std::fill(reserved.begin() + 20, reserved.end(), 0xFF);
    const bytes mixed = cat(
        {kFreshHeader, row(5, 1, vec(5)), row(6, 0, vec(6)), row(0, 1, vec(0)), row(7, 2, vec(7))});
    struct file_case {
        const char* name;
        bool exists;
        bytes on_disk;
        std::vector<uint32_t> loaded;
        bytes kept;  // what stays in front of the appended rows
    };
    const std::vector<file_case> cases = {
        {"missing", false, {}, {}, kFreshHeader},
        {"empty", true, {}, {}, kFreshHeader},
        {"short", true, bytes(10, 'x'), {}, kFreshHeader},
        {"31 header bytes", true, head31, {}, kFreshHeader},
        {"row size", true, cat({header("ORVEVECA", 1, 512, 2057), one_row}), {}, kFreshHeader},
        {"magic", true, cat({header("ORVEVECB", 1, 512, 2056), one_row}), {}, kFreshHeader},
        {"version", true, cat({header("ORVEVECA", 2, 512, 2056), one_row}), {}, kFreshHeader},
        {"dimension", true, cat({header("ORVEVECA", 1, 256, 2056), one_row}), {}, kFreshHeader},
        {"reserved bytes", true, cat({reserved, one_row}), {1}, cat({reserved, one_row})},
        {"torn last row", true, torn_file, {1, 2}, two_rows},
        {"dead and id 0", true, mixed, {5, 7}, mixed},
    };
    for (const file_case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string p = dir.file(c.name);
        if (c.exists) write_file(p, c.on_disk);
        int32_t rc = -9;
        const collected got = load(p, &rc);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(got.ids, c.loaded);
        for (size_t i = 0; i < got.ids.size(); ++i)
            expect_same_bits(got.values[i].data(), vec(c.loaded[i]));
        EXPECT_TRUE(!c.exists || read_file(p) == c.on_disk);  // load changes nothing

        orve_vec_sidecar* h = nullptr;
        ASSERT_EQ(orve_vec_sidecar_open(p.c_str(), &h), 0);
        const uint32_t first = static_cast<uint32_t>((c.kept.size() - 32) / kRow);
        ASSERT_EQ(orve_vec_sidecar_append(h, 0x01020304u, vec(8).data()), 0);
        float out[512];
        ASSERT_EQ(orve_vec_sidecar_read_row_floats(h, first, out), 0);  // keeps the position
        expect_same_bits(out, vec(8));
        ASSERT_EQ(orve_vec_sidecar_append(h, 9, vec(9).data()), 0);
        orve_vec_sidecar_close(h);
        EXPECT_EQ(read_file(p), cat({c.kept, row(0x01020304u, 1, vec(8)), row(9, 1, vec(9))}));
    }
    // The callback's stop value ends the walk and is returned.
    int32_t rc = -9;
    EXPECT_EQ(load(dir.file("dead and id 0"), &rc, 1, -3).ids, std::vector<uint32_t>{5});
    EXPECT_EQ(rc, -3);
}

// One writer at a time: while a handle or an attachment holds the file, opening it again, from
// this process or another, fails and leaves it untouched; close releases it.
TEST(SidecarFile, SecondWriterIsRefusedUntilTheFirstCloses) {
    test_files::scratch_dir dir;
    const std::string p = dir.file("locked.vec");
    orve_vec_sidecar* h = nullptr;
    ASSERT_EQ(orve_vec_sidecar_open(p.c_str(), &h), 0);
    ASSERT_EQ(orve_vec_sidecar_append(h, 1, vec(1).data()), 0);
    const bytes one = cat({kFreshHeader, row(1, 1, vec(1))});

    orve_vec_sidecar* second = nullptr;
    EXPECT_EQ(orve_vec_sidecar_open(p.c_str(), &second), -1);
    EXPECT_EQ(second, nullptr);
    {
        orve_test::system_block b("8");
        EXPECT_EQ(semantic_vector_indexing_system_open_sidecar(b.get(), p.c_str()), -1);
        EXPECT_EQ(b.get()->node_count, 0u);  // nothing replayed either
    }
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        orve_vec_sidecar* c = nullptr;
        _exit(orve_vec_sidecar_open(p.c_str(), &c) == -1 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "another process opened it";
    EXPECT_EQ(read_file(p), one);

    orve_vec_sidecar_close(h);
    orve_test::system_block b("8");
    ASSERT_EQ(semantic_vector_indexing_system_open_sidecar(b.get(), p.c_str()), 0);
    EXPECT_EQ(b.get()->node_count, 1u);
    EXPECT_EQ(orve_vec_sidecar_open(p.c_str(), &second), -1);  // the attachment holds it now
}

// A directory, a missing one and a pipe hold no sidecar; load sees no rows (nor waits on the pipe).
TEST(SidecarFile, UnusablePathsFailWithoutSideEffects) {
    test_files::scratch_dir dir;
    orve_vec_sidecar no_file{};
    const std::string fifo = dir.file("pipe");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& bad : {dir.path(), dir.file("missing/x.vec"), fifo}) {
        orve_vec_sidecar* sentinel = &no_file;
        EXPECT_EQ(orve_vec_sidecar_open(bad.c_str(), &sentinel), -1) << bad;
        EXPECT_EQ(sentinel, &no_file) << bad;
        int32_t rc = -9;
        EXPECT_TRUE(load(bad, &rc).ids.empty()) << bad;
        EXPECT_EQ(rc, 0) << bad;
    }
}

}  // namespace
