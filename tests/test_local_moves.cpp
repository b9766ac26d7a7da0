// Local moves: the exchange of tet sets, the merit, the shell patterns against a brute-force
// search, split and contraction, and sequences of edge moves on a real mesh.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <functional>
#include <numbers>
#include <random>
#include <vector>

#include "delaunay/geometry.h"
#include "delaunay/mesh_check.h"
#include "delaunay/mesh_walks.h"
#include "mesh_fixtures.h"
#include "voxfill/optim/edge_code.h"
#include "voxfill/optim/edge_contraction.h"
#include "voxfill/optim/edge_move.h"
#include "voxfill/optim/edge_split.h"
#include "voxfill/optim/face_swaps.h"
#include "voxfill/optim/node_insertion.h"
#include "voxfill/optim/shell_reconnection.h"

using namespace kelvo::voxfill;
using kelvo::dense1D;
using kelvo::dense2D;

namespace {

// A closed shell of r tets round the edge from node 0 to node 1, ring nodes 2 .. r + 1 on a
// jittered circle. Qualities are stored. Wrapped, it is closed off by two fans of tets.
void make_shell(mesh_store& m, unsigned r, double half_height, unsigned seed,
                bool wrapped = false) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> U(-0.15, 0.15);
  std::vector<std::array<double, 3>> pts = {{U(rng), U(rng), -half_height},
                                            {U(rng), U(rng), half_height}};
  for (unsigned i = 0; i < r; ++i) {
    const double angle = 2 * std::numbers::pi * (i + U(rng)) / r, radius = 1 + U(rng);
    pts.push_back({radius * std::cos(angle), radius * std::sin(angle), U(rng)});
  }
  std::vector<std::array<unsigned, 4>> tets;
  for (unsigned i = 0; i < r; ++i) tets.push_back({2 + i, 2 + (i + 1) % r, 0, 1});
  if (wrapped) {
    // Fans to two apexes on the axis: every outer face of the shell has a tet beyond it.
    pts.push_back({0.0, 0.0, half_height + 2});
    pts.push_back({0.0, 0.0, -half_height - 2});
    for (unsigned i = 0; i < r; ++i) {
      tets.push_back({2 + i, 2 + (i + 1) % r, 1, r + 2});
      tets.push_back({2 + i, 2 + (i + 1) % r, 0, r + 3});
    }
  }
  fixtures::load_mesh(m, pts, tets);
  m.recompute_qualities(false);
}

double volume(const mesh_store& m) {
  double v = 0.0;
  for (unsigned t = 0; t < m.tets.cols(); ++t) {
    if (m.tet_deleted(t)) continue;
    const unsigned* n = m.tets.row(t);
    v += orient_det(m.nodes.data, n[0], n[1], n[2], n[3]);
  }
  return v / 6;
}

mesh_check_result full_check(const mesh_store& m) {
  mesh_check_options o;
  o.positive_quality = o.stored_qualities = true;
  return check_mesh(m, o);
}

// All triangulations of the convex polygon (0 .. r - 1), each as a list of triangles.
void triangulations(unsigned lo, unsigned hi,
                    std::vector<std::vector<std::array<unsigned, 3>>>& out) {
  out.clear();
  if (hi - lo < 2) {
    out.push_back({});
    return;
  }
  for (unsigned k = lo + 1; k < hi; ++k) {
    std::vector<std::vector<std::array<unsigned, 3>>> left, right;
    triangulations(lo, k, left);
    triangulations(k, hi, right);
    for (const auto& l : left)
      for (const auto& r : right) {
        auto t = l;
        t.insert(t.end(), r.begin(), r.end());
        t.push_back({lo, k, hi});
        out.push_back(t);
      }
  }
}

// The best merit over every triangulation of the ring, computed without the pattern table.
double brute_force_best(move_record& mr, unsigned a, unsigned b, const dense1D<unsigned>& ring,
                        double limit) {
  std::vector<std::vector<std::array<unsigned, 3>>> all;
  triangulations(0, ring.size - 1, all);
  double best = 0.0;
  for (const auto& tri : all) {
    dense2D<unsigned> rows(4, unsigned(2 * tri.size()));
    double q = 1.0, s = 1.0;
    for (unsigned t = 0; t < tri.size(); ++t) {
      const unsigned i = ring[tri[t][0]], j = ring[tri[t][1]], k = ring[tri[t][2]];
      const unsigned up[4] = {i, j, k, a}, down[4] = {k, j, i, b};
      std::copy_n(up, 4, rows.col(2 * t));
      std::copy_n(down, 4, rows.col(2 * t + 1));
      q = std::min({q, tet_quality(mr.store.nodes.data, i, j, k, a),
                    tet_quality(mr.store.nodes.data, k, j, i, b)});
      for (unsigned e = 0; e < 3; ++e) {
        const unsigned u = tri[t][e], v = tri[t][(e + 1) % 3];
        const bool side = (v == u + 1) || (u == v + 1) || (u + v == ring.size - 1 && u * v == 0);
        if (!side && mr.merit.shape_weight < 1.0)
          s = std::min(s, symmetric_length(mr.store, ring[u], ring[v]));
      }
    }
    if (!(q > limit)) continue;
    best = std::max(best, mr.merit.merit_blend(s, q) * mr.merit.topology_factor(rows));
  }
  return best;
}

