// Delaunay kernel: meshes of hard clouds, errors of the start, hard faces and edges, determinism,
// interruption and insertion order.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "delaunay/delaunay_mgr.h"
#include "delaunay/insertion_order.h"
#include "delaunay/mesh_check.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/star_edge_table.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/kernel_task.h"

using namespace kelvo::voxfill;
using kelvo::dense1D;
using kelvo::Ptr;

namespace {

using point = std::array<double, 3>;

// A store with its nodes loaded, a task on the Delaunay phase bar, and the start call.
struct kernel_run {
  mesher::settings_type settings;
  mesher::data_type data;
  Ptr<progress_bar> root;
  Ptr<task_type> task;
  mesh_store m;
  kernel_workspace ws;
  dense1D<unsigned> list;
  unsigned polls = 0, stop_at_poll = 0;  // the handler answers true from this poll on (0: never)

  kernel_run() {
    settings.pass_thru = this;
    root = new progress_bar(0.0, 1.0);
    root->add_phase_bars(phase_weights(2), 6);
    task = new task_type(&settings, root.get(), &data.error_code, &data.warning_code,
                         data.msg_title, data.msg_text);
  }
  void interrupt_from(unsigned poll) {
    stop_at_poll = poll;
    settings.interrupt_hdl = [](void* p, double) {
      auto* r = static_cast<kernel_run*>(p);
      return ++r->polls >= r->stop_at_poll;
    };
  }
  void load(const std::vector<point>& pts) {
    for (const point& p : pts) list.push_back(m.new_node(p[0], p[1], p[2], 0.0));
  }
  void start(double box_factor = 10.0, double shell_ratio = 0.0) {
    double lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
    for (unsigned k = 0; k < list.size; ++k)
      for (unsigned i = 0; i < 3; ++i) {
        const double x = m.nodes(i, list[k]);
        lo[i] = k ? std::min(lo[i], x) : x;
        hi[i] = k ? std::max(hi[i], x) : x;
      }
    Ptr<task_type> phase = task->phase_task(phase_delaunay);
    start_delaunay(m, ws, list, lo, hi, box_factor, shell_ratio, *phase);
  }
  bool inserted(unsigned n) const { return m.ancestors[n] != NONE; }
};

std::vector<point> uniform(unsigned n, unsigned seed) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  std::vector<point> pts(n);
  for (point& p : pts) p = {u(g), u(g), u(g)};
  return pts;
}

// Determinant of three rows; with Abs, the same expansion over absolute values (its magnitude).
template <bool Abs>
long double det3(const long double (*r)[4], const unsigned* c) {
  auto e = [&](unsigned i, unsigned k) { return Abs ? std::fabs(r[i][c[k]]) : r[i][c[k]]; };
  const long double s = Abs ? 1 : -1;
  return e(0, 0) * (e(1, 1) * e(2, 2) + s * e(1, 2) * e(2, 1)) +
         s * e(0, 1) * (e(1, 0) * e(2, 2) + s * e(1, 2) * e(2, 0)) +
         e(0, 2) * (e(1, 0) * e(2, 1) + s * e(1, 1) * e(2, 0));
}

// Determinant of the rows (pi - x, |pi - x|^2), positive when x is inside the sphere of the
// positive tet n, over the magnitude of its terms.
long double insphere_relative(const kelvo::dense2D<double>& xyz, const unsigned* n, unsigned x) {
  long double a[4][4];
  for (unsigned i = 0; i < 4; ++i) {
    a[i][3] = 0;
    for (unsigned k = 0; k < 3; ++k) {
      a[i][k] = (long double)xyz(k, n[i]) - xyz(k, x);
      a[i][3] += a[i][k] * a[i][k];
    }
  }
  static constexpr unsigned minors[4][3] = {{1, 2, 3}, {0, 2, 3}, {0, 1, 3}, {0, 1, 2}};
  long double d = 0, size = 0;
  for (unsigned c = 0; c < 4; ++c) {
    d += (c & 1 ? -1 : 1) * a[0][c] * det3<false>(a + 1, minors[c]);
    size += std::fabs(a[0][c]) * det3<true>(a + 1, minors[c]);
  }
  return d / size;
}

