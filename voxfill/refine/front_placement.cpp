// Placement of one candidate point per face of the front.
#include "voxfill/refine/front_placement.h"

#include <cfloat>
#include <cmath>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "delaunay/cpu_lanes.h"
#include "delaunay/geometry.h"
#include "delaunay/lanes_avx.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/tet_tables.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/optim/move_merit.h"
#include "voxfill/refine/metric_trace.h"

// The pulls of the three edges on the apex in AVX2 lanes where the processor has them, chosen when
// the program runs.
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define VOXFILL_PLACE_AVX2 1
#include <immintrin.h>
#define VOXFILL_AVX2 __attribute__((target("avx2")))
#else
#define VOXFILL_PLACE_AVX2 0
#endif

namespace kelvo::voxfill {

namespace {

constexpr double THIRD = 0.3333333333333333;
constexpr double SQRT3 = 1.7320508075688772;
constexpr double REGULAR_HEIGHT = 0.2721655269759087;  // sqrt(2/3) / 3
constexpr double HALF_SQRT2 = 0.7071067811865476;
constexpr double FLAT = 1e-12;
constexpr unsigned ITERATIONS = 10;
constexpr unsigned HEIGHTS = 6;

double distance(const double* p, const double* q) noexcept {
  return std::sqrt(geometry_detail::dist2<3>(p, q));
}

// Shape alone from a weight of 1 up; below, the worst size fit pulls the merit down.
double blend(double worst, double q, double shape_weight) noexcept {
  if (shape_weight >= 1.0) return q;
  return worst * std::pow(q / worst, shape_weight);
}

// The merit of the best position so far; its power is taken only when a comparison needs it.
struct lazy_merit {
  double worst = 0.0, q = 0.0, value = 0.0;
  bool known = false;
  double get(double shape_weight) noexcept {
    if (!known) value = blend(worst, q, shape_weight), known = true;
    return value;
  }
};

#if !defined(__SSE2__)
// ln(r) for r near 1 by 2 atanh((r - 1) / (r + 1)) to the fifth power; `err` gets a bound on
// the terms left off and the rounding. False when r is too far from 1 for the bound to be tight.
bool log_near_one(double r, double& value, double& err) noexcept {
  const double u = (r - 1.0) / (r + 1.0);
  if (!(std::fabs(u) <= 0.25)) return false;
  const double u2 = u * u;
  value = 2.0 * u * (1.0 + u2 * (1.0 / 3.0 + u2 * 0.2));
  // The terms left off sum to at most 2 |u|^7 / (7 (1 - u^2)), below 0.31 |u|^7 for |u| <= 1/4.
  err = 0.31 * std::fabs(u) * (u2 * u2 * u2) + 1e-15 * std::fabs(value) + 1e-15;
  return true;
}
#endif

#if defined(__SSE2__)
// log_near_one of r0 and r1 in the two lanes of one register, the same operations in the same
// order; false unless both ratios are near enough to 1.
[[gnu::always_inline]] inline bool log_near_one_pair(__m128d r, __m128d& value,
                                                     __m128d& err) noexcept {
  const __m128d one = _mm_set1_pd(1.0), sign = _mm_set1_pd(-0.0);
  const __m128d u = _mm_div_pd(_mm_sub_pd(r, one), _mm_add_pd(r, one));
  const __m128d au = _mm_andnot_pd(sign, u);
  if (_mm_movemask_pd(_mm_cmple_pd(au, _mm_set1_pd(0.25))) != 3) return false;
  const __m128d u2 = _mm_mul_pd(u, u);
  value = _mm_mul_pd(_mm_mul_pd(_mm_set1_pd(2.0), u),
                     _mm_add_pd(one, _mm_mul_pd(u2, _mm_add_pd(_mm_set1_pd(1.0 / 3.0),
                                                               _mm_mul_pd(u2, _mm_set1_pd(0.2))))));
  err = _mm_add_pd(
      _mm_add_pd(_mm_mul_pd(_mm_mul_pd(_mm_set1_pd(0.31), au), _mm_mul_pd(_mm_mul_pd(u2, u2), u2)),
                 _mm_mul_pd(_mm_set1_pd(1e-15), _mm_andnot_pd(sign, value))),
      _mm_set1_pd(1e-15));
  return true;
}
#endif

// Whether blend(worst, q) < blend(b.worst, b.q). The blend is worst^(1 - w) q^w, so the sign of
// (1 - w) ln(worst / b.worst) + w ln(q / b.q) decides it wherever that stands clear of the
// rounding of both blends (a few units in the last place); elsewhere the powers are taken. `m`
// gets the merit of (worst, q) when it was worked out.
[[gnu::always_inline]] inline bool merit_below(double worst, double q, lazy_merit& b, double w,
                                               lazy_merit& m) noexcept {
#if defined(__SSE2__)
  // The new pair and the best in two lanes each: the range tests by four compares, then both
  // logarithms; the weighted sums as the scalar terms, lane 0 first.
  const __m128d a = _mm_set_pd(q, worst), c = _mm_set_pd(b.q, b.worst);
  const __m128d zero = _mm_setzero_pd(), one = _mm_set1_pd(1.0);
  const __m128d in = _mm_and_pd(_mm_and_pd(_mm_cmpgt_pd(a, zero), _mm_cmple_pd(a, one)),
                                _mm_and_pd(_mm_cmpgt_pd(c, zero), _mm_cmple_pd(c, one)));
  if (w > 0.0 && w < 1.0 && _mm_movemask_pd(in) == 3) {
    __m128d l, e;
    if (log_near_one_pair(_mm_div_pd(a, c), l, e)) {
      const __m128d wv = _mm_set_pd(w, 1.0 - w);
      const __m128d dl = _mm_mul_pd(wv, l), de = _mm_mul_pd(wv, e);
      const double d = _mm_cvtsd_f64(dl) + _mm_cvtsd_f64(_mm_unpackhi_pd(dl, dl));
      const double err = (_mm_cvtsd_f64(de) + _mm_cvtsd_f64(_mm_unpackhi_pd(de, de))) + 1e-13;
      if (d > err) return false;
      if (d < -err) return true;
    }
  }
#else
  if (w > 0.0 && w < 1.0 && worst > 0.0 && b.worst > 0.0 && q > 0.0 && b.q > 0.0 && worst <= 1.0 &&
      b.worst <= 1.0 && q <= 1.0 && b.q <= 1.0) {
    double l1, e1, l2, e2;
    if (log_near_one(worst / b.worst, l1, e1) && log_near_one(q / b.q, l2, e2)) {
      const double d = (1.0 - w) * l1 + w * l2;
      const double e = (1.0 - w) * e1 + w * e2 + 1e-13;
      if (d > e) return false;
      if (d < -e) return true;
    }
  }
#endif
  m.value = blend(worst, q, w);
  m.known = true;
  return m.value < b.get(w);
}

bool walkable(const size_field& f) noexcept {
  const node_locator& loc = f.locator;
  return loc.nodes && loc.tets && loc.neighbors && loc.ancestors;
}

// The memo of the apex's walks, and what a size in the memo's tet needs besides: whether the
// field's walks can start there and the tet is in the domain, and its nodes' sizes. Valid while
// the field's mesh and sizes stay as they are, like the memo.
struct apex_memo {
  walk_memo walk;
  unsigned tet = NONE;  // the tet the fields below describe
  bool walks = false, in_domain = false, sized = false;
  double sizes[4] = {0.0, 0.0, 0.0, 0.0};
};

// Length of the edge from face node i to the apex in the field; false when it can't be traced.
bool apex_edge_length(size_field& f, const apex_frame& frame, const double* frame_sizes,
                      unsigned* frame_tets, unsigned i, double& L) noexcept {
  const double* p = frame.col(i);
  const double* P = frame.col(3);
  if (f.direct_lengths) {
    const double h = log_mean(frame_sizes[i], frame_sizes[3]);
    L = h > 0.0 ? distance(p, P) / h : 0.0;
    return true;
  }
  if (frame_tets[i] == NONE && walkable(f))
    locate_tet(f.locator, p, frame_tets[i], LOCATE_TOL, f.walk_bits);
  const bool ok = frame_tets[i] != NONE
                      ? trace_length(f, p, frame_tets[i], frame_sizes[i], P, frame_tets[3],
                                     frame_sizes[3], DBL_MAX)
                      : trace_steps(f, p, P, NONE, frame_sizes[i], frame_sizes[3], DBL_MAX);
  L = ok ? trace_last_length(f) : 0.0;
  return ok;
}

// From the lengths L of the edges from the face nodes to the apex: the worst size fit (the
// smaller of L and 1 / L), the largest |1 / L - 1|, and the apex's move.
void edge_pulls_scalar(const apex_frame& frame, const double* L, double& worst, double& deviation,
                       double* step) noexcept {
  const double* P = frame.col(3);
  worst = DBL_MAX;
  deviation = 0.0;
  step[0] = step[1] = step[2] = 0.0;
  for (unsigned i = 0; i < 3; ++i) {
    const double inv = 1.0 / L[i];
    const double r = L[i] <= 1.0 ? L[i] : inv;
    if (r < worst) worst = r;
    const double dev = std::fabs(inv - 1.0);
    if (dev > deviation) deviation = dev;
    // A long edge pulls the apex towards its node by at most a quarter of the edge; a short one
    // pushes it away by at most a half.
    double ci = std::sqrt(inv) - 1.0;
    ci = ci < -0.5 ? -0.5 : (ci > 1.0 ? 1.0 : ci);
    ci *= 0.5;
    const double* p = frame.col(i);
    for (unsigned d = 0; d < 3; ++d) step[d] += ci * (P[d] - p[d]);
  }
}

#if VOXFILL_PLACE_AVX2
const bool has_avx2 = lanes_avx2();

VOXFILL_AVX2 inline __m256d load3(const double* p) noexcept {
  return _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadu_pd(p)), _mm_load_sd(p + 2), 1);
}

