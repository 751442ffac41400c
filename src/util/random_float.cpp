// Float draws over the process-wide rand(), used by the legacy LSH and clustering indexes.
// Neither function seeds: whoever needs a particular sequence seeds rand themselves.
#include <cstdlib>

#include "semantic_vector_indexing.h"

extern "C" ORVE_API float random_float(void) {
    // Scaling by a power of two is exact, so this is rand() / 2^31 rounded once to float; the
    // largest draws round up to exactly 1.0.
    return static_cast<float>(std::rand()) * 0x1p-31f;
}

extern "C" ORVE_API float random_float_range(float low, float high) {
    const float span = high - low;
    const float scaled = span * random_float();
    return scaled + low;
}