// Local edge of tet t joining a and b.
unsigned local_edge(const mesh_store& m, unsigned t, unsigned a, unsigned b) {
  for (unsigned k = 0; k < 6; ++k) {
    unsigned x, y;
    edge_nodes(m, t, k, x, y);
    if ((x == a && y == b) || (x == b && y == a)) return k;
  }
  return 6;
}

}  // namespace

TEST(MoveMerit, ValuesAndFactors) {
  EXPECT_EQ(log_mean(0.7, 0.7), 0.7);
  EXPECT_NEAR(log_mean(1.0, 2.0), 1.0 / std::log(2.0), 1e-15);
  // Below a ratio of 1.1 a series takes over; it meets the formula there.
  EXPECT_NEAR(log_mean(1.0, 1.05), 0.05 / std::log(1.05), 1e-8);
  EXPECT_NEAR(log_mean(1.0, 1.0999999999), log_mean(1.0, 1.1), 2e-7);
  EXPECT_EQ(log_mean(2.0, 3.0), log_mean(3.0, 2.0));

  mesh_store m;
  fixtures::centred_cube(m);
  m.recompute_qualities(false);
  EXPECT_EQ(metric_length(m, 0, 1), 0.0);  // no sizes
  for (unsigned n = 0; n < 9; ++n) m.node_sizes[n] = 0.5;
  EXPECT_DOUBLE_EQ(metric_length(m, 0, 1), 2.0);
  EXPECT_DOUBLE_EQ(symmetric_length(m, 0, 1), 0.5);

  move_merit mm(m);
  EXPECT_EQ(mm.merit_blend(0.1, 0.8), 0.8);
  mm.shape_weight = 0.6;
  EXPECT_NEAR(mm.merit_blend(0.5, 0.8), std::pow(0.8, 0.6) * std::pow(0.5, 0.4), 1e-15);

  // Without topology terms every candidate has factor 1.
  dense2D<unsigned> three(4, 3), two(4, 2), six(4, 6), twelve(4, 12);
  for (auto* rows : {&three, &two, &six, &twelve})
    for (unsigned j = 0; j < rows->cols; ++j) std::copy_n(m.tets.row(j), 4, rows->col(j));
  mm.merit_reference(three);
  EXPECT_EQ(mm.topology_factor(two), 1.0);

  // Count terms: 3 -> 2 earns 1 / r, 4 -> 4 nothing, 6 -> 12 is clamped to +4 and pays 0.9.
  mm.start_topology_terms();
  const double r = std::pow(0.9, 0.25);
  mm.merit_reference(three);
  EXPECT_NEAR(mm.topology_factor(two) / std::pow(0.4, mm.hard_share(two)), 1 / r, 1e-15);
  mm.merit_reference(six);
  EXPECT_NEAR(mm.topology_factor(twelve), 0.9, 1e-15);
  mm.merit_reference(six);
  EXPECT_EQ(mm.topology_factor(six), 1.0);

  // Hard nodes: each quarter more in the worst row costs 0.4^0.25.
  m.hard_set.add_node(8);
  m.hard_set.add_node(0);
  EXPECT_EQ(mm.hard_share(three), 0.5);  // tets 0 and 1 hold nodes 0 and 8
  EXPECT_EQ(mm.hard_share(dense2D<unsigned>(4, 0)), 0.0);

  // Solid angles: a full sphere round the inner node, an octant at a corner of the cube.
  ASSERT_TRUE(mm.fill_valence_records());
  EXPECT_NEAR(mm.valence_records[8].angle, 4 * std::numbers::pi, 1e-5);
  EXPECT_NEAR(mm.valence_records[0].angle, std::numbers::pi / 2, 1e-5);
  EXPECT_NEAR(mm.valence_records[8].count, 12 * PI_OVER_5, 1e-5);
  EXPECT_EQ(valence_fit(2.0, 2.0), 1.0);
  EXPECT_EQ(valence_fit(4 * std::numbers::pi, 0.0), 0.0);
  mm.add_valence_record(20);
  EXPECT_GE(mm.valence_records.size, 21u);
  EXPECT_EQ(mm.valence_records[20].count, 0.0f);
  // Counts follow a committed exchange.
  mm.commit_valence(three, two);
  EXPECT_NEAR(mm.valence_records[8].count, 11 * PI_OVER_5, 1e-5);
}

