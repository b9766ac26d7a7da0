// Geometric primitives of the kernel that are not inlined: quality retries, areas, the 3x3
// solver, barycentric weights, classifications, planes, segments and local indices.
#include "delaunay/geometry.h"

#include "delaunay/cpu_lanes.h"
#include "delaunay/lanes_avx.h"

// The 3x3 solver and the tet qualities in vector lanes where the processor has AVX2, chosen when
// the program runs.
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define VOXFILL_SOLVE_AVX2 1
#include <immintrin.h>
#else
#define VOXFILL_SOLVE_AVX2 0
#endif

namespace kelvo::voxfill {

using geometry_detail::cross3;
using geometry_detail::dot3;
using geometry_detail::sub3;

namespace geometry_detail {

// Every even order of the nodes gives the same tet, so a sign that changes among them is noise:
// the tet is flat as far as double precision can tell.
double tet_quality_retry(const double* p0, const double* p1, const double* p2, const double* p3,
                         double q) noexcept {
  const double* p[4] = {p0, p1, p2, p3};
  for (unsigned k = 1; k < 12; ++k) {
    const unsigned* o = tet_even_orders.order[k];
    double a[3], b[3], c[3];
    sub3(p[o[0]], p[o[3]], a);
    sub3(p[o[1]], p[o[3]], b);
    sub3(p[o[2]], p[o[3]], c);
    bool doubtful;
    const double r = raw_shape_quality(a, b, c, doubtful);
    if (r * q <= 0.0) return 0.0;
    if (std::fabs(r) < std::fabs(q)) q = r;
    if (std::fabs(q) <= SQUARE_TOL) return q;
  }
  return q;
}

}  // namespace geometry_detail

// ---------------------------------------------------------------------------------------------
// Quality of four tets at a time

namespace {

#if VOXFILL_SOLVE_AVX2
const bool has_avx2 = lanes_avx2();

// u . v by lanes, each vector given by its x, y and z.
VOXFILL_AVX2 inline __m256d dot_lanes(__m256d ux, __m256d uy, __m256d uz, __m256d vx, __m256d vy,
                                      __m256d vz) noexcept {
  return _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(ux, vx), _mm256_mul_pd(uy, vy)),
                       _mm256_mul_pd(uz, vz));
}

// p less each of the four points (x, y, z by lanes), by coordinates.
VOXFILL_AVX2 inline void seen_from(const double* p, __m256d x, __m256d y, __m256d z,
                                   __m256d* v) noexcept {
  v[0] = _mm256_sub_pd(_mm256_set1_pd(p[0]), x);
  v[1] = _mm256_sub_pd(_mm256_set1_pd(p[1]), y);
  v[2] = _mm256_sub_pd(_mm256_set1_pd(p[2]), z);
}

// The four apexes made in lanes and their shape qualities there; a lane that tet_quality would
// not take as it stands (doubtful, or too small to trust) is left to the scalar routine.
VOXFILL_AVX2 void tet_quality_heights_avx2(const double* p0, const double* p1, const double* p2,
                                           const double* centre, const double* normal,
                                           const double* z, double* q) noexcept {
  // The apexes centre + z normal, x, y and z by lanes.
  const __m256d h = _mm256_loadu_pd(z);
  const __m256d X =
      _mm256_add_pd(_mm256_set1_pd(centre[0]), _mm256_mul_pd(_mm256_set1_pd(normal[0]), h));
  const __m256d Y =
      _mm256_add_pd(_mm256_set1_pd(centre[1]), _mm256_mul_pd(_mm256_set1_pd(normal[1]), h));
  const __m256d Z =
      _mm256_add_pd(_mm256_set1_pd(centre[2]), _mm256_mul_pd(_mm256_set1_pd(normal[2]), h));
  __m256d a[3], b[3], c[3];
  seen_from(p0, X, Y, Z, a);
  seen_from(p1, X, Y, Z, b);
  seen_from(p2, X, Y, Z, c);
  const int taken =
      avx_lanes::shape_quality(a[0], a[1], a[2], b[0], b[1], b[2], c[0], c[1], c[2], q);
  for (unsigned k = 0; k < 4; ++k)
    if (!(taken >> k & 1)) {
      double p[3];
      for (unsigned c = 0; c < 3; ++c) p[c] = centre[c] + normal[c] * z[k];
      q[k] = tet_quality(p0, p1, p2, p);
    }
}

