// The fuzz build's kernel table: the portable set only (see CMakeLists.txt here).
#include <cstddef>

#include "quant/kernel_table.h"

namespace orve {

namespace {
void screen_dots4_portable(const int8_t* const* rows, const int8_t* codes, const int32_t*,
                           uint32_t k4, int32_t* out, std::size_t ld) {
    for (int r = 0; r < 4; ++r) dot512_reference_many(rows[r], codes, k4, out + r * ld);
}
constexpr kernel_table kPortable{"portable",
                                 dot512_reference,
                                 dot512_reference_many,
                                 dot512_reference_multi,
                                 l2sq_partials_portable,
                                 screen_dots4_portable,
                                 screen_bounds_portable,
                                 screen_candidates_portable,
                                 rerank_sums8_portable};
}  // namespace

const kernel_table* kernel_tables_available(std::size_t* count) {
    *count = 1;
    return &kPortable;
}

const kernel_table& kernels() {
    return kPortable;
}

}  // namespace orve