TEST(ReplaceTets, ExchangesKeepTheMeshAndRefusalsChangeNothing) {
  for (unsigned r = 3; r <= 6; ++r)
    for (const bool wrapped : {true, false}) {
      mesh_store m;
      make_shell(m, r, 0.5, 7 * r, wrapped);
      replace_scratch s;
      dense1D<unsigned> shell, ring, fresh;
      ASSERT_TRUE(shell_with_ring(m, 0, 1, 0, shell, ring));
      ASSERT_EQ(shell.size, r);
      const double v0 = volume(m);
      dense2D<unsigned> rows, edges;
      ASSERT_TRUE(pattern_rows(0, 1, ring, 0, rows, edges));
      dense1D<double> q;
      for (unsigned j = 0; j < rows.cols; ++j)
        q.push_back(tet_quality(m.nodes.data, rows(0, j), rows(1, j), rows(2, j), rows(3, j)));

      // Rows that do not fit are refused with every table as it was.
      const fixtures::table_snapshot before(m);
      auto refused = [&](const dense1D<unsigned>& old, const dense2D<unsigned>& bad,
                         const dense1D<double>& bq) {
        EXPECT_FALSE(replace_tets(m, s, old, bad, bq, fresh)) << "r = " << r;
        EXPECT_TRUE(before.same_as(m)) << "r = " << r;
      };
      dense2D<unsigned> bad;
      bad.copy(rows);
      bad(2, 0) = bad(1, 0);  // (a, b, b, c): one neighbour through two faces
      refused(shell, bad, q);
      if (wrapped) {  // on the hull only the outside tets can tell a set turned inside out
        bad.copy(rows);
        for (unsigned j = 0; j < bad.cols; ++j) std::swap(bad(1, j), bad(2, j));
        refused(shell, bad, q);
      }
      bad = rows.sub_matrix(0, 0, 4, rows.cols - 1);  // a row short: the region is not filled
      refused(shell, bad, q);
      dense1D<unsigned> twice;
      twice.copy(shell);
      twice.push_back(shell[0]);
      refused(twice, rows, q);

      ++m.tet_clock;
      ASSERT_TRUE(replace_tets(m, s, shell, rows, q, fresh));
      ASSERT_EQ(fresh.size, 2 * r - 4);
      // Old rows are reused first, in order.
      for (unsigned i = 0; i < std::min(r, fresh.size); ++i) EXPECT_EQ(fresh[i], shell[i]);
      for (unsigned i = 0; i < fresh.size; ++i) {
        EXPECT_EQ(m.tet_stamps[fresh[i]], m.tet_clock);
        EXPECT_EQ(m.colors[fresh[i]], 0u);
      }
      const mesh_check_result c = full_check(m);
      EXPECT_TRUE(c.ok) << c.text;
      EXPECT_NEAR(volume(m), v0, 1e-12 * std::fabs(v0));
      // The edge is gone, its nodes stay in tets; the diagonals are edges now.
      EXPECT_EQ(edge_tet(m, 0, 1), NONE);
      for (unsigned d = 0; d < edges.cols; ++d)
        EXPECT_NE(edge_tet(m, edges(0, d), edges(1, d)), NONE);
      for (unsigned n = 0; n < m.nodes.cols(); ++n) EXPECT_NE(m.ancestors[n], NONE);
    }
}

TEST(ShellReconnection, PatternTableHoldsEveryTriangulationOnce) {
  for (unsigned r = 3; r <= 6; ++r) {
    std::vector<std::vector<std::array<unsigned, 3>>> all;
    triangulations(0, r - 1, all);
    ASSERT_EQ(pattern_count(r), all.size());
    std::vector<std::vector<std::array<unsigned, 3>>> seen;
    for (unsigned p = 0; p < pattern_count(r); ++p) {
      const shell_pattern& pat = pattern_of(r, p);
      std::vector<std::array<unsigned, 3>> tris;
      for (unsigned t = 0; t + 2 < r; ++t) {
        std::array<unsigned, 3> x = {pat.triangles[t][0], pat.triangles[t][1], pat.triangles[t][2]};
        // Every triangle turns as the ring does.
        const unsigned lo = unsigned(std::min_element(x.begin(), x.end()) - x.begin());
        std::rotate(x.begin(), x.begin() + lo, x.end());
        EXPECT_TRUE(x[1] < x[2]) << "r " << r << " pattern " << p;
        tris.push_back(x);
      }
      // The diagonals are the sides of the triangles that are not ring sides.
      std::vector<std::array<unsigned, 2>> inner, listed;
      for (const auto& x : tris)
        for (unsigned e = 0; e < 3; ++e) {
          const unsigned u = std::min(x[e], x[(e + 1) % 3]), v = std::max(x[e], x[(e + 1) % 3]);
          if (v - u != 1 && !(u == 0 && v == r - 1)) inner.push_back({u, v});
        }
      for (unsigned d = 0; d + 3 < r; ++d)
        listed.push_back({std::min(pat.diagonals[d][0], pat.diagonals[d][1]),
                          std::max(pat.diagonals[d][0], pat.diagonals[d][1])});
      std::sort(inner.begin(), inner.end());
      inner.erase(std::unique(inner.begin(), inner.end()), inner.end());
      std::sort(listed.begin(), listed.end());
      EXPECT_EQ(inner, listed) << "r " << r << " pattern " << p;
      std::sort(tris.begin(), tris.end());
      EXPECT_TRUE(std::find(seen.begin(), seen.end(), tris) == seen.end());
      seen.push_back(tris);
    }
  }
  EXPECT_EQ(pattern_count(2), 0u);
  EXPECT_EQ(pattern_count(7), 0u);
}

