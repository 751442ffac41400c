// Cross-architecture agreement: the constants come from an x86-64 run and the aarch64 build (under
// qemu) must reproduce them, as the training is defined down to its float rounding. They pin
// agreement, not values: a change meant to alter results updates them. The input's own digest
// tells a changed generator or quantiser from a changed training.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <vector>

#include "ivf/ivf_internal.h"
#include "ivf_test_data.h"

namespace {

using ivf_test::fnv1a;
using ivf_test::kFnvOffset;

uint64_t digest(orve_ivf_index& x) {
    const uint64_t h = ivf_test::digest_ivf(kFnvOffset, x);
    orve_ivf_index_destroy(&x);
    return h;
}

uint64_t digest(orve_hivf_index& h) {
    uint64_t x = fnv1a(kFnvOffset, &h.b1, 4);
    x = fnv1a(x, &h.b2, 4);
    x = fnv1a(x, h.l1_centroid_codes, 512 * static_cast<size_t>(h.b1));
    x = fnv1a(x, h.l1_centroid_scales, 4 * static_cast<size_t>(h.b1));
    x = fnv1a(x, h.l1_centroid_norms, 4 * static_cast<size_t>(h.b1));
    for (uint32_t i = 0; i < h.b1; ++i) x = ivf_test::digest_ivf(x, h.l2_indexes[i]);
    orve_hivf_index_destroy(&h);
    return x;
}

int hivf_in_place(const ivf_test::dataset& d, orve_hivf_index* h) {
    std::vector<int8_t> codes = d.codes;
    std::vector<float> scales = d.scales, norms = d.norms;
    return orve::hivf_build_i8_in_place(codes.data(), scales.data(), norms.data(), d.n, 6, 7, 99,
                                        h);
}

TEST(GoldenDigest, InputAndEveryBuilder) {
    const ivf_test::dataset d = ivf_test::clustered_rows(1500, 24, 0.8f, 20240607);
    const float *r = d.rows.data(), *s = d.scales.data(), *m = d.norms.data();
    const int8_t* c = d.codes.data();
    uint64_t in = fnv1a(kFnvOffset, r, d.rows.size() * 4);
    in = fnv1a(fnv1a(fnv1a(in, c, d.codes.size()), s, d.n * 4ull), m, d.n * 4ull);
    orve_ivf_index ivf{};
    orve_hivf_index hivf{};
    const struct {
        const char* what;
        uint64_t got, want;
    } digests[] = {
        {"input", in, 0xeec5cd24a9baafbdull},
        {"ivf k-means",
         orve_ivf_build_kmeans_centroids(r, d.n, 37, 99, c, s, m, nullptr, &ivf) ? 0 : digest(ivf),
         0x200056ed2f2f181full},
        {"ivf random centroids",
         orve_ivf_build_random_centroids(r, d.n, 37, 99, c, s, m, nullptr, &ivf) ? 0 : digest(ivf),
         0x47aebda332cebf53ull},
        {"hivf from codes", orve_hivf_build_i8(c, s, m, d.n, 6, 7, 99, &hivf) ? 0 : digest(hivf),
         0x7b3e63bcd619bbdbull},
        // The system's build sorts its private snapshot in place and releases it as it goes.
        {"hivf in place", hivf_in_place(d, &hivf) ? 0 : digest(hivf), 0x7b3e63bcd619bbdbull},
        {"hivf from floats",
         orve_hivf_build(r, d.n, 6, 7, 99, c, s, m, nullptr, &hivf) ? 0 : digest(hivf),
         0x4c07a7a89baa3cbdull},
    };
    for (const auto& x : digests) {
        std::printf("%s digest 0x%016" PRIx64 "\n", x.what, x.got);
        EXPECT_EQ(x.got, x.want) << x.what;
    }
}

}  // namespace
