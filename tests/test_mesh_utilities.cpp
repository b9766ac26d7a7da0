// Mesh utilities: ancestors and neighbours of tables, the two smoothers of a size field, the
// closest-node search and the interpolation of sizes in a tet mesh.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "gridkit/adjacency.h"
#include "gridkit/gridkit3d/metric_interpolation.h"
#include "gridkit/metric_smoothing.h"
#include "gridkit/node_detector.h"
#include "voxfill/mesher_th4.h"

using kelvo::dense1D;
using kelvo::dense2D;
using kelvo::voxfill::mesher;
namespace gridkit = kelvo::gridkit;
constexpr unsigned NONE = 0xFFFFFFFFu;

namespace {

dense2D<unsigned> table(unsigned rows, const std::vector<unsigned>& v) {
  dense2D<unsigned> t(rows, unsigned(v.size()) / rows);
  for (unsigned k = 0; k < v.size(); ++k) t(k % rows, k / rows) = v[k];
  return t;
}

dense1D<unsigned> list(const std::vector<unsigned>& v) {
  dense1D<unsigned> l;
  for (unsigned x : v) l.push_back(x);
  return l;
}

// The tets of an n x n x n block of cubes, six per cube, over (n + 1)^3 lattice nodes (unit
// spacing, node i + s j + s^2 k); `extra` unused nodes follow.
void lattice(unsigned n, unsigned extra, dense2D<double>& pos, dense2D<unsigned>& tets) {
  const unsigned s = n + 1;
  pos.resize(3, s * s * s + extra, 0.0);
  for (unsigned k = 0; k < s; ++k)
    for (unsigned j = 0; j < s; ++j)
      for (unsigned i = 0; i < s; ++i) {
        const unsigned v = i + s * j + s * s * k;
        pos(0, v) = i, pos(1, v) = j, pos(2, v) = k;
      }
  std::vector<unsigned> t;
  const unsigned step[3] = {1, s, s * s};
  for (unsigned k = 0; k < n; ++k)
    for (unsigned j = 0; j < n; ++j)
      for (unsigned i = 0; i < n; ++i) {
        const unsigned o = i + s * j + s * s * k;
        unsigned axes[3] = {0, 1, 2};
        do {
          const unsigned a = o + step[axes[0]], b = a + step[axes[1]];
          t.insert(t.end(), {o, a, b, o + s * s + s + 1});
        } while (std::next_permutation(axes, axes + 3));
      }
  tets = table(4, t);
}

template <class F>
void each_edge(const dense2D<unsigned>& c, F f) {
  for (unsigned j = 0; j < c.cols; ++j)
    for (unsigned a = 0; a < c.rows; ++a)
      for (unsigned b = a + 1; b < c.rows; ++b) f(c(a, j), c(b, j));
}

double dist(const dense2D<double>& pos, unsigned a, unsigned b) {
  double s = 0;
  for (unsigned k = 0; k < 3; ++k) s += (pos(k, a) - pos(k, b)) * (pos(k, a) - pos(k, b));
  return std::sqrt(s);
}

}  // namespace

