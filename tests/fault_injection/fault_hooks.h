// Makes the C allocator and file I/O fail on purpose, for tests of the library's failure paths:
// the test executable here is linked with --wrap for malloc, calloc, realloc, posix_memalign,
// write, writev, msync and fdatasync, so the library's calls go through the switches here (the C++
// runtime's are untouched). Plain globals: these tests arm and disarm on one thread.
#pragma once

#include <functional>

namespace orve_test {

// Runs call() with its allocation k (1-based) failing; false when it made fewer (none failed).
bool run_with_failing_allocation(long k, const std::function<void()>& call);

// `write` counts plain and vectored writes alike.
enum class io_call { write, msync, fdatasync };
enum class io_failure {
    no_space,     // -1 with ENOSPC, nothing written
    io_error,     // -1 with EIO, nothing written
    short_write,  // half the bytes really written, that count returned (writes only)
};

// Arms the nth call (1-based, counted from now) of `call` to fail once as `how`.
void arm_io_failure(io_call call, long nth, io_failure how);

// Disarms; true when the armed failure fired.
bool disarm_io_failure();

}  // namespace orve_test
