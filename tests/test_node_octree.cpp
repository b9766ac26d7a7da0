// Node octree and locator: cell invariants, splits and folds, and queries against brute force.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "delaunay/node_locator.h"

using namespace kelvo::voxfill;
using kelvo::dense1D;

namespace {

unsigned put(slot_table<double>& xyz, double x, double y, double z) {
  const unsigned n = xyz.acquire();
  xyz(0, n) = x, xyz(1, n) = y, xyz(2, n) = z;
  return n;
}

double d2(const slot_table<double>& xyz, unsigned n, const double* p) {
  const double dx = xyz(0, n) - p[0], dy = xyz(1, n) - p[1], dz = xyz(2, n) - p[2];
  return dx * dx + dy * dy + dz * dz;
}

// Walks every cell from the root: leaves hold at most 7 ascending indices that map into the
// leaf's own cell, no inner cell has only empty leaves, and every other row past 8 is free.
std::vector<unsigned> check_cells(const node_octree& t) {
  struct item {
    unsigned row, level, c[3];
  };
  std::vector<unsigned> stored;
  std::vector<char> reached(t.cells.cols(), 0);
  std::vector<item> todo{{node_octree::ROOT, 31, {0, 0, 0}}};
  while (!todo.empty()) {
    const item it = todo.back();
    todo.pop_back();
    EXPECT_FALSE(reached[it.row] || t.cells.is_free(it.row)) << it.row;
    reached[it.row] = 1;
    const unsigned* w = t.cells.row(it.row);
    if (w[0] >= 8) {
      bool any = false;
      for (unsigned k = 0; k < 8; ++k) {
        any = any || t.cells(0, w[k]) != 0;
        item ch{w[k], it.level - 1, {}};
        for (unsigned a = 0; a < 3; ++a) ch.c[a] = it.c[a] | (((k >> a) & 1u) << (it.level - 1));
        todo.push_back(ch);
      }
      EXPECT_TRUE(any) << "inner cell " << it.row << " was not folded";
      continue;
    }
    EXPECT_LE(w[0], 7u);
    for (unsigned i = 1; i <= w[0]; ++i) {
      EXPECT_TRUE(i == 1 || w[i - 1] < w[i]) << w[i];
      unsigned c[3];
      t.to_cell_coords(t.coords->row(w[i]), c);
      for (unsigned a = 0; a < 3; ++a)
        EXPECT_TRUE(c[a] >= it.c[a] && c[a] - it.c[a] < (2ull << it.level) / 2) << w[i];
      stored.push_back(w[i]);
    }
  }
  for (unsigned r = 9; r < t.cells.cols(); ++r) EXPECT_TRUE(reached[r] || t.cells.is_free(r)) << r;
  std::sort(stored.begin(), stored.end());
  return stored;
}

}  // namespace

// Catches queries that read a missing root or a zero count instead of answering none.
TEST(NodeOctree, EmptyTreeAnswersNone) {
  slot_table<double> xyz(3);
  put(xyz, 0.5, 0.5, 0.5);
  const double lo[3] = {0, 0, 0}, hi[3] = {1, 1, 1}, p[3] = {0.5, 0.5, 0.5};
  node_octree bare(&xyz);
  EXPECT_FALSE(bare.add(0));
  EXPECT_EQ(bare.nearest_node(p), NONE);
  node_locator loc(&xyz, nullptr, nullptr, nullptr);
  ASSERT_TRUE(loc.set_box(lo, hi));
  EXPECT_TRUE(loc.octree.empty());
  EXPECT_EQ(loc.near_node(p), NONE);
  EXPECT_EQ(loc.nearest_node(p), NONE);
  EXPECT_EQ(loc.nearest_node_filtered(p, [](unsigned) { return true; }), NONE);
  dense1D<unsigned> out;
  EXPECT_TRUE(loc.nodes_in_box(lo, hi, out));
  EXPECT_EQ(out.size, 0u);
  EXPECT_EQ(loc.octree.near_node(p), NONE);  // no count check on the bare tree: the tree is empty
  EXPECT_EQ(loc.octree.cells.cols(), 9u);
}

