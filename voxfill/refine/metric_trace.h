// Length of a segment in the size field: the integral of 1 / size along it. Over the mesh itself it
// comes from the two end sizes; over a background mesh the segment is traced through its tets, or
// sampled where the walk can't follow it, into the polyline held by the field's scratch.
#pragma once

#include "delaunay/geometry.h"
#include "voxfill/refine/size_field.h"

namespace kelvo::voxfill {

// Empties the polyline of the field's scratch.
void trace_clear(size_field& f) noexcept;

// Appends the point P of size h to the polyline, with the length up to it: the last length plus
// |P - previous| over log_mean of the two sizes (nothing when that mean is not positive). False
// when memory ran out; the polyline is then emptied.
bool trace_append(size_field& f, const double* P, double h) noexcept;

// The last cumulative length of the polyline; 0.0 when it is empty.
double trace_last_length(const size_field& f) noexcept;

// The polyline from P to Q: straight when both lie in one tet, else by trace_walk from tP, and by
// trace_steps when the walk fails. Stops soon after the length passed `limit`.
bool trace_length(size_field& f, const double* P, unsigned tP, double hP, const double* Q,
                  unsigned tQ, double hQ, double limit) noexcept;

// Follows the segment P Q through the field's tets from t (which holds P), appending the point of
// each face crossed with its interpolated size. Steps past an edge or a node by 1e-10 of the
// segment. True when it reached the tet of Q or passed `limit`; false when it left the domain, met
// a bad tet or ran out of nudges. Does not append Q.
bool trace_walk(size_field& f, const double* P, const double* Q, unsigned t, double limit) noexcept;

// The polyline from P to Q sampled at 2 m - 1 inner points, m the length from the end sizes
// alone (at least 1), with sizes by field_size_at from the hint t (the parents beyond the
// field's domain). False, with the polyline P Q of the end sizes, when a size is missing.
bool trace_steps(size_field& f, const double* P, const double* Q, unsigned t, double hP, double hQ,
                 double limit) noexcept;

// L = the length of P Q in the field; tP, tQ are tets of the field's mesh holding P and Q, or
// NONE. False (L = 0.0) when the trace failed.
bool field_length(size_field& f, const double* P, unsigned tP, double hP, const double* Q,
                  unsigned tQ, double hQ, double& L) noexcept;

// Whether P Q is longer than `limit` when its length is the distance over the logarithmic mean of
// the sizes, decided without the logarithm where it can be: EDGE_LONG, EDGE_SHORT, or EDGE_ASK
// when only the logarithm tells. That mean lies between the geometric and the arithmetic means of
// the sizes (log_mean's series keeps to that far within the margins), so the limit times those
// bound the reach; the margins are far above the rounding of the mean and of the squares, and the
// bounds keep the squares normal.
enum : unsigned { EDGE_SHORT = 0, EDGE_LONG = 1, EDGE_ASK = 2 };
inline unsigned edge_verdict(const double* P, double hP, const double* Q, double hQ,
                             double limit) noexcept {
  const double lo = hP < hQ ? hP : hQ, hi = hP < hQ ? hQ : hP;
  const double near = limit * lo, far = limit * hi;
  if (near > 1e-150 && far < 1e150) {
    const double d2 = geometry_detail::dist2<3>(P, Q);
    const double mean = 0.5 * (near + far);
    if (d2 > mean * mean * (1.0 + 1e-9)) return EDGE_LONG;
    if (d2 < near * far * (1.0 - 1e-9)) return EDGE_SHORT;
  }
  return EDGE_ASK;
}

// True when the length of P Q is above `limit`, or can't be traced. Traces little further than
// the limit, so that the cost does not grow with the segment.
bool longer_than(size_field& f, const double* P, unsigned tP, double hP, const double* Q,
                 unsigned tQ, double hQ, double limit) noexcept;

}  // namespace kelvo::voxfill
