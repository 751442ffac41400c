// Byte layout of the vector sidecar file: a 32-byte header, then fixed 2056-byte rows of
// (id, live byte, 512 floats). Every field is encoded and decoded here byte by byte in
// little-endian order, so the file reads the same on every host whatever its own byte order.
#pragma once

#include <cstdint>
#include <cstring>

#include "semantic_vector_indexing.h"

namespace orve::sidecar {

inline constexpr char kMagic[8] = {'O', 'R', 'V', 'E', 'V', 'E', 'C', 'A'};
inline constexpr uint32_t kVersion = 1;
inline constexpr uint32_t kDim = ORVE512_DIM;

inline constexpr uint32_t kHeaderBytes = 32;
inline constexpr uint32_t kHeaderVersionOffset = 8;
inline constexpr uint32_t kHeaderDimOffset = 12;
inline constexpr uint32_t kHeaderRowBytesOffset = 16;

inline constexpr uint32_t kRowIdOffset = 0;
inline constexpr uint32_t kRowLiveOffset = 4;
inline constexpr uint32_t kRowValuesOffset = 8;
inline constexpr uint32_t kValueBytes = kDim * 4;
inline constexpr uint32_t kRowBytes = kRowValuesOffset + kValueBytes;
static_assert(kRowBytes == 2056);

inline void put_u32_le(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
}

inline uint32_t get_u32_le(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// Floats travel as their bit patterns, so NaN payloads and signed zeros survive a round trip.
inline void put_f32_le(uint8_t* p, float v) {
    uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    put_u32_le(p, bits);
}

inline float get_f32_le(const uint8_t* p) {
    const uint32_t bits = get_u32_le(p);
    float v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}

// A fresh header: magic, version, dimension, row size, reserved bytes zero.
inline void encode_header(uint8_t (&out)[kHeaderBytes]) {
    std::memset(out, 0, sizeof out);
    std::memcpy(out, kMagic, sizeof kMagic);
    put_u32_le(out + kHeaderVersionOffset, kVersion);
    put_u32_le(out + kHeaderDimOffset, kDim);
    put_u32_le(out + kHeaderRowBytesOffset, kRowBytes);
}

// The reserved bytes are not looked at: a later writer may use them without breaking readers.
inline bool header_matches(const uint8_t (&in)[kHeaderBytes]) {
    return std::memcmp(in, kMagic, sizeof kMagic) == 0 &&
           get_u32_le(in + kHeaderVersionOffset) == kVersion &&
           get_u32_le(in + kHeaderDimOffset) == kDim &&
           get_u32_le(in + kHeaderRowBytesOffset) == kRowBytes;
}

// A complete row: id, live byte 1, reserved zero, the 512 values.
inline void encode_row(uint8_t (&out)[kRowBytes], uint32_t id, const float* values) {
    std::memset(out, 0, sizeof out);
    put_u32_le(out + kRowIdOffset, id);
    out[kRowLiveOffset] = 1;
    for (uint32_t i = 0; i < kDim; ++i) put_f32_le(out + kRowValuesOffset + 4 * i, values[i]);
}

// The 512 values of a row, from the bytes starting at the row's value field.
inline void decode_values(const uint8_t* in, float* out) {
    for (uint32_t i = 0; i < kDim; ++i) out[i] = get_f32_le(in + 4 * i);
}

// Byte offset of row `row`, and of its values, in 64-bit arithmetic: row numbers go up to
// 2^32 - 1, far past what 32 bits of offset could hold.
inline constexpr uint64_t row_offset(uint32_t row) {
    return kHeaderBytes + static_cast<uint64_t>(kRowBytes) * row;
}
inline constexpr uint64_t row_values_offset(uint32_t row) {
    return row_offset(row) + kRowValuesOffset;
}

// Length of the file once a trailing partial row is cut off; `length` is at least the header.
inline constexpr uint64_t whole_rows_length(uint64_t length) {
    return kHeaderBytes + (length - kHeaderBytes) / kRowBytes * kRowBytes;
}

// Reads 32 bytes at the descriptor's current position: 0 when all of them came and the header
// matches, -1 otherwise (a short file, a read error, a foreign file).
int validate_header(int fd);

}  // namespace orve::sidecar
