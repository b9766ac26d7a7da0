// 2-3 swaps across the large face of a flat tet: the edge moves cannot reach a tet whose trouble
// is a face as large as the other three together.
#pragma once

#include "voxfill/optim/regularizer.h"

namespace kelvo::voxfill {

// Tries each listed flat tet across its large face; the swaps done count in `moves`, the tets
// rewritten leave `tets`. The largest gain, at least 1.0.
double face_swap_pass(regularizer& g, dense1D<unsigned>& tets, double quality_factor,
                      double merit_factor, unsigned& moves) noexcept;

// The three tets round the edge joining the far nodes of t (across its face i) and n (across its
// face j), each above `floor`, appended to `rows` and `qualities`; false (outputs as they were)
// when one is not, or when t and n share a third neighbour.
bool swap_two_three(const mesh_store& m, unsigned t, unsigned i, unsigned n, unsigned j,
                    double floor, dense2D<unsigned>& rows, dense1D<double>& qualities) noexcept;

}  // namespace kelvo::voxfill
