// Object File Format surfaces (.off).
#include "mesh_io/off.h"

#include <algorithm>

#include "mesh_io/text_scanner.h"

namespace kelvo::mesh_io {

namespace {

// OFF, with the prefixes that only add values to the vertex lines (colours, normals, texture).
bool is_header(std::string_view t) {
  if (t.size() < 3 || t.substr(t.size() - 3) != "OFF") return false;
  return std::all_of(t.begin(), t.end() - 3,
                     [](char c) { return c == 'C' || c == 'N' || c == 'S' || c == 'T'; });
}

}  // namespace

bool read_off(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error) {
  text_scanner s(name, bytes, error);
  std::vector<std::string_view> t;
  if (!s.next_line(t) || !is_header(t[0])) return s.fail("the header OFF");
  if (t.size() > 1 && same_word(t[1], "BINARY"))
    return s.fail_at(s.tok_line, t[1], "an ASCII OFF file (binary OFF is not read)");
  // The counts may follow the header on its line.
  std::size_t first = 1;
  if (t.size() == 1) {
    if (!s.next_line(t)) return s.fail("the counts of vertices and faces");
    first = 0;
  }
  unsigned nv, nf;
  if (t.size() < first + 2) return s.fail_line_end(s.tok_line, "the counts of vertices and faces");
  if (!parse_uint(t[first], nv)) return s.fail_at(s.tok_line, t[first], "a vertex count");
  if (!parse_uint(t[first + 1], nf)) return s.fail_at(s.tok_line, t[first + 1], "a face count");

  m.pos.reserve(3 * std::min<std::size_t>(nv, bytes.size() / 6));
  for (unsigned i = 0; i < nv; ++i) {
    if (!s.next_line(t)) return s.fail("3 coordinates of vertex " + std::to_string(i));
    if (t.size() < 3) return s.fail_line_end(s.tok_line, "3 coordinates");
    for (unsigned k = 0; k < 3; ++k) {
      double x;
      if (!parse_double(t[k], x)) return s.fail_at(s.tok_line, t[k], "a finite coordinate");
      m.pos.push_back(x);
    }
  }
  m.triangles.reserve(3 * std::min<std::size_t>(nf, bytes.size() / 8));
  const std::string index_range = "a vertex index from 0 to " + std::to_string(nv ? nv - 1 : 0);
  for (unsigned i = 0; i < nf; ++i) {
    if (!s.next_line(t)) return s.fail("face " + std::to_string(i));
    unsigned k;
    if (!parse_uint(t[0], k) || k < 3)
      return s.fail_at(s.tok_line, t[0], "a polygon size of 3 or more");
    if (t.size() < std::size_t(k) + 1)
      return s.fail_line_end(s.tok_line, std::to_string(k) + " vertex indices");
    unsigned v[3];
    for (unsigned j = 0; j < k; ++j) {
      unsigned n;
      if (!parse_uint(t[1 + j], n) || n >= nv) return s.fail_at(s.tok_line, t[1 + j], index_range);
      // A fan around the first vertex.
      if (j < 2) {
        v[j] = n;
        continue;
      }
      v[2] = n;
      m.triangles.insert(m.triangles.end(), v, v + 3);
      v[1] = n;
    }
  }
  return true;
}

}  // namespace kelvo::mesh_io
