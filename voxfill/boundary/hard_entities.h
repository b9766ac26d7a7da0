// Hard entities of the input: registration in the hard set, and the list of those the mesh lacks.
#pragma once

#include <array>
#include <vector>

#include "delaunay/mesh_store.h"
#include "voxfill/task_mgr.h"

namespace kelvo::voxfill {

// Fills `hard_set` from connectB, connectE and isolated_nodes (first occurrence keeps direction
// and orientation; with `keep_two_way`, entities given both ways also go to the two-way sets),
// stores the counts hard_*_in in `data`, and raises -103 when `nodes_limit` cannot hold the hard
// nodes. Does nothing while an error or an interruption stands.
void register_hard_entities(mesh_store& m, mesher::data_type& data, bool keep_two_way,
                            const task_type& task);

// The nodes of the hard set in increasing order, and their bounding box (NaN when a coordinate is
// not finite: the kernel then refuses the box with its own error).
void hard_nodes_and_box(const mesh_store& m, dense1D<unsigned>& list, double lo[3], double hi[3]);

// For each entry of `hard_set.faces`, by one pass over the live tets: bit 0 set when a tet holds
// the face, bit 1 when a tet of the domain does. False when memory ran out.
bool hard_face_holders(const mesh_store& m, dense1D<unsigned char>& holders) noexcept;

// The live tets on the entries of `hard_set.faces`, two per entry: the tet from which the pass of
// hard_face_holders met the face and its neighbour through it (NONE for none); NONE, NONE for a
// face that no live tet holds. While the tets stay as they are, only their colours changing, the
// holder bytes follow from these pairs without a pass over the mesh.
struct hard_face_tets {
  dense1D<unsigned> pairs;
  dense1D<unsigned> entries;  // per column of connectB, its entry as holder_entry gave it
  bool usable = false;        // false when memory ran out or a face was met twice
};

// hard_face_holders that also fills `tets`.
bool hard_face_holders(const mesh_store& m, dense1D<unsigned char>& holders,
                       hard_face_tets& tets) noexcept;

// The bytes of hard_face_holders from `tets` (usable, and made from the tets as they are) and the
// colours as they are now. False when memory ran out.
bool holders_from_tets(const mesh_store& m, const hard_face_tets& tets,
                       dense1D<unsigned char>& holders) noexcept;

// The entry of the hard face (a, b, c) in `holders`, NONE when the face must be looked up in the
// mesh itself: repeated or unknown nodes, or no such hard face.
unsigned holder_entry(const mesh_store& m, const dense1D<unsigned char>& holders, unsigned a,
                      unsigned b, unsigned c) noexcept;

// Lists the faces, edges and nodes of the input that the mesh lacks (each node once, first
// occurrence kept). With `with_entity_nodes`, the nodes of absent faces and edges are checked too.
// `face_tets`, when given, gets the tets on the hard faces and the entries of connectB's faces.
void collect_missing(mesh_store& m, const dense2D<unsigned>& connectB,
                     const dense2D<unsigned>& connectE, const dense1D<unsigned>& isolated_nodes,
                     bool with_entity_nodes, std::vector<std::array<unsigned, 3>>& absent_faces,
                     std::vector<std::array<unsigned, 2>>& absent_edges,
                     dense1D<unsigned>& absent_nodes, hard_face_tets* face_tets = nullptr);

}  // namespace kelvo::voxfill
