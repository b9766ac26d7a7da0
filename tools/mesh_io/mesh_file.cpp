// The tables of a mesh file, the measures taken on them, and reading and writing by extension.
#include "mesh_io/mesh_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

#include "mesh_io/gmsh.h"
#include "mesh_io/medit.h"
#include "mesh_io/obj.h"
#include "mesh_io/off.h"
#include "mesh_io/ply.h"
#include "mesh_io/stl.h"
#include "mesh_io/tetgen.h"
#include "mesh_io/text_scanner.h"
#include "mesh_io/vtu.h"
#include "mesh_io/xyz.h"

namespace kelvo::mesh_io {

namespace {

void sub(const double* p, const double* q, double* r) {
  r[0] = p[0] - q[0];
  r[1] = p[1] - q[1];
  r[2] = p[2] - q[2];
}
double dot(const double* a, const double* b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
void cross(const double* a, const double* b, double* r) {
  r[0] = a[1] * b[2] - a[2] * b[1];
  r[1] = a[2] * b[0] - a[0] * b[2];
  r[2] = a[0] * b[1] - a[1] * b[0];
}
double norm(const double* a) {
  return std::sqrt(dot(a, a));
}

}  // namespace

double shape_quality(const double* p0, const double* p1, const double* p2, const double* p3) {
  double a[3], b[3], c[3], ba[3], ca[3], cb[3], n[3];
  sub(p1, p0, a);
  sub(p2, p0, b);
  sub(p3, p0, c);
  sub(b, a, ba);
  sub(c, a, ca);
  sub(c, b, cb);
  // r = 3 V / (sum of face areas) and 6 V = a . (b x c) = det(a, b, c); the areas are half the
  // cross products, so 2 sqrt(6) r / h = 2 sqrt(6) det / (h * sum of the four cross product norms).
  double areas = 0.0;
  cross(b, c, n);
  const double det = dot(a, n);
  areas += norm(n);
  cross(a, c, n);
  areas += norm(n);
  cross(a, b, n);
  areas += norm(n);
  cross(ba, ca, n);
  areas += norm(n);
  const double h2 =
      std::max({dot(a, a), dot(b, b), dot(c, c), dot(ba, ba), dot(ca, ca), dot(cb, cb)});
  const double d = std::sqrt(h2) * areas;
  if (!(d > 0.0)) return 0.0;
  const double q = 4.898979485566356 * det / d;
  return std::clamp(q, -1.0, 1.0);
}

double tet_volume(const double* p0, const double* p1, const double* p2, const double* p3) {
  double a[3], b[3], c[3], n[3];
  sub(p1, p0, a);
  sub(p2, p0, b);
  sub(p3, p0, c);
  cross(b, c, n);
  return dot(a, n) / 6.0;
}

std::vector<double> shape_qualities(const mesh_file& m) {
  std::vector<double> q(m.tet_count());
  const double* x = m.pos.data();
  for (std::size_t t = 0; t < q.size(); ++t) {
    const unsigned* v = &m.tets[4 * t];
    q[t] = shape_quality(x + 3 * v[0], x + 3 * v[1], x + 3 * v[2], x + 3 * v[3]);
  }
  return q;
}

void set_boundary_of_tets(mesh_file& m) {
  // Outward faces of a positive tet, face i opposite local node i.
  static constexpr unsigned faces[4][3] = {{1, 2, 3}, {0, 3, 2}, {0, 1, 3}, {0, 2, 1}};
  const unsigned T = m.tet_count();
  struct face {
    std::array<unsigned, 3> key;  // sorted nodes
    unsigned code;                // 4 t + i
  };
  std::vector<face> all(4 * std::size_t(T));
  for (unsigned t = 0; t < T; ++t)
    for (unsigned i = 0; i < 4; ++i) {
      std::array<unsigned, 3> k = {m.tets[4 * t + faces[i][0]], m.tets[4 * t + faces[i][1]],
                                   m.tets[4 * t + faces[i][2]]};
      std::sort(k.begin(), k.end());
      all[4 * t + i] = {k, 4 * t + i};
    }
  std::sort(all.begin(), all.end(), [](const face& a, const face& b) {
    return a.key != b.key ? a.key < b.key : a.code < b.code;
  });
  const auto colour = [&](unsigned t) { return m.tet_refs.empty() ? 0u : m.tet_refs[t]; };
  // The kept face codes, in a mark per code so that the output follows the tets' order.
  std::vector<unsigned char> keep(all.size(), 0);
  for (std::size_t i = 0; i < all.size();) {
    std::size_t j = i + 1;
    while (j < all.size() && all[j].key == all[i].key) ++j;
    if (j - i == 1) {
      keep[all[i].code] = 1;
    } else if (j - i == 2) {
      const unsigned a = all[i].code, b = all[i + 1].code;
      const unsigned ca = colour(a / 4), cb = colour(b / 4);
      if (ca != cb) keep[ca < cb ? a : b] = 1;
    }
    // Three or more tets on one face: a broken mesh; none of its faces is a boundary.
    i = j;
  }
  m.triangles.clear();
  m.triangle_refs.clear();
  const double* x = m.pos.data();
  for (unsigned code = 0; code < keep.size(); ++code) {
    if (!keep[code]) continue;
    const unsigned t = code / 4, i = code % 4;
    const unsigned* v = &m.tets[4 * t];
    const bool negative = tet_volume(x + 3 * v[0], x + 3 * v[1], x + 3 * v[2], x + 3 * v[3]) < 0.0;
    const unsigned n0 = v[faces[i][0]], n1 = v[faces[i][1]], n2 = v[faces[i][2]];
    m.triangles.insert(m.triangles.end(), {n0, negative ? n2 : n1, negative ? n1 : n2});
    m.triangle_refs.push_back(colour(t));
  }
}

void drop_unused_nodes(mesh_file& m) {
  const unsigned none = 0xFFFFFFFFu;
  std::vector<unsigned> map(m.node_count(), none);
  for (unsigned n : m.tets) map[n] = 0;
  unsigned k = 0;
  for (unsigned& n : map)
    if (n == 0) n = k++;
  std::vector<double> pos(3 * std::size_t(k));
  for (unsigned n = 0; n < map.size(); ++n)
    if (map[n] != none) std::copy_n(&m.pos[3 * std::size_t(n)], 3, &pos[3 * std::size_t(map[n])]);
  m.pos.swap(pos);
  for (unsigned& n : m.tets) n = map[n];
  // A table of rows of `w` nodes keeps the rows whose nodes all stay.
  const auto keep_rows = [&](std::vector<unsigned>& table, unsigned w,
                             std::vector<unsigned>* refs) {
    std::size_t out = 0;
    for (std::size_t r = 0; r < table.size() / w; ++r) {
      bool used = true;
      for (unsigned j = 0; j < w; ++j) used = used && map[table[w * r + j]] != none;
      if (!used) continue;
      for (unsigned j = 0; j < w; ++j) table[w * out + j] = map[table[w * r + j]];
      if (refs && !refs->empty()) (*refs)[out] = (*refs)[r];
      ++out;
    }
    table.resize(w * out);
    if (refs && !refs->empty()) refs->resize(out);
  };
  keep_rows(m.edges, 2, nullptr);
  keep_rows(m.triangles, 3, &m.triangle_refs);
  keep_rows(m.hard_nodes, 1, nullptr);
}

file_format format_of(std::string_view path) {
  const std::size_t slash = path.find_last_of('/');
  const std::size_t dot = path.find_last_of('.');
  if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash))
    return file_format::unknown;
  const std::string_view ext = path.substr(dot + 1);
  static constexpr std::pair<const char*, file_format> table[] = {
      {"mesh", file_format::medit}, {"sol", file_format::medit_sol}, {"off", file_format::off},
      {"stl", file_format::stl},    {"obj", file_format::obj},       {"ply", file_format::ply},
      {"node", file_format::node},  {"ele", file_format::ele},       {"xyz", file_format::xyz},
      {"vtu", file_format::vtu},    {"msh", file_format::msh}};
  for (const auto& [e, f] : table)
    if (same_word(ext, e)) return f;
  return file_format::unknown;
}

