// Replaying a sidecar file: every live row, in file order, handed to a callback. The file is
// untrusted input; it is read strictly forward in whole rows and nothing past its end is used.
#include <fcntl.h>

#include "semantic_vector_indexing.h"
#include "sidecar/fd_io.h"
#include "sidecar/sidecar_format.h"

namespace sc = orve::sidecar;

// Opened non-blocking so that a path naming a pipe cannot hang the caller waiting for a
// writer; such a path, like anything that is not a regular file, counts as a file with no rows
// (the flag changes nothing for regular files).
extern "C" ORVE_API int32_t orve_vec_sidecar_load(const char* path,
                                                  orve_vec_sidecar_row_cb callback, void* user) {
    if (path == nullptr || callback == nullptr) return -1;

    sc::unique_fd fd(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid() || !sc::is_regular_file(fd.get())) return 0;
    if (sc::validate_header(fd.get()) != 0) return 0;

    uint8_t row[sc::kRowBytes];
    float values[sc::kDim];
    for (;;) {
        // A short read is the end: of the file, of a partial last row, or of a readable file.
        if (sc::read_full(fd.get(), row, sizeof row) != sizeof row) return 0;
        const uint32_t id = sc::load_u32(row + sc::kRowIdOffset);
        if (row[sc::kRowLiveOffset] == 0 || id == 0) continue;
        sc::decode_values(row + sc::kRowValuesOffset, values);
        const int32_t rc = callback(id, values, user);
        if (rc != 0) return rc;
    }
}
