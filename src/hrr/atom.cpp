// HRR atoms: a SHA-256 digest of (seed, role, name) seeds xoshiro256+, Box-Muller turns its
// uniforms into 512 standard normals, and the vector is scaled to unit length.
//
// Atoms must come out bit-identical on every machine, so each step is pinned down: log, sqrt
// and sincos in double precision (no float variants, which differ more between C libraries),
// every product rounded to float exactly once, and no multiply-add fusion (the build disables
// contraction).
#include <cmath>

#include "hrr/atom_seed.h"
#include "hrr/l2_normalize.h"
#include "hrr/xoshiro256plus.h"
#include "semantic_vector_indexing.h"

static_assert(ORVE_HRR_DIM == orve::kHrrDim);

extern "C" ORVE_API void orve_hrr_atom(uint64_t seed, const char* role, const char* name,
                                       float* out) {
    // Null pointers are not checked: atoms are called in tight loops by hosts that always pass
    // real strings, and there is no result through which to report one.
    orve::xoshiro256plus gen;
    orve::seed_for_atom(gen.s, seed, role, name);

    constexpr double kTwoPi = 6.283185307179586;
    for (int p = 0; p < orve::kHrrDim / 2; ++p) {
        // ln 0 is -inf; such a draw is rejected and replaced, and the replacement consumes a
        // generator output so the stream stays in step with every other implementation.
        double u1 = orve::xoshiro256plus_uniform(&gen);
        while (u1 == 0.0) u1 = orve::xoshiro256plus_uniform(&gen);
        const double u2 = orve::xoshiro256plus_uniform(&gen);

        const double rho = std::sqrt(-2.0 * std::log(u1));
        const double theta = kTwoPi * u2;
        double sin_theta;
        double cos_theta;
        ::sincos(theta, &sin_theta, &cos_theta);
        out[2 * p] = static_cast<float>(rho * cos_theta);
        out[2 * p + 1] = static_cast<float>(rho * sin_theta);
    }
    orve::l2_normalize(out);
}
