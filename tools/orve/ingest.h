// The chunked ingestion loop of demo and build: rows go into the object a chunk at a time, and
// after each chunk the sidecar is checked to hold every row so far, because the library keeps
// a row whose append failed and says nothing.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "library.h"

namespace orve::tool {

class reporter;

struct ingest_plan {
    uint64_t rows = 0;
    // One node id per row, or null: load_vectors_f32 numbers the rows 1..rows.
    const uint32_t* ids = nullptr;
    // Writes rows [done, done + n) into out (n x 512 floats).
    std::function<void(uint64_t done, uint32_t n, float* out)> fill;
    // Called with each chunk once the library has taken all of it; may be empty.
    std::function<void(const float* chunk, uint64_t done, uint32_t n)> taken;
    // The message when the library takes fewer rows than offered (committed may be negative).
    std::function<std::string(uint64_t done, int committed)> refused;
    std::string sidecar_file;  // where the sidecar is written now
    std::string sidecar_name;  // how messages name it
    std::string unit;          // "rows", "vectors": the progress bar's unit
};

// Returns the seconds spent inside the library's ingestion calls.
double ingest_rows(system_object& sys, const ingest_plan& plan, const reporter& rep);

}  // namespace orve::tool
