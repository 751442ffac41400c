// A read-only view of a sidecar's rows through one shared mapping, for re-ranking without a
// system call per candidate.
//
// The mapping is made once, long enough for every row the file can come to hold while it is
// attached, and never moved or shrunk before the file is closed: rows appended later through
// the descriptor appear in it (a shared mapping and the descriptor see the same page cache),
// and a search running beside an ingestion can hold a pointer into it without any lock.
// Mapping past the file's end is allowed; only touching a page past the end would fault, and
// callers read only rows that an append has completely written. The file is never cut below
// such a row: a failed append cuts back only its own partial row.
#pragma once

#include <cstddef>
#include <cstdint>

#include "sidecar/sidecar_format.h"

namespace orve::sidecar {

struct row_mapping {
    const uint8_t* base = nullptr;
    std::size_t bytes = 0;
};

// Maps the header and `rows` rows of the file on fd read-only. An empty mapping (base null)
// when the length does not fit the address space or the system refuses; readers then fall
// back to positional reads.
row_mapping map_rows(int fd, uint64_t rows);

// Releases the mapping; an empty one is left alone.
void unmap_rows(row_mapping& m);

// Row `row`'s 2048 value bytes in the mapping, or null when the mapping does not reach them.
inline const uint8_t* mapped_values(const row_mapping& m, uint32_t row) {
    const uint64_t at = row_values_offset(row);
    return m.base != nullptr && at + kValueBytes <= m.bytes ? m.base + at : nullptr;
}

}  // namespace orve::sidecar