// tet_quality of one tet with its dot products, Gram determinants and square roots in lanes: the
// scalar operations one for one and in the same order (nothing fused). A doubtful tet or one too
// flat to trust goes to the scalar routine.
VOXFILL_AVX2 double tet_quality_avx2(const double* p0, const double* p1, const double* p2,
                                     const double* p3) noexcept {
  using namespace geometry_detail;
  // Lanes of x, y, z: the edge vectors a, b, c, a from p3.
  const __m128d u0 = _mm_loadu_pd(p0), u1 = _mm_loadu_pd(p1), u2 = _mm_loadu_pd(p2);
  const __m128d u01 = _mm_unpacklo_pd(u0, u1), u20 = _mm_unpacklo_pd(u2, u0);
  const __m128d w01 = _mm_unpackhi_pd(u0, u1), w20 = _mm_unpackhi_pd(u2, u0);
  const __m256d x = _mm256_sub_pd(_mm256_insertf128_pd(_mm256_castpd128_pd256(u01), u20, 1),
                                  _mm256_set1_pd(p3[0]));
  const __m256d y = _mm256_sub_pd(_mm256_insertf128_pd(_mm256_castpd128_pd256(w01), w20, 1),
                                  _mm256_set1_pd(p3[1]));
  const __m256d z = _mm256_sub_pd(
      _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadh_pd(_mm_load_sd(p0 + 2), p1 + 2)),
                           _mm_loadh_pd(_mm_load_sd(p2 + 2), p0 + 2), 1),
      _mm256_set1_pd(p3[2]));
  constexpr int ABCB = 0 | 1 << 2 | 2 << 4 | 1 << 6;
  // S1 = (L0, L1, L2, dab).
  const __m256d S1 = dot_lanes(x, y, z, _mm256_permute4x64_pd(x, ABCB),
                               _mm256_permute4x64_pd(y, ABCB), _mm256_permute4x64_pd(z, ABCB));
  const double q = avx_lanes::tet_quality_of_edges(x, y, z, S1);
  if (q <= 1.0) return q;
  return tet_quality(p0, p1, p2, p3);
}
#endif

}  // namespace

double tet_quality_wide(const double* p0, const double* p1, const double* p2,
                        const double* p3) noexcept {
#if VOXFILL_SOLVE_AVX2
  if (has_avx2) return tet_quality_avx2(p0, p1, p2, p3);
#endif
  return tet_quality(p0, p1, p2, p3);
}

void tet_quality_heights(const double* p0, const double* p1, const double* p2, const double* centre,
                         const double* normal, const double* z, double* q) noexcept {
#if VOXFILL_SOLVE_AVX2
  if (has_avx2) {
    tet_quality_heights_avx2(p0, p1, p2, centre, normal, z, q);
    return;
  }
#endif
  for (unsigned k = 0; k < 4; ++k) {
    double p[3];
    for (unsigned c = 0; c < 3; ++c) p[c] = centre[c] + normal[c] * z[k];
    q[k] = tet_quality(p0, p1, p2, p);
  }
}

// ---------------------------------------------------------------------------------------------
// Areas

// The cross product is taken with the shortest side when it is p0 p1, as in face_normal.
double face_double_area(const double* p0, const double* p1, const double* p2) noexcept {
  double s[3], t[3], r[3], n[3];
  sub3(p0, p2, s);
  sub3(p1, p2, t);
  sub3(t, s, r);
  const double Ls = dot3(s, s), Lt = dot3(t, t);
  if (dot3(r, r) <= (Ls < Lt ? Ls : Lt))
    cross3(s, r, n);
  else
    cross3(s, t, n);
  return std::sqrt(dot3(n, n));
}

double face_double_area_2d(const double* p0, const double* p1, const double* p2) noexcept {
  const double s0 = p0[0] - p2[0], s1 = p0[1] - p2[1];
  const double t0 = p1[0] - p2[0], t1 = p1[1] - p2[1];
  const double r0 = t0 - s0, r1 = t1 - s1;
  const double Ls = s0 * s0 + s1 * s1, Lt = t0 * t0 + t1 * t1;
  if (r0 * r0 + r1 * r1 <= (Ls < Lt ? Ls : Lt)) return s0 * r1 - s1 * r0;
  return s0 * t1 - s1 * t0;
}

