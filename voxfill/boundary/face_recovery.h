// Recovery of one absent hard face, and passes over lists of them: its three sides first, then
// what still runs through the triangle is cleared by removal of soft nodes, reconnections, moves
// of soft nodes off the plane and, as a last means, Steiner nodes on two planes beside the face.
#pragma once

#include <vector>

#include "delaunay/keys.h"
#include "voxfill/boundary/boundary_recoverer.h"

namespace kelvo::voxfill {

// One pass over `list` from `given_up` on, in the shape of recover_edge_list. Returns the number
// of faces recovered (a face found in the mesh counts only when this pass brought in a side).
unsigned recover_face_list(boundary_recoverer& r, std::vector<face_key>& list, unsigned& given_up,
                           unsigned budget, dense1D<unsigned>& steiner_list);

// True when the three sides of face (a, b, c) are in the mesh; `exists` when the face is too.
bool face_state(boundary_recoverer& r, const face_key& face, bool& exists);

// One attempt on a face whose sides are in the mesh: 2 there, 1 recovered, 0 out of budget or
// means, -1/-2 failed for now, -9 a crossing edge that cannot be touched, -10 a node gone, -11 a
// node that is not soft in the triangle (`conflict_nodes`), -12 a hard edge through it
// (`conflict_edges`).
int recover_face(boundary_recoverer& r, const face_key& face, double tol, unsigned budget,
                 dense1D<unsigned>& new_nodes);

// The edges that cross the triangle at tolerance d, found from the sides' shells outwards
// through crossing edges only. 2 when the face exists, else 1.
int crossing_edges_of_face(boundary_recoverer& r, const face_key& face, double d,
                           std::vector<edge_key>& crossing);

// Reconnections and moves of soft nodes that clear the crossing edges of an oriented list: 2 or 1
// the face came, -1 or 0 edges are left, -9 an edge cannot be touched, -11 a node that is not soft
// stands in the triangle.
int clear_face_crossings(boundary_recoverer& r, const face_key& face,
                         std::vector<edge_key>& crossing, double h);

// The largest step t > 0 from X along D before one of the coded faces' planes; DBL_MAX when none
// is ahead.
double free_travel(const mesh_store& m, const double* X, const dense1D<unsigned>& faces,
                   const double* D);

// Each listed node half way along D to the far side of its ball, where its tets stay sound. The
// number of nodes moved.
unsigned nudge_nodes_off_plane(boundary_recoverer& r, const dense1D<unsigned>& list,
                               const double* D);

// Moves the listed nodes towards the height `level` (a multiple of n), each at most half way to
// the far side of its ball. The number of nodes moved.
unsigned push_nodes_to_side(boundary_recoverer& r, const dense1D<unsigned>& list, const double* G,
                            const double* n, double inv, double level);

}  // namespace kelvo::voxfill