// Catches a wrong split, a lost or unsorted index on removal, a missing fold, a fold of the root,
// the upper corner taken as outside, and a ninth node accepted at one position.
TEST(NodeOctree, SplitRemoveAndFold) {
  slot_table<double> xyz(3);
  const double lo[3] = {0, 0, 0}, hi[3] = {1, 1, 1};
  node_octree t(&xyz);
  ASSERT_TRUE(t.set_box(lo, hi));
  const unsigned far = put(xyz, 0.01, 0.01, 0.01);  // octant 0, like the query below
  const unsigned across = put(xyz, 0.51, 0.25, 0.25);
  for (unsigned i = 0; i < 5; ++i) put(xyz, 0.9, 0.9 - 0.1 * i, 0.9);
  const unsigned corner = put(xyz, 1.0, 1.0, 1.0);
  for (unsigned n = 0; n < 7; ++n) ASSERT_TRUE(t.add(n));
  EXPECT_EQ(t.cells.cols(), 9u);
  ASSERT_TRUE(t.add(corner));  // the eighth splits the root
  EXPECT_GE(t.cells(0, node_octree::ROOT), 8u);
  EXPECT_EQ(check_cells(t).size(), 8u);
  // The leaf of P holds `far` only; the node across the wall is nearer.
  const double p[3] = {0.49, 0.25, 0.25};
  EXPECT_EQ(t.near_node(p), far);
  EXPECT_EQ(t.nearest_node(p), across);
  // Eight nodes at one position: the last level overflows, the seven stay.
  for (unsigned i = 0; i < 8; ++i) put(xyz, 0.3, 0.3, 0.3);
  for (unsigned n = 8; n < 15; ++n) EXPECT_TRUE(t.add(n));
  EXPECT_FALSE(t.add(15));
  EXPECT_FALSE(t.remove(15));
  ASSERT_TRUE(t.remove(11));
  const unsigned* leaf = nullptr;
  for (unsigned r = 9; r < t.cells.cols(); ++r)
    if (!t.cells.is_free(r) && t.cells(0, r) == 6) leaf = t.cells.row(r);
  ASSERT_NE(leaf, nullptr);
  EXPECT_EQ(std::vector<unsigned>(leaf + 1, leaf + 7),
            (std::vector<unsigned>{8, 9, 10, 12, 13, 14}));
  put(xyz, 2.0, 0.5, 0.5);
  EXPECT_FALSE(t.add(16));
  EXPECT_FALSE(t.remove(16));
  for (unsigned n : {8u, 9u, 10u, 12u, 13u, 14u, 0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u})
    ASSERT_TRUE(t.remove(n)) << n;
  check_cells(t);
  EXPECT_TRUE(t.empty());
  EXPECT_EQ(t.cells(0, node_octree::ROOT), 0u);
  EXPECT_EQ(t.nearest_node(p), NONE);
}