double face_double_area(const dense2D<double>& coords, unsigned n0, unsigned n1,
                        unsigned n2) noexcept {
  if (coords.rows == 2) return face_double_area_2d(coords.col(n0), coords.col(n1), coords.col(n2));
  return face_double_area(coords.col(n0), coords.col(n1), coords.col(n2));
}

double face_double_area(const double* xyz, unsigned n0, unsigned n1, unsigned n2) noexcept {
  return face_double_area(xyz_point(xyz, n0), xyz_point(xyz, n1), xyz_point(xyz, n2));
}

// ---------------------------------------------------------------------------------------------
// Solvers and barycentric weights

namespace {

#if VOXFILL_SOLVE_AVX2

using avx_lanes::inverse_rows;
using avx_lanes::load3;
using avx_lanes::refined_solution;

// solve_3x3_rows with row i of the inverse in lane i, and in the residual component i in lane i.
// Every lane does the scalar operations one for one and in the same order (nothing fused), so the
// solution has the same bits. r0 and v0 are worked out again in lane 0: the same operations on
// the same columns as the caller's.
VOXFILL_AVX2 double solve_3x3_avx2(const double* c0, const double* c1, const double* c2,
                                   double* rhs, int refinements) noexcept {
  const __m256d C0 = load3(c0), C1 = load3(c1), C2 = load3(c2);
  __m256d Rx, Ry, Rz;
  const double det = inverse_rows(C0, C1, C2, Rx, Ry, Rz);
  if (det == 0.0) {
    rhs[0] = rhs[1] = rhs[2] = 0.0;
    return 0.0;
  }
  refined_solution(C0, C1, C2, Rx, Ry, Rz, _mm256_set1_pd(1.0 / det), load3(rhs), refinements, rhs);
  return det;
}
#endif

// Row i of the inverse is (column i+1 x column i+2) / det. Refinement in the same precision still
// pays: the residual of the rounded solution is computed nearly exactly for small systems. The
// first row r0 = c1 x c2 and v0 = c0 . r0 come from the caller, who may have them already.
inline double solve_3x3_rows(const double* c0, const double* c1, const double* c2, const double* r0,
                             double v0, double* rhs, int refinements) noexcept {
#if VOXFILL_SOLVE_AVX2
  if (has_avx2) return solve_3x3_avx2(c0, c1, c2, rhs, refinements);
#endif
  double r1[3], r2[3];
  cross3(c2, c0, r1);
  cross3(c0, c1, r2);
  const double det = (v0 + dot3(c1, r1) + dot3(c2, r2)) / 3.0;
  if (det == 0.0) {
    rhs[0] = rhs[1] = rhs[2] = 0.0;
    return 0.0;
  }
  const double inv = 1.0 / det;
  const double b[3] = {rhs[0], rhs[1], rhs[2]};
  double x[3] = {dot3(r0, b) * inv, dot3(r1, b) * inv, dot3(r2, b) * inv};
  for (int k = 0; k < refinements; ++k) {
    double e[3];
    for (unsigned i = 0; i < 3; ++i) e[i] = b[i] - (c0[i] * x[0] + c1[i] * x[1] + c2[i] * x[2]);
    const double d0 = dot3(r0, e) * inv, d1 = dot3(r1, e) * inv, d2 = dot3(r2, e) * inv;
    x[0] += d0;
    x[1] += d1;
    x[2] += d2;
    if (std::fabs(d0) <= 1e-12 * std::fabs(x[0]) && std::fabs(d1) <= 1e-12 * std::fabs(x[1]) &&
        std::fabs(d2) <= 1e-12 * std::fabs(x[2]))
      break;
  }
  rhs[0] = x[0];
  rhs[1] = x[1];
  rhs[2] = x[2];
  return det;
}

}  // namespace

double solve_3x3(const double* m, double* rhs, int refinements) noexcept {
  double r0[3];
  cross3(m + 3, m + 6, r0);
  return solve_3x3_rows(m, m + 3, m + 6, r0, dot3(m, r0), rhs, refinements);
}

double tet_barycentric(const double* p0, const double* p1, const double* p2, const double* p3,
                       const double* p, double* w) noexcept {
  double m[9], r0[3];
  sub3(p0, p3, m);
  sub3(p1, p3, m + 3);
  sub3(p2, p3, m + 6);
  sub3(p, p3, w);
  cross3(m + 3, m + 6, r0);
  return solve_3x3_rows(m, m + 3, m + 6, r0, dot3(m, r0), w, 2);
}

