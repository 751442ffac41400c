// Appending many rows to an open sidecar with as few system calls as the file allows.
#pragma once

#include <cstdint>

#include "semantic_vector_indexing.h"

namespace orve::sidecar {

// Appends n rows with ids first_id, first_id + 1, ... and the n x 512 floats at vecs, in that
// order, at the handle's end, many whole rows per vectored write. Returns how many rows were
// completely written. When that is fewer than n, the write stopped partway (disk full, I/O
// error, a short write): a partial row it left is cut off, the file ends on the last whole row
// and the position is there, exactly as after a failed single append.
uint32_t append_rows(orve_vec_sidecar* handle, uint32_t first_id, const float* vecs, uint32_t n);

}  // namespace orve::sidecar
