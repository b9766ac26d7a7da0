// The optimiser's control: levels of sweeps over the worst tets, and the routines through which
// every edge move is reached.
#pragma once

#include "voxfill/optim/regularizer.h"

namespace kelvo::voxfill {

// The phase "Regularize mesh.": levels of sweeps as the settings ask, and one retry two levels
// lower when the worst tet stays far under what the boundary allows.
void regularize_mesh(th4_engine& e, bool with_background, double boundary_quality);
// Reconnections only, no node made or removed: the pass of a Delaunay mesh.
void swap_only_pass(th4_engine& e, unsigned level);

// Levels `first_level` .. `level` (at most 10) of sweeps with the five switches.
void run_levels(regularizer& g, unsigned level, unsigned& nodes_left, bool smooth, bool insert,
                bool remove, bool reconnect, bool hard_links, unsigned first_level);

// The `count` worst tets at or under `quality_limit`, then their edges swept. The gain.
double improve_worst(regularizer& g, double quality_limit, unsigned count, double short_limit,
                     double long_limit, unsigned shell_limit, bool hard_links, bool insert,
                     double quality_factor, double merit_factor, dense1D<unsigned>& tets,
                     dense1D<unsigned>& edges, unsigned& nodes_left, unsigned& moves,
                     dense1D<unsigned>& new_nodes) noexcept;
// The edges of `tets` in the order that the limits want, swept; rewritten tets leave `tets`.
double sweep_tets(regularizer& g, dense1D<unsigned>& tets, double short_limit, double long_limit,
                  unsigned shell_limit, bool hard_links, bool insert, double quality_factor,
                  double merit_factor, dense1D<unsigned>& edges, unsigned& nodes_left,
                  unsigned& moves, dense1D<unsigned>& new_nodes) noexcept;
// edge_move on each listed edge code whose tet this sweep has not rewritten.
double sweep_edges(regularizer& g, double short_limit, double long_limit, unsigned shell_limit,
                   bool hard_links, bool insert, double quality_factor, double merit_factor,
                   dense1D<unsigned>& edges, unsigned& nodes_left, unsigned& moves,
                   dense1D<unsigned>& new_nodes) noexcept;

// Tets not in `frozen`, not deleted, of quality at most `quality_limit`: the `count` worst by
// (quality, index).
void pick_worst_tets(regularizer& g, double quality_limit, const bit_set& frozen, unsigned count,
                     dense1D<unsigned>& tets) noexcept;
// The soft edges of `tets`, each once under the first tet that holds it, per tet by the key
// sign x length (metric length, or its symmetric form, when `use_metric`; else squared length).
void pick_edges(regularizer& g, const dense1D<unsigned>& tets, bool use_metric, bool symmetric,
                double sign, dense1D<unsigned>& edges) noexcept;
// Frozen: the unclassified tets. Settled: their nodes and the hard nodes.
void prepare_masks(regularizer& g) noexcept;

}  // namespace kelvo::voxfill