double tet_barycentric_prepared(const double* a, const double* b, const double* c, const double* bc,
                                double V, const double* p3, const double* p, double* w) noexcept {
  sub3(p, p3, w);
  return solve_3x3_rows(a, b, c, bc, V, w, 2);
}

#if VOXFILL_SOLVE_AVX2
// One call from a walk that runs in AVX2 lanes already: the solve is inlined here.
VOXFILL_AVX2 double tet_barycentric_prepared_avx2(const double* a, const double* b, const double* c,
                                                  const double* p3, const double* p,
                                                  double* w) noexcept {
  sub3(p, p3, w);
  return solve_3x3_avx2(a, b, c, w, 2);
}
#endif

double tet_barycentric(const dense2D<double>& coords, unsigned n0, unsigned n1, unsigned n2,
                       unsigned n3, const double* p, double* w) noexcept {
  VOXFILL_ASSERT(coords.rows == 3);
  return tet_barycentric(coords.col(n0), coords.col(n1), coords.col(n2), coords.col(n3), p, w);
}

double tet_barycentric(const double* xyz, unsigned n0, unsigned n1, unsigned n2, unsigned n3,
                       const double* p, double* w) noexcept {
  return tet_barycentric(xyz_point(xyz, n0), xyz_point(xyz, n1), xyz_point(xyz, n2),
                         xyz_point(xyz, n3), p, w);
}

// Based at p2; when p0 p1 is the shortest side it replaces p1 - p2, which keeps the normal
// equations well scaled, and the weight of p0 is corrected afterwards:
// w0 (p0 - p2) + w1 (p1 - p0) = (w0 - w1) (p0 - p2) + w1 (p1 - p2).
template <unsigned D>
double triangle_barycentric(const double* p0, const double* p1, const double* p2, const double* p,
                            double* w) noexcept {
  w[0] = w[1] = 0.0;
  double u[D], v[D], d[D];
  double Lu = 0.0, Lv = 0.0, Le = 0.0;
  for (unsigned i = 0; i < D; ++i) {
    u[i] = p0[i] - p2[i];
    v[i] = p1[i] - p2[i];
    d[i] = p[i] - p2[i];
    Lu += u[i] * u[i];
    Lv += v[i] * v[i];
    Le += (p1[i] - p0[i]) * (p1[i] - p0[i]);
  }
  bool shifted = false;
  if (Le < Lu && Le < Lv) {
    for (unsigned i = 0; i < D; ++i) v[i] = p1[i] - p0[i];
    Lv = Le;
    shifted = true;
  }
  double g = 0.0, r1 = 0.0, r2 = 0.0;
  for (unsigned i = 0; i < D; ++i) {
    g += u[i] * v[i];
    r1 += u[i] * d[i];
    r2 += v[i] * d[i];
  }
  const double G = Lu * Lv - g * g;
  const double area = std::sqrt(G > 0.0 ? G : 0.0);
  bool at0 = true, at1 = true;
  for (unsigned i = 0; i < D; ++i) {
    at0 = at0 && p[i] == p0[i];
    at1 = at1 && p[i] == p1[i];
  }
  if (at0) {
    w[0] = 1.0;
    return area;
  }
  if (at1) {
    w[1] = 1.0;
    return area;
  }
  if (Lu * Lv * SQUARE_TOL >= G) return 0.0;
  solve_2x2(Lu, g, Lv, 1.0 / G, r1, r2, 2, w[0], w[1]);
  if (shifted) w[0] -= w[1];
  return area;
}
template double triangle_barycentric<2>(const double*, const double*, const double*, const double*,
                                        double*) noexcept;
template double triangle_barycentric<3>(const double*, const double*, const double*, const double*,
                                        double*) noexcept;

double triangle_barycentric(const dense2D<double>& coords, unsigned n0, unsigned n1, unsigned n2,
                            const double* p, double* w) noexcept {
  if (coords.rows == 2)
    return triangle_barycentric<2>(coords.col(n0), coords.col(n1), coords.col(n2), p, w);
  return triangle_barycentric<3>(coords.col(n0), coords.col(n1), coords.col(n2), p, w);
}

