// The common judge of the comparison: reads the tets that a tool wrote (Medit .mesh, TetGen
// .ele with its .node, Gmsh .msh 2.2 or 4.1 ASCII, or qhull's vertex lists with the input
// points) and prints one JSON line: counts, shape quality, dihedral angles, volume, whether the
// mesh is conforming, and how much of a reference surface it kept (to 1e-9 of its box, and bit
// for bit).
// With --same-as, also how many of the other mesh's tets away from its hull this one has.
// Usage: mesh_check MESH [--points IN.xyz] [--surface REF.mesh] [--same-as OTHER.mesh]
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <string>
#include <unordered_map>
#include <vector>

#include "mesh_text.h"

using bench_mesh::scanner;
using bench_mesh::tables;

namespace {

bool ends_with(const std::string& s, const char* tail) {
  const std::size_t n = std::strlen(tail);
  return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

// Skips tokens up to and including `end`.
bool skip_section(scanner& s, std::string_view end) {
  for (std::string_view t = s.token(); !t.empty(); t = s.token())
    if (t == end) return true;
  return false;
}

// Nodes per element of the Gmsh element types that its meshes hold; 0 for the others.
unsigned gmsh_nodes(unsigned type) {
  switch (type) {
    case 1:
      return 2;
    case 2:
      return 3;
    case 3:
      return 4;
    case 4:
      return 4;
    case 5:
      return 8;
    case 6:
      return 6;
    case 7:
      return 5;
    case 15:
      return 1;
    default:
      return 0;
  }
}

// Gmsh ASCII, format 2.2 or 4.1: the nodes and the four-node tets; node tags may be sparse.
bool read_gmsh(const std::string& path, tables& m, std::string& error) {
  std::string text;
  if (!bench_mesh::slurp(path.c_str(), text)) return error = "cannot read " + path, false;
  scanner s(text);
  double version = 0.0;
  std::vector<std::uint32_t> index;  // node tag -> position in m.xyz
  const auto bad = [&](const char* what) { return error = path + ": " + what, false; };
  const auto node_at = [&](std::size_t tag, std::uint32_t& v) {
    if (tag >= index.size() || index[tag] == 0xFFFFFFFFu) return false;
    v = index[tag];
    return true;
  };
  for (std::string_view key = s.token(); !key.empty(); key = s.token()) {
    if (key == "$MeshFormat") {
      int binary = 1, size = 0;
      if (!s.number(version) || !s.integer(binary) || !s.integer(size) || binary != 0)
        return bad("only ASCII .msh is read");
      if (!skip_section(s, "$EndMeshFormat")) return bad("no $EndMeshFormat");
    } else if (key == "$Nodes" && version < 3.0) {
      std::size_t n = 0;
      if (!s.integer(n)) return bad("bad $Nodes");
      std::vector<std::size_t> tags(n);
      m.xyz.resize(3 * n);
      for (std::size_t k = 0; k < n; ++k) {
        if (!s.integer(tags[k])) return bad("bad node");
        for (unsigned i = 0; i < 3; ++i)
          if (!s.number(m.xyz[3 * k + i])) return bad("bad node");
      }
      index.assign(*std::max_element(tags.begin(), tags.end()) + 1, 0xFFFFFFFFu);
      for (std::size_t k = 0; k < n; ++k) index[tags[k]] = std::uint32_t(k);
      if (s.token() != "$EndNodes") return bad("no $EndNodes");
    } else if (key == "$Nodes") {
      std::size_t blocks = 0, n = 0, lo = 0, hi = 0;
      if (!s.integer(blocks) || !s.integer(n) || !s.integer(lo) || !s.integer(hi))
        return bad("bad $Nodes");
      index.assign(hi + 1, 0xFFFFFFFFu);
      m.xyz.reserve(3 * n);
      for (std::size_t b = 0; b < blocks; ++b) {
        int dim = 0, tag = 0, parametric = 0;
        std::size_t count = 0;
        if (!s.integer(dim) || !s.integer(tag) || !s.integer(parametric) || !s.integer(count))
          return bad("bad node block");
        const std::size_t base = m.xyz.size() / 3;
        for (std::size_t k = 0; k < count; ++k) {
          std::size_t t = 0;
          if (!s.integer(t) || t > hi) return bad("bad node tag");
          index[t] = std::uint32_t(base + k);
        }
        const int extra = parametric && (dim == 1 || dim == 2) ? dim : 0;
        for (std::size_t k = 0; k < count; ++k) {
          double x[3], skip;
          if (!s.number(x[0]) || !s.number(x[1]) || !s.number(x[2])) return bad("bad node");
          m.xyz.insert(m.xyz.end(), x, x + 3);
          for (int i = 0; i < extra; ++i)
            if (!s.number(skip)) return bad("bad node");
        }
      }
      if (s.token() != "$EndNodes") return bad("no $EndNodes");
    } else if (key == "$Elements" && version < 3.0) {
      std::size_t n = 0;
      if (!s.integer(n)) return bad("bad $Elements");
      for (std::size_t k = 0; k < n; ++k) {
        std::size_t tag = 0, tag_count = 0, skip = 0, v = 0;
        unsigned type = 0;
        if (!s.integer(tag) || !s.integer(type) || !s.integer(tag_count)) return bad("bad element");
        for (std::size_t i = 0; i < tag_count; ++i)
          if (!s.integer(skip)) return bad("bad element");
        const unsigned per = gmsh_nodes(type);
        if (per == 0) return bad("unknown element type");
        for (unsigned i = 0; i < per; ++i) {
          std::uint32_t p = 0;
          if (!s.integer(v) || !node_at(v, p)) return bad("bad element node");
          if (type == 4) m.tets.push_back(p);
        }
      }
      if (s.token() != "$EndElements") return bad("no $EndElements");
    } else if (key == "$Elements") {
      std::size_t blocks = 0, n = 0, lo = 0, hi = 0;
      if (!s.integer(blocks) || !s.integer(n) || !s.integer(lo) || !s.integer(hi))
        return bad("bad $Elements");
      for (std::size_t b = 0; b < blocks; ++b) {
        int dim = 0, tag = 0;
        unsigned type = 0;
        std::size_t count = 0;
        if (!s.integer(dim) || !s.integer(tag) || !s.integer(type) || !s.integer(count))
          return bad("bad element block");
        const unsigned per = gmsh_nodes(type);
        if (per == 0) return bad("unknown element type");
        if (type == 4) m.tets.reserve(m.tets.size() + 4 * count);
        for (std::size_t k = 0; k < count; ++k) {
          std::size_t t = 0, v = 0;
          if (!s.integer(t)) return bad("bad element");
          for (unsigned i = 0; i < per; ++i) {
            std::uint32_t p = 0;
            if (!s.integer(v) || !node_at(v, p)) return bad("bad element node");
            if (type == 4) m.tets.push_back(p);
          }
        }
      }
      if (s.token() != "$EndElements") return bad("no $EndElements");
    } else if (key.size() > 1 && key[0] == '$') {
      if (!skip_section(s, "$End" + std::string(key.substr(1)))) return bad("unclosed section");
    } else {
      return bad("unexpected text");
    }
  }
  return true;
}

// qhull's "i" output: the count, then four 0-based point numbers a tet.
bool read_qhull(const std::string& path, tables& m, std::string& error) {
  std::string text;
  if (!bench_mesh::slurp(path.c_str(), text)) return error = "cannot read " + path, false;
  scanner s(text);
  std::size_t n = 0;
  if (!s.integer(n)) return error = path + ": no count", false;
  m.tets.resize(4 * n);
  for (std::uint32_t& v : m.tets)
    if (!s.integer(v)) return error = path + ": bad tet", false;
  return true;
}

// Sorts 64-bit keys of at most `bits` significant bits, 16 bits a pass.
void radix_sort(std::vector<std::uint64_t>& a, unsigned bits) {
  std::vector<std::uint64_t> b(a.size());
  std::vector<std::size_t> count(1 << 16);
  for (unsigned shift = 0; shift < bits; shift += 16) {
    std::fill(count.begin(), count.end(), 0);
    for (std::uint64_t x : a) ++count[(x >> shift) & 0xFFFF];
    std::size_t sum = 0;
    for (std::size_t& c : count) {
      const std::size_t k = c;
      c = sum;
      sum += k;
    }
    for (std::uint64_t x : a) b[count[(x >> shift) & 0xFFFF]++] = x;
    a.swap(b);
  }
}

// Faces of the tets as sorted node triples packed in one key, sorted; the packing needs fewer
// than 2^21 nodes (the largest case has about 10^6).
struct face_table {
  std::vector<std::uint64_t> keys;
  static std::uint64_t key(std::uint32_t a, std::uint32_t b, std::uint32_t c) {
    if (a > b) std::swap(a, b);
    if (b > c) std::swap(b, c);
    if (a > b) std::swap(a, b);
    return (std::uint64_t(a) << 42) | (std::uint64_t(b) << 21) | c;
  }
  bool has(std::uint64_t k) const { return std::binary_search(keys.begin(), keys.end(), k); }
};

// Tet faces opposite each node, in no particular turn.
constexpr unsigned face_nodes[4][3] = {{1, 2, 3}, {0, 2, 3}, {0, 1, 3}, {0, 1, 2}};

struct figures {
  std::size_t tets = 0, nodes = 0, nodes_used = 0, bad_indices = 0;
  std::size_t positive = 0, negative = 0, flat = 0;
  int sign = 1;
  double q_min = 2.0, q_sum = 0.0, dihedral_min = 180.0, dihedral_max = 0.0, volume = 0.0;
  std::size_t q_low = 0;
  std::size_t boundary_faces = 0, interior_faces = 0, faces_over_two = 0, open_edges = 0;
  std::size_t ref_faces = 0, ref_faces_kept = 0, ref_faces_exact = 0, ref_edges = 0,
              ref_edges_kept = 0;
  std::size_t ref_nodes = 0, ref_nodes_kept = 0, ref_unmatched = 0;
  double ref_volume = 0.0;
};

void sub(const double* a, const double* b, double* r) {
  for (unsigned i = 0; i < 3; ++i) r[i] = a[i] - b[i];
}
void cross(const double* a, const double* b, double* r) {
  r[0] = a[1] * b[2] - a[2] * b[1];
  r[1] = a[2] * b[0] - a[0] * b[2];
  r[2] = a[0] * b[1] - a[1] * b[0];
}
double dot(const double* a, const double* b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

// Signed volume of tet (p0, p1, p2, p3) times 6, positive when (p0 - p3) . ((p1 - p3) x
// (p2 - p3)) > 0: the library's own orientation.
double volume6(const double* p[4]) {
  double a[3], b[3], c[3], bc[3];
  sub(p[0], p[3], a), sub(p[1], p[3], b), sub(p[2], p[3], c);
  cross(b, c, bc);
  return dot(a, bc);
}

// Shape quality 2 sqrt(6) r / h with r = 3 V / (sum of face areas) and h the longest edge, signed
// by the volume; dihedral angles from the faces' outward normals.
void measure_tet(const double* p[4], double v6, double& q, double& dmin, double& dmax) {
  double area = 0.0, h2 = 0.0, n[4][3], len[4];
  for (unsigned f = 0; f < 4; ++f) {
    double e1[3], e2[3];
    const double* a = p[face_nodes[f][0]];
    sub(p[face_nodes[f][1]], a, e1), sub(p[face_nodes[f][2]], a, e2);
    cross(e1, e2, n[f]);
    double away[3];
    sub(p[f], a, away);
    if (dot(n[f], away) > 0.0)
      for (double& x : n[f]) x = -x;
    len[f] = std::sqrt(dot(n[f], n[f]));
    area += 0.5 * len[f];
  }
  for (unsigned i = 0; i < 4; ++i)
    for (unsigned j = i + 1; j < 4; ++j) {
      double e[3];
      sub(p[i], p[j], e);
      h2 = std::max(h2, dot(e, e));
    }
  const double d = area * std::sqrt(h2);
  q = d > 0.0 ? 2.0 * std::sqrt(6.0) * (0.5 * v6) / d : 0.0;  // 3 V = v6 / 2
  dmin = 180.0, dmax = 0.0;
  for (unsigned i = 0; i < 4; ++i)
    for (unsigned j = i + 1; j < 4; ++j) {
      if (!(len[i] > 0.0 && len[j] > 0.0)) {
        dmin = 0.0, dmax = 180.0;
        continue;
      }
      const double c = std::clamp(-dot(n[i], n[j]) / (len[i] * len[j]), -1.0, 1.0);
      const double angle = std::acos(c) * (180.0 / std::numbers::pi);
      dmin = std::min(dmin, angle), dmax = std::max(dmax, angle);
    }
}

// Hash of a point by the bits of its coordinates, for matching nodes exactly.
struct coord_hash {
  std::size_t operator()(const std::array<double, 3>& p) const {
    std::uint64_t h = 1469598103934665603ull, b;
    for (double x : p) {
      std::memcpy(&b, &x, sizeof b);
      h = (h ^ b) * 1099511628211ull;
    }
    return std::size_t(h ^ (h >> 29));
  }
};

// Matches each node of the reference to the mesh node at the same place (to 1e-9 of the box),
// one that a tet holds first, 0xFFFFFFFF when there is none.
std::vector<std::uint32_t> match_nodes(const tables& ref, const tables& m,
                                       const std::vector<char>& used) {
  double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
  for (std::size_t k = 0; k < ref.node_count(); ++k)
    for (unsigned i = 0; i < 3; ++i)
      lo[i] = std::min(lo[i], ref.xyz[3 * k + i]), hi[i] = std::max(hi[i], ref.xyz[3 * k + i]);
  double span = 0.0;
  for (unsigned i = 0; i < 3; ++i) span = std::max(span, hi[i] - lo[i]);
  const double cell = std::max(span, 1e-300) * 1e-9;
  const auto cell_key = [&](const double* x, int dx, int dy, int dz) {
    const std::int64_t i = std::int64_t(std::floor(x[0] / cell)) + dx;
    const std::int64_t j = std::int64_t(std::floor(x[1] / cell)) + dy;
    const std::int64_t k = std::int64_t(std::floor(x[2] / cell)) + dz;
    return std::uint64_t(i * 73856093) ^ std::uint64_t(j * 19349663) ^ std::uint64_t(k * 83492791);
  };
  std::unordered_map<std::uint64_t, std::vector<std::uint32_t>> grid;
  for (std::size_t k = 0; k < m.node_count(); ++k)
    grid[cell_key(&m.xyz[3 * k], 0, 0, 0)].push_back(std::uint32_t(k));
  std::vector<std::uint32_t> to(ref.node_count(), 0xFFFFFFFFu);
  for (std::size_t k = 0; k < ref.node_count(); ++k) {
    const double* x = &ref.xyz[3 * k];
    for (int dx = -1; dx <= 1 && (to[k] == 0xFFFFFFFFu || !used[to[k]]); ++dx)
      for (int dy = -1; dy <= 1; ++dy)
        for (int dz = -1; dz <= 1; ++dz) {
          const auto it = grid.find(cell_key(x, dx, dy, dz));
          if (it == grid.end()) continue;
          for (std::uint32_t v : it->second) {
            const double* y = &m.xyz[3 * std::size_t(v)];
            if (std::abs(x[0] - y[0]) <= cell && std::abs(x[1] - y[1]) <= cell &&
                std::abs(x[2] - y[2]) <= cell && (to[k] == 0xFFFFFFFFu || !used[to[k]]))
              to[k] = v;
          }
        }
  }
  return to;
}

void check(const tables& m, const tables* ref, figures& f) {
  f.tets = m.tet_count();
  f.nodes = m.node_count();
  std::vector<char> used(f.nodes, 0);
  for (std::uint32_t v : m.tets) {
    if (v >= f.nodes)
      ++f.bad_indices;
    else
      used[v] = 1;
  }
  f.nodes_used = std::size_t(std::count(used.begin(), used.end(), 1));
  if (f.bad_indices) return;

  // The tool's own turn is the one most of its tets have; the others are inverted or flat.
  std::vector<double> v6(f.tets);
  for (std::size_t t = 0; t < f.tets; ++t) {
    const double* p[4];
    for (unsigned i = 0; i < 4; ++i) p[i] = &m.xyz[3 * std::size_t(m.tets[4 * t + i])];
    v6[t] = volume6(p);
    if (v6[t] > 0.0)
      ++f.positive;
    else if (v6[t] < 0.0)
      ++f.negative;
    else
      ++f.flat;
  }
  f.sign = f.negative > f.positive ? -1 : 1;
  for (std::size_t t = 0; t < f.tets; ++t) {
    const double* p[4];
    for (unsigned i = 0; i < 4; ++i) p[i] = &m.xyz[3 * std::size_t(m.tets[4 * t + i])];
    double q, dmin, dmax;
    measure_tet(p, f.sign * v6[t], q, dmin, dmax);
    f.q_min = std::min(f.q_min, q);
    f.q_sum += q;
    if (q < 0.1) ++f.q_low;
    f.dihedral_min = std::min(f.dihedral_min, dmin);
    f.dihedral_max = std::max(f.dihedral_max, dmax);
    f.volume += f.sign * v6[t] / 6.0;
  }

  face_table faces;
  faces.keys.reserve(4 * f.tets);
  for (std::size_t t = 0; t < f.tets; ++t)
    for (const auto& fn : face_nodes)
      faces.keys.push_back(
          face_table::key(m.tets[4 * t + fn[0]], m.tets[4 * t + fn[1]], m.tets[4 * t + fn[2]]));
  radix_sort(faces.keys, 64);
  std::vector<std::uint64_t> boundary_edges;
  for (std::size_t i = 0; i < faces.keys.size();) {
    std::size_t j = i + 1;
    while (j < faces.keys.size() && faces.keys[j] == faces.keys[i]) ++j;
    if (j - i == 1) {
      ++f.boundary_faces;
      const std::uint64_t k = faces.keys[i], mask = (1u << 21) - 1;
      const std::uint64_t a = k >> 42, b = (k >> 21) & mask, c = k & mask;
      boundary_edges.insert(boundary_edges.end(), {a << 21 | b, a << 21 | c, b << 21 | c});
    } else if (j - i == 2) {
      ++f.interior_faces;
    } else {
      ++f.faces_over_two;
    }
    i = j;
  }
  // The boundary of a conforming mesh is closed: each of its edges in exactly two of its faces.
  std::sort(boundary_edges.begin(), boundary_edges.end());
  for (std::size_t i = 0; i < boundary_edges.size();) {
    std::size_t j = i + 1;
    while (j < boundary_edges.size() && boundary_edges[j] == boundary_edges[i]) ++j;
    if (j - i != 2) ++f.open_edges;
    i = j;
  }

  if (!ref) return;
  const std::vector<std::uint32_t> to = match_nodes(*ref, m, used);
  f.ref_unmatched = std::size_t(std::count(to.begin(), to.end(), 0xFFFFFFFFu));
  f.ref_faces = ref->tris.size() / 3;
  // Kept bit for bit: the three corners at exactly the reference's coordinates, and the face
  // in the mesh.
  std::unordered_map<std::array<double, 3>, std::uint32_t, coord_hash> at;
  at.reserve(f.nodes);
  for (std::size_t v = 0; v < f.nodes; ++v)
    if (used[v])
      at.emplace(std::array<double, 3>{m.xyz[3 * v], m.xyz[3 * v + 1], m.xyz[3 * v + 2]},
                 std::uint32_t(v));
  const auto exact = [&](std::uint32_t r, std::uint32_t& v) {
    const auto it = at.find({ref->xyz[3 * std::size_t(r)], ref->xyz[3 * std::size_t(r) + 1],
                             ref->xyz[3 * std::size_t(r) + 2]});
    return it != at.end() && (v = it->second, true);
  };
  for (std::size_t k = 0; k < f.ref_faces; ++k) {
    std::uint32_t e[3];
    if (exact(ref->tris[3 * k], e[0]) && exact(ref->tris[3 * k + 1], e[1]) &&
        exact(ref->tris[3 * k + 2], e[2]) && faces.has(face_table::key(e[0], e[1], e[2])))
      ++f.ref_faces_exact;
    const std::uint32_t a = to[ref->tris[3 * k]], b = to[ref->tris[3 * k + 1]],
                        c = to[ref->tris[3 * k + 2]];
    if (a != 0xFFFFFFFFu && b != 0xFFFFFFFFu && c != 0xFFFFFFFFu &&
        faces.has(face_table::key(a, b, c)))
      ++f.ref_faces_kept;
    const double* p[4] = {&ref->xyz[3 * std::size_t(ref->tris[3 * k])],
                          &ref->xyz[3 * std::size_t(ref->tris[3 * k + 1])],
                          &ref->xyz[3 * std::size_t(ref->tris[3 * k + 2])], nullptr};
    double bc[3];
    cross(p[1], p[2], bc);
    // The outer surface (reference 1) bounds the whole volume; the others lie inside it.
    if (ref->tri_refs.empty() || ref->tri_refs[k] == 1) f.ref_volume += dot(p[0], bc) / 6.0;
  }
  f.ref_edges = ref->edges.size() / 2;
  if (f.ref_edges) {
    std::vector<std::uint64_t> wanted;
    for (std::size_t k = 0; k < f.ref_edges; ++k) {
      std::uint64_t a = to[ref->edges[2 * k]], b = to[ref->edges[2 * k + 1]];
      if (a > b) std::swap(a, b);
      if (b != 0xFFFFFFFFu) wanted.push_back(a << 32 | b);
    }
    std::sort(wanted.begin(), wanted.end());
    std::vector<char> seen(wanted.size(), 0);
    for (std::size_t t = 0; t < f.tets; ++t)
      for (unsigned i = 0; i < 4; ++i)
        for (unsigned j = i + 1; j < 4; ++j) {
          std::uint64_t a = m.tets[4 * t + i], b = m.tets[4 * t + j];
          if (a > b) std::swap(a, b);
          const auto it = std::lower_bound(wanted.begin(), wanted.end(), a << 32 | b);
          if (it != wanted.end() && *it == (a << 32 | b))
            seen[std::size_t(it - wanted.begin())] = 1;
        }
    f.ref_edges_kept = std::size_t(std::count(seen.begin(), seen.end(), 1));
  }
  f.ref_nodes = ref->corners.size();
  for (std::uint32_t c : ref->corners)
    if (to[c] != 0xFFFFFFFFu && used[to[c]]) ++f.ref_nodes_kept;
}

// Tets of `m` against those of `ref` away from ref's hull (no node on a face that only one tet
// of ref holds). Nodes are matched by their coordinates, so the two meshes may number them
// differently. `interior`: such tets of ref; `missing`: of those, the ones m lacks; `extra`: tets
// of m with no node on ref's hull that ref lacks.
struct same_figures {
  std::size_t interior = 0, missing = 0, extra = 0, unmatched_nodes = 0;
};

same_figures same_as(const tables& m, const tables& ref) {
  same_figures s;
  std::unordered_map<std::array<double, 3>, std::uint32_t, coord_hash> index;
  index.reserve(m.node_count());
  for (std::size_t n = 0; n < m.node_count(); ++n)
    index.emplace(std::array<double, 3>{m.xyz[3 * n], m.xyz[3 * n + 1], m.xyz[3 * n + 2]},
                  std::uint32_t(n));
  std::vector<std::uint32_t> to(ref.node_count(), 0xFFFFFFFFu);
  for (std::size_t n = 0; n < ref.node_count(); ++n) {
    auto it = index.find({ref.xyz[3 * n], ref.xyz[3 * n + 1], ref.xyz[3 * n + 2]});
    if (it == index.end())
      ++s.unmatched_nodes;
    else
      to[n] = it->second;
  }
  // ref's hull nodes, in m's numbering: nodes of faces held by one tet of ref.
  std::vector<char> hull(m.node_count(), 0);
  {
    std::unordered_map<std::uint64_t, unsigned> faces;
    faces.reserve(2 * ref.tets.size());
    auto face_id = [](std::uint32_t a, std::uint32_t b, std::uint32_t c) {
      std::uint32_t f[3] = {a, b, c};
      std::sort(f, f + 3);
      return (std::uint64_t(f[0]) << 42) | (std::uint64_t(f[1]) << 21) | f[2];
    };
    for (std::size_t t = 0; t < ref.tet_count(); ++t) {
      const std::uint32_t* n = &ref.tets[4 * t];
      for (unsigned i = 0; i < 4; ++i)
        ++faces[face_id(n[(i + 1) % 4], n[(i + 2) % 4], n[(i + 3) % 4])];
    }
    for (const auto& [f, count] : faces) {
      if (count != 1) continue;
      for (unsigned k = 0; k < 3; ++k) {
        const std::uint32_t n = std::uint32_t(f >> (42 - 21 * k)) & ((1u << 21) - 1);
        if (n < to.size() && to[n] != 0xFFFFFFFFu) hull[to[n]] = 1;
      }
    }
  }
  auto key = [](std::array<std::uint32_t, 4> q) {
    std::sort(q.begin(), q.end());
    return (std::uint64_t(q[0]) << 42 | std::uint64_t(q[1]) << 21 | q[2]) * 0x9E3779B97F4A7C15ull ^
           q[3];
  };
  auto away = [&](const std::array<std::uint32_t, 4>& q) {
    for (std::uint32_t n : q)
      if (n == 0xFFFFFFFFu || n >= hull.size() || hull[n]) return false;
    return true;
  };
  std::unordered_map<std::uint64_t, std::array<std::uint32_t, 4>> ref_tets;
  ref_tets.reserve(ref.tet_count());
  for (std::size_t t = 0; t < ref.tet_count(); ++t) {
    std::array<std::uint32_t, 4> q;
    for (unsigned i = 0; i < 4; ++i) q[i] = to[ref.tets[4 * t + i]];
    if (!away(q)) continue;
    std::sort(q.begin(), q.end());
    ref_tets.emplace(key(q), q);
  }
  s.interior = ref_tets.size();
  std::size_t found = 0;
  for (std::size_t t = 0; t < m.tet_count(); ++t) {
    std::array<std::uint32_t, 4> q = {m.tets[4 * t], m.tets[4 * t + 1], m.tets[4 * t + 2],
                                      m.tets[4 * t + 3]};
    if (!away(q)) continue;
    std::sort(q.begin(), q.end());
    auto it = ref_tets.find(key(q));
    if (it != ref_tets.end() && it->second == q)
      ++found;
    else
      ++s.extra;
  }
  s.missing = s.interior - found;
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  std::string path, points, surface, other;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--points") == 0 && i + 1 < argc)
      points = argv[++i];
    else if (std::strcmp(argv[i], "--same-as") == 0 && i + 1 < argc)
      other = argv[++i];
    else if (std::strcmp(argv[i], "--surface") == 0 && i + 1 < argc)
      surface = argv[++i];
    else if (path.empty() && argv[i][0] != '-')
      path = argv[i];
    else
      path.clear(), i = argc;
  }
  if (path.empty()) {
    std::fprintf(stderr,
                 "usage: %s MESH [--points IN.xyz] [--surface REF.mesh] [--same-as M.mesh]\n",
                 argv[0]);
    return 2;
  }
  const auto t0 = std::chrono::steady_clock::now();
  tables m, ref;
  std::string error;
  bool ok = false;
  if (ends_with(path, ".mesh"))
    ok = bench_mesh::read_medit(path.c_str(), m, error);
  else if (ends_with(path, ".ele"))
    ok = bench_mesh::read_tetgen(path, m, error);
  else if (ends_with(path, ".msh"))
    ok = read_gmsh(path, m, error);
  else if (ends_with(path, ".qhull"))
    ok = !points.empty() && bench_mesh::read_xyz(points.c_str(), m.xyz, error) &&
         read_qhull(path, m, error);
  else
    error = "unknown format: " + path;
  if (ok && !surface.empty()) ok = bench_mesh::read_medit(surface.c_str(), ref, error);
  tables twin;
  if (ok && !other.empty()) ok = bench_mesh::read_medit(other.c_str(), twin, error);
  if (ok && m.node_count() >= (std::size_t(1) << 21)) ok = false, error = "too many nodes";
  if (!ok) {
    std::printf("{\"error\": \"%s\"}\n", error.empty() ? "unreadable" : error.c_str());
    return 1;
  }
  figures f;
  check(m, surface.empty() ? nullptr : &ref, f);
  const std::size_t inverted = f.sign > 0 ? f.negative + f.flat : f.positive + f.flat;
  const bool conforming = f.bad_indices == 0 && f.tets > 0 && inverted == 0 &&
                          f.faces_over_two == 0 && f.open_edges == 0;
  const same_figures same = other.empty() ? same_figures{} : same_as(m, twin);
  const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  if (!other.empty())
    std::printf(
        "{\"same_interior\": %zu, \"same_missing\": %zu, \"same_extra\": %zu, "
        "\"same_unmatched_nodes\": %zu, ",
        same.interior, same.missing, same.extra, same.unmatched_nodes);
  else
    std::printf("{");
  std::printf(
      "\"tets\": %zu, \"nodes\": %zu, \"nodes_used\": %zu, \"bad_indices\": %zu, "
      "\"orientation\": %d, \"inverted\": %zu, \"q_min\": %.6g, \"q_mean\": %.6g, "
      "\"q_below_0_1\": %zu, \"dihedral_min\": %.4g, \"dihedral_max\": %.4g, \"volume\": %.10g, "
      "\"boundary_faces\": %zu, \"interior_faces\": %zu, \"faces_over_two\": %zu, "
      "\"open_edges\": %zu, \"conforming\": %s, \"ref_faces\": %zu, \"ref_faces_kept\": %zu, "
      "\"ref_faces_exact\": %zu, "
      "\"ref_edges\": %zu, \"ref_edges_kept\": %zu, \"ref_nodes\": %zu, \"ref_nodes_kept\": %zu, "
      "\"ref_unmatched\": %zu, \"ref_points\": %zu, \"ref_volume\": %.10g, "
      "\"seconds\": %.3f}\n",
      f.tets, f.nodes, f.nodes_used, f.bad_indices, f.sign, inverted, f.tets ? f.q_min : 0.0,
      f.tets ? f.q_sum / double(f.tets) : 0.0, f.q_low, f.tets ? f.dihedral_min : 0.0,
      f.tets ? f.dihedral_max : 0.0, f.volume, f.boundary_faces, f.interior_faces, f.faces_over_two,
      f.open_edges, conforming ? "true" : "false", f.ref_faces, f.ref_faces_kept, f.ref_faces_exact,
      f.ref_edges, f.ref_edges_kept, f.ref_nodes, f.ref_nodes_kept, f.ref_unmatched,
      surface.empty() ? std::size_t(0) : ref.node_count(), f.ref_volume, secs);
  return 0;
}
