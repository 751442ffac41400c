// The kernels of one instruction set, side by side, and the one choice between sets.
//
// Every kernel of a set returns exactly what the portable set returns (exact integer sums, the
// same float operations in the same order), so the choice only changes speed. It is made once,
// at load, from the one processor probe; a table fixed before any caller runs needs no lock.
#pragma once

#include <cstddef>

#include "quant/dot512_kernels.h"
#include "quant/l2sq_partials.h"
#include "quant/rerank_sums.h"
#include "quant/screen_kernels.h"

namespace orve {

struct kernel_table {
    const char* name;
    dot512_one_fn dot512;
    dot512_many_fn dot512_many;
    dot512_multi_fn dot512_multi;
    l2sq_partials_fn l2sq_partials;
    screen_dots4_fn screen_dots4;
    screen_bounds_fn screen_bounds;
    screen_candidates_fn screen_candidates;
    rerank_sums8_fn rerank_sums8;
};

// The tables compiled into this build whose instructions the running processor has; the
// portable one first, the fastest last. Sets *count.
const kernel_table* kernel_tables_available(std::size_t* count);

// The fastest available table, or the one ORVE_KERNELS names.
const kernel_table& kernels();

}  // namespace orve
