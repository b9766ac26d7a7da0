// Tolerant intersection tests: closest points of lines and segments, segment against segment and
// segment against triangle on crossing, touching, nearly coplanar, collinear and degenerate input.
#include <gtest/gtest.h>

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

dense2D<double> make_table(const std::vector<point>& pts) {
  dense2D<double> t(3, unsigned(pts.size()));
  for (unsigned j = 0; j < pts.size(); ++j)
    for (unsigned i = 0; i < 3; ++i) t(i, j) = pts[j][i];
  return t;
}

lpoint widen(const point& p) {
  return {p[0], p[1], p[2]};
}
long double ldot(const lpoint& a, const lpoint& b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
lpoint lsub(const lpoint& a, const lpoint& b) {
  return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}

// Squared distance of p to segment AB in long double.
long double point_segment2(const lpoint& A, const lpoint& B, const lpoint& p) {
  const lpoint u = lsub(B, A), w = lsub(p, A);
  long double s = ldot(u, u) > 0 ? ldot(w, u) / ldot(u, u) : 0;
  s = s < 0 ? 0 : (s > 1 ? 1 : s);
  const lpoint d = {w[0] - s * u[0], w[1] - s * u[1], w[2] - s * u[2]};
  return ldot(d, d);
}

// Segment distance as the least of the four end-to-segment distances and, when the closest
// points of the lines lie inside both segments, the distance of the lines.
long double brute_segment_distance2(const point& A, const point& B, const point& P,
                                    const point& Q) {
  const lpoint a = widen(A), b = widen(B), p = widen(P), q = widen(Q);
  long double best = std::min(std::min(point_segment2(p, q, a), point_segment2(p, q, b)),
                              std::min(point_segment2(a, b, p), point_segment2(a, b, q)));
  const lpoint u = lsub(b, a), v = lsub(q, p), r = lsub(p, a);
  const long double uu = ldot(u, u), vv = ldot(v, v), uv = ldot(u, v);
  const long double D = uu * vv - uv * uv;
  if (D > 1e-20L * uu * vv) {
    const long double s = (ldot(r, u) * vv - ldot(r, v) * uv) / D;
    const long double t = (ldot(r, u) * uv - ldot(r, v) * uu) / D;
    if (s > 0 && s < 1 && t > 0 && t < 1) {
      const lpoint d = {r[0] + t * v[0] - s * u[0], r[1] + t * v[1] - s * u[1],
                        r[2] + t * v[2] - s * u[2]};
      best = std::min(best, ldot(d, d));
    }
  }
  return best;
}

segment_contact segs(const point& A, const point& B, const point& P, const point& Q,
                     double tol = 1e-9, bool absolute = false) {
  return intersect_segments(A.data(), B.data(), P.data(), Q.data(), tol, absolute);
}

// The unit triangle in the plane z = 0, nodes 0, 1, 2.
const std::vector<point> unit_triangle = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};

triangle_contact tri(const dense2D<double>& nodes, const point& P, const point& Q,
                     double tol = 1e-9, bool absolute = false) {
  return intersect_segment_triangle(nodes, 0, 1, 2, P.data(), Q.data(), tol, absolute);
}

}  // namespace

// A wrong sign or a swapped denominator in the line solution.
TEST(ClosestLines, SkewLinesKnownAnswer) {
  const point A = {0, 0, 0}, B = {2, 0, 0}, P = {1, -1, 3}, Q = {1, 3, 3};
  double s, t;
  bool parallel;
  EXPECT_DOUBLE_EQ(closest_lines(A.data(), B.data(), P.data(), Q.data(), s, t, parallel), 9.0);
  EXPECT_FALSE(parallel);
  EXPECT_DOUBLE_EQ(s, 0.5);
  EXPECT_DOUBLE_EQ(t, 0.25);
  // Picked ends on B and Q: the parameters must still count from A and P.
  const point P2 = {3, 4, 1}, Q2 = {3, -4, 1};
  closest_lines(A.data(), B.data(), P2.data(), Q2.data(), s, t, parallel);
  EXPECT_DOUBLE_EQ(s, 1.5);
  EXPECT_DOUBLE_EQ(t, 0.5);
}

