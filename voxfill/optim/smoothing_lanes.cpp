#include "voxfill/optim/smoothing_lanes.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "delaunay/cpu_lanes.h"
#include "delaunay/geometry.h"
#include "delaunay/lanes_avx.h"
#include "delaunay/quality_lanes.h"
#include "voxfill/optim/move_merit.h"

namespace kelvo::voxfill {
namespace {

using namespace geometry_detail;

// One tet, in the operations and order of the walks' face test.
bool inside_one(const double* const* q, const double* P, double tol) noexcept {
  double a[3], b[3], c[3], bc[3];
  sub3(q[0], q[3], a);
  sub3(q[1], q[3], b);
  sub3(q[2], q[3], c);
  cross3(b, c, bc);
  const double V = dot3(a, bc);
  if (!(V > 0.0) || !std::isfinite(V)) return false;
  const double limit = V * tol;
  double d[4][3];
  for (unsigned i = 0; i < 4; ++i)
    for (unsigned k = 0; k < 3; ++k) d[i][k] = q[i][k] - P[k];
  double c23[3], c03[3], c10[3];
  cross3(d[2], d[3], c23);
  cross3(d[0], d[3], c03);
  cross3(d[1], d[0], c10);
  const double D0 = dot3(d[1], c23), D1 = dot3(d[2], c03), D2 = -dot3(d[1], c03),
               D3 = dot3(d[2], c10);
  return !(D0 > limit) && !(D1 > limit) && !(D2 > limit) && !(D3 > limit);
}

// The symmetric length of an edge of length d between sizes h1 and h2.
double exact_fit(double d, double h1, double h2) noexcept {
  const double h = log_mean(h1, h2);
  if (d > h) return h / d;
  return h > 0.0 ? d / h : 0.0;
}

#if VOXFILL_LANES_AVX
using namespace avx_lanes;

const bool has_avx = lanes_avx();
const bool has_avx2 = lanes_avx2();

// The marking of gather_ball for one row.
inline unsigned mark_row(const ball_gather& b, const unsigned* v, unsigned count) noexcept {
  if (b.covered) {
    for (unsigned i = 0; i < 4; ++i) {
      if (b.marks[v[i]] == b.mark) continue;
      b.marks[v[i]] = b.mark;
      b.out[count++] = v[i];
    }
    return count;
  }
  for (unsigned i = 0; i < 4; ++i) {
    if (v[i] < b.marks_size && b.marks[v[i]] == b.mark) continue;
    b.marks[v[i]] = b.mark;
    b.out[count++] = v[i];
  }
  return count;
}

// gather_ball with each row copied whole and its four addresses made in the lanes of one
// register (node times the row stride in bytes, which fits 32 bits, plus the table's start).
// The fields are read once: the stores could alias them.
template <bool covered>
VOXFILL_AVX2 unsigned gather_rows(const ball_gather& b, const unsigned* t, unsigned n,
                                  unsigned node) noexcept {
  const unsigned* tets = b.tets;
  unsigned* rows = b.rows;
  const double** points = b.points;
  unsigned* locals = b.locals;
  unsigned* marks = b.marks;
  unsigned* out = b.out;
  const unsigned marks_size = b.marks_size, mark = b.mark;
  const __m128i self = _mm_set1_epi32(int(node));
  const __m256i stride = _mm256_set1_epi64x(std::int64_t(b.ld * sizeof(double)));
  const __m256i start = _mm256_set1_epi64x(std::int64_t(reinterpret_cast<std::uintptr_t>(b.xyz)));
  unsigned count = 0;
  for (unsigned j = 0; j < n; ++j) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(tets + 4 * t[j]));
    unsigned* r = rows + 4 * j;
    _mm_storeu_si128(reinterpret_cast<__m128i*>(r), v);
    const __m256i at = _mm256_add_epi64(_mm256_mul_epu32(_mm256_cvtepu32_epi64(v), stride), start);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(points + 4 * j), at);
    const int same = _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(v, self)));
    locals[j] = same ? unsigned(__builtin_ctz(unsigned(same))) : 4u;
    if (j < 2) continue;
    for (unsigned i = 0; i < 4; ++i) {
      const unsigned x = r[i];
      if ((covered || x < marks_size) && marks[x] == mark) continue;
      marks[x] = mark;
      out[count++] = x;
    }
  }
  return count;
}

