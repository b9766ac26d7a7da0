// An edge named by one number, 6 t + k: local edge k of tet t, read in a fixed direction.
#pragma once

#include "delaunay/mesh_store.h"

namespace kelvo::voxfill {

// Local edge k runs from node (k + 1) mod 3 to node (k + 2) mod 3 for k < 3, and from node 3 to
// node k - 3 for k >= 3: the direction in which rings and the rows of new tets are built.
inline constexpr unsigned edge_code_nodes[6][2] = {{1, 2}, {2, 0}, {0, 1}, {3, 0}, {3, 1}, {3, 2}};

inline unsigned edge_code(unsigned t, unsigned k) noexcept {
  return 6 * t + k;
}

// The two nodes of local edge k of tet t, in the edge's direction.
inline void edge_nodes(const mesh_store& m, unsigned t, unsigned k, unsigned& a,
                       unsigned& b) noexcept {
  const unsigned* r = m.tets.row(t);
  a = r[edge_code_nodes[k][0]];
  b = r[edge_code_nodes[k][1]];
}

}  // namespace kelvo::voxfill