TEST(ShellReconnection, BestPatternEqualsBruteForce) {
  for (unsigned r = 3; r <= 7; ++r)
    for (unsigned seed = 1; seed <= 12; ++seed)
      for (const bool topology : {false, true}) {
        mesh_store m;
        make_shell(m, r, seed % 3 == 0 ? 1.5 : 0.08 * seed, 31 * seed + r);
        std::mt19937 rng(seed);
        for (unsigned n = 0; n < m.nodes.cols(); ++n)
          m.node_sizes[n] = std::uniform_real_distribution<double>(0.4, 1.6)(rng);
        move_merit mm(m);
        move_record mr(m, mm);
        if (topology) {
          mm.shape_weight = 0.6;
          mm.start_topology_terms();
          ASSERT_TRUE(mm.fill_valence_records());
          m.hard_set.add_node(2);
        }
        dense1D<unsigned> shell, ring;
        ASSERT_TRUE(shell_with_ring(m, 0, 1, 0, shell, ring));
        dense2D<unsigned> old_rows(4, shell.size);
        for (unsigned i = 0; i < shell.size; ++i)
          std::copy_n(m.tets.row(shell[i]), 4, old_rows.col(i));
        mm.merit_reference(old_rows);
        const double limit = 1e-12;
        double best = limit;
        unsigned pattern = NONE;
        dense2D<unsigned> rows, edges;
        dense1D<double> q;
        reconnect_patterns(mr, 0, 1, ring, best, pattern, rows, edges, q);
        if (r > 6) {
          EXPECT_EQ(pattern, NONE);
          continue;
        }
        const double brute = brute_force_best(mr, 0, 1, ring, limit);
        EXPECT_NEAR(best, brute, 1e-12) << "r " << r << " seed " << seed;
        EXPECT_EQ(pattern == NONE, brute == 0.0);
        if (pattern == NONE) continue;
        // The kept rows are the pattern's, with their true qualities.
        for (unsigned j = 0; j < rows.cols; ++j)
          EXPECT_EQ(q[j],
                    tet_quality(m.nodes.data, rows(0, j), rows(1, j), rows(2, j), rows(3, j)));
      }
}

TEST(ShellReconnection, RecoveryPatternsPreferWantedEdges) {
  mesh_store m;
  make_shell(m, 6, 0.2, 5);
  move_merit mm(m);
  move_record mr(m, mm);
  dense1D<unsigned> shell, ring;
  ASSERT_TRUE(shell_with_ring(m, 0, 1, 0, shell, ring));
  // Wanted: the diagonal ring[1] - ring[4], held only by patterns 5, 6, 8, 11 of a ring of six.
  entity_set wanted;
  wanted.add_edge(ring[1], ring[4]);
  std::uint32_t mask = 0;
  double best = 1e-12;
  unsigned pattern = NONE;
  dense2D<unsigned> rows, edges;
  dense1D<double> q;
  recover_patterns(mr, 0, 1, ring, wanted, mask, best, pattern, rows, edges, q);
  ASSERT_NE(pattern, NONE);
  bool has = false;
  for (unsigned d = 0; d < edges.cols; ++d) has |= wanted.has_edge(edges(0, d), edges(1, d));
  EXPECT_TRUE(has);
  // Each pattern used is masked out and the next best comes; they run out.
  unsigned found = 0;
  while (pattern != NONE && found < 20) {
    ++found;
    mask |= 1u << pattern;
    best = 1e-12;
    recover_patterns(mr, 0, 1, ring, wanted, mask, best, pattern, rows, edges, q);
  }
  EXPECT_LE(found, 14u);
}