VOXFILL_AVX inline void cross4(__m256d u0, __m256d u1, __m256d u2, __m256d v0, __m256d v1,
                               __m256d v2, __m256d& r0, __m256d& r1, __m256d& r2) noexcept {
  r0 = _mm256_sub_pd(_mm256_mul_pd(u1, v2), _mm256_mul_pd(u2, v1));
  r1 = _mm256_sub_pd(_mm256_mul_pd(u2, v0), _mm256_mul_pd(u0, v2));
  r2 = _mm256_sub_pd(_mm256_mul_pd(u0, v1), _mm256_mul_pd(u1, v0));
}

VOXFILL_AVX unsigned inside_quad(const double* const* const t[4], const double* P,
                                 double tol) noexcept {
  __m256d x[4], y[4], z[4];
  for (unsigned k = 0; k < 4; ++k)
    gather_points(t[0][k], t[1][k], t[2][k], t[3][k], x[k], y[k], z[k]);
  const __m256d a0 = _mm256_sub_pd(x[0], x[3]), a1 = _mm256_sub_pd(y[0], y[3]),
                a2 = _mm256_sub_pd(z[0], z[3]);
  const __m256d b0 = _mm256_sub_pd(x[1], x[3]), b1 = _mm256_sub_pd(y[1], y[3]),
                b2 = _mm256_sub_pd(z[1], z[3]);
  const __m256d c0 = _mm256_sub_pd(x[2], x[3]), c1 = _mm256_sub_pd(y[2], y[3]),
                c2 = _mm256_sub_pd(z[2], z[3]);
  __m256d bc0, bc1, bc2;
  cross4(b0, b1, b2, c0, c1, c2, bc0, bc1, bc2);
  const __m256d V = dot4(a0, a1, a2, bc0, bc1, bc2);
  const __m256d limit = _mm256_mul_pd(V, _mm256_set1_pd(tol));
  const __m256d px = _mm256_set1_pd(P[0]), py = _mm256_set1_pd(P[1]), pz = _mm256_set1_pd(P[2]);
  __m256d d0[4], d1[4], d2[4];
  for (unsigned i = 0; i < 4; ++i) {
    d0[i] = _mm256_sub_pd(x[i], px);
    d1[i] = _mm256_sub_pd(y[i], py);
    d2[i] = _mm256_sub_pd(z[i], pz);
  }
  __m256d c23[3], c03[3], c10[3];
  cross4(d0[2], d1[2], d2[2], d0[3], d1[3], d2[3], c23[0], c23[1], c23[2]);
  cross4(d0[0], d1[0], d2[0], d0[3], d1[3], d2[3], c03[0], c03[1], c03[2]);
  cross4(d0[1], d1[1], d2[1], d0[0], d1[0], d2[0], c10[0], c10[1], c10[2]);
  const __m256d D0 = dot4(d0[1], d1[1], d2[1], c23[0], c23[1], c23[2]);
  const __m256d D1 = dot4(d0[2], d1[2], d2[2], c03[0], c03[1], c03[2]);
  const __m256d D2 =
      _mm256_xor_pd(dot4(d0[1], d1[1], d2[1], c03[0], c03[1], c03[2]), _mm256_set1_pd(-0.0));
  const __m256d D3 = dot4(d0[2], d1[2], d2[2], c10[0], c10[1], c10[2]);
  const __m256d good = _mm256_and_pd(_mm256_cmp_pd(V, _mm256_setzero_pd(), _CMP_GT_OQ),
                                     _mm256_cmp_pd(V, _mm256_set1_pd(HUGE_VAL), _CMP_LT_OQ));
  const __m256d within = _mm256_and_pd(
      _mm256_and_pd(_mm256_cmp_pd(D0, limit, _CMP_NGT_UQ), _mm256_cmp_pd(D1, limit, _CMP_NGT_UQ)),
      _mm256_and_pd(_mm256_cmp_pd(D2, limit, _CMP_NGT_UQ), _mm256_cmp_pd(D3, limit, _CMP_NGT_UQ)));
  return unsigned(_mm256_movemask_pd(_mm256_and_pd(good, within)));
}