double triangle_barycentric(const double* xyz, unsigned n0, unsigned n1, unsigned n2,
                            const double* p, double* w) noexcept {
  return triangle_barycentric<3>(xyz_point(xyz, n0), xyz_point(xyz, n1), xyz_point(xyz, n2), p, w);
}

// ---------------------------------------------------------------------------------------------
// Classification

namespace {
// Index of the smallest of n values (the earlier on a tie), or -1 when it is not below -tolerance.
int most_violated(const double* v, unsigned n, double tolerance) noexcept {
  unsigned best = 0;
  for (unsigned i = 1; i < n; ++i)
    if (v[i] < v[best]) best = i;
  return v[best] < -tolerance ? int(best) : -1;
}
}  // namespace

// The last weight is scaled by the inverse length of the outer normal of the reference triangle,
// 1 / sqrt(2), so that all three values are distances in reference coordinates.
int classify_triangle_point(double w0, double w1, double tolerance) noexcept {
  const double v[3] = {w0, w1, (1.0 - w0 - w1) * 0.7071067811865476};
  return most_violated(v, 3, tolerance);
}

// Likewise with 1 / sqrt(3) for the slanted face of the reference tet.
int classify_tet_point(const double* w, double tolerance) noexcept {
  const double v[4] = {w[0], w[1], w[2], (1.0 - w[0] - w[1] - w[2]) * 0.5773502691896257};
  return most_violated(v, 4, tolerance);
}

// A weight is the distance to its side over the height on that side, and the height is
// double_area / side: their product is the distance itself.
int classify_triangle_point_scaled(double w0, double w1, double tolerance, double side0,
                                   double side1, double side2, double double_area) noexcept {
  if (!(side0 > 0.0) || !(side1 > 0.0) || !(side2 > 0.0) || !(double_area > 0.0)) return -3;
  const double v[3] = {w0 * (double_area / side0), w1 * (double_area / side1),
                       (1.0 - w0 - w1) * (double_area / side2)};
  return most_violated(v, 3, tolerance);
}

// ---------------------------------------------------------------------------------------------
// Planes

// Measured from each node in turn; the smallest value comes from the node whose offset to p is
// most nearly in the plane, which limits the cancellation.
double point_plane_distance2(const double* p0, const double* p1, const double* p2,
                             const double* p) noexcept {
  double n[3];
  face_normal(p0, p1, p2, n);
  const double NN = dot3(n, n);
  if (NN == 0.0) return 0.0;
  const double* q[3] = {p0, p1, p2};
  double best = NO_VALUE;
  for (unsigned i = 0; i < 3; ++i) {
    double d[3];
    sub3(p, q[i], d);
    const double s = dot3(d, n);
    if (s * s < best) best = s * s;
  }
  return best / NN;
}

double point_plane_distance2(const dense2D<double>& coords, unsigned n0, unsigned n1, unsigned n2,
                             const double* p) noexcept {
  VOXFILL_ASSERT(coords.rows == 3);
  return point_plane_distance2(coords.col(n0), coords.col(n1), coords.col(n2), p);
}

double point_plane_distance2(const double* xyz, unsigned n0, unsigned n1, unsigned n2,
                             const double* p) noexcept {
  return point_plane_distance2(xyz_point(xyz, n0), xyz_point(xyz, n1), xyz_point(xyz, n2), p);
}

// The offset of P is taken from the node nearest to P, again to keep the dot product small.
double segment_plane_parameter(const double* p0, const double* p1, const double* p2,
                               const double* P, const double* Q, double scale2,
                               double& gap2) noexcept {
  gap2 = 0.0;
  double n[3];
  face_normal(p0, p1, p2, n);
  const double NN = dot3(n, n);
  if (NN == 0.0) return NO_VALUE;
  const double* q[3] = {p0, p1, p2};
  const double* nearest = p0;
  double best = NO_VALUE;
  for (unsigned i = 0; i < 3; ++i) {
    const double d2 = geometry_detail::dist2<3>(P, q[i]);
    if (d2 <= best) {
      best = d2;
      nearest = q[i];
    }
  }
  double off[3], dir[3];
  sub3(P, nearest, off);
  sub3(Q, P, dir);
  const double d = dot3(off, n), e = dot3(dir, n);
  if (e * e <= scale2 * 1e-24 * NN) {
    const double dq = d + e;
    gap2 = (d * d < dq * dq ? d * d : dq * dq) / NN;
    return NO_VALUE;
  }
  return -d / e;
}

