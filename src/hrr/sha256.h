// SHA-256 (FIPS 180-4) for deriving HRR atom seeds.
//
// Incremental: a message given in pieces hashes exactly like the same bytes given at once, so
// the atom's message (seed digits, role, name and their separators) is never assembled in a
// buffer and hashing cannot fail, however long the name.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orve {

constexpr std::size_t kSha256BlockBytes = 64;
constexpr std::size_t kSha256DigestBytes = 32;

// The 64 round constants of FIPS 180-4, section 4.2.2.
extern const uint32_t K256[64];

struct sha256_ctx {
    uint32_t state[8];
    uint8_t block[kSha256BlockBytes];  // bytes not yet compressed
    std::size_t block_fill;            // how many of them
    uint64_t total_bytes;              // message length so far
};

// One application of the compression function to a 64-byte block.
void sha256_compress(uint32_t state[8], const uint8_t block[kSha256BlockBytes]);

void sha256_init(sha256_ctx* ctx);
void sha256_update(sha256_ctx* ctx, const void* data, std::size_t len);
// Pads, compresses the last block(s) and writes the digest with its words big-endian. The
// context must be initialised again before another use.
void sha256_final(sha256_ctx* ctx, uint8_t digest[kSha256DigestBytes]);

}  // namespace orve
