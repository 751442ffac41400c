#include "paged_fixture.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace paged_test {

hand_hivf::hand_hivf(uint32_t b1, uint32_t b2, std::vector<bucket_plan> buckets)
    : plan_(std::move(buckets)), l2_(b1), l2_records_(b1) {
    for (const bucket_plan& b : plan_) {
        l1_codes_.insert(l1_codes_.end(), b.centroid.begin(), b.centroid.end());
        l1_scales_.push_back(b.scale);
        l1_norms_.push_back(b.norm);
    }
    for (uint32_t i = 0; i < b1; ++i) {
        level2& s = l2_[i];
        orve_ivf_index& r = l2_records_[i];
        r = orve_ivf_index{};
        for (const leaf_plan& leaf : plan_[i].leaves) {
            s.offsets.push_back(static_cast<uint32_t>(s.row_ids.size()));
            s.sizes.push_back(leaf.rows());
            s.codes.insert(s.codes.end(), leaf.codes.begin(), leaf.codes.end());
            s.row_scales.insert(s.row_scales.end(), leaf.scales.begin(), leaf.scales.end());
            s.row_norms.insert(s.row_norms.end(), leaf.norms.begin(), leaf.norms.end());
            s.row_ids.insert(s.row_ids.end(), leaf.row_ids.begin(), leaf.row_ids.end());
            s.centroid_codes.insert(s.centroid_codes.end(), leaf.centroid.begin(),
                                    leaf.centroid.end());
            s.centroid_scales.push_back(leaf.scale);
            s.centroid_norms.push_back(leaf.norm);
        }
        if (plan_[i].leaves.empty()) continue;  // the all-zero entry of a bucket without rows
        r.n_rows = static_cast<uint32_t>(s.row_ids.size());
        r.n_buckets = static_cast<uint32_t>(plan_[i].leaves.size());
        r.codes = s.codes.data();
        r.row_scales = s.row_scales.data();
        r.row_norms = s.row_norms.data();
        r.centroid_codes = s.centroid_codes.data();
        r.centroid_scales = s.centroid_scales.data();
        r.centroid_norms = s.centroid_norms.data();
        r.bucket_offsets = s.offsets.data();
        r.bucket_sizes = s.sizes.data();
        r.row_ids = s.row_ids.data();
    }
    rec_.b1 = b1;
    rec_.b2 = b2;
    rec_.l1_centroid_codes = l1_codes_.data();
    rec_.l1_centroid_scales = l1_scales_.data();
    rec_.l1_centroid_norms = l1_norms_.data();
    rec_.l2_indexes = l2_records_.data();
}

uint32_t hand_hivf::total_rows() const {
    uint32_t n = 0;
    for (const bucket_plan& b : plan_)
        for (const leaf_plan& l : b.leaves) n += l.rows();
    return n;
}

std::vector<int8_t> random_codes(lcg& g, size_t n) {
    std::vector<int8_t> v(n);
    for (int8_t& c : v) c = g.code();
    return v;
}

std::vector<bucket_plan> random_buckets(uint32_t b1, uint32_t b2, uint32_t max_rows,
                                        uint64_t seed) {
    lcg g{seed};
    std::vector<bucket_plan> out(b1);
    uint32_t next_row = 0;
    bool left_empty_leaf = false;
    for (uint32_t i = 0; i < b1; ++i) {
        bucket_plan& b = out[i];
        b.centroid = random_codes(g, 512);
        b.scale = g.unit();
        b.norm = g.unit() * 4.0f;
        const uint32_t leaves = i == 0 ? b2 : i == 1 ? 0 : 1 + g.next() % b2;
        for (uint32_t j = 0; j < leaves; ++j) {
            leaf_plan l;
            l.centroid = random_codes(g, 512);
            l.scale = g.unit();
            l.norm = g.unit() * 4.0f;
            uint32_t m = 1 + g.next() % max_rows;
            if (!left_empty_leaf && leaves > 1) {
                m = 0;
                left_empty_leaf = true;
            }
            l.codes = random_codes(g, 512ull * m);
            for (uint32_t k = 0; k < m; ++k) {
                l.scales.push_back(g.unit());
                l.norms.push_back(g.unit() * 8.0f);
                l.row_ids.push_back(next_row++);
            }
            b.leaves.push_back(std::move(l));
        }
    }
    // Scramble the global ids (a permutation: 1000003 is a prime above any n used here), so
    // that a reader mixing up row ids and positions is caught.
    const uint32_t n = next_row;
    for (bucket_plan& b : out)
        for (leaf_plan& l : b.leaves)
            for (uint32_t& r : l.row_ids) r = static_cast<uint32_t>((r * 1000003ull + 3) % n);
    return out;
}

