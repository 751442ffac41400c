// Owns a memory mapping and unmaps it on every path out of a function, so an early return after
// a failed check can never leak address space or keep a file's pages pinned.
#pragma once

#include <sys/mman.h>

#include <cstddef>

namespace orve::paged {

class unique_mapping {
  public:
    unique_mapping() noexcept = default;
    // Takes what mmap returned; MAP_FAILED is held as "nothing".
    unique_mapping(void* addr, std::size_t length) noexcept
        : addr_(addr == MAP_FAILED ? nullptr : addr), length_(addr_ ? length : 0) {}
    ~unique_mapping() { reset(); }
    unique_mapping(const unique_mapping&) = delete;
    unique_mapping& operator=(const unique_mapping&) = delete;

    bool valid() const noexcept { return addr_ != nullptr; }
    void* get() const noexcept { return addr_; }
    std::size_t length() const noexcept { return length_; }

    // Unmaps now. munmap of a mapping this object made can only fail on arguments it never
    // passes, so its result is not looked at.
    void reset() noexcept {
        if (addr_ != nullptr) (void)::munmap(addr_, length_);
        addr_ = nullptr;
        length_ = 0;
    }

    // Hands the mapping over to a longer-lived owner.
    void* release() noexcept {
        void* a = addr_;
        addr_ = nullptr;
        length_ = 0;
        return a;
    }

  private:
    void* addr_ = nullptr;
    std::size_t length_ = 0;
};

}  // namespace orve::paged
