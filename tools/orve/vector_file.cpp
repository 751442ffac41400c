#include "vector_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <utility>
#include <unordered_map>

#include "file_checks.h"
#include "tool_error.h"

namespace orve::tool {

// Both formats store little-endian values and the rows are copied out with memcpy.
static_assert(std::endian::native == std::endian::little,
              "the readers assume a little-endian host");

namespace {

constexpr uint8_t kNpyMagic[6] = {0x93, 'N', 'U', 'M', 'P', 'Y'};
constexpr uint64_t kFloatRowBytes = uint64_t{kDim} * sizeof(float);

uint32_t load_le32(const uint8_t* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

bool ends_with(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() &&
           s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The header is a Python dict literal. Only the handful of forms NumPy writes are needed:
// strings, True/False, non-negative integers and tuples or lists of those.
struct py_value {
    enum kind_t { string, boolean, integer, sequence } kind = string;
    std::string text;
    bool flag = false;
    uint64_t number = 0;
    std::vector<py_value> items;
};

// A header is a short line of text (NumPy itself reads at most 10,000 bytes), and the parser
// below recurses once per nesting level: both bounds keep a hostile file from exhausting memory
// or the stack before it is refused.
constexpr uint64_t kMaxNpyHeaderBytes = 65536;
constexpr int kMaxNpyNesting = 16;

class literal_parser {
  public:
    literal_parser(const std::string& text, const std::string& name) : s_(text), name_(name) {}

    std::unordered_map<std::string, py_value> parse_dict() {
        std::unordered_map<std::string, py_value> out;
        expect('{');
        while (true) {
            skip_space();
            if (peek() == '}') {
                ++pos_;
                break;
            }
            py_value key = parse_value(1);
            if (key.kind != py_value::string) fail("dictionary key is not a string");
            expect(':');
            if (out.count(key.text)) fail("key '" + key.text + "' appears twice");
            out[key.text] = parse_value(1);
            skip_space();
            if (peek() == ',') {
                ++pos_;
            } else if (peek() != '}') {
                fail("expected ',' or '}'");
            }
        }
        skip_space();
        if (pos_ != s_.size()) fail("unexpected text after the dictionary");
        return out;
    }

  private:
    [[noreturn]] void fail(const std::string& what) const {
        throw tool_error(name_ + ": malformed NPY header: " + what);
    }
    char peek() const { return pos_ < s_.size() ? s_[pos_] : '\0'; }
    void skip_space() {
        while (pos_ < s_.size() &&
               (s_[pos_] == ' ' || s_[pos_] == '\n' || s_[pos_] == '\t' || s_[pos_] == '\r')) {
            ++pos_;
        }
    }
    void expect(char c) {
        skip_space();
        if (peek() != c) fail(std::string("expected '") + c + "'");
        ++pos_;
    }

    py_value parse_value(int depth) {
        if (depth > kMaxNpyNesting)
            fail("nested more than " + std::to_string(kMaxNpyNesting) + " levels deep");
        skip_space();
        py_value v;
        const char c = peek();
        if (c == '\'' || c == '"') {
            ++pos_;
            const size_t end = s_.find(c, pos_);
            if (end == std::string::npos) fail("unterminated string");
            v.kind = py_value::string;
            v.text = s_.substr(pos_, end - pos_);
            pos_ = end + 1;
        } else if (c == '(' || c == '[') {
            const char close = c == '(' ? ')' : ']';
            ++pos_;
            v.kind = py_value::sequence;
            while (true) {
                skip_space();
                if (peek() == close) {
                    ++pos_;
                    break;
                }
                v.items.push_back(parse_value(depth + 1));
                skip_space();
                if (peek() == ',') {
                    ++pos_;
                } else if (peek() != close) {
                    fail(std::string("expected ',' or '") + close + "'");
                }
            }
        } else if (s_.compare(pos_, 4, "True") == 0) {
            pos_ += 4;
            v.kind = py_value::boolean;
            v.flag = true;
        } else if (s_.compare(pos_, 5, "False") == 0) {
            pos_ += 5;
            v.kind = py_value::boolean;
        } else if (c >= '0' && c <= '9') {
            v.kind = py_value::integer;
            while (peek() >= '0' && peek() <= '9') {
                const uint64_t digit = static_cast<uint64_t>(peek() - '0');
                if (v.number > (UINT64_MAX - digit) / 10) fail("dimension too large");
                v.number = v.number * 10 + digit;
                ++pos_;
            }
            if (peek() == 'L') ++pos_;  // Python 2 long suffix, still found in old files
        } else {
            fail(c == '-' ? "negative number" : "unexpected character");
        }
        return v;
    }

    const std::string& s_;
    const std::string& name_;
    size_t pos_ = 0;
};

[[noreturn]] void fail_file(const std::string& path, const std::string& what) {
    throw tool_error(path + ": " + what);
}

std::string count_text(uint64_t n, const char* unit) {
    return std::to_string(n) + " " + unit + (n == 1 ? "" : "s");
}

}  // namespace

mapped_file::mapped_file(const std::string& path) : path_(path) {
    // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer forever, before
    // the type check below could refuse it. It has no effect on reading a regular file.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) fail_file(path, "cannot open: " + errno_text(errno));
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        const int err = errno;
        ::close(fd);
        fail_file(path, "cannot stat: " + errno_text(err));
    }
    if (!S_ISREG(st.st_mode)) {
        ::close(fd);
        fail_file(path, "is " + file_type_name(st.st_mode) + ", not a regular file");
    }
    size_ = static_cast<uint64_t>(st.st_size);
    if (size_ > 0) {
        void* p = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
        if (p == MAP_FAILED) {
            const int err = errno;
            ::close(fd);
            fail_file(path, "cannot map: " + errno_text(err));
        }
        ::madvise(p, size_, MADV_SEQUENTIAL);
        data_ = static_cast<const uint8_t*>(p);
    }
    ::close(fd);
}

mapped_file::mapped_file(mapped_file&& other) noexcept
    : path_(std::move(other.path_)), data_(other.data_), size_(other.size_) {
    other.data_ = nullptr;
    other.size_ = 0;
}

mapped_file::~mapped_file() {
    if (data_) ::munmap(const_cast<uint8_t*>(data_), size_);
}

std::string shape_text(const std::vector<uint64_t>& shape) {
    std::string s = "(";
    for (size_t i = 0; i < shape.size(); ++i) {
        if (i) s += ", ";
        s += std::to_string(shape[i]);
    }
    if (shape.size() == 1) s += ",";
    return s + ")";
}

npy_header parse_npy_header(const uint8_t* bytes, uint64_t size, const std::string& name) {
    if (size < sizeof kNpyMagic || std::memcmp(bytes, kNpyMagic, sizeof kNpyMagic) != 0) {
        fail_file(name, "not an NPY file (bad magic)");
    }
    if (size < 8) fail_file(name, "truncated NPY header");
    npy_header h;
    h.major = bytes[6];
    h.minor = bytes[7];
    if (h.major < 1 || h.major > 3) {
        fail_file(name, "unsupported NPY version " + std::to_string(h.major) + "." +
                            std::to_string(h.minor));
    }
    // Version 1 stores the header length in 2 bytes; 2 and 3 (UTF-8 header) in 4.
    const uint64_t len_bytes = h.major == 1 ? 2 : 4;
    if (size < 8 + len_bytes) fail_file(name, "truncated NPY header");
    const uint64_t header_len =
        len_bytes == 2 ? uint64_t{bytes[8]} | uint64_t{bytes[9]} << 8 : load_le32(bytes + 8);
    const uint64_t start = 8 + len_bytes;
    if (header_len > kMaxNpyHeaderBytes) {
        fail_file(name, "NPY header of " + std::to_string(header_len) + " bytes (at most " +
                            std::to_string(kMaxNpyHeaderBytes) + " accepted)");
    }
    if (size - start < header_len) fail_file(name, "truncated NPY header");
    const std::string text(reinterpret_cast<const char*>(bytes + start), header_len);
    h.data_offset = start + header_len;

    auto dict = literal_parser(text, name).parse_dict();
    for (const auto& [key, value] : dict) {
        if (key != "descr" && key != "fortran_order" && key != "shape") {
            fail_file(name, "malformed NPY header: unexpected key '" + key + "'");
        }
    }
    for (const char* key : {"descr", "fortran_order", "shape"}) {
        if (!dict.count(key)) {
            fail_file(name, std::string("malformed NPY header: no '") + key + "' entry");
        }
    }
    const py_value& descr = dict["descr"];
    // A list descr is a structured (record) dtype; keep the text empty so the caller's dtype
    // message can say so.
    h.descr = descr.kind == py_value::string ? descr.text : "";
    if (descr.kind != py_value::string && descr.kind != py_value::sequence) {
        fail_file(name, "malformed NPY header: 'descr' is not a dtype");
    }
    const py_value& fortran = dict["fortran_order"];
    if (fortran.kind != py_value::boolean) {
        fail_file(name, "malformed NPY header: 'fortran_order' is not True or False");
    }
    h.fortran_order = fortran.flag;
    const py_value& shape = dict["shape"];
    if (shape.kind != py_value::sequence) {
        fail_file(name, "malformed NPY header: 'shape' is not a tuple");
    }
    for (const py_value& d : shape.items) {
        if (d.kind != py_value::integer) {
            fail_file(name, "malformed NPY header: 'shape' holds a non-integer");
        }
        h.shape.push_back(d.number);
    }
    return h;
}

namespace {

std::string describe_descr(const npy_header& h) {
    return h.descr.empty() ? "a structured dtype" : "'" + h.descr + "'";
}

// Element size of the first of `accepted` that is the file's dtype; a usage-grade error naming
// what was wanted otherwise. The dtype is checked before anything else, so the message names
// the first thing a user would have to change.
uint32_t element_bytes(const npy_header& h, const std::string& path,
                       std::initializer_list<std::pair<const char*, uint32_t>> accepted,
                       const char* wanted_type) {
    for (const auto& [descr, bytes] : accepted) {
        if (h.descr == descr) return bytes;
    }
    fail_file(path, std::string("expected ") + wanted_type + ", found " + describe_descr(h));
}

// Then memory order, shape and the amount of data behind the header.
void check_npy_array(const npy_header& h, uint64_t file_size, const std::string& path,
                     uint32_t elem_bytes, bool shape_ok, const char* wanted_shape) {
    if (h.fortran_order) fail_file(path, "array is in Fortran order; save it in C order");
    if (!shape_ok) {
        fail_file(path,
                  std::string("expected shape ") + wanted_shape + ", found " + shape_text(h.shape));
    }
    uint64_t elements = 1;
    for (uint64_t d : h.shape) {
        if (d != 0 && elements > UINT64_MAX / 8 / d) fail_file(path, "shape too large");
        elements *= d;
    }
    const uint64_t need = elements * elem_bytes;
    const uint64_t have = file_size - h.data_offset;
    if (have < need) {
        fail_file(path, "truncated: shape " + shape_text(h.shape) + " needs " +
                            std::to_string(need) + " bytes of data, found " + std::to_string(have));
    }
    if (have > need) {
        fail_file(path, std::to_string(have - need) + " unexpected bytes after the array data");
    }
}

// One little-endian integer id of `bytes` bytes, signed or not, widened without loss.
int64_t load_id(const uint8_t* p, uint32_t bytes, bool is_signed) {
    uint64_t v = 0;
    for (uint32_t i = 0; i < bytes; ++i) v |= uint64_t{p[i]} << (8 * i);
    if (bytes == 8 && !is_signed && v > uint64_t{INT64_MAX}) return -1;  // out of range anyway
    if (is_signed && bytes < 8 && (v >> (8 * bytes - 1)) != 0) v |= ~uint64_t{0} << (8 * bytes);
    return static_cast<int64_t>(v);
}

}  // namespace

vector_file::vector_file(const std::string& path) : file_(path) {
    const uint8_t* d = file_.data();
    const uint64_t size = file_.size();
    const bool npy_magic =
        size >= sizeof kNpyMagic && std::memcmp(d, kNpyMagic, sizeof kNpyMagic) == 0;
    if (npy_magic || ends_with(path, ".npy")) {
        format_ = vector_format::npy;
        const npy_header h = parse_npy_header(d, size, path);
        // float64 is converted on reading, as the Python package does: arrays made by numpy
        // are float64 unless asked otherwise.
        const uint32_t elem =
            element_bytes(h, path, {{"<f4", 4}, {"<f8", 8}}, "float32 '<f4' or float64 '<f8'");
        check_npy_array(h, size, path, elem, h.shape.size() == 2 && h.shape[1] == kDim, "(n, 512)");
        rows_ = h.shape[0];
        data_offset_ = h.data_offset;
        stride_ = uint64_t{elem} * kDim;
        doubles_ = elem == 8;
    } else if (ends_with(path, ".fvecs")) {
        format_ = vector_format::fvecs;
        // Each vector is an int32 dimension followed by that many float32 values.
        const uint64_t record = 4 + kFloatRowBytes;
        if (size >= 4) {
            const uint32_t dim = load_le32(d);
            if (dim != kDim) {
                fail_file(path, "expected dimension 512, found " +
                                    std::to_string(static_cast<int32_t>(dim)) + " (vector 0)");
            }
        }
        rows_ = size / record;
        for (uint64_t r = 1; r < rows_; ++r) {
            const uint32_t dim = load_le32(d + r * record);
            if (dim != kDim) {
                fail_file(path, "expected dimension 512, found " +
                                    std::to_string(static_cast<int32_t>(dim)) + " (vector " +
                                    std::to_string(r) + ")");
            }
        }
        if (size % record != 0) {
            fail_file(path, "truncated: ends inside vector " + std::to_string(rows_) + " (" +
                                count_text(size % record, "byte") + " of " +
                                std::to_string(record) + ")");
        }
        data_offset_ = 4;
        stride_ = record;
    } else {
        fail_file(path, "unknown vector file format (expected .npy or .fvecs)");
    }
    if (rows_ == 0) fail_file(path, "holds no vectors");
}

void vector_file::read_rows(uint64_t first, uint64_t count, float* out) const {
    for (uint64_t r = 0; r < count; ++r) {
        const uint8_t* src = file_.data() + data_offset_ + (first + r) * stride_;
        float* dst = out + r * kDim;
        if (doubles_) {
            // A value beyond float range becomes an infinity and is refused just below.
            for (uint32_t j = 0; j < kDim; ++j) {
                double v;
                std::memcpy(&v, src + j * 8, 8);
                dst[j] = static_cast<float>(v);
            }
        } else {
            std::memcpy(dst, src, kFloatRowBytes);
        }
        for (uint32_t j = 0; j < kDim; ++j) {
            if (!std::isfinite(dst[j])) {
                fail_file(path(), "vector " + std::to_string(first + r) + " holds " +
                                      (std::isnan(dst[j]) ? "NaN" : "an infinity") +
                                      " at component " + std::to_string(j));
            }
        }
    }
}

std::vector<uint32_t> read_ids(const std::string& path, uint64_t expected_rows) {
    const mapped_file file(path);
    const npy_header h = parse_npy_header(file.data(), file.size(), path);
    const uint32_t elem = element_bytes(h, path,
                                        {{"|u1", 1},
                                         {"|i1", 1},
                                         {"<u2", 2},
                                         {"<i2", 2},
                                         {"<u4", 4},
                                         {"<i4", 4},
                                         {"<u8", 8},
                                         {"<i8", 8}},
                                        "an integer dtype (int8 to int64, uint8 to uint64)");
    const bool is_signed = h.descr[1] == 'i';
    check_npy_array(h, file.size(), path, elem, h.shape.size() == 1, "(n,)");
    if (h.shape[0] != expected_rows) {
        fail_file(path, "holds " + count_text(h.shape[0], "id") + " but the vectors file holds " +
                            count_text(expected_rows, "row"));
    }
    std::vector<uint32_t> ids(h.shape[0]);
    for (uint64_t r = 0; r < ids.size(); ++r) {
        const int64_t v = load_id(file.data() + h.data_offset + r * elem, elem, is_signed);
        if (v == 0) fail_file(path, "id 0 at row " + std::to_string(r) + " (ids must be nonzero)");
        // Checked before narrowing: a wrapped value would silently name another node.
        if (v < 0 || v > int64_t{UINT32_MAX}) {
            fail_file(path, "id at row " + std::to_string(r) +
                                " is outside 1 to 4294967295 (node ids are 32-bit)");
        }
        ids[r] = static_cast<uint32_t>(v);
    }
    std::unordered_map<uint32_t, uint64_t> seen;
    seen.reserve(ids.size());
    for (uint64_t r = 0; r < ids.size(); ++r) {
        auto [it, fresh] = seen.emplace(ids[r], r);
        if (!fresh) {
            fail_file(path, "id " + std::to_string(ids[r]) + " appears at rows " +
                                std::to_string(it->second) + " and " + std::to_string(r));
        }
    }
    return ids;
}

}  // namespace orve::tool
