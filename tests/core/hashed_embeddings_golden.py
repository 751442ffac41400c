#!/usr/bin/env python3
# Reference values for hashed_embeddings_test.cpp, computed without the library. Each float32
# step is the exact double result rounded with struct, which equals rounding once.
import math
import struct


def f32(x):
    return struct.unpack("<f", struct.pack("<f", x))[0]


def embed(data):
    h = 2166136261  # FNV-1a, 32 bits
    for c in data:
        h = ((h ^ c) * 16777619) & 0xFFFFFFFF
    v = []
    for i in range(128):
        t = f32(float((h >> (i % 32)) & 255) / 255.0)
        v.append(f32(f32(t + t) - 1.0))
    for i in range(min(len(data), 128)):
        v[i] = f32(v[i] + f32((data[i] - 128) * 0.0078125))
    s = 0.0
    for x in v:
        s = f32(s + f32(x * x))
    m = f32(math.sqrt(s))
    return [f32(x / m) for x in v] if m != 0.0 else v


def c_float(x):  # exact hexadecimal literal of a float32 value
    mant, exp = float.hex(x).split("p")
    return "%sp%sf" % (mant.rstrip("0").rstrip("."), exp) if x else "0.0f"


LONG = [ord("a") + (i * 7) % 26 for i in range(200)]  # only the first 128 bytes mix in
CASES = [("hello world", b"hello world"), ("blank", b" "), ("long_a", bytes(LONG)),
         ("long_b", bytes(LONG[:150] + [ord("Z")] + LONG[151:]))]  # only the hash differs

if __name__ == "__main__":
    for name, data in CASES:
        v = embed(data)
        comps = ", ".join("{%d, %s}" % (i, c_float(v[i])) for i in [0, 1, 31, 32, 64, 96, 127])
        print("{\"%s\", {%s}}," % (name, comps))
