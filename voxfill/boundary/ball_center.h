// Analytic centre of a ball: the point that maximises the sum of the logarithms of the distances
// to the planes of the ball's outer faces, found by damped steps along the gradient.
#pragma once

#include "delaunay/mesh_store.h"
#include "numcore/dense2D.h"

namespace kelvo::voxfill {

// The planes of the faces of one ball, for one call of ball_center. The faces are faces i of
// tets t given as 4 t + i, i being the local node at the ball's centre, so that by the face table
// the normals point into the ball: d_i > 0 on the side of the node, and d_i / |N_i| is the
// distance to the plane of face i. Positions y are taken relative to `reference`.
struct ball_polyhedron {
  dense2D<double> normals;                // 3 x m: face_normal of each face, not of unit length
  dense1D<double> offsets;                // c_i = (C - T_i) . N_i, T_i the first node of face i
  dense1D<double> normals2;               // |N_i|^2
  dense1D<double> inverse2;               // 1 / |N_i|^2, 0.0 for a null normal
  dense1D<double> values;                 // d_i = c_i + N_i . y at the current point y
  dense1D<double> slopes;                 // q_i = N_i . g along the current direction g
  double reference[3] = {0.0, 0.0, 0.0};  // C: the mean of the faces' nodes
  double scale = 0.0;                     // 1 / mean squared distance from C to the centroids
  double stop_ratio = 0.01;               // a step below this share of the first one ends
};

// Moves X (in, out) towards the analytic centre of the polyhedron cut out by the planes of the
// coded `faces`, in at most one step per face and one more. `least2` gets the smallest signed
// squared distance to the planes at the start of the last step (negative outside). True when
// that point was inside (least2 > 0.0); X has moved all the same when it was not. Faces without
// extent (or none), or memory running out, give false with X untouched and least2 = -DBL_MAX.
// `poly` is scratch; it keeps its room and, after the call, the planes of the faces.
bool ball_center(const mesh_store& m, const dense1D<unsigned>& faces, double* X, double& least2,
                 ball_polyhedron& poly) noexcept;

}  // namespace kelvo::voxfill
