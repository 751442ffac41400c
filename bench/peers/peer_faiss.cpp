// FAISS, as Debian packages it: the exact flat inner-product index (which also supplies the
// exact answers), the 8-bit scalar quantiser scanned exhaustively, and the IVF with 8-bit codes
// over the same nlist as ours. One OpenMP thread throughout.
#include <omp.h>

#include <faiss/IndexFlat.h>
#include <faiss/IndexIVF.h>
#include <faiss/IndexScalarQuantizer.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "engines.h"

namespace peers {
namespace {

constexpr const char* kEngine = "FAISS";
using faiss_idx = faiss::Index::idx_t;

// Which BLAS the dynamic loader picked for FAISS's matrix products (its k-means and its flat
// search over many queries): the alternatives system decides, and the figures depend on it.
std::string loaded_blas() {
    FILE* f = std::fopen("/proc/self/maps", "r");
    if (f == nullptr) return "unknown";
    char line[1024];
    std::string found = "unknown";
    while (std::fgets(line, sizeof line, f) != nullptr) {
        const char* path = std::strchr(line, '/');
        if (path != nullptr && std::strstr(path, "blas") != nullptr) {
            found = path;
            if (!found.empty() && found.back() == '\n') found.pop_back();
            break;
        }
    }
    std::fclose(f);
    return found;
}

// One query per search call. Returns {recall, queries per second}.
std::pair<double, double> single_queries(const faiss::Index& index, const dataset& d,
                                         const answers& exact, double min_time) {
    answers found(d.nq * kTopK, -1);
    float dist[kTopK];
    faiss_idx labels[kTopK];
    for (std::size_t i = 0; i < d.nq; ++i) {
        index.search(1, d.query(i), kTopK, dist, labels);
        for (std::size_t j = 0; j < kTopK; ++j) found[i * kTopK + j] = labels[j];
    }
    const double per_pass = time_passes(min_time, [&] {
        for (std::size_t i = 0; i < d.nq; ++i) index.search(1, d.query(i), kTopK, dist, labels);
    });
    return {recall_at_k(exact, found, d.nq), static_cast<double>(d.nq) / per_pass};
}

// Every query in one search call; `labels` receives the answers.
double batch_queries(const faiss::Index& index, const dataset& d, answers& labels,
                     double min_time) {
    std::vector<float> dist(d.nq * kTopK);
    labels.assign(d.nq * kTopK, -1);
    static_assert(sizeof(faiss_idx) == sizeof(int64_t));
    auto* out = reinterpret_cast<faiss_idx*>(labels.data());
    const double per_pass = time_passes(min_time, [&] {
        index.search(static_cast<faiss_idx>(d.nq), d.queries.data(), kTopK, dist.data(), out);
    });
    return static_cast<double>(d.nq) / per_pass;
}

}  // namespace

answers run_faiss_flat(const dataset& d, const options& opt, report& rep, keep_alive& keep) {
    omp_set_num_threads(1);
    build_row b;
    b.engine = kEngine;
    b.index = "IndexFlatIP";
    b.rows = d.n;
    b.mem.before();
    auto index = std::make_shared<faiss::IndexFlatIP>(static_cast<faiss_idx>(kDim));
    const auto t0 = clock_type::now();
    index->add(static_cast<faiss_idx>(d.n), d.rows.data());
    b.load_s = seconds_since(t0);
    b.mem.after();
    rep.builds.push_back(b);
    keep.push_back(index);

    answers exact;
    const double batch_qps = batch_queries(*index, d, exact, opt.min_time);
    const auto [recall, qps] = single_queries(*index, d, exact, opt.min_time);
    rep.add_search(kEngine, b.index, "exact", recall, qps, batch_qps);
    rep.notes.push_back("FAISS " + std::to_string(FAISS_VERSION_MAJOR) + "." +
                        std::to_string(FAISS_VERSION_MINOR) + "." +
                        std::to_string(FAISS_VERSION_PATCH) + ", BLAS loaded: " + loaded_blas());
    return exact;
}

void run_faiss_quantised(const dataset& d, const options& opt, const answers& exact, report& rep,
                         keep_alive& keep) {
    omp_set_num_threads(1);
    const auto n = static_cast<faiss_idx>(d.n);

    {
        build_row b;
        b.engine = kEngine;
        b.index = "IndexScalarQuantizer 8bit";
        b.rows = d.n;
        b.mem.before();
        auto index = std::make_shared<faiss::IndexScalarQuantizer>(
            static_cast<int>(kDim), faiss::ScalarQuantizer::QT_8bit, faiss::METRIC_INNER_PRODUCT);
        auto t0 = clock_type::now();
        index->train(n, d.rows.data());
        b.train_s = seconds_since(t0);
        t0 = clock_type::now();
        index->add(n, d.rows.data());
        b.load_s = seconds_since(t0);
        b.mem.after();
        rep.builds.push_back(b);
        keep.push_back(index);

        answers batch_found;
        const double batch_qps = batch_queries(*index, d, batch_found, opt.min_time);
        const auto [recall, qps] = single_queries(*index, d, exact, opt.min_time);
        rep.add_search(kEngine, b.index, "exhaustive", recall, qps, batch_qps);
    }

    const uint32_t nlist = ivf_nlist(opt);
    build_row b;
    b.engine = kEngine;
    b.index = "IndexIVFSQ 8bit nlist=" + std::to_string(nlist);
    b.rows = d.n;
    b.mem.before();
    // The coarse quantiser is owned by the IVF index (own_fields), so one holder frees both.
    auto* coarse = new faiss::IndexFlatIP(static_cast<faiss_idx>(kDim));
    auto index = std::make_shared<faiss::IndexIVFScalarQuantizer>(
        coarse, kDim, nlist, faiss::ScalarQuantizer::QT_8bit, faiss::METRIC_INNER_PRODUCT);
    index->own_fields = true;
    // Unit-length centroids, as our spherical k-means trains; 25 rounds either way.
    index->cp.spherical = true;
    auto t0 = clock_type::now();
    index->train(n, d.rows.data());
    b.train_s = seconds_since(t0);
    t0 = clock_type::now();
    index->add(n, d.rows.data());
    b.load_s = seconds_since(t0);
    b.mem.after();
    rep.builds.push_back(b);
    keep.push_back(index);
    std::fprintf(stderr, "FAISS: IVF trained in %.1f s, filled in %.1f s\n", b.train_s, b.load_s);

    for (const uint32_t nprobe : {1u, 2u, 4u, 8u, 16u, 32u, 64u}) {
        if (nprobe > nlist) break;
        index->nprobe = nprobe;
        answers batch_found;
        const double batch_qps = batch_queries(*index, d, batch_found, opt.min_time);
        const auto [recall, qps] = single_queries(*index, d, exact, opt.min_time);
        rep.add_search(kEngine, b.index, "nprobe=" + std::to_string(nprobe), recall, qps,
                       batch_qps);
    }
}

}  // namespace peers
