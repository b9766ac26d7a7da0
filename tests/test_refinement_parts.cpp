// Pieces of a refinement pass: lengths in the size field (direct, walked through a background mesh,
// sampled), the spacing filter of new points, and the apex placed on a front face.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <random>

#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "mesh_fixtures.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/optim/move_merit.h"
#include "voxfill/refine/front_placement.h"
#include "voxfill/refine/metric_trace.h"
#include "voxfill/refine/refine_context.h"
#include "voxfill/refine/refinement_estimate.h"
#include "voxfill/refine/refinement_loop.h"
#include "voxfill/refine/size_limiting.h"
#include "voxfill/refine/spacing_filter.h"

using namespace kelvo::voxfill;
using kelvo::dense1D;
using kelvo::dense2D;

namespace {

void build_locator(mesh_store& m) {
  double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
  for (unsigned j = 0; j < m.nodes.cols(); ++j)
    for (unsigned k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], m.nodes(k, j));
      hi[k] = std::max(hi[k], m.nodes(k, j));
    }
  m.locator.build(lo, hi);
  std::copy(lo, lo + 3, m.box_min);
  std::copy(hi, hi + 3, m.box_max);
}

// A lattice of n^3 Kuhn cubes as a background mesh with its own field, all sizes h.
struct background {
  mesh_store m;
  size_field field;
  background(unsigned n, double h, size_field* parent)
      : field(m.node_sizes, m.locator, m.colors, false, parent) {
    fixtures::kuhn_lattice(m, n);
    for (unsigned j = 0; j < m.nodes.cols(); ++j) m.node_sizes[j] = h;
    build_locator(m);
  }
};

unsigned tet_of(size_field& f, const double* P) {
  unsigned t = NONE;
  locate_tet(f.locator, P, t, LOCATE_TOL, f.walk_bits);
  return t;
}

double dist(const double* a, const double* b) {
  return std::sqrt(geometry_detail::dist2<3>(a, b));
}

// The length of P Q by fine sampling of the field: the reference of a walk.
double sampled_length(size_field& f, const double* P, const double* Q, unsigned pieces) {
  double L = 0.0, prev[3] = {P[0], P[1], P[2]}, hprev = 0.0;
  unsigned t = NONE;
  EXPECT_TRUE(interpolate_size(f, P, t, hprev));
  for (unsigned k = 1; k <= pieces; ++k) {
    double R[3], h = 0.0;
    for (unsigned c = 0; c < 3; ++c) R[c] = P[c] + (Q[c] - P[c]) * k / pieces;
    EXPECT_TRUE(interpolate_size(f, R, t, h));
    L += dist(prev, R) / log_mean(hprev, h);
    std::copy(R, R + 3, prev);
    hprev = h;
  }
  return L;
}

}  // namespace

// P equal to Q is 0.0 with both ends in the polyline; two points of one tet give two points and
// no walk; the own field takes the end sizes alone, 0.0 without a mean.
TEST(MetricTrace, EndsSameTetAndDirect) {
  background bg(2, 1.0, nullptr);
  for (unsigned n = 0; n < bg.m.nodes.cols(); ++n)
    bg.m.node_sizes[n] = 1.0 + 0.25 * bg.m.nodes(0, n);
  const double P[3] = {0.3, 0.5, 0.7}, Q[3] = {0.31, 0.5, 0.7};
  double L = 1.0;
  ASSERT_TRUE(field_length(bg.field, P, NONE, 1.075, P, NONE, 1.075, L));
  EXPECT_EQ(L, 0.0);
  EXPECT_EQ(bg.field.trace_points.cols, 2u);

  const unsigned t = tet_of(bg.field, P);
  ASSERT_NE(t, NONE);
  ASSERT_TRUE(trace_length(bg.field, P, t, 1.075, Q, t, 1.0775, DBL_MAX));
  EXPECT_EQ(bg.field.trace_points.cols, 2u);
  EXPECT_EQ(trace_last_length(bg.field), dist(P, Q) / log_mean(1.075, 1.0775));

  th4_engine e;
  size_field& own = *e.own_size_field;
  ASSERT_TRUE(field_length(own, P, NONE, 0.5, Q, NONE, 2.0, L));
  EXPECT_EQ(L, dist(P, Q) / log_mean(0.5, 2.0));
  ASSERT_TRUE(field_length(own, P, NONE, 0.0, Q, NONE, 0.0, L));
  EXPECT_EQ(L, 0.0);
  EXPECT_TRUE(longer_than(own, P, NONE, 0.001, Q, NONE, 0.001, 1.0));
  EXPECT_FALSE(longer_than(own, P, NONE, 1.0, Q, NONE, 1.0, 1.0));
}

