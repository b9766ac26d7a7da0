// Mode 1 through the public interface: the skin and the walls between colours kept face by face,
// the volume, the quality never worse than the input's, determinism, interruption and bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "delaunay/geometry.h"
#include "delaunay/mesh_check.h"
#include "mesh_fixtures.h"
#include "voxfill/mesher_th4.h"

using namespace kelvo::voxfill;
using kelvo::dense1D;
using kelvo::dense2D;
using data_type = mesher::data_type;

namespace {

using face = std::array<unsigned, 3>;

face sorted(unsigned a, unsigned b, unsigned c) {
  face f = {a, b, c};
  std::sort(f.begin(), f.end());
  return f;
}

// A Delaunay mesh of a random cloud (slivers and all) as a mode 1 input, coloured by the side of
// the plane x = 0 that each tet's centroid is on.
data_type cloud_input(unsigned n, unsigned seed, bool coloured) {
  mesh_store m;
  EXPECT_TRUE(fixtures::delaunay_cloud(m, n, seed));
  data_type d = fixtures::record_of_store(m);
  if (coloured)
    for (unsigned t = 0; t < m.tets.cols(); ++t) {
      const unsigned* r = m.tets.row(t);
      double x = 0.0;
      for (unsigned i = 0; i < 4; ++i) x += m.nodes.row(r[i])[0];
      d.colors.push_back(x < 0.0 ? 1u : 4u);
    }
  return d;
}

// Faces of the skin and of the walls between colours, with the colour on each side.
std::map<face, std::pair<unsigned, unsigned>> walls(const dense2D<unsigned>& tets,
                                                    const dense1D<unsigned>& colors) {
  std::map<face, std::vector<unsigned>> sides;
  for (unsigned t = 0; t < tets.cols; ++t)
    for (unsigned f = 0; f < 4; ++f) {
      const unsigned* fn = tet_face_nodes[f];
      sides[sorted(tets(fn[0], t), tets(fn[1], t), tets(fn[2], t))].push_back(
          colors.size ? colors[t] : 0u);
    }
  std::map<face, std::pair<unsigned, unsigned>> out;
  for (const auto& [f, c] : sides) {
    if (c.size() == 1) out[f] = {c[0], NONE};
    if (c.size() == 2 && c[0] != c[1]) out[f] = {std::min(c[0], c[1]), std::max(c[0], c[1])};
  }
  return out;
}

double volume_of(const data_type& d) {
  double v = 0.0;
  for (unsigned t = 0; t < d.connectM.cols; ++t) {
    const double* p[4];
    for (unsigned k = 0; k < 4; ++k) p[k] = d.pos.col(d.connectM(k, t));
    v += orient_det(p[0], p[1], p[2], p[3]);
  }
  return v / 6;
}

// The output is a sound mesh, keeps every wall face with its colours, keeps the boundary nodes
// where they were, has the input's volume, and is no worse than the input.
void expect_regularised(const data_type& in, const data_type& out, bool finished = true) {
  ASSERT_GT(out.tet_count, 0u);
  mesh_store s;
  ASSERT_TRUE(fixtures::load_output(s, out));
  if (volume_of(in) < 0.0) {  // an inverted input comes back inverted: check it turned
    for (unsigned t = 0; t < s.tets.cols(); ++t) {
      std::swap(s.tets(1, t), s.tets(2, t));
      std::swap(s.neighbors(1, t), s.neighbors(2, t));
    }
  }
  mesh_check_options o;
  o.positive_quality = o.stored_qualities = true;
  const mesh_check_result r = check_mesh(s, o);
  EXPECT_TRUE(r.ok) << r.text;
  const auto before = walls(in.connectM, in.colors), after = walls(out.connectM, out.colors);
  EXPECT_EQ(before, after);
  for (const auto& [f, c] : before)
    for (unsigned k = 0; k < 3; ++k)
      for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(out.pos(i, f[k]), in.pos(i, f[k]));
  const double v0 = volume_of(in), v1 = volume_of(out);
  EXPECT_NEAR(v1, v0, 1e-12 * std::fabs(v0));
  // A first-stage move may trade some worst quality for merit; a finished run has made up for it
  // on these meshes, an interrupted one need not have.
  if (finished) {
    // Equal up to rounding: a tet kept as it was may come back as another row order of its nodes.
    EXPECT_GE(out.min_quality, out.min_quality_in * (1.0 - 1e-12))
        << out.min_quality - out.min_quality_in;
  }
}

}  // namespace

