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

// A private directory under /tmp, removed with everything in it when the scope ends.
class scratch_dir {
  public:
    scratch_dir() {
        char pattern[] = "/tmp/orve-test-XXXXXX";
        path_ = ::mkdtemp(pattern) ? pattern : "";
    }
    ~scratch_dir() {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace test_files