// edge_pulls_scalar with edge i in lane i: the worst fit, the largest deviation and the pull
// factors by lanes, the scalar operations one for one and in the same order (nothing fused).
VOXFILL_AVX2 inline __m256d pull_factors(__m256d l, double& worst, double& deviation) noexcept {
  const __m256d one = _mm256_set1_pd(1.0);
  const __m256d inv = _mm256_div_pd(one, l);
  const __m256d r = _mm256_blendv_pd(inv, l, _mm256_cmp_pd(l, one, _CMP_LE_OQ));
  const __m256d dev = _mm256_andnot_pd(_mm256_set1_pd(-0.0), _mm256_sub_pd(inv, one));
  __m256d ci = _mm256_sub_pd(_mm256_sqrt_pd(inv), one);
  const __m256d low = _mm256_set1_pd(-0.5);
  ci = _mm256_blendv_pd(_mm256_blendv_pd(ci, one, _mm256_cmp_pd(ci, one, _CMP_GT_OQ)), low,
                        _mm256_cmp_pd(ci, low, _CMP_LT_OQ));
  ci = _mm256_mul_pd(ci, _mm256_set1_pd(0.5));
  // The scalar scans edge by edge: min_sd and max_sd keep the running value unless the new one is
  // strictly below (above) it, NaN included.
  {
    const __m128d r01 = _mm256_castpd256_pd128(r), r2 = _mm256_extractf128_pd(r, 1);
    __m128d m = _mm_min_sd(r01, _mm_set_sd(DBL_MAX));
    m = _mm_min_sd(_mm_unpackhi_pd(r01, r01), m);
    worst = _mm_cvtsd_f64(_mm_min_sd(r2, m));
    const __m128d d01 = _mm256_castpd256_pd128(dev), d2 = _mm256_extractf128_pd(dev, 1);
    __m128d x = _mm_max_sd(d01, _mm_setzero_pd());
    x = _mm_max_sd(_mm_unpackhi_pd(d01, d01), x);
    deviation = _mm_cvtsd_f64(_mm_max_sd(d2, x));
  }
  return ci;
}