// The walk through a mesh of uneven sizes sums the piecewise linear field exactly: through a
// node of the mesh, where it must step past, along edges of the mesh, and along random segments.
// Fine sampling is the reference.
TEST(MetricTrace, WalkMatchesSampling) {
  std::mt19937 g(7);
  std::uniform_real_distribution<double> u(0.3, 1.2), x(0.01, 1.99);
  background bg(2, 1.0, nullptr);
  for (unsigned n = 0; n < bg.m.nodes.cols(); ++n) bg.m.node_sizes[n] = u(g);
  for (unsigned k = 0; k < 42; ++k) {
    double P[3] = {0.3, 0.4, 1.6}, Q[3] = {1.7, 1.6, 0.4};  // through node (1, 1, 1)
    if (k == 1) P[0] = P[1] = P[2] = 0.5, Q[0] = Q[1] = Q[2] = 1.5;
    if (k > 1)
      for (unsigned c = 0; c < 3; ++c) P[c] = x(g), Q[c] = x(g);
    unsigned t = NONE;
    double hP, hQ, L = 0.0;
    ASSERT_TRUE(interpolate_size(bg.field, Q, t, hQ) && interpolate_size(bg.field, P, t, hP));
    trace_clear(bg.field);
    ASSERT_TRUE(trace_append(bg.field, P, hP));
    EXPECT_TRUE(trace_walk(bg.field, P, Q, tet_of(bg.field, P), DBL_MAX)) << k;
    ASSERT_TRUE(field_length(bg.field, P, NONE, hP, Q, NONE, hQ, L));
    EXPECT_NEAR(L, sampled_length(bg.field, P, Q, k < 2 ? 20000 : 4000), 1e-6 * L) << k;
  }
}

// Beyond the background's domain the walk fails and the segment is sampled at 2 m points, the
// parent field giving the sizes outside. A point in no field at all can't be measured: too long.
TEST(MetricTrace, LeavingTheDomainIsSampled) {
  background outer(4, 0.25, nullptr);
  background bg(2, 0.5, &outer.field);
  const double P[3] = {1.0, 1.1, 0.5}, Q[3] = {3.5, 1.2, 0.7};
  double L = 0.0;
  ASSERT_TRUE(field_length(bg.field, P, NONE, 0.5, Q, NONE, 0.25, L));
  const unsigned N = 2 * unsigned(std::trunc(dist(P, Q) / log_mean(0.5, 0.25)));
  ASSERT_EQ(bg.field.trace_points.cols, N + 1);
  double sum = 0.0;
  for (unsigned k = 0; k <= N; ++k) {
    const double* R = bg.field.trace_points.col(k);
    const double h = bg.field.trace_sizes[k];
    EXPECT_EQ(h, R[0] <= 2.0 ? 0.5 : 0.25) << k;
    if (k)
      sum += dist(R, bg.field.trace_points.col(k - 1)) / log_mean(h, bg.field.trace_sizes[k - 1]);
    EXPECT_NEAR(bg.field.trace_lengths[k], sum, 1e-12 * sum);
  }
  EXPECT_EQ(L, sum);

  background alone(2, 0.5, nullptr);
  const double far[3] = {5.0, 5.0, 5.0};
  EXPECT_FALSE(field_length(alone.field, P, NONE, 0.5, far, NONE, 0.5, L));
  EXPECT_EQ(L, 0.0);
  EXPECT_TRUE(longer_than(alone.field, P, NONE, 0.5, far, NONE, 0.5, 1e300));
}

