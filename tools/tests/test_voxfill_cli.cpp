// The voxfill command run as a user runs it: exit codes, messages, outputs, replay, the demo
// and Ctrl-C.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "cli_run.h"
#include "mesh_io/medit.h"
#include "mesh_io/mesh_file.h"
#include "voxfill/mesher_th4.h"

namespace {

using namespace kelvo::mesh_io;
using namespace cli_run;
namespace fs = std::filesystem;

// A jittered n x n x n lattice as .xyz: no five points on a sphere, a known hull.
std::string lattice_xyz(const std::string& name, unsigned n) {
  std::string text;
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> jitter(-0.05, 0.05);
  for (unsigned k = 0; k < n * n * n; ++k) {
    const unsigned i[3] = {k % n, k / n % n, k / n / n};
    for (unsigned c = 0; c < 3; ++c) {
      const bool inner = i[c] > 0 && i[c] + 1 < n;
      text += std::to_string(i[c] + (inner ? jitter(rng) : 0.0)) + (c < 2 ? " " : "\n");
    }
  }
  const std::string path = in_folder(name);
  write_text(path, text);
  return path;
}

// Prints, for each file named, how many tets meshio finds in it and how many of them have a
// negative volume by the right-hand rule det(n1 - n0, n2 - n0, n3 - n0).
constexpr const char* count_inverted_py = R"(import sys, meshio, numpy as np
for path in sys.argv[1:]:
    m = meshio.read(path)
    tets = np.concatenate([b.data for b in m.cells if b.type == "tetra"])
    p = m.points[tets]
    det = np.linalg.det(np.stack([p[:, 1] - p[:, 0], p[:, 2] - p[:, 0], p[:, 3] - p[:, 0]], 1))
    print(path, len(tets), int((det < 0).sum()))
)";

// Writes the unit cube cut into six tets, each made positive by the right-hand rule, with
// meshio as STEM.mesh, STEM.vtu and STEM.msh (Gmsh 4.1 ASCII).
constexpr const char* write_cube_py = R"(import sys, itertools, meshio, numpy as np
p = np.array(list(itertools.product([0.0, 1.0], repeat=3)))[:, ::-1].copy()
tets = []
for axes in itertools.permutations(range(3)):
    path = [0]
    for a in axes:
        path.append(path[-1] | (1 << a))
    tets.append(path)
tets = np.array(tets)
for t in tets:
    if np.linalg.det(np.array([p[t[1]] - p[t[0]], p[t[2]] - p[t[0]], p[t[3]] - p[t[0]]])) < 0:
        t[1], t[2] = t[2], t[1]
m = meshio.Mesh(p, [("tetra", tets)])
meshio.write(sys.argv[1] + ".mesh", m)
meshio.write(sys.argv[1] + ".vtu", m, binary=False)
meshio.write(sys.argv[1] + ".msh", m, file_format="gmsh", binary=False)
)";

// Catches tets written, read or judged in the library's own orientation instead of the
// right-hand rule of the files, in any format or mode, as meshio sees them.
TEST(VoxfillCli, TetsArePositiveForAnIndependentReader) {
  const std::string python = python_with_meshio();
  if (python.empty())
    GTEST_SKIP() << "meshio is not installed (Debian package python3-meshio): the orientation "
                    "of written tets cannot be checked by an independent reader";
  const std::string cloud = lattice_xyz("orient.xyz", 4), out = in_folder("orient.");
  for (const char* ext : {"mesh", "vtu", "msh"})
    ASSERT_EQ(voxfill("delaunay " + cloud + " -q -o " + out + ext).status, 0) << ext;
  ASSERT_EQ(
      voxfill("delaunay " + cloud + " -q --no-positive-orientation -o " + out + "neg.mesh").status,
      0);
  std::istringstream counts(run_python(
      python, count_inverted_py, out + "mesh " + out + "vtu " + out + "msh " + out + "neg.mesh"));
  std::string path;
  unsigned tets = 0, inverted = 0, files = 0;
  while (counts >> path >> tets >> inverted) {
    SCOPED_TRACE(path);
    ++files;
    EXPECT_GT(tets, 100u);
    EXPECT_EQ(inverted, path == out + "neg.mesh" ? tets : 0u);
  }
  EXPECT_EQ(files, 4u);

  // Positive tets written by meshio: info calls none inverted, regularize hands them to the
  // library in its own orientation (positive when (n0 - n3) . ((n1 - n3) x (n2 - n3)) > 0, as
  // the saved case shows), and what comes back is positive again.
  const std::string cube = in_folder("meshio_cube");
  run_python(python, write_cube_py, cube);
  for (const char* ext : {".mesh", ".vtu", ".msh"}) {
    SCOPED_TRACE(ext);
    const result r = voxfill("info " + cube + ext);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Volume          : 1.000000E+00\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("below 0 (inverted)          0\n"), std::string::npos) << r.out;
    const std::string again = in_folder("regularized.vtu"), c = in_folder("regularize.case");
    fs::remove(again);
    const int status =
        voxfill("regularize " + cube + ext + " -q -o " + again + " --save-case " + c).status;
    kelvo::voxfill::mesher::data_type d;
    ASSERT_GE(d.load(c.c_str()), 0);
    ASSERT_EQ(d.connectM.cols, 6u);
    for (unsigned t = 0; t < 6; ++t) {
      double e[3][3];
      for (unsigned i = 0; i < 3; ++i)
        for (unsigned k = 0; k < 3; ++k)
          e[i][k] = d.pos(k, d.connectM(i, t)) - d.pos(k, d.connectM(3, t));
      const double det = e[0][0] * (e[1][1] * e[2][2] - e[1][2] * e[2][1]) -
                         e[0][1] * (e[1][0] * e[2][2] - e[1][2] * e[2][0]) +
                         e[0][2] * (e[1][0] * e[2][1] - e[1][1] * e[2][0]);
      EXPECT_GT(det, 0.0) << "tet " << t;
    }
    // A library without regularisation yet says so (status 2) and writes nothing.
    if (status == 2) continue;
    EXPECT_LE(status, 1);
    std::istringstream back(run_python(python, count_inverted_py, again));
    ASSERT_TRUE(back >> path >> tets >> inverted);
    EXPECT_EQ(inverted, 0u);
  }
}

