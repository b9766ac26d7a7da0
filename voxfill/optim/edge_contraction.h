// Removal of a short edge: one end goes onto a neighbour, or both onto a new node between them.
// Nothing here changes the mesh but for a new node, which is released when the candidate loses.
#pragma once

#include "voxfill/optim/move_record.h"

namespace kelvo::voxfill {

// Candidate of a contraction: the tets it replaces and the rows that replace them.
struct contraction_candidate {
  dense1D<unsigned> old_tets;
  dense2D<unsigned> old_rows;
  dense2D<unsigned> new_rows;
  dense1D<double> new_qualities;
  unsigned kept_node = NONE;  // the node that takes the place of the vanishing ones
  bool made_node = false;     // kept_node is a new node at the midpoint, not a neighbour
  // Scratch: the metric lengths from each end to its neighbours, measured once for both the
  // end's fit and the order of its tries.
  dense1D<double> lengths_a;
  dense1D<double> lengths_b;
};

// Contraction of local edge k of tet t, taken when its merit beats the old state's by more than
// `gain` (then raised to the new ratio). `s` is the edge's symmetric length; `tries` how many
// neighbours a node may go onto; `insert` allows a new node at the midpoint. Tried in the order
// midpoint, first end, second end; the first that wins is taken.
bool try_contract(move_record& mr, unsigned t, unsigned k, double s, double quality_factor,
                  unsigned tries, bool insert, contraction_candidate& out, double& gain) noexcept;

// `node` onto the best of its `tries` nearest `neighbours` whose collapse beats `merit` (in: the
// bar; out: the merit reached). True when rows were produced. `lengths`, when given, holds
// metric_length from `node` to each neighbour, in their order. With `ball`, the neighbours are
// the other nodes of `old_rows`, ascending, each once (as the contraction lists them).
bool contract_node(move_record& mr, unsigned node, const dense1D<unsigned>& neighbours,
                   unsigned tries, double floor, const dense2D<unsigned>& old_rows,
                   dense2D<unsigned>& rows, dense1D<double>& qualities, double& merit,
                   unsigned& kept_node, const dense1D<double>* lengths = nullptr,
                   bool ball = false) noexcept;

// The rows of `old_rows` with a (and b) put onto c (b == c: a onto its neighbour b); rows that
// hold two of them drop out. True when every row is above `floor` and the merit is positive.
// With `reference` set, the merit's reference is taken from `old_rows` (and `reference` cleared)
// once the rows pass the floor, before the merit is rated. With a `bar` of 0 or more, a collapse
// whose merit cannot beat it, whatever its lengths, is false without them: the caller takes only
// a merit over the bar. With `nodes`, the reference's nodes are those listed and `a`: the
// distinct nodes of `old_rows`, ascending, with or without `a`.
bool collapse_onto(move_record& mr, unsigned a, unsigned b, unsigned c,
                   const dense1D<unsigned>& neighbours, double floor,
                   const dense2D<unsigned>& old_rows, dense2D<unsigned>& rows,
                   dense1D<double>& qualities, double& merit, bool* reference = nullptr,
                   double bar = -1.0, const dense1D<unsigned>* nodes = nullptr) noexcept;

}  // namespace kelvo::voxfill