// The same with the move, coordinate d in lane d.
VOXFILL_AVX2 inline void pulls_of_lengths(const apex_frame& frame, __m256d l, double& worst,
                                          double& deviation, double* step) noexcept {
  const __m256d ci = pull_factors(l, worst, deviation);
  const __m256d P = load3(frame.col(3));
  __m256d s = _mm256_setzero_pd();
  s = _mm256_add_pd(
      s, _mm256_mul_pd(_mm256_permute4x64_pd(ci, 0x00), _mm256_sub_pd(P, load3(frame.col(0)))));
  s = _mm256_add_pd(
      s, _mm256_mul_pd(_mm256_permute4x64_pd(ci, 0x55), _mm256_sub_pd(P, load3(frame.col(1)))));
  s = _mm256_add_pd(
      s, _mm256_mul_pd(_mm256_permute4x64_pd(ci, 0xAA), _mm256_sub_pd(P, load3(frame.col(2)))));
  alignas(32) double out[4];
  _mm256_store_pd(out, s);
  step[0] = out[0];
  step[1] = out[1];
  step[2] = out[2];
}

// The face's points by coordinates, p0, p1, p2 and p0 again in lanes 0 to 3, taken once for all
// trial apexes over the face: less an apex they are the edge vectors of its tet's quality.
struct face_lanes {
  alignas(32) double x[4], y[4], z[4];
};

void fill_face_lanes(const apex_frame& frame, face_lanes& f) noexcept {
  for (unsigned l = 0; l < 4; ++l) {
    const double* p = frame.col(l < 3 ? l : 0);
    f.x[l] = p[0];
    f.y[l] = p[1];
    f.z[l] = p[2];
  }
}