// A limit below the first piece stops the walk after that piece; a limit above the length walks
// to Q and is not passed.
TEST(MetricTrace, LongerThanStopsAtTheLimit) {
  background bg(4, 1.0, nullptr);
  const double P[3] = {0.1, 0.2, 0.3}, Q[3] = {3.9, 3.7, 3.8};
  EXPECT_TRUE(longer_than(bg.field, P, NONE, 1.0, Q, NONE, 1.0, 1e-3));
  ASSERT_EQ(bg.field.trace_points.cols, 2u);
  EXPECT_GE(bg.field.trace_lengths[1], 1e-3);
  EXPECT_LT(bg.field.trace_lengths[1], dist(P, Q));
  EXPECT_FALSE(longer_than(bg.field, P, NONE, 1.0, Q, NONE, 1.0, 10.0));
  EXPECT_NEAR(trace_last_length(bg.field), dist(P, Q), 1e-12);
  const double* last = bg.field.trace_points.col(bg.field.trace_points.cols - 1);
  EXPECT_EQ(dist(last, Q), 0.0);
}

// far_from: a length of exactly `ratio` is too near; a size of 0.0 keeps nothing away; an empty
// octree refuses nothing.
TEST(SpacingFilter, FarFromBoundaries) {
  th4_engine e;
  spacing_filter F(0.5, 1.5);
  dense2D<double> table(3, 2, 0.0);
  table(0, 1) = 0.5;
  dense1D<double> sizes(2, 1.0);
  dense1D<unsigned> list;
  list.push_back(1);
  const double P[3] = {0.0, 0.0, 0.0};
  EXPECT_FALSE(far_from(F, P, 1.0, table, sizes, *e.own_size_field, list));
  F.ratio = std::nextafter(0.5, 0.0);
  EXPECT_TRUE(far_from(F, P, 1.0, table, sizes, *e.own_size_field, list));
  list.push_back(0);
  EXPECT_FALSE(far_from(F, P, 1.0, table, sizes, *e.own_size_field, list));
  sizes[0] = 0.0;
  EXPECT_TRUE(far_from(F, P, 1.0, table, sizes, *e.own_size_field, list));
  EXPECT_TRUE(far_from_octree(F, P, 1.0, sizes, e.exclusion_octree, 0));
}

