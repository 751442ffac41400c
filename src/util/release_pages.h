// Hands the whole pages inside a byte range of a heap block back to the system while the block
// stays allocated, for a build that reads a large buffer one part at a time and never again.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

namespace orve {

// The pages lying wholly inside [begin, begin + bytes) read as zero afterwards and cost no
// memory until written. Pages only partly inside are left alone, since a neighbouring part of
// the block may still be in use. Failure is harmless (the memory just stays resident), so the
// result of madvise is not looked at.
inline void release_whole_pages(void* begin, std::size_t bytes) {
    static const std::uintptr_t page = [] {
        const long s = ::sysconf(_SC_PAGESIZE);
        return s > 0 ? static_cast<std::uintptr_t>(s) : std::uintptr_t{4096};
    }();
    const auto b = reinterpret_cast<std::uintptr_t>(begin);
    const std::uintptr_t start = (b + page - 1) & ~(page - 1);
    const std::uintptr_t end = (b + bytes) & ~(page - 1);
    if (end > start) (void)::madvise(reinterpret_cast<void*>(start), end - start, MADV_DONTNEED);
}

}  // namespace orve
