#include "index_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_set>

#include "semantic_vector_indexing.h"
#include "tool_error.h"
#include "vector_file.h"

namespace orve::tool {

namespace {

constexpr uint8_t kPagedMagic[8] = {0x00, 'O', 'R', 'V', 'E', 'V', 'F', 'P'};
constexpr uint8_t kSidecarMagic[8] = {'O', 'R', 'V', 'E', 'V', 'E', 'C', 'A'};
constexpr uint64_t kPagedHeaderBytes = 72;
constexpr uint64_t kCodeBytes = 512;
constexpr uint64_t kLeafTableEntry = 16;
constexpr uint64_t kLeafDirEntry = 24;

uint32_t le32(const uint8_t* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

uint64_t le64(const uint8_t* p) {
    return uint64_t{le32(p)} | uint64_t{le32(p + 4)} << 32;
}

uint64_t align_up(uint64_t x, uint64_t a) {
    return (x + a - 1) / a * a;
}

template <typename T>
T median_of(std::vector<T> v) {
    if (v.empty()) return T{};
    std::nth_element(v.begin(), v.begin() + static_cast<ptrdiff_t>(v.size() / 2), v.end());
    return v[v.size() / 2];
}

}  // namespace

index_file_kind sniff_index_file(const std::string& path) {
    const mapped_file file(path);
    if (file.size() >= 8 && std::memcmp(file.data(), kPagedMagic, 8) == 0) {
        return index_file_kind::paged_index;
    }
    if (file.size() >= 8 && std::memcmp(file.data(), kSidecarMagic, 8) == 0) {
        return index_file_kind::sidecar;
    }
    return index_file_kind::unknown;
}

namespace {

using u128 = unsigned __int128;

// The 72-byte header's fields and their problems; false when no section can be placed.
bool read_ivfp_header(const uint8_t* d, ivfp_report& r) {
    if (r.file_size < kPagedHeaderBytes) {
        r.magic_ok = r.file_size >= 8 && std::memcmp(d, kPagedMagic, 8) == 0;
        r.problems.push_back("shorter than the 72-byte header");
        return false;
    }
    r.magic_ok = std::memcmp(d, kPagedMagic, 8) == 0;
    r.version = le32(d + 8);
    r.dim = le32(d + 12);
    r.b1 = le32(d + 16);
    r.b2 = le32(d + 20);
    r.n_rows = le32(d + 24);
    r.reserved_zero = std::all_of(d + 28, d + kPagedHeaderBytes, [](uint8_t b) { return b == 0; });
    if (!r.magic_ok) r.problems.push_back("bad magic");
    if (r.version != 1 && r.version != 2) {
        r.problems.push_back("version " + std::to_string(r.version) + " (expected 1 or 2)");
    }
    if (r.dim != kDim) r.problems.push_back("dim " + std::to_string(r.dim) + " (expected 512)");
    if (!r.reserved_zero) r.problems.push_back("reserved header bytes are not zero");
    if (r.b1 == 0 || r.b2 == 0) {
        r.problems.push_back("b1 or b2 is 0");
        return false;
    }
    return true;
}

// Section offsets from b1 and b2; false when the index part does not fit the file. b1 and b2
// are 32-bit, so every offset fits in 128 bits; anything past the file length is reported
// instead of being used.
bool place_ivfp_sections(ivfp_report& r) {
    const u128 slots = u128{r.b1} * r.b2;
    const u128 lc = align_up(kPagedHeaderBytes + 520 * uint64_t{r.b1}, 64);
    const u128 lt = lc + slots * kCodeBytes;
    const u128 ld = lt + slots * kLeafTableEntry;
    const u128 index_end = ld + slots * kLeafDirEntry;
    if (index_end > r.file_size) {
        r.problems.push_back("the index part (b1=" + std::to_string(r.b1) +
                             ", b2=" + std::to_string(r.b2) + ") extends past the end of the file");
        return false;
    }
    r.slots = static_cast<uint64_t>(slots);
    r.leaf_centroids = static_cast<uint64_t>(lc);
    r.leaf_table = static_cast<uint64_t>(lt);
    r.leaf_directory = static_cast<uint64_t>(ld);
    r.leaf_data = align_up(static_cast<uint64_t>(index_end), 4096);
    if (r.leaf_data > r.file_size) {
        r.problems.push_back("file ends before the leaf data section at " +
                             std::to_string(r.leaf_data));
    }
    r.tables_read = true;
    return true;
}

// Every leaf slot: its rows, where its data sits, and the size distributions.
void scan_ivfp_leaves(const uint8_t* d, ivfp_report& r) {
    const uint64_t meta_per_row = r.version == 1 ? 12 : 16;
    std::vector<uint32_t> leaf_sizes;
    std::vector<uint32_t> l1_rows(r.b1, 0);
    uint64_t mismatches = 0;
    uint64_t misplaced = 0;
    uint64_t expected_next = r.leaf_data;
    r.data_end = r.leaf_data;
    for (uint64_t s = 0; s < r.slots; ++s) {
        const uint8_t* table = d + r.leaf_table + kLeafTableEntry * s;
        const uint8_t* dir = d + r.leaf_directory + kLeafDirEntry * s;
        const uint32_t count = le32(table + 8);
        const uint64_t codes = le64(dir);
        const uint64_t meta = le64(dir + 8);
        if (le32(dir + 16) != count) ++mismatches;
        r.rows_in_leaves += count;
        l1_rows[s / r.b2] += count;
        if (count == 0) {
            ++r.empty_slots;
            continue;
        }
        leaf_sizes.push_back(count);
        const u128 end = u128{meta} + u128{meta_per_row} * count;
        if (codes != expected_next || u128{meta} != u128{codes} + u128{kCodeBytes} * count ||
            end > r.file_size) {
            ++misplaced;
            if (end > r.file_size) continue;
        }
        expected_next = align_up(static_cast<uint64_t>(end), 64);
        r.data_end = std::max(r.data_end, expected_next);
    }
    if (!leaf_sizes.empty()) {
        r.leaf_min = *std::min_element(leaf_sizes.begin(), leaf_sizes.end());
        r.leaf_max = *std::max_element(leaf_sizes.begin(), leaf_sizes.end());
        r.leaf_median = median_of(leaf_sizes);
    }
    r.l1_min = *std::min_element(l1_rows.begin(), l1_rows.end());
    r.l1_max = *std::max_element(l1_rows.begin(), l1_rows.end());
    r.l1_median = median_of(l1_rows);
    if (mismatches) {
        r.problems.push_back(std::to_string(mismatches) +
                             " leaf slots disagree on their row count between the leaf table "
                             "and the directory");
    }
    if (misplaced) {
        r.problems.push_back(std::to_string(misplaced) +
                             " leaves are not where the layout puts them or run past the end of "
                             "the file");
    }
    if (r.rows_in_leaves != r.n_rows) {
        r.problems.push_back("the header says " + std::to_string(r.n_rows) +
                             " rows but the leaves hold " + std::to_string(r.rows_in_leaves));
    }
    if (misplaced == 0 && r.data_end != r.file_size) {
        r.problems.push_back("the leaves end at byte " + std::to_string(r.data_end) +
                             " but the file has " + std::to_string(r.file_size));
    }
}

}  // namespace

ivfp_report read_ivfp_report(const std::string& path) {
    const mapped_file file(path);
    ivfp_report r;
    r.file_size = file.size();
    if (read_ivfp_header(file.data(), r) && place_ivfp_sections(r))
        scan_ivfp_leaves(file.data(), r);
    return r;
}

sidecar_report read_sidecar_report(const std::string& path, sidecar_live_rows* live) {
    const mapped_file file(path);
    const uint8_t* d = file.data();
    sidecar_report r;
    r.file_size = file.size();
    if (r.file_size < kSidecarHeaderBytes) {
        r.magic_ok = r.file_size >= 8 && std::memcmp(d, kSidecarMagic, 8) == 0;
        return r;
    }
    r.magic_ok = std::memcmp(d, kSidecarMagic, 8) == 0;
    r.version = le32(d + 8);
    r.dim = le32(d + 12);
    r.row_bytes = le32(d + 16);
    r.header_ok = r.magic_ok && r.version == 1 && r.dim == kDim && r.row_bytes == kSidecarRowBytes;
    if (!r.header_ok) return r;
    r.rows = (r.file_size - kSidecarHeaderBytes) / kSidecarRowBytes;
    r.partial_bytes = (r.file_size - kSidecarHeaderBytes) % kSidecarRowBytes;
    std::unordered_set<uint32_t> seen;
    for (uint64_t i = 0; i < r.rows; ++i) {
        const uint8_t* row = d + kSidecarHeaderBytes + kSidecarRowBytes * i;
        const uint32_t id = le32(row);
        if (row[4] == 0 || id == 0) {
            ++r.dead_rows;
            continue;
        }
        if (r.live_rows == 0 || id < r.min_id) r.min_id = id;
        if (r.live_rows == 0 || id > r.max_id) r.max_id = id;
        ++r.live_rows;
        if (live) {
            live->ids.push_back(id);
            live->file_rows.push_back(static_cast<uint32_t>(i));
        }
        if (!seen.insert(id).second) ++r.duplicate_ids;
    }
    return r;
}

namespace {

// Row `row`'s code in the paged file against the sidecar's floats for it, quantised again by
// the library's own function: the file holds exactly that code for a row built from them.
bool same_code(const mapped_file& sidecar, uint32_t file_row, const uint8_t* code) {
    const uint64_t at = kSidecarHeaderBytes + kSidecarRowBytes * file_row + 8;
    if (at + 4 * uint64_t{kDim} > sidecar.size()) return false;
    float values[kDim];
    std::memcpy(values, sidecar.data() + at, sizeof values);
    int8_t expected[kDim];
    if (orve_quantize_float_vector_symmetric(values, kDim, expected, nullptr, nullptr) != 0) {
        return false;
    }
    return std::memcmp(expected, code, kDim) == 0;
}

}  // namespace

std::string paged_rows_mismatch(const std::string& ivfp_path, const ivfp_report& layout,
                                const std::string& sidecar_path, const sidecar_live_rows& live) {
    const std::vector<uint32_t>& ids = live.ids;
    if (layout.n_rows != ids.size()) {
        return "it holds " + std::to_string(layout.n_rows) + " rows, the sidecar " +
               std::to_string(ids.size());
    }
    const mapped_file file(ivfp_path);
    const mapped_file sidecar(sidecar_path);
    const uint8_t* d = file.data();
    const uint64_t meta_per_row = layout.version == 1 ? 12 : 16;
    // About 256 rows spread over the file: a foreign data set differs in nearly every row.
    const uint64_t sample_every = std::max<uint64_t>(1, ids.size() / 256);
    std::vector<bool> seen(ids.size(), false);
    for (uint64_t s = 0; s < layout.slots; ++s) {
        const uint64_t count = le32(d + layout.leaf_table + kLeafTableEntry * s + 8);
        const uint64_t codes = le64(d + layout.leaf_directory + kLeafDirEntry * s);
        const uint64_t meta = le64(d + layout.leaf_directory + kLeafDirEntry * s + 8);
        if (count == 0) continue;
        // The layout check placed every leaf inside the file; this guards the reads regardless.
        if (meta > file.size() || (file.size() - meta) / meta_per_row < count || codes > meta ||
            (meta - codes) / kCodeBytes < count) {
            return "a leaf runs past the end of the file";
        }
        for (uint64_t k = 0; k < count; ++k) {
            const uint32_t row = le32(d + meta + 8 * count + 4 * k);
            if (row >= ids.size() || seen[row]) {
                return "row position " + std::to_string(row) +
                       (row >= ids.size() ? " is past the sidecar's rows" : " appears twice");
            }
            seen[row] = true;
            const uint32_t node = meta_per_row == 16 ? le32(d + meta + 12 * count + 4 * k) : 0;
            if (meta_per_row == 16 && node != ids[row]) {
                return "row " + std::to_string(row) + " holds node id " + std::to_string(node) +
                       ", the sidecar's row has id " + std::to_string(ids[row]);
            }
            if (row % sample_every == 0 &&
                !same_code(sidecar, live.file_rows[row], d + codes + kCodeBytes * k)) {
                return "row " + std::to_string(row) + " holds another vector than the sidecar's";
            }
        }
    }
    return "";
}

}  // namespace orve::tool