// Validity and the empty-sphere property of the whole mesh; also that every node of the list is
// either in the mesh or unenforced, never both.
void check_mesh(const kernel_run& r, bool delaunay = true) {
  const mesh_store& m = r.m;
  const auto& xyz = m.nodes.data;
  mesh_check_options options;
  options.positive_quality = options.stored_qualities = true;
  const mesh_check_result sound = kelvo::voxfill::check_mesh(m, options);
  ASSERT_TRUE(sound.ok) << sound.text;
  long double volume = 0.0L;
  unsigned hull = 0;
  for (unsigned t = 0; t < m.tets.cols(); ++t) {
    if (!m.tet_live(t)) continue;
    const unsigned* n = m.tets.row(t);
    volume += orient_det(xyz, n[0], n[1], n[2], n[3]) / 6.0L;
    for (unsigned i = 0; i < 4; ++i) hull += m.neighbors(i, t) == NONE;
  }
  EXPECT_EQ(hull, 12u);  // the cube's six sides, two triangles each
  const long double side = m.box_max[0] - m.box_min[0];
  EXPECT_NEAR(double(volume / (side * side * side)), 1.0, 1e-12);

  std::vector<unsigned> in_mesh;
  for (unsigned n = 0; n < m.nodes.cols(); ++n)
    if (m.ancestors[n] != NONE) in_mesh.push_back(n);
  for (unsigned k = 0; k < r.list.size; ++k)
    EXPECT_NE(r.inserted(r.list[k]), m.unenforced_set.has_node(r.list[k])) << r.list[k];
  if (!delaunay) return;
  for (unsigned t = 0; t < m.tets.cols(); ++t) {
    if (!m.tet_live(t)) continue;
    const unsigned* n = m.tets.row(t);
    // Circumcentre from p3 in long double: solve 2 (pi - p3) . c = |pi - p3|^2 by Cramer.
    long double a[3][4], c[3], r2 = 0;
    for (unsigned i = 0; i < 3; ++i) {
      a[i][3] = 0;
      for (unsigned k = 0; k < 3; ++k) {
        a[i][k] = (long double)xyz(k, n[i]) - xyz(k, n[3]);
        a[i][3] += a[i][k] * a[i][k] / 2;
      }
    }
    static constexpr unsigned cols[4][3] = {{0, 1, 2}, {3, 1, 2}, {0, 3, 2}, {0, 1, 3}};
    for (unsigned k = 0; k < 3; ++k) {
      c[k] = det3<false>(a, cols[k + 1]) / det3<false>(a, cols[0]);
      r2 += c[k] * c[k];
    }
    for (unsigned x : in_mesh) {
      long double d2 = 0;
      for (unsigned k = 0; k < 3; ++k) {
        const long double e = (long double)xyz(k, x) - xyz(k, n[3]) - c[k];
        d2 += e * e;
      }
      if (d2 >= r2 * (1 - 1e-9L) || x == n[0] || x == n[1] || x == n[2] || x == n[3]) continue;
      // The sphere of a sliver (allowed down to a quality of STAR_TOL) hangs on tiny differences:
      // judge those by the in-sphere determinant relative to the size of its terms.
      ASSERT_LT(insphere_relative(xyz, n, x), 1e-10L) << "node " << x << " in the sphere of " << t;
    }
  }
}

}  // namespace

// Broken cavities, stars or neighbour links on clouds that stress the kernel: cospherical, graded,
// flat, lattice and duplicated nodes, with and without shell nodes.
TEST(DelaunayKernel, CloudsGiveValidDelaunayMeshes) {
  std::vector<std::vector<point>> clouds;
  clouds.push_back(uniform(1500, 7));
  {
    std::vector<point> s;
    for (const point& p : uniform(800, 8)) {
      const double z = 2 * p[0] - 1, phi = 6.283185307179586 * p[1], r = std::sqrt(1 - z * z);
      s.push_back({r * std::cos(phi), r * std::sin(phi), z});
    }
    clouds.push_back(s);
  }
  {
    std::vector<point> s;
    for (const point& p : uniform(1000, 9)) {
      const double scale = std::pow(10.0, -6.0 * p[0]);
      s.push_back({0.3 + scale * (p[1] - 0.5), 0.3 + scale * (p[2] - 0.5),
                   0.3 + scale * (p[1] * p[2] - 0.25)});
    }
    clouds.push_back(s);
  }
  {
    std::vector<point> s = uniform(1000, 10);
    for (point& p : s) p[2] *= 1e-6;
    clouds.push_back(s);
  }
  {
    std::vector<point> s;
    for (unsigned k = 0; k < 512; ++k)
      s.push_back({double(k & 7), double((k >> 3) & 7), double(k >> 6)});
    clouds.push_back(s);
  }
  {
    // The lattice again, moved by 1e-11: many new tets in the band of the flat-surface check.
    std::vector<point> s = clouds.back();
    const std::vector<point> noise = uniform(512, 17);
    for (unsigned k = 0; k < s.size(); ++k)
      for (unsigned i = 0; i < 3; ++i) s[k][i] += 1e-11 * (noise[k][i] - 0.5);
    clouds.push_back(s);
  }
  for (unsigned c = 0; c < clouds.size(); ++c) {
    for (double shell : {0.0, 0.01}) {
      SCOPED_TRACE(testing::Message() << "cloud " << c << " shell " << shell);
      kernel_run r;
      r.load(clouds[c]);
      r.start(shell > 0 ? 3.0 : 10.0, shell);
      EXPECT_EQ(r.data.error_code, 0);
      EXPECT_EQ(r.m.kernel_mode, kernel_mode_type::plain);
      EXPECT_EQ(r.ws.cavity.node, NONE);
      EXPECT_EQ(r.m.unenforced_set.node_count, 0u);
      check_mesh(r);
    }
  }
}