// The shape qualities of the four tets of points p[4 l] to p[4 l + 3]; bit l of the result set
// where lane l is tet_quality's value. The fourth points first, so that each other point
// becomes its edge vector once loaded.
VOXFILL_AVX inline unsigned block_qualities(const double* const* p, double q[4]) noexcept {
  __m256d x3, y3, z3, x, y, z;
  gather_points(p[3], p[7], p[11], p[15], x3, y3, z3);
  gather_points(p[0], p[4], p[8], p[12], x, y, z);
  const __m256d a0 = _mm256_sub_pd(x, x3), a1 = _mm256_sub_pd(y, y3), a2 = _mm256_sub_pd(z, z3);
  gather_points(p[1], p[5], p[9], p[13], x, y, z);
  const __m256d b0 = _mm256_sub_pd(x, x3), b1 = _mm256_sub_pd(y, y3), b2 = _mm256_sub_pd(z, z3);
  gather_points(p[2], p[6], p[10], p[14], x, y, z);
  const __m256d c0 = _mm256_sub_pd(x, x3), c1 = _mm256_sub_pd(y, y3), c2 = _mm256_sub_pd(z, z3);
  return unsigned(shape_quality(a0, a1, a2, b0, b1, b2, c0, c1, c2, q));
}

// The lanes that tet_quality would retry, done by it: rare, and out of line so that the blocks'
// loop keeps its registers.
[[gnu::noinline, gnu::cold]] void redo_lanes(const double* const* p, unsigned j0, unsigned n,
                                             unsigned plain, double* q) noexcept {
  for (unsigned l = 0; l < 4 && j0 + l < n; ++l)
    if (!((plain >> l) & 1u)) {
      const double* const* t = p + 4 * (j0 + l);
      q[l] = tet_quality(t[0], t[1], t[2], t[3]);
    }
}

// Whether a trial is given up does not hang on the order the tets are met in, nor does its
// worst quality: the blocks in any order give what the tets one by one give.
VOXFILL_AVX bool trial_blocks(const double* const* p, unsigned n, unsigned first, double bar,
                              double* out, double& q, unsigned& worst) noexcept {
  const unsigned blocks = (n + 3) / 4, fb = first / 4;
  const __m256d flat = _mm256_set1_pd(1e-12), low = _mm256_set1_pd(bar);
  __m256d least = _mm256_set1_pd(1.0);
  for (unsigned t = 0; t < blocks; ++t) {
    const unsigned b = t == 0 ? fb : (t <= fb ? t - 1 : t), j0 = 4 * b;
    alignas(32) double vs[4];
    const unsigned plain = block_qualities(p + 4 * j0, vs);
    if (plain != 15) redo_lanes(p, j0, n, plain, vs);
    const __m256d v = _mm256_load_pd(vs);
    const unsigned used = n - j0 < 4 ? (1u << (n - j0)) - 1u : 15u;
    const int stop = _mm256_movemask_pd(
        _mm256_or_pd(_mm256_cmp_pd(v, flat, _CMP_NGT_UQ), _mm256_cmp_pd(v, low, _CMP_LT_OQ)));
    if (unsigned(stop) & used) return false;
    if (used == 15) {
      _mm256_storeu_pd(out + j0, v);
      least = _mm256_min_pd(least, v);
    } else {
      // The lanes in use only: a masked store, where a short loop becomes a call to memcpy.
      const __m256i lanes = _mm256_castpd_si256(_mm256_cmp_pd(
          _mm256_set_pd(3.0, 2.0, 1.0, 0.0), _mm256_set1_pd(double(n - j0)), _CMP_LT_OQ));
      _mm256_maskstore_pd(out + j0, lanes, v);
    }
  }
  const __m128d half = _mm_min_pd(_mm256_castpd256_pd128(least), _mm256_extractf128_pd(least, 1));
  double m = std::min(_mm_cvtsd_f64(half), _mm_cvtsd_f64(_mm_unpackhi_pd(half, half)));
  for (unsigned j = n / 4 * 4; j < n; ++j) m = std::min(m, out[j]);
  q = m;
  worst = first;
  // The first tet of the smallest quality: `first` when it has it, else in ball order.
  if (m < 1.0 && !(out[first] <= m))
    for (unsigned j = 0; j < n; ++j)
      if (out[j] == m) {
        worst = j;
        break;
      }
  return true;
}

