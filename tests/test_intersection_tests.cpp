// Tolerant intersection tests on crossing, touching, nearly coplanar, collinear and degenerate
// input, with long double cross-checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <vector>

#include "voxfill/boundary/intersection_tests.h"

using namespace kelvo::voxfill;
using kelvo::dense2D;

namespace {

using point = std::array<double, 3>;
using lpoint = std::array<long double, 3>;

dense2D<double> table(const std::vector<point>& pts) {
  dense2D<double> t(3, unsigned(pts.size()));
  for (unsigned j = 0; j < pts.size(); ++j)
    for (unsigned i = 0; i < 3; ++i) t(i, j) = pts[j][i];
  return t;
}
lpoint wide(const point& p) {
  return {p[0], p[1], p[2]};
}
long double dot(const lpoint& a, const lpoint& b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
lpoint sub(const lpoint& a, const lpoint& b) {
  return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}
lpoint cross(const lpoint& a, const lpoint& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
long double point_segment2(const lpoint& A, const lpoint& B, const lpoint& p) {
  const lpoint u = sub(B, A), w = sub(p, A);
  const long double s = std::clamp(dot(w, u) / dot(u, u), 0.0L, 1.0L);
  const lpoint d = {w[0] - s * u[0], w[1] - s * u[1], w[2] - s * u[2]};
  return dot(d, d);
}
// Segment distance as the least of the four end-to-segment distances and, when the closest
// points of the lines fall inside both segments, the distance of the lines.
long double brute_distance2(const point& A, const point& B, const point& P, const point& Q) {
  const lpoint a = wide(A), b = wide(B), p = wide(P), q = wide(Q);
  long double best = std::min({point_segment2(p, q, a), point_segment2(p, q, b),
                               point_segment2(a, b, p), point_segment2(a, b, q)});
  const lpoint u = sub(b, a), v = sub(q, p), n = cross(u, v);
  if (dot(n, n) > 1e-20L * dot(u, u) * dot(v, v)) {
    const long double s = dot(cross(sub(p, a), v), n) / dot(n, n);
    const long double t = dot(cross(sub(p, a), u), n) / dot(n, n);
    const long double h = dot(sub(p, a), n);
    if (s > 0 && s < 1 && t > 0 && t < 1) best = std::min(best, h * h / dot(n, n));
  }
  return best;
}

segment_contact segs(const point& A, const point& B, const point& P, const point& Q,
                     double tol = 1e-9, bool absolute = false) {
  return intersect_segments(A.data(), B.data(), P.data(), Q.data(), tol, absolute);
}
const dense2D<double> unit = table({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}});  // in z = 0
triangle_contact tri(const point& P, const point& Q, const dense2D<double>& nodes = unit) {
  return intersect_segment_triangle(nodes, 0, 1, 2, P.data(), Q.data(), 1e-9, false);
}
bool crossing(const segment_contact& c) {
  return c.on_first && c.on_second;
}
bool crossing(const triangle_contact& c) {
  return c.in_face && c.on_segment;
}

}  // namespace

// Wrong signs or ends in the line solution; parallel lines must not divide by ~0.
TEST(ClosestLines, SkewAndParallel) {
  const point A = {0, 0, 0}, B = {2, 0, 0}, P = {3, 4, 1}, Q = {3, -4, 1};
  double s, t;
  bool parallel;
  EXPECT_DOUBLE_EQ(closest_lines(A.data(), B.data(), P.data(), Q.data(), s, t, parallel), 1.0);
  EXPECT_FALSE(parallel);
  EXPECT_DOUBLE_EQ(s, 1.5);  // measured from A and P though the picked ends are B and Q
  EXPECT_DOUBLE_EQ(t, 0.5);
  closest_lines(A.data(), B.data(), Q.data(), (point{5, -4, 1 + 1e-15}).data(), s, t, parallel);
  EXPECT_TRUE(parallel);
  EXPECT_EQ(s, NO_VALUE);
}

// A clamp that forgets to recompute the other parameter, on random, nearly parallel and nearly
// touching segments, against an independent long double minimum.
TEST(SegmentDistance, MatchesLongDoubleBruteForce) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> U(-1.0, 1.0);
  for (unsigned k = 0; k < 3000; ++k) {
    point A, B, P, Q;
    for (unsigned i = 0; i < 3; ++i) A[i] = U(rng), B[i] = U(rng), P[i] = U(rng), Q[i] = U(rng);
    for (unsigned i = 0; i < 3; ++i) {
      if (k % 3 == 1) Q[i] = P[i] + (B[i] - A[i]) * 0.7 + 1e-9 * U(rng);
      if (k % 3 == 2) P[i] = A[i] + 0.3 * (B[i] - A[i]) + 1e-12 * U(rng);
    }
    double s, t, X[3], Y[3];
    const double d = segment_distance2(A.data(), B.data(), P.data(), Q.data(), s, t, X);
    const double ref = double(brute_distance2(A, B, P, Q));
    ASSERT_NEAR(d, ref, 1e-12 + 1e-9 * ref) << k;
    point_on_segment<3>(t, P.data(), Q.data(), Y);  // s and t name the points of the distance
    const double e = (X[0] - Y[0]) * (X[0] - Y[0]) + (X[1] - Y[1]) * (X[1] - Y[1]) +
                     (X[2] - Y[2]) * (X[2] - Y[2]);
    ASSERT_NEAR(e, d, 1e-12 + 1e-9 * d) << k;
  }
}

