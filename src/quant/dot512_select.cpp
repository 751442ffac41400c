// Which 512-lane kernel runs on this processor, and the exported entry points over it.
#include "quant/dot512_kernels.h"
#include "semantic_vector_indexing.h"
#include "util/cpu_features.h"

namespace orve {
namespace {

#if defined(__x86_64__)
constexpr dot512_kernel kReference{"reference", dot512_reference, dot512_reference_many};
constexpr dot512_kernel kAvx2{"avx2", dot512_avx2, dot512_avx2_many};
constexpr dot512_kernel kAvxVnni{"avx_vnni", dot512_avxvnni, dot512_avxvnni_many};
constexpr dot512_kernel kAvx512Vnni{"avx512_vnni", dot512_avx512vnni, dot512_avx512vnni_many};

struct kernel_set {
    dot512_kernel k[4];
    std::size_t n;
};

kernel_set probe() {
    kernel_set s{{kReference}, 1};
    const cpu_features& cpu = host_cpu_features();
    if (cpu.avx2) s.k[s.n++] = kAvx2;
    if (cpu.avx2 && cpu.avx_vnni) s.k[s.n++] = kAvxVnni;
    if (cpu.avx512f && cpu.avx512bw && cpu.avx512_vnni) s.k[s.n++] = kAvx512Vnni;
    return s;
}

// Probed once at load: the processor does not change under a running process, and a table
// fixed before any caller runs needs no synchronisation. Best kernel last.
const kernel_set kAvailable = probe();

#elif defined(__aarch64__)
// The Arm build requires the dot-product instructions (the library targets Armv8.2+), so the
// sdot kernel is used without a capability test.
struct kernel_set {
    dot512_kernel k[2];
    std::size_t n;
};
constexpr kernel_set kAvailable{{{"reference", dot512_reference, dot512_reference_many},
                                 {"sdot", dot512_sdot, dot512_sdot_many}},
                                2};
#else
struct kernel_set {
    dot512_kernel k[1];
    std::size_t n;
};
constexpr kernel_set kAvailable{{{"reference", dot512_reference, dot512_reference_many}}, 1};
#endif

}  // namespace

const dot512_kernel* dot512_kernels_available(std::size_t* count) {
    *count = kAvailable.n;
    return kAvailable.k;
}

const dot512_kernel& dot512_best() {
    return kAvailable.k[kAvailable.n - 1];
}

}  // namespace orve

extern "C" ORVE_API int32_t orve_dotprod512_i8(const int8_t* a, const int8_t* b) {
    if (a == nullptr || b == nullptr) return 0;
    return orve::dot512_best().one(a, b);
}

extern "C" ORVE_API int32_t orve_dotprod512_scalar(const int32_t* a, const int32_t* b) {
    if (a == nullptr || b == nullptr) return 0;
    // Each product fits in 64 bits; the sum may not, and only its low 32 bits are wanted, so it
    // is accumulated modulo 2^64 where wrapping is defined.
    uint64_t sum = 0;
    for (std::size_t i = 0; i < orve::kRowBytes; ++i) {
        sum += static_cast<uint64_t>(static_cast<int64_t>(a[i]) * static_cast<int64_t>(b[i]));
    }
    return static_cast<int32_t>(static_cast<uint32_t>(sum));
}