// Catches wrong answers in deep, clustered and boundary-heavy trees, stale nodes after removals,
// the ancestor and predicate filters ignored, and a nondeterministic build.
TEST(NodeOctree, MatchesBruteForce) {
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  slot_table<double> xyz(3);
  std::vector<unsigned> list;
  for (unsigned i = 0; i < 40000; ++i) list.push_back(put(xyz, u(rng), u(rng), u(rng)));
  for (double s : {1e-2, 1e-4, 1e-6})
    for (unsigned c = 0; c < 20; ++c) {
      const double m[3] = {u(rng) * (1 - s), u(rng) * (1 - s), u(rng) * (1 - s)};
      for (unsigned i = 0; i < 1000; ++i)
        list.push_back(put(xyz, m[0] + s * u(rng), m[1] + s * u(rng), m[2] + s * u(rng)));
    }
  for (unsigned i = 0; i < 3000; ++i) {  // on faces, edges and corners of the box
    double q[3] = {u(rng), u(rng), u(rng)};
    for (unsigned a = 0; a < 3; ++a)
      if (rng() % 20 == 0 || a == i % 3) q[a] = double(rng() % 2);
    list.push_back(put(xyz, q[0], q[1], q[2]));
  }
  for (unsigned i = 0; i < 2000; ++i) {  // repeated points, up to four times
    const unsigned src = list[rng() % list.size()];
    list.push_back(put(xyz, xyz(0, src), xyz(1, src), xyz(2, src)));
  }
  const unsigned N = unsigned(list.size());
  std::shuffle(list.begin(), list.end(), rng);  // leaves must sort what comes in any order
  dense1D<unsigned> anc(N, 0u);
  const double lo[3] = {0, 0, 0}, hi[3] = {1, 1, 1};
  node_locator loc(&xyz, nullptr, nullptr, &anc);
  ASSERT_EQ(loc.build(lo, hi, list.data(), N), N);  // nothing outside or over a full position
  EXPECT_EQ(check_cells(loc.octree).size(), N);
  node_locator again(&xyz, nullptr, nullptr, &anc);
  again.build(lo, hi, list.data(), N);
  ASSERT_EQ(again.octree.cells.cols(), loc.octree.cells.cols());
  EXPECT_TRUE(std::equal(loc.octree.cells.row(0), loc.octree.cells.row(loc.octree.cells.cols()),
                         again.octree.cells.row(0)));

  std::vector<char> in(N, 1);
  std::vector<double> pts(xyz.row(0), xyz.row(N));
  auto run_queries = [&](unsigned count) {
    for (unsigned q = 0; q < count; ++q) {
      double p[3] = {u(rng) * 1.2 - 0.1, u(rng), u(rng)};  // some outside the box
      if (q % 2) {  // at or very near a node, often in a cluster
        const unsigned n = rng() % N;
        for (unsigned a = 0; a < 3; ++a) p[a] = xyz(a, n) + (q % 4 == 1 ? 0.0 : 1e-7 * u(rng));
      }
      double blo[3], bhi[3];
      const double h = q % 3 == 0 ? 0.2 : (q % 3 == 1 ? 1e-3 : 1e-6);
      for (unsigned a = 0; a < 3; ++a) blo[a] = p[a] - h * u(rng), bhi[a] = p[a] + h * u(rng);
      if (q % 5 == 0) blo[0] = xyz(0, rng() % N), bhi[2] = 1.0;  // corners on node and box planes
      // One linear scan: nearest alive node, nearest odd alive node, nodes in the box.
      double best = 1e300, best_odd = 1e300;
      unsigned want = NONE, want_odd = NONE;
      std::vector<unsigned> want_box;
      for (unsigned n = 0; n < N; ++n) {
        if (!in[n]) continue;
        const double* x = &pts[3 * n];
        if ((blo[0] <= x[0]) & (x[0] <= bhi[0]) & (blo[1] <= x[1]) & (x[1] <= bhi[1]) &
            (blo[2] <= x[2]) & (x[2] <= bhi[2]))
          want_box.push_back(n);
        if (anc[n] == NONE) continue;
        const double dx = x[0] - p[0], dy = x[1] - p[1], dz = x[2] - p[2];
        const double d = dx * dx + dy * dy + dz * dz;
        if (d < best) best = d, want = n;
        if (n % 2 == 1 && d < best_odd) best_odd = d, want_odd = n;
      }
      const unsigned got = loc.nearest_node(p);
      ASSERT_TRUE(got != NONE && in[got]);
      ASSERT_EQ(d2(xyz, got, p), best) << q;
      EXPECT_TRUE(best != 0.0 || got == want);  // repeats share a leaf: the lowest index wins
      const unsigned near = loc.near_node(p);
      EXPECT_TRUE(near != NONE && in[near] && anc[near] != NONE);
      const unsigned odd = loc.nearest_node_filtered(p, [](unsigned n) { return n % 2 == 1; });
      ASSERT_TRUE(odd != NONE && odd % 2 == 1 && in[odd]);
      ASSERT_EQ(d2(xyz, odd, p), best_odd) << q << " " << want_odd;

      dense1D<unsigned> out;
      ASSERT_TRUE(loc.nodes_in_box(blo, bhi, out));
      std::vector<unsigned> got_box(out.begin(), out.end());
      std::sort(got_box.begin(), got_box.end());
      ASSERT_EQ(got_box, want_box) << q;

      // The early-stopping search: every node of the box is offered until one is accepted.
      unsigned ilo[3], ihi[3], from[3];
      loc.octree.to_cell_coords(blo, ilo);
      loc.octree.to_cell_coords(bhi, ihi);
      loc.octree.to_cell_coords(p, from);
      std::vector<unsigned> offered;
      EXPECT_FALSE(loc.octree.any_in_box(ilo, ihi, blo, bhi, from, [&](unsigned n) {
        offered.push_back(n);
        return false;
      }));
      std::sort(offered.begin(), offered.end());
      ASSERT_EQ(offered, want_box) << q;
      if (!want_box.empty()) {
        const unsigned pick = want_box[q % want_box.size()];
        unsigned calls = 0, hit = NONE;
        EXPECT_TRUE(loc.octree.any_in_box(ilo, ihi, blo, bhi, from, [&](unsigned n) {
          ++calls;
          hit = n;
          return n == pick;
        }));
        EXPECT_EQ(hit, pick);
        EXPECT_LE(calls, unsigned(want_box.size()));
      }
    }
  };
  run_queries(1000);

  // Half the nodes go, in random order; a few more leave the mesh but stay in the tree.
  std::vector<unsigned> order(list);
  std::shuffle(order.begin(), order.end(), rng);
  for (unsigned i = 0; i < N / 2; ++i) {
    ASSERT_TRUE(loc.remove(order[i]));
    in[order[i]] = 0;
  }
  for (unsigned i = 0; i < 50; ++i) EXPECT_FALSE(loc.remove(order[i]));
  for (unsigned i = N / 2; i < N / 2 + 500; ++i) anc[order[i]] = NONE;
  EXPECT_EQ(loc.count, N - N / 2);
  std::vector<unsigned> left;
  for (unsigned n = 0; n < N; ++n)
    if (in[n]) left.push_back(n);
  EXPECT_EQ(check_cells(loc.octree), left);
  run_queries(1000);

  for (unsigned i = N / 2; i < N; ++i) ASSERT_TRUE(loc.remove(order[i]));
  check_cells(loc.octree);
  EXPECT_TRUE(loc.octree.empty());
}

