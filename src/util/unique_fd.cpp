#include "util/unique_fd.h"

#include <unistd.h>

namespace orve {

// close is not retried after EINTR: on Linux the descriptor is gone either way, and a second
// close could hit a descriptor another thread has just been given.
unique_fd::~unique_fd() {
    if (fd_ >= 0) ::close(fd_);
}

void unique_fd::reset(int fd) noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
}

}  // namespace orve
