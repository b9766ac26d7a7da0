// An independent Delaunay mesh for the tests: reads points ("n" then n lines "x y z", hex floats
// welcome) from the file named first, writes to the file named second the tets of CGAL's
// Delaunay_triangulation_3 as sorted node quadruples, one a line, sorted, preceded by their count
// and by the convex hull's volume.
#include <CGAL/Delaunay_triangulation_3.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Triangulation_vertex_base_with_info_3.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

using K = CGAL::Exact_predicates_inexact_constructions_kernel;
using Vb = CGAL::Triangulation_vertex_base_with_info_3<unsigned, K>;
using Tds = CGAL::Triangulation_data_structure_3<Vb>;
using Delaunay = CGAL::Delaunay_triangulation_3<K, Tds>;

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  std::FILE* in = std::fopen(argv[1], "r");
  if (!in) return 3;
  unsigned n = 0;
  if (std::fscanf(in, "%u", &n) != 1) return 4;
  std::vector<std::pair<K::Point_3, unsigned>> pts;
  pts.reserve(n);
  for (unsigned i = 0; i < n; ++i) {
    double x, y, z;
    if (std::fscanf(in, "%la %la %la", &x, &y, &z) != 3) return 5;
    pts.push_back({K::Point_3(x, y, z), i});
  }
  std::fclose(in);
  Delaunay dt(pts.begin(), pts.end());
  std::vector<std::array<unsigned, 4>> tets;
  double volume = 0.0;
  for (auto c = dt.finite_cells_begin(); c != dt.finite_cells_end(); ++c) {
    std::array<unsigned, 4> t;
    for (int k = 0; k < 4; ++k) t[k] = c->vertex(k)->info();
    volume += CGAL::to_double(dt.tetrahedron(c).volume());
    std::sort(t.begin(), t.end());
    tets.push_back(t);
  }
  std::sort(tets.begin(), tets.end());
  std::FILE* out = std::fopen(argv[2], "w");
  if (!out) return 6;
  std::fprintf(out, "%zu %a\n", tets.size(), volume);
  for (const auto& t : tets) std::fprintf(out, "%u %u %u %u\n", t[0], t[1], t[2], t[3]);
  return std::fclose(out) == 0 ? 0 : 7;
}
