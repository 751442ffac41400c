#include "alloc_fault.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>

extern "C" {
void* __real_malloc(std::size_t n);
void* __real_calloc(std::size_t n, std::size_t size);
void* __real_realloc(void* p, std::size_t n);
int __real_posix_memalign(void** out, std::size_t alignment, std::size_t n);
}

namespace {

// Plain globals: these tests arm and disarm on one thread.
long g_fail_at = 0;
long g_seen = 0;

bool should_fail(std::size_t) {
    if (g_fail_at == 0) return false;
    return ++g_seen == g_fail_at;
}

}  // namespace

extern "C" {
void* __wrap_malloc(std::size_t n) {
    return should_fail(n) ? nullptr : __real_malloc(n);
}
void* __wrap_calloc(std::size_t n, std::size_t size) {
    return should_fail(n * size) ? nullptr : __real_calloc(n, size);
}
void* __wrap_realloc(void* p, std::size_t n) {
    return should_fail(n) ? nullptr : __real_realloc(p, n);
}
int __wrap_posix_memalign(void** out, std::size_t alignment, std::size_t n) {
    return should_fail(n) ? ENOMEM : __real_posix_memalign(out, alignment, n);
}
}

namespace orve_test {

bool run_with_failing_allocation(long k, const std::function<void()>& call) {
    g_seen = 0;
    g_fail_at = k;
    call();
    g_fail_at = 0;
    return g_seen >= k;
}

}  // namespace orve_test
