// What the x86-64 processor the library runs on can execute, read once from cpuid and the
// operating system's saved-state mask, so every kernel choice agrees and any compiler builds
// it (not every compiler's cpu-supports builtin knows every feature).
#pragma once

namespace orve {

struct cpu_features {
    bool avx2 = false;
    bool fma = false;
    bool avx_vnni = false;
    bool avx512f = false;
    bool avx512bw = false;
    bool avx512_vnni = false;
};

// Empty (all false) off x86-64.
const cpu_features& host_cpu_features();

}  // namespace orve