// Catches bad command lines and unreadable inputs that do not exit with 3 and a message.
TEST(VoxfillCli, BadCommandLinesExitWith3) {
  const std::string cloud = lattice_xyz("small.xyz", 3);
  EXPECT_EQ(voxfill("").status, 3);
  EXPECT_EQ(voxfill("delaunay").status, 3);
  EXPECT_EQ(voxfill("delaunay " + cloud + " -o " + in_folder("x.mesh") + " --bogus").status, 3);
  EXPECT_EQ(voxfill("delaunay " + cloud + " -o x.mesh --optim-level many").status, 3);
  EXPECT_EQ(voxfill("--help").status, 0);
  result r = voxfill("--version");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string("voxfill ") + kelvo::voxfill::version() + "\n");

  struct bad_case {
    std::string args, message;
  };
  const std::string bad = in_folder("bad.xyz");
  write_text(bad, "0 0 0\n1 1\n");
  const std::string sol = in_folder("two.sol");
  write_text(sol, "MeshVersionFormatted 2\nDimension 3\nSolAtVertices\n2\n1 1\n0.5\n0.5\nEnd\n");
  const bad_case cases[] = {
      {"delaunay /nonexistent.xyz -o x.mesh",
       "voxfill: cannot read /nonexistent.xyz: No such file or directory\n"},
      {"delaunay " + bad + " -o x.mesh",
       "voxfill: " + bad + ":2: expected 3 coordinates, found end of line\n"},
      {"delaunay " + cloud + " -o x.stl",
       "voxfill: cannot write x.stl: expected the extension .mesh, .vtu or .msh\n"},
      {"delaunay " + cloud + " -o /nonexistent/x.vtu",
       "voxfill: cannot write /nonexistent/x.vtu: no folder /nonexistent\n"},
      {"mesh " + cloud + " -o x.mesh",
       "voxfill: " + cloud + ": expected triangles: 'mesh' fills the volume a surface bounds\n"},
      {"regularize " + cloud + " -o x.mesh",
       "voxfill: " + cloud + ": expected tetrahedra: 'regularize' improves a tet mesh\n"},
      {"delaunay " + cloud + " -o x.mesh --metrics " + sol,
       "voxfill: " + sol + ": expected 27 sizes (one per node of " + cloud + "), found 2\n"},
      {"info " + bad, "voxfill: " + bad + ":2: expected 3 coordinates, found end of line\n"},
      {"replay " + bad, "voxfill: cannot read " + bad + ": expected a usable pos section\n"},
  };
  for (const bad_case& c : cases) {
    r = voxfill(c.args);
    EXPECT_EQ(r.status, 3) << c.args;
    EXPECT_EQ(r.err, c.message);
  }
}

// Catches library errors that do not exit with 2 and the code, title and words on stderr.
TEST(VoxfillCli, LibraryErrorsExitWith2) {
  const std::string flat = in_folder("flat.xyz");
  write_text(flat, "0 0 0\n1 0 0\n0 1 0\n1 1 0\n2 3 0\n");
  result r = voxfill("delaunay " + flat + " -o " + in_folder("flat.mesh"));
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err.rfind("voxfill: error -107 (BOUNDARY ERROR): Aligned nodes.\nFile = ", 0), 0u)
      << r.err;
  EXPECT_NE(r.out.find("Error: -107 (BOUNDARY ERROR)."), std::string::npos);
  EXPECT_FALSE(fs::exists(in_folder("flat.mesh")));  // nothing came back to write
}

