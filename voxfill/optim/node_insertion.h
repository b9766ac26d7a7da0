// Nodes added where moves on the given nodes cannot help: inserted through the kernel's cavity,
// so that the mesh around a new node becomes locally Delaunay.
#pragma once

#include "voxfill/optim/regularizer.h"

namespace kelvo::voxfill {

// A target names tet t and a local edge e (its midpoint), or NONE for the tet's centroid. Lists
// hold the pairs (t, e) one after the other.

// The longest soft edge of each tet, if longer than half its longest edge (with `forced`: any
// soft edge, else the centroid), is split. Tets touched leave `tets`.
void split_longest_edges(regularizer& g, dense1D<unsigned>& tets, unsigned& nodes_left,
                         dense1D<unsigned>& new_nodes, bool forced) noexcept;
// A node in each sound neighbour (quality at least `quality_limit`, not across a hard face) of
// the listed tets, so that its cavity takes the bad tet in. Tets touched leave `tets`.
void split_beside_worst(regularizer& g, dense1D<unsigned>& tets, double quality_limit,
                        unsigned& nodes_left, dense1D<unsigned>& new_nodes) noexcept;
// Inserts a node at each target whose tet no earlier target rewrote, while nodes are left.
void insert_at_targets(regularizer& g, const dense1D<unsigned>& targets, unsigned& nodes_left,
                       dense1D<unsigned>& new_nodes) noexcept;

}  // namespace kelvo::voxfill