// A duplicate must fail in both passes without touching the mesh, and end unenforced.
TEST(DelaunayKernel, DuplicatesAreUnenforcedAndLeaveTheMeshAlone) {
  std::vector<point> pts = uniform(300, 11);
  for (unsigned k = 0; k < 60; ++k) pts.push_back(pts[5 * k]);
  kernel_run r;
  r.load(pts);
  r.start();
  EXPECT_EQ(r.data.error_code, 0);
  EXPECT_EQ(r.m.unenforced_set.node_count, 60u);
  for (unsigned k = 0; k < 60; ++k)
    EXPECT_NE(r.inserted(5 * k), r.inserted(300 + k)) << "exactly one of each pair stays";
  check_mesh(r);

  const auto tets = r.m.tets.data.as_vector(), nbs = r.m.neighbors.data.as_vector();
  const std::vector<unsigned> t0(tets.begin(), tets.end()), n0(nbs.begin(), nbs.end());
  const unsigned dup = r.m.new_node(pts[7][0], pts[7][1], pts[7][2], 0.0);
  EXPECT_FALSE(insert_node(r.m, r.ws, dup, r.ws.seeds, CAVITY_TOL));
  EXPECT_EQ(std::vector<unsigned>(tets.begin(), tets.end()), t0);
  EXPECT_EQ(std::vector<unsigned>(nbs.begin(), nbs.end()), n0);
}

// Exact errors and texts of the start, and its edge cases: empty list, flat and oblique planes,
// non-finite boxes, a degenerate cube, the regular tet.
TEST(DelaunayKernel, StartChecksTheBox) {
  {
    kernel_run r;
    r.start();
    EXPECT_EQ(r.data.error_code, 0);
    EXPECT_EQ(r.m.tets.cols(), 0u);
  }
  {
    kernel_run r;
    std::vector<point> pts = uniform(50, 12);
    for (point& p : pts) p[2] = 0.25;
    r.load(pts);
    r.start();
    EXPECT_EQ(r.data.error_code, -107);
    EXPECT_STREQ(r.data.msg_title, "BOUNDARY ERROR");
    EXPECT_STREQ(r.data.msg_text,
                 "Aligned nodes.\nFile = delaunay/delaunay_mgr.cpp, line = 474.\n");
    EXPECT_EQ(r.m.tets.cols(), 0u);
  }
  {
    kernel_run r;
    std::vector<point> pts = uniform(200, 13);
    for (point& p : pts) p[2] = -p[0] - p[1];
    r.load(pts);
    r.start();
    EXPECT_EQ(r.data.error_code, 0);
    EXPECT_EQ(r.m.unenforced_set.node_count, 0u);
    check_mesh(r);
  }
  for (double bad : {double(NAN), double(INFINITY), 1.7976931348623157e308}) {
    kernel_run r;
    r.load({{0, 0, 0}, {1, 1, 1}});
    const double lo[3] = {0, 0, 0}, hi[3] = {1, bad, 1};
    start_delaunay(r.m, r.ws, r.list, lo, hi, 10.0, 0.0, *r.task);
    EXPECT_EQ(r.data.error_code, -102);
    EXPECT_STREQ(r.data.msg_text,
                 "Illegal coordinates.\nFile = delaunay/delaunay_mgr.cpp, line = 469.\n");
  }
  {
    kernel_run r;
    r.load({{0, 0, 0}, {1, 1, 1}});
    r.start(0.0);  // a cube of side 0: every box tet is flat
    EXPECT_EQ(r.data.error_code, -107);
    EXPECT_NE(std::strstr(r.data.msg_text, "line = 489."), nullptr);
  }
  {
    kernel_run r;
    r.load({{1, 1, 1}, {1, -1, -1}, {-1, 1, -1}, {-1, -1, 1}});
    r.start(10.0, 0.0);
    EXPECT_EQ(r.m.nodes.cols(), 12u);
    for (unsigned k = 0; k < 4; ++k) EXPECT_TRUE(r.inserted(k));
    EXPECT_EQ(r.m.box_max[0] - r.m.box_min[0], 20.0);
    check_mesh(r);
  }
}

