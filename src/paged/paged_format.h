// Byte layout of the .ivfp paged index file and the arithmetic that places its sections.
//
// Every field is stored and loaded here byte by byte in little-endian order, so a file written
// on one host is byte-identical to the same file written on another and reads the same
// everywhere. The loads compile to plain loads on little-endian targets, so the search pays
// nothing for them.
//
// Offsets come from untrusted files as often as from the writer, so everything that places a
// section is computed in 64 bits with explicit overflow checks: a sum that would wrap reports
// failure instead of producing a small, plausible offset.
#pragma once

#include <cstdint>
#include <cstring>

#include "quant/dot512_kernels.h"
#include "semantic_vector_indexing.h"
#include "util/little_endian.h"

namespace orve::paged {

// The leading zero byte keeps a text file that happens to start with the letters from passing.
inline constexpr uint8_t kMagic[8] = {0x00, 'O', 'R', 'V', 'E', 'V', 'F', 'P'};
inline constexpr uint32_t kVersionWritten = 2;
inline constexpr uint32_t kVersionNoNodeIds = 1;
inline constexpr uint32_t kDim = ORVE512_DIM;

inline constexpr uint64_t kPagedHeaderBytes = 72;
inline constexpr uint64_t kHeaderVersion = 8;
inline constexpr uint64_t kHeaderDim = 12;
inline constexpr uint64_t kHeaderB1 = 16;
inline constexpr uint64_t kHeaderB2 = 20;
inline constexpr uint64_t kHeaderRows = 24;

using orve::kCodeBytes;                          // one quantised vector, as the kernels read it
inline constexpr uint64_t kL1PairBytes = 8;      // float scale, float norm
inline constexpr uint64_t kLeafTableBytes = 16;  // scale, norm, count, reserved
inline constexpr uint64_t kLeafTableScale = 0;
inline constexpr uint64_t kLeafTableNorm = 4;
inline constexpr uint64_t kLeafTableCount = 8;
inline constexpr uint64_t kLeafDirBytes = 24;  // codes offset, meta offset, count, reserved
inline constexpr uint64_t kLeafDirCodes = 0;
inline constexpr uint64_t kLeafDirMeta = 8;
inline constexpr uint64_t kLeafDirCount = 16;

inline constexpr uint64_t kLeafAlign = 64;
inline constexpr uint64_t kDataAlign = 4096;

// Metadata bytes per row: scale, norm, row id, and (version 2) node id, as four arrays.
inline constexpr uint64_t meta_bytes_per_row(uint32_t version) {
    return version == kVersionNoNodeIds ? 12 : 16;
}

// Little-endian fields, shared with the sidecar file.
using orve::load_f32;
using orve::load_u32;
using orve::load_u64;
using orve::store_f32;
using orve::store_u32;
using orve::store_u64;

// ---- checked 64-bit arithmetic ----------------------------------------------------------

inline bool add_u64(uint64_t a, uint64_t b, uint64_t* out) {
    return !__builtin_add_overflow(a, b, out);
}

inline bool mul_u64(uint64_t a, uint64_t b, uint64_t* out) {
    return !__builtin_mul_overflow(a, b, out);
}

// x rounded up to a multiple of `align` (a power of two); false when that passes 2^64 - 1.
inline bool align_up(uint64_t x, uint64_t align, uint64_t* out) {
    uint64_t t;
    if (!add_u64(x, align - 1, &t)) return false;
    *out = t & ~(align - 1);
    return true;
}

// ---- section placement ------------------------------------------------------------------

// Where the sections of a file with b1 level-1 buckets and b2 slots per bucket lie. Everything
// up to data_start follows from b1 and b2 alone.
struct section_layout {
    uint64_t slots;       // L = b1 x b2
    uint64_t l1_codes;    // 72
    uint64_t l1_pairs;    // 72 + 512 b1
    uint64_t leaf_codes;  // LC = align64(72 + 520 b1)
    uint64_t leaf_table;  // LT = LC + 512 L
    uint64_t leaf_dir;    // LD = LT + 16 L
    uint64_t data_start;  // DS = align4096(LD + 24 L)
};

// False when an offset would not fit in 64 bits (only reachable with absurd b1 x b2).
inline bool compute_layout(uint32_t b1, uint32_t b2, section_layout* out) {
    section_layout s{};
    s.slots = static_cast<uint64_t>(b1) * b2;  // two 32-bit factors never wrap 64 bits
    s.l1_codes = kPagedHeaderBytes;
    s.l1_pairs = kPagedHeaderBytes + kCodeBytes * b1;
    uint64_t t;
    if (!align_up(kPagedHeaderBytes + (kCodeBytes + kL1PairBytes) * b1, kLeafAlign, &s.leaf_codes))
        return false;
    if (!mul_u64(kCodeBytes, s.slots, &t) || !add_u64(s.leaf_codes, t, &s.leaf_table)) return false;
    if (!mul_u64(kLeafTableBytes, s.slots, &t) || !add_u64(s.leaf_table, t, &s.leaf_dir))
        return false;
    if (!mul_u64(kLeafDirBytes, s.slots, &t) || !add_u64(s.leaf_dir, t, &t)) return false;
    if (!align_up(t, kDataAlign, &s.data_start)) return false;
    *out = s;
    return true;
}

}  // namespace orve::paged
