// hnswlib, header-only as Debian packages it: inner product over unit-length rows (so the
// cosine), M = 16, ef_construction = 200, every row added from this one thread.
#include <hnswlib/hnswlib.h>

#include <cstdio>
#include <memory>
#include <string>

#include "engines.h"

namespace peers {
namespace {

constexpr const char* kEngine = "hnswlib";
constexpr std::size_t kM = 16;
constexpr std::size_t kEfConstruction = 200;
constexpr std::size_t kRandomSeed = 100;

// The distance kernel hnswlib was compiled with here: it picks one at build time from the
// instruction sets the compiler targets, then checks the processor at run time.
const char* distance_kernel() {
#if defined(USE_AVX512)
    return "AVX-512 when the processor has it, else AVX";
#elif defined(USE_AVX)
    return "AVX when the processor has it, else SSE";
#elif defined(USE_SSE)
    return "SSE";
#else
    return "plain loop";
#endif
}

struct hnsw_holder {
    hnswlib::InnerProductSpace space{kDim};
    std::unique_ptr<hnswlib::HierarchicalNSW<float>> graph;
};

}  // namespace

void run_hnswlib(const dataset& d, const options& opt, const answers& exact, report& rep,
                 keep_alive& keep) {
    build_row b;
    b.engine = kEngine;
    b.index = "HNSW M=16 efC=200";
    b.rows = d.n;
    b.mem.before();
    auto h = std::make_shared<hnsw_holder>();
    h->graph = std::make_unique<hnswlib::HierarchicalNSW<float>>(&h->space, d.n, kM,
                                                                 kEfConstruction, kRandomSeed);
    const auto t0 = clock_type::now();
    for (std::size_t i = 0; i < d.n; ++i) h->graph->addPoint(d.row(i), i);
    b.load_s = seconds_since(t0);
    b.mem.after();
    rep.builds.push_back(b);
    keep.push_back(h);
    std::fprintf(stderr, "hnswlib: graph built in %.1f s\n", b.load_s);
    rep.notes.push_back(std::string("hnswlib distance kernel: ") + distance_kernel());

    for (const std::size_t ef : {10, 16, 24, 32, 48, 64, 96, 128, 192, 256, 384, 512}) {
        h->graph->setEf(ef);
        answers found(d.nq * kTopK, -1);
        for (std::size_t i = 0; i < d.nq; ++i) {
            auto top = h->graph->searchKnn(d.query(i), kTopK);
            // The queue holds the worst of the k on top: fill from the back.
            for (std::size_t j = top.size(); j > 0; --j) {
                found[i * kTopK + j - 1] = static_cast<int64_t>(top.top().second);
                top.pop();
            }
        }
        std::size_t answered = 0;
        const double per_pass = time_passes(opt.min_time, [&] {
            for (std::size_t i = 0; i < d.nq; ++i) {
                answered += h->graph->searchKnn(d.query(i), kTopK).size();
            }
        });
        if (answered == 0) std::fprintf(stderr, "hnswlib: ef=%zu found nothing\n", ef);
        rep.add_search(kEngine, b.index, "ef=" + std::to_string(ef),
                       recall_at_k(exact, found, d.nq), static_cast<double>(d.nq) / per_pass);
    }
}

}  // namespace peers
