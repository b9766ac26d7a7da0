// Gmsh's Delaunay of a point cloud through its API (model::mesh::tetrahedralize) with the HXT
// algorithm on one thread, on a .xyz file of bench/compare.
// Usage: peer_gmsh_delaunay IN.xyz [-o OUT.mesh]
#include <gmsh.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "../drivers/mesh_text.h"

int main(int argc, char** argv) {
  if (argc != 2 && !(argc == 4 && std::strcmp(argv[2], "-o") == 0)) {
    std::fprintf(stderr, "usage: %s IN.xyz [-o OUT.mesh]\n", argv[0]);
    return 2;
  }
  bench_mesh::tables m;
  std::string error;
  if (!bench_mesh::read_xyz(argv[1], m.xyz, error)) {
    std::fprintf(stderr, "peer_gmsh_delaunay: %s\n", error.c_str());
    return 1;
  }
  std::vector<std::size_t> tets;
  try {
    gmsh::initialize();
    gmsh::option::setNumber("General.Terminal", 0);
    gmsh::option::setNumber("General.NumThreads", 1);
    gmsh::option::setNumber("Mesh.MaxNumThreads3D", 1);
    gmsh::option::setNumber("Mesh.Algorithm3D", 10);  // HXT
    gmsh::model::mesh::tetrahedralize(m.xyz, tets);
    gmsh::finalize();
  } catch (...) {
    std::fprintf(stderr, "peer_gmsh_delaunay: gmsh failed\n");
    return 1;
  }
  std::printf("tets %zu\n", tets.size() / 4);
  if (argc == 2) return 0;
  m.tets.reserve(tets.size());
  for (std::size_t v : tets) m.tets.push_back(std::uint32_t(v - 1));  // tags count from 1
  if (!bench_mesh::write_medit(argv[3], m)) {
    std::fprintf(stderr, "peer_gmsh_delaunay: cannot write %s\n", argv[3]);
    return 1;
  }
  return 0;
}
