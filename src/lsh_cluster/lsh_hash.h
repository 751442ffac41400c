// The part of the legacy LSH hash that its index must agree with.
#pragma once

#include <cstdint>

namespace orve {

// The hash always reads this many components of a vector and of a hyperplane, whatever the
// index's hyperplane stride, so an index with a shorter stride would read past its table.
inline constexpr uint32_t kHashedDim = 128;

}  // namespace orve
