// The Delaunay mesh of a point cloud through the public interface: validity of the mesh, the
// statistics, duplicates, bad input, interruption and determinism.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "delaunay/geometry.h"
#include "delaunay/mesh_check.h"
#include "mesh_fixtures.h"
#include "voxfill/mesher_th4.h"

using kelvo::dense2D;
using kelvo::voxfill::mesher;
using data_type = mesher::data_type;

namespace {

constexpr unsigned NONE = 0xFFFFFFFFu;

data_type cloud(const std::vector<std::array<double, 3>>& pts) {
  dense2D<double> pos(3, unsigned(pts.size()));
  for (unsigned j = 0; j < pts.size(); ++j)
    for (unsigned i = 0; i < 3; ++i) pos(i, j) = pts[j][i];
  data_type d(pos, dense2D<unsigned>());
  for (unsigned j = 0; j < pts.size(); ++j) d.isolated_nodes.push_back(j);
  return d;
}

std::vector<std::array<double, 3>> random_points(unsigned n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> U(-1.0, 1.0);
  std::vector<std::array<double, 3>> p(n);
  for (auto& q : p) q = {U(rng), U(rng), U(rng)};
  return p;
}

double det(const data_type& d, unsigned t) {
  const double* p[4];
  for (unsigned k = 0; k < 4; ++k) p[k] = d.pos.col(d.connectM(k, t));
  return kelvo::voxfill::orient_det(p[0], p[1], p[2], p[3]);
}

// The output loaded back into a store and put through the library's checker: positive tets,
// neighbour symmetry by face nodes, conformity, ancestors, the stored shape qualities and the
// empty sphere across every interior face (the hull of a cloud is convex, so a locally Delaunay
// mesh is Delaunay). Then what the checker does not see: volume, sizes, the histogram.
void expect_valid_mesh(const data_type& d, bool delaunay = true) {
  const unsigned m = d.connectM.cols;
  ASSERT_EQ(d.tet_count, m);
  ASSERT_EQ(d.neighbors.cols, m);
  ASSERT_EQ(d.colors.size, m);
  ASSERT_EQ(d.shape_qualities.size, m);
  ASSERT_EQ(d.ancestors.size, d.pos.cols);
  EXPECT_TRUE(fixtures::output_sound(d, delaunay));
  double volume = 0.0;
  for (unsigned t = 0; t < m; ++t) volume += det(d, t) / 6.0;
  EXPECT_NEAR(d.volume, volume, 1e-12 * std::max(1.0, std::abs(volume)));
  // The checker vouches for the ancestors of held nodes; a node left out must have none.
  std::vector<bool> held(d.pos.cols, false);
  for (unsigned t = 0; t < m; ++t)
    for (unsigned k = 0; k < 4; ++k) held[d.connectM(k, t)] = true;
  for (unsigned n = 0; n < d.ancestors.size; ++n)
    EXPECT_EQ(d.ancestors[n] != NONE, bool(held[n])) << "node " << n;
  EXPECT_EQ(d.histo_Qs.total_hits() + d.histo_Qs.smaller() + d.histo_Qs.larger(), m);
}

struct message_log {
  std::string all;
  static void hdl(void* p, unsigned level, const char* text) {
    EXPECT_EQ(level, 0u);
    static_cast<message_log*>(p)->all += text;
  }
};

}  // namespace

// Four nodes of a regular tet: one tet of quality 1, no initialisation message.
TEST(DelaunayPipeline, RegularTet) {
  const double s = 1.0 / std::sqrt(2.0);
  data_type d = cloud({{1, 0, -s}, {-1, 0, -s}, {0, 1, s}, {0, -1, s}});
  message_log log;
  mesher m;
  m.settings.mode = 2;
  m.settings.display_hdl = message_log::hdl;
  m.settings.pass_thru = &log;
  m.run(d);
  EXPECT_EQ(d.error_code, 0);
  EXPECT_EQ(d.warning_code, 0);
  ASSERT_EQ(d.tet_count, 1u);
  EXPECT_NEAR(d.min_quality, 1.0, 1e-12);
  EXPECT_EQ(log.all, "Regularize mesh.\nFinalize mesh.\n");
  EXPECT_EQ(d.pos.cols, 4u);  // the corners of the enclosing box are gone
  EXPECT_EQ(d.used_node_count, 4u);
  EXPECT_EQ(d.subdomains, 1u);
  expect_valid_mesh(d);
}

