// Asks the system to back the part of a large array a caller is about to fill with huge pages.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>

namespace orve {

inline constexpr std::size_t kHugePageBytes = std::size_t{2} << 20;

// Advises huge pages for bytes [offset, offset + bytes) of the array [block, block +
// block_bytes), cut at the array's end and rounded out to whole 2 MiB pages but never past the
// 2 MiB pages lying wholly inside the array, so no other allocation's memory is touched. The
// rounding can make resident up to one huge page beyond what the caller writes, so callers
// advise only for loads large enough to fill pages that size soon. Contents are unchanged
// (fresh pages read as zero either way). It is a hint: where it is refused or unknown the
// memory stays on small pages, so its result is not looked at.
inline void advise_huge_pages(void* block, std::size_t block_bytes, std::size_t offset,
                              std::size_t bytes) {
#if defined(MADV_HUGEPAGE)
    constexpr std::uintptr_t kHuge = kHugePageBytes;
    if (block == nullptr || bytes == 0 || offset >= block_bytes) return;
    if (bytes > block_bytes - offset) bytes = block_bytes - offset;
    const auto b = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t first_whole = (b + kHuge - 1) & ~(kHuge - 1);
    const std::uintptr_t last_whole = (b + block_bytes) & ~(kHuge - 1);
    std::uintptr_t start = (b + offset) & ~(kHuge - 1);
    std::uintptr_t end = (b + offset + bytes + kHuge - 1) & ~(kHuge - 1);
    if (start < first_whole) start = first_whole;
    if (end > last_whole) end = last_whole;
    if (end > start) (void)::madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE);
#else
    (void)block;
    (void)block_bytes;
    (void)offset;
    (void)bytes;
#endif
}

}  // namespace orve