// Ancestors cover the largest index, point at a column holding the node, and leave unused nodes
// at NONE; neighbours pair the sides of triangles (side i opposite node i), of tets and of edges,
// whatever the orientation, and a side held three times is a cycle or free after the flag. A
// wrong side numbering, a missed pair or an open side on a non-manifold edge would show here.
TEST(MeshUtilities, AncestorsAndNeighbors) {
  // Triangles 0 and 1 share side (1, 2); triangles 2, 3 and 4 all hold side (3, 4).
  const dense2D<unsigned> tri = table(3, {0, 1, 2, 2, 1, 5, 3, 4, 6, 4, 3, 7, 3, 4, 8});
  dense1D<unsigned> anc;
  ASSERT_EQ(gridkit::get_ancestors(tri, anc), 0);
  ASSERT_EQ(anc.size, 9u);
  for (unsigned n = 0; n < 9; ++n) {
    const unsigned c = anc[n];
    ASSERT_LT(c, tri.cols);
    EXPECT_TRUE(tri(0, c) == n || tri(1, c) == n || tri(2, c) == n);
  }
  const dense2D<unsigned> gap = table(2, {0, 4});
  ASSERT_EQ(gridkit::get_ancestors(gap, anc), 0);
  EXPECT_EQ(anc.size, 5u);
  EXPECT_EQ(anc[2], NONE);
  ASSERT_EQ(gridkit::get_ancestors(dense2D<unsigned>(), anc), 0);
  EXPECT_EQ(anc.size, 0u);

  dense2D<unsigned> nb;
  ASSERT_EQ(gridkit::get_neighbors(tri, kelvo::TRIA3, true, nb), 0);
  ASSERT_EQ(nb.rows, 3u);
  ASSERT_EQ(nb.cols, 5u);
  EXPECT_EQ(nb(0, 0), 1u);  // side (1, 2) of triangle 0 is opposite node 0
  EXPECT_EQ(nb(1, 0), NONE);
  EXPECT_EQ(nb(2, 1), 0u);  // (2, 1) in triangle 1: opposite its node 5
  EXPECT_EQ(nb(2, 2), 3u);  // the three holders of (3, 4) in a cycle
  EXPECT_EQ(nb(2, 3), 4u);
  EXPECT_EQ(nb(2, 4), 2u);
  ASSERT_EQ(gridkit::get_neighbors(tri, kelvo::TRIA3, false, nb), 0);
  EXPECT_EQ(nb(2, 2), NONE);
  EXPECT_EQ(nb(0, 0), 1u);

  const dense2D<unsigned> two = table(4, {0, 1, 2, 3, 4, 2, 1, 3});  // share face (1, 2, 3)
  ASSERT_EQ(gridkit::get_neighbors(two, kelvo::TETRA4, true, nb), 0);
  EXPECT_EQ(nb(0, 0), 1u);
  EXPECT_EQ(nb(0, 1), 0u);
  for (unsigned i = 1; i < 4; ++i) EXPECT_EQ(nb(i, 0), NONE);

  const dense2D<unsigned> path = table(2, {0, 1, 1, 2});
  ASSERT_EQ(gridkit::get_neighbors(path, kelvo::EDGE2, true, nb), 0);
  EXPECT_EQ(nb(0, 0), 1u);  // across node 1, opposite local node 0
  EXPECT_EQ(nb(1, 0), NONE);
  EXPECT_EQ(nb(1, 1), 0u);
  EXPECT_EQ(gridkit::get_neighbors(path, kelvo::TRIA3, true, nb), -1);
  EXPECT_EQ(nb.rows, 2u);  // a refusal leaves the output as it was
}

