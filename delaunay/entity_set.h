// Sets of nodes, edges and faces: what the mesh must honour, or what could not be enforced.
#pragma once

#include "delaunay/key_set.h"

namespace kelvo::voxfill {

struct entity_set {
  bit_set node_bits;
  unsigned node_count = 0;
  edge_set edges;          // stored in the direction in which each edge came first
  edge_set two_way_edges;  // edges also given in the opposite direction
  face_set faces;          // stored with the orientation in which each face came first
  face_set two_way_faces;  // faces also given with the opposite orientation
  // One bit per mixed face hash, by its top bits: a clear bit proves that no face of `faces` has
  // that hash. Most faces asked about are not hard, and the bits stay in cache where the table
  // doesn't.
  dense1D<unsigned> face_bits;
  unsigned face_bits_shift = 32;  // 32: no bits, every query goes to the table

  bool has_node(unsigned n) const noexcept { return node_bits.test(n); }
  // False when memory ran out. Most nodes are there already: that test stays inline.
  bool add_node(unsigned n) noexcept { return node_bits.test(n) || add_new_node(n); }
  bool add_new_node(unsigned n) noexcept;
  // Sets both node bits; an edge of two equal nodes adds nothing more. With `two_way`, an edge met
  // again reversed also goes into `two_way_edges`.
  bool add_edge(unsigned a, unsigned b, bool two_way = true) noexcept;
  // Adds the three edges first; a face with two equal nodes adds nothing more.
  bool add_face(unsigned a, unsigned b, unsigned c, bool two_way = true) noexcept;

  bool has_edge(unsigned a, unsigned b) const noexcept {
    return node_bits.test(a) && node_bits.test(b) && edges.contains(edge_key{{a, b}});
  }
  // 0 when the face is not in the set, else +1 or -1: its stored orientation against (a, b, c).
  // Most faces asked about are not hard: the node and face bits answer inline.
  int face_orientation(unsigned a, unsigned b, unsigned c) const noexcept {
    if (!node_bits.test(a) || !node_bits.test(b) || !node_bits.test(c)) return 0;
    const face_key k{{a, b, c}};
    return may_have_face(k) ? stored_orientation(k) : 0;
  }
  // The table's answer for a face whose nodes and bit are set.
  int stored_orientation(const face_key& k) const noexcept;
  bool may_have_face(const face_key& k) const noexcept {
    if (face_bits_shift >= 32) return true;
    const unsigned i = face_filter_hash(k) >> face_bits_shift;
    return (face_bits[i >> 5] >> (i & 31)) & 1u;
  }
  bool has_face(unsigned a, unsigned b, unsigned c) const noexcept {
    return face_orientation(a, b, c) != 0;
  }

  void clear_hard();
};

}  // namespace kelvo::voxfill