bool readable(file_format f) {
  return f != file_format::unknown && f != file_format::medit_sol;
}

bool writable(file_format f) {
  return f == file_format::medit || f == file_format::vtu || f == file_format::msh;
}

bool read_bytes(const std::string& path, std::string& bytes, std::string& error) {
  bytes.clear();
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    error = "cannot read " + path + ": " + std::strerror(errno);
    return false;
  }
  char chunk[1 << 16];
  std::size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) bytes.append(chunk, n);
  const bool failed = std::ferror(f);
  const int why = errno;
  std::fclose(f);
  if (!failed) return true;
  error = "cannot read " + path + ": " + std::strerror(why);
  return false;
}

bool check_indices(std::string_view name, const mesh_file& m, std::string& error) {
  const unsigned n = m.node_count();
  const auto bad = [&](const std::vector<unsigned>& v, const char* what) {
    for (unsigned i : v)
      if (i >= n) {
        error = std::string(name) + ": expected " + what + " on nodes 0 to " +
                std::to_string(n ? n - 1 : 0) + ", found node " + std::to_string(i);
        return true;
      }
    return false;
  };
  return !(bad(m.edges, "edges") || bad(m.triangles, "triangles") || bad(m.tets, "tetrahedra") ||
           bad(m.hard_nodes, "hard nodes"));
}

