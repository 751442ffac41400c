#include <cstdlib>

#include "core/system.h"

namespace orve {

uint32_t parse_capacity(const char* text) {
    if (text == nullptr) return kMaxCapacity;
    // strtoll gives 0 for text without digits and saturates on overflow; both land outside the
    // accepted range below and fall back to the maximum, as does a negative value.
    const long long parsed = std::strtoll(text, nullptr, 10);
    const uint32_t v = static_cast<uint32_t>(static_cast<unsigned long long>(parsed));
    return (v >= 1 && v <= kMaxCapacity) ? v : kMaxCapacity;
}

}  // namespace orve