// log_mean(s[i], s[3]) in lane i for i = 0, 1, 2 with the same operations in the same order;
// lane 3 comes out as s[3]'s mean with itself, without a logarithm.
VOXFILL_AVX2 inline __m256d log_means(const double* s) noexcept {
  const __m256d a = _mm256_loadu_pd(s), b = _mm256_set1_pd(s[3]);
  const __m256d less = _mm256_cmp_pd(a, b, _CMP_LT_OQ);
  const __m256d lo = _mm256_blendv_pd(b, a, less), hi = _mm256_blendv_pd(a, b, less);
  const __m256d r = _mm256_div_pd(_mm256_sub_pd(hi, lo), lo);
  // The series; halving is exact, as the division by 2.
  const __m256d x = _mm256_mul_pd(r, _mm256_set1_pd(0.5)), one = _mm256_set1_pd(1.0),
                third = _mm256_set1_pd(1.0 / 3);
  __m256d t = _mm256_sub_pd(third, _mm256_mul_pd(_mm256_set1_pd(0.42222222222222217), x));
  t = _mm256_sub_pd(one, _mm256_mul_pd(_mm256_sub_pd(third, _mm256_mul_pd(t, x)), x));
  __m256d mean = _mm256_mul_pd(lo, _mm256_add_pd(one, _mm256_mul_pd(x, t)));
  const int far = _mm256_movemask_pd(_mm256_cmp_pd(r, _mm256_set1_pd(0.1), _CMP_GE_OQ)) & 7;
  if (far) {
    // The lanes whose ratio is not near 1 take the logarithm.
    alignas(32) double rs[4], los[4], out[4];
    _mm256_store_pd(rs, r);
    _mm256_store_pd(los, lo);
    _mm256_store_pd(out, mean);
    for (unsigned i = 0; i < 3; ++i)
      if (far >> i & 1) out[i] = los[i] * rs[i] / std::log(1.0 + rs[i]);
    mean = _mm256_load_pd(out);
  }
  return mean;
}

// The pulls with the lengths over the log means of the sizes of `s` (face nodes, then the apex),
// and the quality that tet_quality_wide gives the tet (p0, p1, p2, apex), from the same
// differences: the squared lengths of the pulls are the quality's first dot products, summed in
// the same order. The quality is that of tet_quality_wide bit for bit, its doubtful cases by the
// scalar routine.
VOXFILL_AVX2 double direct_trial_avx2(const apex_frame& frame, const face_lanes& f, const double* s,
                                      double& worst, double& deviation, double* step) noexcept {
  // The means first: no lanes are live across their calls of the logarithm.
  const __m256d hv = log_means(s);
  const double* P = frame.col(3);
  const __m256d fx = _mm256_load_pd(f.x), fy = _mm256_load_pd(f.y), fz = _mm256_load_pd(f.z);
  const __m256d Px = _mm256_set1_pd(P[0]), Py = _mm256_set1_pd(P[1]), Pz = _mm256_set1_pd(P[2]);
  const __m256d x = _mm256_sub_pd(fx, Px), y = _mm256_sub_pd(fy, Py), z = _mm256_sub_pd(fz, Pz);
  constexpr int ABCB = 0 | 1 << 2 | 2 << 4 | 1 << 6;
  // S1 = (L0, L1, L2, dab).
  const __m256d S1 =
      avx_lanes::dot4(x, y, z, _mm256_permute4x64_pd(x, ABCB), _mm256_permute4x64_pd(y, ABCB),
                      _mm256_permute4x64_pd(z, ABCB));
  {
    // The pulls: lane 3 only pads, its length taken as 1, which gives it no pull.
    const __m256d zero = _mm256_setzero_pd();
    const __m256d l = _mm256_blendv_pd(zero, _mm256_div_pd(_mm256_sqrt_pd(S1), hv),
                                       _mm256_cmp_pd(hv, zero, _CMP_GT_OQ));
    const __m256d ci = pull_factors(_mm256_blend_pd(l, _mm256_set1_pd(1.0), 8), worst, deviation);
    // The move: ci (P - p_i) of edge i in lane i, turned into one row per edge and summed from
    // 0.0 edge by edge, as the scalar loop sums it.
    const __m256d mx = _mm256_mul_pd(ci, _mm256_sub_pd(Px, fx));
    const __m256d my = _mm256_mul_pd(ci, _mm256_sub_pd(Py, fy));
    const __m256d mz = _mm256_mul_pd(ci, _mm256_sub_pd(Pz, fz));
    const __m256d xy02 = _mm256_unpacklo_pd(mx, my), xy13 = _mm256_unpackhi_pd(mx, my);
    const __m256d z02 = _mm256_unpacklo_pd(mz, zero), z13 = _mm256_unpackhi_pd(mz, zero);
    __m256d m = _mm256_add_pd(zero, _mm256_permute2f128_pd(xy02, z02, 0x20));
    m = _mm256_add_pd(m, _mm256_permute2f128_pd(xy13, z13, 0x20));
    m = _mm256_add_pd(m, _mm256_permute2f128_pd(xy02, z02, 0x31));
    alignas(32) double out[4];
    _mm256_store_pd(out, m);
    step[0] = out[0];
    step[1] = out[1];
    step[2] = out[2];
  }
  const double q = avx_lanes::tet_quality_of_edges(x, y, z, S1);
  if (q <= 1.0) return q;
  return tet_quality(frame.col(0), frame.col(1), frame.col(2), P);
}