// Parallel and degenerate lines must not divide by a vanishing determinant.
TEST(ClosestLines, ParallelAndDegenerate) {
  const point A = {0, 0, 0}, B = {1, 0, 0}, P = {0, 1, 0}, Q = {5, 1, 1e-14};
  double s, t;
  bool parallel;
  closest_lines(A.data(), B.data(), P.data(), Q.data(), s, t, parallel);
  EXPECT_TRUE(parallel);
  EXPECT_EQ(s, NO_VALUE);
  EXPECT_EQ(t, NO_VALUE);
  closest_lines(A.data(), A.data(), P.data(), Q.data(), s, t, parallel);
  EXPECT_TRUE(parallel);
}

// A clamp that forgets to recompute the other parameter, against an independent long double
// minimum, on random, nearly parallel and nearly touching segments.
TEST(SegmentDistance, MatchesLongDoubleBruteForce) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> U(-1.0, 1.0);
  for (unsigned k = 0; k < 3000; ++k) {
    point A, B, P, Q;
    for (unsigned i = 0; i < 3; ++i) A[i] = U(rng), B[i] = U(rng), P[i] = U(rng), Q[i] = U(rng);
    if (k % 3 == 1)  // nearly parallel
      for (unsigned i = 0; i < 3; ++i) Q[i] = P[i] + (B[i] - A[i]) * 0.7 + 1e-9 * U(rng);
    if (k % 3 == 2)  // an end of PQ nearly on AB
      for (unsigned i = 0; i < 3; ++i) P[i] = A[i] + 0.3 * (B[i] - A[i]) + 1e-12 * U(rng);
    double s, t, X[3];
    const double d = segment_distance2(A.data(), B.data(), P.data(), Q.data(), s, t, X);
    const long double ref = brute_segment_distance2(A, B, P, Q);
    ASSERT_NEAR(d, double(ref), 1e-12 + 1e-9 * double(ref)) << k;
    ASSERT_TRUE(s >= 0.0 && s <= 1.0 && t >= 0.0 && t <= 1.0) << k;
    // The parameters must name the closest points that give the distance.
    double Y[3];
    point_on_segment<3>(t, P.data(), Q.data(), Y);
    const double e = (X[0] - Y[0]) * (X[0] - Y[0]) + (X[1] - Y[1]) * (X[1] - Y[1]) +
                     (X[2] - Y[2]) * (X[2] - Y[2]);
    ASSERT_NEAR(e, d, 1e-12 + 1e-9 * d) << k;
  }
}

// A transversal crossing is a crossing, not strict; a near miss counts only within tol.
TEST(IntersectSegments, CrossingAndNearMiss) {
  const point A = {0, 0, 0}, B = {2, 0, 0};
  segment_contact c = segs(A, B, {1, -1, 0}, {1, 1, 0});
  EXPECT_TRUE(c.on_first && c.on_second);
  EXPECT_FALSE(c.strict);
  EXPECT_DOUBLE_EQ(c.s, 0.5);
  EXPECT_DOUBLE_EQ(c.t, 0.5);
  EXPECT_DOUBLE_EQ(c.point[0], 1.0);
  EXPECT_EQ(c.gap2, 0.0);
  c = segs(A, B, {1, -1, 0.5e-9}, {1, 1, 0.5e-9});
  EXPECT_TRUE(c.on_first && c.on_second);
  c = segs(A, B, {1, -1, 2e-9}, {1, 1, 2e-9});
  EXPECT_FALSE(c.on_first || c.on_second);
  EXPECT_NEAR(c.gap2, 4e-18, 1e-30);
  // Stopping tol / 2 short of AB still touches it; with absolute, tol is a share of the length.
  c = segs(A, B, {1, -1, 0}, {1, -0.5e-9, 0});
  EXPECT_TRUE(c.on_first && c.on_second);
  c = segs(A, B, {1, -1, 0}, {1, -0.1, 0}, 0.04, true);
  EXPECT_FALSE(c.on_first);  // gap 0.1 above 0.04 x |AB| = 0.08
  c = segs(A, B, {1, -1, 0}, {1, -0.1, 0}, 0.06, true);
  EXPECT_TRUE(c.on_first);    // within 0.06 x |AB| = 0.12 ...
  EXPECT_FALSE(c.on_second);  // ... not within 0.06 x |PQ| = 0.054
  c = segs(A, B, {1, -1, 0}, {1, -0.1, 0}, 0.12, true);
  EXPECT_TRUE(c.on_first && c.on_second);
}