// Crossing, near misses on both sides of tol, collinear overlap and end touch, zero length.
TEST(IntersectSegments, CrossTouchOverlap) {
  const point A = {0, 0, 0}, B = {2, 0, 0};
  segment_contact c = segs(A, B, {1, -1, 0}, {1, 1, 0});
  EXPECT_TRUE(crossing(c) && !c.strict && c.s == 0.5 && c.t == 0.5 && c.gap2 == 0.0);
  EXPECT_TRUE(crossing(segs(A, B, {1, -1, 0.5e-9}, {1, 1, 0.5e-9})));
  EXPECT_FALSE(crossing(segs(A, B, {1, -1, 2e-9}, {1, 1, 2e-9})));
  EXPECT_TRUE(crossing(segs(A, B, {1, -1, 0}, {1, -0.5e-9, 0})));  // stops tol / 2 short
  // With `absolute`, tol is a share of each length: 0.06 x 2 covers the gap 0.1, 0.06 x 0.9 not.
  c = segs(A, B, {1, -1, 0}, {1, -0.1, 0}, 0.06, true);
  EXPECT_TRUE(c.on_first && !c.on_second);
  c = segs(A, B, {2.5, 0, 0}, {1, 0, 0});
  EXPECT_TRUE(crossing(c) && c.strict && c.s == 0.5);
  c = segs(A, B, {2 + 1e-10, 0, 0}, {3, 0, 0});  // a hair from the end: a touch, no overlap
  EXPECT_TRUE(crossing(c) && !c.strict);
  EXPECT_FALSE(crossing(segs(A, B, {2 + 1e-6, 0, 0}, {3, 0, 0})));
  EXPECT_FALSE(crossing(segs(A, B, {0, 1e-6, 0}, {2, 1e-6, 0})));
  for (bool absolute : {false, true}) {
    c = segs(A, B, {1, 0, 0}, {1, 0, 0}, 1e-9, absolute);
    EXPECT_TRUE(!crossing(c) && !c.strict && c.s == NO_VALUE && c.t == NO_VALUE);
  }
}

// Edges of a common node meet without crossing unless they overlap; an edge against itself.
TEST(IntersectNodeEdges, SharedNodes) {
  const dense2D<double> n = table({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {2, 0, 0}, {0.5, 0, 0}});
  EXPECT_FALSE(crossing(intersect_node_edges(n, 0, 1, 0, 2, 1e-9, false)));
  EXPECT_FALSE(crossing(intersect_node_edges(n, 1, 3, 1, 0, 1e-9, false)));
  const segment_contact same = intersect_node_edges(n, 0, 1, 1, 0, 1e-9, false);
  EXPECT_TRUE(!crossing(same) && same.gap2 == 0.0 && same.s == 0.0);
  const segment_contact overlap = intersect_node_edges(n, 0, 3, 0, 4, 1e-9, false);
  EXPECT_TRUE(crossing(overlap) && overlap.strict);
  // No common node, but node 1 stands on edge 0-3: that is a contact.
  EXPECT_TRUE(crossing(intersect_node_edges(n, 1, 2, 0, 3, 1e-9, false)));
}

