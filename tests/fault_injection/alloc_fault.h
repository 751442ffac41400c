// Makes the C allocator fail on purpose, for tests of the library's allocation-failure paths.
//
// The test executable in this folder is linked with --wrap for malloc, calloc, realloc and
// posix_memalign, so every call the library's code makes to them goes through the counters
// below. Other allocations (the C++ runtime, the test framework's shared parts) are untouched.
#pragma once

#include <cstddef>
#include <functional>

namespace orve_test {

// Runs call() with allocation number k (1-based, counted from the start of the call) failing.
// Returns true when the call reached that allocation, so a failure was injected; false when it
// made fewer allocations and so ran with a working allocator. Tests loop k = 1, 2, ... until
// false, checking after each run that the call returned its documented error and left the
// object usable.
bool run_with_failing_allocation(long k, const std::function<void()>& call);

}  // namespace orve_test
