// voxfill info: counts, volume and quality histogram of a mesh file.
#include "mesh_info.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "job.h"
#include "mesh_io/mesh_file.h"

namespace kelvo::voxfill_tool {

namespace {

using mesh_io::mesh_file;

void print_tets(const mesh_file& m) {
  std::vector<unsigned> colours = m.tet_refs;
  std::sort(colours.begin(), colours.end());
  colours.erase(std::unique(colours.begin(), colours.end()), colours.end());
  std::vector<unsigned char> used(m.node_count(), 0);
  for (unsigned v : m.tets) used[v] = 1;
  std::printf("Nodes in tets   : %u\n", unsigned(std::count(used.begin(), used.end(), 1)));
  std::printf("Subdomains      : %u", colours.empty() ? 1u : unsigned(colours.size()));
  if (!colours.empty()) {
    std::printf(" (colours");
    for (std::size_t i = 0; i < colours.size() && i < 8; ++i) std::printf(" %u", colours[i]);
    std::printf(colours.size() > 8 ? " ...)" : ")");
  }
  std::printf("\n");

  const double* x = m.pos.data();
  double volume = 0.0;
  for (unsigned t = 0; t < m.tet_count(); ++t) {
    const unsigned* v = &m.tets[4 * t];
    volume += mesh_io::tet_volume(x + 3 * v[0], x + 3 * v[1], x + 3 * v[2], x + 3 * v[3]);
  }
  const std::vector<double> q = mesh_io::shape_qualities(m);
  double lo = q[0], hi = q[0], sum = 0.0;
  for (double v : q) {
    lo = std::min(lo, v);
    hi = std::max(hi, v);
    sum += v;
  }
  std::printf("Volume          : %E\n", volume);
  std::printf("Quality         : min %.4f, mean %.4f, max %.4f\n", lo, sum / double(q.size()), hi);

  // The bins of the library's report, and one more below 0 for inverted tets.
  static constexpr double bounds[] = {0, 0.01, 0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 0.8, 0.9, 1.0};
  constexpr unsigned bins = std::size(bounds) - 1;
  std::array<unsigned, bins> hits{};
  unsigned below = 0;
  for (double v : q) {
    if (v < 0.0) {
      ++below;
      continue;
    }
    unsigned i =
        unsigned(std::upper_bound(std::begin(bounds), std::end(bounds), v) - std::begin(bounds)) -
        1;
    hits[std::min(i, bins - 1)] += 1;
  }
  std::printf("\nShape quality         Tets\n");
  for (unsigned i = bins; i-- > 0;)
    std::printf("%5.2f to %5.2f  %10u\n", bounds[i], bounds[i + 1], hits[i]);
  std::printf("below 0 (inverted)  %9u\n", below);
}

// Edges of a surface: how many lie in one triangle only, and in three or more.
void print_surface(const mesh_file& m) {
  std::vector<std::array<unsigned, 2>> edges;
  edges.reserve(3 * std::size_t(m.triangle_count()));
  double volume = 0.0;
  const double origin[3] = {0.0, 0.0, 0.0};
  const double* x = m.pos.data();
  for (unsigned f = 0; f < m.triangle_count(); ++f) {
    const unsigned* v = &m.triangles[3 * f];
    for (unsigned k = 0; k < 3; ++k)
      edges.push_back({std::min(v[k], v[(k + 1) % 3]), std::max(v[k], v[(k + 1) % 3])});
    // Outward triangles enclose a positive volume: each spans a tet with the origin.
    volume += mesh_io::tet_volume(origin, x + 3 * v[0], x + 3 * v[1], x + 3 * v[2]);
  }
  std::sort(edges.begin(), edges.end());
  unsigned open = 0, crowded = 0;
  for (std::size_t i = 0; i < edges.size();) {
    std::size_t j = i;
    while (j < edges.size() && edges[j] == edges[i]) ++j;
    open += j - i == 1;
    crowded += j - i > 2;
    i = j;
  }
  std::printf("Enclosed volume : %E (signed: positive for outward triangles)\n", volume);
  std::printf("Open edges      : %u\n", open);
  std::printf("Non-manifold    : %u edges in three triangles or more\n", crowded);
}

}  // namespace

int run_info(const std::string& path) {
  mesh_file m;
  std::string error;
  if (!mesh_io::read_mesh_file(path, m, error)) return fail(exit_bad_input, error);
  std::printf("File            : %s\n", path.c_str());
  std::printf("Nodes           : %u\n", m.node_count());
  std::printf("Tets            : %u\n", m.tet_count());
  std::printf("Triangles       : %u\n", m.triangle_count());
  std::printf("Edges           : %u\n", m.edge_count());
  std::printf("Hard nodes      : %u\n", unsigned(m.hard_nodes.size()));
  if (m.tet_count())
    print_tets(m);
  else if (m.triangle_count())
    print_surface(m);
  return exit_ok;
}

}  // namespace kelvo::voxfill_tool
