// Files for the tool's tests, written byte by byte from the published formats (NPY, fvecs)
// rather than by the code under test; the tests run on little-endian targets only.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "support/system_fixture.h"

namespace orve_tool_test {

using bytes = std::vector<uint8_t>;

using namespace test_files;

// Appends the raw bytes of n values.
template <class T>
void put(bytes& b, const T* v, size_t n = 1) {
    const auto* p = reinterpret_cast<const uint8_t*>(v);
    b.insert(b.end(), p, p + n * sizeof(T));
}

// An .npy preamble: magic, version, little-endian header length (2 bytes for 1.x, 4 for 2.x),
// the dict text padded with spaces and a newline so the data starts on a 64-byte boundary.
inline bytes npy_preamble(std::string text, uint8_t major = 1) {
    const size_t fixed = major == 1 ? 10 : 12;
    while ((fixed + text.size() + 1) % 64 != 0) text += ' ';
    text += '\n';
    bytes b = {0x93, 'N', 'U', 'M', 'P', 'Y', major, 0};
    const uint32_t len = static_cast<uint32_t>(text.size());
    put(b, reinterpret_cast<const uint8_t*>(&len), fixed - 8);
    b.insert(b.end(), text.begin(), text.end());
    return b;
}

inline std::string npy_dict(const std::string& descr, const std::string& shape,
                            bool fortran = false) {
    return "{'descr': '" + descr + "', 'fortran_order': " + (fortran ? "True" : "False") +
           ", 'shape': " + shape + ", }";
}

// A float32 (n, 512) array in C order.
inline bytes npy_f32(const std::vector<float>& v, size_t rows, uint8_t major = 1) {
    bytes b = npy_preamble(npy_dict("<f4", "(" + std::to_string(rows) + ", 512)"), major);
    put(b, v.data(), v.size());
    return b;
}

inline bytes npy_u32(const std::vector<uint32_t>& ids) {
    bytes b = npy_preamble(npy_dict("<u4", "(" + std::to_string(ids.size()) + ",)"));
    put(b, ids.data(), ids.size());
    return b;
}

// .fvecs: per vector an int32 dimension, then the values.
inline bytes fvecs(const std::vector<float>& v, size_t rows, uint32_t dim = 512) {
    bytes b;
    for (size_t r = 0; r < rows; ++r) {
        put(b, &dim);
        put(b, v.data() + r * dim, dim);
    }
    return b;
}

// Gaussian rows around `centres` random centres (spread 0.8), so neighbours are well defined
// and different queries have different answers; centres = 0 gives plain Gaussian rows.
inline std::vector<float> mixture(size_t rows, unsigned seed, size_t centres = 8) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> g;
    std::vector<float> c(centres * 512), v(rows * 512);
    for (float& x : c) x = g(rng);
    for (size_t r = 0; r < rows; ++r) {
        const size_t k = centres ? rng() % centres : 0;
        for (size_t j = 0; j < 512; ++j)
            v[r * 512 + j] = (centres ? c[k * 512 + j] : 0) + 0.8f * g(rng);
    }
    return v;
}

}  // namespace orve_tool_test
