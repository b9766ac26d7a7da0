// Adjacency of connectivity tables.
#include "gridkit/adjacency.h"

#include <algorithm>
#include <new>

namespace kelvo::gridkit {

int get_ancestors(const dense2D<unsigned>& connect, dense1D<unsigned>& ancestors) {
  unsigned top = 0;
  bool any = false;
  if (!connect.empty())
    for (unsigned j = 0; j < connect.cols; ++j)
      for (unsigned i = 0; i < connect.rows; ++i) {
        top = std::max(top, connect(i, j));
        any = true;
      }
  if (any && top == 0xFFFFFFFFu) return -199;  // no table can be that long
  try {
    dense1D<unsigned> fresh;
    if (any && !fresh.resize(top + 1, 0xFFFFFFFFu)) return -199;
    if (any)
      for (unsigned j = 0; j < connect.cols; ++j)
        for (unsigned i = 0; i < connect.rows; ++i) fresh[connect(i, j)] = j;
    ancestors = fresh;
    return 0;
  } catch (const std::bad_alloc&) {
    return -199;
  }
}

namespace {

// One side of one element: its nodes sorted (unused places 0) and where it stands, as
// column * rows + local index. Sorting by the whole record groups equal sides, holders in column
// order, so the result does not depend on the sort's treatment of ties.
struct side_record {
  unsigned k[3];
  unsigned code;
};

bool side_less(const side_record& a, const side_record& b) noexcept {
  if (a.k[0] != b.k[0]) return a.k[0] < b.k[0];
  if (a.k[1] != b.k[1]) return a.k[1] < b.k[1];
  if (a.k[2] != b.k[2]) return a.k[2] < b.k[2];
  return a.code < b.code;
}

bool same_side(const side_record& a, const side_record& b) noexcept {
  return a.k[0] == b.k[0] && a.k[1] == b.k[1] && a.k[2] == b.k[2];
}

}  // namespace

int get_neighbors(const dense2D<unsigned>& connect, element_type type, bool flag,
                  dense2D<unsigned>& neighbors) {
  const unsigned r = nodes_per_element(type);
  if (r == 0) return -1;
  const unsigned cols = connect.empty() ? 0 : connect.cols;
  if (cols && connect.rows != r) return -1;
  const std::uint64_t count = std::uint64_t(cols) * r;
  if (count > 0xFFFFFFFFull) return -199;
  try {
    dense2D<unsigned> fresh;
    dense1D<side_record> sides;
    if (!fresh.resize(r, cols, 0xFFFFFFFFu) || !sides.resize(unsigned(count))) return -199;
    for (unsigned c = 0; c < cols; ++c)
      for (unsigned i = 0; i < r; ++i) {
        side_record& s = sides[c * r + i];
        s.k[0] = s.k[1] = s.k[2] = 0;
        for (unsigned a = 1, k = 0; a < r; ++a) s.k[k++] = connect((i + a) % r, c);
        std::sort(s.k, s.k + (r - 1));
        s.code = c * r + i;
      }
    std::sort(sides.begin(), sides.end(), side_less);
    for (unsigned a = 0; a < sides.size;) {
      unsigned b = a + 1;
      while (b < sides.size && same_side(sides[a], sides[b])) ++b;
      const unsigned holders = b - a;
      if (holders == 2 || (holders > 2 && flag))
        for (unsigned k = a; k < b; ++k) {
          const unsigned next = k + 1 < b ? k + 1 : a;
          fresh(sides[k].code % r, sides[k].code / r) = sides[next].code / r;
        }
      a = b;
    }
    neighbors = fresh;
    return 0;
  } catch (const std::bad_alloc&) {
    return -199;
  }
}

}  // namespace kelvo::gridkit
