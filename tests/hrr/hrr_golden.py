#!/usr/bin/env python3
"""Reference values for the HRR tests, computed without the library.

SHA-256 comes from hashlib; the generator, Box-Muller, normalisation and the fact encoding are
written out again here from their definitions. Python floats are IEEE doubles, so every
double-precision step is the same operation as in C, and the single rounding to float32 is
done with struct. math.log, math.sqrt, math.cos and math.sin are the C library's double
functions.

Run it and paste the printed tables into hrr_test.cpp when the cases change.
"""
import hashlib
import math
import struct

MASK64 = (1 << 64) - 1
DIM = 512


def f32(x):
    return struct.unpack("<f", struct.pack("<f", x))[0]


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
    (1, b"entity", b"x"),
    (1, b"relation", b"x"),
    (2, b"entity", b"x"),
    (0, b"entity", b""),
    (18446744073709551615, b"relation", b"is_a"),
    (42, b"entity", LONG_NAME),
]

ENCODE_CASES = [
    (7, b"alice", b"knows", b"bob"),
    (7, b"bob", b"knows", b"alice"),
    (1, b"x", b"x", b"x"),
]

if __name__ == "__main__":
    print("// SHA-256 of bytes i % 251, around the padding boundaries")
    for n in [0, 55, 56, 64, 119, 1000]:
        print('{%d, "%s"},' % (n, hashlib.sha256(pattern(n)).hexdigest()))
    print()
    print("// atoms: seed, role, name, digest of the whole atom")
    for seed, role, name in ATOM_CASES:
        shown = "nullptr" if name == LONG_NAME else '"%s"' % name.decode()
        print('{%dull, "%s", %s, "%s"},' % (seed, role.decode(), shown,
                                             vector_digest(atom(seed, role, name))))
    print()
    print("// facts: seed, subject, relation, object, digest of the whole fact vector")
    for seed, s, r, o in ENCODE_CASES:
        print('{%d, "%s", "%s", "%s", "%s"},' % (seed, s.decode(), r.decode(), o.decode(),
                                                    vector_digest(encode(seed, s, r, o))))