// Catches a build that adds nodes of deleted tets, repeats nodes, or counts refused ones.
TEST(NodeOctree, BuildFromTets) {
  slot_table<double> xyz(3);
  for (unsigned i = 0; i < 6; ++i) put(xyz, 0.1 * i, 0.2, 0.3);
  put(xyz, 5.0, 0.0, 0.0);  // outside the box given below
  slot_table<unsigned> tets(4);
  const unsigned rows[3][4] = {{0, 1, 2, 3}, {3, 2, 1, 4}, {1, 2, 5, 6}};
  for (auto& r : rows) {
    const unsigned t = tets.acquire();
    std::copy(r, r + 4, tets.row(t));
  }
  tets.release(1);  // node 4 only occurs in this deleted row
  dense1D<unsigned> anc(7, 0u);
  node_locator loc(&xyz, &tets, nullptr, &anc);
  const double lo[3] = {0, 0, 0}, hi[3] = {1, 1, 1};
  EXPECT_EQ(loc.build(lo, hi), 5u);
  EXPECT_EQ(check_cells(loc.octree), (std::vector<unsigned>{0, 1, 2, 3, 5}));
}

// Catches a box query that takes a whole leaf on the strength of its integer corners, reporting a
// node that lies a fraction of a position outside the box.
TEST(NodeOctree, BoxEdgeWithinOnePosition) {
  slot_table<double> xyz(3);
  const double lo[3] = {0, 0, 0}, hi[3] = {1, 1, 1};
  node_locator loc(&xyz, nullptr, nullptr, nullptr);
  ASSERT_TRUE(loc.set_box(lo, hi));
  ASSERT_TRUE(loc.add(put(xyz, 0.0, 0.5, 0.5)));
  ASSERT_TRUE(loc.add(put(xyz, 1.0, 0.5, 0.5)));
  const double blo[3] = {1e-10, 0.0, 0.0};
  unsigned c[3];
  loc.octree.to_cell_coords(blo, c);
  EXPECT_EQ(c[0], 0u);  // the same position as the node at x = 0
  dense1D<unsigned> out;
  ASSERT_TRUE(loc.nodes_in_box(blo, hi, out));
  ASSERT_EQ(out.size, 1u);
  EXPECT_EQ(out[0], 1u);
}
