// The cavity of a node insertion: collection by the circumsphere test, correction until it can be
// starred from the node, and the replacement of the cavity by its star.
#pragma once

#include "delaunay/geometry.h"
#include "delaunay/kernel_workspace.h"
#include "delaunay/mesh_store.h"

namespace kelvo::voxfill {

// Relative tolerance of the circumsphere test that every caller gives (added to 1).
inline constexpr double CAVITY_TOL = 1e-12;
// A new tet's quality must be above this.
inline constexpr double STAR_TOL = 1e-12;
// Below this smallest star quality the cavity's surface also has to pass the edge count.
inline constexpr double FLAT_TOL = 1e-10;
// Qualities of smaller magnitude count as 0.0 when a tet is picked for removal.
inline constexpr double TET_PICK_TOL = 1e-12;

// |P - centre|^2 / r^2 for the circumsphere of the tet (p0, p1, p2, p3), the sphere being built
// from the circumcircle of the face (p1, p2, p3) lifted along its normal towards p0. 0.0 when the
// tet is flat or turned (so that it always joins a cavity), NO_VALUE for a sphere of radius 0.
inline double circumsphere_ratio(const double* p0, const double* p1, const double* p2,
                                 const double* p3, const double* P) noexcept {
  double N[3], C[3];
  const double R2 = circumcircle<3>(p1, p2, p3, C);
  if (R2 == NO_VALUE) return 0.0;
  face_normal(p1, p2, p3, N);
  const double d[3] = {p0[0] - C[0], p0[1] - C[1], p0[2] - C[2]};
  const double s = d[0] * N[0] + d[1] * N[1] + d[2] * N[2];
  if (s <= 0.0) return 0.0;
  // The centre lies on the line through C along N, at equal distance from p0 and the face nodes.
  const double dd = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
  const double nn = N[0] * N[0] + N[1] * N[1] + N[2] * N[2];
  const double t = (dd - R2) / (2.0 * s);
  const double r2 = R2 + t * t * nn;
  if (r2 == 0.0) return NO_VALUE;
  const double e[3] = {P[0] - (C[0] + t * N[0]), P[1] - (C[1] + t * N[1]),
                       P[2] - (C[2] + t * N[2])};
  return (e[0] * e[0] + e[1] * e[1] + e[2] * e[2]) / r2;
}

// Whether P lies inside the circumsphere of the positive tet (p0, p1, p2, p3) in the sense of
// circumsphere_ratio(...) < limit, decided cheaply where that is safe. The centre is taken from
// the closed formula relative to p3 (one division instead of the circumcircle and its refinement
// steps). With L^2 the largest squared edge from p3 and O = a . (b x c), both computations have a
// relative error in the ratio below a small multiple of eps (L^3 / O)^2 (1 + ratio); with
// L^3 <= 1000 O that is about 1e-10 (1 + ratio). So the cheap ratio decides when it is further than
// 1e-6 (1 + ratio) from `limit`: four orders of magnitude above both errors. The same bound keeps
// the face (p1, p2, p3) far from flat, so the lifted construction never takes its flat branches
// there. Everything else, and all flat, huge or tiny tets, goes to circumsphere_ratio.
inline bool in_circumsphere(const double* p0, const double* p1, const double* p2, const double* p3,
                            const double* P, double limit) noexcept {
  const double a[3] = {p0[0] - p3[0], p0[1] - p3[1], p0[2] - p3[2]};
  const double b[3] = {p1[0] - p3[0], p1[1] - p3[1], p1[2] - p3[2]};
  const double c[3] = {p2[0] - p3[0], p2[1] - p3[1], p2[2] - p3[2]};
  const double bc[3] = {b[1] * c[2] - b[2] * c[1], b[2] * c[0] - b[0] * c[2],
                        b[0] * c[1] - b[1] * c[0]};
  const double O = a[0] * bc[0] + a[1] * bc[1] + a[2] * bc[2];
  const double la = a[0] * a[0] + a[1] * a[1] + a[2] * a[2];
  const double lb = b[0] * b[0] + b[1] * b[1] + b[2] * b[2];
  const double lc = c[0] * c[0] + c[1] * c[1] + c[2] * c[2];
  double L2 = la > lb ? la : lb;
  if (lc > L2) L2 = lc;
  // Bounded magnitudes keep every product below normal range limits, so the bound holds.
  if (O > 0.0 && L2 >= 1e-90 && L2 <= 1e90 && L2 * L2 * L2 <= 1e6 * O * O) {
    const double ca[3] = {c[1] * a[2] - c[2] * a[1], c[2] * a[0] - c[0] * a[2],
                          c[0] * a[1] - c[1] * a[0]};
    const double ab[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2],
                          a[0] * b[1] - a[1] * b[0]};
    const double s = 0.5 / O;
    double x[3], e[3];
    for (unsigned i = 0; i < 3; ++i) {
      x[i] = (la * bc[i] + lb * ca[i] + lc * ab[i]) * s;
      e[i] = P[i] - p3[i] - x[i];
    }
    const double r2 = x[0] * x[0] + x[1] * x[1] + x[2] * x[2];
    const double ratio = (e[0] * e[0] + e[1] * e[1] + e[2] * e[2]) / r2;
    const double margin = 1e-6 * (1.0 + ratio);
    if (ratio < limit - margin) return true;
    if (ratio > limit + margin) return false;
  }
  return circumsphere_ratio(p0, p1, p2, p3, P) < limit;
}

// Makes the hard face bits of `ws` for `hard`, which must then stay as it is until
// forget_hard_face_bits: the cavities corrected against it meanwhile skip most of their lookups.
// Without memory for the bits nothing changes but that.
void make_hard_face_bits(kernel_workspace& ws, const entity_set& hard) noexcept;
void forget_hard_face_bits(kernel_workspace& ws) noexcept;

// Grows the cavity of node p from `seeds` (taken unconditionally, each once) through the
// neighbours whose circumsphere holds the node, ratio below 1 + tol. Fills `cav.tets` (seeds
// first) and `cav.face_bits`, sets `cav.node`; empties the other lists. `seeds` is used as the
// stack and comes back empty. The cavity's tets hold the current mark value, the other tets tested
// values just above it (a generation of four).
void collect_cavity(mesh_store& m, unsigned p, dense1D<unsigned>& seeds, cavity_record& cav,
                    double tol) noexcept;

// Removes tets from the cavity until it can be starred from its node: every new tet above
// STAR_TOL, the boundary a sphere holding every cavity node, and with kernel_mode 1 or 2 no hard
// face crossed (2: no hard edge inside either). Fills `faces`, `hard_faces` and `face_qualities`.
// Leaves a valid cavity, an empty one, or abandons (node NONE, all lists empty). Starts from the
// cavity, its face bits and its marks as collect_cavity left them; on return the marks are spent
// (they may hold nodes as well as tets).
// `ws` lends its edge set.
void correct_cavity(mesh_store& m, kernel_workspace& ws, cavity_record& cav,
                    kernel_mode_type kernel_mode, const entity_set& hard_set) noexcept;

// Replaces a corrected cavity by one new tet per boundary face, reusing the cavity's rows first.
// `out` gets the tets of the star, in the order of the faces. False when the new faces do not
// match up or memory ran out (`cav.out_of_memory` then set): the mesh is then untouched (but
// `cav.faces` holds outside codes).
// The star's rows are built in the tables of `ws`.
bool fill_star(mesh_store& m, kernel_workspace& ws, cavity_record& cav,
               dense1D<unsigned>& out) noexcept;

}  // namespace kelvo::voxfill
