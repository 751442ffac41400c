// libFuzzer target: arbitrary bytes as a sidecar file, replayed, opened, read and appended to.
// Checked against the bytes themselves: replay hands over only whole live rows with nonzero ids
// at increasing positions; open keeps a header and the input's whole rows (none when its header
// is foreign); the last row reads back bit for bit, the next does not, and an append follows it.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "semantic_vector_indexing.h"
#include "sidecar/sidecar_format.h"
#include "sidecar/sidecar_replay.h"
#include "util/fd_io.h"

namespace sc = orve::sidecar;

namespace {

struct walk {
    const uint8_t* data;
    uint64_t whole;     // whole rows in the input
    int64_t last = -1;  // previous position handed over
    uint64_t count = 0;
};

void check(bool ok) {
    if (!ok) __builtin_trap();
}

int32_t on_rows(const uint32_t* ids, const float* values, const uint32_t* positions, uint32_t n,
                void* user) {
    auto* w = static_cast<walk*>(user);
    check(n > 0);
    for (uint32_t k = 0; k < n; ++k) {
        const uint32_t id = ids[k], position = positions[k];
        check(id != 0 && static_cast<int64_t>(position) > w->last && position < w->whole);
        const uint8_t* row = w->data + sc::row_offset(position);
        check(row[sc::kRowLiveOffset] != 0 && sc::load_u32(row + sc::kRowIdOffset) == id);
        float decoded[sc::kDim];
        sc::decode_values(row + sc::kRowValuesOffset, decoded);
        check(std::memcmp(values + std::size_t{k} * sc::kDim, decoded, sizeof decoded) == 0);
        w->last = position;
        ++w->count;
    }
    return 0;
}

int32_t count_row(uint32_t id, const float*, void* user) {
    check(id != 0);
    ++*static_cast<uint64_t*>(user);
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int fd = memfd_create("sidecar_fuzz", MFD_CLOEXEC);  // reached through /proc
    if (fd < 0 || ftruncate(fd, 0) != 0) return 0;
    if (size > 0 && pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);

    uint8_t head[sc::kSidecarHeaderBytes] = {};
    if (size >= sizeof head) std::memcpy(head, data, sizeof head);
    const bool valid = size >= sizeof head && sc::header_matches(head);
    const uint64_t whole = valid ? sc::whole_rows(size) : 0;

    // Replay, through the public walk and the positional one.
    uint64_t loaded = 0;
    check(orve_vec_sidecar_load(path, count_row, &loaded) == 0);
    walk w{data, whole};
    if (valid) check(sc::replay_rows(fd, on_rows, &w) == 0);
    check(w.count == loaded);

    orve_vec_sidecar* h = nullptr;
    check(orve_vec_sidecar_open(path, &h) == 0);
    check(orve::file_length(h->fd) ==
          static_cast<int64_t>(sc::row_offset(0) + whole * sc::kSidecarRowBytes));
    float out[sc::kDim];
    if (whole > 0) {
        const uint32_t last = static_cast<uint32_t>(whole - 1);
        check(orve_vec_sidecar_read_row_floats(h, last, out) == 0);
        float decoded[sc::kDim];
        sc::decode_values(data + sc::row_values_offset(last), decoded);
        check(std::memcmp(out, decoded, sizeof out) == 0);
    }
    check(orve_vec_sidecar_read_row_floats(h, static_cast<uint32_t>(whole), out) == -1);
    for (float& v : out) v = 0.5f;
    check(orve_vec_sidecar_append(h, 7, out) == 0);
    check(orve::file_length(h->fd) ==
          static_cast<int64_t>(sc::row_offset(0) + (whole + 1) * sc::kSidecarRowBytes));
    orve_vec_sidecar_close(h);
    return 0;
}
