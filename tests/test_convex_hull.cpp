// The Delaunay mesh of a point cloud with the constraints held: it must fill the convex hull
// exactly, hold every node, and on clouds in general position be the Delaunay mesh itself, as an
// independent program (CGAL's, when installed) makes it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
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

using point = std::array<double, 3>;
using quad = std::array<unsigned, 4>;
constexpr unsigned NONE = 0xFFFFFFFFu;

data_type cloud(const std::vector<point>& pts) {
  dense2D<double> pos(3, unsigned(pts.size()));
  for (unsigned j = 0; j < pts.size(); ++j)
    for (unsigned i = 0; i < 3; ++i) pos(i, j) = pts[j][i];
  data_type d(pos, dense2D<unsigned>());
  for (unsigned j = 0; j < pts.size(); ++j) d.isolated_nodes.push_back(j);
  return d;
}

std::vector<point> random_points(unsigned n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> U(0.0, 1.0);
  std::vector<point> p(n);
  for (auto& q : p) q = {U(rng), U(rng), U(rng)};
  return p;
}

// A run of mode 2 with the constraints held and no swaps after it: the Delaunay mesh as made.
data_type delaunay_of(const std::vector<point>& pts) {
  data_type d = cloud(pts);
  mesher m;
  m.settings.mode = 2;
  m.settings.optim_level = 0;
  m.run(d);
  return d;
}

std::vector<quad> tet_set(const data_type& d) {
  std::vector<quad> tets(d.connectM.cols);
  for (unsigned t = 0; t < d.connectM.cols; ++t) {
    for (unsigned k = 0; k < 4; ++k) tets[t][k] = d.connectM(k, t);
    std::sort(tets[t].begin(), tets[t].end());
  }
  std::sort(tets.begin(), tets.end());
  return tets;
}

double mesh_volume(const data_type& d) {
  double v = 0.0;
  for (unsigned t = 0; t < d.connectM.cols; ++t)
    v += kelvo::voxfill::orient_det(d.pos, d.connectM(0, t), d.connectM(1, t), d.connectM(2, t),
                                    d.connectM(3, t));
  return v / 6.0;
}

unsigned used_nodes(const data_type& d) {
  std::vector<bool> used(d.pos.cols, false);
  for (unsigned t = 0; t < d.connectM.cols; ++t)
    for (unsigned k = 0; k < 4; ++k) used[d.connectM(k, t)] = true;
  return unsigned(std::count(used.begin(), used.end(), true));
}

// Faces of the mesh without a neighbour that have an input point clearly beyond them: each one is
// a piece of the convex hull the mesh does not cover.
unsigned faces_short_of_the_hull(const data_type& d, const std::vector<point>& pts) {
  unsigned count = 0;
  for (unsigned t = 0; t < d.connectM.cols; ++t)
    for (unsigned f = 0; f < 4; ++f) {
      if (d.neighbors(f, t) != NONE) continue;
      unsigned g[3];
      for (unsigned k = 0; k < 3; ++k)
        g[k] = d.connectM(kelvo::voxfill::tet_turned_face_nodes[f][k], t);
      for (const point& p : pts)
        if (kelvo::voxfill::tet_quality(p.data(), d.pos.col(g[0]), d.pos.col(g[1]),
                                        d.pos.col(g[2])) > 1e-9) {
          ++count;
          break;
        }
    }
  return count;
}

// The library's checker on the output: positive tets, symmetric neighbours, conformity,
// ancestors, stored qualities, and (asked for) the empty sphere across every interior face.
void expect_sound(const data_type& d, bool empty_sphere) {
  EXPECT_TRUE(fixtures::output_sound(d, empty_sphere));
  EXPECT_NEAR(d.volume, mesh_volume(d), 1e-12 * std::abs(d.volume));
}

struct oracle_mesh {
  bool made = false;
  std::string why;  // when not made
  std::vector<quad> tets;
  double volume = 0.0;
};

