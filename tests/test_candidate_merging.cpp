// Merging of close candidates of a pass: the k-d tree, and small groups on a mesh of unit sizes,
// where the length in the size field is the distance.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <vector>

#include "mesh_fixtures.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/refine/candidate_merging.h"
#include "voxfill/refine/refine_context.h"
#include "voxfill/refine/spacing_filter.h"

using namespace kelvo::voxfill;
using kelvo::dense1D;
using kelvo::dense2D;

namespace {

// Candidates of size 1 at x + offsets[k] radius, y = z = 0.5, merged in the block [0, 2]^3 of
// Kuhn cubes with sizes 1. Returns the x of the outputs.
std::vector<double> merged_x(double x, const std::vector<double>& offsets,
                             unsigned* filtered = nullptr) {
  th4_engine e;
  fixtures::kuhn_lattice(e, 2);
  for (unsigned n = 0; n < e.nodes.cols(); ++n) e.node_sizes[n] = 1.0;
  const double lo[3] = {0, 0, 0}, hi[3] = {2, 2, 2};
  e.locator.build(lo, hi);
  std::copy(lo, lo + 3, e.box_min);
  std::copy(hi, hi + 3, e.box_max);
  refine_context c(e.settings);
  const unsigned n = unsigned(offsets.size());
  dense2D<double> points(3, n, 0.5);
  dense1D<double> sizes(n, 1.0);
  for (unsigned j = 0; j < n; ++j) points(0, j) = x + offsets[j] * c.half_max_edge_length;
  merge_candidates(e, c, points, sizes, c.half_max_edge_length);
  std::mt19937 g(1);
  g.discard(n - 1);  // the shuffle draws once per candidate after the first
  EXPECT_TRUE(c.random_source == g);
  std::vector<double> xs;
  EXPECT_EQ(points.cols, sizes.size);
  for (unsigned j = 0; j < points.cols; ++j) {
    xs.push_back(points(0, j));
    EXPECT_EQ(points(1, j), 0.5);
    EXPECT_NEAR(sizes[j], 1.0, 1e-15);
  }
  if (filtered) {
    filter_candidates(e, points, sizes, 0.7071067811865476);
    *filtered = points.cols;
  }
  return xs;
}

// 300 points on a lattice of step 0.25, many sharing a coordinate: ties on every split.
dense2D<double> lattice_points(std::mt19937& g, std::uniform_int_distribution<int>& step) {
  dense2D<double> pts(3, 300);
  for (unsigned j = 0; j < pts.cols; ++j)
    for (unsigned d = 0; d < 3; ++d) pts(d, j) = 0.25 * step(g);
  return pts;
}

}  // namespace

// The tree finds exactly the points of a closed box, ties on the split coordinates included.
TEST(CandidateMerging, KdBoxMatchesBruteForce) {
  std::mt19937 g(3);
  std::uniform_int_distribution<int> grid(0, 8);
  const dense2D<double> pts = lattice_points(g, grid);
  kd_tree tree;
  for (unsigned j = 0; j < pts.cols; ++j) EXPECT_EQ(kd_insert(tree, pts, j), j);
  for (unsigned k = 0; k < 50; ++k) {
    double lo[3], hi[3];
    for (unsigned d = 0; d < 3; ++d) lo[d] = 0.25 * grid(g), hi[d] = lo[d] + 0.25 * (k % 4);
    std::vector<std::pair<double, unsigned>> items;
    kd_box(tree, lo, hi, items);
    std::set<unsigned> found, expected;
    for (const auto& item : items) EXPECT_TRUE(found.insert(item.second).second);
    for (unsigned j = 0; j < pts.cols; ++j) {
      bool in = true;
      for (unsigned d = 0; d < 3; ++d) in = in && pts(d, j) >= lo[d] && pts(d, j) <= hi[d];
      if (in) expected.insert(j);
    }
    EXPECT_EQ(found, expected) << k;
  }
}

// The grid finds the same points as the tree, boxes reaching out of the points' hull included,
// whatever the width of its cells.
TEST(CandidateMerging, GridBoxMatchesKdBox) {
  std::mt19937 g(5);
  std::uniform_int_distribution<int> grid_at(0, 8);
  const dense2D<double> pts = lattice_points(g, grid_at);
  kd_tree tree;
  for (unsigned j = 0; j < pts.cols; ++j) kd_insert(tree, pts, j);
  for (const double width : {0.01, 0.1, 0.25, 0.3, 1.0, 5.0}) {
    cell_grid grid;
    ASSERT_TRUE(grid_build(grid, pts, pts.cols, width));
    for (unsigned k = 0; k < 50; ++k) {
      double lo[3], hi[3];
      for (unsigned d = 0; d < 3; ++d)
        lo[d] = 0.25 * grid_at(g) - 0.5, hi[d] = lo[d] + 0.25 * (k % 6);
      std::vector<std::pair<double, unsigned>> a, b;
      kd_box(tree, lo, hi, a);
      grid_box(grid, pts, lo, hi, b);
      std::sort(a.begin(), a.end());
      std::sort(b.begin(), b.end());
      EXPECT_EQ(a, b) << width << " " << k;
    }
  }
  cell_grid bad;
  EXPECT_FALSE(grid_build(bad, pts, pts.cols, 0.0));
}

// One candidate, and two 1.5 radius apart, go through unchanged; two at one point give one there;
// two at half the radius give one at their centroid. A centroid out of the mesh has no size, so
// no group forms.
TEST(CandidateMerging, PairsNearAndFar) {
  const double r = 0.707, x = 0.6;
  EXPECT_EQ(merged_x(x, {0.0}), std::vector<double>{x});
  EXPECT_EQ(merged_x(x, {0.0, 1.5}), (std::vector<double>{x, x + 1.5 * r}));
  EXPECT_EQ(merged_x(x, {0.0, 0.0}), std::vector<double>{x});
  const std::vector<double> half = merged_x(x, {0.0, 0.5});
  ASSERT_EQ(half.size(), 1u);
  EXPECT_NEAR(half[0], x + 0.25 * r, 1e-15);
  EXPECT_EQ(merged_x(-0.5, {0.0, 0.0}), (std::vector<double>{-0.5, -0.5}));
}

// At about the radius the pair scores 1.6, not above 1.7: the first moves to the centroid and the
// second stays a candidate, whose own group gives it the same centroid; the filter keeps one.
// A removed neighbour cuts the list: 0 and 1 collapse, and 2, near 1 but not near 0, stays.
TEST(CandidateMerging, LoosePairAndRemovedNeighbour) {
  const double r = 0.707, x = 0.5 - 0.495 * r;  // the centroid at the centre of a cube
  unsigned kept = 0;
  const std::vector<double> loose = merged_x(x, {0.0, 0.99}, &kept);
  const double G = 0.5 * (x + (x + 0.99 * r));
  EXPECT_EQ(loose, (std::vector<double>{G, G}));
  EXPECT_EQ(kept, 1u);
  const std::vector<double> cut = merged_x(0.6, {0.0, 0.2, 1.1});
  ASSERT_EQ(cut.size(), 2u);
  EXPECT_NEAR(cut[0], 0.6 + 0.1 * r, 1e-15);
  EXPECT_EQ(cut[1], 0.6 + 1.1 * r);
}