// ball_vote with each tet's step in x, y and z at once: the same products and sums, lane by lane.
VOXFILL_AVX double vote_quad(const double* target, const double* quality, const unsigned* t,
                             unsigned n, const double* p, double D[3], double& W_sum,
                             unsigned& worst) noexcept {
  const __m256d P = _mm256_set_pd(0.0, p[2], p[1], p[0]);
  __m256d d = _mm256_set_pd(0.0, D[2], D[1], D[0]);
  double qmin = 1.0, sum = W_sum;
  for (unsigned j = 0; j < n; ++j) {
    const double q = quality[t[j]];
    if (q < qmin) {
      qmin = q;
      worst = j;
    }
    const double W = q > 0.001 ? 1.0 / (q * q) : 1000000.0;
    sum += W;
    d = _mm256_add_pd(
        d, _mm256_mul_pd(_mm256_set1_pd(W), _mm256_sub_pd(_mm256_loadu_pd(target + 3 * j), P)));
  }
  alignas(32) double out[4];
  _mm256_store_pd(out, d);
  D[0] = out[0], D[1] = out[1], D[2] = out[2];
  W_sum = sum;
  return qmin;
}

// The smallest of the four lanes.
VOXFILL_AVX inline double least_lane(__m256d a) noexcept {
  const __m128d half = _mm_min_pd(_mm256_castpd256_pd128(a), _mm256_extractf128_pd(a, 1));
  return std::min(_mm_cvtsd_f64(half), _mm_cvtsd_f64(_mm_unpackhi_pd(half, half)));
}

// The squared lengths from p (broadcast) to four edge ends, each lane summed from 0.0 as dist2
// sums it.
VOXFILL_AVX inline __m256d squared_lengths(__m256d px, __m256d py, __m256d pz,
                                           const double* const* ends) noexcept {
  __m256d x, y, z;
  gather_points(ends[0], ends[1], ends[2], ends[3], x, y, z);
  x = _mm256_sub_pd(px, x);
  y = _mm256_sub_pd(py, y);
  z = _mm256_sub_pd(pz, z);
  return _mm256_add_pd(
      _mm256_add_pd(_mm256_add_pd(_mm256_setzero_pd(), _mm256_mul_pd(x, x)), _mm256_mul_pd(y, y)),
      _mm256_mul_pd(z, z));
}

// cached_edge_fit four edges at a time, each lane as the scalar code rounds it; the minimum of
// values that are never NaN does not hang on the order they are met in.
VOXFILL_AVX double edge_fit_quad(const double* p, const double* const* ends, const double* means,
                                 unsigned count) noexcept {
  const __m256d px = _mm256_set1_pd(p[0]), py = _mm256_set1_pd(p[1]), pz = _mm256_set1_pd(p[2]);
  const __m256d zero = _mm256_setzero_pd();
  __m256d s = _mm256_set1_pd(1.0);
  for (unsigned e0 = 0; e0 < count; e0 += 4) {
    const __m256d d2 = squared_lengths(px, py, pz, ends + e0);
    const __m256d d = _mm256_sqrt_pd(d2), mean = _mm256_loadu_pd(means + e0);
    const __m256d inner =
        _mm256_and_pd(_mm256_cmp_pd(mean, zero, _CMP_GT_OQ), _mm256_div_pd(d, mean));
    const __m256d v =
        _mm256_blendv_pd(inner, _mm256_div_pd(mean, d), _mm256_cmp_pd(d, mean, _CMP_GT_OQ));
    // std::min(s, v): v where v < s, else s (also when v is NaN).
    s = _mm256_min_pd(v, s);
  }
  return least_lane(s);
}

