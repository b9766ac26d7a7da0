// Tolerant intersection tests of segments with segments and with triangles: closest points,
// distances and contact flags that hold up on nearly coplanar and nearly touching input.
#pragma once

#include <cmath>

#include "delaunay/geometry.h"

namespace kelvo::voxfill {

// Contact of two segments AB and PQ. s and t are the parameters of the contact on AB and PQ,
// `point` the contact on AB, `gap2` the squared distance between the two. `strict`: the two are
// parallel and overlap over more than the tolerance. A crossing is on_first and on_second.
struct segment_contact {
  double s = NO_VALUE;
  double t = NO_VALUE;
  double point[3] = {0.0, 0.0, 0.0};
  double gap2 = NO_VALUE;
  bool on_first = false;   // the contact lies on AB within the tolerance
  bool on_second = false;  // the contact lies on PQ within the tolerance
  bool strict = false;
};

// Contact of a segment PQ with a triangle (f0, f1, f2). `weights` are those of f0 and f1 of the
// contact point `point`, t its parameter on PQ, `gap2` its squared distance to the plane (or to
// the side it was found on). `strict`: the segment lies in the plane and really overlaps the
// triangle, or it overlaps a side. A crossing is in_face and on_segment.
struct triangle_contact {
  double weights[2] = {0.0, 0.0};
  double t = NO_VALUE;
  double point[3] = {0.0, 0.0, 0.0};
  double gap2 = 0.0;
  bool in_face = false;     // the contact lies in the triangle within the tolerance
  bool on_segment = false;  // it lies on PQ within the tolerance
  bool strict = false;
};

// Closest points of the lines AB and PQ: returns their squared distance, with s on AB and t on PQ
// (A + s (B - A) and P + t (Q - P)). `parallel` when the squared sine between them is at most
// 1e-24 (or a segment has length 0); s and t are then NO_VALUE and the distance is that of the two
// nearest ends, of no further use.
double closest_lines(const double* A, const double* B, const double* P, const double* Q, double& s,
                     double& t, bool& parallel) noexcept;

// Squared distance of the segments AB and PQ, with the parameters s, t of its two ends and, in
// `point` (may be null), the end on AB.
double segment_distance2(const double* A, const double* B, const double* P, const double* Q,
                         double& s, double& t, double* point) noexcept;

// Contact of the segments AB and PQ. `tol` is a length, or with `absolute` a fraction of each
// segment's length. A segment of length 0 gives s = t = NO_VALUE and no flag.
segment_contact intersect_segments(const double* A, const double* B, const double* P,
                                   const double* Q, double tol, bool absolute) noexcept;

// The same for the mesh edges (a, b) and (p, q), columns of `nodes`. An edge against itself gives
// no flag, s = t = gap2 = 0.0; two edges that share a node do not cross unless they overlap.
segment_contact intersect_node_edges(const dense2D<double>& nodes, unsigned a, unsigned b,
                                     unsigned p, unsigned q, double tol, bool absolute) noexcept;

// Contact of the segment PQ with the triangle (f0, f1, f2) of `nodes`. `tol` as above. A segment
// of length 0 (t = NO_VALUE) or a flat triangle gives no flag.
triangle_contact intersect_segment_triangle(const dense2D<double>& nodes, unsigned f0, unsigned f1,
                                            unsigned f2, const double* P, const double* Q,
                                            double tol, bool absolute) noexcept;

// True when the boxes of PQ and of the triangle (f0, f1, f2) of `nodes` stand apart, on some axis,
// by more than every contact with tolerance `tol` (a length) can bridge, with room for rounding:
// intersect_segment_triangle would then report neither in_face nor on_segment. Cheap, so worth
// asking first when only those flags matter.
inline bool segment_triangle_apart(const dense2D<double>& nodes, unsigned f0, unsigned f1,
                                   unsigned f2, const double* P, const double* Q,
                                   double tol) noexcept {
  const double* a = nodes.col(f0);
  const double* b = nodes.col(f1);
  const double* c = nodes.col(f2);
  for (unsigned i = 0; i < 3; ++i) {
    double lo = a[i], hi = a[i];
    lo = b[i] < lo ? b[i] : lo, hi = b[i] > hi ? b[i] : hi;
    lo = c[i] < lo ? c[i] : lo, hi = c[i] > hi ? c[i] : hi;
    const double slo = P[i] < Q[i] ? P[i] : Q[i], shi = P[i] < Q[i] ? Q[i] : P[i];
    const double big = std::fabs(lo) + std::fabs(hi) + std::fabs(slo) + std::fabs(shi);
    const double margin = 4.0 * tol + 1e-7 * big;
    if (shi + margin < lo || hi + margin < slo) return true;
  }
  return false;
}

}  // namespace kelvo::voxfill