std::vector<uint32_t> node_table(uint32_t n) {
    std::vector<uint32_t> t(n);
    for (uint32_t k = 0; k < n; ++k) t[k] = 1000003u * k + 17u;
    return t;
}

uint32_t get_u32(const bytes& b, uint64_t at) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | b.at(at + i);
    return v;
}

uint64_t get_u64(const bytes& b, uint64_t at) {
    return get_u32(b, at) | (static_cast<uint64_t>(get_u32(b, at + 4)) << 32);
}

void set_u32(bytes& b, uint64_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b.at(at + i) = static_cast<uint8_t>(v >> (8 * i));
}

void set_u64(bytes& b, uint64_t at, uint64_t v) {
    set_u32(b, at, static_cast<uint32_t>(v));
    set_u32(b, at + 4, static_cast<uint32_t>(v >> 32));
}

namespace {

uint32_t bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

uint64_t up(uint64_t x, uint64_t a) {
    return (x + a - 1) / a * a;
}

}  // namespace

bytes encode_ivfp(const hand_hivf& h, const std::vector<uint32_t>& node_ids, uint32_t version) {
    const uint64_t b1 = h.b1(), b2 = h.b2(), L = b1 * b2;
    const uint64_t lc = up(72 + 520 * b1, 64), lt = lc + 512 * L, ld = lt + 16 * L;
    const uint64_t ds = up(ld + 24 * L, 4096);
    const uint64_t meta_per_row = version == 1 ? 12 : 16;
    bytes f(ds, 0);
    const uint8_t magic[8] = {0, 'O', 'R', 'V', 'E', 'V', 'F', 'P'};
    std::memcpy(f.data(), magic, 8);
    set_u32(f, 8, version);
    set_u32(f, 12, 512);
    set_u32(f, 16, h.b1());
    set_u32(f, 20, h.b2());
    set_u32(f, 24, h.total_rows());
    uint64_t pos = ds;
    for (uint64_t i = 0; i < b1; ++i) {
        const bucket_plan& b = h.buckets()[i];
        std::memcpy(&f[72 + 512 * i], b.centroid.data(), 512);
        set_u32(f, 72 + 512 * b1 + 8 * i, bits(b.scale));
        set_u32(f, 72 + 512 * b1 + 8 * i + 4, bits(b.norm));
        for (uint64_t j = 0; j < b2; ++j) {
            const uint64_t s = i * b2 + j;
            const leaf_plan* l = j < b.leaves.size() ? &b.leaves[j] : nullptr;
            const uint64_t m = l ? l->rows() : 0;
            set_u64(f, ld + 24 * s, pos);
            set_u64(f, ld + 24 * s + 8, pos + 512 * m);
            set_u32(f, ld + 24 * s + 16, static_cast<uint32_t>(m));
            if (l != nullptr) {
                std::memcpy(&f[lc + 512 * s], l->centroid.data(), 512);
                set_u32(f, lt + 16 * s, bits(l->scale));
                set_u32(f, lt + 16 * s + 4, bits(l->norm));
                set_u32(f, lt + 16 * s + 8, static_cast<uint32_t>(m));
            }
            const uint64_t end = up(pos + (512 + meta_per_row) * m, 64);
            f.resize(end, 0);
            for (uint64_t k = 0; k < m; ++k) {
                std::memcpy(&f[pos + 512 * k], &l->codes[512 * k], 512);
                const uint64_t meta = pos + 512 * m;
                set_u32(f, meta + 4 * k, bits(l->scales[k]));
                set_u32(f, meta + 4 * (m + k), bits(l->norms[k]));
                set_u32(f, meta + 4 * (2 * m + k), l->row_ids[k]);
                if (version != 1) set_u32(f, meta + 4 * (3 * m + k), node_ids[l->row_ids[k]]);
            }
            pos = end;
        }
    }
    return f;
}

int32_t plain_dot(const int8_t* a, const int8_t* b) {
    int32_t s = 0;
    for (int i = 0; i < 512; ++i) s += static_cast<int32_t>(a[i]) * b[i];
    return s;
}

float plain_cosine(int32_t dot, float qs, float rs, float qn, float rn) {
    if (qs <= 0 || rs <= 0 || qn <= 0 || rn <= 0) return 0.0f;
    const float d = ((qs * rs) * qn) * rn;
    return d <= 0 ? 0.0f : static_cast<float>(dot) / d;
}

uint64_t fnv1a64(const bytes& b) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (uint8_t c : b) {
        h ^= c;
        h *= 0x100000001b3ull;
    }
    return h;
}

bytes read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const bytes& b) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

bool file_exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

scratch_dir::scratch_dir() {
    char tmpl[] = "/tmp/paged_test_XXXXXX";
    if (::mkdtemp(tmpl) != nullptr) dir_ = tmpl;
}

scratch_dir::~scratch_dir() {
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
}

}  // namespace paged_test
