// Whole-file reads and writes and a scratch directory, for tests that build files by hand.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace test_files {

inline std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
inline void write_file(const std::string& path, const std::vector<uint8_t>& b) {
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}
inline bool file_exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// A fresh mkdtemp directory under /tmp, removed with its content at the end of the scope.
struct scratch_dir {
    std::string dir = "/tmp/orve_test_XXXXXX";
    scratch_dir() {
        if (::mkdtemp(dir.data()) == nullptr) dir.clear();
    }
    ~scratch_dir() {
        std::error_code ec;
        if (!dir.empty()) std::filesystem::remove_all(dir, ec);
    }
    std::string path(const std::string& name) const { return dir + "/" + name; }
};

}  // namespace test_files