// CGAL's Delaunay mesh of the points, through the oracle program next to the tests.
oracle_mesh cgal_delaunay(const std::vector<point>& pts) {
  oracle_mesh o;
#ifndef VOXFILL_CGAL_ORACLE
  (void)pts;
  o.why = "CGAL was not found when the tests were configured";
#else
  // Files of this process alone: ctest runs the tests that call the oracle side by side.
  const std::string stem = ::testing::TempDir() + "voxfill_hull_" + std::to_string(getpid());
  const std::string in = stem + "_points.txt", out = stem + "_tets.txt";
  std::FILE* f = std::fopen(in.c_str(), "w");
  if (!f) {
    o.why = "cannot write " + in;
    return o;
  }
  std::fprintf(f, "%zu\n", pts.size());
  for (const point& p : pts) std::fprintf(f, "%a %a %a\n", p[0], p[1], p[2]);
  std::fclose(f);
  const std::string command =
      std::string("\"") + VOXFILL_CGAL_ORACLE + "\" \"" + in + "\" \"" + out + "\"";
  if (std::system(command.c_str()) != 0) {
    o.why = "the oracle failed: " + command;
    return o;
  }
  f = std::fopen(out.c_str(), "r");
  std::size_t count = 0;
  if (!f || std::fscanf(f, "%zu %la", &count, &o.volume) != 2) {
    if (f) std::fclose(f);
    o.why = "cannot read " + out;
    return o;
  }
  o.tets.resize(count);
  for (quad& t : o.tets)
    if (std::fscanf(f, "%u %u %u %u", &t[0], &t[1], &t[2], &t[3]) != 4) {
      std::fclose(f);
      o.why = "short output in " + out;
      return o;
    }
  std::fclose(f);
  std::remove(in.c_str());
  std::remove(out.c_str());
  o.made = true;
#endif
  return o;
}

}  // namespace

// A node just inside the corner tet: the four tets around it, the whole corner tet.
TEST(ConvexHull, CornerTetWithInnerNode) {
  const std::vector<point> pts = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0.3, 0.3, 0.3}};
  const data_type d = delaunay_of(pts);
  ASSERT_EQ(d.error_code, 0) << d.msg_title;
  EXPECT_EQ(d.tet_count, 4u);
  EXPECT_NEAR(d.volume, 1.0 / 6, 1e-15);
  EXPECT_EQ(used_nodes(d), 5u);
  expect_sound(d, true);
}

// Random clouds: every face without a neighbour is a hull face, and the mesh is CGAL's.
TEST(ConvexHull, RandomCloudsAreTheDelaunayMesh) {
  for (const unsigned n : {20u, 200u, 1000u, 5000u})
    for (const unsigned seed : {1u, 2u, 3u}) {
      SCOPED_TRACE("n = " + std::to_string(n) + ", seed = " + std::to_string(seed));
      const auto pts = random_points(n, seed);
      const data_type d = delaunay_of(pts);
      ASSERT_EQ(d.error_code, 0) << d.msg_title;
      EXPECT_EQ(used_nodes(d), n);
      EXPECT_EQ(d.missing_nodes.size, 0u);
      EXPECT_EQ(faces_short_of_the_hull(d, pts), 0u);
      expect_sound(d, true);
      const oracle_mesh o = cgal_delaunay(pts);
      if (!o.made) {
        std::printf("CGAL comparison skipped: %s\n", o.why.c_str());
        continue;
      }
      EXPECT_TRUE(tet_set(d) == o.tets) << d.tet_count << " tets against " << o.tets.size();
      EXPECT_NEAR(d.volume, o.volume, 1e-12 * o.volume);
    }
}