double segment_plane_parameter(const dense2D<double>& coords, unsigned n0, unsigned n1, unsigned n2,
                               const double* P, const double* Q, double scale2,
                               double& gap2) noexcept {
  VOXFILL_ASSERT(coords.rows == 3);
  return segment_plane_parameter(coords.col(n0), coords.col(n1), coords.col(n2), P, Q, scale2,
                                 gap2);
}

double segment_plane_parameter(const double* xyz, unsigned n0, unsigned n1, unsigned n2,
                               const double* P, const double* Q, double scale2,
                               double& gap2) noexcept {
  return segment_plane_parameter(xyz_point(xyz, n0), xyz_point(xyz, n1), xyz_point(xyz, n2), P, Q,
                                 scale2, gap2);
}

// ---------------------------------------------------------------------------------------------
// Segments

// The projection is measured from the end nearer to p, so that the dot product is small, and the
// distance inside is the cross product with the same short offset over |AB|.
template <unsigned D>
double closest_on_segment(const double* A, const double* B, const double* p,
                          double* dist2) noexcept {
  double ab[D], pa[D], pb[D];
  double L = 0.0, dA = 0.0, dB = 0.0;
  for (unsigned i = 0; i < D; ++i) {
    ab[i] = B[i] - A[i];
    pa[i] = p[i] - A[i];
    pb[i] = p[i] - B[i];
    L += ab[i] * ab[i];
    dA += pa[i] * pa[i];
    dB += pb[i] * pb[i];
  }
  if (!(L > 0.0)) {
    if (dist2) *dist2 = dA;
    return 0.0;
  }
  const bool fromA = dA <= dB;
  const double* off = fromA ? pa : pb;
  double s = 0.0;
  for (unsigned i = 0; i < D; ++i) s += off[i] * ab[i];
  s = fromA ? s / L : -s / L;  // parameter from the nearer end, towards the other one
  if (s <= 0.0 || s >= 1.0) {
    // Outside the open segment: the nearer end (the far one only by rounding).
    const bool atA = fromA == (s <= 0.0);
    if (dist2) *dist2 = atA ? dA : dB;
    return atA ? 0.0 : 1.0;
  }
  if (dist2) {
    double c2;
    if constexpr (D == 2) {
      const double c = ab[0] * off[1] - ab[1] * off[0];
      c2 = c * c;
    } else {
      double c[3];
      cross3(ab, off, c);
      c2 = dot3(c, c);
    }
    *dist2 = c2 / L;
  }
  return fromA ? s : 1.0 - s;
}
template double closest_on_segment<2>(const double*, const double*, const double*,
                                      double*) noexcept;
template double closest_on_segment<3>(const double*, const double*, const double*,
                                      double*) noexcept;

// ---------------------------------------------------------------------------------------------
// Lengths and local indices

void side_lengths2(const dense2D<double>& coords, unsigned n0, unsigned n1, unsigned n2,
                   double* out) noexcept {
  out[0] = edge_length2(coords, n1, n2);
  out[1] = edge_length2(coords, n0, n2);
  out[2] = edge_length2(coords, n0, n1);
}

void side_lengths2(const double* xyz, unsigned n0, unsigned n1, unsigned n2, double* out) noexcept {
  out[0] = edge_length2(xyz, n1, n2);
  out[1] = edge_length2(xyz, n0, n2);
  out[2] = edge_length2(xyz, n0, n1);
}

int local_index_pair(unsigned a, unsigned b, const unsigned* tri) noexcept {
  if (a == b) return -1;
  int i = -1, j = -1;
  for (int k = 0; k < 3; ++k) {
    if (tri[k] == a) i = k;
    if (tri[k] == b) j = k;
  }
  if (i < 0 || j < 0) return -1;
  return 3 - i - j;
}

int local_edge_of_tet(unsigned a, unsigned b, const unsigned* tet) noexcept {
  if (a == b) return -1;
  int i = -1, j = -1;
  for (int k = 0; k < 4; ++k) {
    if (tet[k] == a) i = k;
    if (tet[k] == b) j = k;
  }
  if (i < 0 || j < 0) return -1;
  return tet_edge_of_nodes[i][j];
}

}  // namespace kelvo::voxfill
