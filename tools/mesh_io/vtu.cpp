// VTK unstructured grids in XML (.vtu), ASCII data arrays.
#include "mesh_io/vtu.h"

#include <algorithm>

#include "mesh_io/text_output.h"
#include "mesh_io/text_scanner.h"

namespace kelvo::mesh_io {

namespace {

constexpr unsigned vtk_vertex = 1, vtk_line = 3, vtk_triangle = 5, vtk_tetra = 10;

// One XML tag: its name, its attributes and its kind. Only what this reader needs of XML.
struct xml_tag {
  std::string_view name;
  std::vector<std::pair<std::string_view, std::string_view>> attributes;
  bool closing = false;       // </name>
  bool self_closing = false;  // <name ... />
  unsigned line = 0;

  std::string_view attribute(std::string_view key) const {
    for (const auto& [k, v] : attributes)
      if (k == key) return v;
    return {};
  }
};

bool is_space(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Moves the scanner past `n` bytes, counting lines.
void advance(text_scanner& s, std::size_t n) {
  for (std::size_t i = 0; i < n && s.at < s.text.size(); ++i)
    if (s.text[s.at++] == '\n') ++s.line;
}

// The next tag after the current position, skipping text, declarations and comments.
// False at the end of the file (`tag.name` empty) or with a message for a broken tag.
bool next_tag(text_scanner& s, xml_tag& tag) {
  tag = xml_tag();
  while (true) {
    const std::size_t lt = s.text.find('<', s.at);
    if (lt == std::string_view::npos) {
      advance(s, s.text.size() - s.at);
      return false;
    }
    advance(s, lt - s.at);
    const std::string_view rest = s.text.substr(s.at);
    if (rest.substr(0, 9) == "<![CDATA[") {
      s.tok_line = s.line;
      s.tok = rest.substr(0, 9);
      return s.fail("ASCII numbers in the data arrays (CDATA sections are not read)");
    }
    if (rest.substr(0, 4) == "<!--" || rest.substr(0, 2) == "<?" || rest.substr(0, 2) == "<!") {
      const std::string_view end = rest.substr(0, 4) == "<!--" ? "-->" : ">";
      const std::size_t e = rest.find(end);
      if (e == std::string_view::npos) {
        s.tok_line = s.line;
        s.tok = {};
        std::string quoted(1, '\'');
        quoted.append(end).append(1, '\'');
        return s.fail(quoted);
      }
      advance(s, e + end.size());
      continue;
    }
    break;
  }
  tag.line = s.line;
  s.tok_line = s.line;
  advance(s, 1);
  if (s.at < s.text.size() && s.text[s.at] == '/') {
    tag.closing = true;
    advance(s, 1);
  }
  const auto name_char = [](char c) {
    return !is_space(c) && c != '>' && c != '/' && c != '=' && c != '<';
  };
  const auto word = [&]() {
    const std::size_t b = s.at;
    while (s.at < s.text.size() && name_char(s.text[s.at])) advance(s, 1);
    return s.text.substr(b, s.at - b);
  };
  tag.name = word();
  if (tag.name.empty()) {
    s.tok = s.text.substr(s.at, 1);
    return s.fail("a tag name");
  }
  while (true) {
    while (s.at < s.text.size() && is_space(s.text[s.at])) advance(s, 1);
    s.tok_line = s.line;
    if (s.at >= s.text.size()) {
      s.tok = {};
      return s.fail("'>'");
    }
    const char c = s.text[s.at];
    if (c == '>') {
      advance(s, 1);
      return true;
    }
    if (c == '/' && s.text.substr(s.at, 2) == "/>") {
      tag.self_closing = true;
      advance(s, 2);
      return true;
    }
    const std::string_view key = word();
    if (key.empty() || s.at >= s.text.size() || s.text[s.at] != '=') {
      s.tok = s.text.substr(s.at, std::min<std::size_t>(1, s.text.size() - s.at));
      return s.fail("an attribute name=\"value\"");
    }
    advance(s, 1);
    const char q = s.at < s.text.size() ? s.text[s.at] : '\0';
    const std::size_t close =
        (q == '"' || q == '\'') ? s.text.find(q, s.at + 1) : std::string_view::npos;
    if (close == std::string_view::npos) {
      s.tok = s.text.substr(s.at, std::min<std::size_t>(1, s.text.size() - s.at));
      return s.fail("a quoted attribute value");
    }
    tag.attributes.emplace_back(key, s.text.substr(s.at + 1, close - s.at - 1));
    advance(s, close + 1 - s.at);
  }
}

// The numbers of one ASCII DataArray, up to its closing tag.
bool read_array(text_scanner& s, const xml_tag& tag, std::vector<double>& values) {
  if (tag.attribute("format") != "ascii") {
    s.tok_line = tag.line;
    s.tok = tag.attribute("format");
    return s.fail("format=\"ascii\" (binary and appended data are not read)");
  }
  values.clear();
  if (tag.self_closing) return true;
  const std::size_t end = s.text.find('<', s.at);
  const std::string_view saved = s.text;
  s.text = s.text.substr(0, end == std::string_view::npos ? s.text.size() : end);
  while (s.next()) {
    double v;
    if (!parse_double(s.tok, v)) return s.fail("a number");
    values.push_back(v);
  }
  s.text = saved;
  return true;
}

bool whole(double v) {
  return v >= 0.0 && v <= 4294967295.0 && v == double(unsigned(v));
}

}  // namespace

bool write_vtu(const std::string& path, const mesh_file& m, std::string& error) {
  const unsigned N = m.node_count(), T = m.tet_count();
  text_output out(path);
  out << "<?xml version=\"1.0\"?>\n"
         "<VTKFile type=\"UnstructuredGrid\" version=\"1.0\" byte_order=\"LittleEndian\" "
         "header_type=\"UInt64\">\n"
         "  <UnstructuredGrid>\n"
      << "    <Piece NumberOfPoints=\"" << N << "\" NumberOfCells=\"" << T << "\">\n"
      << "      <Points>\n"
         "        <DataArray type=\"Float64\" NumberOfComponents=\"3\" format=\"ascii\">\n";
  for (unsigned n = 0; n < N; ++n)
    out << m.pos[3 * n] << ' ' << m.pos[3 * n + 1] << ' ' << m.pos[3 * n + 2] << '\n';
  out << "        </DataArray>\n      </Points>\n      <Cells>\n"
         "        <DataArray type=\"Int64\" Name=\"connectivity\" format=\"ascii\">\n";
  for (unsigned t = 0; t < T; ++t)
    out << m.tets[4 * t] << ' ' << m.tets[4 * t + 1] << ' ' << m.tets[4 * t + 2] << ' '
        << m.tets[4 * t + 3] << '\n';
  out << "        </DataArray>\n"
         "        <DataArray type=\"Int64\" Name=\"offsets\" format=\"ascii\">\n";
  for (unsigned t = 0; t < T; ++t) out << 4ull * (t + 1) << '\n';
  out << "        </DataArray>\n"
         "        <DataArray type=\"UInt8\" Name=\"types\" format=\"ascii\">\n";
  for (unsigned t = 0; t < T; ++t) out << "10\n";
  out << "        </DataArray>\n      </Cells>\n      <CellData Scalars=\"colour\">\n"
         "        <DataArray type=\"UInt32\" Name=\"colour\" format=\"ascii\">\n";
  for (unsigned t = 0; t < T; ++t) out << (m.tet_refs.empty() ? 0u : m.tet_refs[t]) << '\n';
  out << "        </DataArray>\n"
         "        <DataArray type=\"Float64\" Name=\"shape_quality\" format=\"ascii\">\n";
  for (double q : shape_qualities(m)) out << q << '\n';
  out << "        </DataArray>\n      </CellData>\n    </Piece>\n  </UnstructuredGrid>\n"
         "</VTKFile>\n";
  return out.close(error);
}

bool read_vtu(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error) {
  text_scanner s(name, bytes, error, '\0');
  error.clear();  // next_tag tells a broken tag from the end of the file by the message
  xml_tag tag;
  std::vector<double> points, connectivity, offsets, types, colour;
  bool have_points = false, have_connectivity = false, have_offsets = false, have_types = false;
  unsigned pieces = 0, piece_line = 0;
  std::string_view declared_points, declared_cells;  // the Piece's counts
  bool closed = false;                               // </VTKFile> seen: the file is whole
  std::string_view section;                          // Points, Cells, CellData or empty
  while (next_tag(s, tag)) {
    if (tag.name == "AppendedData") {
      s.tok = tag.name;
      s.tok_line = tag.line;
      return s.fail("ASCII data arrays (appended data is not read)");
    }
    if (tag.name == "Piece" && !tag.closing) {
      if (++pieces > 1) {
        s.tok = tag.name;
        s.tok_line = tag.line;
        return s.fail("a single Piece");
      }
      piece_line = tag.line;
      declared_points = tag.attribute("NumberOfPoints");
      declared_cells = tag.attribute("NumberOfCells");
    }
    if (tag.name == "VTKFile" && tag.closing) closed = true;
    if (tag.name == "Points" || tag.name == "Cells" || tag.name == "CellData" ||
        tag.name == "PointData")
      section = tag.closing || tag.self_closing ? std::string_view() : tag.name;
    if (tag.name != "DataArray" || tag.closing) continue;
    const std::string_view array = tag.attribute("Name");
    std::vector<double>* target = nullptr;
    if (section == "Points" && !have_points) {
      target = &points;
      have_points = true;
    } else if (section == "Cells" && array == "connectivity") {
      target = &connectivity;
      have_connectivity = true;
    } else if (section == "Cells" && array == "offsets") {
      target = &offsets;
      have_offsets = true;
    } else if (section == "Cells" && array == "types") {
      target = &types;
      have_types = true;
    } else if (section == "CellData" && array == "colour") {
      target = &colour;
    }
    std::vector<double> ignored;
    if (!read_array(s, tag, target ? *target : ignored)) return false;
  }
  if (!error.empty()) return false;
  s.tok = {};
  s.tok_line = s.line;
  if (!pieces) return s.fail("a Piece");
  if (!closed) return s.fail("'</VTKFile>' (the file is cut short)");
  if (!have_points) return s.fail("a Points data array");
  if (!have_connectivity || !have_offsets || !have_types)
    return s.fail("the connectivity, offsets and types arrays of the Cells");
  // What follows is checked against the Piece, whose line the messages give.
  s.tok_line = piece_line;
  s.tok = "Piece";
  if (points.size() % 3) return s.fail("3 coordinates per point");
  const std::size_t N = points.size() / 3;
  if (offsets.size() != types.size()) return s.fail("as many offsets as cell types");
  if (!colour.empty() && colour.size() != types.size()) return s.fail("one colour per cell");
  // The Piece's counts, when given, must be what the arrays hold.
  const auto count_fails = [&](std::string_view declared, std::size_t found, const char* what) {
    unsigned n;
    if (declared.empty() || (parse_uint(declared, n) && n == found)) return false;
    error = std::string(name) + ":" + std::to_string(piece_line) + ": expected " + what + "=\"" +
            std::string(declared) + "\" as the Piece says, found " + std::to_string(found);
    return true;
  };
  if (count_fails(declared_points, N, "NumberOfPoints") ||
      count_fails(declared_cells, types.size(), "NumberOfCells"))
    return false;
  m.pos = std::move(points);
  double begin = 0.0;
  for (std::size_t c = 0; c < types.size(); ++c) {
    const double end = offsets[c];
    const unsigned type = whole(types[c]) ? unsigned(types[c]) : 0;
    const unsigned width = type == vtk_vertex     ? 1
                           : type == vtk_line     ? 2
                           : type == vtk_triangle ? 3
                           : type == vtk_tetra    ? 4
                                                  : 0;
    if (!width) return s.fail("cell types 1, 3, 5 or 10 (vertex, line, triangle, tetra)");
    if (!whole(end) || end != begin + width || end > double(connectivity.size()))
      return s.fail("offsets that match the cell types and the connectivity");
    unsigned v[4];
    for (unsigned j = 0; j < width; ++j) {
      const double n = connectivity[std::size_t(begin) + j];
      if (!whole(n) || n >= double(N)) return s.fail("point indices below the number of points");
      v[j] = unsigned(n);
    }
    const double ref = colour.empty() ? 0.0 : colour[c];
    if (!colour.empty() && !(whole(ref) && ref <= double(max_ref)))
      return s.fail("colours from 0 to " + std::to_string(max_ref));
    if (type == vtk_tetra) {
      m.tets.insert(m.tets.end(), v, v + 4);
      if (!colour.empty()) m.tet_refs.push_back(unsigned(ref));
    } else if (type == vtk_triangle) {
      m.triangles.insert(m.triangles.end(), v, v + 3);
      if (!colour.empty()) m.triangle_refs.push_back(unsigned(ref));
    } else if (type == vtk_line) {
      m.edges.insert(m.edges.end(), v, v + 2);
    } else {
      m.hard_nodes.push_back(v[0]);
    }
    begin = end;
  }
  if (double(connectivity.size()) != begin)
    return s.fail("offsets that match the cell types and the connectivity");
  return true;
}

}  // namespace kelvo::mesh_io