VOXFILL_AVX2 void edge_pulls_avx2(const apex_frame& frame, const double* L, double& worst,
                                  double& deviation, double* step) noexcept {
  pulls_of_lengths(frame, _mm256_set_pd(1.0, L[2], L[1], L[0]), worst, deviation, step);
}

// The lengths of the direct case in lanes too: the distance from node i to the apex over h[i]
// (0.0 for h[i] not above 0.0), computed as distance() and the scalar division.
VOXFILL_AVX2 void direct_pulls_avx2(const apex_frame& frame, const double* h, double& worst,
                                    double& deviation, double* step) noexcept {
  const double *p0 = frame.col(0), *p1 = frame.col(1), *p2 = frame.col(2), *P = frame.col(3);
  __m256d s = _mm256_setzero_pd();
  for (unsigned k = 0; k < 3; ++k) {
    const __m256d d = _mm256_sub_pd(_mm256_set_pd(P[k], p2[k], p1[k], p0[k]), _mm256_set1_pd(P[k]));
    s = _mm256_add_pd(s, _mm256_mul_pd(d, d));
  }
  const __m256d hv = _mm256_set_pd(1.0, h[2], h[1], h[0]), zero = _mm256_setzero_pd();
  const __m256d l = _mm256_blendv_pd(zero, _mm256_div_pd(_mm256_sqrt_pd(s), hv),
                                     _mm256_cmp_pd(hv, zero, _CMP_GT_OQ));
  // Lane 3 only pads: its length is taken as 1.
  pulls_of_lengths(frame, _mm256_blend_pd(l, _mm256_set1_pd(1.0), 8), worst, deviation, step);
}
#endif

void direct_pulls(const apex_frame& frame, const double* h, double& worst, double& deviation,
                  double* step) noexcept {
#if VOXFILL_PLACE_AVX2
  if (has_avx2) {
    direct_pulls_avx2(frame, h, worst, deviation, step);
    return;
  }
#endif
  double L[3];
  for (unsigned i = 0; i < 3; ++i)
    L[i] = h[i] > 0.0 ? distance(frame.col(i), frame.col(3)) / h[i] : 0.0;
  edge_pulls_scalar(frame, L, worst, deviation, step);
}

void edge_pulls(const apex_frame& frame, const double* L, double& worst, double& deviation,
                double* step) noexcept {
#if VOXFILL_PLACE_AVX2
  if (has_avx2) {
    edge_pulls_avx2(frame, L, worst, deviation, step);
    return;
  }
#endif
  edge_pulls_scalar(frame, L, worst, deviation, step);
}

}  // namespace

double first_apex(const apex_frame& frame, const double* frame_sizes, const unsigned* face_order,
                  double height_factor, double shape_weight, double* apex) noexcept {
  const double* xyz = frame.col(0);
  double N[3];
  face_normal(xyz, face_order[0], face_order[1], face_order[2], N);
  const double nn = geometry_detail::dot3(N, N);
  if (nn != 0.0 && nn != 1.0) {
    const double r = std::sqrt(nn);
    for (unsigned k = 0; k < 3; ++k) N[k] /= r;
  }
  const double *p0 = frame.col(0), *p1 = frame.col(1), *p2 = frame.col(2);
  double G[3];
  for (unsigned k = 0; k < 3; ++k) G[k] = (p0[k] + p1[k] + p2[k]) * THIRD;
  const double S = frame_sizes[0] + frame_sizes[1] + frame_sizes[2];
  const double R = distance(G, p0) + distance(G, p1) + distance(G, p2);
  // For an equilateral face sqrt(3) R is the sum of the sides: the weight blends the wanted
  // sizes with the face's own.
  const double base = S + (SQRT3 * R - S) * shape_weight;
  const double H = height_factor * REGULAR_HEIGHT * base;
  for (unsigned k = 0; k < 3; ++k) apex[k] = G[k] + H * N[k];
  return H;
}