TEST(EdgeSplit, FractionsAndStarSplit) {
  EXPECT_EQ(size_fraction(0.5, 1.0, 1.0), 0.5);
  EXPECT_NEAR(size_fraction(0.5, 1.0, 4.0), 1.0 / 3, 1e-15);
  EXPECT_NEAR(size_fraction(0.5, 1.0, 1.0005), (std::sqrt(1.0005) - 1) / 0.0005, 1e-12);
  EXPECT_EQ(size_fraction(0.3, 2.0, 0.0), 1.0);  // clamped

  th4_engine e;
  make_shell(e, 5, 2.0, 3);  // a long edge
  for (unsigned n = 0; n < e.nodes.cols(); ++n) e.node_sizes[n] = 1.0;
  regularizer g(e, true, false, false);
  g.merit.shape_weight = 0.6;
  dense1D<unsigned> shell, ring, new_nodes;
  ASSERT_TRUE(shell_with_ring(e, 0, 1, 0, shell, ring));
  const double v0 = volume(e);
  unsigned left = 10;
  double gain = 0.0;
  const unsigned k = local_edge(e, 0, 0, 1);
  ASSERT_TRUE(edge_move(g, 0, k, 0.0, 1.5, 0, false, true, 1e-12, 1e-12, left, new_nodes, gain));
  ASSERT_EQ(new_nodes.size, 1u);
  EXPECT_EQ(left, 9u);
  EXPECT_EQ(e.tets.cols() - e.tets.free_stack.size, 10u);  // each of the five tets in two
  const double* p = e.nodes.row(new_nodes[0]);
  EXPECT_NEAR(p[2], 0.5 * (e.nodes.row(0)[2] + e.nodes.row(1)[2]), 1e-15);
  EXPECT_EQ(e.node_sizes[new_nodes[0]], 1.0);
  const mesh_check_result c = full_check(e);
  EXPECT_TRUE(c.ok) << c.text;
  EXPECT_NEAR(volume(e), v0, 1e-12 * v0);
}

TEST(EdgeContraction, SettledEndsStayAndCollapseDropsTheShell) {
  th4_engine e;
  fixtures::centred_cube(e);
  e.nodes.row(8)[0] = 0.05;  // the centre near a side: its edges to that side are short
  e.recompute_qualities(false);
  regularizer g(e, false, false, false);
  const unsigned t = edge_tet(e, 8, 2);
  const unsigned k = local_edge(e, t, 8, 2);
  ASSERT_NE(k, 6u);
  unsigned a, b;
  edge_nodes(e, t, k, a, b);
  // Both ends settled: never contracted.
  g.settled_nodes.set(a);
  g.settled_nodes.set(b);
  double gain = 1e-12;
  EXPECT_FALSE(try_contract(g.moves, t, k, 0.05, 1e-12, 6, true, g.contraction, gain));
  // The centre free: it goes onto a corner, and exactly the tets of the shell of (a, b) drop.
  g.settled_nodes = bit_set{};
  const unsigned corner = a == 8 ? b : a;
  g.settled_nodes.set(corner);
  gain = 1e-12;
  ASSERT_TRUE(try_contract(g.moves, t, k, 0.05, 1e-12, 6, false, g.contraction, gain));
  const unsigned kept = g.contraction.kept_node;
  ASSERT_NE(kept, NONE);
  EXPECT_EQ(e.nodes.row(kept)[0], 0.0);  // a nearest neighbour: a corner of the near side
  dense1D<unsigned> shell;
  shell_of_edge(e, 8, kept, NONE, shell);
  EXPECT_EQ(g.contraction.old_tets.size, 12u);
  EXPECT_EQ(g.contraction.new_rows.cols, 12u - shell.size);
  EXPECT_FALSE(g.contraction.made_node);
  dense1D<unsigned> fresh;
  ASSERT_TRUE(replace_tets(e, g.exchange, g.contraction.old_tets, g.contraction.new_rows,
                           g.contraction.new_qualities, fresh));
  EXPECT_EQ(e.ancestors[8], NONE);
  EXPECT_NEAR(volume(e), 1.0, 1e-12);
  const mesh_check_result c = full_check(e);
  EXPECT_TRUE(c.ok) << c.text;
}

namespace {

// The Delaunay mesh of a random cloud through the public interface, loaded into an engine with
// sizes, hard hull faces, hard nodes settled and a few hard inner edges.
void real_mesh(th4_engine& e, unsigned n, unsigned seed,
               std::vector<std::array<unsigned, 2>>& hard_edges) {
  ASSERT_TRUE(fixtures::delaunay_cloud(e, n, seed));
  for (unsigned j = 0; j < e.nodes.cols(); ++j)
    e.node_sizes[j] = 0.25 + 0.2 * (e.nodes.row(j)[0] + 1);  // sizes grow along x
  for (unsigned t = 0; t < e.tets.cols(); ++t)
    for (unsigned f = 0; f < 4; ++f)
      if (e.neighbors(f, t) == NONE) {
        const unsigned* r = e.tets.row(t);
        e.hard_set.add_face(r[tet_face_nodes[f][0]], r[tet_face_nodes[f][1]],
                            r[tet_face_nodes[f][2]]);
      }
  hard_edges.clear();
  for (unsigned t = 0; t < e.tets.cols() && hard_edges.size() < 10; t += 37) {
    const unsigned* r = e.tets.row(t);
    e.hard_set.add_edge(r[0], r[1]);
    hard_edges.push_back({r[0], r[1]});
  }
}

// Worst tets first, then every edge that is not hard: what a sweep would list.
void sweep(regularizer& g, unsigned count, const std::function<void(unsigned, unsigned)>& around) {
  th4_engine& e = g.engine;
  std::vector<unsigned> order;
  for (unsigned t = 0; t < e.tets.cols(); ++t)
    if (!e.tet_deleted(t)) order.push_back(t);
  std::stable_sort(order.begin(), order.end(),
                   [&](unsigned x, unsigned y) { return e.tet_qualities[x] < e.tet_qualities[y]; });
  if (order.size() > count) order.resize(count);
  for (const unsigned t : order)
    for (unsigned k = 0; k < 6; ++k) {
      if (e.tet_deleted(t)) break;
      unsigned a, b;
      edge_nodes(e, t, k, a, b);
      if (e.hard_set.has_edge(a, b)) continue;
      around(t, k);
    }
}

}  // namespace

