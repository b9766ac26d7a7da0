// Geometric primitives of the kernel: signed tet quality (orientation test and shape measure in
// one), normals, circumcircles, small solvers, barycentric weights and tolerant classifications.
#pragma once

#include <cmath>
#include <cstddef>

#include "delaunay/tet_tables.h"
#include "numcore/debug_check.h"
#include "numcore/dense2D.h"

namespace kelvo::voxfill {

// Tolerance on squared sines, on relative corrections and on the shape measure.
inline constexpr double SQUARE_TOL = 1e-12;
// Shape values below this magnitude are recomputed under the other even node orders.
inline constexpr double DOUBT_TOL = 1e-10;
// The largest finite double: stands for "no result".
inline constexpr double NO_VALUE = 1.7976931348623157e308;

// Coordinates of node n in a flat array of xyz triples.
inline const double* xyz_point(const double* xyz, unsigned n) noexcept {
  return xyz + 3 * std::size_t(n);
}

namespace geometry_detail {
inline double dot3(const double* u, const double* v) noexcept {
  return u[0] * v[0] + u[1] * v[1] + u[2] * v[2];
}
inline void sub3(const double* p, const double* q, double* r) noexcept {
  r[0] = p[0] - q[0];
  r[1] = p[1] - q[1];
  r[2] = p[2] - q[2];
}
inline void cross3(const double* u, const double* v, double* r) noexcept {
  r[0] = u[1] * v[2] - u[2] * v[1];
  r[1] = u[2] * v[0] - u[0] * v[2];
  r[2] = u[0] * v[1] - u[1] * v[0];
}
template <unsigned D>
double dist2(const double* p, const double* q) noexcept {
  double s = 0.0;
  for (unsigned i = 0; i < D; ++i) s += (p[i] - q[i]) * (p[i] - q[i]);
  return s;
}
// Permutation retries of tet_quality, kept out of line: reached only for doubtful values.
double tet_quality_retry(const double* p0, const double* p1, const double* p2, const double* p3,
                         double q) noexcept;
}  // namespace geometry_detail

// ---------------------------------------------------------------------------------------------
// Orientation and quality

// a . (b x c) with a = p0 - p3, b = p1 - p3, c = p2 - p3: six times the signed volume, positive
// for the tets of the mesh. No normalisation, no tolerance.
inline double orient_det(const double* p0, const double* p1, const double* p2,
                         const double* p3) noexcept {
  using namespace geometry_detail;
  double a[3], b[3], c[3], bc[3];
  sub3(p0, p3, a);
  sub3(p1, p3, b);
  sub3(p2, p3, c);
  cross3(b, c, bc);
  return dot3(a, bc);
}
inline double orient_det(const dense2D<double>& coords, unsigned n0, unsigned n1, unsigned n2,
                         unsigned n3) noexcept {
  VOXFILL_ASSERT(coords.rows == 3);
  return orient_det(coords.col(n0), coords.col(n1), coords.col(n2), coords.col(n3));
}
inline double orient_det(const double* xyz, unsigned n0, unsigned n1, unsigned n2,
                         unsigned n3) noexcept {
  return orient_det(xyz_point(xyz, n0), xyz_point(xyz, n1), xyz_point(xyz, n2), xyz_point(xyz, n3));
}

// Signed shape quality 2 sqrt(6) r / h (inscribed radius over longest edge) of the tet with edge
// vectors a, b, c from its fourth node: 1 for the regular tet, negative when a . (b x c) < 0,
// independent of scale, clamped to [-1, 1]. `doubtful` is set when a face is nearly flat (squared
// sine below SQUARE_TOL) or an edge has no positive length; the value may then have a wrong sign.
// A tet without a positive denominator (coincident nodes) gives 0.0.
inline double raw_shape_quality(const double* a, const double* b, const double* c,
                                bool& doubtful) noexcept {
  using namespace geometry_detail;
  const double L0 = dot3(a, a), L1 = dot3(b, b), L2 = dot3(c, c);
  const double dab = dot3(a, b), dac = dot3(a, c), dbc = dot3(b, c);
  // The far edges come from the dot products: the same rounding as the face terms below.
  const double Eab = L0 + L1 - 2.0 * dab, Eac = L0 + L2 - 2.0 * dac, Ebc = L1 + L2 - 2.0 * dbc;
  // Gram determinants: squares of twice the face areas.
  double Gbc = L1 * L2 - dbc * dbc, Gac = L0 * L2 - dac * dac, Gab = L0 * L1 - dab * dab;
  const double dfar = (L0 - dab) + (dbc - dac);
  double Gfar = Eab * Eac - dfar * dfar;
  doubtful = !(Eab > 0.0) || !(Eac > 0.0) || !(Ebc > 0.0) || Gbc < SQUARE_TOL * L1 * L2 ||
             Gac < SQUARE_TOL * L0 * L2 || Gab < SQUARE_TOL * L0 * L1 ||
             Gfar < SQUARE_TOL * Eab * Eac;
  if (doubtful) {
    if (Gbc < 0.0) Gbc = 0.0;
    if (Gac < 0.0) Gac = 0.0;
    if (Gab < 0.0) Gab = 0.0;
    if (Gfar < 0.0) Gfar = 0.0;
  }
  double H = L0;
  if (L1 > H) H = L1;
  if (L2 > H) H = L2;
  if (Eab > H) H = Eab;
  if (Eac > H) H = Eac;
  if (Ebc > H) H = Ebc;
  const double D =
      std::sqrt(H) * (std::sqrt(Gbc) + std::sqrt(Gac) + std::sqrt(Gab) + std::sqrt(Gfar));
  if (!(D > 0.0)) return 0.0;
  double bc[3];
  cross3(b, c, bc);
  const double q = 4.898979485566356 * dot3(a, bc) / D;
  return q > 1.0 ? 1.0 : (q < -1.0 ? -1.0 : q);
}

// Robust signed quality of the tet (p0, p1, p2, p3): raw_shape_quality, and for a doubtful value
// or one of magnitude in (SQUARE_TOL, DOUBT_TOL) a recomputation under the eleven other even
// orders. A change of sign among them gives exactly 0.0 (the tet counts as flat); otherwise the
// value of smallest magnitude seen. Coincident nodes give 0.0.
inline double tet_quality(const double* p0, const double* p1, const double* p2,
                          const double* p3) noexcept {
  using namespace geometry_detail;
  double a[3], b[3], c[3];
  sub3(p0, p3, a);
  sub3(p1, p3, b);
  sub3(p2, p3, c);
  bool doubtful;
  const double q = raw_shape_quality(a, b, c, doubtful);
  const double m = std::fabs(q);
  if (!doubtful && m >= DOUBT_TOL) return q;
  if (m <= SQUARE_TOL) return q;
  return tet_quality_retry(p0, p1, p2, p3, q);
}
// Nodes from a 3-row coordinate table.
inline double tet_quality(const dense2D<double>& coords, unsigned n0, unsigned n1, unsigned n2,
                          unsigned n3) noexcept {
  VOXFILL_ASSERT(coords.rows == 3);
  return tet_quality(coords.col(n0), coords.col(n1), coords.col(n2), coords.col(n3));
}
// Three nodes of a flat xyz array and a trial point in the place of the fourth node.
inline double tet_quality(const double* xyz, unsigned n0, unsigned n1, unsigned n2,
                          const double* p) noexcept {
  return tet_quality(xyz_point(xyz, n0), xyz_point(xyz, n1), xyz_point(xyz, n2), p);
}
// Four nodes of a flat xyz array.
inline double tet_quality(const double* xyz, unsigned n0, unsigned n1, unsigned n2,
                          unsigned n3) noexcept {
  return tet_quality(xyz_point(xyz, n0), xyz_point(xyz, n1), xyz_point(xyz, n2),
                     xyz_point(xyz, n3));
}

// tet_quality(p0, p1, p2, p3), the same bits, with much of the work in vector lanes where the
// processor has AVX2: for a caller that can't inline the scalar one to any gain.
double tet_quality_wide(const double* p0, const double* p1, const double* p2,
                        const double* p3) noexcept;

// tet_quality of the four tets (p0, p1, p2, centre + z[k] normal), k = 0 to 3, into q[k]: the
// same values, bit for bit, as four calls.
void tet_quality_heights(const double* p0, const double* p1, const double* p2, const double* centre,
                         const double* normal, const double* z, double* q) noexcept;

// ---------------------------------------------------------------------------------------------
// Triangles

// Normal of the triangle (p0, p1, p2), of length twice its area, written to `normal`. For the
// face 0 nodes of a positive tet it points to the side of node 0. When p0 p1 is the shortest side
// it takes the place of p1 p2 in the cross product, so that a long side is left out.
inline void face_normal(const double* p0, const double* p1, const double* p2,
                        double* normal) noexcept {
  using namespace geometry_detail;
  double u[3], v[3], w[3];
  sub3(p0, p2, u);
  sub3(p1, p2, v);
  sub3(p1, p0, w);
  const double Lu = dot3(u, u), Lv = dot3(v, v);
  const double m = Lu < Lv ? Lu : Lv;
  if (dot3(w, w) <= m)
    cross3(u, w, normal);
  else
    cross3(u, v, normal);
}
inline void face_normal(const dense2D<double>& coords, unsigned n0, unsigned n1, unsigned n2,
                        double* normal) noexcept {
  VOXFILL_ASSERT(coords.rows == 3);
  face_normal(coords.col(n0), coords.col(n1), coords.col(n2), normal);
}
inline void face_normal(const double* xyz, unsigned n0, unsigned n1, unsigned n2,
                        double* normal) noexcept {
  face_normal(xyz_point(xyz, n0), xyz_point(xyz, n1), xyz_point(xyz, n2), normal);
}

// Twice the area of the triangle (p0, p1, p2) in 3-D.
double face_double_area(const double* p0, const double* p1, const double* p2) noexcept;
// Signed twice the area of the triangle in the plane (positive counter-clockwise), no square root.
double face_double_area_2d(const double* p0, const double* p1, const double* p2) noexcept;
// Twice the area from a 3-row table, or the signed double area from a 2-row table.
double face_double_area(const dense2D<double>& coords, unsigned n0, unsigned n1,
                        unsigned n2) noexcept;
double face_double_area(const double* xyz, unsigned n0, unsigned n1, unsigned n2) noexcept;

// Solves the symmetric system [A B; B C] (x, y) = (r1, r2) given 1 / (A C - B^2), then refines
// up to `refinements` times from the residual, stopping once both corrections are below 1e-12 of
// their unknowns.
inline void solve_2x2(double A, double B, double C, double inv_det, double r1, double r2,
                      int refinements, double& x, double& y) noexcept {
  x = (C * r1 - B * r2) * inv_det;
  y = (A * r2 - B * r1) * inv_det;
  for (int k = 0; k < refinements; ++k) {
    const double e1 = r1 - (A * x + B * y), e2 = r2 - (B * x + C * y);
    const double dx = (C * e1 - B * e2) * inv_det, dy = (A * e2 - B * e1) * inv_det;
    x += dx;
    y += dy;
    if (std::fabs(dx) <= 1e-12 * std::fabs(x) && std::fabs(dy) <= 1e-12 * std::fabs(y)) break;
  }
}

// Circumcentre of the triangle (p0, p1, p2) in D dimensions (2 or 3), written to `centre`;
// returns the squared radius. The vectors start at the node opposite the shortest side. Returns
// NO_VALUE, and leaves `centre` as it was, for a flat triangle (squared tangent of the angle at the
// origin below SQUARE_TOL, or a side of length 0).
template <unsigned D = 3>
double circumcircle(const double* p0, const double* p1, const double* p2, double* centre) noexcept {
  const double* origin = p2;
  double u[D], v[D];
  double Lu = 0.0, Lv = 0.0, Lw = 0.0;
  for (unsigned i = 0; i < D; ++i) {
    u[i] = p0[i] - p2[i];
    v[i] = p1[i] - p2[i];
    const double w = p1[i] - p0[i];
    Lu += u[i] * u[i];
    Lv += v[i] * v[i];
    Lw += w * w;
  }
  if (Lw < Lu && Lw < Lv) {
    origin = p0;
    for (unsigned i = 0; i < D; ++i) {
      u[i] = -u[i];
      v[i] = p1[i] - p0[i];
    }
    Lv = Lw;
  }
  double g = 0.0;
  for (unsigned i = 0; i < D; ++i) g += u[i] * v[i];
  const double G = Lu * Lv - g * g;
  if (!(G > 0.0) || g * g * SQUARE_TOL > G) return NO_VALUE;
  double s, t;
  solve_2x2(Lu, g, Lv, 1.0 / G, Lu, Lv, 2, s, t);
  s *= 0.5;
  t *= 0.5;
  double r2 = 0.0;
  for (unsigned i = 0; i < D; ++i) {
    const double o = s * u[i] + t * v[i];
    r2 += o * o;
    centre[i] = origin[i] + o;
  }
  return r2;
}
// From a table of 3 rows (centre of 3 doubles) or 2 rows (centre of 2 doubles).
inline double circumcircle(const dense2D<double>& coords, unsigned n0, unsigned n1, unsigned n2,
                           double* centre) noexcept {
  if (coords.rows == 2)
    return circumcircle<2>(coords.col(n0), coords.col(n1), coords.col(n2), centre);
  return circumcircle<3>(coords.col(n0), coords.col(n1), coords.col(n2), centre);
}
inline double circumcircle(const double* xyz, unsigned n0, unsigned n1, unsigned n2,
                           double* centre) noexcept {
  return circumcircle<3>(xyz_point(xyz, n0), xyz_point(xyz, n1), xyz_point(xyz, n2), centre);
}

// ---------------------------------------------------------------------------------------------
// Linear systems and barycentric weights

// Solves M x = rhs for the 3x3 matrix M given as its three columns in order (`m`, nine doubles)
// by the adjugate, refined up to `refinements` times from the residual. `rhs` is overwritten by
// the unknowns. Returns the determinant (mean of the three cofactor expansions); when it is exactly
// 0.0 the unknowns are all 0.0.
double solve_3x3(const double* m, double* rhs, int refinements) noexcept;

// Weights of p0, p1, p2 of the point `p` in the tet (p0, p1, p2, p3), written to `w` (the weight
// of p3 is 1 minus their sum). Returns the tet's determinant; 0.0 (and zero weights) when flat.
double tet_barycentric(const double* p0, const double* p1, const double* p2, const double* p3,
                       const double* p, double* w) noexcept;
double tet_barycentric(const dense2D<double>& coords, unsigned n0, unsigned n1, unsigned n2,
                       unsigned n3, const double* p, double* w) noexcept;
double tet_barycentric(const double* xyz, unsigned n0, unsigned n1, unsigned n2, unsigned n3,
                       const double* p, double* w) noexcept;
// The same weights, bit for bit, for a tet whose edge vectors a = p0 - p3, b = p1 - p3,
// c = p2 - p3, bc = b x c and determinant V = a . bc are at hand, as orient_det computes them.
double tet_barycentric_prepared(const double* a, const double* b, const double* c, const double* bc,
                                double V, const double* p3, const double* p, double* w) noexcept;
// As tet_barycentric_prepared, for callers that run only where the processor has AVX2 (x86-64).
double tet_barycentric_prepared_avx2(const double* a, const double* b, const double* c,
                                     const double* p3, const double* p, double* w) noexcept;

// Weights of p0 and p1 of the point `p` projected on the plane of the triangle (p0, p1, p2) in D
// dimensions (2 or 3), written to `w`. Returns twice the area; 0.0 with both weights 0.0 when the
// triangle is flat (squared sine below SQUARE_TOL), unless `p` is p0 or p1 exactly.
template <unsigned D>
double triangle_barycentric(const double* p0, const double* p1, const double* p2, const double* p,
                            double* w) noexcept;
extern template double triangle_barycentric<2>(const double*, const double*, const double*,
                                               const double*, double*) noexcept;
extern template double triangle_barycentric<3>(const double*, const double*, const double*,
                                               const double*, double*) noexcept;
// From a table of 2 or 3 rows; `p` has as many coordinates.
double triangle_barycentric(const dense2D<double>& coords, unsigned n0, unsigned n1, unsigned n2,
                            const double* p, double* w) noexcept;
double triangle_barycentric(const double* xyz, unsigned n0, unsigned n1, unsigned n2,
                            const double* p, double* w) noexcept;

// Side of the triangle most violated by the weights (w0, w1): -1 when every side is kept within
// `tolerance` (a distance in reference coordinates), else 0, 1 or 2, the earlier side on a tie.
int classify_triangle_point(double w0, double w1, double tolerance) noexcept;

// Face of the tet most violated by the weights w[0..2]: -1 when inside within `tolerance` (a
// distance in reference coordinates), else 0 to 3, the earlier face on a tie.
int classify_tet_point(const double* w, double tolerance) noexcept;

// As classify_triangle_point, with each weight times its height double_area / side_i, so that
// `tolerance` is a true distance. side_i is the length of the side opposite node i (|p1 p2|,
// |p2 p0|, |p0 p1|). Returns -3 when a side or the area is not positive.
int classify_triangle_point_scaled(double w0, double w1, double tolerance, double side0,
                                   double side1, double side2, double double_area) noexcept;

// Weights (of the triangle's first two nodes) of the point at parameter t on side `side`, the
// sides running p1 p2, p2 p0, p0 p1.
inline void side_point_weights(unsigned side, double t, double* w) noexcept {
  if (side == 0) {
    w[0] = 0.0;
    w[1] = 1.0 - t;
  } else if (side == 1) {
    w[0] = t;
    w[1] = 0.0;
  } else {
    w[0] = 1.0 - t;
    w[1] = t;
  }
}

// ---------------------------------------------------------------------------------------------
// Planes and segments

// Squared distance from `p` to the plane of the triangle (p0, p1, p2), measured from the node that
// gives the smallest value; 0.0 for a flat triangle.
double point_plane_distance2(const double* p0, const double* p1, const double* p2,
                             const double* p) noexcept;
double point_plane_distance2(const dense2D<double>& coords, unsigned n0, unsigned n1, unsigned n2,
                             const double* p) noexcept;
double point_plane_distance2(const double* xyz, unsigned n0, unsigned n1, unsigned n2,
                             const double* p) noexcept;

// Parameter t of the point P + t (Q - P) on the plane of the triangle (p0, p1, p2); `gap2` gets
// 0.0. When the segment is parallel to the plane (squared sine below 1e-24 scale2 / |PQ|^2, scale2
// being a squared length, usually |PQ|^2) it returns NO_VALUE and `gap2` is the smaller squared
// distance of P and Q to the plane. A flat triangle gives NO_VALUE and `gap2` 0.0.
double segment_plane_parameter(const double* p0, const double* p1, const double* p2,
                               const double* P, const double* Q, double scale2,
                               double& gap2) noexcept;
double segment_plane_parameter(const dense2D<double>& coords, unsigned n0, unsigned n1, unsigned n2,
                               const double* P, const double* Q, double scale2,
                               double& gap2) noexcept;
double segment_plane_parameter(const double* xyz, unsigned n0, unsigned n1, unsigned n2,
                               const double* P, const double* Q, double scale2,
                               double& gap2) noexcept;

// Parameter in [0, 1] of the point of segment AB nearest to `p`, in D dimensions (2 or 3),
// measured from the end nearer to `p`; an end exactly when the projection falls outside the open
// segment (or the segment has length 0: then 0.0). With `dist2`, also the squared distance.
template <unsigned D = 3>
double closest_on_segment(const double* A, const double* B, const double* p,
                          double* dist2 = nullptr) noexcept;
extern template double closest_on_segment<2>(const double*, const double*, const double*,
                                             double*) noexcept;
extern template double closest_on_segment<3>(const double*, const double*, const double*,
                                             double*) noexcept;

// The point A + t (B - A) in D dimensions, written to `out`, computed from the nearer end so that
// t = 0 gives A and t = 1 gives B bit for bit.
template <unsigned D = 3>
void point_on_segment(double t, const double* A, const double* B, double* out) noexcept {
  if (t < 0.5)
    for (unsigned i = 0; i < D; ++i) out[i] = A[i] + (B[i] - A[i]) * t;
  else
    for (unsigned i = 0; i < D; ++i) out[i] = B[i] + (A[i] - B[i]) * (1.0 - t);
}

// ---------------------------------------------------------------------------------------------
// Lengths and local indices

// Squared length of the edge (n0, n1); 2-D or 3-D after the table's row count.
inline double edge_length2(const dense2D<double>& coords, unsigned n0, unsigned n1) noexcept {
  if (coords.rows == 2) return geometry_detail::dist2<2>(coords.col(n0), coords.col(n1));
  return geometry_detail::dist2<3>(coords.col(n0), coords.col(n1));
}
inline double edge_length2(const double* xyz, unsigned n0, unsigned n1) noexcept {
  return geometry_detail::dist2<3>(xyz_point(xyz, n0), xyz_point(xyz, n1));
}

// The squared sides |n1 n2|^2, |n0 n2|^2, |n0 n1|^2 written to `out`: side i is opposite node i.
void side_lengths2(const dense2D<double>& coords, unsigned n0, unsigned n1, unsigned n2,
                   double* out) noexcept;
void side_lengths2(const double* xyz, unsigned n0, unsigned n1, unsigned n2, double* out) noexcept;

// Side a b of the triangle `tri` (three nodes) by its number 3 - i - j, the local index of the
// third node, a and b standing at local positions i and j; -1 when a and b are equal or not both
// in the triangle.
int local_index_pair(unsigned a, unsigned b, const unsigned* tri) noexcept;

// Local edge number of the edge (a, b) in the tet `tet` (four nodes); -1 when a and b are equal
// or the tet does not hold both.
int local_edge_of_tet(unsigned a, unsigned b, const unsigned* tet) noexcept;

}  // namespace kelvo::voxfill