bool read_mesh_bytes(file_format f, std::string_view name, std::string_view bytes, mesh_file& m,
                     std::string& error) {
  std::string scratch;
  if (f == file_format::stl)
    bytes = without_bom_before(bytes, "solid");
  else if (f == file_format::ply)
    bytes = without_bom_before(bytes, "ply");
  else
    bytes = plain_text(bytes, scratch);
  switch (f) {
    case file_format::medit:
      return read_medit(name, bytes, m, error);
    case file_format::off:
      return read_off(name, bytes, m, error);
    case file_format::stl:
      return read_stl(name, bytes, m, error);
    case file_format::obj:
      return read_obj(name, bytes, m, error);
    case file_format::ply:
      return read_ply(name, bytes, m, error);
    case file_format::node:
      return read_node(name, bytes, m, error);
    case file_format::xyz:
      return read_xyz(name, bytes, m, error);
    case file_format::vtu:
      return read_vtu(name, bytes, m, error);
    case file_format::msh:
      return read_msh(name, bytes, m, error);
    default:
      error = "cannot read " + std::string(name) +
              ": expected the extension .mesh, .off, .stl, .obj, .ply, .node, .ele, .xyz, .vtu "
              "or .msh";
      return false;
  }
}

bool read_mesh_file(const std::string& path, mesh_file& m, std::string& error) {
  m = mesh_file();
  const file_format f = format_of(path);
  try {
    std::string bytes;
    if (!readable(f)) return read_mesh_bytes(f, path, bytes, m, error);
    if (!read_bytes(path, bytes, error)) return false;
    if (f != file_format::ele) return read_mesh_bytes(f, path, bytes, m, error);
    // The nodes live in the .node file of the same stem.
    const std::string node_path = path.substr(0, path.size() - 3) + "node";
    std::string node_bytes, node_scratch, ele_scratch;
    unsigned base = 0;
    return read_bytes(node_path, node_bytes, error) &&
           read_node(node_path, plain_text(node_bytes, node_scratch), m, error, &base) &&
           read_ele(path, plain_text(bytes, ele_scratch), base, m, error);
  } catch (const std::bad_alloc&) {
    error = "cannot read " + path + ": out of memory";
    return false;
  }
}

bool write_mesh_file(const std::string& path, const mesh_file& m, std::string& error) {
  try {
    switch (format_of(path)) {
      case file_format::medit:
        return write_medit(path, m, error);
      case file_format::vtu:
        return write_vtu(path, m, error);
      case file_format::msh:
        return write_msh(path, m, error);
      default:
        error = "cannot write " + path + ": expected the extension .mesh, .vtu or .msh";
        return false;
    }
  } catch (const std::bad_alloc&) {
    error = "cannot write " + path + ": out of memory";
    return false;
  }
}

}  // namespace kelvo::mesh_io
