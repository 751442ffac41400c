// Replaying a sidecar file: every live row, in file order, handed to a callback. The file is
// untrusted input; it is read strictly forward in whole rows and nothing past its end is used.
#include <fcntl.h>

#include "semantic_vector_indexing.h"
#include "sidecar/sidecar_format.h"
#include "sidecar/sidecar_replay.h"
#include "util/fd_io.h"
#include "util/unique_fd.h"

namespace sc = orve::sidecar;

namespace orve::sidecar {

int32_t replay_rows(int fd, replay_row_fn callback, void* user) {
    uint8_t row[kSidecarRowBytes];
    float values[kDim];
    for (uint32_t position = 0;; ++position) {
        // A short read is the end: of the file, of a partial last row, or of a readable file.
        // Positions stop at 2^32 - 1, far beyond any file a 32-bit row count can describe.
        if (position == UINT32_MAX ||
            pread_full(fd, row, sizeof row, row_offset(position)) != sizeof row) {
            return 0;
        }
        const uint32_t id = load_u32(row + kRowIdOffset);
        if (row[kRowLiveOffset] == 0 || id == 0) continue;
        decode_values(row + kRowValuesOffset, values);
        const int32_t rc = callback(id, values, position, user);
        if (rc != 0) return rc;
    }
}

}  // namespace orve::sidecar

namespace {

struct load_context {
    orve_vec_sidecar_row_cb callback;
    void* user;
};

int32_t forward_row(uint32_t id, const float* values, uint32_t, void* user) {
    const auto* ctx = static_cast<const load_context*>(user);
    return ctx->callback(id, values, ctx->user);
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
    return sc::replay_rows(fd.get(), forward_row, &ctx);
}
