// Byte layout of the vector sidecar file: a 32-byte header, then fixed 2056-byte rows of
// (id, live byte, 512 floats). Every field is encoded and decoded here byte by byte in
// little-endian order, so the file reads the same on every host whatever its own byte order.
#pragma once

#include <cstdint>
#include <cstring>

#include "util/little_endian.h"

#include "semantic_vector_indexing.h"

namespace orve::sidecar {

inline constexpr char kMagic[8] = {'O', 'R', 'V', 'E', 'V', 'E', 'C', 'A'};
inline constexpr uint32_t kVersion = 1;
inline constexpr uint32_t kDim = ORVE512_DIM;

inline constexpr uint32_t kSidecarHeaderBytes = 32;
inline constexpr uint32_t kHeaderVersionOffset = 8;
inline constexpr uint32_t kHeaderDimOffset = 12;
inline constexpr uint32_t kHeaderRowBytesOffset = 16;

inline constexpr uint32_t kRowIdOffset = 0;
inline constexpr uint32_t kRowLiveOffset = 4;
inline constexpr uint32_t kRowValuesOffset = 8;
inline constexpr uint32_t kValueBytes = kDim * 4;
inline constexpr uint32_t kSidecarRowBytes = kRowValuesOffset + kValueBytes;
static_assert(kSidecarRowBytes == 2056);

// Little-endian fields, shared with the paged index file.
using orve::load_f32;
using orve::load_u32;
using orve::store_f32;
using orve::store_u32;

// A fresh header: magic, version, dimension, row size, reserved bytes zero.
inline void encode_header(uint8_t (&out)[kSidecarHeaderBytes]) {
    std::memset(out, 0, sizeof out);
    std::memcpy(out, kMagic, sizeof kMagic);
    store_u32(out + kHeaderVersionOffset, kVersion);
    store_u32(out + kHeaderDimOffset, kDim);
    store_u32(out + kHeaderRowBytesOffset, kSidecarRowBytes);
}

// The reserved bytes are not looked at: a later writer may use them without breaking readers.
inline bool header_matches(const uint8_t (&in)[kSidecarHeaderBytes]) {
    return std::memcmp(in, kMagic, sizeof kMagic) == 0 &&
           load_u32(in + kHeaderVersionOffset) == kVersion &&
           load_u32(in + kHeaderDimOffset) == kDim &&
           load_u32(in + kHeaderRowBytesOffset) == kSidecarRowBytes;
}

// A complete row: id, live byte 1, reserved zero, the 512 values.
inline void encode_row(uint8_t (&out)[kSidecarRowBytes], uint32_t id, const float* values) {
    std::memset(out, 0, sizeof out);
    store_u32(out + kRowIdOffset, id);
    out[kRowLiveOffset] = 1;
    for (uint32_t i = 0; i < kDim; ++i) store_f32(out + kRowValuesOffset + 4 * i, values[i]);
}

// The 512 values of a row, from the bytes starting at the row's value field.
inline void decode_values(const uint8_t* in, float* out) {
    for (uint32_t i = 0; i < kDim; ++i) out[i] = load_f32(in + 4 * i);
}

// Byte offset of row `row`, and of its values, in 64-bit arithmetic: row numbers go up to
// 2^32 - 1, far past what 32 bits of offset could hold.
inline constexpr uint64_t row_offset(uint32_t row) {
    return kSidecarHeaderBytes + static_cast<uint64_t>(kSidecarRowBytes) * row;
}
inline constexpr uint64_t row_values_offset(uint32_t row) {
    return row_offset(row) + kRowValuesOffset;
}

// Length of the file once a trailing partial row is cut off; `length` is at least the header.
inline constexpr uint64_t whole_rows_length(uint64_t length) {
    return kSidecarHeaderBytes +
           (length - kSidecarHeaderBytes) / kSidecarRowBytes * kSidecarRowBytes;
}

// Whole rows in a file of `length` bytes; `length` is at least the header.
inline constexpr uint64_t whole_rows(uint64_t length) {
    return (length - kSidecarHeaderBytes) / kSidecarRowBytes;
}

// Reads 32 bytes at the descriptor's current position: 0 when all of them came and the header
// matches, -1 otherwise (a short file, a read error, a foreign file).
int validate_header(int fd);

}  // namespace orve::sidecar
