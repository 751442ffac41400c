// Asks the system to back part of a large array with huge pages.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>

namespace orve {

// Advises huge pages for the 2 MiB-aligned stretch lying wholly inside [begin, begin + bytes):
// a huge page only partly inside the range is left alone, so the advice never makes memory
// resident beyond the bytes the caller is about to write. Contents are unchanged (fresh pages
// read as zero either way). It is a hint: where it is refused or unknown the memory simply
// stays on small pages, so its result is not looked at.
inline void advise_huge_pages(void* begin, std::size_t bytes) {
#if defined(MADV_HUGEPAGE)
    constexpr std::uintptr_t kHuge = std::uintptr_t{2} << 20;
    const auto b = reinterpret_cast<std::uintptr_t>(begin);
    const std::uintptr_t start = (b + kHuge - 1) & ~(kHuge - 1);
    const std::uintptr_t end = (b + bytes) & ~(kHuge - 1);
    if (end > start) (void)::madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE);
#else
    (void)begin;
    (void)bytes;
#endif
}

}  // namespace orve
