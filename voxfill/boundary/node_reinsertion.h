// Hard nodes that the kernel refused, or that left the mesh later, put back: their neighbours in
// space make room first, then the nodes go in by plain Delaunay cavities, earlier entities first.
#pragma once

#include "delaunay/mesh_store.h"

namespace kelvo::voxfill {

struct boundary_recoverer;

// The priority of each of the `node_count` nodes, lower first: the column of its first triangle
// in `connectB`; else the number of triangles plus the column of its first edge in `connectE`;
// else both counts plus its first place in `isolated_nodes`; NONE for a node of no hard entity.
// 0, or -199 when the array cannot be sized.
int build_hard_node_order(const dense2D<unsigned>& connectB, const dense2D<unsigned>& connectE,
                          const dense1D<unsigned>& isolated_nodes, unsigned node_count,
                          dense1D<unsigned>& hard_node_order);

// Tries to put the hard nodes of `absent_nodes` back into the mesh. The nearest node that yields
// to each (a later hard node, or a soft one) and the nearest node of all are taken out of the
// mesh while that succeeds; then every absent hard node is inserted in order of priority. Soft
// nodes taken out stay out. Afterwards `absent_nodes` lists the nodes that could not go in, and
// `unenforced_set` holds exactly those with their nearest hard neighbours. Returns the number of
// nodes taken out plus the number inserted; 0 when nothing was really absent (nothing touched).
// In a mesh of given nodes (no Steiner node allowed) only hard nodes make room: the others are
// the caller's and must stay. Throws std::bad_alloc when a list could not grow.
unsigned reinsert_hard_nodes(boundary_recoverer& r, dense1D<unsigned>& absent_nodes,
                             const dense1D<unsigned>& hard_node_order);

}  // namespace kelvo::voxfill