// Collinear input: an overlap is strict, a touch at a common end is not.
TEST(IntersectSegments, CollinearOverlapAndEndTouch) {
  const point A = {0, 0, 0}, B = {1, 0, 0};
  segment_contact c = segs(A, B, {0.5, 0, 0}, {2, 0, 0});
  EXPECT_TRUE(c.on_first && c.on_second && c.strict);
  EXPECT_DOUBLE_EQ(c.s, 0.5);
  c = segs(A, B, {2, 0, 0}, {0.5, 0, 0});  // either direction
  EXPECT_TRUE(c.strict);
  c = segs(A, B, {1, 0, 0}, {2, 0, 0});
  EXPECT_TRUE(c.on_first && c.on_second);
  EXPECT_FALSE(c.strict);
  c = segs(A, B, {1 + 1e-10, 0, 0}, {2, 0, 0});  // a hair apart, still a touch
  EXPECT_TRUE(c.on_first && c.on_second);
  EXPECT_FALSE(c.strict);
  c = segs(A, B, {1 + 1e-6, 0, 0}, {2, 0, 0});
  EXPECT_FALSE(c.on_first || c.on_second);
  // Parallel at a distance: no contact at all.
  c = segs(A, B, {0, 1e-6, 0}, {1, 1e-6, 0});
  EXPECT_FALSE(c.on_first || c.on_second || c.strict);
}

// A zero-length segment has no direction: no flag, parameters NO_VALUE.
TEST(IntersectSegments, DegenerateSegment) {
  const point A = {0, 0, 0}, B = {1, 0, 0}, M = {0.5, 0, 0};
  for (bool absolute : {false, true}) {
    const segment_contact c = segs(A, B, M, M, 1e-9, absolute);
    EXPECT_FALSE(c.on_first || c.on_second || c.strict);
    EXPECT_EQ(c.s, NO_VALUE);
    EXPECT_EQ(c.t, NO_VALUE);
  }
}

// Edges of a common node meet without crossing; the same edge is no crossing; collinear edges
// through a common node that overlap still cross.
TEST(IntersectNodeEdges, SharedNodesAndOverlap) {
  const dense2D<double> nodes =
      make_table({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {2, 0, 0}, {0.5, 0, 0}, {1, 1, 0}});
  segment_contact c = intersect_node_edges(nodes, 0, 1, 0, 2, 1e-9, false);
  EXPECT_FALSE(c.on_first || c.on_second);
  c = intersect_node_edges(nodes, 0, 1, 1, 0, 1e-9, false);
  EXPECT_FALSE(c.on_first || c.on_second || c.strict);
  EXPECT_EQ(c.gap2, 0.0);
  EXPECT_EQ(c.s, 0.0);
  c = intersect_node_edges(nodes, 0, 3, 0, 4, 1e-9, false);  // 0-4 lies along 0-3
  EXPECT_TRUE(c.on_first && c.on_second && c.strict);
  c = intersect_node_edges(nodes, 1, 3, 1, 0, 1e-9, false);  // collinear, meeting at node 1
  EXPECT_FALSE(c.on_first || c.on_second);
  c = intersect_node_edges(nodes, 1, 2, 0, 5, 1e-9, false);  // the diagonals of a square
  EXPECT_TRUE(c.on_first && c.on_second);
  EXPECT_FALSE(c.strict);
}

// A crossing inside the triangle: settled without the sides, X the crossing point.
TEST(IntersectSegmentTriangle, InteriorCrossing) {
  const dense2D<double> nodes = make_table(unit_triangle);
  const triangle_contact c = tri(nodes, {0.25, 0.25, -1}, {0.25, 0.25, 3});
  EXPECT_TRUE(c.in_face && c.on_segment);
  EXPECT_FALSE(c.strict);
  EXPECT_DOUBLE_EQ(c.t, 0.25);
  EXPECT_DOUBLE_EQ(c.point[0], 0.25);
  EXPECT_DOUBLE_EQ(c.point[1], 0.25);
  EXPECT_NEAR(c.point[2], 0.0, 1e-16);
  EXPECT_DOUBLE_EQ(c.weights[0], 0.5);
  EXPECT_DOUBLE_EQ(c.weights[1], 0.25);
}

