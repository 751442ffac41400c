// A host program that defines the override hook, linked against the shared library, so the
// library's weak reference is bound by the dynamic linker exactly as in a real host.
#include <gtest/gtest.h>
#include <sys/auxv.h>

#include <vector>

#include "semantic_vector_indexing.h"

static int g_override_calls = 0;

extern "C" int32_t orve512_similarity_int8__challenger_override(const int8_t* a, const int8_t* b) {
    ++g_override_calls;
    // A recognisable answer that no real dot product of these inputs gives.
    return (a == nullptr || b == nullptr) ? -7 : 424242;
}

namespace {

TEST(ChallengerOverride, OverrideVariantAlwaysUsesTheHook) {
    std::vector<int8_t> a(64, 1);
    g_override_calls = 0;
    EXPECT_EQ(orve512_similarity_int8__aarch64_override_testonly(a.data(), a.data()), 424242);
    // Null arguments are passed through unchanged to the hook.
    EXPECT_EQ(orve512_similarity_int8__aarch64_override_testonly(nullptr, a.data()), -7);
    EXPECT_EQ(g_override_calls, 2);
}

TEST(ChallengerOverride, DispatcherUsesHookOnlyWithDotProductCapability) {
    std::vector<int8_t> a(64, 2);
    g_override_calls = 0;
    const int32_t got = orve512_similarity_int8(a.data(), a.data());
#if defined(__aarch64__)
    const bool has_dotprod = (getauxval(AT_HWCAP) & (1ul << 20)) != 0;
#else
    const bool has_dotprod = false;  // the capability does not exist off Arm
#endif
    if (has_dotprod) {
        EXPECT_EQ(got, 424242);
        EXPECT_EQ(g_override_calls, 1);
    } else {
        EXPECT_EQ(got, 256);  // 64 * 2 * 2 from the portable kernel
        EXPECT_EQ(g_override_calls, 0);
    }
    // The plain kernels never consult the hook.
    EXPECT_EQ(orve512_similarity_int8_hwy_baseline_v1(a.data(), a.data()), 256);
    EXPECT_EQ(orve512_similarity_int8__scalar_reference_testonly(a.data(), a.data()), 256);
}

}  // namespace
