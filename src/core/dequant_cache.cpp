#include "core/dequant_cache.h"

#include <cstdlib>
#include <cstring>
#include <utility>

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

dequant_rows::dequant_rows(uint32_t n) {
    const std::size_t row_bytes = static_cast<std::size_t>(ORVE512_DIM) * sizeof(float);
    auto* block = static_cast<unsigned char*>(std::malloc(kHeaderBytes + n * row_bytes));
    if (block == nullptr) return;
    *reinterpret_cast<uint32_t*>(block) = 0;
    rows_ = reinterpret_cast<float*>(block + kHeaderBytes);
}

dequant_rows::~dequant_rows() {
    std::free(block_of(rows_));
}

dequant_rows::dequant_rows(dequant_rows&& o) noexcept : rows_(std::exchange(o.rows_, nullptr)) {}

dequant_rows& dequant_rows::operator=(dequant_rows&& o) noexcept {
    if (this != &o) {
        std::free(block_of(rows_));
        rows_ = std::exchange(o.rows_, nullptr);
    }
    return *this;
}

void dequant_rows::set_filled(uint32_t n) {
    if (rows_ != nullptr) *reinterpret_cast<uint32_t*>(block_of(rows_)) = n;
}

float* dequant_rows::release() {
    return std::exchange(rows_, nullptr);
}

void dequantise_rows(const int8_t* codes, const float* scales, const uint8_t* valid, uint32_t first,
                     uint32_t n, float* out) {
    for (uint32_t r = first; r < n; ++r) {
        float* row = out + static_cast<std::size_t>(r) * ORVE512_DIM;
        const int8_t* c = codes + static_cast<std::size_t>(r) * kRowBytes;
        const float scale = scales[r];
        // Multiplying by the reciprocal (not dividing) is the cache's definition.
        const float w = (valid[r] && scale > 0.0f) ? 1.0f / scale : 0.0f;
        for (int i = 0; i < ORVE512_DIM; ++i) row[i] = static_cast<float>(c[i]) * w;
    }
}

uint32_t dequant_cache_copy(semantic_vector_indexing_system* sys, uint32_t n, float* out) {
    const uint32_t have = rows_of(sys->dequant_cache);
    const uint32_t take = have < n ? have : n;
    if (take == 0) return 0;
    std::memcpy(out, sys->dequant_cache,
                static_cast<std::size_t>(take) * ORVE512_DIM * sizeof(float));
    return take;
}

void dequant_cache_adopt(semantic_vector_indexing_system* sys, dequant_rows&& block) {
    dequant_rows taken(std::move(block));
    if (taken.empty() || rows_of(taken.rows()) <= rows_of(sys->dequant_cache)) return;
    dequant_cache_free(sys);
    sys->dequant_cache = taken.release();
}

void dequant_cache_free(semantic_vector_indexing_system* sys) {
    std::free(block_of(sys->dequant_cache));
    sys->dequant_cache = nullptr;
}

}  // namespace orve
