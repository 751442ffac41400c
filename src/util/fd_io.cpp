#include "util/fd_io.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

namespace orve {

// Offsets go straight into off_t: the library is built for 64-bit Linux only.
static_assert(sizeof(off_t) == 8, "64-bit file offsets are required");

namespace {

// Calls io(destination, count, done) until n bytes have come, the end of the file, or an error
// other than an interruption; returns how many bytes came.
template <typename Io>
size_t read_until_full(void* buf, size_t n, Io io) {
    auto* p = static_cast<unsigned char*>(buf);
    size_t done = 0;
    while (done < n) {
        const ssize_t r = io(p + done, n - done, done);
        if (r > 0) {
            done += static_cast<size_t>(r);
        } else if (r == 0 || errno != EINTR) {
            break;
        }
    }
    return done;
}

}  // namespace

size_t read_full(int fd, void* buf, size_t n) {
    return read_until_full(
        buf, n, [fd](unsigned char* p, size_t count, size_t) { return ::read(fd, p, count); });
}

size_t pread_full(int fd, void* buf, size_t n, uint64_t offset) {
    if (offset > static_cast<uint64_t>(std::numeric_limits<off_t>::max()) - n) return 0;
    return read_until_full(buf, n, [fd, offset](unsigned char* p, size_t count, size_t done) {
        return ::pread(fd, p, count, static_cast<off_t>(offset + done));
    });
}

size_t write_once(int fd, const void* buf, size_t n) {
    ssize_t w;
    do {
        w = ::write(fd, buf, n);
    } while (w < 0 && errno == EINTR);
    return w < 0 ? 0 : static_cast<size_t>(w);
}

bool is_regular_file(int fd) {
    struct stat st;
    return ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

int64_t file_length(int fd) {
    struct stat st;
    if (::fstat(fd, &st) != 0) return -1;
    return static_cast<int64_t>(st.st_size);
}
}  // namespace orve
