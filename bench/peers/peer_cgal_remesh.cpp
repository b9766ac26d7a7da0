// CGAL's tetrahedral isotropic remeshing on a tet mesh of bench/compare, its boundary frozen
// (remesh_boundaries false): the mesh is read by CGAL's own Medit reader, the target edge length
// is the mean length of the skin's edges, one iteration as CGAL's default. The tets of the
// domain are written as Medit for the checker.
// Usage: peer_cgal_remesh IN.mesh [-o OUT.mesh]
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/IO/File_medit.h>
#include <CGAL/Tetrahedral_remeshing/Remeshing_triangulation_3.h>
#include <CGAL/tetrahedral_remeshing.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include "../drivers/mesh_text.h"

using K = CGAL::Exact_predicates_inexact_constructions_kernel;
using Remeshing_triangulation = CGAL::Tetrahedral_remeshing::Remeshing_triangulation_3<K>;

int main(int argc, char** argv) {
  if (argc != 2 && !(argc == 4 && std::strcmp(argv[2], "-o") == 0)) {
    std::fprintf(stderr, "usage: %s IN.mesh [-o OUT.mesh]\n", argv[0]);
    return 2;
  }
  bench_mesh::tables in;
  std::string error;
  if (!bench_mesh::read_medit(argv[1], in, error)) {
    std::fprintf(stderr, "peer_cgal_remesh: %s\n", error.c_str());
    return 1;
  }
  double sum = 0.0;
  for (std::size_t f = 0; f < in.tris.size() / 3; ++f)
    for (unsigned k = 0; k < 3; ++k) {
      const double* a = &in.xyz[3 * std::size_t(in.tris[3 * f + k])];
      const double* b = &in.xyz[3 * std::size_t(in.tris[3 * f + (k + 1) % 3])];
      sum += std::sqrt((a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) +
                       (a[2] - b[2]) * (a[2] - b[2]));
    }
  const double target = in.tris.empty() ? 1.0 : sum / double(in.tris.size());

  Remeshing_triangulation tr;
  std::ifstream file(argv[1]);
  if (!CGAL::IO::read_MEDIT(file, tr)) {
    std::fprintf(stderr, "peer_cgal_remesh: CGAL cannot read %s\n", argv[1]);
    return 1;
  }
  CGAL::tetrahedral_isotropic_remeshing(tr, target, CGAL::parameters::remesh_boundaries(false));

  bench_mesh::tables out;
  std::map<Remeshing_triangulation::Vertex_handle, std::uint32_t> index;
  for (auto c = tr.finite_cells_begin(); c != tr.finite_cells_end(); ++c) {
    if (c->subdomain_index() == 0) continue;
    for (int i = 0; i < 4; ++i) {
      const auto v = c->vertex(i);
      auto [it, added] = index.emplace(v, std::uint32_t(index.size()));
      if (added) {
        const auto& p = v->point();
        out.xyz.insert(out.xyz.end(), {p.x(), p.y(), p.z()});
      }
      out.tets.push_back(it->second);
    }
  }
  std::printf("tets %zu target %.6g\n", out.tet_count(), target);
  if (argc == 2) return 0;
  if (!bench_mesh::write_medit(argv[3], out)) {
    std::fprintf(stderr, "peer_cgal_remesh: cannot write %s\n", argv[3]);
    return 1;
  }
  return 0;
}
