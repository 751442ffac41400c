// The legacy random-hyperplane LSH index. Vectors are reduced to one hash per hyperplane and
// filed under hash % n_buckets in fixed 100-slot buckets; a search reports every entry in the
// query's buckets that shares an exact hash value with the query. Memory is sized once at
// creation and never grows, so add and search never allocate.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "lsh_cluster/lsh_hash.h"
#include "semantic_vector_indexing.h"
#include "util/c_alloc.h"

namespace {

constexpr uint32_t kDefaultCapacity = ORVE_MAX_CAPACITY;  // the system object's default too
constexpr float kEntryConfidence = 0.8f;

// ORVE_VECTOR_CAPACITY as this index reads it: any positive base-10 value, cut to its low 32
// bits; unset, zero, negative or non-numeric text gives the default. This is deliberately not
// the system object's rule, which also caps the value.
uint32_t capacity_from_environment() {
    const char* text = std::getenv("ORVE_VECTOR_CAPACITY");
    if (text == nullptr) return kDefaultCapacity;
    const long long value = std::strtoll(text, nullptr, 10);
    if (value <= 0) return kDefaultCapacity;
    return static_cast<uint32_t>(static_cast<unsigned long long>(value));
}

const float* hyperplane_of(const enhanced_lsh_index* index, uint32_t h) {
    return index->hyperplanes + static_cast<size_t>(h) * index->dim;
}

}  // namespace

extern "C" ORVE_API int enhanced_lsh_index_create(enhanced_lsh_index* index, uint32_t dim,
                                                  uint32_t n_hashes) {
    if (index == nullptr || dim == 0 || n_hashes == 0) return -1;
    // An entry holds at most 8 hashes and the hash reads 128 components of each hyperplane, so
    // larger hash counts or shorter hyperplanes are refused outright rather than clamped: a
    // caller asking for them gets a clear failure instead of an index other than the one it
    // asked for. Like the other argument errors, this leaves the record untouched.
    if (n_hashes > ENHANCED_LSH_MAX_HASHES || dim < orve::kHashedDim) return -1;

    std::memset(index, 0, sizeof(*index));
    const uint32_t n_buckets = 1u << (n_hashes / 2);
    const uint32_t capacity = capacity_from_environment();
    const uint32_t slots = n_buckets * ENHANCED_LSH_BUCKET_SLOTS;
    const uint32_t planes = dim * n_hashes;
    // A hyperplane table whose size does not fit in 32 bits (dim near 2^29 and up) would wrap
    // to a short block that the draws below overrun; it fails like an allocation would, with
    // the record left zeroed.
    if (static_cast<uint64_t>(dim) * n_hashes != planes) return -1;

    auto entries = orve::c_calloc_array<lsh_entry>(capacity);
    auto bucket_table = orve::c_calloc_array<uint32_t>(slots);
    auto bucket_counts = orve::c_calloc_array<uint32_t>(n_buckets);
    auto hyperplanes = orve::c_calloc_array<float>(planes);
    auto offsets = orve::c_calloc_array<float>(n_hashes);
    if (!entries || !bucket_table || !bucket_counts || !hyperplanes || !offsets) {
        // The owners free whatever was allocated; the record is still all zero.
        return -1;
    }

    index->n_buckets = n_buckets;
    index->n_hashes = n_hashes;
    index->dim = dim;
    index->capacity = capacity;
    index->entries = entries.release();
    index->bucket_table = bucket_table.release();
    index->bucket_counts = bucket_counts.release();
    index->hyperplanes = hyperplanes.release();
    index->offsets = offsets.release();

    // Reseeding the process-wide generator from the clock is how this index picks its
    // hyperplanes; two indexes created in the same second share them.
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    for (uint32_t h = 0; h < n_hashes; ++h) {
        float* plane = index->hyperplanes + static_cast<size_t>(h) * dim;
        for (uint32_t i = 0; i < dim; ++i) plane[i] = random_float_range(-1.0f, 1.0f);
        index->offsets[h] = random_float_range(0.0f, 1.0f);
    }
    return 0;
}

