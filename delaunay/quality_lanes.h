// tet_quality of four tets at a time: the same operations as the scalar code, lane by lane, so
// the same bits. Where the processor lacks AVX, the scalar code one tet after the other.
#pragma once

#include "numcore/dense2D.h"

namespace kelvo::voxfill {

// q[l] = tet_quality(t[l][0], t[l][1], t[l][2], t[l][3]) for the lanes l = 0 to 3.
void tet_quality_lanes(const double* const* const t[4], double q[4]) noexcept;

// The same with the points of lane l at p[4 l] to p[4 l + 3].
void tet_quality_lanes(const double* const p[16], double q[4]) noexcept;

// For the triangles (t[l][0], t[l][1], t[l][2]), l = 0 to 3: the point C + (height e) N, with N
// the normal of face_normal divided by its length (left as it is at length 0 or 1), C the
// centroid ((p0 + p1) + p2) / 3 and e the perimeter |p0 p1| + |p1 p2| + |p2 p0|. With `means`,
// e is first blended as s + weight (e - s) with s the sum of means[l][0..2]. The operations and
// their order are those of the scalar code.
void apex_lanes(const double* const* const t[4], double height, double weight,
                const double (*means)[3], double target[4][3]) noexcept;

// For the edges from p (size hp) to q[l] (size h[l]), l = 0 to 3: the length d[l], and a floor
// of the edge's symmetric length in the metric of the sizes, min(below / d, d / above) with
// below and above a little under the geometric and over the arithmetic mean of the end sizes.
// Bit l of the result is set when both sizes are in (1e-150, 1e150), where the floor holds.
unsigned edge_fit_floor_lanes(const double* p, double hp, const double* const q[4],
                              const double h[4], double d[4], double floor[4]) noexcept;

// For the tets (t[l][0], .., t[l][3]), l = 0 to 3, and their nodes i = 0 to 3: y[l][i] and
// x[l][i] with the solid angle at node i equal to 2 atan2(y, x), from the unit vectors u, v, w
// along the edges to the nodes of tet_turned_face_nodes[i]: y = u . (v x w), x = (u + v) . (v + w).
// A unit vector is the edge vector times 1 / |edge| (kept as it is at length 0 or 1).
void solid_angle_lanes(const double* const* const t[4], double y[4][4], double x[4][4]) noexcept;

// out[l] = float(2 atan2(y[l], x[l])) for l = 0 to 3, the bits of the library call, mostly by a
// series far more precise than a float.
void twice_atan2_lanes(const double y[4], const double x[4], float out[4]) noexcept;

// The same with the tets' nodes n[4 l] to n[4 l + 3] in a 3-row coordinate table.
void tet_quality_lanes(const dense2D<double>& coords, const unsigned n[16], double q[4]) noexcept;

}  // namespace kelvo::voxfill
