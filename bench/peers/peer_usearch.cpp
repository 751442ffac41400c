// USearch, built here from the C++ headers of its npm package with -O3 -march=native, its
// distance kernels included inline and chosen for this processor at compile time. Two HNSW
// graphs, connectivity 16, expansion_add 128, every row added from this one thread:
//  - f32: the float rows, inner product (the rows are unit length, so the cosine);
//  - i8: the int8 codes our library stores for each row (symmetric, one scale per row, the
//    library's own quantiser), cosine. Each row has its own scale, so the inner product of the
//    codes would rank rows by their scales too; the cosine of the codes does not depend on
//    them, which is what our int8 scan computes.
#include <usearch/index_dense.hpp>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "engines.h"
#include "semantic_vector_indexing.h"

namespace peers {
namespace {

constexpr const char* kEngine = "USearch";
constexpr std::size_t kConnectivity = 16;
constexpr std::size_t kExpansionAdd = 128;

using index_t = unum::usearch::index_dense_t;

struct usearch_holder {
    index_t index;
    std::vector<int8_t> query_codes;  // i8 graph: the queries quantised as the rows are
};

void quantise_rows(const float* rows, std::size_t n, std::vector<int8_t>& out) {
    out.resize(n * kDim);
    for (std::size_t i = 0; i < n; ++i) {
        orve_quantize_float_vector_symmetric(rows + i * kDim, static_cast<int>(kDim),
                                             out.data() + i * kDim, nullptr, nullptr);
    }
}

void run_one(const dataset& d, const options& opt, const answers& exact, report& rep,
             keep_alive& keep, bool i8) {
    using namespace unum::usearch;
    const std::string name = i8 ? "HNSW i8 cos M=16 efA=128" : "HNSW f32 ip M=16 efA=128";
    build_row b;
    b.engine = kEngine;
    b.index = name;
    b.rows = d.n;

    // The codes are made before the probe starts: they are the input, as the float rows are.
    std::vector<int8_t> row_codes;
    auto h = std::make_shared<usearch_holder>();
    if (i8) {
        quantise_rows(d.rows.data(), d.n, row_codes);
        quantise_rows(d.queries.data(), d.nq, h->query_codes);
    }
    b.mem.before();
    const metric_punned_t metric(kDim, i8 ? metric_kind_t::cos_k : metric_kind_t::ip_k,
                                 i8 ? scalar_kind_t::i8_k : scalar_kind_t::f32_k);
    const index_dense_config_t config(kConnectivity, kExpansionAdd, 64);
    auto made =
        index_t::make(metric, config, default_free_value<default_key_t>(), index_limits_t(d.n, 1));
    if (!made) {
        rep.notes.push_back(std::string("USearch ") + name + ": " + made.error.what());
        return;
    }
    h->index = std::move(made.index);
    const auto t0 = clock_type::now();
    for (std::size_t i = 0; i < d.n; ++i) {
        const auto added =
            i8 ? h->index.add(i, row_codes.data() + i * kDim, 0) : h->index.add(i, d.row(i), 0);
        if (!added) {
            rep.notes.push_back(std::string("USearch ") + name +
                                ": add failed: " + added.error.what());
            return;
        }
    }
    b.load_s = seconds_since(t0);
    // The codes are freed only after the probe: freeing the input inside it would hide as many
    // bytes as the graph's own copy of the codes takes.
    b.mem.after();
    row_codes = {};
    rep.builds.push_back(b);
    keep.push_back(h);
    std::fprintf(stderr, "USearch %s: graph built in %.1f s\n", name.c_str(), b.load_s);
    if (!i8) {
        rep.notes.push_back(std::string("USearch distance kernel (f32 ip): ") + metric.isa_name());
    } else {
        rep.notes.push_back(std::string("USearch distance kernel (i8 cos): ") + metric.isa_name());
    }

    auto query = [&](std::size_t i) {
        return i8 ? h->index.search(h->query_codes.data() + i * kDim, kTopK, 0)
                  : h->index.search(d.query(i), kTopK, 0);
    };
    for (const std::size_t ef : {10, 16, 24, 32, 48, 64, 96, 128, 192, 256, 384, 512}) {
        h->index.change_expansion_search(ef);
        answers found(d.nq * kTopK, -1);
        default_key_t keys[kTopK];
        for (std::size_t i = 0; i < d.nq; ++i) {
            const auto res = query(i);
            const std::size_t got = res ? res.dump_to(keys, kTopK) : 0;
            for (std::size_t j = 0; j < got; ++j) found[i * kTopK + j] = keys[j];
        }
        std::size_t answered = 0;
        const double per_pass = time_passes(opt.min_time, [&] {
            for (std::size_t i = 0; i < d.nq; ++i) answered += query(i).size();
        });
        if (answered == 0) std::fprintf(stderr, "USearch: ef=%zu found nothing\n", ef);
        rep.add_search(kEngine, name, "ef=" + std::to_string(ef), recall_at_k(exact, found, d.nq),
                       static_cast<double>(d.nq) / per_pass);
    }
}

}  // namespace

void run_usearch(const dataset& d, const options& opt, const answers& exact, report& rep,
                 keep_alive& keep) {
    run_one(d, opt, exact, rep, keep, false);
    run_one(d, opt, exact, rep, keep, true);
}

}  // namespace peers
