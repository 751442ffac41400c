// Decoders for the two files the library writes, the paged index (.ivfp) and the vector
// sidecar, from the layouts documented in the public header. They read the bytes themselves
// rather than asking the library, so `orve inspect` can describe a file the library refuses.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orve::tool {

enum class index_file_kind { paged_index, sidecar, unknown };

// Looks at the first 8 bytes only; a missing or unreadable file is an error.
index_file_kind sniff_index_file(const std::string& path);

struct ivfp_report {
    uint64_t file_size = 0;
    bool magic_ok = false;
    uint32_t version = 0;
    uint32_t dim = 0;
    uint32_t b1 = 0;
    uint32_t b2 = 0;
    uint32_t n_rows = 0;
    bool reserved_zero = false;
    // Section offsets, derived from b1 and b2 alone; meaningful when both are nonzero.
    uint64_t leaf_centroids = 0;  // LC
    uint64_t leaf_table = 0;      // LT
    uint64_t leaf_directory = 0;  // LD
    uint64_t leaf_data = 0;       // DS
    bool tables_read = false;     // the index part fits the file and was decoded
    uint64_t slots = 0;
    uint64_t empty_slots = 0;
    uint64_t rows_in_leaves = 0;
    uint32_t leaf_min = 0;  // over non-empty leaves
    uint32_t leaf_median = 0;
    uint32_t leaf_max = 0;
    uint32_t l1_min = 0;  // rows per level-1 bucket
    uint32_t l1_median = 0;
    uint32_t l1_max = 0;
    uint64_t data_end = 0;              // where the last leaf ends, 64-byte aligned
    std::vector<std::string> problems;  // empty when the layout is consistent
};

ivfp_report read_ivfp_report(const std::string& path);

struct sidecar_report {
    uint64_t file_size = 0;
    bool magic_ok = false;
    uint32_t version = 0;
    uint32_t dim = 0;
    uint32_t row_bytes = 0;
    bool header_ok = false;  // what the library checks before trusting the rows
    uint64_t rows = 0;       // complete rows
    uint64_t live_rows = 0;
    uint64_t dead_rows = 0;      // live byte 0 or id 0: skipped when the file is replayed
    uint64_t partial_bytes = 0;  // bytes of an incomplete last row
    uint64_t duplicate_ids = 0;  // live rows whose id an earlier live row already had
    uint32_t min_id = 0;
    uint32_t max_id = 0;
};

// The live rows of a sidecar in file order, which are the rows, in order, of an object the file
// is replayed into: row k's node id and the number of the file row that holds it.
struct sidecar_live_rows {
    std::vector<uint32_t> ids;
    std::vector<uint32_t> file_rows;
};

sidecar_report read_sidecar_report(const std::string& path, sidecar_live_rows* live = nullptr);

// Whether the paged file at ivfp_path holds exactly the rows the sidecar replays: the same row
// count, every row position once, (version 2, which stores them) the node id at each row
// position equal to the sidecar's, and for a sample of rows the stored int8 code equal to the
// sidecar's vector quantised again (ids alone cannot tell two data sets with ids 1..n apart).
// Returns why not, or "" when it does. The file's layout must already have been found
// consistent by read_ivfp_report.
std::string paged_rows_mismatch(const std::string& ivfp_path, const ivfp_report& layout,
                                const std::string& sidecar_path, const sidecar_live_rows& live);

inline constexpr uint64_t kSidecarHeaderBytes = 32;
inline constexpr uint64_t kSidecarRowBytes = 2056;

}  // namespace orve::tool
