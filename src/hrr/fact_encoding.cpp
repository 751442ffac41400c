// HRR fact vectors: three atoms bound to their positions by cyclic shifts and superposed.
// Binding by permutation keeps the encoding exact and cheap; subject and object share the
// "entity" role, so an entity has one atom and only its shift says where it stands.
#include "hrr/l2_normalize.h"
#include "semantic_vector_indexing.h"

namespace {

constexpr int kDim = orve::kHrrDim;

// out[i] = in[(i - k) mod 512] for 0 < k < 512: k applications of the one-place shift toward
// higher indices, the last k components wrapping round to the front.
void cyclic_shift_up(const float* in, int k, float* out) {
    for (int i = 0; i < k; ++i) out[i] = in[kDim - k + i];
    for (int i = k; i < kDim; ++i) out[i] = in[i - k];
}

}  // namespace

extern "C" ORVE_API void orve_hrr_encode(uint64_t seed, const char* subject_name,
                                         const char* relation_name, const char* object_name,
                                         float* out) {
    // All five vectors are scratch of this call (10 KiB of stack), so out is touched only once
    // every atom exists and nothing can fail for want of memory.
    float hs[kDim];
    float hr[kDim];
    float ho[kDim];
    float hr_shifted[kDim];
    float ho_shifted[kDim];
    orve_hrr_atom(seed, "entity", subject_name, hs);
    orve_hrr_atom(seed, "relation", relation_name, hr);
    orve_hrr_atom(seed, "entity", object_name, ho);

    cyclic_shift_up(hr, 1, hr_shifted);
    cyclic_shift_up(ho, 2, ho_shifted);

    for (int i = 0; i < kDim; ++i) {
        const double sum = (static_cast<double>(hs[i]) + static_cast<double>(hr_shifted[i])) +
                           static_cast<double>(ho_shifted[i]);
        out[i] = static_cast<float>(sum);
    }
    orve::l2_normalize(out);
}
