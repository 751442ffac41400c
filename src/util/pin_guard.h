// Releases a pinned holder when the scope that pinned it ends, so no early return of a search
// can leak a pin (which would keep a retired index alive for the life of the object).
#pragma once

namespace orve {

template <typename T, void (*Release)(T*)>
class pin_guard {
  public:
    explicit pin_guard(T* held) noexcept : held_(held) {}
    ~pin_guard() {
        if (held_ != nullptr) Release(held_);
    }
    pin_guard(const pin_guard&) = delete;
    pin_guard& operator=(const pin_guard&) = delete;
    T* get() const noexcept { return held_; }

  private:
    T* held_;
};

}  // namespace orve