// Catches errors -101, -102 and -103, which the library raises without words, reaching the user
// without the setting, the table or the count that caused them.
TEST(VoxfillCli, ErrorsWithoutWordsAreExplained) {
  const std::string cloud = lattice_xyz("small.xyz", 3), out = in_folder("w.mesh");
  struct error_case {
    std::string args, message;
  };
  // Background sizes must be above 0; the background's nodes follow the cloud's 27.
  write_text(in_folder("bg.mesh"),
             "MeshVersionFormatted 2\nVertices\n4\n0 0 0 0\n2 0 0 0\n0 2 0 0\n0 0 2 0\n"
             "Tetrahedra\n1\n1 2 4 3 0\nEnd\n");
  write_text(in_folder("bg.sol"), "MeshVersionFormatted 2\nSolAtVertices\n4\n1 1\n9 0 9 9\nEnd\n");
  // Cases that only a saved (or edited) record can hold.
  kelvo::voxfill::mesher::data_type d;
  ASSERT_TRUE(d.pos.resize(3, 4));
  for (unsigned j = 0; j < 4; ++j)
    for (unsigned k = 0; k < 3; ++k) d.pos(k, j) = j == k + 1 ? 1.0 : 0.0;
  for (unsigned v : {0u, 1u, 2u, 3u, 9u}) d.isolated_nodes.push_back(v);
  const std::string beyond = in_folder("beyond.case"), nodes = in_folder("nodes.case");
  d.save(beyond.c_str(), 16);
  d.isolated_nodes.resize(4);
  d.save(nodes.c_str(), 16);
  const std::string code = "voxfill: error ";
  const error_case cases[] = {
      {"delaunay " + cloud + " -o " + out + " --shape-weight 1.5",
       code + "-101 (MODE ERROR): the settings fail their check (code -15): --shape-weight 1.5: "
              "expected a value from 0 to 1\nFile = "},
      {"delaunay " + cloud + " -o " + out + " --size-gradation -1",
       code + "-101 (MODE ERROR): the settings fail their check (code -14): --size-gradation -1: "
              "expected 0 or more\nFile = "},
      {"delaunay " + cloud + " -o " + out + " --max-edge-length 0",
       code + "-101 (MODE ERROR): the settings fail their check (code -16): --max-edge-length 0: "
              "expected a value above 0\nFile = "},
      {"delaunay " + cloud + " -o " + out + " --background " + in_folder("bg.mesh"),
       code +
           "-102 (DATA ERROR): the record fails its check (code -8): node 28 of the background "
           "mesh has no size above 0 (metrics holds 0): every background node needs one\nFile = "},
      {"replay " + beyond + " -o " + out,
       code + "-102 (DATA ERROR): the record fails its check (code -4): the list of hard nodes "
              "(isolated_nodes) holds node 9, beyond the 4 nodes\nFile = "},
      {"replay " + nodes + " -o " + out + " --mode 1",
       code + "-102 (DATA ERROR): mode 1 regularises the tets of the record (connectM), and it "
              "holds none\nFile = "},
      {"delaunay " + cloud + " -o " + out + " --nodes-limit 9",
       code + "-103 (INSUFFICIENT NODES LIMIT): the input has 27 hard nodes, more than "
              "--nodes-limit 9 allows\nFile = "},
  };
  for (const error_case& c : cases) {
    const result r = voxfill(c.args + " -q");
    EXPECT_EQ(r.status, 2) << c.args;
    EXPECT_EQ(r.err.rfind(c.message, 0), 0u) << r.err;
    EXPECT_FALSE(fs::exists(out));
  }
}

// Catches values that the library takes but ignores or reads otherwise reaching it, instead of
// being refused with the flag and what it takes.
TEST(VoxfillCli, IgnoredSettingsAreRefused) {
  const std::string run = "delaunay " + lattice_xyz("small.xyz", 3) + " -o " + in_folder("i.mesh");
  const std::pair<const char*, const char*> cases[] = {
      {"--optim-level 11",
       "--optim-level 11: expected 0 to 10 (the optimiser has no level above "
       "10)"},
      {"--target-size nan", "--target-size nan: expected 0 (none) or a finite size"},
      {"--target-size -2", "--target-size -2: expected 0 (none) or a finite size"},
      {"--target-size inf", "--target-size inf: expected 0 (none) or a finite size"},
      {"--size-gradation nan", "--size-gradation nan: expected a finite value"},
      {"--max-edge-length inf", "--max-edge-length inf: expected a finite length"},
      {"--progress-scale nan", "--progress-scale nan: expected a finite value"},
      {"--progress-offset -inf", "--progress-offset -inf: expected a finite value"},
      {"--subdomain-rule 3", "--subdomain-rule 3: expected 0, 1 or 2"},
  };
  for (const auto& [flag, message] : cases) {
    const result r = voxfill(run + " " + flag);
    EXPECT_EQ(r.status, 3) << flag;
    EXPECT_EQ(r.err, std::string("voxfill: ") + message + "\n");
  }
  // The edges of what is taken.
  EXPECT_EQ(voxfill(run + " -q --optim-level 10 --target-size 0 --subdomain-rule 2").status, 0);
}