// Far off the plane the test ends at once; a miss beside the triangle gives no contact.
TEST(IntersectSegmentTriangle, MissesAndEarlyEnd) {
  const dense2D<double> nodes = make_table(unit_triangle);
  triangle_contact c = tri(nodes, {0.2, 0.2, 1}, {0.2, 0.2, 2});
  EXPECT_FALSE(c.in_face || c.on_segment || c.strict);
  EXPECT_NEAR(c.gap2, 1.0, 1e-15);
  c = tri(nodes, {0.7, 0.7, -1}, {0.7, 0.7, 1});  // through the plane beyond the long side
  EXPECT_FALSE(c.in_face || c.on_segment);
  c = tri(nodes, {2, 2, 0}, {3, 2, 0});  // in the plane, far from it
  EXPECT_FALSE(c.in_face || c.on_segment);
}

// Touches: an end on a node pointing away, and a segment stopping within tol of the face.
TEST(IntersectSegmentTriangle, NearlyTouching) {
  const dense2D<double> nodes = make_table(unit_triangle);
  triangle_contact c = tri(nodes, {0, 0, 0}, {-1, -1, 1});
  EXPECT_TRUE(c.in_face && c.on_segment);
  EXPECT_FALSE(c.strict);
  EXPECT_EQ(c.t, 0.0);
  c = tri(nodes, {0.2, 0.3, 1}, {0.2, 0.3, 0.5e-9});
  EXPECT_TRUE(c.in_face && c.on_segment);
  EXPECT_EQ(c.t, 1.0);
  c = tri(nodes, {0.2, 0.3, 1}, {0.2, 0.3, 2e-9});
  EXPECT_FALSE(c.in_face || c.on_segment);
  // Just outside a side by less than tol: a contact on the rim, found on that side.
  c = tri(nodes, {0.5, -0.5e-9, -1}, {0.5, -0.5e-9, 1});
  EXPECT_TRUE(c.in_face && c.on_segment);
  EXPECT_FALSE(c.strict);
  c = tri(nodes, {0.5, -2e-9, -1}, {0.5, -2e-9, 1});
  EXPECT_FALSE(c.in_face || c.on_segment);
}

// Segments in the plane: through the triangle, wholly inside, along a side, outside.
TEST(IntersectSegmentTriangle, Coplanar) {
  const dense2D<double> nodes = make_table(unit_triangle);
  triangle_contact c = tri(nodes, {-1, 0.25, 0}, {2, 0.25, 0});
  EXPECT_TRUE(c.in_face && c.on_segment && c.strict);
  EXPECT_NEAR(c.t, 1.0 / 3.0, 1e-15);  // the contact first met along PQ
  c = tri(nodes, {0.1, 0.1, 0}, {0.3, 0.2, 0});
  EXPECT_TRUE(c.in_face && c.on_segment && c.strict);
  c = tri(nodes, {-0.5, 0, 0}, {0.5, 0, 0});  // along side (f0, f1)
  EXPECT_TRUE(c.in_face && c.on_segment && c.strict);
  c = tri(nodes, {1, 0, 0}, {2, 0, 0});  // touches node f1 from outside, in line with a side
  EXPECT_TRUE(c.in_face && c.on_segment);
  EXPECT_FALSE(c.strict);
  c = tri(nodes, {1, 1, 0}, {2, 0.5, 0});  // in the plane, clear of the long side
  EXPECT_FALSE(c.in_face || c.on_segment);
  // Tilted by 1e-14 from the plane: read as lying in it, with the same verdict.
  c = tri(nodes, {-1, 0.25, 0}, {2, 0.25, 1e-14});
  EXPECT_TRUE(c.in_face && c.on_segment && c.strict);
}

