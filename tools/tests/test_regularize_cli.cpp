// voxfill regularize on files: tets and their colours in every format that holds them, the
// skin and the walls between colours kept, tets positive for an independent reader, the
// quality before and after in the report, and the exit status of bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <numbers>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "cli_run.h"
#include "mesh_io/mesh_file.h"

namespace {

using namespace kelvo::mesh_io;
using namespace cli_run;

// An n x n x n block of unit cubes, six tets each (every cube cut along the same diagonal, so
// that neighbours share their cut faces), the inner nodes shaken by up to 0.15 on each axis:
// poor tets, none inverted. Tets in the cubes with x below n / 2 get colour `c0`, the others
// `c1`. Every tet positive by the right-hand rule.
mesh_file shaken_block(unsigned n, unsigned c0, unsigned c1) {
  mesh_file m;
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> shake(-0.15, 0.15);
  const auto id = [n](unsigned i, unsigned j, unsigned k) {
    return i + (n + 1) * (j + (n + 1) * k);
  };
  for (unsigned k = 0; k <= n; ++k)
    for (unsigned j = 0; j <= n; ++j)
      for (unsigned i = 0; i <= n; ++i) {
        const bool inner = i > 0 && i < n && j > 0 && j < n && k > 0 && k < n;
        const double d[3] = {shake(rng), shake(rng), shake(rng)};
        m.pos.insert(m.pos.end(), {i + (inner ? d[0] : 0.0), j + (inner ? d[1] : 0.0),
                                   k + (inner ? d[2] : 0.0)});
      }
  static constexpr unsigned axes[6][3] = {{0, 1, 2}, {0, 2, 1}, {1, 0, 2},
                                          {1, 2, 0}, {2, 0, 1}, {2, 1, 0}};
  for (unsigned k = 0; k < n; ++k)
    for (unsigned j = 0; j < n; ++j)
      for (unsigned i = 0; i < n; ++i)
        for (const auto& a : axes) {
          unsigned c[3] = {i, j, k}, v[4];
          v[0] = id(c[0], c[1], c[2]);
          for (unsigned s = 0; s < 3; ++s) {
            ++c[a[s]];
            v[s + 1] = id(c[0], c[1], c[2]);
          }
          const double* x = m.pos.data();
          if (tet_volume(x + 3 * v[0], x + 3 * v[1], x + 3 * v[2], x + 3 * v[3]) < 0.0)
            std::swap(v[1], v[2]);
          m.tets.insert(m.tets.end(), v, v + 4);
          m.tet_refs.push_back(2 * i < n ? c0 : c1);
        }
  return m;
}

using point = std::array<double, 3>;
using face = std::array<point, 3>;

// The faces on the skin and between colours, by their corners' coordinates (sorted), each with
// the colours on its two sides (the outside being none): what regularisation must keep exactly.
std::map<face, std::pair<long, long>> walls(const mesh_file& m) {
  static constexpr unsigned sides[4][3] = {{1, 2, 3}, {0, 2, 3}, {0, 1, 3}, {0, 1, 2}};
  std::map<face, std::vector<long>> all;
  for (unsigned t = 0; t < m.tet_count(); ++t)
    for (const auto& s : sides) {
      face f;
      for (unsigned k = 0; k < 3; ++k) {
        const unsigned v = m.tets[4 * t + s[k]];
        f[k] = {m.pos[3 * v], m.pos[3 * v + 1], m.pos[3 * v + 2]};
      }
      std::sort(f.begin(), f.end());
      all[f].push_back(m.tet_refs.empty() ? 0 : long(m.tet_refs[t]));
    }
  std::map<face, std::pair<long, long>> kept;
  for (auto& [f, c] : all) {
    std::sort(c.begin(), c.end());
    if (c.size() == 1)
      kept[f] = {-1, c[0]};
    else if (c.size() > 2 || c[0] != c[1])
      kept[f] = {c[0], c.back()};  // a face in three tets is a fault that must show
  }
  return kept;
}

// Volume of each colour.
std::map<unsigned, double> colour_volumes(const mesh_file& m) {
  std::map<unsigned, double> v;
  const double* x = m.pos.data();
  for (unsigned t = 0; t < m.tet_count(); ++t) {
    const unsigned* n = &m.tets[4 * t];
    v[m.tet_refs.empty() ? 0 : m.tet_refs[t]] +=
        tet_volume(x + 3 * n[0], x + 3 * n[1], x + 3 * n[2], x + 3 * n[3]);
  }
  return v;
}

double worst(const mesh_file& m) {
  const std::vector<double> q = shape_qualities(m);
  return *std::min_element(q.begin(), q.end());
}

// TetGen's lists of `m`, numbered from 1, the colour as region attribute.
void write_tetgen(const std::string& stem, const mesh_file& m) {
  std::ostringstream node, ele;
  node.precision(17);
  node << m.node_count() << " 3 0 0\n";
  for (unsigned v = 0; v < m.node_count(); ++v)
    node << v + 1 << ' ' << m.pos[3 * v] << ' ' << m.pos[3 * v + 1] << ' ' << m.pos[3 * v + 2]
         << '\n';
  ele << m.tet_count() << " 4 1\n";
  for (unsigned t = 0; t < m.tet_count(); ++t)
    ele << t + 1 << ' ' << m.tets[4 * t] + 1 << ' ' << m.tets[4 * t + 1] + 1 << ' '
        << m.tets[4 * t + 2] + 1 << ' ' << m.tets[4 * t + 3] + 1 << ' ' << m.tet_refs[t] << '\n';
  write_text(stem + ".node", node.str());
  write_text(stem + ".ele", ele.str());
}

mesh_file read_back(const std::string& path) {
  mesh_file m;
  std::string e;
  EXPECT_TRUE(read_mesh_file(path, m, e)) << e;
  return m;
}

// The worst quality of the run's report, in and out.
std::pair<double, double> reported_quality(const std::string& report) {
  double in = -2.0, out = -2.0;
  const std::size_t a = report.find("Qmin in         : "), b = report.find("Qmin            : ");
  if (a != std::string::npos) std::sscanf(report.c_str() + a + 18, "%lf", &in);
  if (b != std::string::npos) std::sscanf(report.c_str() + b + 18, "%lf", &out);
  return {in, out};
}

// Prints, for each file named, its tet count, how many tets are negative by the right-hand rule
// det(n1 - n0, n2 - n0, n3 - n0), and the colours with their tet counts as the format stores
// them (Medit's references, the VTK cell data "colour", Gmsh's physical tags less one).
constexpr const char* tets_and_colours_py = R"(import sys, meshio, numpy as np
for path in sys.argv[1:]:
    m = meshio.read(path)
    blocks = [i for i, b in enumerate(m.cells) if b.type == "tetra"]
    tets = np.concatenate([m.cells[i].data for i in blocks])
    p = m.points[tets]
    det = np.linalg.det(np.stack([p[:, 1] - p[:, 0], p[:, 2] - p[:, 0], p[:, 3] - p[:, 0]], 1))
    for name, shift in (("medit:ref", 0), ("colour", 0), ("gmsh:physical", 1)):
        if name in m.cell_data:
            refs = np.concatenate([m.cell_data[name][i] for i in blocks]).astype(int) - shift
            break
    values, counts = np.unique(refs, return_counts=True)
    print(path, len(tets), int((det < 0).sum()),
          ",".join("%d:%d" % (v, c) for v, c in zip(values, counts)))
)";

