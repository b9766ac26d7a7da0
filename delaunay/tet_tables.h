// Local numbering inside a tet: face node orders, local edges, the edge shared by two faces, and
// the twelve even orders of the four nodes.
#pragma once

namespace kelvo::voxfill {

// Face i is the face opposite local node i. Node i followed by the three face nodes in this order
// is an even permutation of 0, 1, 2, 3, so putting any point on the side of node i in its place
// keeps the orientation of the tet: the face turns positively when seen from node i.
inline constexpr unsigned tet_face_nodes[4][3] = {{1, 2, 3}, {2, 0, 3}, {1, 3, 0}, {2, 1, 0}};

// The same faces turned the other way, for code that looks at a face from outside the tet.
inline constexpr unsigned tet_turned_face_nodes[4][3] = {
    {1, 3, 2}, {2, 3, 0}, {3, 1, 0}, {0, 1, 2}};

// Local edge k joins tet_edge_nodes[k][0] and tet_edge_nodes[k][1] (first node the lower one).
inline constexpr unsigned tet_edge_nodes[6][2] = {{1, 2}, {0, 2}, {0, 1}, {0, 3}, {1, 3}, {2, 3}};

// Local edge of the node pair (i, j) in either order: for i < j it is 3 - i - j when j < 3, and
// i + 3 when j = 3. Gives 6 (no edge) for i == j or an index above 3.
constexpr unsigned tet_edge_index(unsigned i, unsigned j) noexcept {
  if (i > j) {
    const unsigned s = i;
    i = j;
    j = s;
  }
  if (i == j || j > 3) return 6;
  return j < 3 ? 3 - i - j : i + 3;
}

// The same rule as a table; -1 on the diagonal.
inline constexpr int tet_edge_of_nodes[4][4] = {
    {-1, 2, 1, 3}, {2, -1, 0, 4}, {1, 0, -1, 5}, {3, 4, 5, -1}};

// Faces i and j (i != j) share the edge from local node tet_face_pair_node[i][j] to local node
// 6 - i - j - tet_face_pair_node[i][j]; read in that direction the edge runs as in the node order
// of face i. -1 on the diagonal.
inline constexpr int tet_face_pair_node[4][4] = {
    {-1, 2, 3, 1}, {3, -1, 0, 2}, {1, 3, -1, 0}, {2, 0, 1, -1}};

// Local edge shared by faces i and j (i != j).
constexpr unsigned tet_face_pair_edge(unsigned i, unsigned j) noexcept {
  const unsigned a = unsigned(tet_face_pair_node[i][j]);
  return tet_edge_index(a, 6 - i - j - a);
}

// The twelve even orders of a tet's nodes. Order k: rotate (0, 1, 2, 3) left by k / 3 places,
// rotate its first three left by k mod 3 places, and swap the first two when k / 3 is odd (a
// rotation of four by an odd count is an odd permutation; the swap makes it even again). Order 0 is
// the identity; the quality retries walk through orders 1 to 11.
struct tet_order_table {
  unsigned order[12][4];
};
constexpr tet_order_table make_tet_even_orders() noexcept {
  tet_order_table t{};
  for (unsigned k = 0; k < 12; ++k) {
    const unsigned r = k / 3, s = k % 3;
    unsigned o[4];
    for (unsigned i = 0; i < 4; ++i) o[i] = (i + r) % 4;
    const unsigned f0 = o[s % 3], f1 = o[(s + 1) % 3], f2 = o[(s + 2) % 3];
    o[0] = f0;
    o[1] = f1;
    o[2] = f2;
    if (r & 1u) {
      const unsigned x = o[0];
      o[0] = o[1];
      o[1] = x;
    }
    for (unsigned i = 0; i < 4; ++i) t.order[k][i] = o[i];
  }
  return t;
}
inline constexpr tet_order_table tet_even_orders = make_tet_even_orders();

// Where node stands in a tet's row of four nodes; 4 when it is not there.
inline constexpr unsigned local_index(const unsigned* row, unsigned node) noexcept {
  for (unsigned i = 0; i < 4; ++i)
    if (row[i] == node) return i;
  return 4;
}

}  // namespace kelvo::voxfill