// A flat triangle or a point segment gives no flag.
TEST(IntersectSegmentTriangle, Degenerate) {
  const dense2D<double> flat = make_table({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}});
  triangle_contact c = tri(flat, {0.5, 0, -1}, {0.5, 0, 1});
  EXPECT_FALSE(c.in_face || c.on_segment || c.strict);
  const dense2D<double> nodes = make_table(unit_triangle);
  c = tri(nodes, {0.2, 0.2, 0}, {0.2, 0.2, 0});
  EXPECT_FALSE(c.in_face || c.on_segment || c.strict);
  EXPECT_EQ(c.t, NO_VALUE);
}

// Tolerance as a length: scaling the figure and tol together changes no flag.
TEST(IntersectSegmentTriangle, ScaleInvariant) {
  for (double k : {1e-6, 1.0, 1e6}) {
    const dense2D<double> nodes = make_table({{0, 0, 0}, {k, 0, 0}, {0, k, 0}});
    triangle_contact c =
        tri(nodes, {0.5 * k, -0.5e-9 * k, -k}, {0.5 * k, -0.5e-9 * k, k}, 1e-9 * k);
    EXPECT_TRUE(c.in_face && c.on_segment) << k;
    c = tri(nodes, {0.5 * k, -2e-9 * k, -k}, {0.5 * k, -2e-9 * k, k}, 1e-9 * k);
    EXPECT_FALSE(c.in_face || c.on_segment) << k;
  }
}

// Random transversal segments against random triangles: the verdict must match a long double
// computation wherever the crossing stands clear of the rim and of the segment's ends.
TEST(IntersectSegmentTriangle, MatchesLongDoubleOnClearCases) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> U(-1.0, 1.0);
  unsigned crossings = 0, checked = 0;
  for (unsigned k = 0; k < 4000; ++k) {
    std::vector<point> pts(3);
    for (auto& p : pts)
      for (auto& x : p) x = U(rng);
    point P, Q;
    for (unsigned i = 0; i < 3; ++i) P[i] = U(rng), Q[i] = U(rng);
    const lpoint a = widen(pts[0]), b = widen(pts[1]), c = widen(pts[2]);
    const lpoint p = widen(P), q = widen(Q);
    const lpoint u = lsub(b, a), v = lsub(c, a);
    const lpoint n = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2],
                      u[0] * v[1] - u[1] * v[0]};
    const long double dp = ldot(n, lsub(p, a)), dq = ldot(n, lsub(q, a));
    const long double nn = ldot(n, n);
    if (nn < 1e-4L || std::fabs(double(dp - dq)) < 1e-3 * std::sqrt(double(nn))) continue;
    const long double t = dp / (dp - dq);
    const lpoint x = {p[0] + t * (q[0] - p[0]), p[1] + t * (q[1] - p[1]), p[2] + t * (q[2] - p[2])};
    // Barycentric weights of x from the sub-areas.
    auto area = [&](const lpoint& e0, const lpoint& e1, const lpoint& e2) {
      const lpoint s = lsub(e1, e0), r = lsub(e2, e0);
      const lpoint m = {s[1] * r[2] - s[2] * r[1], s[2] * r[0] - s[0] * r[2],
                        s[0] * r[1] - s[1] * r[0]};
      return ldot(m, n) / nn;
    };
    const long double w0 = area(x, b, c), w1 = area(a, x, c), w2 = area(a, b, x);
    const long double margin = std::min({w0, w1, w2, t, 1 - t});
    const long double clear =
        std::min({std::fabs(double(w0)), std::fabs(double(w1)), std::fabs(double(w2)),
                  std::fabs(double(t)), std::fabs(double(1 - t))});
    if (clear < 1e-6L) continue;
    const dense2D<double> nodes = make_table(pts);
    const triangle_contact r = tri(nodes, P, Q);
    ++checked;
    const bool crosses = margin > 0;
    crossings += crosses;
    ASSERT_EQ(r.in_face && r.on_segment, crosses) << k;
    ASSERT_FALSE(r.strict) << k;
    if (crosses) {
      ASSERT_NEAR(r.t, double(t), 1e-9) << k;
      ASSERT_NEAR(r.weights[0], double(w0), 1e-9) << k;
    }
  }
  EXPECT_GT(checked, 2000u);
  EXPECT_GT(crossings, 100u);
}
