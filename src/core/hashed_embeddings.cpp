// Model-free text embeddings for the legacy 128-float indexes: a text's FNV-1a hash spread
// over the components plus its leading bytes, normalised. Equal texts give bit-identical
// vectors in every process, and nothing here touches the heap or any shared state.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "semantic_vector_indexing.h"

namespace {

constexpr int kDim = ORVE_HASHED_EMBEDDING_DIM;
constexpr uint32_t kFnvOffsetBasis = 2166136261u;
constexpr uint32_t kFnvPrime = 16777619u;

// The host record is read by these byte positions; the public record type is laid out to
// match, so hosts that fill orve_host_node and hosts with their own layout agree.
constexpr size_t kFirstTextOffset = 12;
constexpr size_t kSecondTextOffset = 76;
static_assert(offsetof(orve_host_node, name) == kFirstTextOffset);
static_assert(offsetof(orve_host_node, description) == kSecondTextOffset);

uint32_t fnv1a32(const unsigned char* bytes, size_t len) {
    uint32_t h = kFnvOffsetBasis;
    for (size_t i = 0; i < len; ++i) {
        h ^= bytes[i];
        h *= kFnvPrime;
    }
    return h;
}

}  // namespace

extern "C" ORVE_API int generate_semantic_embedding(const char* text, float* output) {
    if (text == nullptr || output == nullptr) return -1;
    const size_t len = std::strlen(text);
    if (len == 0) return -1;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);

    // Each component takes the byte of the hash that starts at bit (i mod 32), mapped to
    // [-1, 1]; the pattern repeats every 32 components.
    const uint32_t h = fnv1a32(bytes, len);
    for (int i = 0; i < kDim; ++i) {
        const uint32_t b = (h >> (i % 32)) & 255u;
        const float t = static_cast<float>(b) / 255.0f;
        output[i] = t + t - 1.0f;
    }
    // The leading bytes, centred on 128 and scaled by 1/128, keep texts that share a hash byte
    // pattern apart and make texts with a common prefix look alike.
    const size_t mixed = len < static_cast<size_t>(kDim) ? len : static_cast<size_t>(kDim);
    for (size_t i = 0; i < mixed; ++i) {
        output[i] += static_cast<float>(static_cast<int>(bytes[i]) - 128) * 0.0078125f;
    }
    normalize_vector(output);
    return 0;
}

extern "C" ORVE_API int generate_node_embedding(const orve_host_node* node, float* output) {
    if (node == nullptr || output == nullptr) return -1;
    // The texts are read as C strings from their byte positions, not bounded by the record's
    // field sizes: hosts are only promised those positions, and the fixed buffer below caps
    // what is embedded however long the texts run.
    const auto* base = reinterpret_cast<const char*>(node);
    char joined[ORVE_NODE_TEXT_MAX];
    std::snprintf(joined, sizeof(joined), "%s %s", base + kFirstTextOffset,
                  base + kSecondTextOffset);
    return generate_semantic_embedding(joined, output);
}