int orve::lsh_index_add_hashed(enhanced_lsh_index* index, const uint64_t* hashes,
                               uint32_t node_id) {
    if (node_id == 0 || index->count >= index->capacity) return -1;
    // An entry has room for ENHANCED_LSH_MAX_HASHES hashes; a record edited to claim more
    // would have this write past the entry, so it is refused like a full index.
    if (index->n_hashes > ENHANCED_LSH_MAX_HASHES) return -1;

    const uint32_t entry_index = index->count;
    lsh_entry& entry = index->entries[entry_index];
    entry.node_id = node_id;
    entry.confidence = kEntryConfidence;
    entry.n_hashes = index->n_hashes;
    // A 64-bit division per hash is a good part of an entry's cost. Creation always makes
    // n_buckets a power of two, and then masking keeps exactly the remainder's bits; any other
    // count (a record edited by hand) keeps the division.
    const uint64_t n_buckets = index->n_buckets;
    const bool power_of_two = n_buckets != 0 && (n_buckets & (n_buckets - 1)) == 0;
    for (uint32_t h = 0; h < index->n_hashes; ++h) {
        entry.hashes[h] = hashes[h];
        entry.buckets[h] = static_cast<uint32_t>(power_of_two ? hashes[h] & (n_buckets - 1)
                                                              : hashes[h] % n_buckets);
    }
    // One slot per hash function, so an entry whose hashes share a bucket sits there more than
    // once; a full bucket just goes without this entry.
    for (uint32_t h = 0; h < index->n_hashes; ++h) {
        const uint32_t b = entry.buckets[h];
        uint32_t& used = index->bucket_counts[b];
        if (used < ENHANCED_LSH_BUCKET_SLOTS) {
            index->bucket_table[b * ENHANCED_LSH_BUCKET_SLOTS + used] = entry_index;
            ++used;
        }
    }
    index->count = entry_index + 1;
    return 0;
}

extern "C" ORVE_API int enhanced_lsh_index_add_vector(enhanced_lsh_index* index,
                                                      const float* vector, uint32_t node_id) {
    if (index == nullptr || vector == nullptr || node_id == 0) return -1;
    if (index->count >= index->capacity || index->n_hashes > ENHANCED_LSH_MAX_HASHES) return -1;
    uint64_t hashes[ENHANCED_LSH_MAX_HASHES];
    for (uint32_t h = 0; h < index->n_hashes; ++h) {
        hashes[h] = generate_lsh_hash(vector, hyperplane_of(index, h), index->offsets[h]);
    }
    return orve::lsh_index_add_hashed(index, hashes, node_id);
}

extern "C" ORVE_API int enhanced_lsh_index_search_similar(const enhanced_lsh_index* index,
                                                          const float* query, float min_similarity,
                                                          vector_similarity_result* results,
                                                          uint32_t* count) {
    // Every hit scores 1.0, so a similarity threshold could not tell hits apart.
    (void)min_similarity;
    if (index == nullptr || query == nullptr || results == nullptr || count == nullptr) {
        return -1;
    }
    *count = 0;
    if (index->n_hashes == 0) return 0;

    uint64_t query_hashes[ENHANCED_LSH_MAX_HASHES];
    uint32_t query_buckets[ENHANCED_LSH_MAX_HASHES];
    for (uint32_t h = 0; h < index->n_hashes; ++h) {
        query_hashes[h] = generate_lsh_hash(query, hyperplane_of(index, h), index->offsets[h]);
        query_buckets[h] = static_cast<uint32_t>(query_hashes[h] % index->n_buckets);
    }

    for (uint32_t h = 0; h < index->n_hashes; ++h) {
        const uint32_t b = query_buckets[h];
        const uint32_t* slots =
            index->bucket_table + static_cast<size_t>(b) * ENHANCED_LSH_BUCKET_SLOTS;
        for (uint32_t s = 0; s < index->bucket_counts[b]; ++s) {
            if (*count >= ENHANCED_LSH_MAX_RESULTS) break;
            const lsh_entry& entry = index->entries[slots[s]];
            for (uint32_t t = 0; t < index->n_hashes; ++t) {
                if (entry.hashes[t] != query_hashes[t]) continue;
                vector_similarity_result& r = results[*count];
                r.node_id = entry.node_id;
                r.similarity = 1.0f;
                r.distance = 0.0f;
                r.cluster_id = 0;
                r.node_score = 1.0f;
                r.rank = *count + 1;
                ++*count;
                break;
            }
        }
    }
    return 0;
}

extern "C" ORVE_API void enhanced_lsh_index_destroy(enhanced_lsh_index* index) {
    if (index == nullptr) return;
    std::free(index->entries);
    std::free(index->bucket_table);
    std::free(index->bucket_counts);
    std::free(index->hyperplanes);
    std::free(index->offsets);
    std::memset(index, 0, sizeof(*index));
}