// Catches outputs that disagree with each other or with the report, flags that do not reach
// the settings, and runs that are not repeatable bit for bit.
TEST(VoxfillCli, DelaunayEndToEnd) {
  const std::string cloud = lattice_xyz("cloud.xyz", 5);
  const std::string args = "delaunay " + cloud + " -o " + in_folder("d.");
  mesh_file first;
  for (const char* ext : {"vtu", "mesh", "msh"}) {
    const result r = voxfill(args + ext + " --optim-level 0");
    ASSERT_EQ(r.status, 0) << r.err;
    mesh_file m;
    std::string e;
    ASSERT_TRUE(read_mesh_file(in_folder("d.") + ext, m, e)) << e;
    EXPECT_NE(r.out.find("Tets            : " + std::to_string(m.tet_count()) + "\n"),
              std::string::npos);
    if (std::string(ext) == "mesh") {
      EXPECT_EQ(m.triangle_count(), 6u * 2 * 16);  // the hull
    }
    // What is said to be written is what the file holds: .vtu has no triangles.
    EXPECT_NE(r.out.find("Wrote " + in_folder("d.") + ext + ": 125 nodes, " +
                         (std::string(ext) == "vtu" ? "" : "192 triangles, ") +
                         std::to_string(m.tet_count()) + " tets\n"),
              std::string::npos)
        << r.out;
    if (first.pos.empty()) first = m;
    EXPECT_EQ(m.pos, first.pos);
    EXPECT_EQ(m.tets, first.tets);
  }
  EXPECT_EQ(first.node_count(), 125u);
  double volume = 0.0, qmin = 1.0;
  for (double q : shape_qualities(first)) qmin = std::min(qmin, q);
  for (unsigned t = 0; t < first.tet_count(); ++t) {
    const unsigned* v = &first.tets[4 * t];
    volume += tet_volume(&first.pos[3 * v[0]], &first.pos[3 * v[1]], &first.pos[3 * v[2]],
                         &first.pos[3 * v[3]]);
  }
  EXPECT_GT(qmin, 0.0);
  EXPECT_NEAR(volume, 64.0, 1e-9);  // the lattice's corners and faces are not jittered

  const std::string vtu = slurp(in_folder("d.vtu"));
  ASSERT_EQ(voxfill(args + "vtu --optim-level 0").status, 0);
  EXPECT_EQ(slurp(in_folder("d.vtu")), vtu);
}

// Catches a flag bound to the wrong field of the settings, or one that does not reach the run.
TEST(VoxfillCli, EveryFlagReachesItsSetting) {
  const std::string flags =
      "--no-strict-constraints --subdomain-rule 2 --no-refine --front-as-background "
      "--no-optim-node-smoothing --no-optim-node-insertion --no-optim-node-removal "
      "--no-optim-shell-reconnection --optim-hard-links --no-positive-orientation --compute-qh "
      "--nodes-limit 9 --optim-level 4 --target-size 0.25 --size-gradation 0.75 --shape-weight 0.5 "
      "--max-edge-length 2 --progress-offset 1 --progress-scale 3";
  const std::string base =
      "delaunay " + lattice_xyz("flags.xyz", 3) + " -o " + in_folder("f.mesh") + " ";
  result r = voxfill(base + flags);
  EXPECT_NE(r.out.find("Settings: " + flags + "\n"), std::string::npos) << r.out;
  EXPECT_EQ(r.status, 2);  // 27 hard nodes above a limit of 9
  EXPECT_NE(r.err.find("error -103 (INSUFFICIENT NODES LIMIT)"), std::string::npos);
  r = voxfill(base + "--no-strict --strict-constraints --no-strict");
  EXPECT_NE(r.out.find("Settings: --no-strict-constraints\n"), std::string::npos) << r.out;
}

