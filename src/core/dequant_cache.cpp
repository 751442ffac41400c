#include "core/dequant_cache.h"

#include <cstdlib>

#include "core/system.h"
#include "quant/dot512_kernels.h"

namespace orve {
namespace {

// The header keeps the rows 64-byte aligned relative to the block.
constexpr std::size_t kHeaderBytes = 64;

unsigned char* block_of(float* cache) {
    return cache == nullptr ? nullptr : reinterpret_cast<unsigned char*>(cache) - kHeaderBytes;
}

uint32_t rows_of(float* cache) {
    return cache == nullptr ? 0 : *reinterpret_cast<uint32_t*>(block_of(cache));
}

}  // namespace

int dequant_cache_extend(semantic_vector_indexing_system* sys, uint32_t n) {
    const uint32_t have = rows_of(sys->dequant_cache);
    if (have >= n) return 0;
    const std::size_t bytes = kHeaderBytes + static_cast<std::size_t>(n) * ORVE512_DIM * 4;
    void* grown = std::realloc(block_of(sys->dequant_cache), bytes);
    if (grown == nullptr) return -1;
    auto* block = static_cast<unsigned char*>(grown);
    float* rows = reinterpret_cast<float*>(block + kHeaderBytes);
    for (uint32_t r = have; r < n; ++r) {
        float* out = rows + static_cast<std::size_t>(r) * ORVE512_DIM;
        const int8_t* codes = sys->slab_i8 + static_cast<std::size_t>(r) * kRowBytes;
        const float scale = sys->row_scale[r];
        // Multiplying by the reciprocal (not dividing) is the cache's definition.
        const float w = (sys->row_valid[r] && scale > 0.0f) ? 1.0f / scale : 0.0f;
        for (int i = 0; i < ORVE512_DIM; ++i) out[i] = static_cast<float>(codes[i]) * w;
    }
    *reinterpret_cast<uint32_t*>(block) = n;
    sys->dequant_cache = rows;
    return 0;
}

void dequant_cache_free(semantic_vector_indexing_system* sys) {
    std::free(block_of(sys->dequant_cache));
    sys->dequant_cache = nullptr;
}

}  // namespace orve