TEST(Regularization, KeepsSkinWallsAndVolumeAndImproves) {
  for (const bool coloured : {false, true}) {
    const data_type in = cloud_input(400, 3, coloured);
    data_type out = cloud_input(400, 3, coloured);
    mesher m;
    m.settings.mode = 1;
    m.run(out);
    ASSERT_EQ(out.error_code, 0) << out.msg_title;
    expect_regularised(in, out);
    EXPECT_GT(out.min_quality, 2 * out.min_quality_in);
    std::printf("coloured %d: tets %u -> %u, quality %.4f -> %.4f, bound %.3f\n", coloured,
                in.connectM.cols, out.tet_count, out.min_quality_in, out.min_quality,
                out.quality_bound);
    // The boundary handed back is the faces held: skin and walls.
    EXPECT_EQ(out.connectB.cols, walls(in.connectM, in.colors).size());
    data_type again = cloud_input(400, 3, coloured);
    m.run(again);
    ASSERT_EQ(again.tet_count, out.tet_count);
    for (unsigned t = 0; t < out.tet_count; ++t)
      for (unsigned k = 0; k < 4; ++k) ASSERT_EQ(again.connectM(k, t), out.connectM(k, t));
    for (unsigned j = 0; j < out.pos.cols; ++j)
      for (unsigned i = 0; i < 3; ++i) ASSERT_EQ(again.pos(i, j), out.pos(i, j));
  }
}

namespace {

// The tetgen -pYQ mesh of a shared surface (its boundary triangles kept, few inner nodes), read
// from .node and .ele. Empty with a reason when the surface or tetgen is missing.
data_type tetgen_input(const std::string& name, std::string& why) {
  const std::string src = std::string(VOXFILL_SHARED_DATA) + "/" + name + ".off";
  if (!std::ifstream(src)) {
    why = "no " + src;
    return data_type();
  }
  const std::string dir = ::testing::TempDir() + "voxfill_tg_" + name;
  const std::string cmd = "mkdir -p " + dir + " && cp " + src + " " + dir + "/ && cd " + dir +
                          " && tetgen -pYQ " + name + ".off > /dev/null 2>&1";
  if (std::system(cmd.c_str()) != 0) {
    why = "tetgen is not installed or failed on " + name;
    return data_type();
  }
  std::ifstream nodes(dir + "/" + name + ".1.node"), eles(dir + "/" + name + ".1.ele");
  unsigned n = 0, dim = 0, attrs = 0, marks = 0, t = 0, per = 0, regions = 0;
  nodes >> n >> dim >> attrs >> marks;
  dense2D<double> pos(3, n);
  unsigned base = 0;
  for (unsigned j = 0; j < n; ++j) {
    unsigned id;
    nodes >> id >> pos(0, j) >> pos(1, j) >> pos(2, j);
    if (j == 0) base = id;  // tetgen numbers as its input did, here from 0
    for (unsigned k = 0; k < attrs + marks; ++k) {
      double skip;
      nodes >> skip;
    }
  }
  eles >> t >> per >> regions;
  dense2D<unsigned> tets(4, t);
  for (unsigned j = 0; j < t; ++j) {
    unsigned id;
    eles >> id >> tets(0, j) >> tets(1, j) >> tets(2, j) >> tets(3, j);
    for (unsigned k = 0; k < 4; ++k) tets(k, j) -= base;
    for (unsigned k = 0; k < regions; ++k) {
      double skip;
      eles >> skip;
    }
  }
  if (!nodes || !eles) {
    why = "could not read tetgen's output for " + name;
    return data_type();
  }
  data_type d(pos, dense2D<unsigned>());
  d.connectM = tets;
  return d;
}

}  // namespace

