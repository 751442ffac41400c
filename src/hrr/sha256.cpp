#include "hrr/sha256.h"

#include <cstring>

namespace orve {

const uint32_t K256[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
};

namespace {

constexpr uint32_t kInitialHash[8] = {
    0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19,
};

inline uint32_t rotr(uint32_t x, int n) {
    return (x >> n) | (x << (32 - n));
}

inline uint32_t load_be32(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

inline void store_be32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

}  // namespace

void sha256_compress(uint32_t state[8], const uint8_t block[kSha256BlockBytes]) {
    uint32_t w[64];
    for (int t = 0; t < 16; ++t) w[t] = load_be32(block + 4 * t);
    for (int t = 16; t < 64; ++t) {
        const uint32_t s0 = rotr(w[t - 15], 7) ^ rotr(w[t - 15], 18) ^ (w[t - 15] >> 3);
        const uint32_t s1 = rotr(w[t - 2], 17) ^ rotr(w[t - 2], 19) ^ (w[t - 2] >> 10);
        w[t] = w[t - 16] + s0 + w[t - 7] + s1;
    }

    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
    for (int t = 0; t < 64; ++t) {
        const uint32_t big_s1 = rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25);
        const uint32_t ch = (e & f) ^ (~e & g);
        const uint32_t t1 = h + big_s1 + ch + K256[t] + w[t];
        const uint32_t big_s0 = rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22);
        const uint32_t maj = (a & b) ^ (a & c) ^ (b & c);
        const uint32_t t2 = big_s0 + maj;
        h = g;
        g = f;
        f = e;
        e = d + t1;
        d = c;
        c = b;
        b = a;
        a = t1 + t2;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
    state[5] += f;
    state[6] += g;
    state[7] += h;
}

void sha256_init(sha256_ctx* ctx) {
    std::memcpy(ctx->state, kInitialHash, sizeof(kInitialHash));
    ctx->block_fill = 0;
    ctx->total_bytes = 0;
}

void sha256_update(sha256_ctx* ctx, const void* data, std::size_t len) {
    const auto* p = static_cast<const uint8_t*>(data);
    ctx->total_bytes += len;
    if (ctx->block_fill > 0) {
        const std::size_t room = kSha256BlockBytes - ctx->block_fill;
        const std::size_t take = len < room ? len : room;
        std::memcpy(ctx->block + ctx->block_fill, p, take);
        ctx->block_fill += take;
        p += take;
        len -= take;
        if (ctx->block_fill < kSha256BlockBytes) return;
        sha256_compress(ctx->state, ctx->block);
        ctx->block_fill = 0;
    }
    // Whole blocks straight from the caller's bytes, without a copy.
    for (; len >= kSha256BlockBytes; p += kSha256BlockBytes, len -= kSha256BlockBytes) {
        sha256_compress(ctx->state, p);
    }
    if (len > 0) std::memcpy(ctx->block, p, len);
    ctx->block_fill = len;
}

void sha256_final(sha256_ctx* ctx, uint8_t digest[kSha256DigestBytes]) {
    // Captured before padding: the length field counts only the message bits (modulo 2^64,
    // as FIPS 180-4 allows no longer message anyway).
    const uint64_t bit_len = ctx->total_bytes * 8u;

    std::size_t fill = ctx->block_fill;
    ctx->block[fill++] = 0x80;
    // The 8-byte length must end a block; if it no longer fits, this block is all padding.
    if (fill > kSha256BlockBytes - 8) {
        std::memset(ctx->block + fill, 0, kSha256BlockBytes - fill);
        sha256_compress(ctx->state, ctx->block);
        fill = 0;
    }
    std::memset(ctx->block + fill, 0, kSha256BlockBytes - 8 - fill);
    for (int i = 0; i < 8; ++i) {
        ctx->block[kSha256BlockBytes - 1 - i] = static_cast<uint8_t>(bit_len >> (8 * i));
    }
    sha256_compress(ctx->state, ctx->block);

    for (int i = 0; i < 8; ++i) store_be32(digest + 4 * i, ctx->state[i]);
}

}  // namespace orve
