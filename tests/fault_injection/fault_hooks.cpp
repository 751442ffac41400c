#include "fault_hooks.h"

#include <sys/types.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstddef>

using orve_test::io_call;
using orve_test::io_failure;

extern "C" {
void* __real_malloc(std::size_t n);
void* __real_calloc(std::size_t n, std::size_t size);
void* __real_realloc(void* p, std::size_t n);
int __real_posix_memalign(void** out, std::size_t alignment, std::size_t n);
ssize_t __real_write(int fd, const void* buf, size_t n);
ssize_t __real_writev(int fd, const struct iovec* iov, int count);
int __real_msync(void* addr, size_t length, int flags);
int __real_fdatasync(int fd);
}

namespace {

long g_fail_at = 0, g_seen = 0;  // allocations
bool g_armed = false, g_fired = false;
io_call g_call = io_call::write;
io_failure g_how = io_failure::io_error;
long g_left = 0;

bool alloc_fails() {
    return g_fail_at != 0 && ++g_seen == g_fail_at;
}

// True when this call of `call` is the armed one.
bool fires(io_call call) {
    if (!g_armed || g_fired || call != g_call || --g_left != 0) return false;
    g_fired = true;
    return true;
}

int fail() {
    errno = g_how == io_failure::no_space ? ENOSPC : EIO;
    return -1;
}

}  // namespace

extern "C" {
void* __wrap_malloc(std::size_t n) {
    return alloc_fails() ? nullptr : __real_malloc(n);
}
void* __wrap_calloc(std::size_t n, std::size_t size) {
    return alloc_fails() ? nullptr : __real_calloc(n, size);
}
void* __wrap_realloc(void* p, std::size_t n) {
    return alloc_fails() ? nullptr : __real_realloc(p, n);
}
int __wrap_posix_memalign(void** out, std::size_t alignment, std::size_t n) {
    return alloc_fails() ? ENOMEM : __real_posix_memalign(out, alignment, n);
}
ssize_t __wrap_write(int fd, const void* buf, size_t n) {
    if (!fires(io_call::write)) return __real_write(fd, buf, n);
    if (g_how == io_failure::short_write && n > 1) return __real_write(fd, buf, n / 2);
    return fail();
}
// A short vectored write stops halfway through its bytes: for many rows, inside a row.
ssize_t __wrap_writev(int fd, const struct iovec* iov, int count) {
    if (!fires(io_call::write)) return __real_writev(fd, iov, count);
    if (g_how != io_failure::short_write) return fail();
    size_t total = 0;
    for (int i = 0; i < count; ++i) total += iov[i].iov_len;
    size_t left = total / 2;
    int used = 0;
    struct iovec half[1024];
    for (; used < count && used < 1024 && left > 0; ++used) {
        half[used] = iov[used];
        if (half[used].iov_len > left) half[used].iov_len = left;
        left -= half[used].iov_len;
    }
    return total > 1 ? __real_writev(fd, half, used) : fail();
}
int __wrap_msync(void* addr, size_t length, int flags) {
    return fires(io_call::msync) ? fail() : __real_msync(addr, length, flags);
}
int __wrap_fdatasync(int fd) {
    return fires(io_call::fdatasync) ? fail() : __real_fdatasync(fd);
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

void arm_io_failure(io_call call, long nth, io_failure how) {
    g_call = call;
    g_how = how;
    g_left = nth;
    g_fired = false;
    g_armed = true;
}

bool disarm_io_failure() {
    g_armed = false;
    return g_fired;
}

}  // namespace orve_test
