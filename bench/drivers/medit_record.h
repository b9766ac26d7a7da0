// A Medit file's tables as the library's record: the nodes, the triangles as the boundary, the
// hard edges, and the corners as isolated nodes. Shared by the drivers that hand files to the
// library.
#pragma once

#include <cstddef>

#include "mesh_text.h"
#include "voxfill/mesher_th4.h"

namespace bench_mesh {

inline kelvo::voxfill::mesher::data_type record_from_tables(const tables& in) {
  using kelvo::dense2D;
  const unsigned n = unsigned(in.node_count());
  const unsigned nt = unsigned(in.tris.size() / 3), ne = unsigned(in.edges.size() / 2);
  dense2D<double> pos(3, n);
  for (unsigned j = 0; j < n; ++j)
    for (unsigned i = 0; i < 3; ++i) pos(i, j) = in.xyz[3 * std::size_t(j) + i];
  dense2D<unsigned> connectB(3, nt);
  for (unsigned j = 0; j < nt; ++j)
    for (unsigned i = 0; i < 3; ++i) connectB(i, j) = in.tris[3 * std::size_t(j) + i];
  kelvo::voxfill::mesher::data_type data(pos, connectB);
  if (ne) {
    data.connectE.resize(2, ne);
    for (unsigned j = 0; j < ne; ++j)
      for (unsigned i = 0; i < 2; ++i) data.connectE(i, j) = in.edges[2 * std::size_t(j) + i];
  }
  for (const auto k : in.corners) data.isolated_nodes.push_back(k);
  return data;
}

}  // namespace bench_mesh