// A random cloud: a valid mesh (empty circumspheres included), colours 0, unused nodes kept as
// columns;
// positive_orientation is not read in this mode; equal runs give equal meshes.
TEST(DelaunayPipeline, RandomCloud) {
  auto pts = random_points(600, 5);
  pts.push_back({5, 5, 5});  // a node that no hard set names: its column stays, unused
  data_type d = cloud(pts);
  d.isolated_nodes.pop_back();
  mesher m;
  m.settings.mode = 2;
  m.settings.optim_level = 0;
  m.settings.strict_constraints = false;  // the kernel's mesh as it is: Delaunay throughout
  m.settings.positive_orientation = false;
  m.run(d);
  ASSERT_EQ(d.error_code, 0);
  expect_valid_mesh(d);
  EXPECT_EQ(d.pos.cols, 601u);
  EXPECT_EQ(d.used_node_count, 600u);
  EXPECT_EQ(d.total_node_count, 601u);
  EXPECT_EQ(d.ancestors[600], NONE);
  EXPECT_EQ(d.hard_nodes_out, 600u);
  for (unsigned c : d.colors) EXPECT_EQ(c, 0u);
  data_type again = cloud(pts);
  again.isolated_nodes.pop_back();
  m.run(again);
  ASSERT_EQ(again.tet_count, d.tet_count);
  for (unsigned t = 0; t < d.tet_count; ++t)
    for (unsigned k = 0; k < 4; ++k) EXPECT_EQ(again.connectM(k, t), d.connectM(k, t));
}

// The swap pass of the default level: the same nodes and volume, a worst tet no worse than the
// Delaunay mesh's, still a sound mesh, and the same mesh on every run.
TEST(DelaunayPipeline, SwapPassRaisesTheWorstTet) {
  const auto pts = random_points(800, 12);
  data_type delaunay = cloud(pts), swapped = cloud(pts), again = cloud(pts);
  mesher m;
  m.settings.mode = 2;
  m.settings.optim_level = 0;
  m.run(delaunay);
  m.settings.optim_level = 3;
  m.run(swapped);
  m.run(again);
  ASSERT_EQ(swapped.error_code, 0);
  expect_valid_mesh(swapped, false);
  // Flat tets on the hull have no shell to swap; the worst of the others must rise.
  auto worst_inside = [](const data_type& d) {
    double q = 1.0;
    for (unsigned t = 0; t < d.tet_count; ++t) {
      bool inside = true;
      for (unsigned k = 0; k < 4; ++k) inside = inside && d.neighbors(k, t) != 0xFFFFFFFFu;
      if (inside) q = std::min(q, d.shape_qualities[t]);
    }
    return q;
  };
  EXPECT_GE(swapped.min_quality, delaunay.min_quality);
  EXPECT_GT(worst_inside(swapped), worst_inside(delaunay));
  EXPECT_NEAR(swapped.volume, delaunay.volume, 1e-12 * delaunay.volume);
  EXPECT_EQ(swapped.used_node_count, delaunay.used_node_count);
  for (unsigned j = 0; j < pts.size(); ++j)
    for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(swapped.pos(i, j), pts[j][i]);
  ASSERT_EQ(again.tet_count, swapped.tet_count);
  for (unsigned t = 0; t < swapped.tet_count; ++t)
    for (unsigned k = 0; k < 4; ++k) EXPECT_EQ(again.connectM(k, t), swapped.connectM(k, t));
}

// A duplicated node is missing: strict runs withdraw the conflict error and raise nothing;
// non-strict runs warn.
TEST(DelaunayPipeline, DuplicatedNodes) {
  auto pts = random_points(50, 9);
  pts.push_back(pts[7]);
  for (bool strict : {true, false}) {
    data_type d = cloud(pts);
    mesher m;
    m.settings.mode = 2;
    m.settings.optim_level = 0;
    m.settings.strict_constraints = strict;
    m.run(d);
    EXPECT_EQ(d.error_code, 0);
    ASSERT_EQ(d.missing_nodes.size, 1u);
    EXPECT_EQ(d.missing_nodes[0], 50u);
    EXPECT_EQ(d.hard_nodes_in, 51u);
    expect_valid_mesh(d);
    if (strict) {
      EXPECT_EQ(d.warning_code, 0);
    } else {
      EXPECT_EQ(d.warning_code, -12);
      EXPECT_STREQ(d.msg_title, "NODE WARNING");
      EXPECT_STREQ(d.msg_text,
                   "Hard node(s) in hard entity (node, edge or face).\nFile = "
                   "voxfill/delaunay_th4.cpp, line = 1021.\n");
    }
  }
}

// Flat input and non-finite coordinates: their errors, no tets, the input columns of pos back.
TEST(DelaunayPipeline, BadInput) {
  auto flat = random_points(30, 3);
  for (auto& p : flat) p[2] = 0.25;
  data_type d = cloud(flat);
  mesher m;
  m.settings.mode = 2;
  m.run(d);
  EXPECT_EQ(d.error_code, -107);
  EXPECT_STREQ(d.msg_title, "BOUNDARY ERROR");
  EXPECT_STREQ(d.msg_text, "Aligned nodes.\nFile = delaunay/delaunay_mgr.cpp, line = 474.\n");
  EXPECT_EQ(d.tet_count, 0u);
  EXPECT_EQ(d.pos.cols, 30u);
  EXPECT_EQ(d.volume, 0.0);

  auto bad = random_points(30, 4);
  bad[3][1] = std::nan("");
  data_type e = cloud(bad);
  m.run(e);
  EXPECT_EQ(e.error_code, -102);
  EXPECT_STREQ(e.msg_text, "Illegal coordinates.\nFile = delaunay/delaunay_mgr.cpp, line = 469.\n");
  EXPECT_EQ(e.tet_count, 0u);
  EXPECT_EQ(e.pos.cols, 30u);

  data_type empty;
  m.run(empty);
  EXPECT_EQ(empty.error_code, 0);
  EXPECT_EQ(empty.tet_count, 0u);
}

