// How many tets the refinement will make, foreseen from the volume of each tet in units of the
// ideal tet of its size, and the one reservation of the mesh tables that this estimate feeds.
#pragma once

#include "numcore/dense1D.h"

namespace kelvo::voxfill {

class th4_engine;

// The foreseen tet count of the refined domain, into `count`: per classified tet its volume over
// that of the ideal tet of its mean node size (drawn towards `target` by the gradation `g` when
// both are given), at least 1, with densities of neighbours held within a ratio of 1.5. 0, or
// -199 when memory ran out (then `count` is 0).
int estimate_new_tets(const th4_engine& e, double g, double target, double& count) noexcept;

// Lowers densities `d` (per tet row, 0 = not counted) until no two neighbouring tets differ in
// density per volume by more than `ratio`; densities only fall.
void limit_density_jumps(const th4_engine& e, double ratio, dense1D<double>& d) noexcept;

// Reserves the node and tet tables, and the node octree, once for the whole refinement.
// `free_nodes` is the count of input nodes that no hard entity holds; `g` and `target` are the
// gradation and target size of the refinement. Raises -199 when even the reservation without
// gradation fails.
void reserve_for_refinement(th4_engine& e, unsigned free_nodes, double g, double target) noexcept;

}  // namespace kelvo::voxfill