// Mode 1 must keep the far tet of a hard face out of a cavity whose sphere test takes it; mode 0
// must not.
TEST(DelaunayKernel, HardFaceBoundsTheCavity) {
  for (unsigned mode : {0u, 1u}) {
    kernel_run r;
    r.load({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.3, 0.3, 1}, {0.3, 0.3, -1}});
    r.m.hard_set.add_face(0, 1, 2);
    r.start();
    dense1D<unsigned> shell;
    tets_of_face(r.m, 0, 1, 2, shell);
    ASSERT_EQ(shell.size, 2u);
    const unsigned p = r.m.new_node(0.3, 0.3, 0.01, 0.0);
    r.m.kernel_mode = kernel_mode_type(mode);
    EXPECT_TRUE(insert_node(r.m, r.ws, p, r.ws.seeds, CAVITY_TOL));
    tets_of_face(r.m, 0, 1, 2, shell);
    EXPECT_EQ(shell.size, mode == 1 ? 2u : 0u) << "mode " << mode;
    check_mesh(r, mode == 0);
  }
}

// Mode 2 must leave a tet around a hard edge whose whole shell holds the node in its spheres.
TEST(DelaunayKernel, HardEdgeKeepsATet) {
  for (unsigned mode : {0u, 2u}) {
    kernel_run r;
    std::vector<point> pts = {{0, 0, 0}, {1, 0, 0}};
    for (unsigned k = 0; k < 5; ++k)
      pts.push_back({0.5, std::cos(1.2566 * k + 0.1), std::sin(1.2566 * k + 0.1)});
    r.load(pts);
    r.m.hard_set.add_edge(0, 1);
    r.start();
    ASSERT_NE(edge_tet(r.m, 0, 1), NONE);
    const unsigned p = r.m.new_node(0.5, 0.01, 0.02, 0.0);
    r.m.kernel_mode = kernel_mode_type(mode);
    const bool ok = insert_node(r.m, r.ws, p, r.ws.seeds, CAVITY_TOL);
    EXPECT_EQ(edge_tet(r.m, 0, 1) != NONE, mode == 2) << "mode " << mode;
    if (mode == 0) {
      EXPECT_TRUE(ok);
    }
    check_mesh(r, mode == 0);
  }
}

// A node exactly on a face must seed both tets of the face and give no flat tet.
TEST(DelaunayKernel, NodeOnAFaceSeedsBothTets) {
  kernel_run r;
  r.load({{0, 0, 0}, {3, 0, 0}, {0, 3, 0}, {1.5, 1.5, 3}, {1.5, 1.5, -3}});
  r.start();
  dense1D<unsigned> two;
  tets_of_face(r.m, 0, 1, 2, two);
  ASSERT_EQ(two.size, 2u);
  const unsigned a = two[0], b = two[1];
  const unsigned p = r.m.new_node(1, 1, 0, 0.0);
  r.m.kernel_mode = kernel_mode_type::plain;
  ASSERT_TRUE(insert_node(r.m, r.ws, p, r.ws.seeds, CAVITY_TOL));
  const auto& cav = r.ws.cavity.tets;
  EXPECT_NE(std::find(cav.begin(), cav.end(), a), cav.end());
  EXPECT_NE(std::find(cav.begin(), cav.end(), b), cav.end());
  check_mesh(r);
}

// Equal runs must give equal tables, bit for bit, shell nodes and retries included.
TEST(DelaunayKernel, EqualRunsGiveEqualTables) {
  std::vector<point> pts = uniform(2000, 14);
  for (unsigned k = 0; k < 20; ++k) pts.push_back(pts[k]);
  kernel_run a, b;
  a.load(pts);
  b.load(pts);
  a.start(3.0, 0.01);
  b.start(3.0, 0.01);
  auto same = [](const auto& x, const auto& y) {
    return x.size == y.size && std::equal(x.begin(), x.end(), y.begin());
  };
  EXPECT_TRUE(same(a.m.tets.data.as_vector(), b.m.tets.data.as_vector()));
  EXPECT_TRUE(same(a.m.neighbors.data.as_vector(), b.m.neighbors.data.as_vector()));
  EXPECT_TRUE(same(a.m.nodes.data.as_vector(), b.m.nodes.data.as_vector()));
  EXPECT_TRUE(same(a.m.ancestors, b.m.ancestors));
  EXPECT_TRUE(same(a.m.tet_qualities, b.m.tet_qualities));
  EXPECT_EQ(a.m.nodes.cols(), 2020u + 8u + 20u);
}

