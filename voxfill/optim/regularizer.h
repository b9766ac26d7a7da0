// The record that the moves of the optimiser work on for the time of one run: the engine, the
// merit, the masks of what no move may touch, and the scratch of every move.
#pragma once

#include "voxfill/delaunay_th4.h"
#include "voxfill/optim/edge_contraction.h"
#include "voxfill/optim/move_merit.h"
#include "voxfill/optim/move_record.h"
#include "voxfill/optim/node_smoothing.h"
#include "voxfill/optim/replace_tets.h"
#include "voxfill/optim/worst_polish.h"

namespace kelvo::voxfill {

class regularizer {
 public:
  th4_engine& engine;
  Ptr<task_type> task;
  move_merit merit;       // shape weight (1.0 until the driver sets it) and the merit terms
  bit_set frozen_bits;    // tets that no move may touch
  bit_set settled_nodes;  // nodes that no move may remove or smooth
  move_record moves;      // pattern and contraction scratch
  replace_scratch exchange;
  bool moves_carry_sizes = false;  // a moved or new node gets a size
  bool use_background = false;     // ... from the size field in force where it has one
  bool topology_terms = false;     // the merit has its topology factor

  // Scratch of one edge move.
  dense1D<unsigned> shell_tets;
  dense1D<unsigned> ring_nodes;
  dense2D<unsigned> old_rows;
  dense2D<unsigned> new_rows;
  dense2D<unsigned> new_edges;
  dense1D<double> new_qualities;
  dense1D<unsigned> new_tets;
  contraction_candidate contraction;
  node_smoother smoother;
  polish_scratch polish;

  // Scratch of the driver: the worst tets, their edge codes, the edges seen in a pick, the nodes
  // made by the current sweep and by the one before, and a node mask.
  dense1D<unsigned> worst;
  dense1D<unsigned> edges;
  edge_set seen_edges;
  dense1D<unsigned> stage_nodes;
  dense1D<unsigned> new_nodes;
  dense1D<unsigned> last_new_nodes;
  bit_set scratch_nodes;
  dense1D<unsigned> targets;          // of node insertion: pairs (tet, local edge or NONE)
  dense1D<unsigned> insertion_seeds;  // seeds of an insertion's cavity

  // Of the last worst-tet picks, per count and limit: the quality of the last tet picked. The
  // next pick of the same kind first looks only under a bound a little above it, which most
  // blocks of tets are wholly over; the picks themselves do not depend on it.
  struct pick_hint {
    unsigned count = 0;
    double limit = 0.0;
    double quality = 0.0;
  };
  pick_hint pick_hints[8];
  unsigned next_pick_hint = 0;

  regularizer(th4_engine& e, bool carry_sizes, bool with_background, bool with_topology);
  regularizer(const regularizer&) = delete;
  regularizer& operator=(const regularizer&) = delete;

  bool frozen(unsigned t) const noexcept { return frozen_bits.test(t); }
  // Gives the scratch lists the room of usual balls and shells.
  void reserve_scratch() noexcept;
};

}  // namespace kelvo::voxfill
