// Gmsh's own tet mesh optimiser through its API on a tet mesh of bench/compare: the skin as a
// discrete surface whose nodes stay put, the tets as a discrete volume, then
// model::mesh::optimize with the default method on one thread.
// Usage: peer_gmsh_optimize IN.mesh [-o OUT.mesh]
#include <gmsh.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "../drivers/mesh_text.h"

int main(int argc, char** argv) {
  if (argc != 2 && !(argc == 4 && std::strcmp(argv[2], "-o") == 0)) {
    std::fprintf(stderr, "usage: %s IN.mesh [-o OUT.mesh]\n", argv[0]);
    return 2;
  }
  bench_mesh::tables m;
  std::string error;
  if (!bench_mesh::read_medit(argv[1], m, error)) {
    std::fprintf(stderr, "peer_gmsh_optimize: %s\n", error.c_str());
    return 1;
  }
  bench_mesh::tables out;
  try {
    gmsh::initialize();
    gmsh::option::setNumber("General.Terminal", 0);
    gmsh::option::setNumber("General.NumThreads", 1);
    gmsh::option::setNumber("Mesh.MaxNumThreads3D", 1);
    gmsh::model::add("start");
    gmsh::model::addDiscreteEntity(2, 1);
    gmsh::model::addDiscreteEntity(3, 1, {1});
    // Nodes of the skin belong to the surface, the others to the volume: the optimiser moves
    // only the volume's.
    std::vector<char> on_skin(m.node_count(), 0);
    for (std::uint32_t v : m.tris) on_skin[v] = 1;
    std::vector<std::size_t> skin_tags, inner_tags;
    std::vector<double> skin_xyz, inner_xyz;
    for (std::size_t v = 0; v < m.node_count(); ++v) {
      auto& tags = on_skin[v] ? skin_tags : inner_tags;
      auto& xyz = on_skin[v] ? skin_xyz : inner_xyz;
      tags.push_back(v + 1);
      xyz.insert(xyz.end(), &m.xyz[3 * v], &m.xyz[3 * v] + 3);
    }
    gmsh::model::mesh::addNodes(2, 1, skin_tags, skin_xyz);
    if (!inner_tags.empty()) gmsh::model::mesh::addNodes(3, 1, inner_tags, inner_xyz);
    std::vector<std::size_t> tri_nodes(m.tris.begin(), m.tris.end()),
        tet_nodes(m.tets.begin(), m.tets.end());
    for (std::size_t& v : tri_nodes) ++v;
    for (std::size_t& v : tet_nodes) ++v;
    gmsh::model::mesh::addElementsByType(1, 2, {}, tri_nodes);
    gmsh::model::mesh::addElementsByType(1, 4, {}, tet_nodes);
    gmsh::model::mesh::optimize("", true);

    std::vector<std::size_t> tags, tets;
    std::vector<double> xyz, param;
    gmsh::model::mesh::getNodes(tags, xyz, param, -1, -1, true, false);
    std::size_t top = 0;
    for (std::size_t t : tags) top = std::max(top, t);
    std::vector<std::uint32_t> index(top + 1, 0xFFFFFFFFu);
    for (std::size_t k = 0; k < tags.size(); ++k) index[tags[k]] = std::uint32_t(k);
    out.xyz = xyz;
    std::vector<std::size_t> element_tags;
    gmsh::model::mesh::getElementsByType(4, element_tags, tets);
    out.tets.reserve(tets.size());
    for (std::size_t v : tets) out.tets.push_back(index[v]);
    gmsh::finalize();
  } catch (...) {
    std::fprintf(stderr, "peer_gmsh_optimize: gmsh failed\n");
    return 1;
  }
  std::printf("tets %zu\n", out.tet_count());
  if (argc == 2) return 0;
  if (!bench_mesh::write_medit(argv[3], out)) {
    std::fprintf(stderr, "peer_gmsh_optimize: cannot write %s\n", argv[3]);
    return 1;
  }
  return 0;
}
