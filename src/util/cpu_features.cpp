#include "util/cpu_features.h"

#if defined(__x86_64__)
#include <cpuid.h>

#include <cstdint>
#endif

namespace orve {
namespace {

#if defined(__x86_64__)
uint64_t xgetbv0() {
    uint32_t lo, hi;
    __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
    return (static_cast<uint64_t>(hi) << 32) | lo;
}

cpu_features probe() {
    cpu_features f;
    unsigned a, b, c, d;
    if (!__get_cpuid_count(1, 0, &a, &b, &c, &d)) return f;
    const bool osxsave = c & (1u << 27), avx = c & (1u << 28), fma = c & (1u << 12);
    if (!osxsave || !avx) return f;
    // The vector registers are usable only when the operating system saves them.
    const uint64_t xcr0 = xgetbv0();
    const bool ymm = (xcr0 & 0x6) == 0x6;
    const bool zmm = (xcr0 & 0xe6) == 0xe6;
    if (!ymm || !__get_cpuid_count(7, 0, &a, &b, &c, &d)) return f;
    f.avx2 = b & (1u << 5);
    f.fma = fma;
    f.avx512f = zmm && (b & (1u << 16));
    f.avx512bw = zmm && (b & (1u << 30));
    f.avx512_vnni = zmm && (c & (1u << 11));
    if (__get_cpuid_count(7, 1, &a, &b, &c, &d)) f.avx_vnni = a & (1u << 4);
    return f;
}
#else
cpu_features probe() { return {}; }
#endif

}  // namespace

const cpu_features& host_cpu_features() {
    // A function-local static, not a namespace-scope one: the kernel tables of other files
    // ask for it while they are initialised at load, in an order the language leaves open.
    static const cpu_features host = probe();
    return host;
}

}  // namespace orve
