// Explicit little-endian fields for the library's files, so a file written on one host reads
// the same on every other whatever its byte order and alignment rules.
#pragma once

#include <cstdint>
#include <cstring>

namespace orve {

inline void store_u32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
}

inline void store_u64(uint8_t* p, uint64_t v) {
    store_u32(p, static_cast<uint32_t>(v));
    store_u32(p + 4, static_cast<uint32_t>(v >> 32));
}

// Floats travel as their bit patterns: NaN payloads and signed zeros are kept as they are.
inline void store_f32(uint8_t* p, float v) {
    uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    store_u32(p, bits);
}

inline uint32_t load_u32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

inline uint64_t load_u64(const uint8_t* p) {
    return static_cast<uint64_t>(load_u32(p)) | (static_cast<uint64_t>(load_u32(p + 4)) << 32);
}

inline float load_f32(const uint8_t* p) {
    const uint32_t bits = load_u32(p);
    float v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}

}  // namespace orve
