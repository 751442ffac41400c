// Attaching a sidecar file: its rows are replayed through ordinary ingestion, then the file is
// kept open so every later ingestion appends its exact float vector.
#include "core/system.h"

namespace {

struct load_context {
    semantic_vector_indexing_system* sys;
    int32_t error;
};

int _sidecar_load_cb(uint32_t id, const float* values, void* user) {
    auto* ctx = static_cast<load_context*>(user);
    const int rc = semantic_vector_indexing_system_add_embedding_orve512(ctx->sys, id, values);
    if (rc == 0) return 0;
    ctx->error = rc;
    return -1;
}

}  // namespace

extern "C" ORVE_API int semantic_vector_indexing_system_open_sidecar(
    semantic_vector_indexing_system* sys, const char* path) {
    if (sys == nullptr || path == nullptr || sys->initialized != 1) return -1;
    // Detach first, so the replay below appends nothing to any file.
    if (sys->sidecar != nullptr) {
        orve_vec_sidecar_close(sys->sidecar);
        sys->sidecar = nullptr;
    }
    load_context ctx{sys, 0};
    if (orve_vec_sidecar_load(path, _sidecar_load_cb, &ctx) != 0 || ctx.error != 0) return -1;
    return orve_vec_sidecar_open(path, &sys->sidecar) == 0 ? 0 : -1;
}
