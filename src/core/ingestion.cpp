// Ingestion: rows are appended to the node table, quantised into the flat store, offered to
// the legacy indexes and the sidecar. A row that fails at any step leaves no trace in the node
// table, the valid map, the row count, the generation or the sidecar.
#include <cstddef>
#include <cstring>
#include <cstdlib>
#include <ctime>

#include "core/ingestion.h"
#include "core/sidecar_attachment.h"
#include "core/system.h"
#include "lsh_cluster/clustering_common.h"
#include "lsh_cluster/lsh_hash.h"
#include "quant/dot512_kernels.h"
#include "quant/quantize_bulk.h"
#include "sidecar/append_rows.h"
#include "util/huge_pages.h"

namespace {

void clear_node(indexed_node* n) {
    std::memset(n, 0, sizeof *n);
}

void fill_embedding_node(indexed_node* n, uint32_t node_id, int64_t timestamp) {
    clear_node(n);
    n->node_id = node_id;
    n->active = 1;
    n->timestamp = timestamp;
    n->weight = 1.0f;
}

// A row's LSH hashes and nearest cluster, worked out ahead for a block of rows (neither index
// changes its hyperplanes or centroids when a row is added, so the answers do not depend on the
// rows before it in the block).
struct legacy_placement {
    const uint64_t* hashes;
    uint32_t cluster;
};

// Files vec in both legacy indexes, from `pre` when the block worked the placement out.
int offer_to_legacy(semantic_vector_indexing_system* sys, uint32_t node_id, const float* vec,
                    const legacy_placement* pre) {
    if (pre == nullptr) {
        return enhanced_lsh_index_add_vector(sys->lsh_index, vec, node_id) != 0 ||
                       enhanced_clustering_index_add_vector(sys->clustering_index, vec, node_id) !=
                           0
                   ? -1
                   : 0;
    }
    return orve::lsh_index_add_hashed(sys->lsh_index, pre->hashes, node_id) != 0 ||
                   orve::clustering_add_to(sys->clustering_index, pre->cluster, node_id) != 0
               ? -1
               : 0;
}

// Stores row r's codes, scale and norm and offers vec to the legacy indexes. On failure row r
// is left invalid and its node record cleared; the caller holds the lock and has ensured the
// store. A vector the LSH index took before the clustering index refused stays in the LSH
// index: the LSH index has no removal.
int write_row(semantic_vector_indexing_system* sys, uint32_t r, uint32_t node_id, const float* vec,
              const int8_t* codes, float scale, float norm, const legacy_placement* pre) {
    std::memcpy(sys->slab_i8 + r * orve::kCodeBytes, codes, orve::kCodeBytes);
    sys->row_scale[r] = scale;
    sys->row_norm[r] = norm;
    sys->row_valid[r] = 1;
    // A legacy index is missing only after its re-creation failed; ingestion then refuses
    // rather than touch a destroyed index.
    if (sys->lsh_index == nullptr || sys->clustering_index == nullptr ||
        offer_to_legacy(sys, node_id, vec, pre) != 0) {
        sys->row_valid[r] = 0;
        clear_node(&sys->nodes[r]);
        return -1;
    }
    return 0;
}

// Appends row r to the attached sidecar, under the lock so rows reach the file in row order.
// A failed append does not undo the row: it is in memory, only missing from the file. It
// stops the attachment for good, though: the file keeps its whole rows, each at its own
// position, and no later row is written at the position this one should have had, nor is
// the file read for re-ranking any more. The host sees it as a file that got fewer rows than
// were ingested.
void append_to_sidecar(semantic_vector_indexing_system* sys, uint32_t r, uint32_t node_id,
                       const float* vec) {
    if (sys->sidecar == nullptr) return;
    orve::sidecar_attachment* a = orve::attachment_of(sys->sidecar);
    if (a->stopped.load(std::memory_order_relaxed) != 0) return;
    if (a->file_rows != orve::kNoFileRow &&
        orve_vec_sidecar_append(sys->sidecar, node_id, vec) == 0) {
        a->file_row[r] = a->file_rows++;
    } else {
        a->stopped.store(1, std::memory_order_release);
    }
}

// The row's file position is recorded before the row count publishes the row, so a search
// that sees the row also sees where its exact vector is.
void commit_row(semantic_vector_indexing_system* sys, uint32_t r, uint32_t node_id,
                const float* vec) {
    append_to_sidecar(sys, r, node_id, vec);
    orve::store_node_count(sys, sys->node_count + 1);
    sys->ingest_generation.fetch_add(1, std::memory_order_relaxed);
}

// Appends rows r0 .. r0 + count - 1, ids r0 + 1 onwards, to the attached sidecar in vectored
// writes, recording each written row's position. Rows past a failed write stop the attachment
// exactly as a failed single append does: the file keeps the rows before them, whole.
void append_block_to_sidecar(semantic_vector_indexing_system* sys, uint32_t r0, uint32_t count,
                             const float* vecs) {
    if (sys->sidecar == nullptr) return;
    orve::sidecar_attachment* a = orve::attachment_of(sys->sidecar);
    if (a->stopped.load(std::memory_order_relaxed) != 0) return;
    // The one-row path appends while the file's row count is below kNoFileRow; so does this.
    const uint32_t room = orve::kNoFileRow - a->file_rows;
    const uint32_t asked = count < room ? count : room;
    const uint32_t written = orve::sidecar::append_rows(sys->sidecar, r0 + 1, vecs, asked);
    for (uint32_t i = 0; i < written; ++i) a->file_row[r0 + i] = a->file_rows++;
    if (written != count) a->stopped.store(1, std::memory_order_release);
}

// Rows written to the store but not yet counted: rows node_count .. node_count + count - 1.
// Their file positions are recorded before the row count publishes them, as for one row.
void commit_block(semantic_vector_indexing_system* sys, const uint32_t* ids, uint32_t count,
                  const float* vecs) {
    if (count == 0) return;
    const uint32_t r0 = sys->node_count;
    if (ids == nullptr) {
        append_block_to_sidecar(sys, r0, count, vecs);
    } else {
        // Replayed rows: the sidecar is not attached while its own rows are replayed.
        for (uint32_t i = 0; i < count; ++i) {
            append_to_sidecar(sys, r0 + i, ids[i], vecs + std::size_t{i} * ORVE512_DIM);
        }
    }
    orve::store_node_count(sys, r0 + count);
    sys->ingest_generation.fetch_add(count, std::memory_order_relaxed);
}

// A load fills the code store, the node table, the scale, norm and valid arrays and the LSH
// entries front to back, and on small pages their first touches are page faults: for the
// code store alone one per 8 rows (a profile put the faults near the quantiser's own cost).
// Huge pages over the rows a large load writes take one fault per 2 MiB instead. A load is
// large when its codes fill at least one huge page; then every array is advised over its
// share of the load, even where that share is smaller than a huge page (a 10,000-row load
// writes only 400 KB of node records): resident memory runs ahead of the rows stored by at
// most one huge page per array, whatever the number of loads, and a small load (a row at a
// time, say) keeps small pages. One system call per array per load, none per row.
void advise_rows_ahead(semantic_vector_indexing_system* sys, uint32_t n) {
    if (std::size_t{n} * orve::kCodeBytes < orve::kHugePageBytes) return;
    const std::size_t r0 = sys->node_count;
    const std::size_t cap = sys->capacity;
    // Row r0 .. r0 + n - 1 of an array of cap rows of row_bytes each.
    const auto advise = [&](void* block, std::size_t row_bytes) {
        orve::advise_huge_pages(block, cap * row_bytes, r0 * row_bytes, n * row_bytes);
    };
    advise(sys->slab_i8, orve::kCodeBytes);
    advise(sys->nodes, sizeof(indexed_node));
    advise(sys->row_scale, sizeof(float));
    advise(sys->row_norm, sizeof(float));
    advise(sys->row_valid, sizeof(uint8_t));
    // The LSH index counts its own entries and has its own capacity.
    if (const enhanced_lsh_index* lsh = sys->lsh_index; lsh != nullptr) {
        orve::advise_huge_pages(lsh->entries, std::size_t{lsh->capacity} * sizeof(lsh_entry),
                                std::size_t{lsh->count} * sizeof(lsh_entry),
                                std::size_t{n} * sizeof(lsh_entry));
    }
}

// Stores n rows from row node_count on: ids from `ids`, or the 1-based row positions when it is
// null. Returns the rows stored; a row that fails ends the call and leaves no trace, the rows
// before it stay. The caller holds the lock and has ensured the store and the room for n rows,
// and advises the arrays for the `ahead` rows it expects to store from here on.
//
// Rows are quantised a block at a time into a stack buffer (the bulk quantiser runs one row
// per vector lane), stored row by row, and counted, with their sidecar appends, a larger block
// at a time, so a row that fails leaves the slab rows after it exactly as the one-row path would.
uint32_t store_rows(semantic_vector_indexing_system* sys, const uint32_t* ids, const float* vecs,
                    uint32_t n, int64_t t, uint32_t ahead) {
    constexpr uint32_t kBlock = 32;
    constexpr uint32_t kCommitRows = 8 * kBlock;
    int8_t codes[kBlock * orve::kCodeBytes];
    float scales[kBlock];
    float norms[kBlock];
    // The legacy indexes' hashes and clusters of the block, worked out a block at a time too.
    uint64_t hashes[kBlock * ENHANCED_LSH_MAX_HASHES];
    uint32_t clusters[kBlock];
    const bool legacy_ready = sys->lsh_index != nullptr && sys->clustering_index != nullptr;
    uint32_t committed = 0;
    advise_rows_ahead(sys, ahead);
    for (uint32_t k0 = 0; k0 < n; k0 += kBlock) {
        const uint32_t m = n - k0 < kBlock ? n - k0 : kBlock;
        const float* block = vecs + static_cast<std::size_t>(k0) * ORVE512_DIM;
        orve::quantize_rows(block, m, codes, scales, norms);
        if (legacy_ready) {
            orve::lsh_hash_rows(sys->lsh_index, block, ORVE512_DIM, m, hashes);
            orve::nearest_active_clusters(sys->clustering_index, block, ORVE512_DIM, m, clusters);
        }
        for (uint32_t j = 0; j < m; ++j) {
            const uint32_t k = k0 + j;
            const uint32_t r = sys->node_count + (k - committed);
            const uint32_t id = ids != nullptr ? ids[k] : r + 1;
            const float* vec = vecs + static_cast<std::size_t>(k) * ORVE512_DIM;
            fill_embedding_node(&sys->nodes[r], id, t);
            const legacy_placement pre{hashes + j * ENHANCED_LSH_MAX_HASHES, clusters[j]};
            if (write_row(sys, r, id, vec, codes + j * orve::kCodeBytes, scales[j], norms[j],
                          legacy_ready ? &pre : nullptr) != 0) {
                commit_block(sys, ids == nullptr ? nullptr : ids + committed, k - committed,
                             vecs + static_cast<std::size_t>(committed) * ORVE512_DIM);
                return k;
            }
        }
        const uint32_t end = k0 + m;
        if (end - committed >= kCommitRows || end == n) {
            commit_block(sys, ids == nullptr ? nullptr : ids + committed, end - committed,
                         vecs + static_cast<std::size_t>(committed) * ORVE512_DIM);
            committed = end;
        }
    }
    return n;
}

// Destroys a legacy index and creates it again in the same record, or in a fresh one when an
// earlier failure left none. When creation fails the record is freed and the slot emptied:
// keeping a pointer to a destroyed index would let the next ingestion use it, whereas an empty
// slot makes ingestion fail cleanly with -1 until a later rebuild succeeds.
template <class Index, class Create>
bool recreate_legacy(Index*& slot, void (*destroy)(Index*), Create create) {
    Index* x = slot;
    if (x == nullptr) {
        x = static_cast<Index*>(std::malloc(sizeof *x));
        if (x == nullptr) return false;
    } else {
        destroy(x);
    }
    if (create(x) != 0) {
        std::free(x);
        slot = nullptr;
        return false;
    }
    slot = x;
    return true;
}

}  // namespace

