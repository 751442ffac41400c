// The float copy of the flat store that the IVF training reads: row r holds code i of slab row r
// times 1 / row_scale[r] (0 when the scale is not positive), all zero for an invalid row.
//
// The cache lives from the first IVF build attempt until an IVF is published, the store is
// dropped or the object destroyed. It remembers how many rows it covers (in a small header in
// front of the rows, since the object's layout has no field for it), so that a build started
// after more rows arrived converts only the rows it does not cover.
//
// Conversion is the expensive part (gigabytes at full capacity), so it never runs under the
// object's lock: a build fills a private block of rows from its snapshot and, if it cannot
// publish, hands that block over as the cache in one pointer swap.
#pragma once

#include <cstdint>

struct semantic_vector_indexing_system;

namespace orve {

// A block of float rows laid out as the cache is, owned until adopted as the cache.
class dequant_rows {
  public:
    dequant_rows() = default;
    explicit dequant_rows(uint32_t n);  // allocates n rows; empty() on failure
    ~dequant_rows();
    dequant_rows(dequant_rows&& o) noexcept;
    dequant_rows& operator=(dequant_rows&& o) noexcept;
    dequant_rows(const dequant_rows&) = delete;
    dequant_rows& operator=(const dequant_rows&) = delete;

    bool empty() const { return rows_ == nullptr; }
    float* rows() const { return rows_; }
    // Marks rows 0 .. n-1 as filled (the cache then covers them once adopted).
    void set_filled(uint32_t n);
    float* release();

  private:
    float* rows_ = nullptr;
};

// Rows first .. n-1 of `out` (512 floats each, row r at out + 512 r) converted from snapshot
// arrays of codes (512 per row), scales and validity flags. Needs no lock.
void dequantise_rows(const int8_t* codes, const float* scales, const uint8_t* valid, uint32_t first,
                     uint32_t n, float* out);

// Copies the rows the cache covers, up to n, into `out`; returns how many were copied. The
// caller holds the object's lock.
uint32_t dequant_cache_copy(semantic_vector_indexing_system* sys, uint32_t n, float* out);

// Makes `block` the cache when it covers more rows than the current one, else frees it. The
// caller holds the object's lock.
void dequant_cache_adopt(semantic_vector_indexing_system* sys, dequant_rows&& block);

// Frees the cache and sets the object's pointer to null. The caller holds the lock or is the
// only user of the object.
void dequant_cache_free(semantic_vector_indexing_system* sys);

}  // namespace orve
