// Replaying a sidecar file: every live row, in file order, handed to a callback. The file is
// untrusted input; it is read strictly forward in whole rows and nothing past its end is used.
#include <fcntl.h>

#include <cstdlib>

#include "semantic_vector_indexing.h"
#include "sidecar/sidecar_format.h"
#include "sidecar/sidecar_replay.h"
#include "util/c_alloc.h"
#include "util/fd_io.h"
#include "util/unique_fd.h"

namespace sc = orve::sidecar;

namespace orve::sidecar {

namespace {

// Rows per read when memory allows: 64 rows are 128 KB of file, 128 KB of values.
constexpr uint32_t kBlockRows = 64;

// What one read fills: the raw rows, then the live ones decoded and packed together.
struct replay_block {
    uint8_t raw[kBlockRows * kSidecarRowBytes];
    float values[kBlockRows * kDim];
    uint32_t ids[kBlockRows];
    uint32_t positions[kBlockRows];
};

}  // namespace

int32_t replay_rows(int fd, replay_block_fn callback, void* user) {
    // A block too large for a thread's stack comes from the allocator; without one, the walk
    // goes a row at a time through a stack block of one row, with the same rows handed over.
    struct one_row {
        uint8_t raw[kSidecarRowBytes];
        float values[kDim];
        uint32_t id, position;
    };
    orve::c_unique<replay_block> heap(
        static_cast<replay_block*>(std::malloc(sizeof(replay_block))));
    one_row stack_row;
    uint8_t* raw = heap ? heap->raw : stack_row.raw;
    float* values = heap ? heap->values : stack_row.values;
    uint32_t* ids = heap ? heap->ids : &stack_row.id;
    uint32_t* positions = heap ? heap->positions : &stack_row.position;
    const uint32_t per_read = heap ? kBlockRows : 1;

    // Positions stop at 2^32 - 1, far beyond any file a 32-bit row count can describe.
    for (uint64_t first = 0; first < UINT32_MAX;) {
        const uint64_t want = UINT32_MAX - first < per_read ? UINT32_MAX - first : per_read;
        const size_t got =
            pread_full(fd, raw, want * kSidecarRowBytes, row_offset(static_cast<uint32_t>(first)));
        // A short read is the end: of the file, of a partial last row, or of a readable file.
        const uint64_t whole = got / kSidecarRowBytes;
        uint32_t live = 0;
        for (uint64_t i = 0; i < whole; ++i) {
            const uint8_t* row = raw + i * kSidecarRowBytes;
            const uint32_t id = load_u32(row + kRowIdOffset);
            if (row[kRowLiveOffset] == 0 || id == 0) continue;
            decode_values(row + kRowValuesOffset, values + std::size_t{live} * kDim);
            ids[live] = id;
            positions[live] = static_cast<uint32_t>(first + i);
            ++live;
        }
        if (live != 0) {
            const int32_t rc = callback(ids, values, positions, live, user);
            if (rc != 0) return rc;
        }
        if (whole < want) return 0;
        first += whole;
    }
    return 0;
}

}  // namespace orve::sidecar

namespace {

struct load_context {
    orve_vec_sidecar_row_cb callback;
    void* user;
};

int32_t forward_rows(const uint32_t* ids, const float* values, const uint32_t*, uint32_t n,
                     void* user) {
    const auto* ctx = static_cast<const load_context*>(user);
    for (uint32_t i = 0; i < n; ++i) {
        const int32_t rc = ctx->callback(ids[i], values + std::size_t{i} * sc::kDim, ctx->user);
        if (rc != 0) return rc;
    }
    return 0;
}

}  // namespace

// Opened non-blocking so that a path naming a pipe cannot hang the caller waiting for a
// writer; such a path, like anything that is not a regular file, counts as a file with no rows
// (the flag changes nothing for regular files).
extern "C" ORVE_API int32_t orve_vec_sidecar_load(const char* path,
                                                  orve_vec_sidecar_row_cb callback, void* user) {
    if (path == nullptr || callback == nullptr) return -1;

    orve::unique_fd fd(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid() || !orve::is_regular_file(fd.get())) return 0;
    if (sc::validate_header(fd.get()) != 0) return 0;
    load_context ctx{callback, user};
    return sc::replay_rows(fd.get(), forward_rows, &ctx);
}
