#include "datasets.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <cstring>
#include <unordered_set>
#include <vector>

#include "semantic_vector_indexing.h"
#include "tool_error.h"

namespace orve::tool {

namespace {

constexpr uint32_t kDim = 512;

uint64_t splitmix64(uint64_t& x) {
    uint64_t z = (x += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
}

uint64_t rotl(uint64_t x, int k) {
    return (x << k) | (x >> (64 - k));
}

}  // namespace

rng::rng(uint64_t seed) {
    for (uint64_t& s : s_) s = splitmix64(seed);
}

uint64_t rng::next() {
    const uint64_t result = rotl(s_[1] * 5, 7) * 9;
    const uint64_t t = s_[1] << 17;
    s_[2] ^= s_[0];
    s_[3] ^= s_[1];
    s_[1] ^= s_[2];
    s_[0] ^= s_[3];
    s_[2] ^= t;
    s_[3] = rotl(s_[3], 45);
    return result;
}

double rng::uniform() {
    return static_cast<double>(next() >> 11) * 0x1.0p-53;
}

double rng::normal() {
    if (have_spare_) {
        have_spare_ = false;
        return spare_;
    }
    // Box-Muller; 1 - u keeps the logarithm away from zero.
    const double u = 1.0 - uniform();
    const double v = uniform();
    const double r = std::sqrt(-2.0 * std::log(u));
    spare_ = r * std::sin(2.0 * std::numbers::pi * v);
    have_spare_ = true;
    return r * std::cos(2.0 * std::numbers::pi * v);
}

uint64_t rng::below(uint64_t n) {
    return n ? next() % n : 0;
}

namespace {

class clustered final : public dataset {
  public:
    clustered(uint64_t rows, uint64_t seed)
        : centres_(std::max<uint64_t>(1, (rows + 50) / 100)), rows_rng_(seed), query_rng_(~seed) {
        rng setup(seed ^ 0x5eedc0de5eedc0deull);
        units_.resize(centres_ * kDim);
        spreads_.resize(centres_);
        for (uint64_t c = 0; c < centres_; ++c) {
            double norm = 0.0;
            for (uint32_t j = 0; j < kDim; ++j) {
                const double g = setup.normal();
                units_[c * kDim + j] = g;
                norm += g * g;
            }
            norm = std::sqrt(norm);
            for (uint32_t j = 0; j < kDim; ++j) units_[c * kDim + j] /= norm;
            spreads_[c] = 0.8 + 1.2 * setup.uniform();
        }
    }

    std::string describe() const override {
        return "clustered (" + std::to_string(centres_) + " centres, spread 0.8-2.0)";
    }

    void make_queries(uint32_t count, float* out) override {
        for (uint32_t i = 0; i < count; ++i) draw(query_rng_, out + uint64_t{i} * kDim);
    }

    void next_rows(uint32_t count, float* out) override {
        for (uint32_t i = 0; i < count; ++i) draw(rows_rng_, out + uint64_t{i} * kDim);
    }

  private:
    // centre + spread * (noise of unit expected length), times a scale in [0.5, 2].
    void draw(rng& r, float* out) {
        const uint64_t c = r.below(centres_);
        const double sigma = spreads_[c] / std::sqrt(double{kDim});
        const double scale = std::exp((r.uniform() * 2.0 - 1.0) * std::log(2.0));
        for (uint32_t j = 0; j < kDim; ++j) {
            out[j] = static_cast<float>(scale * (units_[c * kDim + j] + sigma * r.normal()));
        }
    }

    uint64_t centres_;
    std::vector<double> units_;
    std::vector<double> spreads_;
    rng rows_rng_;
    rng query_rng_;
};

class facts final : public dataset {
  public:
    facts(uint64_t rows, uint64_t seed)
        : entities_(std::max<uint64_t>(8, std::llround(2.0 * std::sqrt(double(rows))))),
          relations_(std::max<uint64_t>(4, std::llround(std::sqrt(std::sqrt(double(rows)))))),
          seed_(seed),
          query_rng_(~seed) {
        rng r(seed);
        stored_.reserve(rows);
        seen_.reserve(rows * 2);
        // The vocabulary has room for many more facts than rows (entities^2 x relations
        // grows as rows^1.25), so drawing until enough distinct facts exist ends quickly.
        while (stored_.size() < rows) {
            const fact f{r.below(entities_), r.below(relations_), r.below(entities_)};
            if (f.s == f.o || !seen_.insert(key(f)).second) continue;
            stored_.push_back(f);
        }
    }

    std::string describe() const override {
        return "facts (" + std::to_string(entities_) + " entities, " + std::to_string(relations_) +
               " relations)";
    }

    void make_queries(uint32_t count, float* out) override {
        for (uint32_t i = 0; i < count; ++i) {
            // Swap one term of a stored fact for another symbol of its kind, keeping only
            // facts that are not stored, so the two shared terms are what makes a neighbour.
            fact q{};
            for (int attempt = 0;; ++attempt) {
                if (attempt > 1000) throw tool_error("facts: vocabulary too small for queries");
                q = stored_[query_rng_.below(stored_.size())];
                switch (query_rng_.below(3)) {
                    case 0:
                        q.s = query_rng_.below(entities_);
                        break;
                    case 1:
                        q.r = query_rng_.below(relations_);
                        break;
                    default:
                        q.o = query_rng_.below(entities_);
                        break;
                }
                if (q.s != q.o && !seen_.count(key(q))) break;
            }
            encode(q, out + uint64_t{i} * kDim);
        }
    }

    void next_rows(uint32_t count, float* out) override {
        for (uint32_t i = 0; i < count; ++i) encode(stored_[next_++], out + uint64_t{i} * kDim);
    }

  private:
    struct fact {
        uint64_t s, r, o;
    };
    uint64_t key(const fact& f) const { return (f.s * relations_ + f.r) * entities_ + f.o; }

    void encode(const fact& f, float* out) const {
        const std::string s = "entity" + std::to_string(f.s);
        const std::string r = "relation" + std::to_string(f.r);
        const std::string o = "entity" + std::to_string(f.o);
        orve_hrr_encode(seed_, s.c_str(), r.c_str(), o.c_str(), out);
    }

    uint64_t entities_;
    uint64_t relations_;
    uint64_t seed_;
    rng query_rng_;
    std::vector<fact> stored_;
    std::unordered_set<uint64_t> seen_;
    size_t next_ = 0;
};

}  // namespace

std::unique_ptr<dataset> make_clustered(uint64_t rows, uint64_t seed) {
    return std::make_unique<clustered>(rows, seed);
}

std::unique_ptr<dataset> make_facts(uint64_t rows, uint64_t seed) {
    return std::make_unique<facts>(rows, seed);
}

}  // namespace orve::tool
