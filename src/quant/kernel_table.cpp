#include "quant/kernel_table.h"

#include <cstdlib>
#include <cstring>

#include "util/cpu_features.h"

namespace orve {
namespace {

// Four sketch rows against a block of centroid codes, one many-rows pass per row: the screen's
// dot products for the sets without a kernel of their own. The code sums are only needed by
// kernels that feed one operand in as unsigned.
template <dot512_many_fn Many>
void screen_dots4_by_rows(const int8_t* const* rows, const int8_t* codes, const int32_t*,
                          uint32_t k4, int32_t* out, std::size_t ld) {
    for (int r = 0; r < 4; ++r) Many(rows[r], codes, k4, out + r * ld);
}

constexpr kernel_table kPortable{"portable",
                                 dot512_reference,
                                 dot512_reference_many,
                                 dot512_reference_multi,
                                 l2sq_partials_portable,
                                 screen_dots4_by_rows<dot512_reference_many>,
                                 screen_bounds_portable,
                                 screen_candidates_portable,
                                 rerank_sums8_portable};

#if defined(__x86_64__)
constexpr kernel_table kAvx2{"avx2",
                             dot512_avx2,
                             dot512_avx2_many,
                             dot512_avx2_multi,
                             l2sq_partials_avx2_fma,
                             screen_dots4_by_rows<dot512_avx2_many>,
                             screen_bounds_portable,
                             screen_candidates_portable,
                             rerank_sums8_avx2};
constexpr kernel_table kAvxVnni{"avx_vnni",
                                dot512_avxvnni,
                                dot512_avxvnni_many,
                                dot512_avxvnni_multi,
                                l2sq_partials_avx2_fma,
                                screen_dots4_by_rows<dot512_avxvnni_many>,
                                screen_bounds_portable,
                                screen_candidates_portable,
                                rerank_sums8_avx2};
constexpr kernel_table kAvx512Vnni{"avx512_vnni",
                                   dot512_avx512vnni,
                                   dot512_avx512vnni_many,
                                   dot512_avx512vnni_multi,
                                   l2sq_partials_avx512f,
                                   screen_dots4_avx512vnni,
                                   screen_bounds_avx512vnni,
                                   screen_candidates_avx512vnni,
                                   rerank_sums8_avx2};

struct table_set {
    kernel_table t[4];
    std::size_t n;
};

table_set probe() {
    table_set s{{kPortable}, 1};
    const cpu_features& cpu = host_cpu_features();
    // Every processor with AVX2 also has FMA, which the float kernel of these sets needs; one
    // that lacked it would keep the portable set and lose only speed.
    if (cpu.avx2 && cpu.fma) s.t[s.n++] = kAvx2;
    if (cpu.avx2 && cpu.fma && cpu.avx_vnni) s.t[s.n++] = kAvxVnni;
    if (cpu.avx512f && cpu.avx512bw && cpu.avx512_vnni) s.t[s.n++] = kAvx512Vnni;
    return s;
}

const table_set kAvailable = probe();

#elif defined(__aarch64__)
// The Arm build requires the dot-product instructions (the library targets Armv8.2+), so the
// sdot set is used without a capability test.
constexpr kernel_table kSdot{"sdot",
                             dot512_sdot,
                             dot512_sdot_many,
                             dot512_sdot_multi,
                             l2sq_partials_neon,
                             screen_dots4_by_rows<dot512_sdot_many>,
                             screen_bounds_portable,
                             screen_candidates_portable,
                             rerank_sums8_portable};
struct table_set {
    kernel_table t[2];
    std::size_t n;
};
constexpr table_set kAvailable{{kPortable, kSdot}, 2};
#else
struct table_set {
    kernel_table t[1];
    std::size_t n;
};
constexpr table_set kAvailable{{kPortable}, 1};
#endif

// ORVE_KERNELS=<set name> pins a set that the processor can run, so that the test suite can run
// every search and build on every set, and a host that suspects one set can compare another's
// answers; any other value, or none, leaves the fastest. Read once, with the probe.
std::size_t chosen_table() {
    const char* want = std::getenv("ORVE_KERNELS");
    for (std::size_t i = 0; want != nullptr && i < kAvailable.n; ++i) {
        if (std::strcmp(kAvailable.t[i].name, want) == 0) return i;
    }
    return kAvailable.n - 1;
}

const std::size_t kChosen = chosen_table();

}  // namespace

const kernel_table* kernel_tables_available(std::size_t* count) {
    *count = kAvailable.n;
    return kAvailable.t;
}

const kernel_table& kernels() {
    return kAvailable.t[kChosen];
}

}  // namespace orve
