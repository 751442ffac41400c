// Asks the system to back a large, long-lived array with huge pages where it can.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>

namespace orve {

// Ingestion fills the flat store and the node table front to back, and with ordinary pages
// every few rows' first touch is a page fault; huge pages take one fault per 2 MiB instead.
// Only the 2 MiB-aligned stretch wholly inside the block is advised, so the allocator's own
// bookkeeping around the block is never affected. Resident memory can then run ahead of the
// rows stored by at most one huge page per array (pages are still populated only when first
// touched, so an unfilled capacity still costs address space, not memory). The advice changes
// no contents: fresh huge pages read as zero exactly like small ones. It is a hint: where it is
// refused or unknown the memory simply stays on small pages, so its result is not looked at.
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
