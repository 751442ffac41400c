// Unit-length scaling of a 512-float HRR vector, shared by atoms and fact encodings.
#pragma once

namespace orve {

constexpr int kHrrDim = 512;

// Scales the 512 values to unit length: double-precision sum of squares in index order, then
// every value times 1 / sqrt(sum), rounded to float. A vector whose sum of squares is not above
// 1e-60 (zero, or NaN somewhere) is left as it is.
void l2_normalize(float* vector);

}  // namespace orve
