// orve_ivf_paged_search: a probe of the mapped file, in place.
//
// The level-1 centroids, then the leaf centroids of each chosen bucket, are scored with the
// many-rows kernel straight from the mapping; the chosen leaves' rows are scored the same way a
// block at a time into a stack buffer. Scratch is a few fixed tables on the stack (b1 and b2
// are at most ORVE_IVF_PAGED_MAX_B, which open enforces), candidates go into the caller's heap,
// and no system call is made, except in low-memory mode two madvise per probed leaf (the
// leaves' sequential-read advice is given once, at open). No lock is taken: the
// handle is immutable apart from the low-memory flag, read here with a relaxed atomic load.
//
// Every offset used here was checked against the file length by open, so nothing outside the
// mapping is ever read whatever the file held.
#include <atomic>
#include <cstring>

#include "paged/paged_search.h"

#include "paged/page_advice.h"
#include "paged/paged_format.h"
#include "quant/cosine.h"
#include "quant/kernel_table.h"
#include "semantic_vector_indexing.h"
#include "util/topk_heap.h"

namespace {

using namespace orve::paged;

constexpr uint32_t kMaxB = ORVE_IVF_PAGED_MAX_B;
constexpr uint32_t kRowBlock = 64;  // rows scored per kernel call

// Picks up to p of the n scores by p selection passes: each pass keeps the highest score not
// yet picked, replacing its best only on a strictly higher score, so ties go to the lower index
// and the picks come out best first. A pass finds nothing only when every remaining score is
// NaN or at most -1e30, which a damaged file can produce; picking then stops early rather than
// inventing an index. Returns the number of picks written to out.
uint32_t pick_best(const float* scores, uint32_t n, uint32_t p, uint32_t* out) {
    bool picked[kMaxB] = {};
    uint32_t count = 0;
    for (uint32_t pass = 0; pass < p; ++pass) {
        float best = -1e30f;
        uint32_t best_i = kMaxB;
        for (uint32_t i = 0; i < n; ++i) {
            if (!picked[i] && scores[i] > best) {
                best = scores[i];
                best_i = i;
            }
        }
        if (best_i == kMaxB) break;
        picked[best_i] = true;
        out[count++] = best_i;
    }
    return count;
}

struct probe {
    const uint8_t* base;
    const int8_t* query;
    float q_scale, q_norm, min_similarity;
    const uint8_t* id_map;      // null for version-2 files, which carry their node ids
    std::size_t id_map_stride;  // bytes from one entry of id_map to the next
    uint32_t id_map_rows;       // entries in id_map
    bool with_node_ids;
    bf_topk_entry* heap;
    uint32_t* found;
    uint32_t budget;
};

void scan_leaf(const probe& pr, const orve::dot512_many_fn many, uint64_t codes_offset,
               uint64_t meta_offset, uint32_t m) {
    const int8_t* codes = reinterpret_cast<const int8_t*>(pr.base + codes_offset);
    const uint8_t* scales = pr.base + meta_offset;
    const uint8_t* norms = scales + 4 * static_cast<uint64_t>(m);
    const uint8_t* row_ids = norms + 4 * static_cast<uint64_t>(m);
    const uint8_t* node_ids = row_ids + 4 * static_cast<uint64_t>(m);  // version 2 only
    int32_t dots[kRowBlock];
    for (uint32_t k0 = 0; k0 < m; k0 += kRowBlock) {
        const uint32_t n = m - k0 < kRowBlock ? m - k0 : kRowBlock;
        many(pr.query, codes + orve::kCodeBytes * k0, n, dots);
        for (uint32_t t = 0; t < n; ++t) {
            const uint32_t k = k0 + t;
            const float score = orve::cosine_from_dot(dots[t], pr.q_scale, load_f32(scales + 4 * k),
                                                      pr.q_norm, load_f32(norms + 4 * k));
            if (score < pr.min_similarity) continue;
            // What the heap would refuse is refused before the row's identifiers are read: a
            // first-version file looks each one up in the caller's map, in no particular order.
            if (*pr.found == pr.budget && (pr.budget == 0 || !(score > pr.heap[0].score))) continue;
            const uint32_t row = load_u32(row_ids + 4 * k);
            // A position the map does not cover names no node the caller knows; it is skipped
            // rather than read past the map (open does not bound positions).
            if (!pr.with_node_ids && row >= pr.id_map_rows) continue;
            uint32_t node;
            if (pr.with_node_ids) {
                node = load_u32(node_ids + 4 * k);
            } else {
                std::memcpy(&node, pr.id_map + pr.id_map_stride * row, sizeof node);
            }
            const bf_topk_entry e{score, node, 0, 0.0f, row};
            bf_topk_heap_push(pr.heap, pr.found, pr.budget, &e);
        }
    }
}

}  // namespace