extern "C" ORVE_API int semantic_vector_indexing_system_add_embedding_orve512(
    semantic_vector_indexing_system* sys, uint32_t node_id, const float* vec) {
    if (sys == nullptr || vec == nullptr || !sys->initialized || node_id == 0 ||
        orve::load_node_count(sys) >= sys->capacity) {
        return -1;
    }
    orve::object_lock guard(sys);
    // Another thread may have filled the last row since the unlocked test above.
    if (sys->slabs_dropped || sys->node_count >= sys->capacity) return -1;
    const uint32_t r = sys->node_count;
    fill_embedding_node(&sys->nodes[r], node_id, static_cast<int64_t>(std::time(nullptr)));
    if (orve_flat_index_ensure(sys) != 0) {
        clear_node(&sys->nodes[r]);
        return -1;
    }
    int8_t codes[orve::kCodeBytes];
    float scale = 0.0f, norm = 0.0f;
    orve_quantize_float_vector_symmetric(vec, ORVE512_DIM, codes, &scale, &norm);
    if (write_row(sys, r, node_id, vec, codes, scale, norm, nullptr) != 0) return -1;
    commit_row(sys, r, node_id, vec);
    sys->last_update_time = static_cast<int64_t>(std::time(nullptr));
    return 0;
}

extern "C" ORVE_API int semantic_vector_indexing_system_load_vectors_f32(
    semantic_vector_indexing_system* sys, const float* vecs, uint32_t n) {
    if (sys == nullptr || vecs == nullptr || n == 0 || sys->initialized != 1) return -1;
    if (static_cast<uint64_t>(orve::load_node_count(sys)) + n > sys->capacity) return -1;
    orve::object_lock guard(sys);
    if (static_cast<uint64_t>(sys->node_count) + n > sys->capacity) return -1;
    if (sys->slabs_dropped || orve_flat_index_ensure(sys) != 0) return -1;
    const int64_t t = static_cast<int64_t>(std::time(nullptr));
    // Identifiers are 1-based row positions.
    const uint32_t stored = store_rows(sys, nullptr, vecs, n, t, n);
    sys->last_update_time = t;
    return static_cast<int>(stored);
}

