// The 64-lane similarity entry point and its checking variants.
//
// On Arm the kernel is chosen at every call from the process's hardware-capability word, and a
// host module may replace it by defining orve512_similarity_int8__challenger_override. The hook
// is a weak reference bound by the dynamic linker when the library is loaded: null when no
// module of the process defines it.
#include "semantic_vector_indexing.h"

#if defined(__aarch64__)
#include <sys/auxv.h>

#include "quant/dot512_kernels.h"
#endif

namespace {

#if defined(__aarch64__)
constexpr unsigned long kHwcapAsimdDp = 1ul << 20;
#endif

// The dot-product kernel of the dispatcher. Off Arm there is no sdot, so the portable kernel
// stands in; it returns the same exact sum.
int32_t dot64_native(const int8_t* a, const int8_t* b) {
    if (a == nullptr || b == nullptr) return 0;
#if defined(__aarch64__)
    return orve::dot64_sdot(a, b);
#else
    return orve512_similarity_int8_hwy_baseline_v1(a, b);
#endif
}

}  // namespace

extern "C" ORVE_API int32_t orve512_similarity_int8__scalar_reference_testonly(const int8_t* a,
                                                                               const int8_t* b) {
    if (a == nullptr || b == nullptr) return 0;
    int32_t sum = 0;
    for (int i = 0; i < 64; ++i) sum += static_cast<int32_t>(a[i]) * static_cast<int32_t>(b[i]);
    return sum;
}

extern "C" ORVE_API int32_t orve512_similarity_int8__aarch64_override_testonly(const int8_t* a,
                                                                               const int8_t* b) {
    if (orve512_similarity_int8__challenger_override != nullptr) {
        return orve512_similarity_int8__challenger_override(a, b);
    }
    return dot64_native(a, b);
}

extern "C" ORVE_API int32_t orve512_similarity_int8(const int8_t* a, const int8_t* b) {
#if defined(__aarch64__)
    // Read at every call, never cached: the answer is the kernel's contract, not ours to memoise.
    if ((getauxval(AT_HWCAP) & kHwcapAsimdDp) == 0) {
        return orve512_similarity_int8_hwy_baseline_v1(a, b);
    }
    return orve512_similarity_int8__aarch64_override_testonly(a, b);
#else
    // Off Arm the dot-product capability bit is never set, which selects the portable kernel.
    return orve512_similarity_int8_hwy_baseline_v1(a, b);
#endif
}
