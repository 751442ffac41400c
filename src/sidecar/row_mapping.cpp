#include "sidecar/row_mapping.h"

#include <sys/mman.h>

#include <limits>

namespace orve::sidecar {

row_mapping map_rows(int fd, uint64_t rows) {
    // Anything at or past 2^40 rows is no file this library can write; refusing it keeps the
    // length computation below from wrapping.
    if (rows >= (uint64_t{1} << 40)) return {};
    const uint64_t length = row_offset(0) + rows * kSidecarRowBytes;
    if (length > std::numeric_limits<std::size_t>::max()) return {};
    void* p = ::mmap(nullptr, static_cast<std::size_t>(length), PROT_READ, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED) return {};
    return {static_cast<const uint8_t*>(p), static_cast<std::size_t>(length)};
}

void unmap_rows(row_mapping& m) {
    if (m.base != nullptr) (void)::munmap(const_cast<uint8_t*>(m.base), m.bytes);
    m = {};
}

}  // namespace orve::sidecar