// The list must stop at the first poll after the handler says so, and the retry pass must not
// run then.
TEST(DelaunayKernel, InterruptionStopsTheList) {
  kernel_run r;
  std::vector<point> pts = uniform(25000, 15);
  r.load(pts);
  r.interrupt_from(2);
  r.start();
  EXPECT_EQ(r.data.warning_code, -10);
  EXPECT_STREQ(r.data.msg_title, "INTERRUPTION RAISED");
  EXPECT_EQ(r.polls, 2u);
  unsigned in = 0;
  for (unsigned k = 0; k < r.list.size; ++k) in += r.inserted(r.list[k]);
  EXPECT_EQ(in, 19999u);
  EXPECT_EQ(r.m.unenforced_set.node_count, 0u);
  EXPECT_TRUE(r.root->children[phase_delaunay].bar->children.empty());
}

// Up to 8 nodes go in as listed; more in the order of order_for_insertion under the run's
// generator (seeded with 1): of two equal nodes, the one that comes later in that order is refused.
// A kernel that reordered short lists, or drew its order from anything else, fails here.
TEST(DelaunayKernel, InsertionOrderAboveEightNodes) {
  for (unsigned n : {8u, 9u, 40u}) {
    std::vector<point> pts = uniform(n, 16);
    pts[n - 1] = pts[0];  // listed last: refused when the order is kept
    kernel_run r;
    r.load(pts);
    std::vector<unsigned> order(r.list.begin(), r.list.end());
    std::mt19937 g(1);
    ASSERT_TRUE(order_for_insertion(r.m.nodes.row(0), order.data(), n, g));
    const auto at = [&](unsigned node) {
      return std::find(order.begin(), order.end(), node) - order.begin();
    };
    const unsigned refused = at(r.list[0]) < at(r.list[n - 1]) ? r.list[n - 1] : r.list[0];
    if (n == 8) {
      EXPECT_TRUE(std::equal(order.begin(), order.end(), r.list.begin()));
      EXPECT_EQ(refused, r.list[n - 1]);
    }
    r.start();
    EXPECT_TRUE(r.m.unenforced_set.has_node(refused)) << n;
    EXPECT_EQ(r.m.unenforced_set.node_count, 1u);
  }
}

// The insertion order: a permutation, the same for the same generator, rounds that grow by halves
// (each a run of increasing curve keys, the last about half the list), and a curve that steps
// between face-adjacent cells. A broken curve transform, a round rule that loses or repeats nodes,
// or short lists that draw from the generator fail here.
TEST(DelaunayKernel, InsertionOrderRoundsAndCurve) {
  const double lo[3] = {0, 0, 0};
  std::vector<std::array<unsigned, 3>> cells;
  std::vector<std::pair<std::uint64_t, unsigned>> keyed;
  for (unsigned k = 0; k < 512; ++k) {
    cells.push_back({k % 8, k / 8 % 8, k / 64});
    const double p[3] = {(k % 8 + 0.5) / 8, (k / 8 % 8 + 0.5) / 8, (k / 64 + 0.5) / 8};
    keyed.push_back({hilbert_key(p, lo, 1.0), k});
  }
  std::sort(keyed.begin(), keyed.end());
  for (unsigned k = 1; k < keyed.size(); ++k) {
    ASSERT_NE(keyed[k - 1].first, keyed[k].first);
    const auto& a = cells[keyed[k - 1].second];
    const auto& b = cells[keyed[k].second];
    unsigned steps = 0;
    for (unsigned i = 0; i < 3; ++i) steps += a[i] > b[i] ? a[i] - b[i] : b[i] - a[i];
    EXPECT_EQ(steps, 1u) << "cells " << keyed[k - 1].second << " and " << keyed[k].second;
  }

  const unsigned n = 20000;
  std::vector<double> xyz;
  for (const point& p : uniform(n, 31)) xyz.insert(xyz.end(), p.begin(), p.end());
  std::vector<unsigned> a(n), b(n);
  for (unsigned k = 0; k < n; ++k) a[k] = b[k] = k;
  std::mt19937 ga(1), gb(1), fresh(1);
  ASSERT_TRUE(order_for_insertion(xyz.data(), a.data(), n, ga));
  ASSERT_TRUE(order_for_insertion(xyz.data(), b.data(), n, gb));
  EXPECT_EQ(a, b);
  std::vector<unsigned> sorted = a;
  std::sort(sorted.begin(), sorted.end());
  for (unsigned k = 0; k < n; ++k) ASSERT_EQ(sorted[k], k);
  // Runs of increasing keys: one per round (a round can end on a larger key than the next one
  // starts with only by chance, so count the runs loosely).
  std::vector<unsigned> runs = {0};
  double lo3[3] = {1, 1, 1}, hi3[3] = {0, 0, 0};
  for (unsigned k = 0; k < 3 * n; ++k) {
    lo3[k % 3] = std::min(lo3[k % 3], xyz[k]);
    hi3[k % 3] = std::max(hi3[k % 3], xyz[k]);
  }
  const double side = std::max({hi3[0] - lo3[0], hi3[1] - lo3[1], hi3[2] - lo3[2]});
  for (unsigned k = 1; k < n; ++k) {
    if (hilbert_key(&xyz[3 * a[k]], lo3, side) < hilbert_key(&xyz[3 * a[k - 1]], lo3, side))
      runs.push_back(k);
  }
  EXPECT_GE(runs.size(), 7u);
  EXPECT_LE(runs.size(), 10u);
  const double last = double(n - runs.back()) / n;
  EXPECT_GT(last, 0.45);
  EXPECT_LT(last, 0.55);

  std::vector<unsigned> shortlist = {5, 3, 7, 1, 0, 2, 6, 4};
  std::mt19937 gs(1);
  ASSERT_TRUE(order_for_insertion(xyz.data(), shortlist.data(), 8, gs));
  EXPECT_EQ(shortlist, (std::vector<unsigned>{5, 3, 7, 1, 0, 2, 6, 4}));
  EXPECT_EQ(gs, fresh);
}