namespace orve {

uint32_t ingest_replayed_rows(semantic_vector_indexing_system* sys, const uint32_t* ids,
                              const float* vecs, uint32_t n, uint32_t rows_ahead) {
    object_lock guard(sys);
    if (sys->slabs_dropped || orve_flat_index_ensure(sys) != 0) return 0;
    // The one-row path refuses a row once the object is full; so do these, row by row.
    const uint32_t room = sys->capacity - sys->node_count;
    const int64_t t = static_cast<int64_t>(std::time(nullptr));
    const uint32_t stored =
        store_rows(sys, ids, vecs, n < room ? n : room, t, rows_ahead < room ? rows_ahead : room);
    if (stored != 0) sys->last_update_time = t;
    return stored;
}

}  // namespace orve

extern "C" ORVE_API int semantic_vector_indexing_system_add_node(
    semantic_vector_indexing_system* sys, const void* host_node) {
    if (sys == nullptr || host_node == nullptr || !sys->initialized ||
        orve::load_node_count(sys) >= sys->capacity) {
        return -1;
    }
    // The host record is read at fixed byte positions (see orve_host_node); memcpy because
    // the host's block need not be aligned for these types.
    const auto* bytes = static_cast<const unsigned char*>(host_node);
    uint32_t id;
    double weight;
    int64_t timestamp;
    std::memcpy(&id, bytes + offsetof(orve_host_node, node_id), sizeof id);
    std::memcpy(&weight, bytes + offsetof(orve_host_node, weight), sizeof weight);
    std::memcpy(&timestamp, bytes + offsetof(orve_host_node, timestamp), sizeof timestamp);

    const uint32_t r = sys->node_count;
    indexed_node* n = &sys->nodes[r];
    n->node_id = id;
    n->active = 1;
    n->timestamp = timestamp;
    n->weight = static_cast<float>(weight);
    n->flags = 0;
    orve::store_node_count(sys, r + 1);
    sys->last_update_time = timestamp;
    return 0;
}

extern "C" ORVE_API int semantic_vector_indexing_system_rebuild_clustering(
    semantic_vector_indexing_system* sys) {
    if (sys == nullptr || !sys->initialized) return -1;
    if (!recreate_legacy(sys->clustering_index, enhanced_clustering_index_destroy,
                         [](enhanced_clustering_index* c) {
                             return enhanced_clustering_index_create(c, orve::kClusterCount,
                                                                     orve::kLegacyDim);
                         })) {
        return -1;
    }
    return enhanced_clustering_index_cluster(sys->clustering_index, sys->nodes, sys->node_count);
}

extern "C" ORVE_API int semantic_vector_indexing_system_update_embeddings(
    semantic_vector_indexing_system* sys) {
    if (sys == nullptr || !sys->initialized) return -1;
    if (!recreate_legacy(sys->lsh_index, enhanced_lsh_index_destroy, [](enhanced_lsh_index* l) {
            return enhanced_lsh_index_create(l, orve::kLegacyDim, orve::kLshHashes);
        })) {
        return -1;
    }
    return semantic_vector_indexing_system_rebuild_clustering(sys);
}
