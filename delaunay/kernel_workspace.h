// Scratch of the insertion kernel: the cavity under construction, the tables that pair the faces
// of a star, the seed list of an insertion and an edge set for the cavity's checks. It belongs to
// the kernel alone (its caller owns it and hands it to every kernel call, and nothing else reads
// it), so no other module can hold something of its own in it across a call. Nothing in it
// survives a call; the buffers stay warm, so that insertions allocate nothing once they have run
// for a while.
#pragma once

#include "delaunay/cavity_record.h"
#include "delaunay/key_set.h"
#include "delaunay/keys.h"
#include "delaunay/star_edge_table.h"
#include "delaunay/vector_fast.h"
#include "numcore/dense2D.h"

namespace kelvo::voxfill {

struct entity_set;

// Bits over the faces of a hard set, one per value of a well mixed hash of their three nodes: a
// clear bit proves that a face is not in the set. Held only while the set cannot change (a list
// of insertions), and only for that set.
struct hard_face_bits {
  dense1D<unsigned> words;
  unsigned shift = 32;
  const entity_set* set = nullptr;  // the set they were made from; nullptr while not held
};

struct kernel_workspace {
  cavity_record cavity;
  dense1D<unsigned> seeds;           // tets that hold the node; the star after an insertion
  dense2D<unsigned> star_tets;       // node rows of the tets being made: (p, face nodes)
  dense2D<unsigned> star_neighbors;  // their neighbour rows, as row numbers of the star
  star_edge_table star_edges;        // pairs the star's faces through their outer edges
  vector_fast face_link_table;       // pairs them by whole faces when a row repeats a node
  edge_set scratch_edges;            // hard edges inside a cavity; edges of a flat surface
  dense1D<unsigned> inner_faces;     // inner faces of a cavity that may be hard faces
  hard_face_bits hard_bits;          // made by a list of insertions for the store's hard set

  kernel_workspace() {
    seeds.reserve(128);
    face_link_table.build(16);
  }
  kernel_workspace(const kernel_workspace&) = delete;
  kernel_workspace& operator=(const kernel_workspace&) = delete;

  // Lets go of every buffer.
  void clear() {
    cavity.clear_hard();
    seeds.clear_hard();
    seeds.reserve(128);
    star_tets.clear_hard();
    star_neighbors.clear_hard();
    star_edges = star_edge_table{};
    scratch_edges.clear_hard();
    inner_faces.clear_hard();
    hard_bits.words.clear_hard();
    hard_bits.set = nullptr;
  }
};

}  // namespace kelvo::voxfill