// Real starting meshes: every boundary triangle and boundary node kept, volume, no worse.
TEST(Regularization, TetgenMeshesOfRealSurfaces) {
  for (const char* name : {"cube", "rotor", "elephant", "knot1", "fandisk"}) {
    std::string why;
    const data_type in = tetgen_input(name, why);
    if (in.connectM.empty()) {
      std::printf("skipped %s: %s\n", name, why.c_str());
      continue;
    }
    data_type out = tetgen_input(name, why);
    mesher m;
    m.settings.mode = 1;
    m.run(out);
    EXPECT_TRUE(out.error_code == 0) << name << ": " << out.msg_title;
    expect_regularised(in, out);
    // These surfaces have no needles, and their meshes no inner node: filled from the skin, the
    // worst tet comes within reach of the best apex of the worst skin triangle.
    if (std::string(name) != "rotor") {
      EXPECT_GT(out.min_quality, 0.25) << name;
    }
    if (std::string(name) == "elephant") {
      // Without the refinement only moves and local insertions work on the tets.
      data_type moved = tetgen_input(name, why);
      m.settings.refine = false;
      m.run(moved);
      EXPECT_EQ(moved.error_code, 0) << moved.msg_title;
      expect_regularised(in, moved);
      EXPECT_GT(moved.min_quality, 0.1);
      EXPECT_LT(moved.min_quality, out.min_quality);
      EXPECT_LT(moved.used_node_count, out.used_node_count);
      EXPECT_EQ(moved.refine_time, 0.0);
    }
    std::printf("%s: tets %u -> %u, worst %.4f -> %.4f, bound %.3f, %.2f s\n", name,
                in.connectM.cols, out.tet_count, out.min_quality_in, out.min_quality,
                out.quality_bound, out.total_time);
  }
}

// A flipped tet is a non-conformal input; an input turned inside out comes back so; level 0
// changes nothing; a node limit at the node count makes no node.
// A cube in six tets, five of them round the diagonal between two opposite corners: no move on
// their nodes or edges helps, but a node at the centre joined to the twelve skin triangles does (a
// worst tet of 0.555 against 0.509). Without room for a node the mesh stays as it was.
TEST(Regularization, CubeInSixTetsGetsACentreNode) {
  const double corners[8][3] = {{-1, -1, -1}, {-1, 1, -1}, {1, 1, -1}, {1, -1, -1},
                                {-1, -1, 1},  {-1, 1, 1},  {1, 1, 1},  {1, -1, 1}};
  const unsigned rows[6][4] = {{1, 4, 6, 5}, {7, 1, 3, 4}, {3, 1, 0, 4},
                               {1, 7, 3, 2}, {7, 1, 6, 2}, {7, 1, 4, 6}};
  dense2D<double> pos(3, 8);
  for (unsigned j = 0; j < 8; ++j)
    for (unsigned i = 0; i < 3; ++i) pos(i, j) = corners[j][i];
  // The record shares its tables: the input is built twice.
  auto cube = [&] {
    dense2D<double> own(3, 8);
    for (unsigned j = 0; j < 8; ++j)
      for (unsigned i = 0; i < 3; ++i) own(i, j) = pos(i, j);
    data_type d(own, dense2D<unsigned>());
    d.connectM.resize(4, 6);
    for (unsigned c = 0; c < 6; ++c) {
      unsigned row[4] = {rows[c][0], rows[c][1], rows[c][2], rows[c][3]};
      if (orient_det(pos.col(row[0]), pos.col(row[1]), pos.col(row[2]), pos.col(row[3])) < 0.0)
        std::swap(row[1], row[2]);
      for (unsigned k = 0; k < 4; ++k) d.connectM(k, c) = row[k];
    }
    return d;
  };
  for (const unsigned limit : {NONE, 8u}) {
    const data_type in = cube();
    data_type out = cube();
    mesher m;
    m.settings.mode = 1;
    m.settings.nodes_limit = limit;
    m.run(out);
    ASSERT_EQ(out.error_code, 0) << out.msg_title;
    expect_regularised(in, out);
    if (limit == NONE) {
      EXPECT_EQ(out.tet_count, 12u);
      EXPECT_EQ(out.pos.cols, 9u);
      EXPECT_GT(out.min_quality, 0.55);
      for (unsigned i = 0; i < 3; ++i) EXPECT_NEAR(out.pos(i, 8), 0.0, 1e-6);
    } else {
      EXPECT_EQ(out.tet_count, 6u);
      EXPECT_EQ(out.min_quality, out.min_quality_in);
    }
  }
  // The unit cube in six tets round one diagonal (worst 0.586): the diagonal is a little too long
  // for the skin's sizes, but the centre node that splits it gives 0.555. The caller gets the
  // better mesh, the one that came in.
  dense2D<double> unit(3, 8);
  for (unsigned j = 0; j < 8; ++j)
    for (unsigned i = 0; i < 3; ++i) unit(i, j) = (j >> i) & 1u;
  data_type kuhn(unit, dense2D<unsigned>());
  kuhn.connectM.resize(4, 6);
  const unsigned paths[6][3] = {{1, 3, 7}, {1, 5, 7}, {2, 3, 7}, {2, 6, 7}, {4, 5, 7}, {4, 6, 7}};
  for (unsigned c = 0; c < 6; ++c) {
    unsigned row[4] = {0, paths[c][0], paths[c][1], paths[c][2]};
    if (orient_det(unit.col(row[0]), unit.col(row[1]), unit.col(row[2]), unit.col(row[3])) < 0.0)
      std::swap(row[1], row[2]);
    for (unsigned k = 0; k < 4; ++k) kuhn.connectM(k, c) = row[k];
  }
  mesher m;
  m.settings.mode = 1;
  m.run(kuhn);
  ASSERT_EQ(kuhn.error_code, 0) << kuhn.msg_title;
  EXPECT_NEAR(kuhn.min_quality_in, 0.586, 1e-3);
  EXPECT_EQ(kuhn.min_quality, kuhn.min_quality_in);
  EXPECT_EQ(kuhn.tet_count, 6u);
  EXPECT_EQ(kuhn.pos.cols, 8u);
}

