// Writes the inputs of one comparison case in every tool's format from one source, so that all
// tools read the same doubles: point clouds (.xyz, TetGen .node, qhull input) and closed
// surfaces (Medit .mesh, TetGen .poly, Gmsh .geo), the demo geometry among them, and the
// starting tet meshes of the regularisation cases (Medit .mesh, TetGen lists with facets).
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "../peers/cloud_points.h"
#include "mesh_text.h"

using bench_mesh::tables;
using bench_mesh::text_out;

namespace {

int fail(const std::string& what) {
  std::fprintf(stderr, "make_inputs: %s\n", what.c_str());
  return 1;
}

// The cloud as .xyz (one point a line), .node (0-based) and qhull's "dimension, count, points".
bool write_cloud(const std::vector<double>& xyz, const std::string& stem) {
  const std::size_t n = xyz.size() / 3;
  text_out a((stem + ".xyz").c_str()), b((stem + ".node").c_str()), c((stem + ".qh").c_str());
  b.num(n).put(" 3 0 0\n");
  c.put("3\n").num(n).put("\n");
  for (std::size_t k = 0; k < n; ++k) {
    for (unsigned i = 0; i < 3; ++i) {
      a.real(xyz[3 * k + i]).put(i < 2 ? " " : "\n");
      c.real(xyz[3 * k + i]).put(i < 2 ? " " : "\n");
    }
    b.num(k).put(" ").real(xyz[3 * k]).put(" ").real(xyz[3 * k + 1]).put(" ");
    b.real(xyz[3 * k + 2]).put("\n");
  }
  return a.close() && b.close() && c.close();
}

// Extra entities of a surface case that the peers must keep: hard edges and nodes inside a
// subdomain, and the surfaces (by triangle reference) that bound each volume, outer one first.
struct volumes {
  std::vector<std::vector<std::uint32_t>> loops;  // per volume: references of its surfaces
  double edge_size = 0.0;                         // Gmsh size at the embedded entities
};

// The surface as Medit (the reference of the checker and Gmsh's input), as a TetGen PLC and as
// a Gmsh script that fills the volumes it bounds from the boundary sizes.
bool write_surface(const tables& m, const volumes& v, const std::string& stem) {
  if (!bench_mesh::write_medit((stem + ".mesh").c_str(), m)) return false;
  // Gmsh would make its own curve and point entities from the hard edges and nodes of a Medit
  // file, apart from the ones embedded below: it gets the triangles alone.
  tables skin = m;
  skin.edges.clear();
  skin.corners.clear();
  if (!bench_mesh::write_medit((stem + ".tris.mesh").c_str(), skin)) return false;
  const std::size_t n = m.node_count();

  text_out p((stem + ".poly").c_str());
  p.num(n).put(" 3 0 0\n");
  for (std::size_t k = 0; k < n; ++k)
    p.num(k)
        .put(" ")
        .real(m.xyz[3 * k])
        .put(" ")
        .real(m.xyz[3 * k + 1])
        .put(" ")
        .real(m.xyz[3 * k + 2])
        .put("\n");
  const std::size_t nt = m.tris.size() / 3, ne = m.edges.size() / 2;
  p.num(nt + ne + m.corners.size()).put(" 1\n");
  for (std::size_t k = 0; k < nt; ++k)
    p.put("1 0 ")
        .num(m.tri_refs[k])
        .put("\n3 ")
        .num(m.tris[3 * k])
        .put(" ")
        .num(m.tris[3 * k + 1])
        .put(" ")
        .num(m.tris[3 * k + 2])
        .put("\n");
  // A facet made of one segment or one point is how a PLC carries hard edges and nodes.
  for (std::size_t k = 0; k < ne; ++k)
    p.put("1 0 0\n2 ").num(m.edges[2 * k]).put(" ").num(m.edges[2 * k + 1]).put("\n");
  for (std::uint32_t c : m.corners) p.put("1 0 0\n1 ").num(c).put("\n");
  p.put("0\n0\n");
  if (!p.close()) return false;

  const std::size_t slash = stem.find_last_of('/');
  const std::string base = slash == std::string::npos ? stem : stem.substr(slash + 1);
  text_out g((stem + ".geo").c_str());
  g.put("// Fill the volumes bounded by the triangles of ")
      .put(base)
      .put(".mesh, kept as they are.\n");
  g.put("Merge \"").put(base).put(".tris.mesh\";\n");
  // Gmsh makes one discrete surface per triangle reference, tagged with it; one loop each.
  std::uint32_t top = 0;
  for (const auto& loop : v.loops)
    for (std::uint32_t r : loop) top = std::max(top, r);
  for (std::uint32_t r = 1; r <= top; ++r)
    g.put("Surface Loop(").num(r).put(") = {").num(r).put("};\n");
  for (std::size_t k = 0; k < v.loops.size(); ++k) {
    g.put("Volume(").num(k + 1).put(") = {");
    for (std::size_t i = 0; i < v.loops[k].size(); ++i) g.put(i ? ", " : "").num(v.loops[k][i]);
    g.put("};\n");
  }
  // "Point(tag) = {x, y, z, size" of node a; the caller closes it.
  auto put_point = [&](std::size_t tag, std::uint32_t a) -> text_out& {
    return g.put("Point(")
        .num(tag)
        .put(") = {")
        .real(m.xyz[3 * a])
        .put(", ")
        .real(m.xyz[3 * a + 1])
        .put(", ")
        .real(m.xyz[3 * a + 2])
        .put(", ")
        .real(v.edge_size);
  };
  // Embedded entities get tags far above the merged ones; each hard edge stays one segment.
  for (std::size_t k = 0; k < ne; ++k) {
    for (unsigned i = 0; i < 2; ++i) {
      const std::uint32_t a = m.edges[2 * k + i];
      put_point(100000 + 2 * k + i, a).put("};\n");
    }
    g.put("Line(")
        .num(100000 + k)
        .put(") = {")
        .num(100000 + 2 * k)
        .put(", ")
        .num(100000 + 2 * k + 1)
        .put("};\nTransfinite Curve{")
        .num(100000 + k)
        .put("} = 2;\n");
    g.put("Line{").num(100000 + k).put("} In Volume{1};\n");
  }
  for (std::size_t k = 0; k < m.corners.size(); ++k) {
    const std::uint32_t a = m.corners[k];
    put_point(200000 + k, a).put("};\nPoint{").num(200000 + k).put("} In Volume{1};\n");
  }
  return g.close();
}

std::uint32_t add_node(tables& m, double x, double y, double z) {
  m.xyz.insert(m.xyz.end(), {x, y, z});
  return std::uint32_t(m.node_count() - 1);
}

// Appends triangle (a, b, c) turned so that its normal points away from the origin, which lies
// inside both star-shaped surfaces of the demo.
void add_outward(tables& m, std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t ref) {
  const double* x = m.xyz.data();
  double e1[3], e2[3], s = 0.0;
  for (unsigned i = 0; i < 3; ++i)
    e1[i] = x[3 * b + i] - x[3 * a + i], e2[i] = x[3 * c + i] - x[3 * a + i];
  for (unsigned i = 0; i < 3; ++i) {
    const unsigned j = (i + 1) % 3, k = (i + 2) % 3;
    s += (e1[j] * e2[k] - e1[k] * e2[j]) * (x[3 * a + i] + x[3 * b + i] + x[3 * c + i]);
  }
  if (s < 0.0) std::swap(b, c);
  m.tris.insert(m.tris.end(), {a, b, c});
  m.tri_refs.push_back(ref);
}

// The demo geometry of the voxfill tool, rebuilt here so that the comparison does not depend on
// the tool: a unit icosphere (three splits, reference 1) around the cube [-0.35, 0.35]^3 (4 x 4
// squares a side, reference 2), a hard edge and a hard node in the shell between them.
tables demo_geometry() {
  tables m;
  const double t = (1.0 + std::sqrt(5.0)) / 2.0;
  const double ico[12][3] = {{-1, t, 0}, {1, t, 0}, {-1, -t, 0}, {1, -t, 0},
                             {0, -1, t}, {0, 1, t}, {0, -1, -t}, {0, 1, -t},
                             {t, 0, -1}, {t, 0, 1}, {-t, 0, -1}, {-t, 0, 1}};
  for (const auto& c : ico) {
    const double r = std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]);
    add_node(m, c[0] / r, c[1] / r, c[2] / r);
  }
  std::vector<std::array<std::uint32_t, 3>> faces;
  // The icosahedron's faces: each pair of adjacent corners (edge length 2) with a common third.
  for (std::uint32_t a = 0; a < 12; ++a)
    for (std::uint32_t b = a + 1; b < 12; ++b)
      for (std::uint32_t c = b + 1; c < 12; ++c) {
        const auto near = [&](std::uint32_t i, std::uint32_t j) {
          double d = 0.0;
          for (unsigned k = 0; k < 3; ++k) d += (ico[i][k] - ico[j][k]) * (ico[i][k] - ico[j][k]);
          return d < 4.5;
        };
        if (near(a, b) && near(b, c) && near(a, c)) faces.push_back({a, b, c});
      }
  for (unsigned split = 0; split < 3; ++split) {
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::uint32_t> mid;
    const auto middle = [&](std::uint32_t a, std::uint32_t b) {
      const auto key = std::make_pair(std::min(a, b), std::max(a, b));
      const auto it = mid.find(key);
      if (it != mid.end()) return it->second;
      double p[3];
      for (unsigned k = 0; k < 3; ++k) p[k] = m.xyz[3 * a + k] + m.xyz[3 * b + k];
      const double r = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
      return mid[key] = add_node(m, p[0] / r, p[1] / r, p[2] / r);
    };
    std::vector<std::array<std::uint32_t, 3>> finer;
    for (const auto& f : faces) {
      const std::uint32_t ab = middle(f[0], f[1]), bc = middle(f[1], f[2]), ca = middle(f[2], f[0]);
      finer.push_back({f[0], ab, ca});
      finer.push_back({ab, f[1], bc});
      finer.push_back({ca, bc, f[2]});
      finer.push_back({ab, bc, ca});
    }
    faces.swap(finer);
  }
  for (const auto& f : faces) add_outward(m, f[0], f[1], f[2], 1);

  const unsigned cells = 4;
  const double h = 0.35;
  std::map<std::array<unsigned, 3>, std::uint32_t> grid;
  const auto node = [&](std::array<unsigned, 3> ijk) {
    const auto it = grid.find(ijk);
    if (it != grid.end()) return it->second;
    double p[3];
    for (unsigned k = 0; k < 3; ++k) p[k] = -h + 2.0 * h * ijk[k] / cells;
    return grid[ijk] = add_node(m, p[0], p[1], p[2]);
  };
  for (unsigned axis = 0; axis < 3; ++axis)
    for (unsigned side : {0u, cells})
      for (unsigned i = 0; i < cells; ++i)
        for (unsigned j = 0; j < cells; ++j) {
          std::array<unsigned, 3> q[4];
          const unsigned u = (axis + 1) % 3, w = (axis + 2) % 3;
          const unsigned di[4] = {0, 1, 1, 0}, dj[4] = {0, 0, 1, 1};
          std::uint32_t c[4];
          for (unsigned k = 0; k < 4; ++k) {
            q[k][axis] = side, q[k][u] = i + di[k], q[k][w] = j + dj[k];
            c[k] = node(q[k]);
          }
          add_outward(m, c[0], c[1], c[2], 2);
          add_outward(m, c[0], c[2], c[3], 2);
        }
  const std::uint32_t a = add_node(m, -0.25, 0.6, -0.2), b = add_node(m, 0.25, 0.6, 0.2);
  m.edges = {a, b};
  m.corners = {add_node(m, 0.1, -0.6, 0.15)};
  return m;
}