// An interruption at the first poll still hands over a valid mesh of the nodes inserted so far.
TEST(DelaunayPipeline, InterruptedRunGivesValidMesh) {
  data_type d = cloud(random_points(25000, 11));
  mesher m;
  m.settings.mode = 2;
  m.settings.interrupt_hdl = [](void*, double) { return true; };
  m.run(d);
  EXPECT_EQ(d.warning_code, -10);
  EXPECT_STREQ(d.msg_title, "INTERRUPTION RAISED");
  EXPECT_GT(d.tet_count, 0u);
  EXPECT_LT(d.used_node_count, 25000u);
  expect_valid_mesh(d);
}

// The engine numbers the nodes its own way for locality. The caller's input tables, which the
// record shares with the caller, must come back exactly as they were however the run ends (done,
// refused for a NaN, interrupted), and the mesh, ancestors and missing nodes must be in the
// caller's numbering; so also when two tables share one buffer and the engine keeps the caller's
// numbering. A map applied the wrong way, or not undone on an early exit, shows here.
TEST(DelaunayPipeline, CallerNumberingKept) {
  for (int variant = 0; variant < 4; ++variant) {
    auto pts = random_points(12000, 23);
    pts.push_back(pts[11]);  // a duplicate: missing_nodes names the caller's index
    if (variant == 1) pts[40][2] = std::nan("");
    data_type d = cloud(pts);
    const unsigned n = d.pos.cols;
    kelvo::dense2D<unsigned> E(2, 3);
    for (unsigned j = 0; j < 3; ++j) E(0, j) = 100 + j, E(1, j) = 200 + j;
    d.connectE = E;  // shares E's buffer, as a caller's view would
    if (variant == 3) d.isolated_nodes = d.connectE.as_vector();  // one buffer for two tables
    const kelvo::dense1D<unsigned> iso = d.isolated_nodes;
    std::vector<unsigned> iso_before(iso.begin(), iso.end());
    mesher m;
    m.settings.mode = 2;
    m.settings.optim_level = 0;
    m.settings.strict_constraints = false;
    if (variant == 2) m.settings.interrupt_hdl = [](void*, double) { return true; };
    m.run(d);
    for (unsigned j = 0; j < 3; ++j) {
      EXPECT_EQ(E(0, j), 100 + j) << variant;
      EXPECT_EQ(E(1, j), 200 + j) << variant;
    }
    EXPECT_TRUE(std::equal(iso_before.begin(), iso_before.end(), iso.begin())) << variant;
    if (variant == 1) {
      EXPECT_EQ(d.error_code, -102);
      EXPECT_EQ(d.tet_count, 0u);
      continue;
    }
    EXPECT_EQ(d.error_code, 0) << variant;
    expect_valid_mesh(d);
    if (variant == 3) continue;  // only the edges' nodes are hard there
    if (variant == 0) {
      ASSERT_EQ(d.missing_nodes.size, 1u);
      EXPECT_EQ(d.missing_nodes[0], n - 1);
      EXPECT_EQ(d.used_node_count, n - 1);
    }
  }
}

// With the constraints held (the default), the edges at the box corners give way to shorter ones
// before the corners' tets are left out: a node just inside the hull no longer costs the tets
// between it and the hull faces, and the mesh stays sound with every node in it.
TEST(DelaunayPipeline, BoxEdgesGiveWayToTheHull) {
  const std::vector<std::array<double, 3>> corner = {
      {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0.3, 0.3, 0.3}};
  for (const bool strict : {false, true}) {
    data_type d = cloud(corner);
    mesher m;
    m.settings.mode = 2;
    m.settings.strict_constraints = strict;
    m.run(d);
    ASSERT_EQ(d.error_code, 0) << d.msg_title;
    expect_valid_mesh(d, !strict);
    if (strict) {
      EXPECT_EQ(d.tet_count, 4u);
      EXPECT_NEAR(d.volume, 1.0 / 6, 1e-15);
    } else {
      EXPECT_LT(d.volume, 1.0 / 6 - 1e-3);  // the kernel's mesh alone loses a tet at the hull
    }
  }
  data_type d = cloud(random_points(1000, 21));
  mesher m;
  m.settings.mode = 2;
  m.run(d);
  ASSERT_EQ(d.error_code, 0) << d.msg_title;
  expect_valid_mesh(d, false);
  EXPECT_EQ(d.used_node_count, 1000u);
}