// The cheap circumsphere decision must agree with the lifted construction wherever it decides:
// random tets, slivers and needles down to the flatness where it must hand over, points on,
// just off and far from the sphere. A bound that is too loose shows up as a disagreement.
TEST(DelaunayKernel, CircumsphereFilterAgreesWithTheConstruction) {
  std::mt19937 g(41);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  unsigned checked = 0;
  for (unsigned trial = 0; trial < 200000; ++trial) {
    double p[4][3];
    for (auto& q : p)
      for (double& x : q) x = u(g);
    const unsigned kind = trial % 4;
    if (kind == 1) {  // squashed towards a plane: slivers and flat tets of every degree
      const double squash = std::pow(10.0, -8.0 * (trial % 97) / 96.0);
      for (auto& q : p) q[2] *= squash;
    } else if (kind == 2) {  // a needle
      const double squash = std::pow(10.0, -6.0 * (trial % 89) / 88.0);
      for (auto& q : p) q[1] *= squash, q[2] *= squash;
    }
    if (orient_det(p[0], p[1], p[2], p[3]) < 0)
      for (unsigned i = 0; i < 3; ++i) std::swap(p[1][i], p[2][i]);
    const double ratio0 = circumsphere_ratio(p[0], p[1], p[2], p[3], p[0]);
    if (!(ratio0 > 0.5 && ratio0 < 2.0)) continue;  // flat for the construction: always inside
    // A point on the sphere: the centre plus the radius along a random direction, then moved in
    // or out by a relative distance from 1e-16 to 10.
    double P[3];
    double c[3] = {0, 0, 0}, d[3];
    {
      // The circumcentre by the closed formula in long double, so that the shifts below are
      // measured from a centre more accurate than either computation under test.
      long double a[3], b[3], e[3];
      for (unsigned i = 0; i < 3; ++i) {
        a[i] = (long double)p[0][i] - p[3][i];
        b[i] = (long double)p[1][i] - p[3][i];
        e[i] = (long double)p[2][i] - p[3][i];
      }
      const long double bc[3] = {b[1] * e[2] - b[2] * e[1], b[2] * e[0] - b[0] * e[2],
                                 b[0] * e[1] - b[1] * e[0]};
      const long double ca[3] = {e[1] * a[2] - e[2] * a[1], e[2] * a[0] - e[0] * a[2],
                                 e[0] * a[1] - e[1] * a[0]};
      const long double ab[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2],
                                 a[0] * b[1] - a[1] * b[0]};
      const long double O = a[0] * bc[0] + a[1] * bc[1] + a[2] * bc[2];
      const long double la = a[0] * a[0] + a[1] * a[1] + a[2] * a[2];
      const long double lb = b[0] * b[0] + b[1] * b[1] + b[2] * b[2];
      const long double le = e[0] * e[0] + e[1] * e[1] + e[2] * e[2];
      for (unsigned i = 0; i < 3; ++i)
        c[i] = double(p[3][i] + (la * bc[i] + lb * ca[i] + le * ab[i]) / (2 * O));
    }
    double r = std::sqrt((p[3][0] - c[0]) * (p[3][0] - c[0]) + (p[3][1] - c[1]) * (p[3][1] - c[1]) +
                         (p[3][2] - c[2]) * (p[3][2] - c[2]));
    for (double& x : d) x = u(g);
    const double dn = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    const double shift =
        (trial & 8 ? 1 : -1) * std::pow(10.0, -16.0 + 17.0 * (trial % 101) / 100.0);
    for (unsigned i = 0; i < 3; ++i) P[i] = c[i] + r * (1.0 + shift) * d[i] / dn;
    const double limit = 1.0 + CAVITY_TOL;
    const bool cheap = in_circumsphere(p[0], p[1], p[2], p[3], P, limit);
    const bool full = circumsphere_ratio(p[0], p[1], p[2], p[3], P) < limit;
    ASSERT_EQ(cheap, full) << "trial " << trial;
    ++checked;
  }
  EXPECT_GT(checked, 100000u);
}

