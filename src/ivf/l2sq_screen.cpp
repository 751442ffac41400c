// The int8 screen of the float k-means training (see l2sq_screen.h for why it is exact).
#include "ivf/l2sq_screen.h"

#include <stdlib.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>

#include "ivf/ivf_internal.h"
#include "quant/kernel_table.h"

namespace orve {
namespace {

// Rows with a larger squared norm are not screened: their bounds could overflow.
constexpr double kMaxScreenedNorm2 = 1e20;

constexpr uint32_t pad16(uint32_t n) {
    return (n + 15u) & ~15u;
}

const float* float_row(const float* block, uint32_t r) {
    return block + static_cast<std::size_t>(r) * kCodeBytes;
}

uint32_t nearest_full_scan(const float* x, const float* centroids, uint32_t k) {
    float best = FLT_MAX;
    uint32_t choice = 0;
    for (uint32_t c = 0; c < k; ++c) {
        const float d = l2sq_512(x, float_row(centroids, c));
        if (d < best) {
            best = d;
            choice = c;
        }
    }
    return choice;
}

// Conversions between float distances (l2sq_512 results F) and true Euclidean distances,
// from F in [D (1 - 2.3e-6) - 1e-43, D (1 + 2.3e-6) + 1e-43] for the exact squared distance
// D, widened by a relative 1e-4, an absolute 1e-20 on F and an absolute 1e-9 on distances (the
// last covers the rounding of the double arithmetic below).
constexpr double kEps = 1e-4;
constexpr double kTau = 1e-20;
constexpr double kDistSlack = 1e-9;

// A true distance above this one guarantees a float distance strictly above f.
double distance_beyond(float f) {
    return std::sqrt((static_cast<double>(f) + kTau) / (1.0 - kEps)) + kDistSlack;
}

// A true distance at most this one is impossible for a float distance of at least f.
double distance_below(float f) {
    const double d2 = (static_cast<double>(f) - kTau) / (1.0 + kEps);
    return d2 > 0.0 ? std::sqrt(d2) - kDistSlack : -kDistSlack;
}

// The full scan's winner among the centroids offered: the smallest distance, and the lowest
// index among equal ones. Also keeps the smallest distance of the other centroids offered.
struct nearest {
    float best = FLT_MAX;
    uint32_t choice = 0;
    float second = FLT_MAX;
    bool any = false;

