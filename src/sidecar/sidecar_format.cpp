#include "sidecar/sidecar_format.h"

#include "util/fd_io.h"

namespace orve::sidecar {

int validate_header(int fd) {
    uint8_t header[kSidecarHeaderBytes];
    if (read_full(fd, header, sizeof header) != sizeof header) return -1;
    return header_matches(header) ? 0 : -1;
}

}  // namespace orve::sidecar