// Catches inputs that do not reach the record as the mode needs them: faces, edges, hard nodes,
// tets with colours, sizes, and a background mesh after the input's nodes.
TEST(VoxfillCli, InputsReachTheRecord) {
  const std::string surface = in_folder("box.mesh");
  write_text(surface,
             "MeshVersionFormatted 2\nDimension 3\nVertices\n6\n0 0 0 0\n1 0 0 0\n0 1 0 0\n"
             "0 0 1 0\n0.2 0.2 0.2 0\n0.1 0.1 0.3 0\nEdges\n1\n1 5 0\nTriangles\n4\n1 3 2 0\n"
             "1 2 4 0\n1 4 3 0\n2 3 4 0\nTetrahedra\n2\n1 2 3 5 4\n1 2 5 4 6\n"
             "RequiredVertices\n2\n1 6\nEnd\n");
  const std::string sizes = in_folder("box.sol");
  write_text(sizes,
             "MeshVersionFormatted 2\nDimension 3\nSolAtVertices\n6\n1 1\n1\n2\n3\n4\n5\n6\nEnd\n");
  const std::string bg = in_folder("bg.mesh");
  write_text(bg,
             "MeshVersionFormatted 2\nVertices\n4\n0 0 0 0\n2 0 0 0\n0 2 0 0\n0 0 2 0\n"
             "Tetrahedra\n1\n1 2 3 4 0\nEnd\n");
  write_text(in_folder("bg.sol"), "MeshVersionFormatted 2\nSolAtVertices\n4\n1 1\n9 9 9 9\nEnd\n");
  using data_type = kelvo::voxfill::mesher::data_type;
  for (const char* job : {"mesh", "regularize", "delaunay"}) {
    SCOPED_TRACE(job);
    const std::string c = in_folder(std::string(job) + ".case");
    const std::string hard = std::string(job) == "delaunay" ? " --hard-faces" : "";
    const result r =
        voxfill(std::string(job) + " " + surface + " -o " + in_folder("o.mesh") + " -q --metrics " +
                sizes + " --background " + bg + " --optim-level 0 --save-case " + c + hard);
    EXPECT_LE(r.status, 2) << r.err;
    data_type d;
    ASSERT_GE(d.load(c.c_str()), 0);
    EXPECT_EQ(d.pos.cols, 10u);
    EXPECT_EQ(d.pos(0, 7), 2.0);
    EXPECT_EQ(d.connectB.cols, 4u);
    EXPECT_EQ(d.connectB(0, 3), 1u);
    EXPECT_EQ(d.connectE.cols, 1u);
    EXPECT_EQ(d.connectE(1, 0), 4u);
    // Node 0 is held by faces, node 5 by nothing: the one isolated hard node of every mode (mode
    // 2 takes each node that no face or edge holds; the background's nodes are not meshed).
    const std::vector<unsigned> isolated(d.isolated_nodes.begin(), d.isolated_nodes.end());
    EXPECT_EQ(isolated, std::vector<unsigned>{5});
    EXPECT_EQ(d.connectM.cols, std::string(job) == "regularize" ? 2u : 0u);
    if (std::string(job) == "regularize") {
      EXPECT_EQ(d.colors.size, 2u);
      EXPECT_EQ(d.colors[0], 4u);
    }
    ASSERT_EQ(d.metrics.size, 10u);
    EXPECT_EQ(d.metrics[5], 6.0);
    EXPECT_EQ(d.metrics[6], 9.0);
    ASSERT_EQ(d.background_mesh.cols, 1u);
    EXPECT_EQ(d.background_mesh(3, 0), 9u);
  }
}

// Catches a delaunay run that hands a surface's triangles to the library as hard faces
// unasked (each closed surface then ends in warning -15 and exit status 1), or that drops them
// when --hard-faces asks to keep them.
TEST(VoxfillCli, DelaunayTakesTheNodesOfASurface) {
  // A closed cube, outward, and a node inside.
  const std::string cube = in_folder("cube.off");
  write_text(cube,
             "OFF\n9 6 0\n0 0 0\n1 0 0\n1 1 0\n0 1 0\n0 0 1\n1 0 1\n1 1 1\n0 1 1\n0.4 0.5 0.6\n"
             "4 0 3 2 1\n4 4 5 6 7\n4 0 1 5 4\n4 1 2 6 5\n4 2 3 7 6\n4 3 0 4 7\n");
  using data_type = kelvo::voxfill::mesher::data_type;
  const std::string c = in_folder("cube.case");
  result r = voxfill("delaunay " + cube + " -o " + in_folder("cube.mesh") + " --save-case " + c);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_NE(r.out.find("Taking the nodes only; --hard-faces keeps the triangles and edges\n"),
            std::string::npos)
      << r.out;
  data_type d;
  ASSERT_GE(d.load(c.c_str()), 0);
  EXPECT_EQ(d.connectB.cols, 0u);
  EXPECT_EQ(d.isolated_nodes.size, 9u);
  mesh_file m;
  std::string e;
  ASSERT_TRUE(read_mesh_file(in_folder("cube.mesh"), m, e)) << e;
  EXPECT_EQ(m.node_count(), 9u);

  r = voxfill("delaunay " + cube + " -q -o " + in_folder("cube.mesh") + " --hard-faces " +
              "--save-case " + c);
  EXPECT_LE(r.status, 1) << r.err;
  ASSERT_GE(d.load(c.c_str()), 0);
  EXPECT_EQ(d.connectB.cols, 12u);
  EXPECT_EQ(d.isolated_nodes.size, 1u);
  EXPECT_EQ(voxfill("mesh " + cube + " -o " + in_folder("x.mesh") + " --hard-faces").status, 3);
}

