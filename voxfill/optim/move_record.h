// What the local moves work on: the mesh, the merit that rates candidates, where a new node's size
// comes from, and the work lists of the searches. A regularizer holds one; a boundary recovery can
// hold one of its own, with the topology terms off.
#pragma once

#include "delaunay/bit_set.h"
#include "delaunay/mesh_store.h"
#include "voxfill/optim/move_merit.h"

namespace kelvo::voxfill {

// The size of the field in force at a point: true and the size when there is one.
using size_lookup = bool (*)(void* context, const double* point, double& size);

struct move_record {
  mesh_store& store;
  move_merit& merit;
  const bit_set* settled_nodes = nullptr;  // nodes that no move may remove; none when null
  bool use_background = false;             // a new node takes its size from `size_at` if it can
  size_lookup size_at = nullptr;
  void* size_context = nullptr;

  // Pattern search: the pattern under test; its diagonals.
  dense2D<unsigned> trial_rows;
  dense1D<double> trial_qualities;
  dense2D<unsigned> trial_edges;
  // Split and contraction: balls and nearby nodes of the two ends, their unions, sort keys.
  dense1D<unsigned> ball_a, ball_b, near_a, near_b, near, star;
  dense1D<double> keys;
  dense1D<unsigned> order;
  dense2D<unsigned> best_rows;
  dense1D<double> best_qualities;
  dense1D<unsigned> node_marks;  // per node: node_mark when it is in the list being made
  unsigned node_mark = 0;

  move_record(mesh_store& m, move_merit& mm) : store(m), merit(mm) {}
  move_record(const move_record&) = delete;
  move_record& operator=(const move_record&) = delete;

  bool settled(unsigned n) const noexcept { return settled_nodes && settled_nodes->test(n); }
};

}  // namespace kelvo::voxfill