// The filter keeps in order of preference: a candidate on a node of size 0.0 stays, its twin goes,
// one on a sized node goes, one near a kept one goes, one out of the box stays without keeping its
// twin away; exclusion nodes reach over 4 h. An empty table stays empty.
TEST(SpacingFilter, FilterCandidates) {
  th4_engine e;
  fixtures::kuhn_lattice(e, 2);
  for (unsigned n = 0; n < e.nodes.cols(); ++n) e.node_sizes[n] = 1.0;
  e.node_sizes[0] = 0.0;
  build_locator(e);

  dense2D<double> pts;
  dense1D<double> sizes;
  filter_candidates(e, pts, sizes, 0.7071067811865476);
  EXPECT_EQ(pts.cols, 0u);
  EXPECT_EQ(sizes.size, 0u);

  const double cand[7][4] = {{0, 0, 0, 0.1},       {0, 0, 0, 0.1},        {1, 1, 1, 0.1},
                             {0.5, 0.5, 0.5, 0.1}, {0.55, 0.5, 0.5, 0.1}, {3, 3, 3, 0.1},
                             {3, 3, 3, 0.1}};
  pts.resize(3, 7);
  sizes.resize(7);
  for (unsigned j = 0; j < 7; ++j) {
    for (unsigned k = 0; k < 3; ++k) pts(k, j) = cand[j][k];
    sizes[j] = cand[j][3];
  }
  filter_candidates(e, pts, sizes, 0.7071067811865476);
  ASSERT_EQ(pts.cols, 4u);
  ASSERT_EQ(sizes.size, 4u);
  const unsigned kept[4] = {0, 3, 5, 6};
  for (unsigned j = 0; j < 4; ++j) {
    for (unsigned k = 0; k < 3; ++k) EXPECT_EQ(pts(k, j), cand[kept[j]][k]) << j;
    EXPECT_EQ(sizes[j], 0.1);
  }

  // Node 26 at (2, 2, 2), size 2.5: outside the 1.5 h box of a point 0.5 below it, within 4 h.
  pts.resize(3, 1);
  sizes.resize(1);
  pts(0, 0) = 2.0, pts(1, 0) = 2.0, pts(2, 0) = 1.5, sizes[0] = 0.25;
  e.node_sizes[26] = 2.5;
  filter_candidates(e, pts, sizes, 0.7071067811865476);
  EXPECT_EQ(pts.cols, 1u);
  e.exclusion_octree.coords = &e.nodes;
  ASSERT_TRUE(e.exclusion_octree.set_box(e.box_min, e.box_max));
  ASSERT_TRUE(e.exclusion_octree.add(26));
  e.exclusion_count = 1;
  filter_candidates(e, pts, sizes, 0.7071067811865476);
  EXPECT_EQ(pts.cols, 0u);
  EXPECT_EQ(sizes.size, 0u);
}

namespace {

// The equilateral triangle of side 1 in z = 0 and a top node: one tet, all sizes `h`.
void equilateral_tet(th4_engine& e, double h, double top) {
  const double s = std::sqrt(3.0);
  fixtures::load_mesh(e, {{0, 0, 0}, {1, 0, 0}, {0.5, s / 2, 0}, {0.5, s / 6, top}},
                      {{0, 1, 2, 3}});
  for (unsigned n = 0; n < 4; ++n) e.node_sizes[n] = h;
  build_locator(e);
}

unsigned local_of(const th4_engine& e, unsigned t, unsigned node) {
  for (unsigned i = 0; i < 4; ++i)
    if (e.tets(i, t) == node) return i;
  return 4;
}

}  // namespace