// Catches colours lost, shifted or mixed up on the way through a format, tets written turned
// over, skin or wall faces moved or dropped, a volume that changes, and a report that does not
// tell the worst tet before and after.
TEST(VoxfillRegularize, ColoursSkinAndWallsRoundTripInEveryFormat) {
  const mesh_file block = shaken_block(4, 3, 8);
  const auto block_walls = walls(block);
  const auto block_volumes = colour_volumes(block);
  ASSERT_EQ(block_volumes.size(), 2u);
  const std::string stem = in_folder("block");
  std::string error;
  for (const char* ext : {".mesh", ".vtu", ".msh"})
    ASSERT_TRUE(write_mesh_file(stem + ext, block, error)) << error;
  write_tetgen(stem, block);

  std::string outputs;
  for (const char* in : {".mesh", ".vtu", ".msh", ".ele"}) {
    SCOPED_TRACE(in);
    // A .ele comes back as .mesh: the tool writes .mesh, .vtu and .msh.
    const std::string out = in_folder(std::string("regular") + (in[1] == 'e' ? "_ele.mesh" : in));
    outputs += " " + out;
    const result r = voxfill("regularize " + stem + in + " -o " + out);
    ASSERT_LE(r.status, 1) << r.err;
    EXPECT_NE(r.out.find("Initialization.\nRefine mesh.\nRegularize mesh.\nFinalize mesh.\n"),
              std::string::npos)
        << r.out;
    const mesh_file m = read_back(out);
    ASSERT_GT(m.tet_count(), 0u);
    EXPECT_EQ(walls(m), block_walls);
    const auto volumes = colour_volumes(m);
    ASSERT_EQ(volumes.size(), 2u);
    for (const auto& [colour, v] : block_volumes) EXPECT_NEAR(volumes.at(colour), v, 1e-12 * v);

    const auto [q_in, q_out] = reported_quality(r.out);
    EXPECT_NEAR(q_in, worst(block), 1e-6) << r.out;
    EXPECT_NEAR(q_out, worst(m), 1e-6) << r.out;
    EXPECT_GT(q_out, 0.0);
  }

  const std::string python = python_with_meshio();
  if (python.empty())
    GTEST_SKIP() << "meshio is not installed (Debian package python3-meshio): the outputs "
                    "cannot be read by an independent reader";
  std::istringstream lines(run_python(python, tets_and_colours_py, outputs));
  std::string path, colours;
  unsigned tets = 0, inverted = 0, files = 0;
  while (lines >> path >> tets >> inverted >> colours) {
    SCOPED_TRACE(path);
    ++files;
    EXPECT_EQ(inverted, 0u);
    const mesh_file m = read_back(path);
    EXPECT_EQ(tets, m.tet_count());
    unsigned low = 0;
    for (unsigned c : m.tet_refs) low += c == 3;
    EXPECT_EQ(colours, "3:" + std::to_string(low) + ",8:" + std::to_string(tets - low));
  }
  EXPECT_EQ(files, 4u);
}