namespace {

// The moves of the apex from its first position, whose size the frame holds: `trial` gives the
// quality of the frame's tet, the worst size fit, the largest deviation and the move, or false
// when the lengths can't be traced; it also makes the apex's look-ups in the field. Written once
// for the plain trials and the lanes.
template <class Trial>
[[gnu::always_inline]] inline bool move_apex(apex_frame& frame, double* frame_sizes,
                                             unsigned* frame_tets, double shape_weight,
                                             double& quality, apex_memo& memo,
                                             Trial& trial) noexcept {
  double* P = frame.col(3);
  lazy_merit best;
  double best_worst = 0.0;
  // Only the apex moves: the face and its sizes stay as they are.
  double saved[3] = {0.0, 0.0, 0.0}, saved_size = 0.0;
  bool kept = false;
  bool go = true;
  for (unsigned k = 0; k < ITERATIONS && go; ++k) {
    double worst, deviation, step[3];
    // The frame's tet turns the other way from the bad tet's: the apex stands on its side.
    double q;
    if (!trial(q, worst, deviation, step)) break;
    if (q < FLAT) break;
    // While the size fit is poor and getting better, better size beats merit: a new start, which
    // keeps this position whatever its merit.
    const bool restart = k == 0 || (worst < HALF_SQRT2 && worst > best_worst);
    if (restart) best_worst = worst;
    lazy_merit m;
    if (restart || !merit_below(worst, q, best, shape_weight, m)) {
      best.worst = worst;
      best.q = q;
      best.value = m.value;
      best.known = m.known;
      for (unsigned d = 0; d < 3; ++d) saved[d] = P[d];
      saved_size = frame_sizes[3];
      quality = q;
      kept = true;
      if (deviation > FLAT) {
        for (unsigned d = 0; d < 3; ++d) P[d] += step[d];
        if (frame_tets[3] == NONE) frame_tets[3] = frame_tets[2];
        // The last move is never measured, but its walk draws the same random bits.
        if (k + 1 == ITERATIONS || !(deviation > 0.02))
          trial.walk(P, frame_tets[3], memo);
        else if (!trial.size_at(P, frame_tets[3], frame_sizes[3], memo))
          go = false;
      }
    } else {
      go = false;
    }
    if (!(deviation > 0.02)) go = false;
  }
  if (!kept) return false;
  for (unsigned d = 0; d < 3; ++d) P[d] = saved[d];
  frame_sizes[3] = saved_size;
  return true;
}

// A trial by the lengths in the field and tet_quality_wide in the order of the context.
struct plain_trial {
  size_field& field;
  apex_frame& frame;
  double* frame_sizes;
  unsigned* frame_tets;
  const unsigned* o;
  bool operator()(double& q, double& worst, double& deviation, double* step) noexcept {
    if (field.direct_lengths) {
      // Over the mesh itself a length is the distance over the log mean of the end sizes.
      double h[3];
      for (unsigned i = 0; i < 3; ++i) h[i] = log_mean(frame_sizes[i], frame_sizes[3]);
      direct_pulls(frame, h, worst, deviation, step);
    } else {
      double L[3];
      for (unsigned i = 0; i < 3; ++i)
        if (!apex_edge_length(field, frame, frame_sizes, frame_tets, i, L[i])) return false;
      edge_pulls(frame, L, worst, deviation, step);
    }
    q = -tet_quality_wide(frame.col(o[0]), frame.col(o[1]), frame.col(o[2]), frame.col(o[3]));
    return true;
  }
  void walk(const double* P, unsigned& tet, apex_memo& memo) noexcept {
    field_walk(field, P, tet, memo.walk);
  }
  bool size_at(const double* P, unsigned& tet, double& h, apex_memo& memo) noexcept {
    return field_size_at(field, P, tet, h, memo.walk);
  }
};

#if VOXFILL_PLACE_AVX2
// The first step of a walk that starts in the memo's tet, as the walk takes it: the face tests
// of its nodes by lanes (face f in lane f, the same operations in the same order), whose mask is
// 0 when P lies in the tet.
[[gnu::always_inline]] VOXFILL_AVX2 inline int memo_faces(const walk_memo& memo,
                                                          const double* P) noexcept {
  const __m256d p[3] = {_mm256_set1_pd(P[0]), _mm256_set1_pd(P[1]), _mm256_set1_pd(P[2])};
  return avx_lanes::beyond_faces_lanes(
      _mm256_load_pd(memo.nodes[0]), _mm256_load_pd(memo.nodes[1]), _mm256_load_pd(memo.nodes[2]),
      p, _mm256_set1_pd(memo.V * LOCATE_TOL), _mm256_set_pd(0.0, -0.0, 0.0, 0.0));
}

// A look-up of the field at P from `tet` that the walk would answer in the memo's tet at its
// first step: then the size there (with `sized`), and the one random draw of that step. False,
// nothing drawn, where the look-up must be left to the field (another start, a step out of the
// tet, no size there, or a draw that refills the bits).
[[gnu::always_inline]] VOXFILL_AVX2 inline bool memo_look_up(size_field& field, const double* P,
                                                             unsigned tet, apex_memo& m, bool sized,
                                                             double& h) noexcept {
  const walk_memo& memo = m.walk;
  if (tet == NONE || tet != memo.tet || field.walk_bits.count_left == 0) return false;
  if (m.tet != tet) {
    const node_locator& loc = field.locator;
    m.tet = tet;
    m.walks = walkable(field) && loc.tets->cols() != 0;
    m.in_domain = tet < field.colors.size && color_in_domain(field.colors[tet]);
    m.sized = false;
    if (m.walks) {
      const unsigned* n = loc.tets->row(tet);
      const dense1D<double>& s = field.sizes;
      m.sized = n[0] < s.size && n[1] < s.size && n[2] < s.size && n[3] < s.size;
      if (m.sized)
        for (unsigned i = 0; i < 4; ++i) m.sizes[i] = s[n[i]];
    }
  }
  if (!m.walks || !m.in_domain || (sized && !m.sized) || memo_faces(memo, P) != 0) return false;
  if (sized) {
    // The weights as the walk solves them in the memo's tet, and the interpolation of the field.
    double w[3] = {0.0, 0.0, 0.0};
    if (memo.det != 0.0) {
      const __m256d B = _mm256_sub_pd(avx_lanes::load3(P), avx_lanes::load3(memo.q3));
      avx_lanes::refined_solution(_mm256_load_pd(memo.cols[0]), _mm256_load_pd(memo.cols[1]),
                                  _mm256_load_pd(memo.cols[2]), _mm256_load_pd(memo.rows[0]),
                                  _mm256_load_pd(memo.rows[1]), _mm256_load_pd(memo.rows[2]),
                                  _mm256_load_pd(memo.inv), B, 2, w);
    }
    const double* s = m.sizes;
    const double s3 = s[3];
    const double v = s3 + (s[2] - s3) * w[2] + (s[1] - s3) * w[1] + (s[0] - s3) * w[0];
    if (!(v > 0.0 && v < DBL_MAX)) return false;
    h = v;
  }
  field.walk_bits.next();
  return true;
}

// A trial of the direct lengths by the face's lanes, in the plain order of the frame; the apex's
// look-ups by the memo where its tet answers them.
struct lane_trial {
  size_field& field;
  const apex_frame& frame;
  const double* frame_sizes;
  face_lanes lanes;
  VOXFILL_AVX2 bool operator()(double& q, double& worst, double& deviation, double* step) noexcept {
    q = -direct_trial_avx2(frame, lanes, frame_sizes, worst, deviation, step);
    return true;
  }
  // Without a parent a walk that ends in the domain is all that field_walk does.
  VOXFILL_AVX2 void walk(const double* P, unsigned& tet, apex_memo& memo) noexcept {
    double h;
    if (!field.parent_field && memo_look_up(field, P, tet, memo, false, h)) return;
    field_walk(field, P, tet, memo.walk);
  }
  VOXFILL_AVX2 bool size_at(const double* P, unsigned& tet, double& h, apex_memo& memo) noexcept {
    if (memo_look_up(field, P, tet, memo, true, h)) return true;
    return field_size_at(field, P, tet, h, memo.walk);
  }
};

// move_apex with the lane trials, the whole loop in one body with the lanes.
VOXFILL_AVX2 bool move_apex_lanes(size_field& field, apex_frame& frame, double* frame_sizes,
                                  unsigned* frame_tets, double shape_weight, double& quality,
                                  apex_memo& memo) noexcept {
  lane_trial trial{field, frame, frame_sizes, {}};
  fill_face_lanes(frame, trial.lanes);
  return move_apex(frame, frame_sizes, frame_tets, shape_weight, quality, memo, trial);
}
#endif

// adjust_apex with the memo of the apex's walks, kept over the heights of one face.
bool adjust_apex_memo(size_field& field, const refine_context& c, apex_frame& frame,
                      double* frame_sizes, unsigned* frame_tets, double height_factor,
                      double shape_weight, double& quality, apex_memo& memo) noexcept {
  double* P = frame.col(3);
  first_apex(frame, frame_sizes, c.face_order, height_factor, shape_weight, P);
  // A walk from beside the face is short; without a start the locator's tree is searched.
  if (frame_tets[3] == NONE) frame_tets[3] = frame_tets[2];
  if (!field_size_at(field, P, frame_tets[3], frame_sizes[3], memo.walk)) return false;
  const unsigned* o = c.tet_order;
#if VOXFILL_PLACE_AVX2
  // In the plain order of the frame the face's lanes serve every trial.
  if (has_avx2 && field.direct_lengths && o[0] == 0 && o[1] == 1 && o[2] == 2 && o[3] == 3)
    return move_apex_lanes(field, frame, frame_sizes, frame_tets, shape_weight, quality, memo);
#endif
  plain_trial trial{field, frame, frame_sizes, frame_tets, o};
  return move_apex(frame, frame_sizes, frame_tets, shape_weight, quality, memo, trial);
}

}  // namespace