// ball_edge_terms four edges at a time; the sum by lane in edge order, the extremes of values
// that are never NaN in any order.
VOXFILL_AVX void edge_terms_quad(const double* p, double h, const double* const* ends,
                                 const double* sizes, const double* means, unsigned count,
                                 bool ratios, double& d2_min, double& d2_sum, double& r_max,
                                 double& s_min) noexcept {
  const __m256d px = _mm256_set1_pd(p[0]), py = _mm256_set1_pd(p[1]), pz = _mm256_set1_pd(p[2]);
  const __m256d zero = _mm256_setzero_pd(), hn = _mm256_set1_pd(h);
  __m256d low = _mm256_set1_pd(d2_min), r = _mm256_set1_pd(r_max), s = _mm256_set1_pd(s_min);
  const bool sized = ratios && h > 0.0;
  double sum = d2_sum;
  for (unsigned e0 = 0; e0 < count; e0 += 4) {
    const __m256d d2 = squared_lengths(px, py, pz, ends + e0);
    low = _mm256_min_pd(d2, low);
    alignas(32) double v[4];
    _mm256_store_pd(v, d2);
    const unsigned lanes = count - e0 < 4 ? count - e0 : 4;
    for (unsigned l = 0; l < lanes; ++l) sum += v[l];
    if (sized) {
      const __m256d hb = _mm256_loadu_pd(sizes + e0);
      const __m256d up =
          _mm256_max_pd(_mm256_div_pd(hb, hn), _mm256_max_pd(_mm256_div_pd(hn, hb), r));
      r = _mm256_blendv_pd(r, up, _mm256_cmp_pd(hb, zero, _CMP_GT_OQ));
    }
    if (means) {
      const __m256d d = _mm256_sqrt_pd(d2), mean = _mm256_loadu_pd(means + e0);
      const __m256d inner =
          _mm256_and_pd(_mm256_cmp_pd(mean, zero, _CMP_GT_OQ), _mm256_div_pd(d, mean));
      const __m256d fit =
          _mm256_blendv_pd(inner, _mm256_div_pd(mean, d), _mm256_cmp_pd(d, mean, _CMP_GT_OQ));
      s = _mm256_min_pd(fit, s);
    }
  }
  const __m128d half = _mm_max_pd(_mm256_castpd256_pd128(r), _mm256_extractf128_pd(r, 1));
  r_max = std::max(_mm_cvtsd_f64(half), _mm_cvtsd_f64(_mm_unpackhi_pd(half, half)));
  d2_min = least_lane(low);
  s_min = least_lane(s);
  d2_sum = sum;
}

