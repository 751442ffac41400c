// Descriptor reads and writes that survive signals. The sidecar and the paged index are read
// and written through these only, so an EINTR never turns into a lost row or a spurious end
// of file.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace orve {

// Reads up to n bytes at the current position, continuing after interruptions and short
// reads, until n bytes came, the file ended or a read failed. Returns the bytes read; a
// failure after some bytes still reports those bytes (the caller only asks "all of them?").
size_t read_full(int fd, void* buf, size_t n);

// The same at a fixed offset, without moving the file position.
size_t pread_full(int fd, void* buf, size_t n, uint64_t offset);

// One write of n bytes at the current position. An interruption before any byte was written is
// retried (nothing happened yet); a short write is returned as it is, for the caller to undo.
// Returns the bytes written, 0 when the write failed.
size_t write_once(int fd, const void* buf, size_t n);

// True when the descriptor is a regular file. Rows are addressed by byte offset and the file is
// cut back with ftruncate, neither of which means anything on a pipe or a device.
bool is_regular_file(int fd);

// Length of the file in bytes, or -1 when it cannot be had.
int64_t file_length(int fd);
}  // namespace orve
