// A node on an overlong edge: where it goes, and the candidate tets of the split. Nothing here
// changes the mesh but for the new node, which is released again when the candidate loses.
#pragma once

#include "voxfill/optim/move_record.h"

namespace kelvo::voxfill {

// Fraction of an edge at which the metric length reaches t0 of the whole, when the size varies
// geometrically from h_a to h_b. Clamped to [0, 1] for t0 in [0, 1].
double size_fraction(double t0, double h_a, double h_b) noexcept;

// The point that halves the metric length of (a, b), and the size there. Without sizes at both
// ends, the plain midpoint.
void metric_midpoint(const mesh_store& m, unsigned a, unsigned b, double* point,
                     double& size) noexcept;

// Where a node that takes the place of edge (a, b) goes: the metric midpoint when sizes count in
// the merit, else the midpoint with no size; the background's size there when asked for.
void split_point(move_record& mr, unsigned a, unsigned b, double* point, double& size) noexcept;

// The tets of the shell of (a, b) in `old_rows`, each cut in two at node n. False (outputs empty)
// at the first new tet not above `floor`; else `merit` is the blend of the worst quality and the
// worst symmetric length from n.
bool star_split(move_record& mr, unsigned a, unsigned b, unsigned n, double floor,
                const dense2D<unsigned>& old_rows, dense2D<unsigned>& rows,
                dense1D<double>& qualities, double& merit) noexcept;

// A new node on (a, b) and the split of its shell, taken when its merit beats `best`: then
// `best`, `new_rows` and `new_qualities` hold the candidate and `split_node` the node.
bool try_split(move_record& mr, unsigned a, unsigned b, double floor,
               const dense2D<unsigned>& old_rows, dense2D<unsigned>& new_rows,
               dense1D<double>& new_qualities, double& best, unsigned& split_node) noexcept;

// Copies rows and qualities; false when memory ran out.
bool copy_candidate(const dense2D<unsigned>& rows, const dense1D<double>& qualities,
                    dense2D<unsigned>& to_rows, dense1D<double>& to_qualities) noexcept;

}  // namespace kelvo::voxfill
