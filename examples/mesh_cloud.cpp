// Meshes the convex hull of a small built-in cloud of points and prints the run report.
#include <cstdio>

#include "voxfill/mesher_th4.h"

using namespace kelvo;

static void print(void*, unsigned, const char* text) { std::fputs(text, stdout); }

int main() {
  // A 4 x 4 x 4 lattice, slightly perturbed so that no five points share a sphere.
  const unsigned n = 4;
  dense2D<double> pos(3, n * n * n);
  unsigned j = 0;
  for (unsigned k = 0; k < n; ++k)
    for (unsigned l = 0; l < n; ++l)
      for (unsigned m = 0; m < n; ++m, ++j) {
        pos(0, j) = m + 0.01 * ((j * 7) % 5);
        pos(1, j) = l + 0.01 * ((j * 11) % 7);
        pos(2, j) = k + 0.01 * ((j * 13) % 3);
      }

  voxfill::mesher::data_type data(pos, dense2D<unsigned>());
  for (unsigned i = 0; i < pos.cols; ++i) data.isolated_nodes.push_back(i);  // the cloud

  voxfill::mesher mesher;
  mesher.settings.mode = 2;  // Delaunay mesh of the convex hull
  mesher.settings.display_hdl = print;
  mesher.run(data);

  data.print_info(print);
  std::printf("%u tets, %u nodes\n", data.tet_count, data.used_node_count);
  return data.error_code == 0 ? 0 : 1;
}
