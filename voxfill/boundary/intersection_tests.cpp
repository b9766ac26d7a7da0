// Tolerant intersection tests of segments with segments and with triangles.
#include "voxfill/boundary/intersection_tests.h"

#include <cmath>
#include <utility>

namespace kelvo::voxfill {

namespace {
using namespace geometry_detail;

// Closest points of the two lines, then each parameter clamped to its segment with the other
// one recomputed from the clamped end. Returns the squared distance; `parallel` as the lines.
double clamped_closest(const double* A, const double* B, const double* P, const double* Q,
                       double& s, double& t, bool& parallel) noexcept {
  double d = closest_lines(A, B, P, Q, s, t, parallel);
  if (s < 0.0) {
    s = 0.0;
    t = closest_on_segment<3>(P, Q, A, &d);
  } else if (s > 1.0) {
    s = 1.0;
    t = closest_on_segment<3>(P, Q, B, &d);
  }
  if (t <= 0.0) {
    t = 0.0;
    s = closest_on_segment<3>(A, B, P, &d);
  } else if (t >= 1.0) {
    t = 1.0;
    s = closest_on_segment<3>(A, B, Q, &d);
  }
  return d;
}

}  // namespace

// The cross product is taken from the two shortest of u, v and v - u: equal in exact arithmetic,
// it is most accurate from the short ones, and it measures the angle of u and v. Measuring from the
// nearest pair of ends keeps the offset r short too, so the dot products below lose little to
// cancellation.
double closest_lines(const double* A, const double* B, const double* P, const double* Q, double& s,
                     double& t, bool& parallel) noexcept {
  double u[3], v[3], w[3], c[3];
  sub3(B, A, u);
  sub3(Q, P, v);
  sub3(v, u, w);
  const double Lu = dot3(u, u), Lv = dot3(v, v), Lw = dot3(w, w);
  if (Lw > (Lu < Lv ? Lu : Lv))
    cross3(u, v, c);
  else if (Lu < Lv)
    cross3(w, u, c);
  else
    cross3(w, v, c);
  const double D = dot3(c, c);
  parallel = D <= 1e-24 * (Lu * Lv);

  // The origin: the first of (A, P), (A, Q), (B, P) that is strictly the nearest pair of ends,
  // else (B, Q).
  const double d[4] = {dist2<3>(A, P), dist2<3>(A, Q), dist2<3>(B, P), dist2<3>(B, Q)};
  unsigned pick = 3;
  for (unsigned k = 0; k < 3 && pick == 3; ++k) {
    bool nearest = true;
    for (unsigned j = 0; j < 4; ++j) nearest = nearest && (j == k || d[k] < d[j]);
    if (nearest) pick = k;
  }
  const bool at_B = pick >= 2, at_Q = pick & 1u;
  double r[3];
  sub3(at_Q ? Q : P, at_B ? B : A, r);
  if (parallel) {
    s = t = NO_VALUE;
    return dot3(r, r);
  }
  const double a = dot3(u, v), b = dot3(r, u), cv = dot3(r, v);
  const double s0 = (b * Lv - cv * a) / D, t0 = (b * a - cv * Lu) / D;
  s = at_B ? s0 + 1.0 : s0;
  t = at_Q ? t0 + 1.0 : t0;
  double e[3];
  for (unsigned i = 0; i < 3; ++i) e[i] = r[i] + t0 * v[i] - s0 * u[i];
  return dot3(e, e);
}

double segment_distance2(const double* A, const double* B, const double* P, const double* Q,
                         double& s, double& t, double* point) noexcept {
  bool parallel;
  const double d = clamped_closest(A, B, P, Q, s, t, parallel);
  if (point) point_on_segment<3>(s, A, B, point);
  return d;
}

segment_contact intersect_segments(const double* A, const double* B, const double* P,
                                   const double* Q, double tol, bool absolute) noexcept {
  segment_contact r;
  const double L1 = dist2<3>(A, B), L2 = dist2<3>(P, Q);
  // A point has no direction to cross along, in either reading of the tolerance.
  if (L1 == 0.0 || L2 == 0.0) return r;
  double tol_s, tol_t, gap_1, gap_2;
  if (absolute) {
    tol_s = tol_t = tol;
    gap_1 = L1 * tol * tol;
    gap_2 = L2 * tol * tol;
  } else {
    tol_s = tol / std::sqrt(L1);
    tol_t = tol / std::sqrt(L2);
    gap_1 = gap_2 = tol * tol;
  }
  bool parallel;
  r.gap2 = clamped_closest(A, B, P, Q, r.s, r.t, parallel);
  point_on_segment<3>(r.s, A, B, r.point);
  r.on_first = !(gap_1 < r.gap2 || r.s <= -tol_s || 1.0 + tol_s <= r.s);
  r.on_second = !(gap_2 < r.gap2 || r.t <= -tol_t || 1.0 + tol_t <= r.t);
  if (r.on_first && r.on_second && parallel) {
    // Parallel segments touch along a stretch: its ends are the projections of P and Q on AB,
    // and only a stretch longer than the tolerance, away from the ends of AB, is an overlap.
    double s = closest_on_segment<3>(A, B, P), t = closest_on_segment<3>(A, B, Q);
    if (t < s) std::swap(s, t);
    r.strict = !(1.0 - tol_s <= s || t <= tol_s || t - s <= tol_s);
    r.s = s;
    point_on_segment<3>(s, A, B, r.point);
    r.t = closest_on_segment<3>(P, Q, r.point, &r.gap2);
  }
  return r;
}

segment_contact intersect_node_edges(const dense2D<double>& nodes, unsigned a, unsigned b,
                                     unsigned p, unsigned q, double tol, bool absolute) noexcept {
  const double* A = nodes.col(a);
  if ((a == p || a == q) && (b == p || b == q)) {
    segment_contact r;
    r.s = r.t = r.gap2 = 0.0;
    r.point[0] = A[0], r.point[1] = A[1], r.point[2] = A[2];
    return r;
  }
  segment_contact r =
      intersect_segments(A, nodes.col(b), nodes.col(p), nodes.col(q), tol, absolute);
  // Edges of one node meet there; that is no crossing unless they run along each other.
  if (r.on_first && r.on_second && !r.strict && (a == p || a == q || b == p || b == q))
    r.on_first = r.on_second = false;
  return r;
}

triangle_contact intersect_segment_triangle(const dense2D<double>& nodes, unsigned f0, unsigned f1,
                                            unsigned f2, const double* P, const double* Q,
                                            double tol, bool absolute) noexcept {
  triangle_contact r;
  r.point[0] = P[0], r.point[1] = P[1], r.point[2] = P[2];
  const double L2 = dist2<3>(P, Q);
  if (L2 == 0.0) return r;
  const double L = std::sqrt(L2);
  const double tol_t = absolute ? tol : tol / L;
  const double tol_d = absolute ? tol * L : tol;
  const double tol_d2 = tol_d * tol_d;

  // Far from the plane: the common case, done after one dot product.
  r.t = segment_plane_parameter(nodes, f0, f1, f2, P, Q, L2, r.gap2);
  if (tol_d2 < r.gap2) return r;
  const bool parallel = r.t == NO_VALUE;

  // The point of the segment next to the plane.
  auto take_end = [&](bool at_Q) {
    const double* E = at_Q ? Q : P;
    r.t = at_Q ? 1.0 : 0.0;
    r.point[0] = E[0], r.point[1] = E[1], r.point[2] = E[2];
  };
  if (parallel) {
    const double dP = point_plane_distance2(nodes, f0, f1, f2, P);
    const double dQ = point_plane_distance2(nodes, f0, f1, f2, Q);
    take_end(!(dP < dQ));
    r.gap2 = dP < dQ ? dP : dQ;
  } else if (r.t <= 0.0) {
    take_end(false);
    r.gap2 = point_plane_distance2(nodes, f0, f1, f2, P);
  } else if (r.t >= 1.0) {
    take_end(true);
    r.gap2 = point_plane_distance2(nodes, f0, f1, f2, Q);
  } else {
    point_on_segment<3>(r.t, P, Q, r.point);
  }
  if (tol_d2 < r.gap2) return r;

  const double area = triangle_barycentric(nodes, f0, f1, f2, r.point, r.weights);
  if (!(area > 0.0)) return r;
  int c;
  if (absolute) {
    c = classify_triangle_point(r.weights[0], r.weights[1], tol);
  } else {
    c = classify_triangle_point_scaled(
        r.weights[0], r.weights[1], tol, std::sqrt(edge_length2(nodes, f1, f2)),
        std::sqrt(edge_length2(nodes, f2, f0)), std::sqrt(edge_length2(nodes, f0, f1)), area);
  }
  if (c < -1) return r;
  if (c == -1) {
    r.in_face = true;
    r.on_segment = -tol_t < r.t && r.t < 1.0 + tol_t;
  }

  // Inside with no margin at all: a transversal crossing is settled; a segment in the plane is
  // settled when the point stands clear of every side.
  bool sides = true;
  if (r.in_face && classify_triangle_point(r.weights[0], r.weights[1], 0.0) == -1) {
    r.strict = parallel && classify_triangle_point(r.weights[0], r.weights[1], -1e-12) == -1;
    sides = parallel && !r.strict;
  }

  double s_min = 2.0, s_max = -1.0;
  if (sides) {
    // The contact lies beyond a side, on the rim, or the segment lies in the plane: test the
    // segment against the sides it may reach, keeping the contact that comes first along PQ.
    const double w[3] = {r.weights[0], r.weights[1],
                         (1.0 - r.weights[0] - r.weights[1]) * 0.7071067811865476};
    const unsigned ends[3][2] = {{f1, f2}, {f2, f0}, {f0, f1}};
    double best = NO_VALUE;
    unsigned count = 0;
    for (unsigned i = 0; i < 3; ++i) {
      if (!(w[i] < 0.0) && !parallel) continue;
      const segment_contact e =
          intersect_segments(P, Q, nodes.col(ends[i][0]), nodes.col(ends[i][1]), tol, absolute);
      if (e.on_first && e.on_second) {
        r.strict = r.strict || e.strict;
        ++count;
        if (e.s < s_min) s_min = e.s;
        if (e.s > s_max) s_max = e.s;
        best = e.gap2;
      }
      if (e.gap2 <= best && e.s <= s_min) {
        r.t = e.s;
        best = e.gap2;
        r.gap2 = e.gap2;
        r.point[0] = e.point[0], r.point[1] = e.point[1], r.point[2] = e.point[2];
        side_point_weights(i, e.t, r.weights);
      }
    }
    r.in_face = r.on_segment = count > 0;
  }

  if (r.in_face && r.on_segment && parallel) {
    // In the plane: two contacts apart along the segment, or an end well inside, is an overlap.
    r.strict = r.strict || 1e-12 < s_max - s_min;
    if (!r.strict) {
      double wP[2], wQ[2];
      triangle_barycentric(nodes, f0, f1, f2, P, wP);
      triangle_barycentric(nodes, f0, f1, f2, Q, wQ);
      r.strict = classify_triangle_point(wP[0], wP[1], -1e-12) == -1 ||
                 classify_triangle_point(wQ[0], wQ[1], -1e-12) == -1;
    }
  }
  return r;
}

}  // namespace kelvo::voxfill
