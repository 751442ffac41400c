// The C-side reference for python/bench_overhead.py: the same searches, over the same rows,
// straight through the C API with no interpreter in between.
//
//   orve_python_bench_c ROWS_FILE N QUERIES_FILE NQ NLIST NPROBE K REPEATS
//
// Files hold raw float32 rows of 512. NLIST 0 means brute force. Prints "name value" lines.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "semantic_vector_indexing.h"

namespace {

std::vector<float> read_rows(const char* path, size_t n) {
    std::vector<float> v(n * ORVE512_DIM);
    FILE* f = std::fopen(path, "rb");
    if (!f || std::fread(v.data(), sizeof(float), v.size(), f) != v.size()) {
        std::fprintf(stderr, "cannot read %zu rows from %s\n", n, path);
        std::exit(1);
    }
    std::fclose(f);
    return v;
}

double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 9) {
        std::fprintf(stderr, "usage: %s ROWS N QUERIES NQ NLIST NPROBE K REPEATS\n", argv[0]);
        return 2;
    }
    const size_t n = std::strtoul(argv[2], nullptr, 10);
    const size_t nq = std::strtoul(argv[4], nullptr, 10);
    const uint32_t nlist = static_cast<uint32_t>(std::strtoul(argv[5], nullptr, 10));
    const uint32_t nprobe = static_cast<uint32_t>(std::strtoul(argv[6], nullptr, 10));
    const uint32_t k = static_cast<uint32_t>(std::strtoul(argv[7], nullptr, 10));
    const int repeats = std::atoi(argv[8]);
    const std::vector<float> rows = read_rows(argv[1], n);
    const std::vector<float> queries = read_rows(argv[3], nq);

    auto* sys = static_cast<semantic_vector_indexing_system*>(
        std::calloc(1, semantic_vector_indexing_system_sizeof()));
    ::setenv("ORVE_VECTOR_CAPACITY", std::to_string(n).c_str(), 1);
    if (!sys || semantic_vector_indexing_system_create(sys) != 0) return 1;
    if (semantic_vector_indexing_system_load_vectors_f32(sys, rows.data(),
                                                         static_cast<uint32_t>(n)) != int(n)) {
        return 1;
    }
    if (nlist > 0 && semantic_vector_indexing_system_build_ivf(sys, nlist, 1) != 0) return 1;

    auto one_at_a_time = [&](size_t first, size_t step, int reps) {
        vector_similarity_query q;
        std::memset(&q, 0, sizeof q);
        q.use_orve512 = 1;
        q.max_results = k;
        q.min_similarity = -1.0f;
        q.use_ivf = nlist > 0;
        q.n_probe = nprobe;
        std::vector<vector_similarity_result> res(k);
        for (int r = 0; r < reps; ++r) {
            for (size_t i = first; i < nq; i += step) {
                q.query_vector = &queries[i * ORVE512_DIM];
                uint32_t count = 0;
                if (semantic_vector_indexing_system_search_similar(sys, &q, res.data(), &count)) {
                    std::exit(1);
                }
            }
        }
    };

    auto t0 = std::chrono::steady_clock::now();
    one_at_a_time(0, 1, repeats);
    double s = seconds_since(t0);
    std::printf("single_us %.3f\nsingle_qps %.1f\n", 1e6 * s / (nq * repeats), nq * repeats / s);

    if (nlist > 0) {
        std::vector<vector_similarity_result> res(nq * k);
        std::vector<uint32_t> counts(nq);
        orve512_batch_query b;
        std::memset(&b, 0, sizeof b);
        b.n_queries = static_cast<uint32_t>(nq);
        b.k = k;
        b.min_similarity = -1.0f;
        b.use_ivf = 1;
        b.n_probe = nprobe;
        b.queries = queries.data();
        b.results = res.data();
        b.counts = counts.data();
        t0 = std::chrono::steady_clock::now();
        for (int r = 0; r < repeats; ++r) {
            if (semantic_vector_indexing_system_search_similar_orve512_batch(sys, &b)) return 1;
        }
        s = seconds_since(t0);
        std::printf("batch_qps %.1f\n", nq * repeats / s);

        t0 = std::chrono::steady_clock::now();
        std::thread other([&] { one_at_a_time(1, 2, repeats); });
        one_at_a_time(0, 2, repeats);
        other.join();
        s = seconds_since(t0);
        std::printf("two_threads_qps %.1f\n", nq * repeats / s);
    }
    semantic_vector_indexing_system_destroy(sys);
    std::free(sys);
    return 0;
}