// A star whose rows repeat a node (here the new node is a corner of the cavity's only tet) goes
// through the matching by whole faces. Its faces that hold the node twice find no proper twin: the
// star must be refused and the mesh left as it was.
TEST(DelaunayKernel, StarWithARepeatedNode) {
  kernel_run r;
  r.load(uniform(40, 3));
  r.start();
  const auto tets = r.m.tets.data.as_vector(), nbrs = r.m.neighbors.data.as_vector();
  const std::vector<unsigned> before_t(tets.begin(), tets.end()),
      before_n(nbrs.begin(), nbrs.end());
  unsigned t = 0;
  while (!r.m.tet_live(t)) ++t;
  cavity_record& cav = r.ws.cavity;
  // The largest node of the tet: then every face (p, p, x) meets its twin (p, x, p) with the
  // same turn under the rotation to the smallest index, so the matching must refuse the star.
  const unsigned* n = r.m.tets.row(t);
  cav.node = std::max(std::max(n[0], n[1]), std::max(n[2], n[3]));
  cav.tets.clear();
  cav.faces.clear();
  cav.face_qualities.clear();
  cav.tets.push_back(t);
  for (unsigned i = 0; i < 4; ++i) {
    cav.faces.push_back(4 * t + i);
    cav.face_qualities.push_back(0.5);
  }
  dense1D<unsigned> out;
  EXPECT_FALSE(fill_star(r.m, r.ws, cav, out));
  const auto after_t = r.m.tets.data.as_vector(), after_n = r.m.neighbors.data.as_vector();
  EXPECT_TRUE(std::equal(before_t.begin(), before_t.end(), after_t.begin()));
  EXPECT_TRUE(std::equal(before_n.begin(), before_n.end(), after_n.begin()));
  EXPECT_EQ(r.ws.star_tets.cols, 0u);
}

namespace {

// FNV-1a over the bytes of the kernel's tables.
std::uint64_t table_digest(const mesh_store& m) {
  std::uint64_t h = 1469598103934665603ull;
  auto add = [&h](const void* p, std::size_t n) {
    const auto* c = static_cast<const unsigned char*>(p);
    for (std::size_t i = 0; i < n; ++i) h = (h ^ c[i]) * 1099511628211ull;
  };
  add(m.tets.row(0), sizeof(unsigned) * 4 * m.tets.cols());
  add(m.neighbors.row(0), sizeof(unsigned) * 4 * m.neighbors.cols());
  add(m.tet_qualities.data(), sizeof(double) * m.tet_qualities.size);
  add(m.ancestors.data(), sizeof(unsigned) * m.ancestors.size);
  add(m.colors.data(), sizeof(unsigned) * m.colors.size);
  return h;
}

}  // namespace

