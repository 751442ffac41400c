// Writes the seed corpus of paged_open_fuzz: small real files from the library's own writer
// (version 2), the same content re-encoded as version 1, and the smallest shapes of the
// format. Usage: paged_fuzz_seeds DIR
#include <cstdio>
#include <string>

#include "paged_fixture.h"

using namespace paged_test;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    const uint32_t shapes[][4] = {{1, 1, 3, 1}, {2, 3, 2, 2}, {3, 2, 4, 3}, {4, 4, 1, 4}};
    int n = 0;
    for (const auto& s : shapes) {  // b1, b2, max rows per leaf, seed
        hand_hivf h(s[0], s[1], random_buckets(s[0], s[1], s[2], s[3]));
        const auto ids = node_table(h.total_rows);
        const std::string base = dir + "/seed_" + std::to_string(s[0]) + "x" + std::to_string(s[1]);
        if (orve_ivf_paged_build(h.get(), ids.data(), (base + "_v2.ivfp").c_str()) != 0) return 1;
        write_file(base + "_v1.ivfp", encode_ivfp(h, ids, 1));
        n += 2;
    }
    std::fprintf(stderr, "wrote %d seed files to %s\n", n, dir.c_str());
    return 0;
}