// Sizes 1 on the equilateral face of side 1: the first apex is that of the regular tet, kept at
// once with quality 1, and it is the candidate of the face. Sizes 2: the first height doubles
// with shape weight 0 and follows the sides alone with weight 1; weight 0 then moves the apex
// until the edges fit, weight 1 keeps the regular tet.
TEST(FrontPlacement, RegularApexAndShapeWeight) {
  const double H1 = 0.8164965809277261;
  th4_engine e;
  equilateral_tet(e, 1.0, 3.0);
  refine_context c(e.settings);
  const unsigned t = 0, i = local_of(e, 0, 3);
  c.front_faces.push_back(4 * t + i);
  dense2D<double> pts;
  dense1D<double> sizes;
  place_candidates(e, c, pts, sizes);
  ASSERT_EQ(pts.cols, 1u);
  EXPECT_NEAR(pts(0, 0), 0.5, 1e-12);
  EXPECT_NEAR(pts(1, 0), std::sqrt(3.0) / 6, 1e-12);
  EXPECT_NEAR(pts(2, 0), H1, 1e-12);
  EXPECT_NEAR(sizes[0], 1.0, 1e-12);

  apex_frame frame;
  const unsigned* fn = tet_face_nodes[i];
  for (unsigned k = 0; k < 3; ++k)
    for (unsigned d = 0; d < 3; ++d) frame(d, k) = e.nodes(d, e.tets(fn[k], t));
  for (double w : {0.0, 0.6, 1.0}) {
    double apex[3], s1[4] = {1, 1, 1, 1}, s2[4] = {2, 2, 2, 2};
    EXPECT_NEAR(first_apex(frame, s1, c.face_order, 1.0, w, apex), H1, 1e-15);
    EXPECT_NEAR(first_apex(frame, s2, c.face_order, 1.0, w, apex), (2.0 - w) * H1, 1e-15);
    EXPECT_NEAR(first_apex(frame, s1, c.face_order, 0.25, w, apex), 0.25 * H1, 1e-15);
    EXPECT_NEAR(apex[2], 0.25 * H1, 1e-15);
    unsigned tets[4] = {0, 0, 0, 0};
    double q = 0.0;
    ASSERT_TRUE(adjust_apex(*e.size_field, c, frame, s1, tets, 1.0, w, q));
    EXPECT_NEAR(q, 1.0, 1e-12);
    EXPECT_NEAR(frame(2, 3), H1, 1e-12);
  }

  th4_engine e2;
  equilateral_tet(e2, 2.0, 3.0);
  c.shape_weight = 1.0;
  double P[3], h;
  ASSERT_GT(front_point(e2, c, e2.tets(fn[0], 0), e2.tets(fn[1], 0), e2.tets(fn[2], 0), P, h), 0.0);
  EXPECT_NEAR(P[2], H1, 1e-12);
  c.shape_weight = 0.0;
  ASSERT_GT(front_point(e2, c, e2.tets(fn[0], 0), e2.tets(fn[1], 0), e2.tets(fn[2], 0), P, h), 0.0);
  EXPECT_NEAR(h, 2.0, 1e-12);
  for (unsigned k = 0; k < 3; ++k) {
    const double L = dist(P, e2.nodes.row(e2.tets(fn[k], 0))) / 2.0;
    EXPECT_NEAR(L, 1.0, 0.03) << k;
  }
  EXPECT_GT(P[2], 1.8);
}

// A bad tet so flat that the apex stands beyond its top node: the point falls into a tet above,
// and is a candidate only while that tet is bad and of the same colour.
TEST(FrontPlacement, ApexBeyondAFlatTet) {
  const double s = std::sqrt(3.0);
  th4_engine e;
  // The star of d = (0.45, 0.1, 0.3) in the tet (a, b, c, top): tet 0 is the flat one on a b c.
  fixtures::load_mesh(e, {{0, 0, 0}, {1, 0, 0}, {0.5, s / 2, 0}, {0.45, 0.1, 0.3}, {0.55, 0.3, 3}},
                      {{0, 1, 2, 3}, {0, 1, 3, 4}, {1, 2, 3, 4}, {2, 0, 3, 4}});
  for (unsigned n = 0; n < 5; ++n) e.node_sizes[n] = 1.0;
  build_locator(e);
  refine_context c(e.settings);
  c.front_faces.push_back(4 * 0 + local_of(e, 0, 3));
  dense2D<double> pts;
  dense1D<double> sizes;
  place_candidates(e, c, pts, sizes);
  ASSERT_EQ(pts.cols, 1u);
  unsigned u = NONE;
  ASSERT_TRUE(locate_tet(e, pts.col(0), u, LOCATE_TOL));
  EXPECT_NE(u, 0u);
  c.good_tets.set(u);
  place_candidates(e, c, pts, sizes);
  EXPECT_EQ(pts.cols, 0u);
  c.good_tets.reset(u);
  e.colors[u] = 1;
  place_candidates(e, c, pts, sizes);
  EXPECT_EQ(pts.cols, 0u);
  EXPECT_EQ(sizes.size, 0u);
}

