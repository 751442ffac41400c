// The open sidecar handle: creating or reinitialising the file, appending rows at its end and
// reading rows back by number.
//
// Row numbering is the one promise callers build on (row r of the file is the r-th vector
// ingested), so the file must never hold a partial row in front of a complete one. Two places
// could create one, and both are repaired here rather than left for later rows to inherit:
//   - a crash during an append leaves a tail shorter than a row: open cuts the file back to
//     32 + 2056 x (whole rows) before the first append, losing only bytes that never formed a
//     complete row;
//   - a write that stops partway: append truncates the file back to the row boundary it started
//     at and moves the position there, so the handle stays usable and the next append lands on
//     the right offset. The short write itself is not retried; the row is reported as failed.
#include <fcntl.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/uio.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "semantic_vector_indexing.h"
#include "sidecar/append_rows.h"
#include "sidecar/sidecar_format.h"
#include "util/c_alloc.h"
#include "util/fd_io.h"
#include "util/unique_fd.h"

namespace sc = orve::sidecar;

namespace {

constexpr size_t kPathCopyMax = sizeof(orve_vec_sidecar::path) - 1;

// One write of the 32 header bytes at the current position.
int write_fresh_header(int fd) {
    uint8_t header[sc::kSidecarHeaderBytes];
    sc::encode_header(header);
    return orve::write_once(fd, header, sizeof header) == sizeof header ? 0 : -1;
}

// Drops a trailing partial row, if any. The header is known to be valid, so the file holds at
// least 32 bytes.
int cut_partial_row(int fd) {
    const int64_t length = orve::file_length(fd);
    if (length < static_cast<int64_t>(sc::kSidecarHeaderBytes)) return -1;
    const uint64_t whole = sc::whole_rows_length(static_cast<uint64_t>(length));
    if (whole == static_cast<uint64_t>(length)) return 0;
    return ::ftruncate(fd, static_cast<off_t>(whole)) == 0 ? 0 : -1;
}

// After `written` bytes (fewer than a row) of a row went out: back to where the row began. The
// position is reset even when the truncation fails, so the next append overwrites the fragment
// instead of landing behind it.
void undo_partial_row(int fd, size_t written) {
    const off_t end = ::lseek(fd, 0, SEEK_CUR);
    if (end < static_cast<off_t>(written)) return;
    const off_t start = end - static_cast<off_t>(written);
    (void)::ftruncate(fd, start);
    (void)::lseek(fd, start, SEEK_SET);
}

// Takes the exclusive lock that keeps a second writer off the file for the handle's life.
// flock belongs to the open file description, so a second open of the path in this same
// process conflicts as well. False only when someone else holds it; a file system without
// flock leaves the file unguarded, as it would be without the lock.
bool lock_exclusively(int fd) {
    return ::flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

}  // namespace

// Choices made beyond the file format:
//   - descriptors are opened close-on-exec, so a host that forks and execs does not hand the
//     open sidecar to its child;
//   - a path that exists but is not a regular file (directory, pipe, device) is refused with -1
//     before anything is read or truncated: a sidecar is addressed by byte offsets and cut back
//     with ftruncate, and reinitialising a device would be destructive;
//   - the handle holds an exclusive flock on the file until close, taken before anything is
//     read, cut or written: two writers appending to one file would interleave their rows and
//     lose some. A file locked by another handle is refused with -1, untouched.
extern "C" ORVE_API int32_t orve_vec_sidecar_open(const char* path, orve_vec_sidecar** out_handle) {
    if (path == nullptr || out_handle == nullptr) return -1;

    orve::c_unique<orve_vec_sidecar> handle(
        static_cast<orve_vec_sidecar*>(std::calloc(1, sizeof(orve_vec_sidecar))));
    if (!handle) return -1;
    handle->fd = -1;
    std::memcpy(handle->path, path, strnlen(path, kPathCopyMax));  // calloc'd: stays terminated

    orve::unique_fd fd(::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!fd.valid() || !orve::is_regular_file(fd.get()) || !lock_exclusively(fd.get())) return -1;
    if (orve::file_length(fd.get()) == 0) {
        if (write_fresh_header(fd.get()) != 0) return -1;
    } else if (sc::validate_header(fd.get()) == 0) {
        if (cut_partial_row(fd.get()) != 0) return -1;
        if (::lseek(fd.get(), 0, SEEK_END) < 0) return -1;
    } else {
        // A short or foreign file: its content cannot be trusted as rows, so start over.
        if (::ftruncate(fd.get(), 0) != 0) return -1;
        if (::lseek(fd.get(), 0, SEEK_SET) != 0) return -1;
        if (write_fresh_header(fd.get()) != 0) return -1;
    }

    handle->fd = fd.release();
    *out_handle = handle.release();
    return 0;
}

extern "C" ORVE_API int32_t orve_vec_sidecar_append(orve_vec_sidecar* handle, uint32_t id,
                                                    const float* values) {
    if (handle == nullptr) return -1;
    if (handle->fd < 0 || values == nullptr || id == 0) return -1;

    uint8_t row[sc::kSidecarRowBytes];
    sc::encode_row(row, id, values);
    const size_t written = orve::write_once(handle->fd, row, sizeof row);
    if (written == sizeof row) return 0;
    if (written > 0) undo_partial_row(handle->fd, written);
    return -1;
}

namespace orve::sidecar {

uint32_t append_rows(orve_vec_sidecar* handle, uint32_t first_id, const float* vecs, uint32_t n) {
    if (handle == nullptr || handle->fd < 0 || vecs == nullptr) return 0;
    if constexpr (std::endian::native != std::endian::little) {
        // The floats in memory are not the file's bytes here: encode and append row by row.
        for (uint32_t i = 0; i < n; ++i) {
            if (orve_vec_sidecar_append(handle, first_id + i, vecs + std::size_t{i} * kDim) != 0) {
                return i;
            }
        }
        return n;
    }
    // Each row goes out as two pieces: its 8-byte id and live field, then the caller's floats,
    // which on this host already are the file's little-endian bytes. Two pieces per row, so a
    // call carries at most IOV_MAX / 2 rows (about 1 MB).
    constexpr uint32_t kRowsPerCall = IOV_MAX / 2 < 256 ? IOV_MAX / 2 : 256;
    uint8_t heads[kRowsPerCall][kRowValuesOffset];
    iovec pieces[2 * kRowsPerCall];
    uint32_t done = 0;
    while (done < n) {
        const uint32_t m = n - done < kRowsPerCall ? n - done : kRowsPerCall;
        for (uint32_t i = 0; i < m; ++i) {
            std::memset(heads[i], 0, kRowValuesOffset);
            store_u32(heads[i] + kRowIdOffset, first_id + done + i);
            heads[i][kRowLiveOffset] = 1;
            pieces[2 * i] = {heads[i], kRowValuesOffset};
            pieces[2 * i + 1] = {const_cast<float*>(vecs + std::size_t{done + i} * kDim),
                                 kValueBytes};
        }
        ssize_t w;
        do {
            w = ::writev(handle->fd, pieces, static_cast<int>(2 * m));
        } while (w < 0 && errno == EINTR);
        const std::size_t written = w < 0 ? 0 : static_cast<std::size_t>(w);
        const auto whole = static_cast<uint32_t>(written / kSidecarRowBytes);
        done += whole;
        if (whole == m) continue;
        // Not retried, as a single append is not: the rows past the last whole one count as
        // failed and the caller stops appending.
        if (written % kSidecarRowBytes != 0) {
            undo_partial_row(handle->fd, written % kSidecarRowBytes);
        }
        return done;
    }
    return done;
}

}  // namespace orve::sidecar

// `out` is written only once all 2048 bytes are in, so a failed read leaves it as it was.
extern "C" ORVE_API int32_t orve_vec_sidecar_read_row_floats(const orve_vec_sidecar* handle,
                                                             uint32_t row, float* out) {
    if (handle == nullptr || out == nullptr || handle->fd < 0) return -1;
    uint8_t bytes[sc::kValueBytes];
    if (orve::pread_full(handle->fd, bytes, sizeof bytes, sc::row_values_offset(row)) !=
        sizeof bytes) {
        return -1;
    }
    sc::decode_values(bytes, out);
    return 0;
}

// Durability is paid here, once; neither the flush nor the close can be acted on any more, so
// their results are not looked at.
extern "C" ORVE_API void orve_vec_sidecar_close(orve_vec_sidecar* handle) {
    if (handle == nullptr) return;
    if (handle->fd >= 0) {
        (void)::fsync(handle->fd);
        (void)::close(handle->fd);
    }
    std::free(handle);
}
