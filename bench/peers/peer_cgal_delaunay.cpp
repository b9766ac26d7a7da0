// CGAL's Delaunay triangulation (Epick, range insertion) on the clouds of bench_delaunay, or on a
// .xyz file for bench/compare, for the speed and memory ratio.
// Usage: peer_cgal_delaunay uniform N | lattice S | xyz IN.xyz [-o OUT.mesh]
#include <CGAL/Delaunay_triangulation_3.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "../drivers/mesh_text.h"
#include "cloud_points.h"

using K = CGAL::Exact_predicates_inexact_constructions_kernel;
using DT = CGAL::Delaunay_triangulation_3<K>;

namespace {

// Peak resident set of this process in bytes (VmHWM), 0 when unknown.
double peak_bytes() {
  std::ifstream f("/proc/self/status");
  std::string line;
  while (std::getline(f, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::atof(line.c_str() + 6) * 1024.0;
  return 0.0;
}

// The comparison's run: the points of a file, the finite cells written as Medit when asked.
int run_file(const char* in, const char* out) {
  std::vector<double> xyz;
  std::string error;
  if (!bench_mesh::read_xyz(in, xyz, error)) {
    std::fprintf(stderr, "peer_cgal_delaunay: %s\n", error.c_str());
    return 1;
  }
  std::vector<K::Point_3> pts;
  pts.reserve(xyz.size() / 3);
  for (std::size_t k = 0; k < xyz.size(); k += 3) pts.emplace_back(xyz[k], xyz[k + 1], xyz[k + 2]);
  std::vector<double>().swap(xyz);
  DT dt;
  dt.insert(pts.begin(), pts.end());
  std::printf("tets %zu nodes %zu\n", std::size_t(dt.number_of_finite_cells()),
              std::size_t(dt.number_of_vertices()));
  if (!out) return 0;
  bench_mesh::tables m;
  std::map<DT::Vertex_handle, std::uint32_t> index;
  for (auto v = dt.finite_vertices_begin(); v != dt.finite_vertices_end(); ++v) {
    index.emplace(v, std::uint32_t(index.size()));
    m.xyz.insert(m.xyz.end(), {v->point().x(), v->point().y(), v->point().z()});
  }
  for (auto c = dt.finite_cells_begin(); c != dt.finite_cells_end(); ++c)
    for (int i = 0; i < 4; ++i) m.tets.push_back(index[c->vertex(i)]);
  if (!bench_mesh::write_medit(out, m)) {
    std::fprintf(stderr, "peer_cgal_delaunay: cannot write %s\n", out);
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && std::strcmp(argv[1], "xyz") == 0) {
    if (argc == 3) return run_file(argv[2], nullptr);
    if (argc == 5 && std::strcmp(argv[3], "-o") == 0) return run_file(argv[2], argv[4]);
  }
  if (argc != 3 || (std::strcmp(argv[1], "uniform") && std::strcmp(argv[1], "lattice"))) {
    std::fprintf(stderr, "usage: %s uniform N | lattice S | xyz IN.xyz [-o OUT.mesh]\n", argv[0]);
    return 2;
  }
  const unsigned n = unsigned(std::strtoul(argv[2], nullptr, 10));
  const bool lattice = std::strcmp(argv[1], "lattice") == 0;
  const auto t0 = std::chrono::steady_clock::now();
  const std::vector<double> xyz =
      lattice ? bench_clouds::lattice_cloud(n) : bench_clouds::uniform_cloud(n);
  std::vector<K::Point_3> pts;
  pts.reserve(xyz.size() / 3);
  for (std::size_t k = 0; k < xyz.size(); k += 3) pts.emplace_back(xyz[k], xyz[k + 1], xyz[k + 2]);
  const auto t1 = std::chrono::steady_clock::now();
  DT dt;
  dt.insert(pts.begin(), pts.end());
  const auto t2 = std::chrono::steady_clock::now();
  const double secs = std::chrono::duration<double>(t2 - t1).count();
  const double all = std::chrono::duration<double>(t2 - t0).count();
  const double tets = double(dt.number_of_finite_cells());
  std::printf(
      "cgal %s %u: points %zu tets %.0f insert %.3f s (with set-up %.3f s) %.3f Mtets/s "
      "peak %.1f bytes/tet valid %d\n",
      argv[1], n, pts.size(), tets, secs, all, tets / secs * 1e-6, peak_bytes() / tets,
      int(dt.is_valid()));
  return 0;
}