// Catches an open surface that --no-strict does not close, or a strict run that writes a mesh.
TEST(VoxfillCli, NoStrictClosesAnOpenSurface) {
  // A cube without its top: four open edges.
  const std::string open = in_folder("open_cube.off"), out = in_folder("open_cube.mesh");
  write_text(open,
             "OFF\n8 5 0\n0 0 0\n1 0 0\n1 1 0\n0 1 0\n0 0 1\n1 0 1\n1 1 1\n0 1 1\n"
             "4 0 3 2 1\n4 0 1 5 4\n4 1 2 6 5\n4 2 3 7 6\n4 3 0 4 7\n");
  const result strict = voxfill("mesh " + open + " -o " + out);
  EXPECT_EQ(strict.status, 2) << strict.err;
  EXPECT_FALSE(fs::exists(out));
  const result r = voxfill("mesh " + open + " -o " + out + " --no-strict");
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.out.find("Closing boundary mesh...\n   Open edges                  : 4\n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.err.find("warning -15 (BOUNDARY MESH IS NOT WATERTIGHT)"), std::string::npos)
      << r.err;
  const result info = voxfill("info " + out);
  EXPECT_EQ(info.status, 0) << info.err;
  EXPECT_NE(info.out.find("Volume          : 1.000000E+00\n"), std::string::npos) << info.out;
}

// Catches a run that ends with no tets and calls it success, writing an empty mesh, and a mode
// that the tool hands to the library although no job has that number.
TEST(VoxfillCli, NoTetsIsNeverSuccess) {
  // Nodes and nothing hard: neither mode 0 nor mode 2 has anything to mesh.
  kelvo::voxfill::mesher::data_type d;
  ASSERT_TRUE(d.pos.resize(3, 5));
  for (unsigned j = 0; j < 5; ++j)
    for (unsigned k = 0; k < 3; ++k) d.pos(k, j) = double((7 * j + 3 * k) % 5);
  const std::string c = in_folder("nodes_only.case"), out = in_folder("empty.mesh");
  d.save(c.c_str(), 16);
  for (const char* mode : {"0", "2"}) {
    SCOPED_TRACE(mode);
    const result r = voxfill("replay " + c + " -q -o " + out + " --mode " + mode);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err,
              std::string("voxfill: no tets came out of mode ") + mode + " (" +
                  (mode[0] == '0' ? "volume mesh of a surface" : "Delaunay mesh of the nodes") +
                  ") and the library gave no reason (nothing to mesh in the input, or a job "
                  "that this version cannot do yet): nothing written\n");
    EXPECT_FALSE(fs::exists(out));
  }
  for (const char* mode : {"7", "-1"}) {
    const result r = voxfill("replay " + c + " -o " + out + " --mode " + mode);
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err.rfind("--mode: Value " + std::string(mode) + " not in range 0 to 2", 0), 0u)
        << r.err;
  }
}

// Catches a saved case that does not replay to the same mesh, bit for bit.
TEST(VoxfillCli, SaveCaseAndReplay) {
  const std::string cloud = lattice_xyz("replay.xyz", 4), c = in_folder("replay.case");
  ASSERT_EQ(
      voxfill("delaunay " + cloud + " -o " + in_folder("direct.msh") + " --save-case " + c).status,
      0);
  const result r = voxfill("replay " + c + " -o " + in_folder("again.msh"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("Mode 2 taken from the case"), std::string::npos);
  EXPECT_EQ(slurp(in_folder("again.msh")), slurp(in_folder("direct.msh")));
}

// Catches a case file that cannot be written (a full disk) reported as saved, and a case file
// written over a file that the run reads or writes.
TEST(VoxfillCli, SaveCaseChecksItsWriteAndSparesTheInputs) {
  const std::string cloud = lattice_xyz("spare.xyz", 3), out = in_folder("spare.mesh");
  const std::string before = slurp(cloud);
  const std::string full = in_folder("full.case");
  fs::create_symlink("/dev/full", full);
  result r = voxfill("delaunay " + cloud + " -o " + out + " --save-case " + full);
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.err, "voxfill: cannot write the case file " + full + ": No space left on device\n");
  EXPECT_EQ(r.out.find("Case saved"), std::string::npos);

  const std::string spelled = (folder() / "." / "spare.xyz").string();
  r = voxfill("delaunay " + cloud + " -o " + out + " --save-case " + spelled);
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.err, "voxfill: --save-case " + spelled + " would overwrite the input " + cloud +
                       ": give another file\n");
  EXPECT_EQ(slurp(cloud), before);
  r = voxfill("delaunay " + cloud + " -o " + out + " --save-case " + out);
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.err, "voxfill: --save-case " + out + " would overwrite the output " + out +
                       ": give another file\n");

  const std::string c = in_folder("spare.case");
  ASSERT_EQ(voxfill("delaunay " + cloud + " -q -o " + out + " --save-case " + c).status, 0);
  const std::string saved = slurp(c);
  r = voxfill("replay " + c + " -q --save-case " + c);
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(slurp(c), saved);
  kelvo::voxfill::mesher::data_type d;
  EXPECT_GE(d.load(c.c_str()), 0);
  EXPECT_EQ(d.isolated_nodes.size, 27u);
}

