#include "harness.h"

#include "../process_memory.h"
#include "../stream_read.h"
#include "semantic_vector_indexing.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <utility>

namespace peers {
namespace {

// xoshiro256** seeded through splitmix64: the same stream on every platform and standard
// library, which std::normal_distribution does not promise.
class rng {
  public:
    rng(uint64_t seed, uint64_t stream) {
        uint64_t x = seed ^ (stream * 0x9e3779b97f4a7c15ull);
        for (uint64_t& w : s_) {
            x += 0x9e3779b97f4a7c15ull;
            uint64_t z = x;
            z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
            z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
            w = z ^ (z >> 31);
        }
    }
    uint64_t next() {
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
    // Uniform in [0, bound).
    std::size_t below(std::size_t bound) {
        return static_cast<std::size_t>((static_cast<unsigned __int128>(next()) * bound) >> 64);
    }
    // Standard normal by Box-Muller; the second value of each pair is kept for the next call.
    double gaussian() {
        if (have_spare_) {
            have_spare_ = false;
            return spare_;
        }
        const double u1 = (static_cast<double>(next() >> 11) + 1.0) * 0x1p-53;  // (0, 1]
        const double u2 = static_cast<double>(next() >> 11) * 0x1p-53;
        const double r = std::sqrt(-2.0 * std::log(u1));
        spare_ = r * std::sin(2.0 * M_PI * u2);
        have_spare_ = true;
        return r * std::cos(2.0 * M_PI * u2);
    }

  private:
    static uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
    uint64_t s_[4];
    double spare_ = 0.0;
    bool have_spare_ = false;
};

void draw_members(const std::vector<float>& centres, std::size_t n_centres, float noise, rng& r,
                  std::size_t count, std::vector<float>& out) {
    out.resize(count * kDim);
    for (std::size_t i = 0; i < count; ++i) {
        const float* c = centres.data() + r.below(n_centres) * kDim;
        float* x = out.data() + i * kDim;
        double norm2 = 0.0;
        for (std::size_t d = 0; d < kDim; ++d) {
            x[d] = c[d] + noise * static_cast<float>(r.gaussian());
            norm2 += static_cast<double>(x[d]) * x[d];
        }
        const float inv = norm2 > 0.0 ? static_cast<float>(1.0 / std::sqrt(norm2)) : 0.0f;
        for (std::size_t d = 0; d < kDim; ++d) x[d] *= inv;
    }
}

double mib(long bytes) {
    return static_cast<double>(bytes) / (1024.0 * 1024.0);
}

std::string group_of(const search_row& s) {
    return s.engine + " " + s.index;
}

bool reranked(const search_row& s) {
    return s.setting.find("rerank") != std::string::npos;
}

}  // namespace

dataset make_dataset(const options& opt) {
    dataset d;
    d.name = "clustered";
    d.n = opt.rows;
    d.nq = opt.queries;
    rng centre_rng(opt.seed, 1);
    std::vector<float> centres(opt.centres * kDim);
    for (float& x : centres) x = static_cast<float>(centre_rng.gaussian());
    rng row_rng(opt.seed, 2);
    draw_members(centres, opt.centres, opt.noise, row_rng, d.n, d.rows);
    rng query_rng(opt.seed, 3);
    draw_members(centres, opt.centres, opt.noise, query_rng, d.nq, d.queries);
    return d;
}

dataset make_hrr_dataset(const options& opt) {
    constexpr uint64_t kHrrSeed = 7;
    constexpr std::size_t kRelations = 64;
    dataset d;
    d.name = "HRR facts";
    d.n = opt.rows;
    d.nq = opt.queries;
    const std::size_t entities = std::max<std::size_t>(100, opt.rows / 10);
    rng r(opt.seed, 4);
    std::vector<std::size_t> subject(d.n), relation(d.n);
    auto encode = [](std::size_t s, std::size_t rel, std::size_t o, float* out) {
        const std::string sn = "e" + std::to_string(s), rn = "r" + std::to_string(rel),
                          on = "e" + std::to_string(o);
        orve_hrr_encode(kHrrSeed, sn.c_str(), rn.c_str(), on.c_str(), out);
    };
    d.rows.resize(d.n * kDim);
    for (std::size_t i = 0; i < d.n; ++i) {
        subject[i] = r.below(entities);
        relation[i] = r.below(kRelations);
        encode(subject[i], relation[i], r.below(entities), d.rows.data() + i * kDim);
    }
    d.queries.resize(d.nq * kDim);
    for (std::size_t q = 0; q < d.nq; ++q) {
        const std::size_t f = r.below(d.n);
        encode(subject[f], relation[f], r.below(entities), d.queries.data() + q * kDim);
    }
    return d;
}

double read_bandwidth_gbs() {
    return orve_bench::stream_read_rate(std::size_t{512} << 20) / 1e9;
}

answers exact_answers_plain(const dataset& d) {
    answers out(d.nq * kTopK, -1);
    std::vector<std::pair<float, int64_t>> scored(d.n);
    for (std::size_t q = 0; q < d.nq; ++q) {
        const float* qv = d.query(q);
        for (std::size_t i = 0; i < d.n; ++i) {
            const float* x = d.row(i);
            float acc[8] = {};
            for (std::size_t l = 0; l < kDim; l += 8) {
                for (int j = 0; j < 8; ++j) acc[j] += qv[l + j] * x[l + j];
            }
            float s = 0.0f;
            for (float a : acc) s += a;
            scored[i] = {s, static_cast<int64_t>(i)};
        }
        const std::size_t k = std::min(kTopK, d.n);
        std::partial_sort(scored.begin(), scored.begin() + static_cast<std::ptrdiff_t>(k),
                          scored.end(), [](const auto& a, const auto& b) {
                              return a.first > b.first ||
                                     (a.first == b.first && a.second < b.second);
                          });
        for (std::size_t j = 0; j < k; ++j) out[q * kTopK + j] = scored[j].second;
    }
    return out;
}

double recall_at_k(const answers& exact, const answers& found, std::size_t nq) {
    if (nq == 0) return 0.0;
    std::size_t hits = 0;
    for (std::size_t q = 0; q < nq; ++q) {
        const int64_t* e = exact.data() + q * kTopK;
        const int64_t* f = found.data() + q * kTopK;
        for (std::size_t j = 0; j < kTopK; ++j) {
            if (f[j] >= 0 && std::find(e, e + kTopK, f[j]) != e + kTopK) ++hits;
        }
    }
    return static_cast<double>(hits) / static_cast<double>(nq * kTopK);
}

double time_passes(double min_time, const std::function<void()>& pass) {
    // The fastest pass, not the mean: other processes on the machine only ever slow a pass
    // down, so the minimum is the figure least disturbed by them.
    double fastest = 0.0;
    const auto t0 = clock_type::now();
    do {
        const auto t = clock_type::now();
        pass();
        const double s = seconds_since(t);
        if (fastest == 0.0 || s < fastest) fastest = s;
    } while (seconds_since(t0) < min_time);
    return fastest;
}

std::string load_average() {
    FILE* f = std::fopen("/proc/loadavg", "r");
    if (f == nullptr) return "unknown";
    double one = 0, five = 0, fifteen = 0;
    const int got = std::fscanf(f, "%lf %lf %lf", &one, &five, &fifteen);
    std::fclose(f);
    if (got != 3) return "unknown";
    char text[64];
    std::snprintf(text, sizeof text, "%.2f %.2f %.2f", one, five, fifteen);
    return text;
}

void memory_probe::before() {
    malloc_trim(0);
    orve_bench::reset_peak_resident();
    start_ = orve_bench::resident_bytes();
}

void memory_probe::after() {
    // Scratch freed into the C heap is handed back first, so the growth is what the index keeps.
    malloc_trim(0);
    growth = orve_bench::resident_bytes() - start_;
    const long peak = orve_bench::peak_resident_bytes();
    peak_growth = peak > 0 ? std::max(peak - start_, growth) : growth;
}

void report::add_search(const std::string& engine, const std::string& index,
                        const std::string& setting, double recall, double qps, double batch_qps) {
    searches.push_back({engine, index, setting, recall, qps, batch_qps});
}

void report::print_builds() const {
    std::printf("\n== builds (single thread) ==\n");
    std::printf("%-8s %-26s %9s %9s %9s %12s %12s %10s %10s\n", "engine", "index", "load s",
                "train s", "total s", "resident MiB", "peak MiB", "bytes/row", "file B/row");
    for (const build_row& b : builds) {
        std::printf("%-8s %-26s %9.2f %9.2f %9.2f %12.1f %12.1f %10.0f %10.0f\n", b.engine.c_str(),
                    b.index.c_str(), b.load_s, b.train_s, b.load_s + b.train_s, mib(b.mem.growth),
                    mib(b.mem.peak_growth),
                    b.rows != 0 ? static_cast<double>(b.mem.growth) / b.rows : 0.0,
                    b.rows != 0 ? static_cast<double>(b.file_bytes) / b.rows : 0.0);
    }
}

void report::print_searches() const {
    std::printf("\n== searches: k = %zu, one query at a time and in one batch call ==\n", kTopK);
    std::printf("%-8s %-26s %-24s %9s %11s %11s\n", "engine", "index", "setting", "recall@10",
                "QPS", "batch QPS");
    for (const search_row& s : searches) {
        char batch[32] = "-";
        if (s.batch_qps >= 0) std::snprintf(batch, sizeof batch, "%.1f", s.batch_qps);
        std::printf("%-8s %-26s %-24s %9.4f %11.1f %11s\n", s.engine.c_str(), s.index.c_str(),
                    s.setting.c_str(), s.recall, s.qps, batch);
    }
}

void report::print_matched_recall(const std::string& ours) const {
    // Highest single-query and batch QPS of each engine and index at or above the target.
    struct best {
        const search_row* single = nullptr;
        const search_row* batch = nullptr;
    };
    std::printf("\n== at matched recall: fastest setting reaching the target ==\n");
    for (const double target : {0.90, 0.95, 0.99}) {
        std::vector<std::string> order;
        std::map<std::string, best> by_group;
        best ours_best;
        for (const search_row& s : searches) {
            const std::string g = group_of(s);
            if (by_group.find(g) == by_group.end()) order.push_back(g);
            best& b = by_group[g];
            if (s.recall < target) continue;
            if (b.single == nullptr || s.qps > b.single->qps) b.single = &s;
            if (s.batch_qps >= 0 && (b.batch == nullptr || s.batch_qps > b.batch->batch_qps)) {
                b.batch = &s;
            }
            if (s.engine == ours) {
                if (ours_best.single == nullptr || s.qps > ours_best.single->qps) {
                    ours_best.single = &s;
                }
                if (s.batch_qps >= 0 &&
                    (ours_best.batch == nullptr || s.batch_qps > ours_best.batch->batch_qps)) {
                    ours_best.batch = &s;
                }
            }
        }
        std::printf("\nrecall@10 >= %.2f\n", target);
        std::printf("  %-35s %-24s %9s %11s %11s %11s\n", "engine / index", "setting", "recall@10",
                    "QPS", "ours/peer", "batch");
        auto line = [&](const std::string& name, const best& b, bool ratio) {
            if (b.single == nullptr) {
                std::printf("  %-35s does not reach %.2f in this sweep\n", name.c_str(), target);
                return;
            }
            char r[32] = "";
            if (ratio && ours_best.single != nullptr) {
                std::snprintf(r, sizeof r, "%.2fx", ours_best.single->qps / b.single->qps);
            }
            char batch[64] = "";
            if (ratio && b.batch != nullptr && ours_best.batch != nullptr) {
                std::snprintf(batch, sizeof batch, "%.2fx",
                              ours_best.batch->batch_qps / b.batch->batch_qps);
            }
            std::printf("  %-35s %-24s %9.4f %11.1f %11s %11s\n", name.c_str(),
                        b.single->setting.c_str(), b.single->recall, b.single->qps, r, batch);
        };
        if (ours_best.single != nullptr) {
            std::printf(
                "  %-35s %-24s %9.4f %11.1f\n", ("ours, best: " + ours_best.single->index).c_str(),
                ours_best.single->setting.c_str(), ours_best.single->recall, ours_best.single->qps);
        }
        if (ours_best.batch != nullptr) {
            std::printf("  %-35s %-24s %9.4f %11s batch QPS %.1f\n",
                        ("ours, best batch: " + ours_best.batch->index).c_str(),
                        ours_best.batch->setting.c_str(), ours_best.batch->recall, "",
                        ours_best.batch->batch_qps);
        }
        for (const std::string& g : order) {
            const bool is_ours = g.compare(0, ours.size() + 1, ours + " ") == 0;
            line(g, by_group[g], !is_ours);
        }
    }
    std::printf(
        "\nours/peer: our best one-query-at-a-time QPS at the target over the peer's best;\n"
        "batch: the same for batch calls (ours: the IVF batch call; FAISS: one search over all\n"
        "queries). Above 1 we are faster.\n");
    if (!notes.empty()) {
        std::printf("\nnotes:\n");
        for (const std::string& n : notes) std::printf("  - %s\n", n.c_str());
    }
}

void report::print_summary() const {
    constexpr double kTargets[] = {0.90, 0.95, 0.99};
    struct line {
        std::string engine, index;
        bool rerank = false;
        double best[3] = {-1, -1, -1}, best_batch[3] = {-1, -1, -1};
    };
    std::vector<line> lines;
    for (const search_row& s : searches) {
        const bool rr = reranked(s);
        auto it = std::find_if(lines.begin(), lines.end(), [&](const line& l) {
            return l.engine == s.engine && l.index == s.index && l.rerank == rr;
        });
        if (it == lines.end()) {
            lines.push_back({s.engine, s.index, rr, {-1, -1, -1}, {-1, -1, -1}});
            it = lines.end() - 1;
        }
        for (int t = 0; t < 3; ++t) {
            if (s.recall < kTargets[t]) continue;
            it->best[t] = std::max(it->best[t], s.qps);
            if (s.batch_qps >= 0) it->best_batch[t] = std::max(it->best_batch[t], s.batch_qps);
        }
    }
    auto find_build = [&](const std::string& engine, const std::string& index) {
        const build_row* found = nullptr;
        for (const build_row& b : builds) {
            if (b.engine == engine && b.index == index) found = &b;
        }
        return found;
    };
    std::printf(
        "\n== summary: best QPS at recall@10 >= 0.90 / 0.95 / 0.99, one at a time and batch ==\n");
    std::printf("%-8s %-33s %8s %8s | %9s %9s %9s | %9s %9s %9s\n", "engine", "index", "build s",
                "B/row", "QPS .90", "QPS .95", "QPS .99", "batch .90", "batch .95", "batch .99");
    for (const line& l : lines) {
        double build_s = 0.0, bytes = 0.0;
        bool known = false;
        // An index built on another (our IVF on the flat store) needs that one too.
        for (const build_row* b = find_build(l.engine, l.index); b != nullptr;
             b = b->base_index.empty() ? nullptr : find_build(l.engine, b->base_index)) {
            known = true;
            build_s += b->load_s + b->train_s;
            if (b->rows != 0) {
                bytes += static_cast<double>(b->mem.growth + b->file_bytes) /
                         static_cast<double>(b->rows);
            }
        }
        char cells[6][16];
        for (int t = 0; t < 3; ++t) {
            std::snprintf(cells[t], sizeof cells[t], l.best[t] >= 0 ? "%.1f" : "-", l.best[t]);
            std::snprintf(cells[3 + t], sizeof cells[3 + t], l.best_batch[t] >= 0 ? "%.1f" : "-",
                          l.best_batch[t]);
        }
        char b_s[16] = "?", b_row[16] = "?";
        if (known) {
            std::snprintf(b_s, sizeof b_s, "%.1f", build_s);
            std::snprintf(b_row, sizeof b_row, "%.0f", bytes);
        }
        const std::string name = l.index + (l.rerank ? " +rerank" : "");
        std::printf("%-8s %-33s %8s %8s | %9s %9s %9s | %9s %9s %9s\n", l.engine.c_str(),
                    name.c_str(), b_s, b_row, cells[0], cells[1], cells[2], cells[3], cells[4],
                    cells[5]);
    }
    std::printf(
        "build s and B/row include the index each one is built on (ours: the flat store's\n"
        "ingestion and resident bytes); B/row adds the bytes of a file searched in place;\n"
        "'-': no swept setting reaches that recall, or no batch call.\n");
}

}  // namespace peers
