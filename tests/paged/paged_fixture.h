// For the paged tests: hand-built H-IVFs, an encoder sharing no code with the writer, scoring.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <vector>

#include "../support/test_files.h"
#include "semantic_vector_indexing.h"

namespace paged_test {

using bytes = std::vector<uint8_t>;

// 64-bit LCG, high bits out: fixtures are the same on every architecture and standard library.
struct lcg {
    uint64_t state;
    uint32_t next() {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<uint32_t>(state >> 33);
    }
    int8_t code() { return static_cast<int8_t>(static_cast<int32_t>(next() % 255) - 127); }
    float unit() { return static_cast<float>(next() % 1000 + 1) / 1000.0f; }  // (0, 1]
    std::vector<int8_t> codes(size_t n) {
        std::vector<int8_t> v(n);
        for (int8_t& c : v) c = code();
        return v;
    }
};

struct leaf_plan {
    std::vector<int8_t> centroid;  // 512 codes
    float scale = 1.0f, norm = 1.0f;
    std::vector<int8_t> codes;  // 512 per row
    std::vector<float> scales, norms;
    std::vector<uint32_t> row_ids;  // global row indexes
    uint32_t rows() const { return static_cast<uint32_t>(row_ids.size()); }
};

struct bucket_plan {
    std::vector<int8_t> centroid;  // 512 codes
    float scale = 1.0f, norm = 1.0f;
    std::vector<leaf_plan> leaves;  // at most b2; none for a bucket without rows
};

// A random leaf of rows numbered first_row onwards; rows() is drawn after the centroid.
template <class F>
leaf_plan random_leaf(lcg& g, uint32_t first_row, F rows) {
    leaf_plan l{g.codes(512), g.unit(), g.unit() * 4.0f, {}, {}, {}, {}};
    const uint32_t m = rows();
    l.codes = g.codes(512ull * m);
    for (uint32_t k = 0; k < m; ++k) {
        l.scales.push_back(g.unit());
        l.norms.push_back(g.unit() * 8.0f);
        l.row_ids.push_back(first_row + k);
    }
    return l;
}

// Owns the arrays of an H-IVF laid out as the builder lays them out (leaves compacted one after
// the other in each level-2 index) and exposes the record.
struct hand_hivf {
    hand_hivf(uint32_t b1, uint32_t b2, std::vector<bucket_plan> plan)
        : buckets(std::move(plan)), l2_(b1), records_(b1) {
        auto add = [](auto& to, const auto& from) {
            to.insert(to.end(), from.begin(), from.end());
        };
        for (uint32_t i = 0; i < b1; ++i) {
            const bucket_plan& b = buckets[i];
            add(l1_codes_, b.centroid);
            l1_scales_.push_back(b.scale);
            l1_norms_.push_back(b.norm);
            level2& s = l2_[i];
            for (const leaf_plan& l : b.leaves) {
                s.offsets.push_back(static_cast<uint32_t>(s.row_ids.size()));
                s.sizes.push_back(l.rows());
                add(s.codes, l.codes), add(s.row_scales, l.scales), add(s.row_norms, l.norms);
                add(s.row_ids, l.row_ids), add(s.centroid_codes, l.centroid);
                s.centroid_scales.push_back(l.scale);
                s.centroid_norms.push_back(l.norm);
            }
            const auto rows = static_cast<uint32_t>(s.row_ids.size());
            total_rows += rows;
            if (b.leaves.empty()) continue;  // the all-zero entry of a bucket without rows
            const orve_ivf_index leaf = {rows,
                                         static_cast<uint32_t>(b.leaves.size()),
                                         s.codes.data(),
                                         s.row_scales.data(),
                                         s.row_norms.data(),
                                         s.centroid_codes.data(),
                                         s.centroid_scales.data(),
                                         s.centroid_norms.data(),
                                         s.offsets.data(),
                                         s.sizes.data(),
                                         s.row_ids.data()};
            records_[i] = leaf;
        }
        rec_ = {b1, b2, l1_codes_.data(), l1_scales_.data(), l1_norms_.data(), records_.data()};
    }
    hand_hivf(const hand_hivf&) = delete;
    const orve_hivf_index* get() const { return &rec_; }
    uint32_t b1() const { return rec_.b1; }
    uint32_t b2() const { return rec_.b2; }
    const std::vector<bucket_plan> buckets;
    uint32_t total_rows = 0;