// The tables that the kernel builds are pinned, bit for bit, on clouds that reach its awkward
// branches: a change made for speed must leave them as they are. The digests hold for IEEE
// doubles without contracted multiply-adds, which is what x86-64 compilers emit by default.
TEST(DelaunayKernel, TablesArePinned) {
#if !defined(__x86_64__)
  GTEST_SKIP() << "digests are pinned for x86-64 arithmetic";
#endif
  struct pinned {
    const char* name;
    std::uint64_t digest;
  };
  std::vector<std::uint64_t> got;
  {  // uniform, shuffled, no shell nodes
    kernel_run r;
    r.load(uniform(3000, 21));
    r.start();
    got.push_back(table_digest(r.m));
  }
  {  // a lattice with shell nodes: cospherical nodes everywhere
    kernel_run r;
    std::vector<point> pts;
    for (unsigned k = 0; k < 1000; ++k)
      pts.push_back({double(k % 10), double(k / 10 % 10), double(k / 100)});
    r.load(pts);
    r.start(3.0, 0.01);
    got.push_back(table_digest(r.m));
  }
  {  // the lattice moved by 1e-11, with hard faces: flat tets near the tolerances, mode 1 cuts
    kernel_run r;
    std::vector<point> pts;
    std::mt19937 g(5);
    for (unsigned k = 0; k < 512; ++k) {
      point p = {double(k % 8), double(k / 8 % 8), double(k / 64)};
      for (double& x : p) x += 1e-11 * (g() / 4294967296.0 - 0.5);
      pts.push_back(p);
    }
    r.load(pts);
    for (unsigned k = 0; k < 30; ++k) r.m.hard_set.add_face(k, k + 1, k + 8);
    r.start();
    got.push_back(table_digest(r.m));
  }
  {  // duplicated nodes: failures, the retry pass and unenforced nodes
    kernel_run r;
    std::vector<point> pts = uniform(1000, 22);
    for (unsigned k = 0; k < 100; ++k) pts.push_back(pts[7 * k]);
    r.load(pts);
    r.start();
    EXPECT_EQ(r.m.unenforced_set.node_count, 100u);
    got.push_back(table_digest(r.m));
  }
  {  // a slab 1e-7 thin
    kernel_run r;
    std::vector<point> pts = uniform(1500, 23);
    for (point& p : pts) p[2] *= 1e-7;
    r.load(pts);
    r.start();
    got.push_back(table_digest(r.m));
  }
  const pinned want[] = {{"uniform", 0xdfa6ba855558de76ull},
                         {"lattice", 0xa95e18b68f12b517ull},
                         {"moved", 0x7a6189d12e213befull},
                         {"duplicates", 0x16556f1b5fdf200full},
                         {"slab", 0xb661bb1945c51909ull}};
  ASSERT_EQ(got.size(), std::size(want));
  for (unsigned k = 0; k < got.size(); ++k)
    EXPECT_EQ(got[k], want[k].digest) << want[k].name << std::hex << " digest " << got[k];
}

// The edge table behind the star matching: twins are the same edge in opposite directions; a
// third face on an edge, or a second one in the same direction, is refused; every new use, after
// growth or when the stamps wrap, starts empty.
TEST(DelaunayKernel, StarEdgeTablePairsReversedEdges) {
  star_edge_table t;
  unsigned twin = 0;
  ASSERT_TRUE(t.prepare(6));
  EXPECT_TRUE(t.enter(5, 9, 1, twin));
  EXPECT_EQ(twin, NONE);
  EXPECT_TRUE(t.enter(9, 5, 6, twin));
  EXPECT_EQ(twin, 1u);
  EXPECT_FALSE(t.enter(5, 9, 11, twin));
  EXPECT_FALSE(t.enter(9, 5, 11, twin));
  EXPECT_TRUE(t.enter(7, 3, 13, twin));
  EXPECT_FALSE(t.enter(7, 3, 14, twin));

  ASSERT_TRUE(t.prepare(3000));  // grows; the old entries are gone
  EXPECT_TRUE(t.enter(9, 5, 6, twin));
  EXPECT_EQ(twin, NONE);
  std::mt19937 g(4);
  std::map<std::pair<unsigned, unsigned>, unsigned> first;
  for (unsigned k = 0; first.size() < 1000; ++k) {
    const unsigned a = g() % 300, b = g() % 300;
    if (a == b || first.count({a, b}) || first.count({b, a}) || (a == 9 && b == 5) ||
        (a == 5 && b == 9))
      continue;
    const unsigned code = 4 * k + 1 + k % 3;
    first[{a, b}] = code;
    ASSERT_TRUE(t.enter(a, b, code, twin));
    ASSERT_EQ(twin, NONE);
  }
  for (const auto& [edge, code] : first) {
    ASSERT_TRUE(t.enter(edge.second, edge.first, 7, twin));
    EXPECT_EQ(twin, code);
  }

  t.stamp = 0xFFFFFFFEu;
  ASSERT_TRUE(t.prepare(4));
  EXPECT_TRUE(t.enter(1, 2, 5, twin));
  ASSERT_TRUE(t.prepare(4));  // the stamp wraps to 0: everything is forgotten
  EXPECT_TRUE(t.enter(2, 1, 6, twin));
  EXPECT_EQ(twin, NONE);
}
