// Makes file I/O fail on purpose, for tests of the library's write and flush failure paths.
//
// The test executable in this folder is linked with --wrap for write, writev, msync, fsync and
// fdatasync, so every call the library's code makes to them goes through the switch below.
// A failure is armed for one call and fires once; every other call goes to the system.
#pragma once

namespace orve_test {

// `write` counts plain and vectored writes alike.
enum class io_call { write, msync, fsync, fdatasync };
enum class io_failure {
    no_space,     // -1 with ENOSPC, nothing written
    io_error,     // -1 with EIO, nothing written
    short_write,  // half the bytes really written, that count returned (writes only)
};

// Arms the nth call (1-based, counted from now) of `call` to fail as `how`.
void arm_io_failure(io_call call, long nth, io_failure how);

// Disarms; true when the armed failure fired.
bool disarm_io_failure();

}  // namespace orve_test