TEST(EdgeMove, SequencesOnARealMeshKeepEveryInvariant) {
  th4_engine e;
  std::vector<std::array<unsigned, 2>> hard_edges;
  real_mesh(e, 250, 11, hard_edges);
  const double v0 = volume(e);
  std::vector<std::array<unsigned, 3>> hard_faces;
  for (unsigned k = 0; k < e.hard_set.faces.keys.size; ++k)
    hard_faces.push_back({e.hard_set.faces.keys[k].n[0], e.hard_set.faces.keys[k].n[1],
                          e.hard_set.faces.keys[k].n[2]});
  regularizer g(e, true, false, true);
  g.merit.shape_weight = 0.6;
  g.merit.start_topology_terms();
  ASSERT_TRUE(g.merit.fill_valence_records());
  // Hard nodes may not go.
  for (unsigned n = 0; n < e.nodes.cols(); ++n)
    if (e.hard_set.has_node(n)) g.settled_nodes.set(n);
  // The worst tet off the skin: a flat tet on the hull of a cloud keeps its hard faces.
  auto worst_inside = [&e] {
    e.recompute_qualities(false);
    double q = 1.0;
    for (unsigned t = 0; t < e.tets.cols(); ++t) {
      if (!e.tet_live(t)) continue;
      const unsigned* nb = e.neighbors.row(t);
      if (nb[0] != NONE && nb[1] != NONE && nb[2] != NONE && nb[3] != NONE)
        q = std::min(q, e.tet_qualities[t]);
    }
    return q;
  };
  const double worst_before = worst_inside();
  auto live_nodes = [&] {
    unsigned live = 0;
    for (unsigned n = 0; n < e.nodes.cols(); ++n) live += e.ancestors[n] != NONE;
    return live;
  };
  const unsigned live_before = live_nodes();
  dense1D<unsigned> new_nodes, faces;
  unsigned left = 1000, accepted = 0, refused = 0;
  // The two stages of a sweep, then the closing one: only soft edges between hard nodes split.
  struct stage {
    double quality_factor, merit_factor, short_limit, long_limit;
    unsigned shell_limit;
    bool hard_links;
  };
  for (const stage st :
       {stage{0.25, 1.001, 0.6, 1.4, 6, false}, stage{1.2, 1e-12, 0.6, 1.4, 6, false},
        stage{1e-12, 1e-12, 0.0, DBL_MAX, 0, true}}) {
    sweep(g, 150, [&](unsigned t, unsigned k) {
      // Floor of any candidate: the worst of everything a move on this edge may replace.
      unsigned a, b;
      edge_nodes(e, t, k, a, b);
      dense1D<unsigned> near, ball;
      double old_worst = 1.0;
      for (const unsigned x : {a, b}) {
        ball_of_node(e, x, t, ball);
        for (unsigned i = 0; i < ball.size; ++i)
          old_worst = std::min(old_worst, e.tet_qualities[ball[i]]);
      }
      const fixtures::table_snapshot before(e);
      double gain = 0.0;
      ++e.tet_clock;
      const bool done =
          edge_move(g, t, k, st.short_limit, st.long_limit, st.shell_limit, st.hard_links, true,
                    st.quality_factor, st.merit_factor, left, new_nodes, gain);
      if (!done) {
        ++refused;
        EXPECT_TRUE(before.same_as(e)) << "refused move changed the mesh";
        return;
      }
      ++accepted;
      EXPECT_GT(gain, st.merit_factor);
      for (unsigned i = 0; i < g.new_tets.size; ++i)
        EXPECT_GT(e.tet_qualities[g.new_tets[i]], st.quality_factor * old_worst);
    });
    const mesh_check_result c = full_check(e);
    ASSERT_TRUE(c.ok) << c.text;
    EXPECT_NEAR(volume(e), v0, 1e-12 * v0);
    for (const auto& f : hard_faces) {
      tets_of_face(e, f[0], f[1], f[2], faces);
      EXPECT_EQ(faces.size, 1u);
    }
    for (const auto& h : hard_edges) EXPECT_NE(edge_tet(e, h[0], h[1]), NONE);
  }
  EXPECT_GT(accepted, 20u);
  EXPECT_GT(refused, 20u);
  // All three kinds of move took part: splits made nodes, contractions took some away.
  unsigned gone = 0;
  for (unsigned n = 0; n < e.nodes.cols(); ++n) gone += e.ancestors[n] == NONE;
  EXPECT_GT(new_nodes.size, 0u);
  EXPECT_GT(gone, 0u);
  EXPECT_EQ(live_nodes() + left, live_before + 1000);  // the node budget followed every move
  EXPECT_GT(worst_inside(), worst_before);
  // The valence counts followed every exchange.
  move_merit fresh(e);
  fresh.shape_weight = 0.6;
  ASSERT_TRUE(fresh.fill_valence_records());
  for (unsigned n = 0; n < e.nodes.cols(); ++n)
    if (e.ancestors[n] != NONE) {
      EXPECT_NEAR(g.merit.valence_records[n].count, fresh.valence_records[n].count, 1e-3);
    }
}

