// Sets of nodes, edges and faces: what the mesh must honour, or what could not be enforced.
#include "delaunay/entity_set.h"

namespace kelvo::voxfill {

bool entity_set::add_node(unsigned n) noexcept {
  if (node_bits.test(n)) return true;
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

bool entity_set::add_face(unsigned a, unsigned b, unsigned c, bool two_way) noexcept {
  if (!add_edge(a, b, false) || !add_edge(b, c, false) || !add_edge(c, a, false)) return false;
  if (a == b || b == c || a == c) return true;
  const face_key k{{a, b, c}};
  const int r = faces.insert(k);
  if (r == 0) return false;
  if (r == -1 && two_way && two_way_faces.insert(k) == 0) return false;
  return true;
}

int entity_set::face_orientation(unsigned a, unsigned b, unsigned c) const noexcept {
  if (!node_bits.test(a) || !node_bits.test(b) || !node_bits.test(c)) return 0;
  int dir = 0;
  return faces.find(face_key{{a, b, c}}, &dir) != NONE ? dir : 0;
}

void entity_set::clear_hard() {
  node_bits.clear_hard();
  node_count = 0;
  edges.clear_hard();
  two_way_edges.clear_hard();
  faces.clear_hard();
  two_way_faces.clear_hard();
}

}  // namespace kelvo::voxfill