// Catches a run that is not repeatable bit for bit, an --optim-level 0 that changes the mesh, an
// input turned inside out that comes back the right way (or worse), and bad input that does not
// exit with the right status and the library's words.
TEST(VoxfillRegularize, RepeatableLevelZeroInvertedAndBadInput) {
  const mesh_file block = shaken_block(3, 0, 1);
  const std::string in = in_folder("small.mesh");
  std::string error;
  ASSERT_TRUE(write_mesh_file(in, block, error)) << error;
  const std::string a = in_folder("a.msh"), b = in_folder("b.msh");
  ASSERT_LE(voxfill("regularize " + in + " -q -o " + a).status, 1);
  ASSERT_LE(voxfill("regularize " + in + " -q -o " + b).status, 1);
  EXPECT_EQ(slurp(a), slurp(b));

  // Level 0: the same tets, whatever the numbering.
  const std::string zero = in_folder("zero.mesh");
  ASSERT_LE(voxfill("regularize " + in + " -q --optim-level 0 -o " + zero).status, 1);
  const auto tets_by_place = [](const mesh_file& m) {
    std::set<std::array<point, 4>> s;
    for (unsigned t = 0; t < m.tet_count(); ++t) {
      std::array<point, 4> q;
      for (unsigned k = 0; k < 4; ++k) {
        const unsigned v = m.tets[4 * t + k];
        q[k] = {m.pos[3 * v], m.pos[3 * v + 1], m.pos[3 * v + 2]};
      }
      std::sort(q.begin(), q.end());
      s.insert(q);
    }
    return s;
  };
  EXPECT_EQ(tets_by_place(read_back(zero)), tets_by_place(block));

  // Every tet turned over: the mesh comes back turned over, with its walls.
  mesh_file inside_out = block;
  for (unsigned t = 0; t < inside_out.tet_count(); ++t)
    std::swap(inside_out.tets[4 * t + 1], inside_out.tets[4 * t + 2]);
  const std::string inv = in_folder("inverted.mesh"), inv_out = in_folder("inverted_out.mesh");
  ASSERT_TRUE(write_mesh_file(inv, inside_out, error)) << error;
  result r = voxfill("regularize " + inv + " -o " + inv_out);
  ASSERT_LE(r.status, 1) << r.err;
  const mesh_file back = read_back(inv_out);
  const std::vector<double> q = shape_qualities(back);
  EXPECT_LT(*std::max_element(q.begin(), q.end()), 0.0);
  EXPECT_EQ(walls(back), walls(block));

  // One tet turned over among positive ones: its faces match no neighbour's.
  mesh_file flipped = block;
  std::swap(flipped.tets[4 * 7 + 1], flipped.tets[4 * 7 + 2]);
  const std::string bad = in_folder("flipped.mesh");
  ASSERT_TRUE(write_mesh_file(bad, flipped, error)) << error;
  r = voxfill("regularize " + bad + " -q -o " + in_folder("flipped_out.mesh"));
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err.rfind("voxfill: error -102 (NON CONFORMAL INPUT MESH): Check input mesh.", 0), 0u)
      << r.err;
  // A surface has no tets to regularise; nor has a missing file anything.
  write_text(in_folder("tri.off"), "OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n");
  r = voxfill("regularize " + in_folder("tri.off") + " -o " + in_folder("x.mesh"));
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.err, "voxfill: " + in_folder("tri.off") +
                       ": expected tetrahedra: 'regularize' improves a tet mesh\n");
  EXPECT_EQ(voxfill("regularize " + in_folder("none.ele") + " -o " + in_folder("x.mesh")).status,
            3);
}