TEST(EdgeMove, Deterministic) {
  auto run_once = [](std::vector<unsigned>& tets, std::vector<double>& nodes) {
    th4_engine e;
    std::vector<std::array<unsigned, 2>> hard_edges;
    real_mesh(e, 200, 5, hard_edges);
    regularizer g(e, true, false, true);
    g.merit.shape_weight = 0.6;
    g.merit.start_topology_terms();
    g.merit.fill_valence_records();
    dense1D<unsigned> new_nodes;
    unsigned left = NONE;
    sweep(g, 200, [&](unsigned t, unsigned k) {
      double gain;
      edge_move(g, t, k, 0.6, 1.4, 6, false, true, 0.25, 1.001, left, new_nodes, gain);
    });
    for (unsigned t = 0; t < e.tets.cols(); ++t)
      tets.insert(tets.end(), e.tets.row(t), e.tets.row(t) + 4);
    for (unsigned n = 0; n < e.nodes.cols(); ++n)
      nodes.insert(nodes.end(), e.nodes.row(n), e.nodes.row(n) + 3);
  };
  std::vector<unsigned> t1, t2;
  std::vector<double> n1, n2;
  run_once(t1, n1);
  run_once(t2, n2);
  EXPECT_EQ(t1, t2);
  EXPECT_EQ(n1, n2);
}

TEST(OutputStage, EdgeLengthHistogram) {
  th4_engine e;
  fixtures::kuhn_lattice(e, 2);
  for (unsigned n = 0; n < e.nodes.cols(); ++n) e.node_sizes[n] = 1.0;
  mesher::data_type d;
  e.fill_histo_Qh(d.histo_Qh);
  // 2 x 2 x 2 cubes: 54 axis edges of length 1, 36 face diagonals, 8 cube diagonals.
  EXPECT_EQ(d.histo_Qh.processed, 98u);
  EXPECT_NEAR(d.histo_Qh.mean_value(), (54 + 36 * std::sqrt(2.0) + 8 * std::sqrt(3.0)) / 98, 1e-12);
  EXPECT_DOUBLE_EQ(d.histo_Qh.max_value(), std::sqrt(3.0));
}

