// Closing of a boundary that lost faces or had holes of its own: the faces that the mesh does not
// hold are given up, the outside is found by a flood from the box corners that stops at hard
// faces, its outline is smoothed by peeling, and the faces between outside and inside become
// hard. Afterwards the hard faces make a closed surface of faces that exist in the mesh.
#pragma once

#include "delaunay/bit_set.h"
#include "delaunay/entity_set.h"
#include "delaunay/key_set.h"
#include "numcore/dense1D.h"
#include "numcore/dense2D.h"
#include "voxfill/mesher_th4.h"
#include "voxfill/task_mgr.h"

namespace kelvo::voxfill {

class th4_engine;

struct boundary_closer {
  th4_engine& engine;
  Ptr<task_type> task;
  // The hard faces, each with the number of its sides that may still be lost: 2 at the start,
  // one less each time a tet that holds the face is dropped. Counts go by entry of the set.
  face_set closing_faces;
  dense1D<unsigned> closing_counts;
  edge_set open_edges;   // sides that only one hard face has
  bit_set open_nodes;    // the nodes of open_edges
  bit_set patho_nodes;   // the nodes of the entities that could not be enforced
  entity_set added_set;  // what the closing makes hard, merged into hard_set at the end

  // Scratch.
  dense1D<unsigned> shell, list;
  bit_set shielded_tets;

  boundary_closer(th4_engine& e, Ptr<task_type> t) : engine(e), task(std::move(t)) {}

  // The count of face (a, b, c) in closing_faces, or NONE when it is not one of them.
  unsigned* closing_count(unsigned a, unsigned b, unsigned c) noexcept;
};

// Makes the hard faces a closed surface of mesh faces, after a few reconnection sweeps round the
// faces of connectB that the mesh lacks. Raises nothing; the report tells what it did.
void close_boundary(th4_engine& e, const mesher::data_type& data);

// The steps of the closing, on a compacted mesh.
void close_hard_surface(boundary_closer& bc, const dense2D<unsigned>& connectB);
void fill_closer(boundary_closer& bc, const dense2D<unsigned>& connectB);
void shield_tets(boundary_closer& bc);
bool can_drop_tet(boundary_closer& bc, unsigned t);
// Clears t's bit in `kept` and lowers the counts of its hard faces; false when t was dropped.
bool drop_tet(boundary_closer& bc, unsigned t, bit_set& kept);
// Faces between a dropped and a kept tet that are not hard, as node triples of the dropped tet.
void free_faces(boundary_closer& bc, const bit_set& kept, dense2D<unsigned>& faces);
// Sides of the free faces that are not hard edges, (smaller, larger), sorted, each once.
void free_edges(boundary_closer& bc, const bit_set& kept, dense2D<unsigned>& edges);
// The shell of edge (a, b) split into kept and dropped tets, each sorted.
void split_shell(boundary_closer& bc, unsigned a, unsigned b, const bit_set& kept,
                 dense1D<unsigned>& K, dense1D<unsigned>& D);
// Whether the sorted set R may go: none of its hard faces inside R or down to its last side.
bool may_drop(boundary_closer& bc, const dense1D<unsigned>& R);
unsigned drop_tets(boundary_closer& bc, const dense1D<unsigned>& R, bit_set& kept);
unsigned peel_free_edges(boundary_closer& bc, bit_set& kept);
unsigned peel_faces(boundary_closer& bc, bit_set& kept);
// The change of the outline's cost if the sorted set R were dropped; below 0 when it pays.
double surface_cost(boundary_closer& bc, const dense1D<unsigned>& R, const bit_set& kept);
// The outline at edge (a, b) with the tets of R counted as dropped: the fold as a fraction of a
// half turn, and the twice-area of its faces that are not hard.
void edge_cost(boundary_closer& bc, unsigned a, unsigned b, const bit_set& kept,
               const dense1D<unsigned>& R, double& angle, double& area);

}  // namespace kelvo::voxfill
