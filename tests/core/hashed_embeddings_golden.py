#!/usr/bin/env python3
"""Reference values for hashed_embeddings_test.cpp, computed without the library.

Every single-precision step is emulated by rounding the exact double result to float32 with
struct. Sums, products, quotients and square roots of two float32 values are rounded
correctly this way, because a double carries more than twice float32's precision plus two
bits, so rounding first to double and then to float32 gives the same float32 as rounding
once.

Run it and paste the printed table into the test when the cases change.
"""
import math
import struct


def f32(x):
    return struct.unpack("<f", struct.pack("<f", x))[0]


def fnv1a32(data):
    h = 2166136261
    for c in data:
        h = ((h ^ c) * 16777619) & 0xFFFFFFFF
    return h


def embed(data):
    h = fnv1a32(data)
    v = []
    for i in range(128):
        b = (h >> (i % 32)) & 255
        t = f32(float(b) / 255.0)
        v.append(f32(f32(t + t) - 1.0))
    for i in range(min(len(data), 128)):
        v[i] = f32(v[i] + f32((data[i] - 128) * 0.0078125))
    s = 0.0
    for x in v:
        s = f32(s + f32(x * x))
    m = f32(math.sqrt(s))
    if m != 0.0:
        v = [f32(x / m) for x in v]
    return h, v


def c_float(x):
    # Exact hexadecimal literal of a float32 value.
    if x == 0.0:
        return "0.0f"
    mant, exp = float.hex(x).split("p")
    return "%sp%sf" % (mant.rstrip("0").rstrip("."), exp)


CASES = [
    ("hello world", b"hello world"),
    ("a", b"a"),
    ("blank", b" "),
    ("node_text", b"alpha first letter of the alphabet"),
    # 200 bytes: only the first 128 are mixed into the components.
    ("long_a", bytes((ord("a") + (i * 7) % 26) for i in range(200))),
    # Same 200 bytes except byte 150: only the hash differs.
    ("long_b", bytes((ord("a") + (i * 7) % 26) if i != 150 else ord("Z") for i in range(200))),
]

PICKED = [0, 1, 31, 32, 64, 96, 127]

if __name__ == "__main__":
    for name, data in CASES:
        h, v = embed(data)
        comps = ", ".join("{%d, %s}" % (i, c_float(v[i])) for i in PICKED)
        print("// %s: fnv1a32 = 0x%08x" % (name, h))
        print("{\"%s\", {%s}}," % (name, comps))
