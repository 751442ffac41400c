// Readers for the vector files the tool accepts: NumPy .npy arrays (float32 vectors, uint32
// identifiers) and .fvecs files. They check everything a malformed or foreign file could get
// wrong before any row reaches the library, and report it as one line naming the file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orve::tool {

inline constexpr uint32_t kDim = 512;

// A whole file mapped read-only. Vector files can be larger than memory; mapping lets the
// kernel page them in as ingestion walks forward instead of copying them up front.
class mapped_file {
  public:
    explicit mapped_file(const std::string& path);
    ~mapped_file();
    mapped_file(mapped_file&& other) noexcept;
    mapped_file(const mapped_file&) = delete;
    mapped_file& operator=(const mapped_file&) = delete;
    mapped_file& operator=(mapped_file&&) = delete;

    const uint8_t* data() const { return data_; }
    uint64_t size() const { return size_; }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
    const uint8_t* data_ = nullptr;
    uint64_t size_ = 0;
};

struct npy_header {
    int major = 0;
    int minor = 0;
    std::string descr;
    bool fortran_order = false;
    std::vector<uint64_t> shape;
    uint64_t data_offset = 0;  // first byte of the array data
};

// Decodes the preamble of an .npy file (versions 1.0, 2.0 and 3.0) from its first `size`
// bytes. `name` prefixes every error message.
npy_header parse_npy_header(const uint8_t* bytes, uint64_t size, const std::string& name);

// A shape the way NumPy prints it: "(3, 512)", "(512,)", "()".
std::string shape_text(const std::vector<uint64_t>& shape);

enum class vector_format { npy, fvecs };

// A validated file of 512-dimension vectors: an .npy of dtype '<f4' or '<f8' and shape
// (n, 512) in C order, or an .fvecs file whose every vector declares dimension 512.
class vector_file {
  public:
    explicit vector_file(const std::string& path);

    uint64_t rows() const { return rows_; }
    vector_format format() const { return format_; }
    const std::string& path() const { return file_.path(); }

    // Copies rows [first, first + count) into out (count x 512 floats). A NaN or infinity is an
    // error: the library would quantise it into garbage codes without complaint.
    void read_rows(uint64_t first, uint64_t count, float* out) const;

  private:
    mapped_file file_;
    vector_format format_ = vector_format::npy;
    uint64_t rows_ = 0;
    uint64_t data_offset_ = 0;  // offset of row 0's first float
    uint64_t stride_ = 0;       // bytes from one row's first value to the next
    bool doubles_ = false;      // float64 .npy, converted to float32 on reading
};

// Node identifiers from an integer .npy (int8..uint64) of shape (expected_rows,), each within
// 1..2^32-1. Identifiers must be
// nonzero (the library refuses 0) and distinct (a result could not be traced back otherwise).
std::vector<uint32_t> read_ids(const std::string& path, uint64_t expected_rows);

}  // namespace orve::tool
