// IVF test inputs: a platform-independent integer generator, float rows from it, their codes.
#pragma once

#include <cstdint>
#include <vector>

#include "semantic_vector_indexing.h"
#include "support/test_math.h"

namespace ivf_test {

// xorshift64*; floats come from its top 24 bits, so they are exact on every platform.
struct int_rng {
    uint64_t s;
    explicit int_rng(uint64_t seed) : s(seed ? seed : 0x9E3779B97F4A7C15ull) {}
    uint32_t next() {
        s ^= s >> 12;
        s ^= s << 25;
        s ^= s >> 27;
        return static_cast<uint32_t>((s * 0x2545F4914F6CDD1Dull) >> 32);
    }
    float unit() { return static_cast<float>(next() >> 8) * (1.0f / 16777216.0f); }  // [0, 1)
    // Roughly bell-shaped in [-2, 2): sum of four uniforms, each step exact in float.
    float bell() { return (unit() + unit()) + (unit() + unit()) - 2.0f; }
};

struct dataset {
    uint32_t n = 0;
    std::vector<float> rows;  // n x 512
    std::vector<int8_t> codes;
    std::vector<float> scales, norms;

    const float* row(uint32_t r) const { return rows.data() + 512 * static_cast<size_t>(r); }
    const int8_t* code(uint32_t r) const { return codes.data() + 512 * static_cast<size_t>(r); }

    void quantise() {
        codes.assign(512 * static_cast<size_t>(n), 0);
        scales.assign(n, 0.0f);
        norms.assign(n, 0.0f);
        for (uint32_t r = 0; r < n; ++r)
            orve_quantize_float_vector_symmetric(row(r), 512, &codes[512ull * r], &scales[r],
                                                 &norms[r]);
    }
};

// n rows around `clusters` random directions (none: plain noise); spread scales the noise.
inline dataset clustered_rows(uint32_t n, uint32_t clusters, float spread, uint64_t seed) {
    dataset d;
    d.n = n;
    d.rows.resize(512 * static_cast<size_t>(n));
    int_rng g(seed);
    std::vector<float> centers(512 * static_cast<size_t>(clusters));
    for (auto& v : centers) v = g.bell();
    for (uint32_t r = 0; r < n; ++r) {
        const float* c =
            clusters ? centers.data() + 512 * static_cast<size_t>(g.next() % clusters) : nullptr;
        for (int l = 0; l < 512; ++l)
            d.rows[512 * static_cast<size_t>(r) + l] = (c ? c[l] : 0.0f) + spread * g.bell();
    }
    d.quantise();
    return d;
}

inline dataset random_rows(uint32_t n, uint64_t seed) {
    return clustered_rows(n, 0, 1.0f, seed);
}

using test_math::fnv1a;
using test_math::kFnvOffset;

inline uint64_t digest_ivf(uint64_t h, const orve_ivf_index& x) {
    h = fnv1a(h, &x.n_rows, 4);
    h = fnv1a(h, &x.n_buckets, 4);
    h = fnv1a(h, x.codes, 512 * static_cast<size_t>(x.n_rows));
    h = fnv1a(h, x.row_scales, 4 * static_cast<size_t>(x.n_rows));
    h = fnv1a(h, x.row_norms, 4 * static_cast<size_t>(x.n_rows));
    h = fnv1a(h, x.row_ids, 4 * static_cast<size_t>(x.n_rows));
    h = fnv1a(h, x.centroid_codes, 512 * static_cast<size_t>(x.n_buckets));
    h = fnv1a(h, x.centroid_scales, 4 * static_cast<size_t>(x.n_buckets));
    h = fnv1a(h, x.centroid_norms, 4 * static_cast<size_t>(x.n_buckets));
    h = fnv1a(h, x.bucket_offsets, 4 * static_cast<size_t>(x.n_buckets));
    h = fnv1a(h, x.bucket_sizes, 4 * static_cast<size_t>(x.n_buckets));
    return h;
}

}  // namespace ivf_test