// Catches a demo that fails, writes nothing, or does not count what the mesh holds; and an
// info that misreads what was written.
TEST(VoxfillCli, DemoAndInfo) {
  const result r = voxfill("demo -o " + in_folder("demo"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("Mode 0 (volume mesh of a surface)"), std::string::npos);
  EXPECT_NE(r.out.find(" of 1472 boundary triangles, "), std::string::npos);
  EXPECT_NE(r.out.find("Demo: 2 subdomains: colour 0: "), std::string::npos);
  EXPECT_NE(r.out.find("*    Kelvo Voxfill(R) Iso ("), std::string::npos);
  mesh_file m, v;
  std::string e;
  ASSERT_TRUE(read_mesh_file(in_folder("demo/demo.mesh"), m, e)) << e;
  ASSERT_TRUE(read_mesh_file(in_folder("demo/demo.vtu"), v, e)) << e;
  EXPECT_EQ(m.tets, v.tets);
  EXPECT_GT(m.tet_count(), 2000u);
  const result i = voxfill("info " + in_folder("demo/demo.mesh"));
  EXPECT_EQ(i.status, 0);
  EXPECT_NE(i.out.find("Tets            : " + std::to_string(m.tet_count()) + "\n"),
            std::string::npos);
  EXPECT_NE(i.out.find("below 0 (inverted)          0\n"), std::string::npos);
}

// The vector lanes of the geometry must give the scalar code's bits: the demo's mesh, made with
// them and with them turned off, is the same file.
TEST(VoxfillCli, VectorLanesLeaveTheMeshAlone) {
  const result on = voxfill("demo -o " + in_folder("lanes_on"));
  const result off = voxfill_env("VOXFILL_VECTOR_LANES=off", "demo -o " + in_folder("lanes_off"));
  ASSERT_EQ(on.status, 0) << on.err;
  ASSERT_EQ(off.status, 0) << off.err;
  const std::string a = slurp(in_folder("lanes_on/demo.mesh"));
  EXPECT_GT(a.size(), 100000u);
  EXPECT_TRUE(a == slurp(in_folder("lanes_off/demo.mesh")));
}

// Catches a Ctrl-C that kills the run, loses the mesh, or does not end with warning -10 and
// status 1.
TEST(VoxfillCli, InterruptWritesTheMeshSoFar) {
  // Two million points: the run is still working when the signal comes.
  const std::string cloud = in_folder("big.xyz"), out = in_folder("big.mesh");
  {
    std::string text;
    text.reserve(2000000 * 27);
    std::mt19937 rng(3);
    char buf[32];
    for (unsigned i = 0; i < 3 * 2000000u; ++i) {
      const auto r = std::to_chars(buf, buf + sizeof buf, double(rng() % 1000000) * 1e-6,
                                   std::chars_format::fixed, 6);
      text.append(buf, r.ptr);
      text += i % 3 == 2 ? '\n' : ' ';
    }
    write_text(cloud, text);
  }
  int pipe_fd[2];
  ASSERT_EQ(pipe(pipe_fd), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe_fd[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, pipe_fd[0]);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::string bin = VOXFILL_BIN, sub = "delaunay", o = "-o";
  char* argv[] = {bin.data(),
                  sub.data(),
                  const_cast<char*>(cloud.c_str()),
                  o.data(),
                  const_cast<char*>(out.c_str()),
                  nullptr};
  pid_t pid;
  ASSERT_EQ(posix_spawn(&pid, VOXFILL_BIN, &actions, nullptr, argv, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(pipe_fd[1]);
  // The tool prints the line "Mode 2 ..." just before the run starts.
  std::string text;
  char buf[4096];
  bool sent = false;
  ssize_t n;
  while ((n = read(pipe_fd[0], buf, sizeof buf)) > 0) {
    text.append(buf, std::size_t(n));
    if (!sent && text.find("Mode 2 (") != std::string::npos) {
      kill(pid, SIGINT);
      sent = true;
    }
  }
  close(pipe_fd[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(sent);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_NE(text.find("Warning: -10 (INTERRUPTION RAISED)."), std::string::npos);
  mesh_file m;
  std::string e;
  ASSERT_TRUE(read_mesh_file(out, m, e)) << e;
  EXPECT_LT(m.node_count(), 2000000u);
  EXPECT_NE(text.find("Wrote " + out + ": " + std::to_string(m.node_count()) + " nodes"),
            std::string::npos);
  fs::remove(cloud);
}

// Starts the tool with `args`, stdout into `out_fd`, stderr into `err_path`, SIGINT and SIGPIPE
// at their default actions as in a shell. The process id, or -1.
pid_t spawn_voxfill(const std::vector<std::string>& args, int out_fd, const std::string& err_path,
                    int close_fd) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
  if (close_fd >= 0) posix_spawn_file_actions_addclose(&actions, close_fd);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err_path.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF);
  std::vector<std::string> all = {VOXFILL_BIN};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : all) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, VOXFILL_BIN, &actions, &attr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  return pid;
}

// Catches a mesh lost to a reader of stdout that has gone (SIGPIPE), or to one Ctrl-C that comes
// after the run but before the file is written.
TEST(VoxfillCli, TheMeshOutlivesStdoutAndALateCtrlC) {
  const std::string cloud = lattice_xyz("late.xyz", 5), err = in_folder("late_err.txt");
  {
    // `voxfill delaunay ... | head -1`, with a reader that is gone before the first line.
    const std::string out = in_folder("piped.mesh");
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    close(p[0]);
    const pid_t pid = spawn_voxfill({"delaunay", cloud, "-o", out}, p[1], err, -1);
    close(p[1]);
    ASSERT_GT(pid, 0);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0) << slurp(err);
    mesh_file m;
    std::string e;
    ASSERT_TRUE(read_mesh_file(out, m, e)) << e;
    EXPECT_EQ(m.node_count(), 125u);
  }
  // The output is a named pipe: the tool blocks in opening it once the run is over and its
  // report printed, which is when Ctrl-C comes; only then is the pipe read.
  const std::string fifo = in_folder("late.mesh");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  const pid_t pid = spawn_voxfill({"delaunay", cloud, "-o", fifo}, p[1], err, p[0]);
  close(p[1]);
  ASSERT_GT(pid, 0);
  std::string text;
  char buf[4096];
  ssize_t n;
  while (text.find("Total time") == std::string::npos && (n = read(p[0], buf, sizeof buf)) > 0)
    text.append(buf, std::size_t(n));
  ASSERT_NE(text.find("Total time"), std::string::npos) << text;
  kill(pid, SIGINT);
  // Read and write ends held here: opening never blocks, and the tool's exit tells the end.
  const int f = open(fifo.c_str(), O_RDWR | O_NONBLOCK);
  ASSERT_GE(f, 0);
  std::string mesh;
  int status = 0;
  bool done = false;
  while (true) {
    while ((n = read(f, buf, sizeof buf)) > 0) mesh.append(buf, std::size_t(n));
    if (done) break;
    done = waitpid(pid, &status, WNOHANG) == pid;
    if (!done) usleep(2000);
  }
  close(f);
  while ((n = read(p[0], buf, sizeof buf)) > 0) text.append(buf, std::size_t(n));
  close(p[0]);
  ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(slurp(err), "voxfill: Ctrl-C after the run: the mesh is whole and written\n");
  mesh_file m;
  std::string e;
  ASSERT_TRUE(read_mesh_bytes(file_format::medit, "late.mesh", mesh, m, e)) << e;
  EXPECT_EQ(m.node_count(), 125u);
  EXPECT_NE(text.find("Wrote " + fifo + ": 125 nodes"), std::string::npos) << text;
}

// Catches the OFF reader or the surface report failing on real surfaces users bring.
TEST(VoxfillCli, RealSurfaces) {
  const fs::path data = VOXFILL_SHARED_DATA;
  if (!fs::is_directory(data)) GTEST_SKIP() << "no folder " << data << " of real surfaces";
  for (const char* name : {"cube.off", "rotor.off", "handle.off", "fandisk.off", "bunny00.off"}) {
    SCOPED_TRACE(name);
    const result r = voxfill("info " + (data / name).string());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Open edges      : 0\n"), std::string::npos);
    EXPECT_NE(r.out.find("Enclosed volume : "), std::string::npos);
    EXPECT_EQ(r.out.find("Enclosed volume : -"), std::string::npos);
  }
  const result r = voxfill("info " + (data / "cube.off").string());
  EXPECT_NE(r.out.find("Enclosed volume : 8.000000E+00"), std::string::npos);
}

class cleanup : public ::testing::Environment {
 public:
  void TearDown() override { fs::remove_all(folder()); }
};
const auto* const registered = ::testing::AddGlobalTestEnvironment(new cleanup);

}  // namespace
