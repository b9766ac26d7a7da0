// Voxfill's side of the comparison: reads a point cloud (.xyz), a surface or a tet mesh (Medit
// .mesh), runs the mesher through its public interface (mode 2, 0 or 1) and writes the tets as
// Medit for the common checker.
// Usage: voxfill_run cloud|surface|tets IN [-o OUT.mesh] [--no-refine] [--optim-level N]
//        [--no-strict]
// Prints one line: "tets N nodes M seconds S" (a surface adds the front time, the Steiner nodes
// and the hard faces kept), or "not yet" when the job gives no mesh and no error (a mode the
// library does not have yet). Exit status: 0 mesh, 3 not yet, 1 failure.
// A surface whose run ends in an error with tets left still writes them (the error goes to
// stderr): a boundary recovery that falls short is judged on what it made.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "medit_record.h"
#include "voxfill/mesher_th4.h"

using namespace kelvo;

int main(int argc, char** argv) {
  const char* out = nullptr;
  bool refine = true, strict = true, usage = argc < 3;
  long optim_level = -1;  // the library's default
  for (int i = 3; i < argc && !usage; ++i) {
    char* end = nullptr;
    if (std::strcmp(argv[i], "-o") == 0 && i + 1 < argc)
      out = argv[++i];
    else if (std::strcmp(argv[i], "--no-refine") == 0)
      refine = false;
    else if (std::strcmp(argv[i], "--no-strict") == 0)
      strict = false;
    else if (std::strcmp(argv[i], "--optim-level") == 0 && i + 1 < argc)
      optim_level = std::strtol(argv[++i], &end, 10), usage = *end != '\0' || optim_level < 0;
    else
      usage = true;
  }
  if (usage) {
    std::fprintf(stderr,
                 "usage: %s cloud IN.xyz | surface IN.mesh | tets IN.mesh [-o OUT.mesh] "
                 "[--no-refine] [--optim-level N] [--no-strict]\n",
                 argv[0]);
    return 2;
  }
  const bool cloud = std::strcmp(argv[1], "cloud") == 0;
  const bool tets = std::strcmp(argv[1], "tets") == 0;
  const bool surface = !cloud && !tets;
  bench_mesh::tables in;
  std::string error;
  const bool read = cloud ? bench_mesh::read_xyz(argv[2], in.xyz, error)
                          : bench_mesh::read_medit(argv[2], in, error);
  if (!read) {
    std::fprintf(stderr, "voxfill_run: %s\n", error.c_str());
    return 1;
  }

  const unsigned n = unsigned(in.node_count());
  // A tet mesh brings its own skin: the library keeps it, and any triangle handed over as well.
  if (tets) in.tris.clear(), in.edges.clear(), in.corners.clear();
  voxfill::mesher::data_type data = bench_mesh::record_from_tables(in);
  if (cloud) {
    data.isolated_nodes.reserve(n);
    for (unsigned k = 0; k < n; ++k) data.isolated_nodes.push_back(k);
  }

  if (tets) {
    // Files turn their tets the other way from the library: nodes 1 and 2 swapped.
    const unsigned T = unsigned(in.tet_count());
    data.connectM.resize(4, T);
    for (unsigned t = 0; t < T; ++t)
      for (unsigned i = 0; i < 4; ++i)
        data.connectM(i, t) = in.tets[4 * std::size_t(t) + (i == 1 ? 2 : i == 2 ? 1 : i)];
  }

  in = bench_mesh::tables();  // the record holds the input now; keep one copy, as the peers do

  voxfill::mesher mesher;
  if (cloud) {
    mesher.settings.mode = 2;
    mesher.settings.optim_level = 0;
  } else if (tets) {
    mesher.settings.mode = 1;
  }  // surfaces: mode 0; tets: mode 1; both with the library's defaults unless told otherwise
  mesher.settings.refine = refine;
  mesher.settings.strict_constraints = strict;
  if (optim_level >= 0) mesher.settings.optim_level = unsigned(optim_level);
  mesher.run(data);
  if (data.error_code != 0) {
    std::fprintf(stderr, "voxfill_run: error %d: %s %s\n", data.error_code, data.msg_title,
                 data.msg_text);
    if (!surface || data.tet_count == 0) return 1;
  }
  if (data.tet_count == 0) {
    std::printf("not yet\n");
    return 3;
  }
  std::printf("tets %u nodes %u seconds %.3f", data.tet_count, data.used_node_count,
              data.total_time);
  if (tets)
    std::printf(" min_quality_in %.6g min_quality %.6g", data.min_quality_in, data.min_quality);
  if (surface)
    std::printf(" front %.6f steiner %u hard_faces %u/%u missing_faces %u error %d warning %d",
                data.front_time, data.steiner_nodes, data.hard_faces_out, data.hard_faces_in,
                data.missing_faces.size, data.error_code, data.warning_code);
  std::printf("\n");
  if (!out) return 0;

  bench_mesh::tables m;
  m.xyz.resize(3 * std::size_t(data.pos.cols));
  for (unsigned j = 0; j < data.pos.cols; ++j)
    for (unsigned i = 0; i < 3; ++i) m.xyz[3 * std::size_t(j) + i] = data.pos(i, j);
  m.tets.resize(4 * std::size_t(data.connectM.cols));
  for (unsigned j = 0; j < data.connectM.cols; ++j)
    for (unsigned i = 0; i < 4; ++i) m.tets[4 * std::size_t(j) + i] = data.connectM(i, j);
  m.tet_refs.resize(data.colors.size);
  for (unsigned j = 0; j < data.colors.size; ++j) m.tet_refs[j] = data.colors[j] + 1;
  if (!bench_mesh::write_medit(out, m)) {
    std::fprintf(stderr, "voxfill_run: cannot write %s\n", out);
    return 1;
  }
  return 0;
}
