#!/usr/bin/env python3
"""Reference values for the HRR tests, computed without the library.

SHA-256 comes from hashlib; the generator, Box-Muller, normalisation and the fact encoding are
written out again here from their definitions. Python floats are IEEE doubles, so every
double-precision step is the same operation as in C, and the single rounding to float32 is
done with struct. math.log, math.sqrt, math.cos and math.sin are the C library's double
functions.

Run it and paste the printed tables into hrr_test.cpp (the SHA-256 lengths into
sha256_test.cpp) when the cases change.
"""
import hashlib
import math
import struct

MASK64 = (1 << 64) - 1
DIM = 512


def f32(x):
    return struct.unpack("<f", struct.pack("<f", x))[0]


def c_float(x):
    # Exact hexadecimal literal of a float32 value.
    if x == 0.0:
        return "0.0f"
    mant, exp = float.hex(x).split("p")
    mant = mant.rstrip("0").rstrip(".")
    return "%sp%sf" % (mant, exp)


def atom_message(seed, role, name):
    return str(seed).encode() + b"\x00" + role + b"\x00" + name


def atom_state(seed, role, name):
    d = hashlib.sha256(atom_message(seed, role, name)).digest()
    s = [int.from_bytes(d[8 * i:8 * i + 8], "little") for i in range(4)]
    if s == [0, 0, 0, 0]:
        s[0] = 1
    return s


class Xoshiro256Plus:
    def __init__(self, s):
        self.s = list(s)

    def next(self):
        s = self.s
        r = (s[0] + s[3]) & MASK64
        t = (s[1] << 17) & MASK64
        s[2] ^= s[0]
        s[3] ^= s[1]
        s[1] ^= s[2]
        s[0] ^= s[3]
        s[2] ^= t
        s[3] = ((s[3] << 45) | (s[3] >> 19)) & MASK64
        return r

    def uniform(self):
        return (self.next() >> 11) * 2.0 ** -53


def normalize(v):
    total = 0.0
    for x in v:
        total += x * x
    if not total > 1e-60:
        return list(v)
    f = 1.0 / math.sqrt(total)
    return [f32(x * f) for x in v]


def atom(seed, role, name):
    g = Xoshiro256Plus(atom_state(seed, role, name))
    v = []
    for _ in range(DIM // 2):
        u1 = g.uniform()
        while u1 == 0.0:
            u1 = g.uniform()
        u2 = g.uniform()
        rho = math.sqrt(-2.0 * math.log(u1))
        theta = 6.283185307179586 * u2
        v.append(f32(rho * math.cos(theta)))
        v.append(f32(rho * math.sin(theta)))
    return normalize(v)


def encode(seed, subject, relation, obj):
    hs = atom(seed, b"entity", subject)
    hr = atom(seed, b"relation", relation)
    ho = atom(seed, b"entity", obj)
    out = [f32((hs[i] + hr[(i - 1) % DIM]) + ho[(i - 2) % DIM]) for i in range(DIM)]
    return normalize(out)


def vector_digest(v):
    # SHA-256 of the 512 float32 values stored little-endian: pins every bit of a vector.
    return hashlib.sha256(struct.pack("<%df" % DIM, *v)).hexdigest()


def pattern(n):
    return bytes(i % 251 for i in range(n))


LONG_NAME = bytes(ord("a") + i % 26 for i in range(600))

ATOM_CASES = [
    ("seed1_entity_x", 1, b"entity", b"x"),
    ("seed1_relation_x", 1, b"relation", b"x"),
    ("seed2_entity_x", 2, b"entity", b"x"),
    ("seed0_entity_empty", 0, b"entity", b""),
    ("seedmax_relation_is_a", 18446744073709551615, b"relation", b"is_a"),
    ("seed42_entity_long600", 42, b"entity", LONG_NAME),
]

ENCODE_CASES = [
    ("alice_knows_bob", 7, b"alice", b"knows", b"bob"),
    ("bob_knows_alice", 7, b"bob", b"knows", b"alice"),
    ("x_x_x", 1, b"x", b"x", b"x"),
]

ATOM_PICKED = [0, 1, 2, 255, 256, 510, 511]
ENCODE_PICKED = [0, 1, 2, 300, 510, 511]

if __name__ == "__main__":
    g = Xoshiro256Plus([1, 2, 3, 4])
    print("// xoshiro256+ from state {1, 2, 3, 4}: first four outputs")
    print(", ".join("0x%016xull" % g.next() for _ in range(4)))
    print()
    print("// SHA-256 of pattern(n) = bytes i % 251, around the padding boundaries")
    for n in [55, 56, 63, 64, 65, 119, 120, 1000]:
        print('{%d, "%s"},' % (n, hashlib.sha256(pattern(n)).hexdigest()))
    print()
    print("// atom states and components; then the digest of each whole atom")
    for label, seed, role, name in ATOM_CASES:
        s = atom_state(seed, role, name)
        v = atom(seed, role, name)
        comps = ", ".join("{%d, %s}" % (i, c_float(v[i])) for i in ATOM_PICKED)
        states = ", ".join("0x%016xull" % w for w in s)
        print('{"%s", {%s}, {%s}},' % (label, states, comps))
    for label, seed, role, name in ATOM_CASES:
        print('"%s",  // %s' % (vector_digest(atom(seed, role, name)), label))
    print()
    print("// fact encodings; then the digest of each whole fact vector")
    for label, seed, s, r, o in ENCODE_CASES:
        v = encode(seed, s, r, o)
        comps = ", ".join("{%d, %s}" % (i, c_float(v[i])) for i in ENCODE_PICKED)
        print('{"%s", {%s}},' % (label, comps))
    for label, seed, s, r, o in ENCODE_CASES:
        print('"%s",  // %s' % (vector_digest(encode(seed, s, r, o)), label))
