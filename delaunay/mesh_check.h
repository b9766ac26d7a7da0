// Invariant checker of a mesh store: valid nodes, positive tets, symmetric neighbours on matching
// faces, conformity, ancestors, and optionally stored qualities and local empty spheres.
#pragma once

#include "delaunay/mesh_store.h"

namespace kelvo::voxfill {

// What broke. The first fault found is reported; the checks run in the order listed.
enum class mesh_fault : unsigned {
  none = 0,
  bad_tables,      // parallel arrays shorter than the tables they describe
  bad_node,        // a node index out of range, on a freed row, or twice in one tet
  not_positive,    // orient_det <= 0, or tet_quality <= 0 when asked
  stale_quality,   // tet_qualities[t] is not bit-equal to tet_quality recomputed
  bad_neighbor,    // a neighbour index out of range, on a deleted tet, or the tet itself
  one_sided_link,  // the neighbour does not link back exactly once
  face_mismatch,   // the neighbour does not hold the face in the reversed turn on its linked face
  face_overused,   // three tets or more hold one face
  unlinked_face,   // two tets hold one face without being linked across it
  bad_ancestor,    // ancestors[n] is not a live tet holding n, for a node some live tet holds
  not_delaunay,    // the node of a neighbour beyond a face lies inside the tet's circumsphere
  no_memory,       // the checker could not allocate its face list: nothing was concluded
};

// Short name of a fault kind ("one_sided_link"), for messages.
const char* mesh_fault_name(mesh_fault fault) noexcept;

struct mesh_check_options {
  bool positive_quality = false;  // also require tet_quality > 0 (not only orient_det > 0)
  bool stored_qualities = false;  // require tet_qualities[t] == tet_quality, bit for bit
  bool empty_sphere = false;      // local Delaunay test on every interior face
  // Relative tolerance of the empty-sphere test: a node q counts as inside the circumsphere
  // (centre c, radius R) only when R^2 - |q - c|^2 > sphere_tol R^2, and by more than the
  // rounding of the long double determinant that decides it.
  double sphere_tol = 1e-9;
};

struct mesh_check_result {
  bool ok = true;
  mesh_fault fault = mesh_fault::none;
  unsigned tet = NONE;   // the tet where the fault was seen, NONE when none
  unsigned face = NONE;  // its local face 0..3, NONE when the fault is not about a face
  unsigned node = NONE;  // the node involved (bad_node, bad_ancestor, not_delaunay), else NONE
  char text[160] = {};   // one line: the kind, the indices and what was found
};

// Checks every live tet (colour != DELETED) of `m`. Returns ok with fault none for a sound mesh,
// else the first fault found; never aborts, never throws. Runs in O(T log T) for T tet rows
// and allocates one list of 4 T face entries (fault no_memory, ok false, when that fails).
mesh_check_result check_mesh(const mesh_store& m, const mesh_check_options& options = {}) noexcept;

}  // namespace kelvo::voxfill