    void offer(float d, uint32_t c) {
        if (!any) {
            best = d;
            choice = c;
            any = true;
        } else if (d < best || (d == best && c < choice)) {
            second = best < second ? best : second;
            best = d;
            choice = c;
        } else if (d < second) {
            second = d;
        }
    }
};

// Screens row i against every centroid: the candidates are the centroids whose lower bound
// does not exceed the smallest upper bound. That includes the true nearest centroid and
// every centroid tying with it; all others are strictly farther.
uint32_t nearest_screened(const float* x, const float* centroids, uint32_t k,
                          const kernel_table& kernel, const l2sq_screen& s, uint32_t i,
                          const int32_t* dots, double* other_lower) {
    float* lo = s.lo.get();
    uint32_t* cand = s.candidates.get();
    const float h = kernel.screen_bounds(s.rows.point(i), s.centroids.columns(), dots, lo);
    const uint32_t count = kernel.screen_candidates(lo, k, h, cand);
    nearest n;
    for (uint32_t j = 0; j < count; ++j)
        n.offer(l2sq_512(x, float_row(centroids, cand[j])), cand[j]);
    // Every centroid other than the winner is either a candidate (second holds the smallest
    // of their distances) or has a float distance above h.
    *other_lower = distance_below(n.second < h ? n.second : h);
    return n.choice;
}

// The cheap path of a row whose bound survived the centroids' move (see l2sq_screen.h). False
// when too many centroids might now be nearest, and the row must be screened again.
bool nearest_by_drift(const float* x, const float* centroids, uint32_t k, const l2sq_screen& s,
                      uint32_t i, uint32_t* choice, double* other_lower) {
    constexpr uint32_t kMaxLooks = 8;
    const uint32_t a = s.last[i];
    const double lower = s.other_lower[i];
    if (!(lower > 0.0)) return false;
    const float fa = l2sq_512(x, float_row(centroids, a));
    const double reach = lower - distance_beyond(fa);
    if (!(reach > 0.0)) return false;

    // Centroids that moved by at least `reach` might now be as near as a; all others are
    // strictly farther. They come first in by_drift.
    uint32_t look[kMaxLooks];
    uint32_t n_look = 0;
    double rest_drift = 0.0;  // largest drift among the centroids not looked at, a excluded
    for (uint32_t j = 0; j < k; ++j) {
        const uint32_t c = s.by_drift[j];
        if (c == a) continue;
        if (s.drift[c] < reach) {
            rest_drift = s.drift[c];
            break;
        }
        if (n_look == kMaxLooks) return false;
        look[n_look++] = c;
    }
    nearest n;
    n.offer(fa, a);
    for (uint32_t j = 0; j < n_look; ++j)
        n.offer(l2sq_512(x, float_row(centroids, look[j])), look[j]);
    const double from_rest = lower - rest_drift;
    const double from_looked = n.second < FLT_MAX ? distance_below(n.second) : from_rest;
    *other_lower = from_rest < from_looked ? from_rest : from_looked;
    *choice = n.choice;
    return true;
}

// The neighbouring-centroid path (see l2sq_screen.h). False when a's listed neighbours do not
// cover every centroid that might be nearest, and the row must be screened.
bool nearest_by_neighbours(const float* x, const float* centroids, const l2sq_screen& s, uint32_t i,
                           uint32_t* choice, double* other_lower) {
    constexpr uint32_t m = l2sq_screen::kNeighbours;
    const uint32_t a = s.last[i];
    const float fa = l2sq_512(x, float_row(centroids, a));
    const double up = distance_beyond(fa);  // also an upper bound of |x - a|
    // |x - c| >= |a - c| - |x - a| > up whenever |a - c| > 2 up (plus slack for this sum).
    const double reach = 2.0 * up + kDistSlack;
    if (!(reach < INFINITY)) return false;
    const uint32_t* idx = s.near_index.get() + static_cast<std::size_t>(a) * m;
    const double* lower = s.near_lower.get() + static_cast<std::size_t>(a) * m;
    uint32_t j = 0;
    nearest n;
    n.offer(fa, a);
    for (; j < m && idx[j] != UINT32_MAX && !(lower[j] > reach); ++j)
        n.offer(l2sq_512(x, float_row(centroids, idx[j])), idx[j]);
    const double beyond_list = j < m && idx[j] != UINT32_MAX ? lower[j] : s.rest_lower[a];
    if (!(beyond_list > reach)) return false;
    // Centroids not offered are at least beyond_list - up away; the offered ones other than
    // the winner are bounded by their float distances.
    const double from_rest = beyond_list - up - kDistSlack;
    const double from_offered = n.second < FLT_MAX ? distance_below(n.second) : from_rest;
    *other_lower = from_rest < from_offered ? from_rest : from_offered;
    *choice = n.choice;
    return true;
}

}  // namespace

bool row_sketches::allocate(uint32_t n) {
    const uint32_t p = pad16(n);
    codes = c_aligned_array<int8_t>(static_cast<std::size_t>(p) * kCodeBytes, kRowAlignment);
    code_sums = c_calloc_array<int32_t>(p);
    values = c_alloc_array<float>(static_cast<std::size_t>(p) * 5);
    usable = c_alloc_array<uint8_t>(n);
    if (!codes || !code_sums || !values || !usable) return false;
    count = n;
    padded = p;
    norm2 = values.get();
    norm = norm2 + p;
    hat_norm = norm + p;
    err_norm = hat_norm + p;
    inv_scale = err_norm + p;
    std::memset(codes.get() + static_cast<std::size_t>(n) * kCodeBytes, 0,
                static_cast<std::size_t>(p - n) * kCodeBytes);
    // Padding rows: an infinite norm makes their upper bound infinite, so they never lower
    // the smallest upper bound; their lower bounds are never read.
    for (uint32_t r = n; r < p; ++r) {
        norm2[r] = INFINITY;
        norm[r] = hat_norm[r] = err_norm[r] = inv_scale[r] = 0.0f;
    }
    return true;
}

void row_sketches::fill(row_source rows) {
    bool all = true;
    float scratch[kCodeBytes];
    for (uint32_t r = 0; r < count; ++r) {
        const float* x = rows.get(r, scratch);
        int8_t* q = codes.get() + static_cast<std::size_t>(r) * kCodeBytes;
        float scale = 0.0f;
        orve_quantize_float_vector_symmetric(x, ORVE512_DIM, q, &scale, nullptr);
        const double inv = scale > 0.0f ? 1.0 / static_cast<double>(scale) : 0.0;
        double n2 = 0.0, h2 = 0.0, e2 = 0.0;
        int32_t sum = 0;
        bool finite = true;
        for (std::size_t i = 0; i < kCodeBytes; ++i) {
            const double v = x[i];
            if (!std::isfinite(v)) finite = false;
            const double qv = q[i];
            const double e = v - qv * inv;
            n2 += v * v;
            h2 += qv * qv;
            e2 += e * e;
            sum += q[i];
        }
        code_sums[r] = sum;
        const bool ok = finite && n2 <= kMaxScreenedNorm2;
        usable[r] = ok ? 1 : 0;
        all = all && ok;
        if (!ok) {
            // Never screened; plain zeros keep the block-wide bound loops free of NaN.
            norm2[r] = norm[r] = hat_norm[r] = err_norm[r] = inv_scale[r] = 0.0f;
            continue;
        }
        norm2[r] = static_cast<float>(n2);
        norm[r] = static_cast<float>(std::sqrt(n2));
        hat_norm[r] = static_cast<float>(std::sqrt(h2) * inv);
        err_norm[r] = static_cast<float>(std::sqrt(e2));
        inv_scale[r] = static_cast<float>(inv);
    }
    all_usable = all;
}

bool l2sq_screen::init(row_source row_block, uint32_t n, uint32_t k) {
    if (!rows.allocate(n) || !centroids.allocate(k)) return false;
    row_dots = c_calloc_array<int32_t>(rows.padded);  // padding entries stay 0
    tile_dots = c_calloc_array<int32_t>(static_cast<std::size_t>(4) * centroids.padded);
    lo = c_alloc_array<float>(rows.padded > centroids.padded ? rows.padded : centroids.padded);
    candidates = c_alloc_array<uint32_t>(k);
    previous = c_alloc_array<float>(static_cast<std::size_t>(k) * kCodeBytes);
    drift = c_alloc_array<double>(k);
    by_drift = c_alloc_array<uint32_t>(k);
    other_lower = c_alloc_array<double>(n);
    last = c_alloc_array<uint32_t>(n);
    near_index = c_alloc_array<uint32_t>(static_cast<std::size_t>(k) * kNeighbours);
    near_lower = c_alloc_array<double>(static_cast<std::size_t>(k) * kNeighbours);
    rest_lower = c_alloc_array<double>(k);
    pair_dist = c_alloc_array<float>(k);
    pair_order = c_alloc_array<uint32_t>(k);
    if (!row_dots || !tile_dots || !lo || !candidates || !previous || !drift || !by_drift ||
        !other_lower || !last || !near_index || !near_lower || !rest_lower || !pair_dist ||
        !pair_order) {
        return false;
    }
    rows.fill(row_block);
    return true;
}

void l2sq_screen::set_centroids(const float* centroid_block) {
    const uint32_t k = centroids.count;
    // Drift is measured from the centroids of the last assignment; a second call without an
    // assignment in between would measure from the wrong ones, so the bounds are dropped.
    const bool can_drift = have_previous && have_bounds && !drift_valid;
    centroids.fill(centroid_block);
    drift_valid = false;
    if (!can_drift) have_bounds = false;
    if (can_drift && centroids.all_usable) {
        for (uint32_t c = 0; c < k; ++c) {
            const float* now = float_row(centroid_block, c);
            const float* was = float_row(previous.get(), c);
            double s2 = 0.0;
            for (std::size_t l = 0; l < kCodeBytes; ++l) {
                const double d = static_cast<double>(now[l]) - static_cast<double>(was[l]);
                s2 += d * d;
            }
            drift[c] = std::sqrt(s2) * (1.0 + 1e-9) + kDistSlack;
            by_drift[c] = c;
        }
        const double* dr = drift.get();
        std::sort(by_drift.get(), by_drift.get() + k, [dr](uint32_t x, uint32_t y) {
            return dr[x] > dr[y] || (dr[x] == dr[y] && x < y);
        });
        drift_valid = true;
    }
    std::memcpy(previous.get(), centroid_block,
                static_cast<std::size_t>(k) * kCodeBytes * sizeof(float));
    have_previous = true;

    // The neighbour lists, from one float distance per pair of centroids. Only worth it once
    // rows have a last centroid, and only valid when the error budget holds for every centroid.
    have_neighbours = false;
    if (!have_last || !centroids.all_usable) return;
    float* pd = pair_dist.get();
    uint32_t* order = pair_order.get();
    for (uint32_t a = 0; a < k; ++a) {
        uint32_t others = 0;
        for (uint32_t c = 0; c < k; ++c) {
            if (c == a) continue;
            pd[c] = l2sq_512(float_row(centroid_block, a), float_row(centroid_block, c));
            order[others++] = c;
        }
        // Nearest first; NaN (impossible for usable centroids) would only make bounds useless.
        const auto closer = [pd](uint32_t x, uint32_t y) {
            return pd[x] < pd[y] || (pd[x] == pd[y] && x < y);
        };
        const uint32_t listed = others < kNeighbours ? others : kNeighbours;
        if (others > listed) {
            std::nth_element(order, order + listed, order + others, closer);
            rest_lower[a] = distance_below(pd[order[listed]]);
        } else {
            rest_lower[a] = INFINITY;
        }
        std::sort(order, order + listed, closer);
        uint32_t* idx = near_index.get() + static_cast<std::size_t>(a) * kNeighbours;
        double* lower = near_lower.get() + static_cast<std::size_t>(a) * kNeighbours;
        for (uint32_t j = 0; j < kNeighbours; ++j) {
            idx[j] = j < listed ? order[j] : UINT32_MAX;
            lower[j] = j < listed ? distance_below(pd[order[j]]) : INFINITY;
        }
    }
    have_neighbours = true;
}

void assign_nearest_l2sq(row_source rows, uint32_t n, const float* centroids, uint32_t k,
                         l2sq_screen* screen, uint32_t* assignment) {
    // Room for the rows waiting for the screen (four) and the row at hand.
    float scratch[5][kCodeBytes];
    if (screen == nullptr || !screen->centroids.all_usable) {
        for (uint32_t i = 0; i < n; ++i)
            assignment[i] = nearest_full_scan(rows.get(i, scratch[0]), centroids, k);
        if (screen != nullptr) {
            screen->have_bounds = false;
            screen->drift_valid = false;
            screen->rows_scanned += n;
        }
        return;
    }
    l2sq_screen& s = *screen;
    const kernel_table& kernel = kernels();
    const uint32_t k4 = (k + 3u) & ~3u;  // within the zero-filled padding rows
    const std::size_t ld = s.centroids.padded;
    const bool drift = s.drift_valid;
    const bool neighbours = s.have_neighbours && s.have_last;

    // Rows that need the int8 screen are gathered four at a time for the dot-product kernel.
    uint32_t pending[4];
    const float* pending_rows[4];
    uint32_t n_pending = 0;
    auto flush = [&]() {
        const int8_t* four[4];
        for (uint32_t r = 0; r < 4; ++r) four[r] = s.rows.code(pending[r < n_pending ? r : 0]);
        kernel.screen_dots4(four, s.centroids.codes.get(), s.centroids.code_sums.get(), k4,
                            s.tile_dots.get(), ld);
        for (uint32_t r = 0; r < n_pending; ++r) {
            const uint32_t i = pending[r];
            assignment[i] = nearest_screened(pending_rows[r], centroids, k, kernel, s, i,
                                             s.tile_dots.get() + r * ld, &s.other_lower[i]);
        }
        s.rows_screened += n_pending;
        n_pending = 0;
    };

    for (uint32_t i = 0; i < n; ++i) {
        // Read into the next free pending slot, so a row that goes to the screen stays there.
        const float* x = rows.get(i, scratch[n_pending]);
        if (!s.rows.usable[i]) {
            assignment[i] = nearest_full_scan(x, centroids, k);
            s.other_lower[i] = -1.0;
            ++s.rows_scanned;
            continue;
        }
        uint32_t choice;
        double lower;
        if (drift && nearest_by_drift(x, centroids, k, s, i, &choice, &lower)) {
            assignment[i] = choice;
            s.other_lower[i] = lower;
            ++s.rows_by_drift;
            continue;
        }
        if (neighbours && nearest_by_neighbours(x, centroids, s, i, &choice, &lower)) {
            assignment[i] = choice;
            s.other_lower[i] = lower;
            ++s.rows_by_neighbours;
            continue;
        }
        pending_rows[n_pending] = x;
        pending[n_pending++] = i;
        if (n_pending == 4) flush();
    }
    if (n_pending > 0) flush();
    std::memcpy(s.last.get(), assignment, static_cast<std::size_t>(n) * sizeof(uint32_t));
    s.have_bounds = true;
    s.have_last = true;
    s.drift_valid = false;
    s.have_neighbours = false;
}

namespace {

// d[i] = l2sq_512(row i, row pick) wherever that is smaller than d[i] (replaced only when d[i]
// is strictly larger). The screen skips rows whose distance to the pick cannot be below d[i].
void lower_distances(row_source rows, uint32_t n, uint32_t pick, float* d, l2sq_screen* screen) {
    float pick_row[kCodeBytes], scratch[kCodeBytes];
    const float* p = rows.get(pick, pick_row);
    if (screen == nullptr || !screen->rows.usable[pick]) {
        for (uint32_t i = 0; i < n; ++i) {
            const float v = l2sq_512(rows.get(i, scratch), p);
            if (d[i] > v) d[i] = v;
        }
        return;
    }
    const row_sketches& rs = screen->rows;
    int32_t* dots = screen->row_dots.get();
    float* lo = screen->lo.get();
    kernels().dot512_many(rs.code(pick), rs.codes.get(), n, dots);
    kernels().screen_bounds(rs.point(pick), rs.columns(), dots, lo);
    const uint8_t* usable = rs.usable.get();
    for (uint32_t i = 0; i < n; ++i) {
        if (usable[i] && !(lo[i] < d[i])) continue;
        const float v = l2sq_512(rows.get(i, scratch), p);
        if (d[i] > v) d[i] = v;
    }
}

// The seeding after the first pick when every row is screenable. Each row belongs to the pick
// its d[i] was measured to (d[i] is exactly l2sq_512 of the row and that pick). A new pick p
// lowers d[i] only if the float distance to p is below d[i]; with c the row's pick, the
// triangle inequality gives |x - p| >= |p - c| - |x - c|, so when |p - c| exceeds twice the
// largest true distance d[i] allows, p is strictly farther than c in float as well, for the
// whole group of c at once. The groups' bounds only grow when rows join, and rows that leave
// keep the old bound valid, if loose; a pass over a group's rows tightens it to their largest
// d[i]. The same test applies to each row of a group looked at, with the row's own d[i].
// Scratch comes from the screen's assignment arrays, unused until the first assignment and the
// first centroid neighbour lists: last (owners), drift (group bounds), by_drift (flags),
// rest_lower (the rows' thresholds), pair_dist (the groups' largest d[i] seen).
void pick_by_groups(row_source rows, uint32_t n, uint32_t k, unsigned int* state, uint32_t* out,
                    float* d, l2sq_screen& s) {
    uint32_t* owner = s.last.get();
    double* group_max = s.drift.get();
    uint32_t* look = s.by_drift.get();
    double* skip_below = s.rest_lower.get();
    float* kept_max = s.pair_dist.get();
    float pick_row[kCodeBytes], other_row[kCodeBytes], scratch[kCodeBytes];
    const kernel_table& kernel = kernels();
    const row_sketches& rs = s.rows;
    const sketch_columns columns = rs.columns();

    float largest = 0.0f;
    for (uint32_t i = 0; i < n; ++i) {
        owner[i] = 0;
        largest = d[i] > largest ? d[i] : largest;
    }
    group_max[0] = largest;
    for (uint32_t j = 1; j < k; ++j) {
        const uint32_t pick = kmeans_pp_draw(d, n, state);
        out[j] = pick;
        const float* p = rows.get(pick, pick_row);
        bool any = false;
        for (uint32_t g = 0; g < j; ++g) {
            const double to_pick = distance_below(l2sq_512(p, rows.get(out[g], other_row)));
            look[g] =
                !(to_pick > 2.0 * distance_beyond(static_cast<float>(group_max[g])) + kDistSlack);
            any = any || look[g];
            // The per-row form of the test as one threshold on d[i]: a row is skipped when
            // d[i] < skip_below, which implies to_pick > 2 distance_beyond(d[i]) + slack (the
            // threshold is shrunk by a relative 1e-9 to cover its own rounding).
            const double half = (to_pick - kDistSlack) / 2.0 - kDistSlack;
            skip_below[g] = half > 0.0 ? (half * half * (1.0 - kEps) - kTau) * (1.0 - 1e-9) : -1.0;
            kept_max[g] = 0.0f;
        }
        group_max[j] = 0.0;
        if (!any) continue;
        // A row the triangle test cannot rule out goes through the int8 screen of the pick
        // alone (one integer dot product), which rules out most of the rest before the float
        // distance.
        const int8_t* pick_code = rs.code(pick);
        const sketch_point pick_point = rs.point(pick);
        for (uint32_t i = 0; i < n; ++i) {
            const uint32_t g = owner[i];
            if (!look[g]) continue;
            if (static_cast<double>(d[i]) < skip_below[g] ||
                !(screen_lower_one(pick_point, columns, i, kernel.dot512(pick_code, rs.code(i))) <
                  d[i])) {
                kept_max[g] = d[i] > kept_max[g] ? d[i] : kept_max[g];
                continue;
            }
            const float v = l2sq_512(rows.get(i, scratch), p);
            if (d[i] > v) {
                d[i] = v;
                owner[i] = j;
                if (v > group_max[j]) group_max[j] = v;
            } else {
                kept_max[g] = d[i] > kept_max[g] ? d[i] : kept_max[g];
            }
        }
        // Every row left in a group looked at was seen, so its bound tightens to their largest d.
        for (uint32_t g = 0; g < j; ++g) {
            if (look[g]) group_max[g] = kept_max[g];
        }
    }
}

}  // namespace

int pick_kmeans_pp_indices_screened(row_source rows, uint32_t n, uint32_t k, unsigned int* state,
                                    uint32_t* out, l2sq_screen* screen) {
    if (k == 0 || k > n || rows.empty() || out == nullptr) return -1;
    c_unique<float[]> d = c_alloc_array<float>(n);
    if (!d) return -1;

    const uint32_t first = kmeans_rand_index(state, n);
    out[0] = first;
    float first_row[kCodeBytes], scratch[kCodeBytes];
    const float* f = rows.get(first, first_row);
    for (uint32_t i = 0; i < n; ++i) d[i] = l2sq_512(rows.get(i, scratch), f);
    if (k == 1) return 0;

    if (screen != nullptr && screen->rows.all_usable) {
        pick_by_groups(rows, n, k, state, out, d.get(), *screen);
        return 0;
    }
    for (uint32_t j = 1; j < k; ++j) {
        const uint32_t pick = kmeans_pp_draw(d.get(), n, state);
        out[j] = pick;
        lower_distances(rows, n, pick, d.get(), screen);
    }
    return 0;
}

}  // namespace orve

int pick_kmeans_pp_indices(const float* rows, uint32_t n, uint32_t k, unsigned int* state,
                           uint32_t* out) {
    return orve::pick_kmeans_pp_indices_screened(rows, n, k, state, out, nullptr);
}
