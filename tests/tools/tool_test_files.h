// Files for the tool's tests, written byte by byte from the published formats (NPY, fvecs,
// sidecar) rather than by the code under test.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace orve_tool_test {

using bytes = std::vector<uint8_t>;

// A private directory removed with everything in it when the test ends.
class scratch_dir {
  public:
    scratch_dir() {
        char pattern[] = "/tmp/orve-tool-test-XXXXXX";
        path_ = mkdtemp(pattern) ? pattern : "";
    }
    ~scratch_dir() {
        const std::string cmd = "rm -rf '" + path_ + "'";
        if (!path_.empty() && std::system(cmd.c_str()) != 0) std::perror("rm");
    }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

inline void write_file(const std::string& path, const bytes& b) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return;
    if (!b.empty()) std::fwrite(b.data(), 1, b.size(), f);
    std::fclose(f);
}

inline bytes read_file(const std::string& path) {
    bytes b;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return b;
    int c;
    while ((c = std::fgetc(f)) != EOF) b.push_back(static_cast<uint8_t>(c));
    std::fclose(f);
    return b;
}

inline void put_le32(bytes& b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

inline void put_floats(bytes& b, const float* v, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        uint32_t u;
        std::memcpy(&u, &v[i], 4);
        put_le32(b, u);
    }
}

// An .npy preamble: magic, version, little-endian header length (2 bytes for 1.x, 4 for 2.x),
// the dict text padded with spaces and a newline so the data starts on a 64-byte boundary.
inline bytes npy_preamble(const std::string& dict, int major = 1) {
    const size_t len_bytes = major == 1 ? 2 : 4;
    std::string text = dict;
    const size_t fixed = 8 + len_bytes;
    while ((fixed + text.size() + 1) % 64 != 0) text += ' ';
    text += '\n';
    bytes b = {0x93, 'N', 'U', 'M', 'P', 'Y', static_cast<uint8_t>(major), 0};
    if (len_bytes == 2) {
        b.push_back(static_cast<uint8_t>(text.size() & 0xff));
        b.push_back(static_cast<uint8_t>(text.size() >> 8));
    } else {
        put_le32(b, static_cast<uint32_t>(text.size()));
    }
    b.insert(b.end(), text.begin(), text.end());
    return b;
}

inline std::string npy_dict(const std::string& descr, const std::string& shape,
                            bool fortran = false) {
    return "{'descr': '" + descr + "', 'fortran_order': " + (fortran ? "True" : "False") +
           ", 'shape': " + shape + ", }";
}

// A float32 (n, 512) array in C order.
inline bytes npy_f32(const std::vector<float>& v, size_t rows, int major = 1) {
    bytes b = npy_preamble(npy_dict("<f4", "(" + std::to_string(rows) + ", 512)"), major);
    put_floats(b, v.data(), v.size());
    return b;
}

inline bytes npy_u32(const std::vector<uint32_t>& ids) {
    bytes b = npy_preamble(npy_dict("<u4", "(" + std::to_string(ids.size()) + ",)"));
    for (uint32_t id : ids) put_le32(b, id);
    return b;
}

// .fvecs: per vector an int32 dimension, then the values.
inline bytes fvecs(const std::vector<float>& v, size_t rows, uint32_t dim = 512) {
    bytes b;
    for (size_t r = 0; r < rows; ++r) {
        put_le32(b, dim);
        put_floats(b, v.data() + r * dim, dim);
    }
    return b;
}

}  // namespace orve_tool_test
