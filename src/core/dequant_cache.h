// The float copy of the flat store that the IVF training reads: row r holds code i of slab row r
// times 1 / row_scale[r] (0 when the scale is not positive), all zero for an invalid row.
//
// The cache lives from the first IVF build attempt until an IVF is published, the store is
// dropped or the object destroyed. It remembers how many rows it covers (in a small header in
// front of the rows, since the object's layout has no field for it), so that a build started
// after more rows arrived extends it instead of snapshotting rows it does not cover.
#pragma once

#include <cstdint>

struct semantic_vector_indexing_system;

namespace orve {

// Makes the cache cover at least rows 0 .. n-1, allocating or growing it. The caller holds the
// object's lock. 0, or -1 on allocation failure (the cache is then as it was).
int dequant_cache_extend(semantic_vector_indexing_system* sys, uint32_t n);

// Frees the cache and sets the object's pointer to null. The caller holds the lock or is the
// only user of the object.
void dequant_cache_free(semantic_vector_indexing_system* sys);

}  // namespace orve
