// This library, driven only through its public C interface: one object holding every row, with a
// sidecar so that re-ranking has exact rows to read, then an IVF and an H-IVF published on it.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "engines.h"
#include "semantic_vector_indexing.h"

namespace peers {

const char* const kOurs = "ours";

namespace {

constexpr float kNoThreshold = -1e30f;
constexpr std::size_t kIngestChunk = 10000;
constexpr uint32_t kSeed = 1;

// The object, its sidecar file and the file's folder; destroyed together.
struct our_object {
    semantic_vector_indexing_system* sys = nullptr;
    std::string dir, sidecar, paged;
    ~our_object() {
        if (sys != nullptr) {
            semantic_vector_indexing_system_destroy(sys);
            std::free(sys);
        }
        if (!sidecar.empty()) ::unlink(sidecar.c_str());
        if (!paged.empty()) ::unlink(paged.c_str());
        if (!dir.empty()) ::rmdir(dir.c_str());
    }
};

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "bench_peers: %s\n", what);
    std::exit(1);
}

std::string probe_setting(const char* name, uint32_t value, bool rerank) {
    return std::string(name) + "=" + std::to_string(value) + (rerank ? " rerank" : "");
}

vector_similarity_query base_query() {
    vector_similarity_query q;
    std::memset(&q, 0, sizeof q);
    q.use_orve512 = 1;
    q.max_results = static_cast<uint32_t>(kTopK);
    q.min_similarity = kNoThreshold;
    return q;
}

// One query at a time: an untimed pass collects the answers (and warms the caches), then
// timed passes give the rate. Returns {recall, queries per second}.
std::pair<double, double> single_queries(semantic_vector_indexing_system* sys, const dataset& d,
                                         const answers& exact, vector_similarity_query q,
                                         double min_time) {
    answers found(d.nq * kTopK, -1);
    vector_similarity_result res[kTopK];
    for (std::size_t i = 0; i < d.nq; ++i) {
        q.query_vector = d.query(i);
        uint32_t count = 0;
        if (semantic_vector_indexing_system_search_similar(sys, &q, res, &count) != 0) {
            fail("search_similar failed");
        }
        for (uint32_t j = 0; j < count && j < kTopK; ++j) {
            found[i * kTopK + j] = static_cast<int64_t>(res[j].node_id) - 1;
        }
    }
    const double per_pass = time_passes(min_time, [&] {
        for (std::size_t i = 0; i < d.nq; ++i) {
            q.query_vector = d.query(i);
            uint32_t count = 0;
            semantic_vector_indexing_system_search_similar(sys, &q, res, &count);
        }
    });
    return {recall_at_k(exact, found, d.nq), static_cast<double>(d.nq) / per_pass};
}

// Every query in one batch call on the IVF. Returns {recall, queries per second}.
std::pair<double, double> batch_queries(semantic_vector_indexing_system* sys, const dataset& d,
                                        const answers& exact, uint32_t n_probe, bool rerank,
                                        double min_time) {
    std::vector<vector_similarity_result> res(d.nq * kTopK);
    std::vector<uint32_t> counts(d.nq);
    orve512_batch_query b;
    std::memset(&b, 0, sizeof b);
    b.n_queries = static_cast<uint32_t>(d.nq);
    b.k = static_cast<uint32_t>(kTopK);
    b.min_similarity = kNoThreshold;
    b.use_ivf = 1;
    b.n_probe = n_probe;
    b.queries = d.queries.data();
    b.results = res.data();
    b.counts = counts.data();
    b.rerank = rerank ? 1 : 0;
    if (semantic_vector_indexing_system_search_similar_orve512_batch(sys, &b) != 0) {
        fail("batch search failed");
    }
    answers found(d.nq * kTopK, -1);
    for (std::size_t i = 0; i < d.nq; ++i) {
        for (uint32_t j = 0; j < counts[i] && j < kTopK; ++j) {
            found[i * kTopK + j] = static_cast<int64_t>(res[i * kTopK + j].node_id) - 1;
        }
    }
    const double per_pass = time_passes(
        min_time, [&] { semantic_vector_indexing_system_search_similar_orve512_batch(sys, &b); });
    return {recall_at_k(exact, found, d.nq), static_cast<double>(d.nq) / per_pass};
}