// The lengths and floors of edge_fit_floor_lanes, four edges at a time, then fit_from_floors
// with the floors that cannot matter skipped four at a time.
VOXFILL_AVX bool sized_fit_quad(const double* p, double hp, const double* const* ends,
                                const double* sizes, unsigned count, double* lengths,
                                double* floors, double& s) noexcept {
  const __m256d px = _mm256_set1_pd(p[0]), py = _mm256_set1_pd(p[1]), pz = _mm256_set1_pd(p[2]);
  const __m256d hn = _mm256_set1_pd(hp);
  __m256d usable = _mm256_castsi256_pd(_mm256_set1_epi64x(-1));
  for (unsigned e0 = 0; e0 < count; e0 += 4) {
    __m256d x, y, z;
    gather_points(ends[e0], ends[e0 + 1], ends[e0 + 2], ends[e0 + 3], x, y, z);
    const __m256d dx = _mm256_sub_pd(px, x), dy = _mm256_sub_pd(py, y), dz = _mm256_sub_pd(pz, z);
    const __m256d len = _mm256_sqrt_pd(dot4(dx, dy, dz, dx, dy, dz));
    const __m256d hb = _mm256_loadu_pd(sizes + e0);
    const __m256d lo = _mm256_min_pd(hn, hb), hi = _mm256_max_pd(hb, hn);
    usable =
        _mm256_and_pd(usable, _mm256_and_pd(_mm256_cmp_pd(lo, _mm256_set1_pd(1e-150), _CMP_GT_OQ),
                                            _mm256_cmp_pd(hi, _mm256_set1_pd(1e150), _CMP_LT_OQ)));
    const __m256d below =
        _mm256_mul_pd(_mm256_sqrt_pd(_mm256_mul_pd(lo, hi)), _mm256_set1_pd(1.0 - 1e-9));
    const __m256d above = _mm256_mul_pd(_mm256_mul_pd(_mm256_set1_pd(0.5), _mm256_add_pd(lo, hi)),
                                        _mm256_set1_pd(1.0 + 1e-9));
    _mm256_storeu_pd(lengths + e0, len);
    _mm256_storeu_pd(floors + e0,
                     _mm256_min_pd(_mm256_div_pd(len, above), _mm256_div_pd(below, len)));
  }
  // The lanes past the last edge repeat it, so they test as it does.
  if (_mm256_movemask_pd(usable) != 15) return false;
  unsigned first = 0;
  for (unsigned e = 1; e < count; ++e)
    if (floors[e] < floors[first]) first = e;
  double fit = 1.0;
  if (count) fit = std::min(fit, exact_fit(lengths[first], hp, sizes[first]));
  for (unsigned e0 = 0; e0 < count; e0 += 4) {
    // The edges whose floor is not above the fit so far: a superset of those to take.
    unsigned take = unsigned(_mm256_movemask_pd(
        _mm256_cmp_pd(_mm256_loadu_pd(floors + e0), _mm256_set1_pd(fit), _CMP_NGE_UQ)));
    if (count - e0 < 4) take &= (1u << (count - e0)) - 1u;
    for (; take; take &= take - 1) {
      const unsigned e = e0 + unsigned(__builtin_ctz(take));
      if (e != first && !(floors[e] >= fit))
        fit = std::min(fit, exact_fit(lengths[e], hp, sizes[e]));
    }
  }
  s = fit;
  return true;
}
#endif

// sized_edge_fit once the lengths and floors are listed: the edge of the smallest floor first,
// then those whose floor lies below the running minimum.
double fit_from_floors(const double* lengths, const double* floors, const double* sizes, double hp,
                       unsigned count) noexcept {
  unsigned first = 0;
  for (unsigned e = 1; e < count; ++e)
    if (floors[e] < floors[first]) first = e;
  double s = 1.0;
  if (count) s = std::min(s, exact_fit(lengths[first], hp, sizes[first]));
  for (unsigned e = 0; e < count; ++e)
    if (e != first && !(floors[e] >= s)) s = std::min(s, exact_fit(lengths[e], hp, sizes[e]));
  return s;
}

}  // namespace

unsigned gather_ball(const ball_gather& b, const unsigned* t, unsigned n, unsigned node) noexcept {
#if VOXFILL_LANES_AVX
  if (has_avx2 && b.tets_ld == 4 && b.ld <= 0x0FFFFFFF)
    return b.covered ? gather_rows<true>(b, t, n, node) : gather_rows<false>(b, t, n, node);
#endif
  unsigned count = 0;
  for (unsigned j = 0; j < n; ++j) {
    const unsigned* src = b.tets + b.tets_ld * t[j];
    unsigned* r = b.rows + 4 * j;
    const double** pj = b.points + 4 * j;
    for (unsigned i = 0; i < 4; ++i) {
      r[i] = src[i];
      pj[i] = b.xyz + b.ld * src[i];
    }
    unsigned local = 4;
    for (unsigned i = 4; i-- > 0;)
      if (r[i] == node) local = i;
    b.locals[j] = local;
    if (j >= 2) count = mark_row(b, r, count);
  }
  return count;
}

