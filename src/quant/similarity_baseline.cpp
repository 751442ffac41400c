// Portable 64-lane kernel: pairwise 16-bit products (the extreme, -128 * -128 = 16384, fits),
// widened to 32 bits into a four-lane accumulator. Written so a compiler can keep it in vector
// registers on any target.
#include "semantic_vector_indexing.h"

extern "C" ORVE_API int32_t orve512_similarity_int8_hwy_baseline_v1(const int8_t* a,
                                                                    const int8_t* b) {
    if (a == nullptr || b == nullptr) return 0;
    int32_t acc[4] = {0, 0, 0, 0};
    for (int chunk = 0; chunk < 64; chunk += 16) {
        int16_t prod[16];
        for (int i = 0; i < 16; ++i) {
            prod[i] = static_cast<int16_t>(static_cast<int16_t>(a[chunk + i]) *
                                           static_cast<int16_t>(b[chunk + i]));
        }
        for (int i = 0; i < 16; ++i) acc[i % 4] += prod[i];
    }
    return (acc[0] + acc[1]) + (acc[2] + acc[3]);
}