// On a lattice with sizes spread over three decades: the ratio smoother (lowering) and the
// gradation smoother (both ways) meet their bound on every edge, only move sizes the right way,
// keep them positive, leave nodes outside the table and nodes without size alone, give the
// extreme field (equal to a relaxation to the fixed point), are deterministic, and with the flag
// off move only the listed nodes. A smoother that stops early, overshoots or touches the wrong
// nodes fails here.
TEST(MeshUtilities, SmoothersBoundTheField) {
  dense2D<double> pos;
  dense2D<unsigned> tets;
  lattice(4, 3, pos, tets);
  const unsigned n = pos.cols, inside = n - 3;
  std::mt19937 g(11);
  std::uniform_real_distribution<double> u(-3.0, 0.0);
  dense1D<double> start(n);
  for (unsigned i = 0; i < n; ++i) start[i] = std::pow(10.0, u(g));
  start[7] = 0.0;  // no size: neither read nor written
  for (unsigned i = inside; i < n; ++i) start[i] = 5.0;

  // The fixed point of the law by plain relaxation, to compare with.
  auto relax = [&](dense1D<double> h, auto bound, bool lower) {
    for (bool changed = true; changed;) {
      changed = false;
      each_edge(tets, [&](unsigned a, unsigned b) {
        for (int k = 0; k < 2; ++k, std::swap(a, b)) {
          if (!(h[a] > 0) || !(h[b] > 0)) continue;
          const double c = bound(h[a], dist(pos, a, b));
          if (lower ? c < h[b] * (1 - 1e-14) : c > h[b] * (1 + 1e-14)) h[b] = c, changed = true;
        }
      });
    }
    return h;
  };
  const dense1D<unsigned> none;
  for (int mode : {0, 1}) {
    const bool lower = mode == 1;
    dense1D<double> h, again;
    h.copy(start);
    again.copy(start);
    ASSERT_EQ(gridkit::bound_metric_variations(pos, tets, kelvo::TETRA4, none, true, mode, 4.0, h),
              0);
    gridkit::bound_metric_variations(pos, tets, kelvo::TETRA4, none, true, mode, 4.0, again);
    EXPECT_EQ(std::memcmp(h.data(), again.data(), n * sizeof(double)), 0);
    dense1D<double> ref;
    ref.copy(start);
    ref = relax(
        ref, [&](double x, double) { return lower ? 4.0 * x : x / 4.0; }, lower);
    for (unsigned i = 0; i < n; ++i) {
      EXPECT_NEAR(h[i], ref[i], 1e-12 * ref[i]) << i;
      if (i == 7 || i >= inside) {
        EXPECT_EQ(h[i], start[i]);
        continue;
      }
      EXPECT_GT(h[i], 0.0);
      EXPECT_TRUE(lower ? h[i] <= start[i] : h[i] >= start[i]);
    }
    each_edge(tets, [&](unsigned a, unsigned b) {
      if (a == 7 || b == 7) return;
      EXPECT_LE(std::max(h[a] / h[b], h[b] / h[a]), 4.0 * (1 + 1e-12));
    });
  }

  for (int mode : {0, 1}) {
    const bool lower = mode == 0;
    dense1D<double> h;
    h.copy(start);
    ASSERT_EQ(gridkit::bound_metric_gradations(pos, tets, kelvo::TETRA4, none, true, mode, 0.5, h),
              0);
    each_edge(tets, [&](unsigned a, unsigned b) {
      if (a == 7 || b == 7) return;
      EXPECT_LE(std::fabs(h[a] - h[b]), 0.5 * dist(pos, a, b) + 1e-12);
    });
    for (unsigned i = 0; i < n; ++i) {
      EXPECT_TRUE(i == 7 || h[i] > 0.0);
      EXPECT_TRUE(lower ? h[i] <= start[i] : h[i] >= start[i]);
    }
  }

  // Listed nodes only: a target size of 10 on a few nodes next to small fixed sizes.
  dense1D<double> h;
  h.copy(start);
  const dense1D<unsigned> listed = list({30, 31, 62});
  for (unsigned i : listed) h[i] = 10.0;
  ASSERT_EQ(gridkit::bound_metric_gradations(pos, tets, kelvo::TETRA4, listed, false, 0, 0.5, h),
            0);
  for (unsigned i = 0; i < n; ++i) {
    if (i == 30 || i == 31 || i == 62) {
      EXPECT_LT(h[i], 3.0);
      EXPECT_GT(h[i], 0.0);
    } else {
      EXPECT_EQ(h[i], start[i]);
    }
  }
  EXPECT_EQ(gridkit::bound_metric_variations(pos, tets, kelvo::TETRA4, none, true, 2, 4.0, h), -1);
  EXPECT_EQ(gridkit::bound_metric_variations(pos, tets, kelvo::TETRA4, none, true, 1, 0.5, h), -1);
}

// The k-d tree against brute force on random clouds and on a lattice full of ties, with the list
// in a random order: the first listed node among the nearest wins. A pruning that drops a closer
// branch, or ties that follow the tree rather than the list, would differ.
TEST(MeshUtilities, NodeDetectorEqualsBruteForce) {
  std::mt19937 g(7);
  for (unsigned trial = 0; trial < 6; ++trial) {
    const unsigned n = 50 + 400 * trial;
    dense2D<double> pos(3, n);
    const bool ties = trial % 2 == 1;
    for (unsigned j = 0; j < n; ++j)
      for (unsigned k = 0; k < 3; ++k)
        pos(k, j) = ties ? double(g() % 5) : std::uniform_real_distribution<double>(-1, 1)(g);
    std::vector<unsigned> picked;
    for (unsigned j = 0; j < n; ++j)
      if (g() % 3 == 0) picked.push_back(j);
    std::shuffle(picked.begin(), picked.end(), g);
    const dense1D<unsigned> listed = list(picked);
    gridkit::node_detector d;
    ASSERT_EQ(d.reinit(pos, listed), 0);
    for (unsigned q = 0; q < n; ++q) {
      unsigned best = NONE;
      double bd = INFINITY;
      for (unsigned c : picked) {
        double s = 0;
        for (unsigned k = 0; k < 3; ++k) s += (pos(k, q) - pos(k, c)) * (pos(k, q) - pos(k, c));
        if (s < bd) bd = s, best = c;
      }
      ASSERT_EQ(d.find_closest(q), best) << trial << " " << q;
    }
  }
  gridkit::node_detector empty;
  ASSERT_EQ(empty.reinit(dense2D<double>(3, 4, 0.0), dense1D<unsigned>()), 0);
  EXPECT_EQ(empty.find_closest(0), NONE);
}

