// Ingestion entry points the object's own modules share.
#pragma once

#include <cstdint>

#include "core/system.h"

namespace orve {

// Ingests n rows replayed from a sidecar, ids given, exactly as n single-row ingestions would
// store them (codes, scales and norms from the bulk quantiser, which gives the same bits).
// Stops at the first row the object refuses (full, or a legacy index refused it) and returns
// the rows stored. Takes the lock. rows_ahead is how many rows the caller expects to replay
// from here on, these included: the arrays are advised for huge pages over those rows (see
// advise_rows_ahead), so a replay handing over small blocks passes its total once and 0 after.
uint32_t ingest_replayed_rows(semantic_vector_indexing_system* sys, const uint32_t* ids,
                              const float* vecs, uint32_t n, uint32_t rows_ahead);

}  // namespace orve
