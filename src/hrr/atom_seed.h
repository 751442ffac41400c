// The generator state of an HRR atom, derived from (seed, role, name).
#pragma once

#include <cstdint>

namespace orve {

// Fills state[0..3] from the SHA-256 of: seed in decimal, 0x00, role, 0x00, name (no trailing
// zero), the digest's four 8-byte groups read little-endian. An all-zero state, which
// xoshiro256+ can never leave, becomes state[0] = 1.
void seed_for_atom(uint64_t state[4], uint64_t seed, const char* role, const char* name);

}  // namespace orve
