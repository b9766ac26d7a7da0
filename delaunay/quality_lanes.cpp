#include "delaunay/quality_lanes.h"

#include <algorithm>
#include <cmath>

#include "delaunay/cpu_lanes.h"
#include "delaunay/geometry.h"
#include "delaunay/lanes_avx.h"

namespace kelvo::voxfill {
namespace {

// Coefficients of the atan series after 1 / 25, in the order of Horner's scheme.
constexpr double ATAN_SERIES[] = {1.0 / 23, 1.0 / 21, 1.0 / 19, 1.0 / 17, 1.0 / 15, 1.0 / 13,
                                  1.0 / 11, 1.0 / 9,  1.0 / 7,  1.0 / 5,  1.0 / 3};

// float(2 atan2(y, x)) with the bits of the library call, which is slow: by the odd series of
// atan about 0 (after atan a = pi/4 + atan((a - 1) / (a + 1)) above tan(pi/8)), whose error
// stays under 4e-12 of the value. Taken when every value within 1e-10 of it rounds to the same
// float; otherwise (and for zeros and extreme inputs) by the library call.
float twice_atan2_one(double y, double x) noexcept {
  const double ax = std::fabs(x), ay = std::fabs(y);
  const double hi = ax < ay ? ay : ax, lo = ax < ay ? ax : ay;
  if (!(lo > 0.0) || !(hi > 1e-150) || !(hi < 1e150)) return float(2.0 * std::atan2(y, x));
  double a = lo / hi, base = 0.0;
  if (a > 0.41421356237309503) {
    a = (a - 1.0) / (a + 1.0);
    base = 0.78539816339744831;
  }
  const double a2 = a * a;
  double s = 1.0 / 25;
  for (const double c : ATAN_SERIES) s = c - a2 * s;
  double t = base + (a - a * a2 * s);
  if (ay > ax) t = 1.5707963267948966 - t;
  if (x < 0.0) t = 3.1415926535897931 - t;
  const double v = 2.0 * (y < 0.0 ? -t : t), e = 1e-10 * std::fabs(v);
  const float f = float(v - e);
  if (f == float(v + e)) return f;
  return float(2.0 * std::atan2(y, x));
}

#if VOXFILL_LANES_AVX
using namespace avx_lanes;

// The lanes of twice_atan2_quad in doubt, done again one by one: rare, and out of line so that
// the lanes keep a small frame.
[[gnu::noinline, gnu::cold]] void redo_twice_atan2(const double* y, const double* x, float* out,
                                                   int sure) noexcept {
  for (unsigned l = 0, redo = ~sure & 15; redo; ++l, redo >>= 1)
    if (redo & 1) out[l] = twice_atan2_one(y[l], x[l]);
}

// Nothing fused: the lanes round as the scalar code does.
const bool has_avx = lanes_avx();

// _mm256_blendv_pd(a, b, mask) as the one instruction. GCC 12 reads the intrinsic as a select
// on the mask's sign, which needs AVX2 to stay in vectors, and under plain AVX splits it into
// branches by lane.
VOXFILL_AVX inline __m256d blend(__m256d a, __m256d b, __m256d mask) noexcept {
  __m256d r;
  asm("vblendvpd %3, %2, %1, %0" : "=x"(r) : "x"(a), "x"(b), "x"(mask));
  return r;
}

// The lanes of the four-tet qualities that need the permutation retries (or have no positive
// denominator), done again by the scalar code with the points of lane l at at(l, 0..3). Rare,
// and kept out of line so that the lanes' registers and frame stay small.
template <class At>
[[gnu::noinline, gnu::cold]] void redo_quality(At at, double q[4], int plain) noexcept {
  for (unsigned l = 0, redo = ~plain & 15; redo; ++l, redo >>= 1)
    if (redo & 1) q[l] = tet_quality(at(l, 0), at(l, 1), at(l, 2), at(l, 3));
}

// raw_shape_quality and the checks of tet_quality over four lanes, point k of lane l at
// at(l, k). The fourth points first, so that each other point becomes its edge vector as soon
// as it is loaded.
template <class At>
VOXFILL_AVX inline void quality_quad(At at, double q[4]) noexcept {
  __m256d x3, y3, z3, x, y, z;
  gather_points(at(0, 3), at(1, 3), at(2, 3), at(3, 3), x3, y3, z3);
  gather_points(at(0, 0), at(1, 0), at(2, 0), at(3, 0), x, y, z);
  const __m256d a0 = _mm256_sub_pd(x, x3), a1 = _mm256_sub_pd(y, y3), a2 = _mm256_sub_pd(z, z3);
  gather_points(at(0, 1), at(1, 1), at(2, 1), at(3, 1), x, y, z);
  const __m256d b0 = _mm256_sub_pd(x, x3), b1 = _mm256_sub_pd(y, y3), b2 = _mm256_sub_pd(z, z3);
  gather_points(at(0, 2), at(1, 2), at(2, 2), at(3, 2), x, y, z);
  const __m256d c0 = _mm256_sub_pd(x, x3), c1 = _mm256_sub_pd(y, y3), c2 = _mm256_sub_pd(z, z3);
  const int plain = shape_quality(a0, a1, a2, b0, b1, b2, c0, c1, c2, q);
  if (plain != 15) redo_quality(at, q, plain);
}

// The entry points' lanes, one for each way of naming the points.
struct tet_lists_at {
  const double* const* const* t;
  const double* operator()(unsigned l, unsigned k) const noexcept { return t[l][k]; }
};
struct point_list_at {
  const double* const* p;
  const double* operator()(unsigned l, unsigned k) const noexcept { return p[4 * l + k]; }
};
struct node_list_at {
  const double* xyz;
  std::size_t ld;
  const unsigned* n;
  const double* operator()(unsigned l, unsigned k) const noexcept {
    return xyz + ld * n[4 * l + k];
  }
};

VOXFILL_AVX void quality_quad_tets(const double* const* const t[4], double q[4]) noexcept {
  quality_quad(tet_lists_at{t}, q);
}
VOXFILL_AVX void quality_quad_points(const double* const p[16], double q[4]) noexcept {
  quality_quad(point_list_at{p}, q);
}
VOXFILL_AVX void quality_quad_nodes(const double* xyz, std::size_t ld, const unsigned n[16],
                                    double q[4]) noexcept {
  quality_quad(node_list_at{xyz, ld, n}, q);
}

VOXFILL_AVX void apex_quad(const double* const* const t[4], double height, double weight,
                           const double (*means)[3], double target[4][3]) noexcept {
  // Each value made where it leaves the most registers free: the centroid and the perimeter as
  // soon as their inputs are there, the points dead before the normal.
  const __m256d third = _mm256_set1_pd(3.0);
  __m256d x0, y0, z0, x1, y1, z1, x2, y2, z2;
  gather_points(t[0][0], t[1][0], t[2][0], t[3][0], x0, y0, z0);
  gather_points(t[0][1], t[1][1], t[2][1], t[3][1], x1, y1, z1);
  gather_points(t[0][2], t[1][2], t[2][2], t[3][2], x2, y2, z2);
  __m256d c0 = _mm256_div_pd(_mm256_add_pd(_mm256_add_pd(x0, x1), x2), third);
  __m256d c1 = _mm256_div_pd(_mm256_add_pd(_mm256_add_pd(y0, y1), y2), third);
  __m256d c2 = _mm256_div_pd(_mm256_add_pd(_mm256_add_pd(z0, z1), z2), third);
  asm("" : "+x"(c0), "+x"(c1), "+x"(c2));
  const __m256d u0 = _mm256_sub_pd(x0, x2), u1 = _mm256_sub_pd(y0, y2), u2 = _mm256_sub_pd(z0, z2);
  const __m256d v0 = _mm256_sub_pd(x1, x2), v1 = _mm256_sub_pd(y1, y2), v2 = _mm256_sub_pd(z1, z2);
  const __m256d w0 = _mm256_sub_pd(x1, x0), w1 = _mm256_sub_pd(y1, y0), w2 = _mm256_sub_pd(z1, z0);
  const __m256d Lu = dot4(u0, u1, u2, u0, u1, u2), Lv = dot4(v0, v1, v2, v0, v1, v2),
                Lw = dot4(w0, w1, w2, w0, w1, w2);
  // |p1 p2| from v = p1 - p2, |p2 p0| from -u: the squares are the same.
  __m256d e =
      _mm256_add_pd(_mm256_add_pd(_mm256_sqrt_pd(Lw), _mm256_sqrt_pd(Lv)), _mm256_sqrt_pd(Lu));
  // face_normal: the shortest side p0 p1 takes the place of p1 p2.
  const __m256d short_w = _mm256_cmp_pd(Lw, _mm256_min_pd(Lu, Lv), _CMP_LE_OQ);
  asm("" : "+x"(e));
  const __m256d s0 = blend(v0, w0, short_w), s1 = blend(v1, w1, short_w),
                s2 = blend(v2, w2, short_w);
  __m256d n0 = _mm256_sub_pd(_mm256_mul_pd(u1, s2), _mm256_mul_pd(u2, s1));
  __m256d n1 = _mm256_sub_pd(_mm256_mul_pd(u2, s0), _mm256_mul_pd(u0, s2));
  __m256d n2 = _mm256_sub_pd(_mm256_mul_pd(u0, s1), _mm256_mul_pd(u1, s0));
  const __m256d N2 = dot4(n0, n1, n2, n0, n1, n2), zero = _mm256_setzero_pd();
  const __m256d scale = _mm256_and_pd(_mm256_cmp_pd(N2, zero, _CMP_NEQ_UQ),
                                      _mm256_cmp_pd(N2, _mm256_set1_pd(1.0), _CMP_NEQ_UQ));
  const __m256d len = _mm256_sqrt_pd(N2);
  n0 = blend(n0, _mm256_div_pd(n0, len), scale);
  n1 = blend(n1, _mm256_div_pd(n1, len), scale);
  n2 = blend(n2, _mm256_div_pd(n2, len), scale);
  if (means) {
    alignas(32) double m[3][4];
    for (unsigned l = 0; l < 4; ++l)
      for (unsigned k = 0; k < 3; ++k) m[k][l] = means[l][k];
    const __m256d s = _mm256_add_pd(
        _mm256_add_pd(_mm256_add_pd(zero, _mm256_load_pd(m[0])), _mm256_load_pd(m[1])),
        _mm256_load_pd(m[2]));
    e = _mm256_add_pd(s, _mm256_mul_pd(_mm256_set1_pd(weight), _mm256_sub_pd(e, s)));
  }
  const __m256d he = _mm256_mul_pd(_mm256_set1_pd(height), e);
  alignas(32) double out[3][4];
  _mm256_store_pd(out[0], _mm256_add_pd(c0, _mm256_mul_pd(he, n0)));
  _mm256_store_pd(out[1], _mm256_add_pd(c1, _mm256_mul_pd(he, n1)));
  _mm256_store_pd(out[2], _mm256_add_pd(c2, _mm256_mul_pd(he, n2)));
  for (unsigned l = 0; l < 4; ++l)
    for (unsigned k = 0; k < 3; ++k) target[l][k] = out[k][l];
}

VOXFILL_AVX unsigned fit_floor_quad(const double* p, double hp, const double* const q[4],
                                    const double h[4], double d[4], double floor[4]) noexcept {
  __m256d x, y, z;
  gather_points(q[0], q[1], q[2], q[3], x, y, z);
  const __m256d dx = _mm256_sub_pd(_mm256_set1_pd(p[0]), x),
                dy = _mm256_sub_pd(_mm256_set1_pd(p[1]), y),
                dz = _mm256_sub_pd(_mm256_set1_pd(p[2]), z);
  const __m256d len = _mm256_sqrt_pd(dot4(dx, dy, dz, dx, dy, dz));
  const __m256d hn = _mm256_set1_pd(hp), hb = _mm256_loadu_pd(h);
  const __m256d lo = _mm256_min_pd(hn, hb), hi = _mm256_max_pd(hb, hn);
  const __m256d ok = _mm256_and_pd(_mm256_cmp_pd(lo, _mm256_set1_pd(1e-150), _CMP_GT_OQ),
                                   _mm256_cmp_pd(hi, _mm256_set1_pd(1e150), _CMP_LT_OQ));
  const __m256d below =
      _mm256_mul_pd(_mm256_sqrt_pd(_mm256_mul_pd(lo, hi)), _mm256_set1_pd(1.0 - 1e-9));
  const __m256d above = _mm256_mul_pd(_mm256_mul_pd(_mm256_set1_pd(0.5), _mm256_add_pd(lo, hi)),
                                      _mm256_set1_pd(1.0 + 1e-9));
  // std::min(below / d, d / above): the second unless it is not below the first.
  const __m256d f = _mm256_min_pd(_mm256_div_pd(len, above), _mm256_div_pd(below, len));
  _mm256_storeu_pd(d, len);
  _mm256_storeu_pd(floor, f);
  return unsigned(_mm256_movemask_pd(ok));
}

VOXFILL_AVX void solid_quad(const double* const* const t[4], double y[4][4],
                            double x[4][4]) noexcept {
  __m256d P[4][3];
  for (unsigned k = 0; k < 4; ++k)
    gather_points(t[0][k], t[1][k], t[2][k], t[3][k], P[k][0], P[k][1], P[k][2]);
  // U[a][b]: the unit vector from node a to node b, both ways of each edge from its own
  // difference, scaled by the inverse length of the edge taken from its lower node.
  __m256d U[4][4][3];
  const __m256d zero = _mm256_setzero_pd(), one = _mm256_set1_pd(1.0);
  for (unsigned a = 0; a < 4; ++a)
    for (unsigned b = a + 1; b < 4; ++b) {
      __m256d u[3], r[3];
      for (unsigned c = 0; c < 3; ++c) {
        u[c] = _mm256_sub_pd(P[b][c], P[a][c]);
        r[c] = _mm256_sub_pd(P[a][c], P[b][c]);
      }
      const __m256d n2 = dot4(u[0], u[1], u[2], u[0], u[1], u[2]);
      const __m256d scaled =
          _mm256_and_pd(_mm256_cmp_pd(n2, zero, _CMP_NEQ_UQ), _mm256_cmp_pd(n2, one, _CMP_NEQ_UQ));
      const __m256d s = _mm256_div_pd(one, _mm256_sqrt_pd(n2));
      for (unsigned c = 0; c < 3; ++c) {
        U[a][b][c] = blend(u[c], _mm256_mul_pd(u[c], s), scaled);
        U[b][a][c] = blend(r[c], _mm256_mul_pd(r[c], s), scaled);
      }
    }
  alignas(32) double ys[4][4], xs[4][4];
  for (unsigned i = 0; i < 4; ++i) {
    const unsigned* o = tet_turned_face_nodes[i];
    const __m256d* u = U[i][o[0]];
    const __m256d* v = U[i][o[1]];
    const __m256d* w = U[i][o[2]];
    const __m256d vw0 = _mm256_sub_pd(_mm256_mul_pd(v[1], w[2]), _mm256_mul_pd(v[2], w[1]));
    const __m256d vw1 = _mm256_sub_pd(_mm256_mul_pd(v[2], w[0]), _mm256_mul_pd(v[0], w[2]));
    const __m256d vw2 = _mm256_sub_pd(_mm256_mul_pd(v[0], w[1]), _mm256_mul_pd(v[1], w[0]));
    _mm256_store_pd(ys[i], dot4(u[0], u[1], u[2], vw0, vw1, vw2));
    _mm256_store_pd(xs[i], dot4(_mm256_add_pd(u[0], v[0]), _mm256_add_pd(u[1], v[1]),
                                _mm256_add_pd(u[2], v[2]), _mm256_add_pd(v[0], w[0]),
                                _mm256_add_pd(v[1], w[1]), _mm256_add_pd(v[2], w[2])));
  }
  for (unsigned l = 0; l < 4; ++l)
    for (unsigned i = 0; i < 4; ++i) y[l][i] = ys[i][l], x[l][i] = xs[i][l];
}
// twice_atan2_one over four lanes; the lanes in doubt are done again by it.
VOXFILL_AVX void twice_atan2_quad(const double* y, const double* x, float* out) noexcept {
  const __m256d Y = _mm256_loadu_pd(y), X = _mm256_loadu_pd(x), zero = _mm256_setzero_pd();
  const __m256d sign = _mm256_set1_pd(-0.0);
  const __m256d ax = _mm256_andnot_pd(sign, X), ay = _mm256_andnot_pd(sign, Y);
  const __m256d steep = _mm256_cmp_pd(ay, ax, _CMP_GT_OQ);
  const __m256d hi = blend(ax, ay, steep), lo = blend(ay, ax, steep);
  const __m256d usable =
      _mm256_and_pd(_mm256_and_pd(_mm256_cmp_pd(lo, zero, _CMP_GT_OQ),
                                  _mm256_cmp_pd(hi, _mm256_set1_pd(1e-150), _CMP_GT_OQ)),
                    _mm256_and_pd(_mm256_cmp_pd(hi, _mm256_set1_pd(1e150), _CMP_LT_OQ),
                                  _mm256_cmp_pd(ax, ay, _CMP_ORD_Q)));
  const __m256d one = _mm256_set1_pd(1.0);
  __m256d a = _mm256_div_pd(lo, hi);
  const __m256d far = _mm256_cmp_pd(a, _mm256_set1_pd(0.41421356237309503), _CMP_GT_OQ);
  a = blend(a, _mm256_div_pd(_mm256_sub_pd(a, one), _mm256_add_pd(a, one)), far);
  const __m256d base = _mm256_and_pd(far, _mm256_set1_pd(0.78539816339744831));
  const __m256d a2 = _mm256_mul_pd(a, a);
  __m256d s = _mm256_set1_pd(1.0 / 25);
  for (const double c : ATAN_SERIES) s = _mm256_sub_pd(_mm256_set1_pd(c), _mm256_mul_pd(a2, s));
  __m256d t = _mm256_add_pd(base, _mm256_sub_pd(a, _mm256_mul_pd(_mm256_mul_pd(a, a2), s)));
  t = blend(t, _mm256_sub_pd(_mm256_set1_pd(1.5707963267948966), t), steep);
  t = blend(t, _mm256_sub_pd(_mm256_set1_pd(3.1415926535897931), t),
            _mm256_cmp_pd(X, zero, _CMP_LT_OQ));
  t = blend(t, _mm256_xor_pd(t, sign), _mm256_cmp_pd(Y, zero, _CMP_LT_OQ));
  const __m256d v = _mm256_add_pd(t, t);
  const __m256d e = _mm256_mul_pd(_mm256_set1_pd(1e-10), _mm256_andnot_pd(sign, v));
  const __m128 f = _mm256_cvtpd_ps(_mm256_sub_pd(v, e)), g = _mm256_cvtpd_ps(_mm256_add_pd(v, e));
  const int sure = _mm256_movemask_pd(usable) & _mm_movemask_ps(_mm_cmpeq_ps(f, g));
  _mm_storeu_ps(out, f);
  if (sure != 15) redo_twice_atan2(y, x, out, sure);
}

#endif

// The scalar path of tet_quality_lanes, out of line so that the lanes' path is a plain jump.
template <class At>
[[gnu::noinline]] void quality_one_by_one(At at, double q[4]) noexcept {
  for (unsigned l = 0; l < 4; ++l) q[l] = tet_quality(at(l, 0), at(l, 1), at(l, 2), at(l, 3));
}

// The scalar path of solid_angle_lanes, one tet.
void solid_one(const double* const* p, double* y, double* x) noexcept {
  using namespace geometry_detail;
  double units[4][4][3];
  for (unsigned i = 0; i < 4; ++i)
    for (unsigned j = i + 1; j < 4; ++j) {
      double* u = units[i][j];
      double* r = units[j][i];
      sub3(p[j], p[i], u);
      sub3(p[i], p[j], r);
      const double n2 = dot3(u, u);
      if (n2 != 0.0 && n2 != 1.0) {
        const double s = 1.0 / std::sqrt(n2);
        u[0] *= s, u[1] *= s, u[2] *= s;
        r[0] *= s, r[1] *= s, r[2] *= s;
      }
    }
  for (unsigned i = 0; i < 4; ++i) {
    const unsigned* o = tet_turned_face_nodes[i];
    const double *u = units[i][o[0]], *v = units[i][o[1]], *w = units[i][o[2]];
    double vw[3];
    cross3(v, w, vw);
    const double uv[3] = {u[0] + v[0], u[1] + v[1], u[2] + v[2]};
    const double vpw[3] = {v[0] + w[0], v[1] + w[1], v[2] + w[2]};
    y[i] = dot3(u, vw);
    x[i] = dot3(uv, vpw);
  }
}

// The scalar path of apex_lanes, one triangle.
void apex_one(const double* a, const double* b, const double* c, double height, double weight,
              const double* means, double* target) noexcept {
  using namespace geometry_detail;
  double N[3];
  face_normal(a, b, c, N);
  const double n2 = dot3(N, N);
  if (n2 != 0.0 && n2 != 1.0)
    for (unsigned k = 0; k < 3; ++k) N[k] /= std::sqrt(n2);
  double e = std::sqrt(dist2<3>(a, b)) + std::sqrt(dist2<3>(b, c)) + std::sqrt(dist2<3>(c, a));
  if (means) {
    const double s = 0.0 + means[0] + means[1] + means[2];
    e = s + weight * (e - s);
  }
  for (unsigned k = 0; k < 3; ++k) target[k] = (a[k] + b[k] + c[k]) / 3 + height * e * N[k];
}

// The scalar paths of the entry points below, out of line so that the lanes' paths are plain
// jumps.
[[gnu::noinline]] void apex_one_by_one(const double* const* const t[4], double height,
                                       double weight, const double (*means)[3],
                                       double target[4][3]) noexcept {
  for (unsigned l = 0; l < 4; ++l)
    apex_one(t[l][0], t[l][1], t[l][2], height, weight, means ? means[l] : nullptr, target[l]);
}
[[gnu::noinline]] void solid_one_by_one(const double* const* const t[4], double y[4][4],
                                        double x[4][4]) noexcept {
  for (unsigned l = 0; l < 4; ++l) solid_one(t[l], y[l], x[l]);
}
[[gnu::noinline]] void twice_atan2_one_by_one(const double y[4], const double x[4],
                                              float out[4]) noexcept {
  for (unsigned l = 0; l < 4; ++l) out[l] = twice_atan2_one(y[l], x[l]);
}

}  // namespace

void apex_lanes(const double* const* const t[4], double height, double weight,
                const double (*means)[3], double target[4][3]) noexcept {
#if VOXFILL_LANES_AVX
  if (has_avx) {
    apex_quad(t, height, weight, means, target);
    return;
  }
#endif
  apex_one_by_one(t, height, weight, means, target);
}

unsigned edge_fit_floor_lanes(const double* p, double hp, const double* const q[4],
                              const double h[4], double d[4], double floor[4]) noexcept {
#if VOXFILL_LANES_AVX
  if (has_avx) return fit_floor_quad(p, hp, q, h, d, floor);
#endif
  unsigned bounded = 0;
  for (unsigned l = 0; l < 4; ++l) {
    d[l] = std::sqrt(geometry_detail::dist2<3>(p, q[l]));
    const double lo = hp < h[l] ? hp : h[l], hi = hp < h[l] ? h[l] : hp;
    if (lo > 1e-150 && hi < 1e150) bounded |= 1u << l;
    const double below = std::sqrt(lo * hi) * (1.0 - 1e-9), above = 0.5 * (lo + hi) * (1.0 + 1e-9);
    floor[l] = std::min(below / d[l], d[l] / above);
  }
  return bounded;
}

void solid_angle_lanes(const double* const* const t[4], double y[4][4], double x[4][4]) noexcept {
#if VOXFILL_LANES_AVX
  if (has_avx) {
    solid_quad(t, y, x);
    return;
  }
#endif
  solid_one_by_one(t, y, x);
}

void tet_quality_lanes(const double* const* const t[4], double q[4]) noexcept {
#if VOXFILL_LANES_AVX
  if (has_avx) {
    quality_quad_tets(t, q);
    return;
  }
#endif
  quality_one_by_one(tet_lists_at{t}, q);
}

void tet_quality_lanes(const double* const p[16], double q[4]) noexcept {
#if VOXFILL_LANES_AVX
  if (has_avx) {
    quality_quad_points(p, q);
    return;
  }
#endif
  quality_one_by_one(point_list_at{p}, q);
}

void tet_quality_lanes(const dense2D<double>& coords, const unsigned n[16], double q[4]) noexcept {
  // Point j at xyz + ld j, as coords.col(j).
  const double* xyz = coords.col(0);
#if VOXFILL_LANES_AVX
  if (has_avx) {
    quality_quad_nodes(xyz, coords.ld, n, q);
    return;
  }
#endif
  quality_one_by_one(node_list_at{xyz, coords.ld, n}, q);
}

void twice_atan2_lanes(const double y[4], const double x[4], float out[4]) noexcept {
#if VOXFILL_LANES_AVX
  if (has_avx) {
    twice_atan2_quad(y, x, out);
    return;
  }
#endif
  twice_atan2_one_by_one(y, x, out);
}

}  // namespace kelvo::voxfill
