// Owners for blocks from the C allocator. Every block the library allocates is held by one of
// these from the moment it exists, so an early return frees it without a cleanup ladder.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace orve {

struct c_free_deleter {
    void operator()(void* p) const noexcept { std::free(p); }
};

template <typename T>
using c_unique = std::unique_ptr<T, c_free_deleter>;

// n elements of T from malloc; null on failure or on an n whose byte size overflows.
template <typename T>
c_unique<T[]> c_alloc_array(std::size_t n) {
    if (n > SIZE_MAX / sizeof(T)) return nullptr;
    return c_unique<T[]>(static_cast<T*>(std::malloc(n ? n * sizeof(T) : 1)));
}

// n zero-filled elements of T from calloc.
template <typename T>
c_unique<T[]> c_calloc_array(std::size_t n) {
    return c_unique<T[]>(static_cast<T*>(std::calloc(n ? n : 1, sizeof(T))));
}

// n elements of T on an `alignment`-byte boundary from posix_memalign.
template <typename T>
c_unique<T[]> c_aligned_array(std::size_t n, std::size_t alignment) {
    if (n > SIZE_MAX / sizeof(T)) return nullptr;
    void* p = nullptr;
    if (posix_memalign(&p, alignment, n ? n * sizeof(T) : alignment) != 0) return nullptr;
    return c_unique<T[]>(static_cast<T*>(p));
}

}  // namespace orve