// Faces of the tets that one tet alone holds, turned so that their normal by the right-hand rule
// points away from that tet.
std::vector<std::uint32_t> skin_of(const tables& m) {
  static constexpr unsigned sides[4][3] = {{1, 2, 3}, {0, 2, 3}, {0, 1, 3}, {0, 1, 2}};
  std::vector<std::array<std::uint32_t, 5>> faces;  // sorted nodes, tet, side
  faces.reserve(4 * m.tet_count());
  for (std::uint32_t t = 0; t < m.tet_count(); ++t)
    for (std::uint32_t i = 0; i < 4; ++i) {
      std::array<std::uint32_t, 5> f = {m.tets[4 * t + sides[i][0]], m.tets[4 * t + sides[i][1]],
                                        m.tets[4 * t + sides[i][2]], t, i};
      std::sort(f.begin(), f.begin() + 3);
      faces.push_back(f);
    }
  std::sort(faces.begin(), faces.end());
  std::vector<std::uint32_t> skin;
  const auto at = [&](std::uint32_t v, unsigned k) { return m.xyz[3 * std::size_t(v) + k]; };
  for (std::size_t i = 0; i < faces.size();) {
    std::size_t j = i + 1;
    while (j < faces.size() && std::equal(faces[j].begin(), faces[j].begin() + 3, faces[i].begin()))
      ++j;
    if (j - i == 1) {
      const std::uint32_t t = faces[i][3], side = faces[i][4];
      std::uint32_t a = m.tets[4 * t + sides[side][0]], b = m.tets[4 * t + sides[side][1]],
                    c = m.tets[4 * t + sides[side][2]];
      const std::uint32_t d = m.tets[4 * t + side];
      double u[3], v[3], w[3];
      for (unsigned k = 0; k < 3; ++k)
        u[k] = at(b, k) - at(a, k), v[k] = at(c, k) - at(a, k), w[k] = at(d, k) - at(a, k);
      const double det = w[0] * (u[1] * v[2] - u[2] * v[1]) - w[1] * (u[0] * v[2] - u[2] * v[0]) +
                         w[2] * (u[0] * v[1] - u[1] * v[0]);
      if (det > 0.0) std::swap(b, c);  // the tet's own node must lie behind the face
      skin.insert(skin.end(), {a, b, c});
    }
    i = j;
  }
  return skin;
}