// The Delaunay mesh of points on an ellipsoid (not a sphere: all its tets would share one
// circumsphere) has every node on its skin and slivers under it. Filled from the skin, its worst
// tet comes near the bound of the skin; under a node limit it is filled up to the limit, with the
// warning.
TEST(Regularization, SkinOnlyMeshIsFilledUpToTheLimit) {
  auto ellipsoid = [] {
    const unsigned n = 300;
    dense2D<double> pos(3, n);
    for (unsigned j = 0; j < n; ++j) {
      const double z = 1.0 - (2.0 * j + 1.0) / n, r = std::sqrt(1.0 - z * z);
      const double a = 2.399963229728653 * j;
      pos(0, j) = r * std::cos(a), pos(1, j) = 0.8 * r * std::sin(a), pos(2, j) = 0.6 * z;
    }
    data_type hull(pos, dense2D<unsigned>());
    for (unsigned j = 0; j < n; ++j) hull.isolated_nodes.push_back(j);
    mesher d;
    d.settings.mode = 2;
    d.settings.optim_level = 0;
    d.run(hull);
    EXPECT_EQ(hull.error_code, 0) << hull.msg_title;
    EXPECT_GT(hull.tet_count, n);
    dense2D<double> own(3, n);
    for (unsigned j = 0; j < n; ++j)
      for (unsigned i = 0; i < 3; ++i) own(i, j) = hull.pos(i, j);
    data_type in(own, dense2D<unsigned>());
    in.connectM.resize(4, hull.tet_count);
    for (unsigned t = 0; t < hull.tet_count; ++t)
      for (unsigned k = 0; k < 4; ++k) in.connectM(k, t) = hull.connectM(k, t);
    return in;
  };
  const data_type in = ellipsoid();
  mesher m;
  m.settings.mode = 1;
  data_type out = ellipsoid();
  m.run(out);
  ASSERT_EQ(out.error_code, 0) << out.msg_title;
  expect_regularised(in, out);
  EXPECT_LT(out.min_quality_in, 0.01);
  EXPECT_GT(out.min_quality, 0.5);
  EXPECT_GT(out.quality_bound, out.min_quality);
  EXPECT_GT(out.used_node_count, in.pos.cols + 100);
  EXPECT_GT(out.refine_time, 0.0);

  data_type limited = ellipsoid();
  m.settings.nodes_limit = in.pos.cols + 20;
  m.run(limited);
  ASSERT_EQ(limited.error_code, 0) << limited.msg_title;
  EXPECT_EQ(limited.warning_code, -11);
  EXPECT_LE(limited.pos.cols, in.pos.cols + 20);
  expect_regularised(in, limited);
}