bool index_current(semantic_vector_indexing_system* sys) {
    return semantic_vector_indexing_system_get_ivf_generation(sys) ==
           semantic_vector_indexing_system_get_ivf_built_generation(sys);
}

}  // namespace

uint32_t ivf_nlist(const options& opt) {
    if (opt.nlist != 0) return opt.nlist;
    const double n = std::round(4.0 * std::sqrt(static_cast<double>(opt.rows)));
    return static_cast<uint32_t>(std::max(1.0, std::min(n, static_cast<double>(opt.rows))));
}

uint32_t hivf_b(const options& opt) {
    if (opt.hivf_b != 0) return opt.hivf_b;
    // Level 1 times level 2 comes close to the IVF's nlist, so a leaf holds about as many rows
    // as an IVF bucket.
    const double exponent = std::round(std::log2(std::sqrt(static_cast<double>(ivf_nlist(opt)))));
    const uint32_t b = 1u << static_cast<uint32_t>(std::max(0.0, exponent));
    return std::min<uint32_t>(b, 64);
}

void run_ours(const dataset& d, const options& opt, const answers& exact, report& rep,
              keep_alive& keep) {
    if (semantic_vector_indexing_system_get_vec_dim() != kDim) fail("unexpected dimension");
    auto obj = std::make_shared<our_object>();
    keep.push_back(obj);

    // ---- ingestion into the flat store, with the sidecar attached first ----
    build_row flat;
    flat.engine = kOurs;
    flat.index = "flat store";
    flat.rows = d.n;
    flat.mem.before();
    const auto t_ingest = clock_type::now();
    obj->sys = static_cast<semantic_vector_indexing_system*>(
        std::calloc(1, semantic_vector_indexing_system_sizeof()));
    if (obj->sys == nullptr) fail("out of memory");
    setenv("ORVE_VECTOR_CAPACITY", std::to_string(d.n).c_str(), 1);
    if (semantic_vector_indexing_system_create(obj->sys) != 0) fail("create failed");
    const char* tmp = std::getenv("TMPDIR");
    std::string templ =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/bench_peers.XXXXXX";
    if (::mkdtemp(templ.data()) == nullptr) fail("cannot make a temporary folder");
    obj->dir = templ;
    obj->sidecar = templ + "/rows.sidecar";
    if (semantic_vector_indexing_system_open_sidecar(obj->sys, obj->sidecar.c_str()) != 0) {
        fail("cannot attach the sidecar");
    }
    for (std::size_t done = 0; done < d.n;) {
        const std::size_t n = std::min(kIngestChunk, d.n - done);
        const int got = semantic_vector_indexing_system_load_vectors_f32(obj->sys, d.row(done),
                                                                         static_cast<uint32_t>(n));
        if (got != static_cast<int>(n)) fail("ingestion stopped early");
        done += n;
    }
    flat.load_s = seconds_since(t_ingest);
    flat.mem.after();
    rep.builds.push_back(flat);

    for (const bool rerank : {false, true}) {
        vector_similarity_query q = base_query();
        q.rerank = rerank ? 1 : 0;
        const auto [recall, qps] = single_queries(obj->sys, d, exact, q, opt.min_time);
        rep.add_search(kOurs, flat.index, rerank ? "exhaustive rerank" : "exhaustive", recall, qps);
    }

    // ---- IVF ----
    const uint32_t nlist = ivf_nlist(opt);
    build_row ivf;
    ivf.engine = kOurs;
    ivf.index = "IVF nlist=" + std::to_string(nlist);
    ivf.rows = d.n;
    ivf.base_index = flat.index;
    ivf.mem.before();
    const auto t_ivf = clock_type::now();
    if (semantic_vector_indexing_system_build_ivf(obj->sys, nlist, kSeed) != 0) {
        fail("IVF build failed");
    }
    ivf.train_s = seconds_since(t_ivf);
    ivf.mem.after();
    if (!index_current(obj->sys)) fail("the IVF is not current after its build");
    rep.builds.push_back(ivf);
    std::fprintf(stderr, "ours: IVF built in %.1f s\n", ivf.train_s);

    for (const uint32_t n_probe : {1u, 2u, 4u, 8u, 16u, 32u, 64u}) {
        if (n_probe > nlist) break;
        for (const bool rerank : {false, true}) {
            vector_similarity_query q = base_query();
            q.use_ivf = 1;
            q.n_probe = n_probe;
            q.rerank = rerank ? 1 : 0;
            const auto [recall, qps] = single_queries(obj->sys, d, exact, q, opt.min_time);
            const auto [batch_recall, batch_qps] =
                batch_queries(obj->sys, d, exact, n_probe, rerank, opt.min_time);
            const std::string setting = probe_setting("nprobe", n_probe, rerank);
            if (batch_recall != recall) {
                rep.notes.push_back("ours IVF " + setting + ": batch recall " +
                                    std::to_string(batch_recall) +
                                    " differs from one-at-a-time recall " + std::to_string(recall));
            }
            rep.add_search(kOurs, ivf.index, setting, recall, qps, batch_qps);
        }
    }

    // ---- H-IVF ----
    const uint32_t b = hivf_b(opt);
    build_row hivf;
    hivf.engine = kOurs;
    hivf.index = "H-IVF b1=b2=" + std::to_string(b);
    hivf.rows = d.n;
    hivf.base_index = flat.index;
    hivf.mem.before();
    const auto t_hivf = clock_type::now();
    if (semantic_vector_indexing_system_build_ivf_level2(obj->sys, b, b, kSeed) != 0) {
        fail("H-IVF build failed");
    }
    hivf.train_s = seconds_since(t_hivf);
    hivf.mem.after();
    rep.builds.push_back(hivf);
    std::fprintf(stderr, "ours: H-IVF built in %.1f s\n", hivf.train_s);

    auto sweep_hivf = [&](const std::string& index) {
        for (const uint32_t l1 : {1u, 2u, 4u, 8u, 16u}) {
            if (l1 > b) break;
            for (const uint32_t l2 : {1u, 2u, 4u, 8u, 16u}) {
                if (l2 > b) break;
                for (const bool rerank : {false, true}) {
                    vector_similarity_query q = base_query();
                    q.use_hivf = 1;
                    q.n_probe_l1 = l1;
                    q.n_probe_l2 = l2;
                    q.rerank = rerank ? 1 : 0;
                    const auto [recall, qps] = single_queries(obj->sys, d, exact, q, opt.min_time);
                    const std::string setting = "l1=" + std::to_string(l1) +
                                                " l2=" + std::to_string(l2) +
                                                (rerank ? " rerank" : "");
                    rep.add_search(kOurs, index, setting, recall, qps);
                }
            }
        }
    };
    sweep_hivf(hivf.index);

    // ---- paged: the H-IVF written to a file, mapped and searched in place ----
    // Writing it frees the H-IVF's in-memory rows, so the resident growth is negative and the
    // file's bytes count instead; searches that ask for the H-IVF now read the file.
    build_row paged;
    paged.engine = kOurs;
    paged.index = "paged H-IVF b1=b2=" + std::to_string(b);
    paged.base_index = hivf.index;
    paged.rows = d.n;
    obj->paged = obj->dir + "/hivf.ivfp";
    paged.mem.before();
    const auto t_paged = clock_type::now();
    if (b > ORVE_PAGED_MAX_BRANCHING ||
        semantic_vector_indexing_system_build_ivf_paged(obj->sys, obj->paged.c_str()) != 0) {
        rep.notes.push_back("ours: the H-IVF could not be paged (b = " + std::to_string(b) + ")");
        return;
    }
    paged.train_s = seconds_since(t_paged);
    paged.mem.after();
    struct stat st;
    if (::stat(obj->paged.c_str(), &st) == 0) paged.file_bytes = static_cast<long>(st.st_size);
    rep.builds.push_back(paged);
    std::fprintf(stderr, "ours: paged file written in %.1f s\n", paged.train_s);
    sweep_hivf(paged.index);
}

}  // namespace peers