TEST(NodeInsertion, TargetsLimitsAndSoundMesh) {
  th4_engine e;
  std::vector<std::array<unsigned, 2>> hard_edges;
  real_mesh(e, 200, 13, hard_edges);
  const double v0 = volume(e);
  regularizer g(e, true, false, true);
  g.merit.shape_weight = 0.6;
  g.merit.start_topology_terms();
  ASSERT_TRUE(g.merit.fill_valence_records());
  // Inner tets, far from the hull, as targets.
  std::vector<unsigned> inner;
  for (unsigned t = 0; t < e.tets.cols() && inner.size() < 8; ++t) {
    bool hull = false;
    for (unsigned i = 0; i < 4; ++i) hull |= e.hard_set.has_node(e.tets(i, t));
    if (!hull) inner.push_back(t);
  }
  ASSERT_EQ(inner.size(), 8u);
  dense1D<unsigned> targets, new_nodes;
  auto target = [&](unsigned t, unsigned edge) {
    targets.push_back(t);
    targets.push_back(edge);
  };
  // Two targets on one tet: the second finds it rewritten.
  unsigned left = 10;
  target(inner[0], NONE);
  target(inner[0], 0);
  insert_at_targets(g, targets, left, new_nodes);
  EXPECT_EQ(new_nodes.size, 1u);
  EXPECT_EQ(left, 9u);
  // One node left and many targets: one node.
  targets.clear();
  for (unsigned k = 1; k < 5; ++k) target(inner[k], NONE);
  left = 1;
  insert_at_targets(g, targets, left, new_nodes);
  EXPECT_EQ(new_nodes.size, 2u);
  EXPECT_EQ(left, 0u);
  // A seed in a frozen tet: no node.
  targets.clear();
  target(inner[5], NONE);
  g.frozen_bits.set(inner[5]);
  left = 10;
  insert_at_targets(g, targets, left, new_nodes);
  EXPECT_EQ(new_nodes.size, 2u);
  g.frozen_bits = bit_set{};
  // Beside a tet whose faces are all hard: no target.
  dense1D<unsigned> bad;
  bad.push_back(inner[6]);
  const unsigned* r = e.tets.row(inner[6]);
  for (unsigned f = 0; f < 4; ++f)
    e.hard_set.add_face(r[tet_face_nodes[f][0]], r[tet_face_nodes[f][1]], r[tet_face_nodes[f][2]]);
  split_beside_worst(g, bad, 0.0, left, new_nodes);
  EXPECT_EQ(new_nodes.size, 2u);
  EXPECT_EQ(bad.size, 1u);
  // All six edges hard: no split unless forced, and then at the centroid.
  split_longest_edges(g, bad, left, new_nodes, false);
  EXPECT_EQ(new_nodes.size, 2u);
  double centroid[3] = {0, 0, 0};
  for (unsigned i = 0; i < 4; ++i)
    for (unsigned c = 0; c < 3; ++c) centroid[c] += 0.25 * e.nodes.row(r[i])[c];
  split_longest_edges(g, bad, left, new_nodes, true);
  ASSERT_EQ(new_nodes.size, 3u);
  for (unsigned c = 0; c < 3; ++c) EXPECT_DOUBLE_EQ(e.nodes.row(new_nodes[2])[c], centroid[c]);
  EXPECT_EQ(bad.size, 0u);  // the tet was touched

  const mesh_check_result c = full_check(e);
  EXPECT_TRUE(c.ok) << c.text;
  EXPECT_NEAR(volume(e), v0, 1e-12 * v0);
  move_merit fresh(e);
  ASSERT_TRUE(fresh.fill_valence_records());
  for (unsigned n = 0; n < e.nodes.cols(); ++n)
    if (e.ancestors[n] != NONE) {
      EXPECT_NEAR(g.merit.valence_records[n].count, fresh.valence_records[n].count, 1e-4);
    }
}

TEST(FaceSwaps, FlatTetSwapsAcrossItsLargeFace) {
  const double h = std::sqrt(3.0) / 2;
  std::vector<std::array<double, 3>> pts = {
      {0, 0, 0}, {1, 0, 0}, {0.5, h, 0}, {0.5, h / 3, 0.04}, {0.5, h / 3, -0.8}};
  for (const bool hard : {false, true}) {
    th4_engine e;
    fixtures::load_mesh(e, pts, {{0, 1, 2, 3}, {0, 1, 2, 4}});
    e.recompute_qualities(false);
    if (hard) e.hard_set.add_face(0, 1, 2);
    const double v0 = volume(e), q0 = std::min(e.tet_qualities[0], e.tet_qualities[1]);
    regularizer g(e, false, false, false);
    const fixtures::table_snapshot before(e);
    dense1D<unsigned> tets;
    tets.push_back(e.tet_qualities[0] < e.tet_qualities[1] ? 0 : 1);
    unsigned moves = 0;
    // Asked for more than the swap can give: refused, nothing changes.
    EXPECT_EQ(face_swap_pass(g, tets, 1e6, 1e-12, moves), 1.0);
    EXPECT_EQ(moves, 0u);
    EXPECT_TRUE(before.same_as(e));
    const double gain = face_swap_pass(g, tets, 1.0, 1e-12, moves);
    if (hard) {  // a hard face is never swapped away
      EXPECT_EQ(moves, 0u);
      EXPECT_EQ(e.tets.cols() - e.tets.free_stack.size, 2u);
      continue;
    }
    ASSERT_EQ(moves, 1u);
    EXPECT_GT(gain, 1.0);
    EXPECT_EQ(e.tets.cols() - e.tets.free_stack.size, 3u);
    EXPECT_GT(e.recompute_qualities(false), q0);
    EXPECT_NE(edge_tet(e, 3, 4), NONE);  // the new edge across the old face
    const mesh_check_result c = full_check(e);
    EXPECT_TRUE(c.ok) << c.text;
    EXPECT_NEAR(volume(e), v0, 1e-12 * v0);
    EXPECT_TRUE(tets.size == 0);
  }
  // A regular tet has no face as large as the others together: left alone.
  th4_engine e;
  fixtures::load_mesh(e, {{0, 0, 0}, {1, 0, 0}, {0.5, h, 0}, {0.5, h / 3, std::sqrt(2.0 / 3)}},
                      {{0, 1, 2, 3}});
  e.recompute_qualities(false);
  regularizer g(e, false, false, false);
  dense1D<unsigned> tets;
  tets.push_back(0);
  unsigned moves = 0;
  EXPECT_EQ(face_swap_pass(g, tets, 1e-12, 1e-12, moves), 1.0);
  EXPECT_EQ(moves, 0u);
}
