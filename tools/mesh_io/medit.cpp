// Medit files: meshes (.mesh, ASCII) and sizes per vertex (.sol, ASCII).
#include "mesh_io/medit.h"

#include <algorithm>

#include "mesh_io/text_output.h"
#include "mesh_io/text_scanner.h"

namespace kelvo::mesh_io {

namespace {

// Sections that this reader does not use but knows the width of, in tokens per entry.
struct skipped_section {
  const char* keyword;
  unsigned width;
};
constexpr skipped_section skipped[] = {{"Ridges", 1},
                                       {"RequiredEdges", 1},
                                       {"RequiredTriangles", 1},
                                       {"RequiredQuadrilaterals", 1},
                                       {"RequiredTetrahedra", 1},
                                       {"Normals", 3},
                                       {"NormalAtVertices", 2},
                                       {"NormalAtTriangleVertices", 3},
                                       {"Tangents", 3},
                                       {"TangentAtVertices", 2},
                                       {"TangentAtEdges", 3},
                                       {"Hexahedra", 9},
                                       {"Prisms", 7},
                                       {"Pyramids", 6}};

const char* const section_list =
    "a section keyword (Vertices, Edges, Triangles, Quadrilaterals, Tetrahedra, Corners, "
    "RequiredVertices or End)";

// The header: MeshVersionFormatted and its number; Dimension may come here or later.
bool read_version(text_scanner& s) {
  unsigned version;
  if (!s.expect("MeshVersionFormatted")) return false;
  if (!s.read_uint(version, "a format version from 1 to 4")) return false;
  if (version < 1 || version > 4) return s.fail("a format version from 1 to 4");
  return true;
}

bool read_dimension(text_scanner& s) {
  unsigned d;
  if (!s.read_uint(d, "dimension 3")) return false;
  return d == 3 || s.fail("dimension 3");
}

// An entry count, with no reservation beyond what the rest of the text can hold.
bool read_count(text_scanner& s, unsigned& count, std::string_view section) {
  return s.read_uint(count, "the number of " + std::string(section));
}

std::size_t room_for(const text_scanner& s, unsigned count, unsigned width) {
  return std::min<std::size_t>(count, (s.text.size() - s.at) / (2 * width) + 1);
}

// A 1-based vertex index, stored 0-based.
bool read_vertex_index(text_scanner& s, unsigned nv, unsigned& v) {
  const std::string what = "a vertex index from 1 to " + std::to_string(nv);
  if (!s.read_uint(v, what)) return false;
  if (v < 1 || v > nv) return s.fail(what);
  --v;
  return true;
}

bool read_ref(text_scanner& s, unsigned& ref) {
  const std::string what = "a reference from 0 to " + std::to_string(max_ref);
  if (!s.read_uint(ref, what)) return false;
  return ref <= max_ref || s.fail(what);
}

// Vertex and edge references are not kept: any integer passes.
bool skip_int(text_scanner& s) {
  long long r;
  return s.read_int(r, "an integer reference");
}

}  // namespace

bool read_medit(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error) {
  text_scanner s(name, bytes, error);
  if (!read_version(s)) return false;
  bool have_vertices = false;
  std::vector<unsigned char> is_hard;
  while (s.next()) {
    const std::string_view kw = s.tok;
    const unsigned kw_line = s.tok_line;
    unsigned count = 0;
    if (same_word(kw, "End")) break;
    if (same_word(kw, "Dimension")) {
      if (!read_dimension(s)) return false;
      continue;
    }
    if (same_word(kw, "Vertices")) {
      if (have_vertices) return s.fail_at(kw_line, kw, "a single Vertices section");
      if (!read_count(s, count, "vertices")) return false;
      m.pos.reserve(3 * room_for(s, count, 4));
      for (unsigned i = 0; i < count; ++i) {
        double x[3];
        for (double& c : x)
          if (!s.read_double(c, "a finite coordinate")) return false;
        if (!skip_int(s)) return false;
        m.pos.insert(m.pos.end(), x, x + 3);
      }
      have_vertices = true;
      is_hard.assign(count, 0);
      continue;
    }
    // Every other section refers to vertices.
    static constexpr const char* uses_vertices[] = {"Edges",      "Triangles", "Quadrilaterals",
                                                    "Tetrahedra", "Corners",   "RequiredVertices"};
    if (!have_vertices && std::any_of(std::begin(uses_vertices), std::end(uses_vertices),
                                      [&](const char* k) { return same_word(kw, k); }))
      return s.fail_at(kw_line, kw, "a Vertices section before " + std::string(kw));
    const unsigned nv = m.node_count();
    if (same_word(kw, "Edges")) {
      if (!read_count(s, count, "edges")) return false;
      m.edges.reserve(m.edges.size() + 2 * room_for(s, count, 3));
      for (unsigned i = 0; i < count; ++i) {
        unsigned a, b;
        if (!read_vertex_index(s, nv, a) || !read_vertex_index(s, nv, b) || !skip_int(s))
          return false;
        m.edges.insert(m.edges.end(), {a, b});
      }
    } else if (same_word(kw, "Triangles") || same_word(kw, "Quadrilaterals")) {
      const unsigned w = same_word(kw, "Triangles") ? 3 : 4;
      if (!read_count(s, count, w == 3 ? "triangles" : "quadrilaterals")) return false;
      m.triangles.reserve(m.triangles.size() + 3 * (w - 2) * room_for(s, count, w + 1));
      for (unsigned i = 0; i < count; ++i) {
        unsigned v[4], ref;
        for (unsigned j = 0; j < w; ++j)
          if (!read_vertex_index(s, nv, v[j])) return false;
        if (!read_ref(s, ref)) return false;
        m.triangles.insert(m.triangles.end(), {v[0], v[1], v[2]});
        m.triangle_refs.push_back(ref);
        if (w == 4) {
          m.triangles.insert(m.triangles.end(), {v[0], v[2], v[3]});
          m.triangle_refs.push_back(ref);
        }
      }
    } else if (same_word(kw, "Tetrahedra")) {
      if (!read_count(s, count, "tetrahedra")) return false;
      m.tets.reserve(m.tets.size() + 4 * room_for(s, count, 5));
      for (unsigned i = 0; i < count; ++i) {
        unsigned v[4], ref;
        for (unsigned& n : v)
          if (!read_vertex_index(s, nv, n)) return false;
        if (!read_ref(s, ref)) return false;
        m.tets.insert(m.tets.end(), v, v + 4);
        m.tet_refs.push_back(ref);
      }
    } else if (same_word(kw, "Corners") || same_word(kw, "RequiredVertices")) {
      if (!read_count(s, count, "vertices")) return false;
      for (unsigned i = 0; i < count; ++i) {
        unsigned v;
        if (!read_vertex_index(s, nv, v)) return false;
        // A vertex listed twice, or in both sections, is one hard node.
        if (!is_hard[v]) m.hard_nodes.push_back(v);
        is_hard[v] = 1;
      }
    } else {
      const auto known =
          std::find_if(std::begin(skipped), std::end(skipped),
                       [&](const skipped_section& k) { return same_word(kw, k.keyword); });
      if (known == std::end(skipped)) return s.fail(section_list);
      if (!read_count(s, count, "entries")) return false;
      for (unsigned long long i = 0; i < static_cast<unsigned long long>(count) * known->width; ++i)
        if (!s.next()) return s.fail("an entry of " + std::string(kw));
    }
  }
  return true;
}

bool write_medit(const std::string& path, const mesh_file& m, std::string& error) {
  text_output out(path);
  out << "MeshVersionFormatted 2\n\nDimension 3\n\nVertices\n" << m.node_count() << '\n';
  for (unsigned n = 0; n < m.node_count(); ++n)
    out << m.pos[3 * n] << ' ' << m.pos[3 * n + 1] << ' ' << m.pos[3 * n + 2] << " 0\n";
  if (!m.edges.empty()) {
    out << "\nEdges\n" << m.edge_count() << '\n';
    for (unsigned e = 0; e < m.edge_count(); ++e)
      out << m.edges[2 * e] + 1 << ' ' << m.edges[2 * e + 1] + 1 << " 0\n";
  }
  if (!m.triangles.empty()) {
    out << "\nTriangles\n" << m.triangle_count() << '\n';
    for (unsigned f = 0; f < m.triangle_count(); ++f) {
      const unsigned* v = &m.triangles[3 * f];
      out << v[0] + 1 << ' ' << v[1] + 1 << ' ' << v[2] + 1 << ' '
          << (m.triangle_refs.empty() ? 0u : m.triangle_refs[f]) << '\n';
    }
  }
  if (!m.tets.empty()) {
    out << "\nTetrahedra\n" << m.tet_count() << '\n';
    for (unsigned t = 0; t < m.tet_count(); ++t) {
      const unsigned* v = &m.tets[4 * t];
      out << v[0] + 1 << ' ' << v[1] + 1 << ' ' << v[2] + 1 << ' ' << v[3] + 1 << ' '
          << (m.tet_refs.empty() ? 0u : m.tet_refs[t]) << '\n';
    }
  }
  if (!m.hard_nodes.empty()) {
    out << "\nRequiredVertices\n" << unsigned(m.hard_nodes.size()) << '\n';
    for (unsigned n : m.hard_nodes) out << n + 1 << '\n';
  }
  out << "\nEnd\n";
  return out.close(error);
}

bool read_sol(std::string_view name, std::string_view bytes, std::vector<double>& sizes,
              std::string& error) {
  sizes.clear();
  text_scanner s(name, bytes, error);
  if (!read_version(s)) return false;
  bool have_values = false;
  while (s.next()) {
    if (same_word(s.tok, "End")) break;
    if (same_word(s.tok, "Dimension")) {
      if (!read_dimension(s)) return false;
      continue;
    }
    if (!same_word(s.tok, "SolAtVertices") || have_values)
      return s.fail(have_values ? "End" : "SolAtVertices");
    unsigned count, fields, type;
    if (!read_count(s, count, "vertices")) return false;
    if (!s.read_uint(fields, "one scalar field ('1 1')") || fields != 1)
      return s.fail("one scalar field ('1 1')");
    if (!s.read_uint(type, "one scalar field ('1 1')") || type != 1)
      return s.fail("one scalar field ('1 1')");
    sizes.reserve(room_for(s, count, 1));
    for (unsigned i = 0; i < count; ++i) {
      double v;
      if (!s.read_double(v, "a finite size")) return false;
      sizes.push_back(v);
    }
    have_values = true;
  }
  if (!have_values) return s.fail("SolAtVertices");
  return true;
}

bool read_sol_file(const std::string& path, std::vector<double>& sizes, std::string& error) {
  std::string bytes, scratch;
  return read_bytes(path, bytes, error) && read_sol(path, plain_text(bytes, scratch), sizes, error);
}

bool write_sol(const std::string& path, const std::vector<double>& sizes, std::string& error) {
  text_output out(path);
  out << "MeshVersionFormatted 2\n\nDimension 3\n\nSolAtVertices\n"
      << unsigned(sizes.size()) << "\n1 1\n";
  for (double v : sizes) out << v << '\n';
  out << "\nEnd\n";
  return out.close(error);
}

}  // namespace kelvo::mesh_io