bool adjust_apex(size_field& field, const refine_context& c, apex_frame& frame, double* frame_sizes,
                 unsigned* frame_tets, double height_factor, double shape_weight,
                 double& quality) noexcept {
  apex_memo memo;
  return adjust_apex_memo(field, c, frame, frame_sizes, frame_tets, height_factor, shape_weight,
                          quality, memo);
}

namespace {

// front_point through `memo`, which may hold a tet of the field's mesh from an earlier face: the
// mesh stays as it is over all faces of a front.
double front_point_memo(th4_engine& e, refine_context& c, unsigned f0, unsigned f1, unsigned f2,
                        double* P, double& h, unsigned start, apex_memo& memo) noexcept {
  h = 0.0;
  size_field& field = e.size_field ? *e.size_field : *e.own_size_field;
  const node_locator& loc = field.locator;
  apex_frame frame;
  double frame_sizes[4] = {0.0, 0.0, 0.0, 0.0};
  unsigned frame_tets[4] = {NONE, NONE, NONE, NONE};
  const unsigned face[3] = {f0, f1, f2};
  for (unsigned i = 0; i < 3; ++i) {
    const unsigned n = face[i];
    const double* p = e.nodes.row(n);
    for (unsigned k = 0; k < 3; ++k) frame(k, i) = p[k];
    frame_sizes[i] = n < e.node_sizes.size ? e.node_sizes[n] : 0.0;
    if (loc.ancestors && n < loc.ancestors->size) frame_tets[i] = (*loc.ancestors)[n];
    if (frame_tets[i] == NONE && walkable(field))
      locate_tet(field.locator, frame.col(i), frame_tets[i], LOCATE_TOL, field.walk_bits);
  }
  frame_tets[3] = start != NONE ? start : frame_tets[2];
  double height_factor = 1.0;
  double quality = 0.0;
  bool found = false;
  for (unsigned k = 0; k < HEIGHTS && !found; ++k) {
    found = adjust_apex_memo(field, c, frame, frame_sizes, frame_tets, height_factor,
                             c.shape_weight, quality, memo);
    height_factor *= 0.5;
  }
  if (!found || !(quality > FLAT)) return 0.0;
  for (unsigned k = 0; k < 3; ++k) P[k] = frame(k, 3);
  h = frame_sizes[3];
  return -orient_det(frame.col(0), frame.col(1), frame.col(2), frame.col(3));
}

}  // namespace