bool sized_edge_fit(const double* p, double hp, const double* const* ends, const double* sizes,
                    unsigned count, double* lengths, double* floors, double& s) noexcept {
#if VOXFILL_LANES_AVX
  if (has_avx) return sized_fit_quad(p, hp, ends, sizes, count, lengths, floors, s);
#endif
  for (unsigned e0 = 0; e0 < count; e0 += 4) {
    const unsigned usable =
        edge_fit_floor_lanes(p, hp, ends + e0, sizes + e0, lengths + e0, floors + e0);
    const unsigned lanes = count - e0 < 4 ? count - e0 : 4;
    if ((usable | ~((1u << lanes) - 1u)) != ~0u) return false;
  }
  s = fit_from_floors(lengths, floors, sizes, hp, count);
  return true;
}

void ball_edge_terms(const double* p, double h, const double* const* ends, const double* sizes,
                     const double* means, unsigned count, bool ratios, double& d2_min,
                     double& d2_sum, double& r_max, double& s_min) noexcept {
#if VOXFILL_LANES_AVX
  if (has_avx) {
    edge_terms_quad(p, h, ends, sizes, means, count, ratios, d2_min, d2_sum, r_max, s_min);
    return;
  }
#endif
  for (unsigned e = 0; e < count; ++e) {
    const double d2 = dist2<3>(p, ends[e]);
    d2_min = std::min(d2_min, d2);
    d2_sum += d2;
    const double hb = sizes[e];
    if (ratios && h > 0.0 && hb > 0.0) r_max = std::max({r_max, h / hb, hb / h});
    if (means) {
      const double d = std::sqrt(d2), mean = means[e];
      s_min = std::min(s_min, d > mean ? mean / d : (mean > 0.0 ? d / mean : 0.0));
    }
  }
}

double cached_edge_fit(const double* p, const double* const* ends, const double* means,
                       unsigned count) noexcept {
#if VOXFILL_LANES_AVX
  if (has_avx) return edge_fit_quad(p, ends, means, count);
#endif
  double s = 1.0;
  for (unsigned e = 0; e < count; ++e) {
    const double d = std::sqrt(dist2<3>(p, ends[e])), mean = means[e];
    s = std::min(s, d > mean ? mean / d : (mean > 0.0 ? d / mean : 0.0));
  }
  return s;
}

double ball_vote(const double* target, const double* quality, const unsigned* t, unsigned n,
                 const double* p, double D[3], double& W_sum, unsigned& worst) noexcept {
#if VOXFILL_LANES_AVX
  if (has_avx) return vote_quad(target, quality, t, n, p, D, W_sum, worst);
#endif
  double qmin = 1.0;
  for (unsigned j = 0; j < n; ++j) {
    const double q = quality[t[j]];
    if (q < qmin) {
      qmin = q;
      worst = j;
    }
    const double W = q > 0.001 ? 1.0 / (q * q) : 1000000.0;
    W_sum += W;
    for (unsigned c = 0; c < 3; ++c) D[c] += W * (target[3 * j + c] - p[c]);
  }
  return qmin;
}

bool ball_trial(const double* const* p, unsigned n, unsigned first, double bar, double* out,
                double& q, unsigned& worst) noexcept {
#if VOXFILL_LANES_AVX
  return trial_blocks(p, n, first, bar, out, q, worst);
#else
  (void)p, (void)n, (void)first, (void)bar, (void)out, (void)q, (void)worst;
  return false;
#endif
}

unsigned inside_lanes(const double* const* const t[4], const double* P, double tol) noexcept {
#if VOXFILL_LANES_AVX
  if (has_avx) return inside_quad(t, P, tol);
#endif
  unsigned bits = 0;
  for (unsigned l = 0; l < 4; ++l) bits |= unsigned(inside_one(t[l], P, tol)) << l;
  return bits;
}

}  // namespace kelvo::voxfill
