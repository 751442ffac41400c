// Residency advice for byte ranges of a file mapping.
//
// madvise wants a page-aligned start, while leaves start on 64-byte boundaries. A range is
// therefore widened outward to whole pages (never past the mapping's last page). Pages a leaf
// shares with its neighbour get the same advice as the leaf: advice never changes what is
// read, only how eagerly the kernel keeps or fetches it, so a shared page being read ahead or
// reclaimed a little early is harmless. The result of madvise is never looked at for the same
// reason.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

// MADV_COLD (Linux 5.4) may be missing from older C library headers; the kernel value is fixed.
#ifndef MADV_COLD
#define MADV_COLD 20
#endif

namespace orve::paged {

inline uint64_t page_size() {
    static const uint64_t size = [] {
        const long s = ::sysconf(_SC_PAGESIZE);
        return s > 0 ? static_cast<uint64_t>(s) : uint64_t{4096};
    }();
    return size;
}

// Advises [offset, offset + bytes) of a mapping of `mapped` bytes starting at base. The range
// must lie inside the mapping.
inline void advise_range(void* base, uint64_t mapped, uint64_t offset, uint64_t bytes, int advice) {
    if (bytes == 0) return;
    const uint64_t page = page_size();
    const uint64_t start = offset & ~(page - 1);
    const uint64_t limit = (mapped + page - 1) & ~(page - 1);
    uint64_t end = (offset + bytes + page - 1) & ~(page - 1);
    if (end > limit) end = limit;
    if (end <= start) return;
    (void)::madvise(static_cast<uint8_t*>(base) + start, end - start, advice);
}

}  // namespace orve::paged
