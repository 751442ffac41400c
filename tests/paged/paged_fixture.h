// Shared by the paged tests: hand-built H-IVFs, an encoder of the file format written from the
// format's tables (independent of the library's writer), plain scoring, and scratch files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "semantic_vector_indexing.h"

namespace paged_test {

using bytes = std::vector<uint8_t>;

// A small deterministic integer generator (64-bit LCG, high bits out), so fixtures are the same
// on every architecture and standard library.
struct lcg {
    uint64_t state;
    uint32_t next() {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<uint32_t>(state >> 33);
    }
    int8_t code() { return static_cast<int8_t>(static_cast<int32_t>(next() % 255) - 127); }
    float unit() { return static_cast<float>(next() % 1000 + 1) / 1000.0f; }  // (0, 1]
};

struct leaf_plan {
    std::vector<int8_t> centroid;  // 512 codes
    float scale = 1.0f, norm = 1.0f;
    std::vector<int8_t> codes;  // 512 per row
    std::vector<float> scales, norms;
    std::vector<uint32_t> row_ids;  // global row indexes
    uint32_t rows() const { return static_cast<uint32_t>(row_ids.size()); }
};

struct bucket_plan {
    std::vector<int8_t> centroid;  // 512 codes
    float scale = 1.0f, norm = 1.0f;
    std::vector<leaf_plan> leaves;  // at most b2; none for a bucket without rows
};

// Owns the arrays of an H-IVF laid out as the builder lays them out (leaves compacted one after
// the other in each level-2 index) and exposes the record.
class hand_hivf {
  public:
    hand_hivf(uint32_t b1, uint32_t b2, std::vector<bucket_plan> buckets);
    hand_hivf(const hand_hivf&) = delete;
    hand_hivf& operator=(const hand_hivf&) = delete;
    const orve_hivf_index* get() const { return &rec_; }
    const std::vector<bucket_plan>& buckets() const { return plan_; }
    uint32_t total_rows() const;
    uint32_t b1() const { return rec_.b1; }
    uint32_t b2() const { return rec_.b2; }

  private:
    struct level2 {
        std::vector<int8_t> codes, centroid_codes;
        std::vector<float> row_scales, row_norms, centroid_scales, centroid_norms;
        std::vector<uint32_t> offsets, sizes, row_ids;
    };
    std::vector<bucket_plan> plan_;
    std::vector<int8_t> l1_codes_;
    std::vector<float> l1_scales_, l1_norms_;
    std::vector<level2> l2_;
    std::vector<orve_ivf_index> l2_records_;
    orve_hivf_index rec_{};
};

std::vector<int8_t> random_codes(lcg& g, size_t n);

// A pseudo-random H-IVF over global rows 0 .. n-1 in a scrambled order: bucket 0 has b2
// leaves, the first of them empty when b2 > 1; bucket 1 (when b1 > 1) has no rows; the others
// have 1 .. b2 leaves. Leaves get 1 .. max_rows rows.
std::vector<bucket_plan> random_buckets(uint32_t b1, uint32_t b2, uint32_t max_rows, uint64_t seed);

// node_ids[k] = 1000003 * k + 17, distinct and far from the row numbers.
std::vector<uint32_t> node_table(uint32_t n);

// The file bytes for version 1 or 2, encoded from the format's tables alone.
bytes encode_ivfp(const hand_hivf& h, const std::vector<uint32_t>& node_ids, uint32_t version);

int32_t plain_dot(const int8_t* a, const int8_t* b);
float plain_cosine(int32_t dot, float qs, float rs, float qn, float rn);

uint64_t fnv1a64(const bytes& b);
uint32_t get_u32(const bytes& b, uint64_t at);
uint64_t get_u64(const bytes& b, uint64_t at);
void set_u32(bytes& b, uint64_t at, uint32_t v);
void set_u64(bytes& b, uint64_t at, uint64_t v);

bytes read_file(const std::string& path);
void write_file(const std::string& path, const bytes& b);
bool file_exists(const std::string& path);

// A fresh mkdtemp directory under /tmp, removed with its content at the end of the scope.
class scratch_dir {
  public:
    scratch_dir();
    ~scratch_dir();
    scratch_dir(const scratch_dir&) = delete;
    scratch_dir& operator=(const scratch_dir&) = delete;
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    const std::string& dir() const { return dir_; }

  private:
    std::string dir_;
};

}  // namespace paged_test
