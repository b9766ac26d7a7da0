// Analytic centre of a ball by line searches along the gradient of the log-barrier of its planes.
#include "voxfill/boundary/ball_center.h"

#include <cfloat>
#include <cmath>

#include "delaunay/geometry.h"
#include "delaunay/tet_tables.h"

namespace kelvo::voxfill {

namespace {
using namespace geometry_detail;

inline constexpr double TINY = 2.2250738585072014e-308;  // the least normal double

// Node k of coded face `code`, in the order of the face table.
unsigned face_node(const mesh_store& m, unsigned code, unsigned k) noexcept {
  return m.tets(tet_face_nodes[code & 3u][k], code >> 2);
}

// The barrier -1/2 ln prod (d_i^2 / |N_i|^2 / R^2) at y + s g: minus the sum of the logarithms
// of the distances in units of the ball's radius. Outside, or where the product underflows, a
// penalty that grows with the worst violation, so that a line search backs away from there.
double barrier(const ball_polyhedron& poly, double s) noexcept {
  const unsigned count = poly.values.size;
  double smallest = DBL_MAX, product = 1.0;
  for (unsigned i = 0; i < count; ++i) {
    const double d = poly.values[i] + s * poly.slopes[i];
    if (d < smallest) smallest = d;
    product *= d * d * poly.inverse2[i] * poly.scale;
  }
  if (smallest > TINY && product > TINY) return -0.5 * std::log(product);
  return (1.0 + std::fabs(smallest)) * 1e12;
}

// Minimum of the barrier on [lo, hi] by three-point interval halving: the middle point is kept
// below both ends, so the minimum of a convex function never leaves the bracket.
double line_minimum(const ball_polyhedron& poly, double lo, double hi, double tol_s) noexcept {
  if (hi <= lo) return lo;
  double a = lo, c = hi, b = (a + c) / 2;
  double fa = barrier(poly, a), fb = barrier(poly, b), fc = barrier(poly, c);
  for (;;) {
    const double l = (a + b) / 2, r = (b + c) / 2;
    if (!(fb < fa && fb < fc)) {
      if (fa <= fc) {
        c = b, fc = fb, b = l;
      } else {
        a = b, fa = fb, b = r;
      }
      fb = barrier(poly, b);
    } else {
      const double fl = barrier(poly, l);
      if (fl < fb) {
        c = b, fc = fb, b = l, fb = fl;
      } else {
        const double fr = barrier(poly, r);
        if (fr < fb) {
          a = b, fa = fb, b = r, fb = fr;
        } else {
          a = l, fa = fl, c = r, fc = fr;
        }
      }
    }
    const double ga = std::fabs(fb - fa), gc = std::fabs(fb - fc);
    if ((ga > gc ? ga : gc) <= 0.0) break;
    if (!(b - a > tol_s || c - b > tol_s)) break;
  }
  double s = b, f = fb;
  if (fa < f) s = a, f = fa;
  if (fc < f) s = c;
  return s;
}

// The planes of the faces, relative to the mean of their nodes. False for faces without extent
// (or none at all) and when memory ran out.
bool build_polyhedron(const mesh_store& m, const dense1D<unsigned>& faces,
                      ball_polyhedron& poly) noexcept {
  const unsigned count = faces.size;
  if (!count || !poly.normals.resize(3, count) || !poly.offsets.resize(count) ||
      !poly.normals2.resize(count) || !poly.inverse2.resize(count) || !poly.values.resize(count) ||
      !poly.slopes.resize(count))
    return false;
  const dense2D<double>& xyz = m.nodes.data;
  double* C = poly.reference;
  C[0] = C[1] = C[2] = 0.0;
  for (unsigned j = 0; j < count; ++j)
    for (unsigned k = 0; k < 3; ++k) {
      const double* p = xyz.col(face_node(m, faces[j], k));
      C[0] += p[0], C[1] += p[1], C[2] += p[2];
    }
  for (unsigned i = 0; i < 3; ++i) C[i] /= 3.0 * count;
  double R2 = 0.0;
  for (unsigned j = 0; j < count; ++j) {
    const double* p0 = xyz.col(face_node(m, faces[j], 0));
    const double* p1 = xyz.col(face_node(m, faces[j], 1));
    const double* p2 = xyz.col(face_node(m, faces[j], 2));
    double g[3];
    for (unsigned i = 0; i < 3; ++i) g[i] = (p0[i] + p1[i] + p2[i]) / 3.0 - C[i];
    R2 += dot3(g, g);
    double* N = poly.normals.col(j);
    face_normal(p0, p1, p2, N);
    double off[3];
    sub3(C, p0, off);
    poly.offsets[j] = dot3(off, N);
    poly.normals2[j] = dot3(N, N);
    poly.inverse2[j] = poly.normals2[j] > 0.0 ? 1.0 / poly.normals2[j] : 0.0;
  }
  R2 /= count;
  if (!(R2 > 0.0)) return false;
  poly.scale = 1.0 / R2;
  return true;
}

}  // namespace

bool ball_center(const mesh_store& m, const dense1D<unsigned>& faces, double* X, double& least2,
                 ball_polyhedron& poly) noexcept {
  least2 = -DBL_MAX;
  if (!build_polyhedron(m, faces, poly)) return false;
  const unsigned count = faces.size;
  const double* C = poly.reference;
  double y[3];
  sub3(X, C, y);
  double g0 = 0.0;
  unsigned steps = 0;
  for (;;) {
    // Inside, g is the gradient of the sum of ln d_i; outside, the inward normal of the face
    // that is worst violated, the later one on a tie.
    least2 = DBL_MAX;
    double g[3] = {0.0, 0.0, 0.0};
    for (unsigned i = 0; i < count; ++i) {
      const double* N = poly.normals.col(i);
      const double d = poly.offsets[i] + dot3(N, y);
      poly.values[i] = d;
      double v = d * d * poly.inverse2[i];
      if (d < 0.0) v = -v;
      if (v < least2) least2 = v;
      if (d > 0.0 && least2 > 0.0) {
        for (unsigned k = 0; k < 3; ++k) g[k] += N[k] / d;
      } else if (d <= 0.0 && v == least2) {
        g[0] = N[0], g[1] = N[1], g[2] = N[2];
      }
    }
    const double g2 = dot3(g, g);
    if (least2 > 0.0 && least2 < DBL_MAX && g0 == 0.0) g0 = g2;

    // The longest step: inside, until some face comes as near as the nearest one is now (the
    // barrier's minimum on the line lies before that); outside, until a plane is reached.
    double T = DBL_MAX;
    bool limited = false;
    for (unsigned i = 0; i < count; ++i) {
      const double q = dot3(poly.normals.col(i), g);
      poly.slopes[i] = q;
      if (!(q < 0.0)) continue;
      const double d = poly.values[i];
      const double t = least2 >= 0.0 ? (std::sqrt(poly.normals2[i] * least2) - d) / q : -d / q;
      if (t < T) T = t;
      limited = true;
    }
    if (!limited || T < 0.0) T = 0.0;
    const double tol_s = 0.05 * T > 1e-12 ? 0.05 * T : 1e-12;
    const double width = T * 0.16666666666666666;

    // A coarse scan brackets the minimum, halving refines it.
    double s_best = 0.0, f_best = barrier(poly, 0.0);
    for (unsigned k = 1; k <= 6; ++k) {
      const double f = barrier(poly, k * width);
      if (f < f_best) s_best = k * width, f_best = f;
    }
    const double lo = s_best - width > 0.0 ? s_best - width : 0.0;
    const double hi = s_best + width < T ? s_best + width : T;
    const double s = line_minimum(poly, lo, hi, tol_s);

    for (unsigned k = 0; k < 3; ++k) y[k] += s * g[k];
    if (steps == count) break;
    ++steps;
    const double ratio2 = poly.stop_ratio * poly.stop_ratio;
    if (!(s * s * g2 > g0 * ratio2)) break;
  }
  for (unsigned k = 0; k < 3; ++k) X[k] = y[k] + C[k];
  return least2 > 0.0;
}

}  // namespace kelvo::voxfill
