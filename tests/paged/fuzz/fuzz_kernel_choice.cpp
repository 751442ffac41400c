// The fuzz build's kernel table: the portable 512-lane kernel only (see CMakeLists.txt here).
#include <cstddef>

#include "quant/dot512_kernels.h"

namespace orve {

namespace {
constexpr dot512_kernel kReference{"reference", dot512_reference, dot512_reference_many};
}  // namespace

const dot512_kernel* dot512_kernels_available(std::size_t* count) {
    *count = 1;
    return &kReference;
}

const dot512_kernel& dot512_best() {
    return kReference;
}

}  // namespace orve