// Catches a TetGen mesh, as the tetgen command writes it, that the tool misreads or does not
// hand back with its surface whole and its volume.
TEST(VoxfillRegularize, TetgenMeshOfAGeneratedSurface) {
  if (std::system("command -v tetgen >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "tetgen is not installed (Debian package tetgen): no starting mesh";
  // A torus of 24 x 8 quads split into triangles, outward.
  const unsigned nu = 24, nv = 8;
  std::ostringstream off;
  off.precision(17);
  off << "OFF\n" << nu * nv << ' ' << 2 * nu * nv << " 0\n";
  for (unsigned i = 0; i < nu; ++i)
    for (unsigned j = 0; j < nv; ++j) {
      const double u = 2 * std::numbers::pi * i / nu, v = 2 * std::numbers::pi * j / nv,
                   r = 3.0 + std::cos(v);
      off << r * std::cos(u) << ' ' << r * std::sin(u) << ' ' << std::sin(v) << '\n';
    }
  for (unsigned i = 0; i < nu; ++i)
    for (unsigned j = 0; j < nv; ++j) {
      const unsigned a = i * nv + j, b = (i + 1) % nu * nv + j,
                     c = (i + 1) % nu * nv + (j + 1) % nv, d = i * nv + (j + 1) % nv;
      off << "3 " << a << ' ' << b << ' ' << c << "\n3 " << a << ' ' << c << ' ' << d << '\n';
    }
  const std::string surface = in_folder("torus.off");
  write_text(surface, off.str());
  ASSERT_EQ(
      std::system(("cd " + folder().string() + " && tetgen -pYQ torus.off >/dev/null").c_str()), 0);
  const std::string start = in_folder("torus.1.ele"), out = in_folder("torus.vtu");
  const result r = voxfill("regularize " + start + " -o " + out);
  ASSERT_LE(r.status, 1) << r.err;
  const mesh_file before = read_back(start), after = read_back(out);
  EXPECT_EQ(walls(after), walls(before));
  EXPECT_EQ(walls(after).size(), 2 * nu * nv);
  EXPECT_GT(worst(after), 0.0);
  EXPECT_NEAR(colour_volumes(after)[0], colour_volumes(before)[0],
              1e-12 * colour_volumes(before)[0]);
}

// Catches a progress bar that does not say which phase the run is in. The bar is drawn on a
// terminal only: `script` gives the tool one.
TEST(VoxfillRegularize, ProgressBarNamesThePhase) {
  if (std::system("command -v script >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "no `script` command (Debian package bsdutils) to give the tool a terminal";
  std::string error;
  const std::string in = in_folder("bar.mesh"), screen = in_folder("screen.txt");
  ASSERT_TRUE(write_mesh_file(in, shaken_block(3, 0, 1), error)) << error;
  const std::string run =
      std::string(VOXFILL_BIN) + " regularize " + in + " -o " + in_folder("bar_out.mesh");
  ASSERT_EQ(std::system(("script -qec '" + run + "' /dev/null >" + screen).c_str()), 0);
  const std::string text = slurp(screen);
  // The bar's line ends "NN%  T s  Phase": the phase messages on stdout follow a cleared line.
  for (const char* phase : {" s  Initialization", " s  Regularize mesh", " s  Finalize mesh"})
    EXPECT_NE(text.find(phase), std::string::npos) << phase << " in\n" << text;
}

}  // namespace
