// Training time of this library's IVF build against FAISS's k-means on the same rows, in the
// same run: FAISS with 25 rounds over all rows (no subsampling), the same number of centroids,
// spherical like ours, on one thread.
//
// Usage: bench_kmeans_peer [--rows N] (default 200000; nlist = 2 sqrt(N)).
#include <faiss/Clustering.h>
#include <faiss/IndexFlat.h>
#include <omp.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "semantic_vector_indexing.h"

#include "../bench_rng.h"

namespace {

using clock_type = std::chrono::steady_clock;

// The process's CPU time: on a shared machine it counts only this program's work, and with one
// thread on each side it compares the two trainings fairly.
double cpu_seconds() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

double seconds_since(clock_type::time_point t0) {
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

// The rows bench_system ingests: 256 cluster centres plus noise.
std::vector<float> clustered_rows(std::size_t n) {
    orve_bench::rng r{7};
    std::vector<float> centres(256 * 512);
    for (float& x : centres) x = r.next();
    r.s = 12345;
    std::vector<float> rows(n * 512);
    for (std::size_t i = 0; i < n; ++i) {
        const float* c = &centres[(i * 2654435761u % 256) * 512];
        for (int d = 0; d < 512; ++d) rows[i * 512 + d] = c[d] + 0.5f * r.next();
    }
    return rows;
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t n = 200000;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "--rows") == 0) n = std::strtoull(argv[i + 1], nullptr, 10);
    }
    const auto nlist = static_cast<uint32_t>(2.0 * std::sqrt(static_cast<double>(n)));
    const std::vector<float> rows = clustered_rows(n);

    {
        std::vector<int8_t> codes(n * 512);
        std::vector<float> scales(n), norms(n);
        for (std::size_t i = 0; i < n; ++i) {
            orve_quantize_float_vector_symmetric(&rows[i * 512], 512, &codes[i * 512], &scales[i],
                                                 &norms[i]);
        }
        orve_ivf_index index;
        const auto t0 = clock_type::now();
        const double c0 = cpu_seconds();
        const int rc = orve_ivf_build_kmeans_centroids(rows.data(), static_cast<uint32_t>(n), nlist,
                                                       42, codes.data(), scales.data(),
                                                       norms.data(), nullptr, &index);
        std::printf(
            "ours:  IVF build (k-means and index), %zu rows, nlist %u: %8.2f s, %8.2f s CPU (rc "
            "%d)\n",
            n, nlist, seconds_since(t0), cpu_seconds() - c0, rc);
        if (rc == 0) orve_ivf_index_destroy(&index);
    }
    {
        omp_set_num_threads(1);
        faiss::ClusteringParameters cp;
        cp.niter = 25;
        cp.spherical = true;
        cp.max_points_per_centroid = static_cast<int>(n);  // every row, no subsampling
        cp.seed = 42;
        faiss::Clustering clus(512, nlist, cp);
        faiss::IndexFlatL2 assigner(512);
        const auto t0 = clock_type::now();
        const double c0 = cpu_seconds();
        clus.train(static_cast<faiss::Index::idx_t>(n), rows.data(), assigner);
        std::printf(
            "FAISS: k-means, 25 rounds, %zu rows, nlist %u, 1 thread: %8.2f s, %8.2f s CPU\n", n,
            nlist, seconds_since(t0), cpu_seconds() - c0);
    }
    return 0;
}
