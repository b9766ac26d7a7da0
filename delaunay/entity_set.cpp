// Sets of nodes, edges and faces: what the mesh must honour, or what could not be enforced.
#include "delaunay/entity_set.h"

#include <algorithm>

namespace kelvo::voxfill {

bool entity_set::add_new_node(unsigned n) noexcept {
  if (!node_bits.set(n)) return false;
  ++node_count;
  return true;
}

bool entity_set::add_edge(unsigned a, unsigned b, bool two_way) noexcept {
  if (!add_node(a) || !add_node(b)) return false;
  if (a == b) return true;
  const edge_key k{{a, b}};
  const int r = edges.insert(k);
  if (r == 0) return false;
  if (r == -1 && two_way && two_way_edges.insert(k) == 0) return false;
  return true;
}

namespace {

// Sets the bit of face k.
void enter_face_bit(entity_set& s, const face_key& k) noexcept {
  const unsigned i = face_filter_hash(k) >> s.face_bits_shift;
  s.face_bits[i >> 5] |= 1u << (i & 31);
}

// Bits for 32 times the faces, so that few hashes of other faces fall on a set bit; filled anew
// from the table. Without memory for them the bits are dropped and the table answers alone.
void size_face_bits(entity_set& s) noexcept {
  const unsigned count = s.faces.size();
  unsigned log2 = 10;
  while (log2 < 27 && (1u << log2) < 32u * count) ++log2;
  s.face_bits_shift = 32;
  if (!s.face_bits.resize((1u << log2) >> 5)) {
    s.face_bits.clear();
    return;
  }
  std::fill(s.face_bits.begin(), s.face_bits.end(), 0u);
  s.face_bits_shift = 32 - log2;
  for (unsigned e = 0; e < s.faces.keys.size; ++e)
    if (s.faces.live(e)) enter_face_bit(s, s.faces.keys[e]);
}

}  // namespace

bool entity_set::add_face(unsigned a, unsigned b, unsigned c, bool two_way) noexcept {
  if (!add_edge(a, b, false) || !add_edge(b, c, false) || !add_edge(c, a, false)) return false;
  if (a == b || b == c || a == c) return true;
  const face_key k{{a, b, c}};
  const int r = faces.insert(k);
  if (r == 0) return false;
  if (r == 2) {
    // Rebuilt at each doubling of the faces: a new face's bit is always set.
    if (face_bits_shift >= 32 || 16u * faces.size() > (face_bits.size << 5))
      size_face_bits(*this);
    else
      enter_face_bit(*this, k);
  }
  if (r == -1 && two_way && two_way_faces.insert(k) == 0) return false;
  return true;
}

int entity_set::stored_orientation(const face_key& k) const noexcept {
  int dir = 0;
  return faces.find(k, &dir) != NONE ? dir : 0;
}

void entity_set::clear_hard() {
  node_bits.clear_hard();
  node_count = 0;
  edges.clear_hard();
  two_way_edges.clear_hard();
  faces.clear_hard();
  two_way_faces.clear_hard();
  face_bits.clear_hard();
  face_bits_shift = 32;
}

}  // namespace kelvo::voxfill
