// How the boundary recovery got each surface's entities back: mode 0 without refinement or
// optimisation on a Medit surface, then one line of counts per run.
// Usage: recovery_steps IN.mesh...
// Prints, per file: faces and edges recovered from the lists, the entities whose recovery used
// each means (crossing edges, pipe flips, pipe thinning, pipe Steiner nodes, face moves, face
// Steiner nodes), the driver's passes, clean-ups, seeds and reinsertions, Steiner nodes kept,
// and the recovery's wall time.
#include <cstdio>
#include <string>

#include "medit_record.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/refine/refine_context.h"

using namespace kelvo;
using namespace kelvo::voxfill;

namespace {

// The triangles, hard edges and corners of a Medit file as a mode 0 record.
bool read_surface(const char* path, mesher::data_type& data) {
  bench_mesh::tables in;
  std::string error;
  if (!bench_mesh::read_medit(path, in, error)) return false;
  data = bench_mesh::record_from_tables(in);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s IN.mesh...\n", argv[0]);
    return 2;
  }
  std::printf(
      "| surface | faces | edges | crossing edges | pipe flips | pipe thinning | pipe Steiner | "
      "face moves | face Steiner | passes | clean-ups | seeds | reinsertions (out/in) | Steiner "
      "kept | recovery ms |\n|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n");
  int status = 0;
  for (int i = 1; i < argc; ++i) {
    mesher::data_type data;
    if (!read_surface(argv[i], data)) {
      std::fprintf(stderr, "%s: cannot read\n", argv[i]);
      status = 1;
      continue;
    }
    mesher::settings_type settings;
    settings.refine = false;
    settings.optim_level = 0;
    th4_engine engine;
    engine.settings = settings;
    refine_context context(settings);
    engine.run(data, context);
    const recovery_counts& c = engine.last_recovery;
    std::string name = argv[i];
    name = name.substr(name.find_last_of('/') + 1);
    std::printf("| %s | %u | %u |", name.c_str(), c.faces, c.edges);
    for (unsigned k = 0; k < step_count; ++k) std::printf(" %u |", c.by_step[k]);
    std::printf(" %u | %u | %u | %u (%u/%u) | %u | %.1f |%s\n", c.passes, c.tangle_cleanups,
                c.seeds, c.reinsertions, c.nodes_taken_out, c.nodes_reinserted, data.steiner_nodes,
                1e3 * c.seconds, data.error_code ? " error" : "");
  }
  return status;
}