// Tets outside of the domain stay in the mesh until the end: the first judging counts them good,
// so that no front face and no long edge comes from them, though every edge is too long.
TEST(RefinementLoop, FirstFrontLeavesTheOutsideAlone) {
  th4_engine e;
  fixtures::kuhn_lattice(e, 2);
  for (unsigned n = 0; n < e.nodes.cols(); ++n) e.node_sizes[n] = 0.1;
  build_locator(e);
  // The tets of the lower half in x are outside.
  for (unsigned t = 0; t < e.tets.cols(); ++t) {
    double x = 0.0;
    for (unsigned i = 0; i < 4; ++i) x += e.nodes(0, e.tets(i, t));
    if (x < 4.0) e.colors[t] = NONE;
  }
  refine_context c(e.settings);
  const dense1D<unsigned> none;
  ASSERT_EQ(make_front(e, c, none), 0);
  unsigned outside = 0;
  for (unsigned t = 0; t < e.tets.cols(); ++t) {
    if (e.colors[t] != NONE) continue;
    ++outside;
    EXPECT_TRUE(c.good_tets.test(t)) << t;
  }
  ASSERT_GT(outside, 0u);
  ASSERT_GT(c.front_faces.size, 0u);
  for (unsigned k = 0; k < c.front_faces.size; ++k)
    EXPECT_NE(e.colors[c.front_faces[k] >> 2], NONE) << k;
  for (const auto& [edge, length] : c.long_edges) {
    // Each end on a domain tet: an edge between outside tets alone was not looked at.
    bool a_in = false, b_in = false;
    for (unsigned t = 0; t < e.tets.cols(); ++t) {
      if (e.colors[t] == NONE) continue;
      for (unsigned i = 0; i < 4; ++i) {
        a_in |= e.tets(i, t) == edge.first;
        b_in |= e.tets(i, t) == edge.second;
      }
    }
    EXPECT_TRUE(a_in && b_in) << edge.first << " " << edge.second << " " << length;
  }
}

// The estimate counts each tet in ideal tets of its size, at least one: a lattice of unit cubes
// in Kuhn tets (orient_det 1 each) sized 0.5 gives 1 / (0.125 / sqrt 2) per tet. Outside tets
// are not counted, and without a classified tet the count is 0. A fine corner is held within a
// density ratio of 1.5 of its neighbours, densities only falling. A node limit below the estimate
// caps the reservation at that many nodes and five times as many tets.
TEST(RefinementEstimate, CountsIdealTetsAndLimitsJumps) {
  th4_engine e;
  fixtures::kuhn_lattice(e, 2);
  const unsigned T = e.tets.cols();
  for (unsigned n = 0; n < e.nodes.cols(); ++n) e.node_sizes[n] = 0.5;
  double count = -1.0;
  ASSERT_EQ(estimate_new_tets(e, DBL_MAX, 0.0, count), 0);
  EXPECT_EQ(count, std::rint(T / (0.125 * 0.7071067811865476)));
  for (unsigned n = 0; n < e.nodes.cols(); ++n) e.node_sizes[n] = 4.0;
  ASSERT_EQ(estimate_new_tets(e, DBL_MAX, 0.0, count), 0);
  EXPECT_EQ(count, double(T));
  e.colors[0] = 0xFFFFFFFFu;
  ASSERT_EQ(estimate_new_tets(e, DBL_MAX, 0.0, count), 0);
  EXPECT_EQ(count, double(T - 1));
  for (unsigned t = 0; t < T; ++t) e.colors[t] = 0xFFFFFFFFu;
  ASSERT_EQ(estimate_new_tets(e, DBL_MAX, 0.0, count), 0);
  EXPECT_EQ(count, 0.0);

  dense1D<double> d(T, 1.0);
  d[0] = 100.0;
  dense1D<double> before;
  ASSERT_TRUE(before.copy(d));
  limit_density_jumps(e, 1.5, d);
  for (unsigned t = 0; t < T; ++t) {
    EXPECT_LE(d[t], before[t]);
    for (unsigned k = 0; k < 4; ++k) {
      const unsigned u = e.neighbors(k, t);
      if (u != NONE) {
        EXPECT_LE(d[t] / d[u], 1.5 * (1 + 1e-9)) << t << " " << u;
      }
    }
  }
  EXPECT_LT(d[0], 100.0);

  th4_engine limited;
  fixtures::kuhn_lattice(limited, 2);
  for (unsigned n = 0; n < limited.nodes.cols(); ++n) limited.node_sizes[n] = 0.1;
  limited.settings.nodes_limit = 40;
  reserve_for_refinement(limited, 0, DBL_MAX, 0.0);
  EXPECT_GE(limited.nodes.data.capacity_cols(), 40u);
  EXPECT_LT(limited.nodes.data.capacity_cols(), 100u);
  EXPECT_GE(limited.tets.data.capacity_cols(), 200u);
}