// Choices made here:
//   - a version-1 file searched without an id map returns at once: no row could be offered,
//     so its leaves are not read at all;
//   - a handle whose b1 or b2 is above the scratch size (only a handle not made by open could
//     have one) is searched as if empty.
namespace orve::paged {

int32_t search_mapped(const orve_ivf_paged_index* handle, uint32_t n_probe_l1, uint32_t n_probe_l2,
                      const int8_t* query_codes, bf_topk_entry* candidates, uint32_t* found,
                      uint32_t budget, const uint8_t* id_map, std::size_t id_map_stride,
                      uint32_t id_map_rows, float query_scale, float query_norm,
                      float min_similarity) {
    if (handle == nullptr || query_codes == nullptr || candidates == nullptr || found == nullptr)
        return -1;
    const uint32_t b1 = handle->b1;
    const uint32_t b2 = handle->b2;
    if (b1 == 0 || b1 > kMaxB || b2 > kMaxB) return 0;
    const bool with_node_ids = handle->version != kVersionNoNodeIds;
    if (!with_node_ids && id_map == nullptr) return 0;
    // Without a level-1 or a leaf probe nothing can be offered.
    const uint32_t p2_want = n_probe_l2 < b2 ? n_probe_l2 : b2;
    if (n_probe_l1 == 0 || p2_want == 0) return 0;

    const probe pr{static_cast<const uint8_t*>(handle->base),
                   query_codes,
                   query_scale,
                   query_norm,
                   min_similarity,
                   with_node_ids ? nullptr : id_map,
                   id_map_stride,
                   id_map_rows,
                   with_node_ids,
                   candidates,
                   found,
                   budget};
    const orve::dot512_many_fn many = orve::kernels().dot512_many;
    const auto* l1_pairs = reinterpret_cast<const uint8_t*>(handle->l1_scales);

    float scores[kMaxB];
    int32_t dots[kMaxB];
    uint32_t l1_picks[kMaxB];
    uint32_t leaf_picks[kMaxB];

    many(query_codes, handle->l1_codes, b1, dots);
    for (uint32_t i = 0; i < b1; ++i) {
        const uint8_t* pair = l1_pairs + kL1PairBytes * i;
        scores[i] = orve::cosine_from_dot(dots[i], query_scale, load_f32(pair), query_norm,
                                          load_f32(pair + 4));
    }
    const uint32_t p1 = pick_best(scores, b1, n_probe_l1 < b1 ? n_probe_l1 : b1, l1_picks);

    for (uint32_t a = 0; a < p1; ++a) {
        const uint64_t first_slot = static_cast<uint64_t>(l1_picks[a]) * b2;
        many(query_codes, handle->leaf_centroid_codes + kCodeBytes * first_slot, b2, dots);
        for (uint32_t j = 0; j < b2; ++j) {
            const uint8_t* t = handle->leaf_table + kLeafTableBytes * (first_slot + j);
            scores[j] = orve::cosine_from_dot(dots[j], query_scale, load_f32(t + kLeafTableScale),
                                              query_norm, load_f32(t + kLeafTableNorm));
        }
        const uint32_t p2 = pick_best(scores, b2, p2_want, leaf_picks);
        for (uint32_t b = 0; b < p2; ++b) {
            const uint8_t* d = handle->leaf_dir + kLeafDirBytes * (first_slot + leaf_picks[b]);
            const uint32_t m = load_u32(d + kLeafDirCount);
            if (m == 0) continue;
            const uint64_t codes_offset = load_u64(d + kLeafDirCodes);
            const uint64_t meta_offset = load_u64(d + kLeafDirMeta);
            scan_leaf(pr, many, codes_offset, meta_offset, m);
            // atomic_ref takes a mutable object (until C++26); the handle open allocated is
            // mutable, only this view of it is const.
            const std::atomic_ref<uint32_t> low_memory(const_cast<uint32_t&>(handle->low_memory));
            if (low_memory.load(std::memory_order_relaxed) != 0) {
                advise_range(handle->base, handle->length, codes_offset, kCodeBytes * m, MADV_COLD);
                advise_range(handle->base, handle->length, meta_offset,
                             meta_bytes_per_row(handle->version) * m, MADV_COLD);
            }
        }
    }
    return 0;
}

}  // namespace orve::paged

extern "C" ORVE_API int32_t orve_ivf_paged_search(const orve_ivf_paged_index* handle,
                                                  const float* query_vector, uint32_t n_probe_l1,
                                                  uint32_t n_probe_l2, const int8_t* query_codes,
                                                  bf_topk_entry* candidates, uint32_t* found,
                                                  uint32_t budget, const uint32_t* id_map,
                                                  float query_scale, float query_norm,
                                                  float min_similarity) {
    (void)query_vector;  // the codes, scale and norm carry everything the scores need
    // The map's size is not passed here; the file's row count is the one size a caller can be
    // expected to have sized it by, and a file written from an index has every position below
    // it. Open accepts files whose positions go beyond it, so such a position is skipped
    // instead of being used as an index past the caller's map.
    const uint32_t map_rows = handle != nullptr ? handle->n_rows : 0;
    return orve::paged::search_mapped(handle, n_probe_l1, n_probe_l2, query_codes, candidates,
                                      found, budget, reinterpret_cast<const uint8_t*>(id_map),
                                      sizeof *id_map, map_rows, query_scale, query_norm,
                                      min_similarity);
}