  private:
    struct level2 {
        std::vector<int8_t> codes, centroid_codes;
        std::vector<float> row_scales, row_norms, centroid_scales, centroid_norms;
        std::vector<uint32_t> offsets, sizes, row_ids;
    };
    std::vector<int8_t> l1_codes_;
    std::vector<float> l1_scales_, l1_norms_;
    std::vector<level2> l2_;
    std::vector<orve_ivf_index> records_;
    orve_hivf_index rec_{};
};

// A pseudo-random H-IVF over global rows 0 .. n-1 in a scrambled order: bucket 0 has b2
// leaves, the first of them empty when b2 > 1; bucket 1 (when b1 > 1) has no rows; the others
// have 1 .. b2 leaves. Leaves get 1 .. max_rows rows.
inline std::vector<bucket_plan> random_buckets(uint32_t b1, uint32_t b2, uint32_t max_rows,
                                               uint64_t seed) {
    lcg g{seed};
    std::vector<bucket_plan> out(b1);
    uint32_t n = 0;
    for (uint32_t i = 0; i < b1; ++i) {
        out[i] = {g.codes(512), g.unit(), g.unit() * 4.0f, {}};
        const uint32_t leaves = i == 0 ? b2 : i == 1 ? 0 : 1 + g.next() % b2;
        for (uint32_t j = 0; j < leaves; ++j) {
            out[i].leaves.push_back(random_leaf(g, n, [&] {
                const uint32_t m = 1 + g.next() % max_rows;
                return i == 0 && j == 0 && leaves > 1 ? 0 : m;
            }));
            n += out[i].leaves.back().rows();
        }
    }
    // Scrambled ids (1000003: a prime above any n here) catch readers mixing ids and positions.
    for (bucket_plan& b : out)
        for (leaf_plan& l : b.leaves)
            for (uint32_t& r : l.row_ids) r = static_cast<uint32_t>((r * 1000003ull + 3) % n);
    return out;
}

// node_ids[k] = 1000003 * k + 17, distinct and far from the row numbers.
inline std::vector<uint32_t> node_table(uint32_t n) {
    std::vector<uint32_t> t(n);
    for (uint32_t k = 0; k < n; ++k) t[k] = 1000003u * k + 17u;
    return t;
}

// Little-endian fields, byte by byte, whatever the host.
template <class T>
T get(const bytes& b, uint64_t at) {
    T v = 0;
    for (int i = sizeof(T) - 1; i >= 0; --i) v = static_cast<T>((v << 8) | b.at(at + i));
    return v;
}
template <class T>
void put(bytes& b, uint64_t at, T v) {
    if constexpr (std::is_same_v<T, float>)
        put<uint32_t>(b, at, std::bit_cast<uint32_t>(v));
    else
        for (unsigned i = 0; i < sizeof(T); ++i) b.at(at + i) = static_cast<uint8_t>(v >> (8 * i));
}

// The file bytes for version 1 or 2, laid out field by field.
inline bytes encode_ivfp(const hand_hivf& h, const std::vector<uint32_t>& node_ids,
                         uint32_t version) {
    auto up = [](uint64_t x, uint64_t a) { return (x + a - 1) / a * a; };
    const uint64_t b1 = h.b1(), b2 = h.b2(), L = b1 * b2;
    const uint64_t lc = up(72 + 520 * b1, 64), lt = lc + 512 * L, ld = lt + 16 * L;
    const uint64_t ds = up(ld + 24 * L, 4096), meta_per_row = version == 1 ? 12 : 16;
    bytes f(ds, 0);
    std::memcpy(f.data(), "\0ORVEVFP", 8);
    const uint32_t head[] = {version, 512, h.b1(), h.b2(), h.total_rows};
    for (int i = 0; i < 5; ++i) put<uint32_t>(f, 8 + 4 * i, head[i]);
    uint64_t pos = ds;
    for (uint64_t i = 0; i < b1; ++i) {
        const bucket_plan& b = h.buckets[i];
        std::memcpy(&f[72 + 512 * i], b.centroid.data(), 512);
        put(f, 72 + 512 * b1 + 8 * i, b.scale);
        put(f, 72 + 512 * b1 + 8 * i + 4, b.norm);
        for (uint64_t j = 0; j < b2; ++j) {
            const uint64_t s = i * b2 + j;
            const leaf_plan* l = j < b.leaves.size() ? &b.leaves[j] : nullptr;
            const uint64_t m = l ? l->rows() : 0, meta = pos + 512 * m;
            put<uint64_t>(f, ld + 24 * s, pos);
            put<uint64_t>(f, ld + 24 * s + 8, meta);
            put<uint32_t>(f, ld + 24 * s + 16, static_cast<uint32_t>(m));
            if (l != nullptr) {
                std::memcpy(&f[lc + 512 * s], l->centroid.data(), 512);
                put(f, lt + 16 * s, l->scale);
                put(f, lt + 16 * s + 4, l->norm);
                put<uint32_t>(f, lt + 16 * s + 8, static_cast<uint32_t>(m));
            }
            pos = up(meta + meta_per_row * m, 64);
            f.resize(pos, 0);
            for (uint64_t k = 0; k < m; ++k) {
                std::memcpy(&f[meta - 512 * (m - k)], &l->codes[512 * k], 512);
                put(f, meta + 4 * k, l->scales[k]);
                put(f, meta + 4 * (m + k), l->norms[k]);
                put<uint32_t>(f, meta + 4 * (2 * m + k), l->row_ids[k]);
                if (version != 1) put<uint32_t>(f, meta + 4 * (3 * m + k), node_ids[l->row_ids[k]]);
            }
        }
    }
    return f;
}

inline float plain_cosine(const int8_t* a, const int8_t* b, float qs, float rs, float qn,
                          float rn) {
    int32_t dot = 0;
    for (int i = 0; i < 512; ++i) dot += static_cast<int32_t>(a[i]) * b[i];
    if (qs <= 0 || rs <= 0 || qn <= 0 || rn <= 0) return 0.0f;
    const float d = ((qs * rs) * qn) * rn;
    return d <= 0 ? 0.0f : static_cast<float>(dot) / d;
}

using namespace test_files;

}  // namespace paged_test