TEST(SizeLimiting, GradationAndRelaxation) {
  // The gradation is exp(|h2 - h1| / d) - 1, whatever the order of the ends.
  const double e[3] = {0.6, 0.0, 0.8}, zero[3] = {0.0, 0.0, 0.0};
  EXPECT_NEAR(edge_gradation(0.2, 0.5, e), std::exp(0.3) - 1.0, 1e-12);
  EXPECT_EQ(edge_gradation(0.5, 0.2, e), edge_gradation(0.2, 0.5, e));
  EXPECT_EQ(edge_gradation(0.3, 0.3, e), 0.0);
  EXPECT_EQ(edge_gradation(0.3, 0.3, zero), 0.0);
  EXPECT_EQ(edge_gradation(0.3, 0.4, zero), DBL_MAX);

  // A new node of size 1 one unit from a fixed node of size 0.1, gradation 0.5: its size comes
  // down until the edge grows by ln 1.5, about 0.505.
  dense2D<double> xyz(3, 3);
  for (unsigned j = 0; j < 3; ++j)
    for (unsigned k = 0; k < 3; ++k) xyz(k, j) = k == 0 ? double(j) : 0.0;
  dense1D<double> sizes;
  sizes.resize(3, 1.0);
  sizes[1] = 0.1;
  dense1D<unsigned> offsets, graph, local, stamps;
  for (unsigned v : {0u, 1u, 2u}) local.push_back(v);
  for (unsigned v : {0u, 1u, 2u, 3u}) offsets.push_back(v);  // 0 - 1, then 1 and 2 alone
  offsets[2] = 2, offsets[3] = 2;
  for (unsigned v : {1u, 0u}) graph.push_back(v);
  for (unsigned v : {0u, 0xFFFFFFFFu, 0u}) stamps.push_back(v);
  limit_scratch scratch;
  EXPECT_EQ(spread_limit(xyz, offsets, graph, local, stamps, 0.5, sizes, scratch), 1);
  EXPECT_NEAR(sizes[0], 0.1 + std::log(1.5), 0.002);
  EXPECT_EQ(sizes[1], 0.1);  // fixed
  EXPECT_EQ(sizes[2], 1.0);  // no edge

  // Moves go one way: a size that came down is not sent up again, and equal sizes stay.
  std::vector<unsigned> none;
  sizes[0] = 0.5, sizes[2] = 2.0;
  int down = -1;
  EXPECT_FALSE(limit_edge(xyz, sizes, 0, 2, none, 0.5, down));
  EXPECT_EQ(sizes[0], 0.5);
  int free_way = 0;
  EXPECT_TRUE(limit_edge(xyz, sizes, 0, 2, none, 0.5, free_way));
  EXPECT_EQ(free_way, 1);
  EXPECT_GT(sizes[0], 0.5);
  sizes[2] = sizes[0];
  free_way = 0;
  EXPECT_FALSE(limit_edge(xyz, sizes, 0, 2, none, 0.5, free_way));

  // A fixed neighbour already within the gradation: the move would only hurt it, so none.
  sizes[0] = 1.0, sizes[1] = 1.0, sizes[2] = 0.1;
  const std::vector<unsigned> fixed{1};
  int way = 0;
  EXPECT_FALSE(limit_edge(xyz, sizes, 0, 2, fixed, 0.5, way));
  EXPECT_EQ(sizes[0], 1.0);
}
