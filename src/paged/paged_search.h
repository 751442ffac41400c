// Probing an open paged index with a node-identifier map of known size.
#pragma once

#include <cstddef>
#include <cstdint>

#include "semantic_vector_indexing.h"
#include "util/topk_heap.h"

namespace orve::paged {

// orve_ivf_paged_search with the number of entries in id_map: a first-version file's row at a
// position of id_map_rows or more is not offered (its node is unknown to the map's owner).
// Entry i of the map is the native uint32_t at id_map + i * id_map_stride, so a caller can
// hand over the identifier field of a table of larger records instead of copying it out.
// Same return values and heap rule as orve_ivf_paged_search.
int32_t search_mapped(const orve_ivf_paged_index* handle, uint32_t n_probe_l1, uint32_t n_probe_l2,
                      const int8_t* query_codes, bf_topk_entry* candidates, uint32_t* found,
                      uint32_t budget, const uint8_t* id_map, std::size_t id_map_stride,
                      uint32_t id_map_rows, float query_scale, float query_norm,
                      float min_similarity);

}  // namespace orve::paged
