// The built-in demo: a sphere holding a cube-shaped inclusion, with a hard edge and a hard node.
#include "demo_geometry.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <vector>

namespace kelvo::voxfill_tool {

namespace {

constexpr unsigned sphere_levels = 3;  // 642 nodes, 1280 triangles
constexpr unsigned cube_cells = 4;     // 4 x 4 squares on each side of the cube
constexpr double cube_half = 0.35;

using mesh_io::mesh_file;

unsigned add_node(mesh_file& m, double x, double y, double z) {
  m.pos.insert(m.pos.end(), {x, y, z});
  return m.node_count() - 1;
}

// Appends a triangle turned so that its normal points away from the origin: both surfaces
// are star-shaped around it, so that this is outwards.
void add_outward(mesh_file& m, unsigned a, unsigned b, unsigned c, unsigned ref) {
  const double* p = m.pos.data();
  double u[3], v[3], g[3];
  for (unsigned k = 0; k < 3; ++k) {
    u[k] = p[3 * b + k] - p[3 * a + k];
    v[k] = p[3 * c + k] - p[3 * a + k];
    g[k] = p[3 * a + k] + p[3 * b + k] + p[3 * c + k];
  }
  const double n[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2],
                       u[0] * v[1] - u[1] * v[0]};
  const bool out = n[0] * g[0] + n[1] * g[1] + n[2] * g[2] > 0.0;
  m.triangles.insert(m.triangles.end(), {a, out ? b : c, out ? c : b});
  m.triangle_refs.push_back(ref);
}

// An icosahedron split `levels` times, new nodes pushed out onto the unit sphere.
void add_sphere(mesh_file& m, unsigned levels) {
  const double t = (1.0 + std::sqrt(5.0)) / 2.0, s = 1.0 / std::sqrt(1.0 + t * t);
  const double corners[12][3] = {{-1, t, 0}, {1, t, 0}, {-1, -t, 0}, {1, -t, 0},
                                 {0, -1, t}, {0, 1, t}, {0, -1, -t}, {0, 1, -t},
                                 {t, 0, -1}, {t, 0, 1}, {-t, 0, -1}, {-t, 0, 1}};
  const unsigned first = m.node_count();
  for (const auto& c : corners) add_node(m, c[0] * s, c[1] * s, c[2] * s);
  std::vector<std::array<unsigned, 3>> faces = {
      {0, 11, 5},  {0, 5, 1},  {0, 1, 7},  {0, 7, 10}, {0, 10, 11}, {1, 5, 9}, {5, 11, 4},
      {11, 10, 2}, {10, 7, 6}, {7, 1, 8},  {3, 9, 4},  {3, 4, 2},   {3, 2, 6}, {3, 6, 8},
      {3, 8, 9},   {4, 9, 5},  {2, 4, 11}, {6, 2, 10}, {8, 6, 7},   {9, 8, 1}};
  for (auto& f : faces)
    for (unsigned& v : f) v += first;
  for (unsigned level = 0; level < levels; ++level) {
    std::map<std::pair<unsigned, unsigned>, unsigned> middle;
    const auto mid = [&](unsigned a, unsigned b) {
      const auto key = std::minmax(a, b);
      const auto it = middle.find(key);
      if (it != middle.end()) return it->second;
      double p[3];
      for (unsigned k = 0; k < 3; ++k) p[k] = m.pos[3 * a + k] + m.pos[3 * b + k];
      const double r = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
      const unsigned n = add_node(m, p[0] / r, p[1] / r, p[2] / r);
      middle.emplace(key, n);
      return n;
    };
    std::vector<std::array<unsigned, 3>> finer;
    for (const auto& [a, b, c] : faces) {
      const unsigned ab = mid(a, b), bc = mid(b, c), ca = mid(c, a);
      finer.push_back({a, ab, ca});
      finer.push_back({b, bc, ab});
      finer.push_back({c, ca, bc});
      finer.push_back({ab, bc, ca});
    }
    faces.swap(finer);
  }
  for (const auto& [a, b, c] : faces) add_outward(m, a, b, c, 0);
}

// The surface of the cube [-h, h]^3, each side an n x n grid of squares split in two.
void add_cube(mesh_file& m, unsigned n, double h) {
  std::map<std::array<unsigned, 3>, unsigned> nodes;
  const auto node = [&](std::array<unsigned, 3> ijk) {
    const auto it = nodes.find(ijk);
    if (it != nodes.end()) return it->second;
    const auto x = [&](unsigned i) { return -h + 2.0 * h * i / n; };
    const unsigned v = add_node(m, x(ijk[0]), x(ijk[1]), x(ijk[2]));
    nodes.emplace(ijk, v);
    return v;
  };
  for (unsigned axis = 0; axis < 3; ++axis)
    for (unsigned side : {0u, n}) {
      const unsigned u = (axis + 1) % 3, w = (axis + 2) % 3;
      for (unsigned i = 0; i < n; ++i)
        for (unsigned j = 0; j < n; ++j) {
          std::array<unsigned, 3> p00{}, p10{}, p11{}, p01{};
          for (auto* p : {&p00, &p10, &p11, &p01}) (*p)[axis] = side;
          p00[u] = i, p00[w] = j;
          p10[u] = i + 1, p10[w] = j;
          p11[u] = i + 1, p11[w] = j + 1;
          p01[u] = i, p01[w] = j + 1;
          const unsigned a = node(p00), b = node(p10), c = node(p11), d = node(p01);
          add_outward(m, a, b, c, 1);
          add_outward(m, a, c, d, 1);
        }
    }
}

// What came out, counted rather than assumed: the boundary triangles, the hard edge and node
// that the mesh holds, and the tets and volume of each subdomain.
void print_demo_counts(const mesher::data_type& d) {
  const unsigned faces = d.connectB.cols, edges = d.connectE.cols;
  const unsigned nodes = d.isolated_nodes.size;
  unsigned nodes_held = 0;  // missing_nodes lists every hard node lost, surface nodes too
  for (unsigned v : d.isolated_nodes)
    nodes_held +=
        std::find(d.missing_nodes.begin(), d.missing_nodes.end(), v) == d.missing_nodes.end();
  std::printf(
      "Demo: %u of %u boundary triangles, %u of %u hard edges and %u of %u hard nodes in the "
      "mesh\n",
      faces - std::min(faces, d.missing_faces.size), faces,
      edges - std::min(edges, d.missing_edges.size), edges, nodes_held, nodes);
  std::vector<unsigned> tets(d.subdomains, 0u);
  std::vector<double> volume(d.subdomains, 0.0);
  for (unsigned t = 0; t < d.connectM.cols; ++t) {
    const unsigned c = d.colors[t];
    if (c >= d.subdomains) continue;
    const double* p[4];
    for (unsigned k = 0; k < 4; ++k) p[k] = d.pos.col(d.connectM(k, t));
    double a[3], b[3], e[3];
    for (unsigned k = 0; k < 3; ++k) {
      a[k] = p[0][k] - p[3][k];
      b[k] = p[1][k] - p[3][k];
      e[k] = p[2][k] - p[3][k];
    }
    ++tets[c];
    volume[c] += (a[0] * (b[1] * e[2] - b[2] * e[1]) - a[1] * (b[0] * e[2] - b[2] * e[0]) +
                  a[2] * (b[0] * e[1] - b[1] * e[0])) /
                 6.0;
  }
  std::printf("Demo: %u subdomain%s", d.subdomains, d.subdomains == 1 ? "" : "s");
  for (unsigned c = 0; c < d.subdomains; ++c)
    std::printf("%s colour %u: %u tets, volume %.6g", c ? ";" : ":", c, tets[c], volume[c]);
  std::printf("\n");
}

}  // namespace

