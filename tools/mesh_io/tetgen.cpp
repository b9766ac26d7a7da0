// TetGen node and element lists (.node, .ele).
#include "mesh_io/tetgen.h"

#include <algorithm>

#include "mesh_io/text_scanner.h"

namespace kelvo::mesh_io {

namespace {

// An entry's leading index, which must count up from the base.
bool read_index(text_scanner& s, unsigned expected) {
  unsigned i;
  const std::string what = "index " + std::to_string(expected);
  return (s.read_uint(i, what) && i == expected) || s.fail(what);
}

}  // namespace

bool read_node(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error,
               unsigned* base) {
  text_scanner s(name, bytes, error);
  unsigned count, dim, attributes, markers;
  if (!s.read_uint(count, "a node count")) return false;
  if (!s.read_uint(dim, "dimension 3") || dim != 3) return s.fail("dimension 3");
  if (!s.read_uint(attributes, "an attribute count")) return false;
  if (!s.read_uint(markers, "a boundary marker flag (0 or 1)") || markers > 1)
    return s.fail("a boundary marker flag (0 or 1)");
  m.pos.reserve(m.pos.size() + 3 * std::min<std::size_t>(count, bytes.size() / 8));
  unsigned b = 0;
  for (unsigned i = 0; i < count; ++i) {
    if (i == 0) {
      if (!s.read_uint(b, "index 0 or 1") || b > 1) return s.fail("index 0 or 1");
    } else if (!read_index(s, b + i)) {
      return false;
    }
    for (unsigned k = 0; k < 3; ++k) {
      double x;
      if (!s.read_double(x, "a finite coordinate")) return false;
      m.pos.push_back(x);
    }
    for (unsigned k = 0; k < attributes + markers; ++k) {
      double a;
      if (!s.read_double(a, k < attributes ? "an attribute" : "a boundary marker")) return false;
    }
  }
  if (base) *base = b;
  return true;
}

bool read_ele(std::string_view name, std::string_view bytes, unsigned base, mesh_file& m,
              std::string& error) {
  text_scanner s(name, bytes, error);
  unsigned count, corners, attributes;
  if (!s.read_uint(count, "a tetrahedron count")) return false;
  if (!s.read_uint(corners, "4 or 10 nodes per tetrahedron") || (corners != 4 && corners != 10))
    return s.fail("4 or 10 nodes per tetrahedron");
  if (!s.read_uint(attributes, "an attribute count")) return false;
  const unsigned nv = m.node_count();
  const std::string range =
      "a node index from " + std::to_string(base) + " to " + std::to_string(base + nv - 1);
  m.tets.reserve(4 * std::min<std::size_t>(count, bytes.size() / 10));
  for (unsigned t = 0; t < count; ++t) {
    if (!read_index(s, base + t)) return false;
    unsigned v[10];
    for (unsigned j = 0; j < corners; ++j) {
      if (!s.read_uint(v[j], range) || v[j] < base || v[j] - base >= nv) return s.fail(range);
      v[j] -= base;
    }
    // Nodes 5 to 10 of a quadratic tet sit on its edges: the corners are the tet.
    m.tets.insert(m.tets.end(), v, v + 4);
    for (unsigned k = 0; k < attributes; ++k) {
      double a;
      if (!s.read_double(a, k ? "an attribute" : "a region number")) return false;
      if (k == 0) {
        if (!(a >= 0.0 && a <= double(max_ref) && a == double(unsigned(a))))
          return s.fail("a region number that is a whole number from 0 to " +
                        std::to_string(max_ref));
        m.tet_refs.push_back(unsigned(a));
      }
    }
  }
  return true;
}

}  // namespace kelvo::mesh_io
