// The attached sidecar as the object keeps it: the open file's handle record, followed by what
// the object knows about the file's rows.
//
// The object's size is fixed, so this lives behind its `sidecar` pointer instead of in new
// fields: `sidecar` points at `file`, the first member, and so stays a plain handle for
// everything that reads it as one, while the attachment is found from it again here.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>

#include "core/system.h"
#include "sidecar/row_mapping.h"

namespace orve {

// A row the attached file does not hold: ingested before the attach or without a vector, or
// after an append failed.
constexpr uint32_t kNoFileRow = UINT32_MAX;

struct sidecar_attachment {
    orve_vec_sidecar file;
    // One entry per row of the object's capacity: the row's position in the file, or
    // kNoFileRow. Rows and file positions differ as soon as the object held rows before the
    // attach, the file held dead rows, or a row came without a vector.
    uint32_t* file_row;
    // The file's whole rows: where the next append lands.
    uint32_t file_rows;
    // Nonzero once an append failed: from then on the file is neither appended to nor read
    // for re-ranking. Searches read it without the lock.
    std::atomic<uint8_t> stopped;
    // The file's rows mapped read-only for re-ranking, made at attach and long enough for
    // every row the file can receive while attached, so it never has to move while searches
    // read it; unmapped only when the file is closed. Empty when the system refused it:
    // re-ranking then reads rows with positional reads.
    sidecar::row_mapping mapped;
};
static_assert(std::is_standard_layout_v<sidecar_attachment>,
              "the handle must be the attachment's first byte");

inline sidecar_attachment* attachment_of(orve_vec_sidecar* s) {
    return reinterpret_cast<sidecar_attachment*>(s);
}
inline const sidecar_attachment* attachment_of(const orve_vec_sidecar* s) {
    return reinterpret_cast<const sidecar_attachment*>(s);
}

// True when searches may re-rank from the attached sidecar.
inline bool sidecar_rerank_ready(const semantic_vector_indexing_system* sys) {
    return sys->sidecar != nullptr &&
           attachment_of(sys->sidecar)->stopped.load(std::memory_order_acquire) == 0;
}

// The position of row `row` in the attached sidecar, or kNoFileRow.
inline uint32_t sidecar_file_row_of(const semantic_vector_indexing_system* sys, uint32_t row) {
    return row < sys->capacity ? attachment_of(sys->sidecar)->file_row[row] : kNoFileRow;
}

// Closes the attached sidecar, if any, and frees the attachment; the caller holds the lock.
void sidecar_detach(semantic_vector_indexing_system* sys);

}  // namespace orve