mesh_file demo_geometry() {
  mesh_file m;
  add_sphere(m, sphere_levels);
  add_cube(m, cube_cells, cube_half);
  // In the shell between the cube and the sphere, clear of both.
  const unsigned a = add_node(m, -0.25, 0.6, -0.2), b = add_node(m, 0.25, 0.6, 0.2);
  m.edges = {a, b};
  m.hard_nodes = {add_node(m, 0.1, -0.6, 0.15)};
  return m;
}

int run_demo(mesher::settings_type settings, const job_options& o) {
  namespace fs = std::filesystem;
  const std::string folder = o.output.empty() ? "." : o.output;
  std::error_code ec;
  fs::create_directories(folder, ec);
  if (!fs::is_directory(folder, ec))
    return fail(exit_bad_input, "cannot make the folder " + folder);

  const mesh_io::mesh_file g = demo_geometry();
  if (!o.quiet)
    std::printf(
        "Demo input: a sphere holding a cube-shaped inclusion (two subdomains), a hard edge and "
        "a hard node inside: %u nodes, %u triangles\n",
        g.node_count(), g.triangle_count());
  mesher::data_type data;
  if (!fill_record(g, 0, data)) return fail(exit_library_error, "out of memory");
  settings.mode = 0;
  const std::string base = (fs::path(folder) / "demo").string();
  const int status = run_record(settings, data, o, {base + ".vtu", base + ".mesh"});
  if (!o.quiet && data.tet_count != 0) print_demo_counts(data);
  return status;
}

}  // namespace kelvo::voxfill_tool
