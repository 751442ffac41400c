// The structural check that makes an untrusted .ivfp file safe to search in place.
#pragma once

#include <cstdint>

#include "paged/paged_format.h"

namespace orve::paged {

// True when a mapped file of `length` bytes whose header gave version, b1, b2 and n_rows can be
// searched without a single read outside [0, length) and without exceeding the search's fixed
// scratch:
//   - b1 and b2 are at most ORVE_IVF_PAGED_MAX_B;
//   - the index part (up to the data start) lies inside the file;
//   - every slot's count is the same in the leaf table and the directory, and the counts add
//     up to n_rows;
//   - every non-empty leaf starts on a 64-byte boundary at or after the data start and after
//     the previous leaf's end, has its metadata right behind its codes, and ends inside the
//     file.
// Empty slots take no bytes, so their offsets are not looked at. Fills *layout on success.
// The header fields must already be known to be nonzero b1, b2 and a version of 1 or 2.
bool file_structure_fits(const uint8_t* base, uint64_t length, uint32_t version, uint32_t b1,
                         uint32_t b2, uint32_t n_rows, section_layout* layout);

}  // namespace orve::paged
