// Attaching a sidecar file: the file is opened (and locked) first, its rows are replayed
// through ordinary ingestion, then it is kept open so every later ingestion appends its exact
// float vector.
//
// Rows of the object and rows of the file need not line up: rows ingested before the attach
// or without a vector have no row in the file, and dead rows of the file were never replayed.
// Each object row therefore records its own position in the file, so re-ranking reads a row's
// own vector and an append lands at the file's end whatever came before.
#include "core/sidecar_attachment.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "core/ingestion.h"
#include "core/system.h"
#include "sidecar/sidecar_format.h"
#include "sidecar/sidecar_replay.h"
#include "util/c_alloc.h"
#include "util/fd_io.h"

namespace {

struct replay_context {
    semantic_vector_indexing_system* sys;
    uint32_t* file_row;
    uint32_t file_rows;  // rows in the file, live and dead
    bool advised;        // the rows still to come were announced to ingestion
    int32_t error;
};

int32_t replay_block(const uint32_t* ids, const float* values, const uint32_t* positions,
                     uint32_t n, void* user) {
    auto* ctx = static_cast<replay_context*>(user);
    // The lock is recursive: it keeps the rows ingestion takes and the rows recorded the same.
    orve::object_lock guard(ctx->sys);
    const uint32_t r0 = ctx->sys->node_count;
    // The file's rows from this block's first on bound the rows still to replay (dead rows
    // are skipped). A block alone is too small for ingestion to advise huge pages over it;
    // announcing all of them once, on the first block, gets the replay the advice a large load
    // gets.
    uint32_t ahead = 0;
    if (!ctx->advised && n != 0 && positions[0] < ctx->file_rows) {
        ahead = ctx->file_rows - positions[0];
        ctx->advised = true;
    }
    const uint32_t stored = orve::ingest_replayed_rows(ctx->sys, ids, values, n, ahead);
    for (uint32_t i = 0; i < stored; ++i) ctx->file_row[r0 + i] = positions[i];
    if (stored != n) {
        ctx->error = -1;
        return -1;
    }
    return 0;
}

// Owns an attachment until it is handed to the object; closing it closes the file.
struct attachment_closer {
    void operator()(orve::sidecar_attachment* a) const noexcept {
        std::free(a->file_row);
        orve::sidecar::unmap_rows(a->mapped);
        // The handle is the attachment's first member, so closing it frees the whole block.
        orve_vec_sidecar_close(&a->file);
    }
};
using attachment_owner = std::unique_ptr<orve::sidecar_attachment, attachment_closer>;

// Opens (and locks) path and moves its handle into a fresh attachment with an empty row table.
// Null when the file cannot be opened or memory runs out; the file is closed again then.
attachment_owner attach_file(const char* path, uint32_t capacity) {
    orve_vec_sidecar* opened = nullptr;
    if (orve_vec_sidecar_open(path, &opened) != 0) return nullptr;
    void* block = std::calloc(1, sizeof(orve::sidecar_attachment));
    auto rows = orve::c_alloc_array<uint32_t>(capacity);
    if (block == nullptr || !rows) {
        std::free(block);
        orve_vec_sidecar_close(opened);
        return nullptr;
    }
    auto* a = new (block) orve::sidecar_attachment{};
    std::memcpy(&a->file, opened, sizeof *opened);  // the descriptor moves with the record
    std::free(opened);
    a->file_row = rows.release();
    for (uint32_t r = 0; r < capacity; ++r) a->file_row[r] = orve::kNoFileRow;
    return attachment_owner(a);
}

}  // namespace

namespace orve {

void sidecar_detach(semantic_vector_indexing_system* sys) {
    if (sys->sidecar == nullptr) return;
    attachment_closer{}(attachment_of(sys->sidecar));
    sys->sidecar = nullptr;
}

}  // namespace orve

// Opening before the replay means a file another handle holds is refused before a single row
// is ingested from it, and the replay reads the file this attachment has locked.
extern "C" ORVE_API int semantic_vector_indexing_system_open_sidecar(
    semantic_vector_indexing_system* sys, const char* path) {
    if (sys == nullptr || path == nullptr || sys->initialized != 1) return -1;
    {
        // Detach first, so the replay below appends nothing to any file.
        orve::object_lock guard(sys);
        orve::sidecar_detach(sys);
    }
    attachment_owner a = attach_file(path, sys->capacity);
    if (!a) return -1;
    const int64_t length = orve::file_length(a->file.fd);
    if (length < static_cast<int64_t>(orve::sidecar::kSidecarHeaderBytes)) return -1;
    const uint64_t rows = orve::sidecar::whole_rows(static_cast<uint64_t>(length));
    if (rows >= orve::kNoFileRow) return -1;
    a->file_rows = static_cast<uint32_t>(rows);

    replay_context ctx{sys, a->file_row, static_cast<uint32_t>(rows), false, 0};
    if (orve::sidecar::replay_rows(a->file.fd, replay_block, &ctx) != 0 || ctx.error != 0) {
        return -1;
    }
    orve::object_lock guard(sys);
    // Every row the file can hold while attached: its rows now and one per row the object can
    // still take (rows only reach the file through this object's ingestion, under the lock).
    a->mapped = orve::sidecar::map_rows(a->file.fd, rows + (sys->capacity - sys->node_count));
    sys->sidecar = &a.release()->file;
    return 0;
}
