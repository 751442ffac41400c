// In the suites ctest also runs once per kernel set (ORVE_KERNELS=<set>): a run naming a set must
// score with it, or its passing would only repeat the run on the fastest set.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "quant/kernel_table.h"

TEST(KernelChoice, NamedSetIsTheOneInUse) {
    const char* want = std::getenv("ORVE_KERNELS");
    if (want == nullptr) GTEST_SKIP() << "no kernel set named";
    std::size_t n = 0;
    const orve::kernel_table* tables = orve::kernel_tables_available(&n);
    bool runnable = false;
    for (std::size_t i = 0; i < n; ++i) runnable = runnable || std::string(tables[i].name) == want;
    if (!runnable) GTEST_SKIP() << "kernel set " << want << " not available on this processor";
    EXPECT_EQ(std::string(orve::kernels().name), want);
}
