#include "ingest.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <vector>

#include "file_checks.h"
#include "progress.h"
#include "tool_error.h"
#include "vector_file.h"

namespace orve::tool {

namespace {

constexpr uint32_t kChunk = 4096;

// One chunk into the object; errno is sampled right after the call so that a failed append's
// cause can be named.
int ingest_chunk(semantic_vector_indexing_system* sys, const float* rows, uint32_t n,
                 const uint32_t* ids, int* err) {
    errno = 0;
    int committed = 0;
    if (!ids) {
        committed = semantic_vector_indexing_system_load_vectors_f32(sys, rows, n);
    } else {
        while (committed < static_cast<int>(n) &&
               semantic_vector_indexing_system_add_embedding_orve512(
                   sys, ids[committed], rows + uint64_t(committed) * kDim) == 0) {
            ++committed;
        }
    }
    *err = errno;
    return committed;
}

}  // namespace

double ingest_rows(system_object& sys, const ingest_plan& plan, const reporter& rep) {
    std::vector<float> chunk(uint64_t{kChunk} * kDim);
    double library_s = 0.0;
    progress_bar bar(rep, "ingesting", plan.rows, plan.unit);
    for (uint64_t done = 0; done < plan.rows;) {
        const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(kChunk, plan.rows - done));
        plan.fill(done, n, chunk.data());
        int err = 0;
        const auto t0 = std::chrono::steady_clock::now();
        const int committed =
            ingest_chunk(sys.get(), chunk.data(), n, plan.ids ? plan.ids + done : nullptr, &err);
        library_s += seconds_since(t0);
        if (committed != static_cast<int>(n)) throw tool_error(plan.refused(done, committed));
        if (plan.taken) plan.taken(chunk.data(), done, n);
        done += n;
        check_sidecar_kept_up(plan.sidecar_file, plan.sidecar_name, done, err);
        bar.update(done);
    }
    return library_s;
}

}  // namespace orve::tool
