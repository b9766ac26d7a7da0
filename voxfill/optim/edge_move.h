// The one move on an edge: reconnection of its shell, split or contraction, whichever rates best.
#pragma once

#include "voxfill/optim/regularizer.h"

namespace kelvo::voxfill {

// Decides for the edge (local edge k of tet t) between reconnection of its shell, split and
// contraction, and applies the winner when it beats the edge's merit by `merit_factor` with every
// new tet above `quality_factor` times the old worst. `gain` gets the ratio reached; `nodes_left`
// (NONE: no limit) follows the nodes made and removed; a split node is appended to `new_nodes`.
bool edge_move(regularizer& g, unsigned t, unsigned k, double short_limit, double long_limit,
               unsigned shell_limit, bool hard_links, bool insert, double quality_factor,
               double merit_factor, unsigned& nodes_left, dense1D<unsigned>& new_nodes,
               double& gain) noexcept;

}  // namespace kelvo::voxfill