// A linear field is reproduced at random points inside the Delaunay mesh of a cloud (up to
// rounding), and nodes outside the mesh keep their old entry, with either flag. The mesh of the
// cloud need not fill its hull (tets on the enclosing box are dropped), so a brute-force search
// tells which probes are inside. A wrong weight order, a walk that stops in the wrong tet or an
// outside node that gets a value shows here.
TEST(MeshUtilities, InterpolateMetricsIsLinearExact) {
  std::mt19937 g(3);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  const unsigned mesh_nodes = 300, probes = 200;
  mesher::data_type d;
  d.pos.resize(3, mesh_nodes + probes + 2);
  for (unsigned j = 0; j < mesh_nodes + probes; ++j)
    for (unsigned k = 0; k < 3; ++k) d.pos(k, j) = j < 8 ? double((j >> k) & 1) : u(g);
  for (unsigned k = 0; k < 3; ++k) {
    d.pos(k, mesh_nodes + probes) = 1.5;  // outside the unit cube, the hull
    d.pos(k, mesh_nodes + probes + 1) = -0.25;
  }
  for (unsigned j = 0; j < mesh_nodes; ++j) d.isolated_nodes.push_back(j);
  mesher m;
  m.settings.mode = 2;
  m.run(d);
  ASSERT_EQ(d.error_code, 0);
  ASSERT_GT(d.tet_count, 0u);
  auto f = [&](unsigned j) {
    return 2.0 + 0.7 * d.pos(0, j) - 0.4 * d.pos(1, j) + 1.1 * d.pos(2, j);
  };
  // 1 clearly in a tet, -1 clearly in none, 0 too close to a face of the mesh's skin to say.
  auto inside = [&](unsigned j) {
    int verdict = -1;
    for (unsigned t = 0; t < d.connectM.cols; ++t) {
      double M[3][3], r[3], w[4];
      const unsigned* n = d.connectM.col(t);
      for (unsigned k = 0; k < 3; ++k) {
        for (unsigned c = 0; c < 3; ++c) M[k][c] = d.pos(k, n[c]) - d.pos(k, n[3]);
        r[k] = d.pos(k, j) - d.pos(k, n[3]);
      }
      auto det = [](double A[3][3]) {
        return A[0][0] * (A[1][1] * A[2][2] - A[1][2] * A[2][1]) -
               A[0][1] * (A[1][0] * A[2][2] - A[1][2] * A[2][0]) +
               A[0][2] * (A[1][0] * A[2][1] - A[1][1] * A[2][0]);
      };
      const double D = det(M);
      double low = 1.0;
      for (unsigned c = 0; c < 3; ++c) {
        double A[3][3];
        std::memcpy(A, M, sizeof A);
        for (unsigned k = 0; k < 3; ++k) A[k][c] = r[k];
        w[c] = det(A) / D;
        low = std::min(low, w[c]);
      }
      w[3] = 1.0 - w[0] - w[1] - w[2];
      low = std::min(low, w[3]);
      if (low > 1e-9) return 1;
      if (low > -1e-9) verdict = 0;
    }
    return verdict;
  };
  unsigned found = 0;
  for (bool flag : {true, false}) {
    dense1D<double> metrics(d.pos.cols, 0.0);
    for (unsigned j = 0; j < mesh_nodes; ++j) metrics[j] = f(j);
    metrics[mesh_nodes + probes] = -3.0;
    dense1D<unsigned> probe_list;
    for (unsigned j = mesh_nodes; j < d.pos.cols; ++j) probe_list.push_back(j);
    ASSERT_EQ(kelvo::gridkit3d::interpolate_metrics(d.pos, d.connectM, d.neighbors, d.ancestors,
                                                    metrics, probe_list, flag),
              0);
    for (unsigned j = mesh_nodes; j < mesh_nodes + probes; ++j) {
      const int v = inside(j);
      if (v == 1) {
        EXPECT_NEAR(metrics[j], f(j), 1e-12 * f(j)) << j;
      } else if (v == -1) {
        EXPECT_EQ(metrics[j], 0.0) << j;
      }
      found += v == 1;
    }
    EXPECT_EQ(metrics[mesh_nodes + probes], -3.0);
    EXPECT_EQ(metrics[mesh_nodes + probes + 1], 0.0);
    for (unsigned j = 0; j < mesh_nodes; ++j) ASSERT_EQ(metrics[j], f(j));
  }
  EXPECT_GT(found, 2 * probes * 9 / 10);
}
