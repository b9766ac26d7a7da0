// Reading ahead of a list of insertions. Nodes come in random order, so every insertion lands in
// a part of the mesh that is cold in the caches, and its walk and cavity wait on one miss after
// another. While node s is inserted, the lookahead takes the next `depth` nodes one step further
// each along the way their own insertion will go (the nearest node, its tet, the walk to the
// node, the tets around it), asking for the rows that step will read. It only reads the mesh and
// only gives hints: the tables come out bit for bit as without it.
#pragma once

#include "delaunay/mesh_store.h"

namespace kelvo::voxfill {

class insertion_lookahead {
 public:
  // Nodes in flight. A cursor needs two insertions per step of its walk and three more for the
  // rings of tets around the node; walks from the near node's tet take up to a dozen steps.
  static constexpr unsigned depth = 32;

  // Starts on a list: the first nodes enter the pipeline.
  void start(const mesh_store& m, const unsigned* first, unsigned count) noexcept;
  // Node `s` of the list is about to be inserted: node s + depth joins, and every cursor in
  // flight takes one step.
  void advance(mesh_store& m, unsigned s) noexcept;

 private:
  // Where a later node's insertion will read: a node, the tet reached so far, the stage.
  struct cursor {
    unsigned node;
    unsigned tet;
    unsigned stage;
    unsigned steps;
  };
  cursor ring_[depth] = {};
  const unsigned* first_ = nullptr;
  unsigned count_ = 0;

  void step(mesh_store& m, cursor& c) noexcept;
};

}  // namespace kelvo::voxfill