// The starting mesh of a regularisation case, from TetGen's lists: as Medit with its skin as
// triangles (the checker's reference and the Medit readers' input), and as TetGen lists again
// with one marker per skin triangle, so that `tetgen -r` keeps every one of them as a facet.
bool write_start(tables m, const std::string& stem) {
  m.tris = skin_of(m);
  m.tri_refs.assign(m.tris.size() / 3, 1);
  m.tet_refs.assign(m.tet_count(), 1);
  if (!bench_mesh::write_medit((stem + ".start.mesh").c_str(), m)) return false;
  text_out node((stem + ".start.node").c_str()), ele((stem + ".start.ele").c_str()),
      face((stem + ".start.face").c_str());
  node.num(m.node_count()).put(" 3 0 0\n");
  for (std::size_t k = 0; k < m.node_count(); ++k)
    node.num(k)
        .put(" ")
        .real(m.xyz[3 * k])
        .put(" ")
        .real(m.xyz[3 * k + 1])
        .put(" ")
        .real(m.xyz[3 * k + 2])
        .put("\n");
  ele.num(m.tet_count()).put(" 4 0\n");
  for (std::size_t t = 0; t < m.tet_count(); ++t) {
    ele.num(t);
    for (unsigned i = 0; i < 4; ++i) ele.put(" ").num(m.tets[4 * t + i]);
    ele.put("\n");
  }
  face.num(m.tris.size() / 3).put(" 1\n");
  for (std::size_t f = 0; f < m.tris.size() / 3; ++f) {
    face.num(f);
    for (unsigned i = 0; i < 3; ++i) face.put(" ").num(m.tris[3 * f + i]);
    face.put(" ").num(f + 1).put("\n");
  }
  return node.close() && ele.close() && face.close();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  if (what == "cloud" && argc == 5) {
    const std::string kind = argv[2];
    const unsigned n = unsigned(std::strtoul(argv[3], nullptr, 10));
    std::vector<double> xyz;
    if (kind == "uniform")
      xyz = bench_clouds::uniform_cloud(n);
    else if (kind == "sphere")
      xyz = bench_clouds::sphere_cloud(n);
    else if (kind == "lattice")
      xyz = bench_clouds::lattice_cloud(n);
    else
      return fail("unknown cloud " + kind);
    return write_cloud(xyz, argv[4]) ? 0 : fail(std::string("cannot write ") + argv[4]);
  }
  if (what == "surface" && argc == 4) {
    tables m;
    std::string error;
    if (!bench_mesh::read_off(argv[2], m, error)) return fail(error);
    volumes v;
    v.loops = {{1}};
    return write_surface(m, v, argv[3]) ? 0 : fail(std::string("cannot write ") + argv[3]);
  }
  if (what == "demo" && argc == 3) {
    volumes v;
    v.loops = {{1, 2}, {2}};  // the shell between the sphere and the cube, and the cube
    v.edge_size = 0.15;
    return write_surface(demo_geometry(), v, argv[2])
               ? 0
               : fail(std::string("cannot write ") + argv[2]);
  }
  if (what == "start" && argc == 4) {
    tables m;
    std::string error;
    if (!bench_mesh::read_tetgen(argv[2], m, error)) return fail(error);
    return write_start(m, argv[3]) ? 0 : fail(std::string("cannot write ") + argv[3]);
  }
  std::fprintf(stderr,
               "usage: make_inputs cloud uniform|sphere|lattice N STEM\n"
               "       make_inputs start IN.ele STEM\n"
               "       make_inputs surface IN.off STEM\n"
               "       make_inputs demo STEM\n");
  return 2;
}
