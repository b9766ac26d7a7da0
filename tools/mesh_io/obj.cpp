// Wavefront surfaces (.obj).
#include "mesh_io/obj.h"

#include "mesh_io/text_scanner.h"

namespace kelvo::mesh_io {

namespace {

// The vertex of a face or line entry "v", "v/vt", "v//vn" or "v/vt/vn": 1-based, or negative
// counting back from the last vertex read.
bool vertex_of(std::string_view entry, unsigned nv, unsigned& v) {
  const std::size_t slash = entry.find('/');
  long long i;
  if (!parse_int(entry.substr(0, slash), i)) return false;
  if (i < 0) i += static_cast<long long>(nv) + 1;
  if (i < 1 || i > static_cast<long long>(nv)) return false;
  v = unsigned(i - 1);
  return true;
}

}  // namespace

bool read_obj(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error) {
  text_scanner s(name, bytes, error);
  std::vector<std::string_view> t;
  while (s.next_line(t)) {
    const unsigned line = s.tok_line;
    if (t[0] == "v") {
      if (t.size() < 4) return s.fail_line_end(line, "3 coordinates");
      for (unsigned k = 1; k <= 3; ++k) {
        double x;
        if (!parse_double(t[k], x)) return s.fail_at(line, t[k], "a finite coordinate");
        m.pos.push_back(x);
      }
    } else if (t[0] == "f" || t[0] == "l") {
      const bool face = t[0] == "f";
      const unsigned nv = m.node_count();
      if (t.size() < (face ? 4u : 3u))
        return s.fail_line_end(line, face ? "3 or more vertices" : "2 or more vertices");
      const std::string range = "a vertex index from 1 to " + std::to_string(nv) +
                                " (or from -1 to -" + std::to_string(nv) + ")";
      unsigned first = 0, prev = 0;
      for (std::size_t j = 1; j < t.size(); ++j) {
        unsigned v;
        if (!vertex_of(t[j], nv, v)) return s.fail_at(line, t[j], range);
        if (face && j >= 3) m.triangles.insert(m.triangles.end(), {first, prev, v});
        if (!face && j >= 2) m.edges.insert(m.edges.end(), {prev, v});
        if (j == 1) first = v;
        prev = v;
      }
    }
    // vt, vn, g, o, s, usemtl, mtllib and the rest carry nothing the mesher uses.
  }
  return true;
}

}  // namespace kelvo::mesh_io