double front_point(th4_engine& e, refine_context& c, unsigned f0, unsigned f1, unsigned f2,
                   double* P, double& h, unsigned start) noexcept {
  apex_memo memo;
  return front_point_memo(e, c, f0, f1, f2, P, h, start, memo);
}

void place_candidates(th4_engine& e, refine_context& c, dense2D<double>& points,
                      dense1D<double>& sizes) {
  points.resize(3, 0);
  sizes.clear();
  const unsigned n = c.front_faces.size;
  if (!points.reserve(3, n) || !sizes.reserve(n)) return;
  // Room for a point per face in the reserved storage; the table is cut to the kept ones at the
  // end.
  points.resize(3, n);
  // Over the mesh itself the apex stands in or near the bad tet: its walk is short from there.
  const size_field& field = e.size_field ? *e.size_field : *e.own_size_field;
  const bool own_mesh = &field.locator == &e.locator;
  unsigned count = 0;
  apex_memo memo;
  for (unsigned k = 0; k < n; ++k) {
    const unsigned code = c.front_faces[k];
    const unsigned t = code >> 2, i = code & 3;
    const unsigned* row = e.tets.row(t);
    const unsigned* fn = tet_face_nodes[i];
    double P[3], h;
    if (!(front_point_memo(e, c, row[fn[0]], row[fn[1]], row[fn[2]], P, h, own_mesh ? t : NONE,
                           memo) > 0.0))
      continue;
    // A point in a good tet, in another subdomain or out of the mesh is no candidate.
    unsigned u = t;
    if (!locate_tet(e.locator, P, u, LOCATE_TOL, c.context_bits)) continue;
    if (c.good_tets.test(u) || e.colors[u] != e.colors[t]) continue;
    for (unsigned d = 0; d < 3; ++d) points(d, count) = P[d];
    sizes.push_back(h);
    ++count;
  }
  points.resize(3, count);
}

}  // namespace kelvo::voxfill