// Transversal contacts: interior crossing, a node touched by an end, the rim within tol,
// stopping short, misses, and degenerate figures.
TEST(IntersectSegmentTriangle, Transversal) {
  triangle_contact c = tri({0.25, 0.25, -1}, {0.25, 0.25, 3});
  EXPECT_TRUE(crossing(c) && !c.strict);
  EXPECT_DOUBLE_EQ(c.t, 0.25);
  EXPECT_DOUBLE_EQ(c.weights[0], 0.5);
  EXPECT_DOUBLE_EQ(c.point[1], 0.25);
  c = tri({0, 0, 0}, {-1, -1, 1});
  EXPECT_TRUE(crossing(c) && !c.strict && c.t == 0.0);
  EXPECT_TRUE(crossing(tri({0.5, -0.5e-9, -1}, {0.5, -0.5e-9, 1})));
  EXPECT_FALSE(crossing(tri({0.5, -2e-9, -1}, {0.5, -2e-9, 1})));
  EXPECT_TRUE(crossing(tri({0.2, 0.3, 1}, {0.2, 0.3, 0.5e-9})));
  EXPECT_FALSE(crossing(tri({0.2, 0.3, 1}, {0.2, 0.3, 2e-9})));
  EXPECT_FALSE(crossing(tri({0.7, 0.7, -1}, {0.7, 0.7, 1})));
  c = tri({0.2, 0.2, 1}, {0.2, 0.2, 2});  // far: ends at the plane test
  EXPECT_TRUE(!crossing(c) && c.gap2 > 0.99);
  c = tri({0.2, 0.2, 0}, {0.2, 0.2, 0});
  EXPECT_TRUE(!crossing(c) && c.t == NO_VALUE);
  EXPECT_FALSE(crossing(tri({0.5, 0, -1}, {0.5, 0, 1}, table({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}}))));
}

// Segments in the plane: through, inside, along a side, touching a node, outside, and tilted by
// 1e-14 (read as in the plane, with the same verdict).
TEST(IntersectSegmentTriangle, Coplanar) {
  triangle_contact c = tri({-1, 0.25, 0}, {2, 0.25, 0});
  EXPECT_TRUE(crossing(c) && c.strict);
  EXPECT_NEAR(c.t, 1.0 / 3.0, 1e-15);  // the first contact along PQ
  EXPECT_TRUE(tri({-1, 0.25, 0}, {2, 0.25, 1e-14}).strict);
  EXPECT_TRUE(tri({0.1, 0.1, 0}, {0.3, 0.2, 0}).strict);
  c = tri({-0.5, 0, 0}, {0.5, 0, 0});
  EXPECT_TRUE(crossing(c) && c.strict);
  c = tri({1, 0, 0}, {2, 0, 0});
  EXPECT_TRUE(crossing(c) && !c.strict);
  EXPECT_FALSE(crossing(tri({1, 1, 0}, {2, 0.5, 0})));
}

// Random transversal segments: the verdict matches long double wherever the crossing stands
// clear of the rim and of the ends.
TEST(IntersectSegmentTriangle, MatchesLongDoubleOnClearCases) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> U(-1.0, 1.0);
  unsigned checked = 0, crossings = 0;
  for (unsigned k = 0; k < 4000; ++k) {
    std::vector<point> pts(5);
    for (auto& p : pts)
      for (auto& x : p) x = U(rng);
    const lpoint a = wide(pts[0]), b = wide(pts[1]), c = wide(pts[2]);
    const lpoint p = wide(pts[3]), q = wide(pts[4]), n = cross(sub(b, a), sub(c, a));
    const long double dp = dot(n, sub(p, a)), dq = dot(n, sub(q, a)), nn = dot(n, n);
    if (nn < 1e-4L || std::fabs(dp - dq) < 1e-3L * std::sqrt(nn)) continue;
    const long double t = dp / (dp - dq);
    const lpoint x = {p[0] + t * (q[0] - p[0]), p[1] + t * (q[1] - p[1]), p[2] + t * (q[2] - p[2])};
    const long double w0 = dot(cross(sub(b, x), sub(c, x)), n) / nn;
    const long double w1 = dot(cross(sub(c, x), sub(a, x)), n) / nn;
    const long double w[4] = {w0, w1, 1 - w0 - w1, std::min(t, 1 - t)};
    if (std::fabs(*std::min_element(
            w, w + 4, [](auto u, auto v) { return std::fabs(u) < std::fabs(v); })) < 1e-6L)
      continue;
    const triangle_contact r = tri(pts[3], pts[4], table({pts[0], pts[1], pts[2]}));
    const bool crosses = *std::min_element(w, w + 4) > 0;
    ++checked, crossings += crosses;
    ASSERT_EQ(crossing(r), crosses) << k;
    ASSERT_FALSE(r.strict) << k;
    ASSERT_TRUE(!crosses || std::fabs(r.t - double(t)) < 1e-9) << k;
    ASSERT_TRUE(!crosses || std::fabs(r.weights[0] - double(w0)) < 1e-9) << k;
  }
  EXPECT_GT(checked, 2000u);
  EXPECT_GT(crossings, 100u);
}