TEST(Regularization, BadInputOrientationAndLimits) {
  mesher m;
  m.settings.mode = 1;
  {
    data_type d = cloud_input(200, 8, false);
    std::swap(d.connectM(1, 7), d.connectM(2, 7));
    m.run(d);
    EXPECT_EQ(d.error_code, -102);
    EXPECT_STREQ(d.msg_title, "NON CONFORMAL INPUT MESH");
    EXPECT_EQ(std::string(d.msg_text).rfind("Check input mesh.", 0), 0u) << d.msg_text;
  }
  {
    const data_type in = cloud_input(200, 8, true);
    data_type d = cloud_input(200, 8, true);
    for (unsigned t = 0; t < d.connectM.cols; ++t) std::swap(d.connectM(1, t), d.connectM(2, t));
    data_type turned = cloud_input(200, 8, true);
    for (unsigned t = 0; t < turned.connectM.cols; ++t)
      std::swap(turned.connectM(1, t), turned.connectM(2, t));
    m.run(d);
    ASSERT_EQ(d.error_code, 0) << d.msg_title;
    EXPECT_GT(d.min_quality_in, 0.0);
    EXPECT_LT(volume_of(d), 0.0);
    expect_regularised(turned, d);
  }
  {
    const data_type in = cloud_input(200, 8, true);
    data_type d = cloud_input(200, 8, true);
    m.settings.optim_level = 0;
    m.run(d);
    ASSERT_EQ(d.error_code, 0) << d.msg_title;
    ASSERT_EQ(d.tet_count, in.connectM.cols);
    for (unsigned t = 0; t < d.tet_count; ++t)
      for (unsigned k = 0; k < 4; ++k) EXPECT_EQ(d.connectM(k, t), in.connectM(k, t));
    for (unsigned j = 0; j < in.pos.cols; ++j)
      for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(d.pos(i, j), in.pos(i, j));
    EXPECT_EQ(d.min_quality, d.min_quality_in);
    m.settings.optim_level = 3;
  }
  {
    data_type d = cloud_input(200, 8, false);
    const unsigned nodes = d.pos.cols;
    m.settings.nodes_limit = nodes;
    m.run(d);
    ASSERT_EQ(d.error_code, 0) << d.msg_title;
    EXPECT_LE(d.pos.cols, nodes);
    EXPECT_GT(d.min_quality, d.min_quality_in);
  }
}

// Interrupted at any poll: a valid mesh with every wall, the interruption warning, and nothing
// worse than the input.
TEST(Regularization, InterruptionAtAnyPollGivesAValidMesh) {
  struct counter {
    unsigned polls = 0, stop_at = 0xFFFFFFFFu;
  };
  auto run = [](counter& c, data_type& d) {
    mesher m;
    m.settings.mode = 1;
    m.settings.pass_thru = &c;
    m.settings.interrupt_hdl = [](void* p, double) {
      counter& k = *static_cast<counter*>(p);
      return k.polls++ >= k.stop_at;
    };
    m.run(d);
  };
  counter clean;
  data_type full = cloud_input(250, 9, true);
  run(clean, full);
  ASSERT_EQ(full.error_code, 0);
  ASSERT_GT(clean.polls, 5u);
  const unsigned step = clean.polls > 60 ? clean.polls / 60 : 1;
  for (unsigned k = 0; k < clean.polls; k += step) {
    counter c;
    c.stop_at = k;
    const data_type in = cloud_input(250, 9, true);
    data_type d = cloud_input(250, 9, true);
    run(c, d);
    ASSERT_EQ(d.error_code, 0) << "poll " << k << ": " << d.msg_title;
    // The last polls only report progress: their answer is not asked for any more.
    if (k + 3 < clean.polls) {
      EXPECT_EQ(d.warning_code, -10) << "poll " << k;
    }
    expect_regularised(in, d, false);
  }
}