// One node far from the others. The kernel's box then spans the far node, and under its
// tolerances it may refuse nodes of the small cluster (they come back in missing_nodes) or all of
// them; what it holds must fill the hull of the held nodes, and a mesh that cannot be made must
// come with an error, never as an empty mesh without one.
TEST(ConvexHull, FarNode) {
  for (const double far : {1e4, 1e8, 1e10}) {
    SCOPED_TRACE("far = " + std::to_string(far));
    auto pts = random_points(300, 7);
    pts.push_back({far, far, far});
    const data_type d = delaunay_of(pts);
    if (d.error_code != 0) {
      EXPECT_EQ(d.tet_count, 0u);
      continue;
    }
    ASSERT_GT(d.tet_count, 0u);
    EXPECT_EQ(used_nodes(d) + d.missing_nodes.size, 301u);
    std::vector<point> held;
    std::vector<bool> missing(pts.size(), false);
    for (unsigned k = 0; k < d.missing_nodes.size; ++k) missing[d.missing_nodes[k]] = true;
    for (unsigned j = 0; j < pts.size(); ++j)
      if (!missing[j]) held.push_back(pts[j]);
    EXPECT_EQ(faces_short_of_the_hull(d, held), 0u);
    expect_sound(d, false);
    if (d.missing_nodes.size != 0) continue;
    const oracle_mesh o = cgal_delaunay(pts);
    if (!o.made) {
      std::printf("CGAL comparison skipped: %s\n", o.why.c_str());
      continue;
    }
    // Needles to the far node: the flattest of them are taken for hull faces, a few parts in 1e9.
    EXPECT_NEAR(d.volume, o.volume, 1e-8 * o.volume);
  }
}

// A lattice: cospherical cells and coplanar hull faces throughout. The mesh fills the cube
// exactly with every node.
TEST(ConvexHull, LatticeFillsTheCube) {
  std::vector<point> pts;
  for (int i = 0; i < 6; ++i)
    for (int j = 0; j < 5; ++j)
      for (int k = 0; k < 4; ++k) pts.push_back({0.2 * i, 0.25 * j, k / 3.0});
  const data_type d = delaunay_of(pts);
  ASSERT_EQ(d.error_code, 0) << d.msg_title;
  EXPECT_EQ(used_nodes(d), unsigned(pts.size()));
  EXPECT_EQ(faces_short_of_the_hull(d, pts), 0u);
  const double cube = (0.2 * 5) * (0.25 * 4) * (3 / 3.0);
  EXPECT_NEAR(d.volume, cube, 1e-12 * cube);
  expect_sound(d, true);
}

// Nodes on a sphere (up to rounding), and the corners of nested cubes: degenerate in every way
// the kernel knows, still the hull exactly.
TEST(ConvexHull, CosphericalNodesFillTheHull) {
  std::mt19937 rng(4);
  std::normal_distribution<double> N(0.0, 1.0);
  std::vector<point> sphere(400);
  for (point& p : sphere) {
    p = {N(rng), N(rng), N(rng)};
    const double r = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
    for (double& x : p) x /= r;
  }
  std::vector<point> cubes;
  for (const double s : {1.0, 2.0, 3.0})
    for (int c = 0; c < 8; ++c) cubes.push_back({c & 1 ? s : -s, c & 2 ? s : -s, c & 4 ? s : -s});
  for (const auto* pts : {&sphere, &cubes}) {
    const data_type d = delaunay_of(*pts);
    ASSERT_EQ(d.error_code, 0) << d.msg_title;
    EXPECT_EQ(used_nodes(d), unsigned(pts->size()));
    EXPECT_EQ(faces_short_of_the_hull(d, *pts), 0u);
    expect_sound(d, true);
    if (pts == &cubes) {
      EXPECT_NEAR(d.volume, 216.0, 216e-12);
    }
    const oracle_mesh o = cgal_delaunay(*pts);
    if (o.made) {
      EXPECT_NEAR(d.volume, o.volume, 1e-12 * o.volume);
    }
  }
}

// Equal input, equal mesh, bit for bit.
TEST(ConvexHull, Deterministic) {
  const auto pts = random_points(3000, 11);
  const data_type a = delaunay_of(pts), b = delaunay_of(pts);
  ASSERT_EQ(a.error_code, 0);
  ASSERT_EQ(a.tet_count, b.tet_count);
  for (unsigned t = 0; t < a.tet_count; ++t)
    for (unsigned k = 0; k < 4; ++k) ASSERT_EQ(a.connectM(k, t), b.connectM(k, t));
  for (unsigned t = 0; t < a.tet_count; ++t)
    for (unsigned k = 0; k < 4; ++k) ASSERT_EQ(a.neighbors(k, t), b.neighbors(k, t));
}
