// Max-min polish of the worst tets: the free nodes of the worst tets try a few places each, and
// take the one that most raises the worst tet of their ball. The vote of the smoother weighs all
// tets of a ball together and can stall on a node whose worst tet pulls against the rest; this
// pass looks at the worst tet alone.
#pragma once

#include "numcore/dense1D.h"
#include "numcore/dense2D.h"

namespace kelvo::voxfill {

class regularizer;

struct polish_scratch {
  dense1D<unsigned> tets;   // the worst tets of a round
  dense1D<unsigned> nodes;  // their free nodes, each once
  dense1D<unsigned> ball;
  dense2D<unsigned> rows;          // node rows of the ball
  dense1D<double> trial;           // qualities of the ball at a trial place
  dense1D<double> best;            // ... at the best place so far
  dense1D<unsigned> region;        // tets that a star of a new node replaces
  dense1D<unsigned> region_nodes;  // their nodes, sorted
  dense1D<unsigned> winner;        // the region whose star is best so far
  dense1D<unsigned> lost;          // free nodes inside a region, which its star drops
  dense1D<unsigned> outer_faces;   // per tet of a region: bit f set when its face f is outer
  bool rows_of_ball = false;       // rows are the tets of `ball`, in the same order
  // The points of the rows by blocks of four rows, lane by lane, with the lanes where each point
  // is the moving node: a trial place then reads no row. Kept only where the lanes run.
  dense1D<double> row_lanes;
  dense1D<double> places;       // starts of a star's node, xyz triples
  dense1D<unsigned> new_nodes;  // made by the stars of a round
};

// One node: the best of the trial places, when it beats the worst tet of the ball. True when the
// node moved; its ball's entries of tet_qualities are then up to date.
bool polish_node(regularizer& g, unsigned node) noexcept;

// A new node in place of a small region round tet t (its shell of a soft edge, or the tet with
// its neighbours across soft faces), joined to the region's outer faces at the place where the
// worst of the new tets is best. Taken when that beats the region's worst tet; true then.
bool star_insert(regularizer& g, unsigned t, unsigned& nodes_left) noexcept;

// Rounds over the `count` worst tets below quality `limit` until a round changes nothing or
// `rounds` are done. The worst tets that the moves of their free nodes leave get a star of a new
// node while `nodes_left` allows. The gain of the worst quality, at least 1.0.
double polish_worst(regularizer& g, unsigned count, unsigned rounds, double limit,
                    unsigned& nodes_left) noexcept;

}  // namespace kelvo::voxfill
