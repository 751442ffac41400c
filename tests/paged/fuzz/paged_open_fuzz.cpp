// libFuzzer target: arbitrary bytes as a paged index file. Whatever opens is searched with a
// few probe settings, with and without the memory controls; a search must stay inside the
// mapping (a read outside it faults) and the controls must not change its result.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "paged/paged_format.h"
#include "search/topk.h"
#include "semantic_vector_indexing.h"

namespace {

using namespace orve::paged;

// The largest row id the file's leaves hold (version 1 files need an id map that covers it).
// Reads only what open has already checked to lie inside the file.
uint32_t largest_row_id(const orve_ivf_paged_index* h) {
    const auto* base = static_cast<const uint8_t*>(h->base);
    uint32_t largest = 0;
    for (uint64_t s = 0; s < uint64_t{h->b1} * h->b2; ++s) {
        const uint8_t* d = h->leaf_dir + kLeafDirBytes * s;
        const uint32_t m = load_u32(d + kLeafDirCount);
        if (m == 0) continue;  // open checks the offsets of non-empty leaves only
        const uint8_t* ids = base + load_u64(d + kLeafDirMeta) + 8ull * m;
        for (uint32_t k = 0; k < m; ++k) {
            const uint32_t r = load_u32(ids + 4 * k);
            if (r > largest) largest = r;
        }
    }
    return largest;
}

// The sorted results of one search; a failed call or an overfull heap is a finding.
std::vector<bf_topk_entry> run(const orve_ivf_paged_index* h, uint32_t l1, uint32_t l2,
                               uint32_t budget, float min_similarity, const int8_t* codes,
                               float scale, const uint32_t* id_map) {
    std::vector<bf_topk_entry> heap(budget + 1);
    uint32_t found = 0;
    if (orve_ivf_paged_search(h, nullptr, l1, l2, codes, heap.data(), &found, budget, id_map, scale,
                              scale, min_similarity) != 0 ||
        found > budget) {
        __builtin_trap();
    }
    heap.resize(found);
    return heap;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int fd = memfd_create("ivfp_fuzz", MFD_CLOEXEC);  // reached through /proc
    if (fd < 0 || ftruncate(fd, 0) != 0) return 0;
    if (size > 0 && pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);

    orve_ivf_paged_index* h = nullptr;
    if (orve_ivf_paged_open(path, &h) != 0) return 0;

    std::vector<uint32_t> id_map;
    const uint32_t* map = nullptr;
    if (h->version == 1) {
        const uint32_t largest = largest_row_id(h);
        if (largest < (1u << 20)) {
            id_map.resize(largest + 1u);
            for (uint32_t i = 0; i <= largest; ++i) id_map[i] = i * 3u + 1u;
            map = id_map.data();
        }
    }

    int8_t codes[512];
    for (int i = 0; i < 512; ++i) codes[i] = static_cast<int8_t>(size > 0 ? data[i % size] : 1);
    const struct {
        uint32_t l1, l2, budget;
        float min_similarity;
    } settings[] = {{1, 1, 1, -1e30f}, {2, 3, 4, 0.0f}, {64, 64, 4096, -1e30f}, {3, 64, 16, 0.5f}};
    for (const auto& p : settings) {
        auto search = [&](float scale) {
            return run(h, p.l1, p.l2, p.budget, p.min_similarity, codes, scale, map);
        };
        const auto plain = search(1.0f);
        orve_ivf_paged_set_low_memory(h, 1);
        orve_ivf_paged_drop_cache(h);
        const auto cold = search(1.0f);
        orve_ivf_paged_set_low_memory(h, 0);
        if (plain.size() != cold.size() ||
            std::memcmp(plain.data(), cold.data(), plain.size() * sizeof plain[0]) != 0)
            __builtin_trap();
        (void)search(0.0f);  // the all-zero query
    }
    orve_ivf_paged_close(h);
    return 0;
}
