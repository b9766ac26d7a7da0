// The ceiling of a regularisation case: no mesh that keeps the boundary triangles can have a
// worst tet better than the worst of the per-triangle optima, each the best tet that one apex
// above the triangle makes with it. Reads the triangles of a Medit file and prints one JSON line
// with that ceiling, the triangle that sets it, and the library's cheaper bound from the
// triangles' shape alone.
// Usage: apex_ceiling IN.mesh
#include <cmath>
#include <cstdio>
#include <string>

#include "medit_record.h"
#include "voxfill/refine/size_field.h"

using namespace kelvo;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s IN.mesh\n", argv[0]);
    return 2;
  }
  bench_mesh::tables m;
  std::string error;
  if (!bench_mesh::read_medit(argv[1], m, error)) {
    std::printf("{\"error\": \"%s\"}\n", error.c_str());
    return 1;
  }
  const voxfill::mesher::data_type data = bench_mesh::record_from_tables(m);
  const dense2D<double>& xyz = data.pos;
  const dense2D<unsigned>& tris = data.connectB;
  const unsigned nt = tris.cols;
  double ceiling = 1.0;
  unsigned worst = 0;
  for (unsigned j = 0; j < nt; ++j) {
    double apex[3];
    // The sign only tells which side of the triangle the apex went to.
    const double q = std::abs(voxfill::best_apex(xyz, tris.col(j), 1e-3, apex));
    if (q < ceiling) ceiling = q, worst = j;
  }
  std::printf("{\"ceiling\": %.6g, \"triangle\": %u, \"triangles\": %u, \"quality_bound\": %.6g}\n",
              nt ? ceiling : 0.0, worst, nt, voxfill::quality_bound(xyz, tris));
  return 0;
}
