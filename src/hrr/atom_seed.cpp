#include "hrr/atom_seed.h"

#include <cstdio>
#include <cstring>

#include "hrr/sha256.h"

namespace orve {

namespace {

uint64_t load_le64(const uint8_t* p) {
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}

}  // namespace

void seed_for_atom(uint64_t state[4], uint64_t seed, const char* role, const char* name) {
    // 2^64 - 1 has 20 digits; one more byte for snprintf's terminator, which is not hashed.
    char digits[21];
    const int ndigits =
        std::snprintf(digits, sizeof(digits), "%llu", static_cast<unsigned long long>(seed));
    static const uint8_t kSeparator = 0;

    // Hashed piece by piece rather than assembled: the digest is the same, and a name of any
    // length needs no heap buffer, so deriving an atom has no way to fail.
    sha256_ctx ctx;
    sha256_init(&ctx);
    sha256_update(&ctx, digits, static_cast<std::size_t>(ndigits));
    sha256_update(&ctx, &kSeparator, 1);
    sha256_update(&ctx, role, std::strlen(role));
    sha256_update(&ctx, &kSeparator, 1);
    sha256_update(&ctx, name, std::strlen(name));
    uint8_t digest[kSha256DigestBytes];
    sha256_final(&ctx, digest);

    for (int i = 0; i < 4; ++i) state[i] = load_le64(digest + 8 * i);
    if ((state[0] | state[1] | state[2] | state[3]) == 0) state[0] = 1;
}

}  // namespace orve
