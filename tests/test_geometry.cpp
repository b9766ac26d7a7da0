// Geometric primitives: tet tables, signed quality, normals, circumcircles, solvers, barycentric
// classification, planes and segments.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <vector>

#include "delaunay/geometry.h"

using namespace kelvo::voxfill;
using kelvo::dense2D;

namespace {

using point = std::array<double, 3>;

dense2D<double> make_table(const std::vector<point>& pts) {
  dense2D<double> t(3, unsigned(pts.size()));
  for (unsigned j = 0; j < pts.size(); ++j)
    for (unsigned i = 0; i < 3; ++i) t(i, j) = pts[j][i];
  return t;
}

// Parity of a permutation of 0..3 by counting inversions.
bool is_even(const unsigned* p) {
  int inv = 0;
  for (int i = 0; i < 4; ++i)
    for (int j = i + 1; j < 4; ++j) inv += p[i] > p[j];
  return inv % 2 == 0;
}

// Exact orientation of integer points.
int exact_sign(const point& p0, const point& p1, const point& p2, const point& p3) {
  __int128 a[3], b[3], c[3];
  for (int i = 0; i < 3; ++i) {
    a[i] = __int128(p0[i]) - __int128(p3[i]);
    b[i] = __int128(p1[i]) - __int128(p3[i]);
    c[i] = __int128(p2[i]) - __int128(p3[i]);
  }
  const __int128 d = a[0] * (b[1] * c[2] - b[2] * c[1]) + a[1] * (b[2] * c[0] - b[0] * c[2]) +
                     a[2] * (b[0] * c[1] - b[1] * c[0]);
  return d > 0 ? 1 : (d < 0 ? -1 : 0);
}

// tet_quality of the nodes p[o[0]], ..., p[o[3]].
double quality_in_order(const point* p, const unsigned* o) {
  return tet_quality(p[o[0]].data(), p[o[1]].data(), p[o[2]].data(), p[o[3]].data());
}

const std::vector<point> regular = {{1, 1, 1}, {1, -1, -1}, {-1, 1, -1}, {-1, -1, 1}};

}  // namespace

// Tables out of step with each other: walks take a wrong face, an edge or a shared edge.
TEST(GeometryTables, NumberingIsConsistent) {
  // Runs the directed edge a -> b along the cyclic order of face f?
  auto runs = [](const unsigned* f, unsigned a, unsigned b) {
    return (f[0] == a && f[1] == b) || (f[1] == a && f[2] == b) || (f[2] == a && f[0] == b);
  };
  for (unsigned f = 0; f < 4; ++f) {
    const unsigned* n = tet_face_nodes[f];
    const unsigned row[4] = {f, n[0], n[1], n[2]};
    EXPECT_TRUE(is_even(row)) << f;
    for (unsigned r = 0; r < 3; ++r)  // the turned face runs every edge the other way
      EXPECT_TRUE(runs(tet_turned_face_nodes[f], n[(r + 1) % 3], n[r])) << f;
    for (unsigned j = 0; j < 4; ++j) {  // the shared edge runs as in face f, against face j
      if (j == f) continue;
      const unsigned a = unsigned(tet_face_pair_node[f][j]), b = 6 - f - j - a;
      EXPECT_TRUE(a != j && b != j && runs(n, a, b) && runs(tet_face_nodes[j], b, a)) << f << j;
      EXPECT_EQ(tet_face_pair_edge(f, j), tet_edge_index(a, b));
    }
  }
  const unsigned tet[4] = {40, 17, 93, 5};
  for (unsigned e = 0; e < 6; ++e) {
    const unsigned i = tet_edge_nodes[e][0], j = tet_edge_nodes[e][1];
    EXPECT_TRUE(i < j && tet_edge_index(j, i) == e && tet_edge_of_nodes[j][i] == int(e)) << e;
    EXPECT_EQ(tet_edge_of_nodes[i][j], int(e));
    EXPECT_EQ(local_edge_of_tet(tet[i], tet[j], tet), int(e));
    EXPECT_EQ(local_edge_of_tet(tet[j], tet[i], tet), int(e));
  }
  EXPECT_EQ(local_edge_of_tet(40, 41, tet), -1);
  EXPECT_EQ(local_edge_of_tet(17, 17, tet), -1);
  const unsigned tri[3] = {8, 3, 11};
  for (unsigned i = 0; i < 3; ++i)
    EXPECT_EQ(local_index_pair(tri[(i + 1) % 3], tri[(i + 2) % 3], tri), int(i));
  EXPECT_EQ(local_index_pair(3, 3, tri), -1);
  EXPECT_EQ(local_index_pair(3, 4, tri), -1);
  // The quality retries need all twelve even orders, each once, the identity first.
  std::vector<std::array<unsigned, 4>> seen;
  for (const auto& o : tet_even_orders.order) {
    EXPECT_TRUE(is_even(o));
    seen.push_back({o[0], o[1], o[2], o[3]});
  }
  EXPECT_EQ(seen[0], (std::array<unsigned, 4>{0, 1, 2, 3}));
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(std::unique(seen.begin(), seen.end()), seen.end());
}

// A wrong constant, clamp or sign: the regular tet must be +-1 in every order. Absolute
// tolerances hidden in the measure would break tiny or huge meshes.
TEST(GeometryQuality, RegularTetAndScale) {
  const dense2D<double> c = make_table(regular);
  unsigned p[4] = {0, 1, 2, 3};
  do {
    const double expect = is_even(p) ? 1.0 : -1.0;
    EXPECT_NEAR(tet_quality(c, p[0], p[1], p[2], p[3]), expect, 4e-16);
    EXPECT_GT(orient_det(c, p[0], p[1], p[2], p[3]) * expect, 0.0);
  } while (std::next_permutation(p, p + 4));
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int trial = 0; trial < 50; ++trial) {
    std::vector<point> pts(4);
    for (auto& a : pts) a = {u(rng), u(rng), u(rng)};
    auto scaled = [&](double f) {
      std::vector<point> s = pts;
      for (auto& a : s)
        for (auto& x : a) x *= f;
      return tet_quality(make_table(s), 0, 1, 2, 3);
    };
    const double q = scaled(1.0);
    for (int k = -9; k <= 9; ++k) EXPECT_NEAR(scaled(std::pow(10.0, k)), q, 1e-13);
    EXPECT_EQ(scaled(std::ldexp(1.0, -40)), q);  // a power of two scales exactly
  }
}

// Missing or wrong permutation retries: one order of a nearly flat tet says positive, another
// negative, and the kernel sees a tet and its mirror both as valid.
TEST(GeometryQuality, OrdersNeverDisagree) {
  std::mt19937 rng(13);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int zeros = 0;
  for (int trial = 0; trial < 20000; ++trial) {
    point p[4];
    for (auto& q : p)
      for (auto& x : q) x = u(rng);
    if (trial % 2 == 0) {  // a nearly degenerate face, the fourth node nearly in its plane
      const double s = u(rng), t = u(rng), r = u(rng);
      for (int i = 0; i < 3; ++i) p[2][i] = p[0][i] + s * (p[1][i] - p[0][i]) + 1e-7 * u(rng);
      for (int i = 0; i < 3; ++i)
        p[3][i] = p[0][i] + t * (p[1][i] - p[0][i]) + r * (p[2][i] - p[0][i]) + 1e-12 * u(rng);
    } else {  // four nodes nearly on a line
      const double d[3] = {u(rng), u(rng), u(rng)};
      for (auto& q : p) {
        const double s = u(rng);
        for (int i = 0; i < 3; ++i) q[i] = s * d[i] + 1e-6 * u(rng);
      }
    }
    const double off = std::pow(10.0, trial / 2 % 6);  // far from the origin: more rounding
    for (auto& q : p)
      for (auto& x : q) x += off;
    int pos = 0, neg = 0;
    for (unsigned k = 0; k < 12; ++k) {
      const unsigned* o = tet_even_orders.order[k];
      const unsigned odd[4] = {o[1], o[0], o[2], o[3]};
      const double q = quality_in_order(p, o), m = quality_in_order(p, odd);
      pos += (q > 1e-12) + (m < -1e-12);
      neg += (q < -1e-12) + (m > 1e-12);
      zeros += q == 0.0;
    }
    EXPECT_TRUE(pos == 0 || neg == 0) << trial;
  }
  EXPECT_GT(zeros, 20000);  // the sign-change rule did run
}

// Wrong sign on nearly flat tets, or a confident sign on flat ones: the kernel's orientation test
// would lie and a cavity or a move could fold the mesh.
TEST(GeometryQuality, SignAgreesWithExactOrientation) {
  std::mt19937 rng(3);
  std::uniform_int_distribution<int> big(-(1 << 22), 1 << 22), tiny(-2, 2), small(-4, 4);
  int checked = 0, flat = 0;
  for (int trial = 0; trial < 100000; ++trial) {
    point p[4];
    for (int k = 0; k < 4; ++k)
      for (auto& x : p[k]) x = big(rng);
    if (trial % 4 != 3) {  // the fourth node on the plane of the others, mostly nudged a little
      const int al = small(rng), be = small(rng), nudge = trial % 4 != 2;
      for (int i = 0; i < 3; ++i)
        p[3][i] = p[0][i] + al * (p[1][i] - p[0][i]) + be * (p[2][i] - p[0][i]) + nudge * tiny(rng);
    }
    const double q = tet_quality(p[0].data(), p[1].data(), p[2].data(), p[3].data());
    const int s = exact_sign(p[0], p[1], p[2], p[3]);
    if (std::fabs(q) > 1e-10) {
      ++checked;
      EXPECT_EQ(q > 0 ? 1 : -1, s) << trial;
    }
    if (s == 0 && ++flat % 16 == 0) {  // flat in exact arithmetic: tiny in every order
      unsigned o[4] = {0, 1, 2, 3};
      do {
        EXPECT_LE(std::fabs(quality_in_order(p, o)), 1e-12);
      } while (std::next_permutation(o, o + 4));
    }
    if (trial % 97 == 0) {  // the three forms read the same points
      const double* xyz = p[0].data();
      EXPECT_EQ(tet_quality(make_table({p[0], p[1], p[2], p[3]}), 0, 1, 2, 3), q);
      EXPECT_EQ(tet_quality(xyz, 0u, 1u, 2u, 3u), q);
      EXPECT_EQ(tet_quality(xyz, 0u, 1u, 2u, p[3].data()), q);
    }
  }
  EXPECT_GT(checked, 10000);
  EXPECT_GT(flat, 20000);
  std::uniform_real_distribution<double> u(-1.0, 1.0);  // a tilted plane in floating point
  for (int trial = 0; trial < 2000; ++trial) {
    point f[4];
    for (auto& a : f) {
      a = {u(rng), u(rng), 0.0};
      a[2] = 0.3 * a[0] - 0.7 * a[1] + 0.1;
    }
    EXPECT_LE(std::fabs(quality_in_order(f, tet_even_orders.order[0])), 1e-12);
  }
  const point d[5] = {{0, 0, 0}, {0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {0, 1, 0}};
  const unsigned coincident[4] = {0, 1, 2, 4}, collinear[4] = {0, 2, 3, 4};
  EXPECT_EQ(quality_in_order(d, coincident), 0.0);
  EXPECT_EQ(quality_in_order(d, collinear), 0.0);
}

// Normals the wrong way round or of the wrong length, circumcentres off the bisectors (the cavity's
// sphere test), flat triangles not reported, 2-D tables read as 3-D.
TEST(GeometryTriangles, NormalsAreasCircumcircles) {
  const dense2D<double> c = make_table(regular);
  for (unsigned f = 0; f < 4; ++f) {  // towards the opposite node, of length twice the area
    const unsigned* g = tet_face_nodes[f];
    double n[3], d[3];
    face_normal(c, g[0], g[1], g[2], n);
    for (unsigned k = 0; k < 3; ++k) d[k] = c(k, f) - c(k, g[0]);
    EXPECT_GT(n[0] * d[0] + n[1] * d[1] + n[2] * d[2], 0.0);
    EXPECT_NEAR(std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]), std::sqrt(48.0), 1e-14);
    EXPECT_NEAR(face_double_area(c, g[0], g[1], g[2]), std::sqrt(48.0), 1e-14);
  }
  EXPECT_EQ(edge_length2(c, 0, 1), 8.0);
  dense2D<double> t2(2, 3, 0.0);  // right triangle with legs 4 and 3
  t2(0, 1) = 4, t2(1, 2) = 3;
  EXPECT_EQ(face_double_area(t2, 0, 1, 2), 12.0);
  EXPECT_EQ(face_double_area(t2, 1, 0, 2), -12.0);
  double s[3], o[3] = {7, 7, 7};
  side_lengths2(t2, 0, 1, 2, s);
  EXPECT_TRUE(s[0] == 25.0 && s[1] == 9.0 && s[2] == 16.0);
  EXPECT_NEAR(circumcircle(t2, 0, 1, 2, o), 6.25, 1e-14);
  EXPECT_TRUE(std::fabs(o[0] - 2.0) < 1e-14 && std::fabs(o[1] - 1.5) < 1e-14 && o[2] == 7.0);

  std::mt19937 rng(5);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int trial = 0; trial < 2000; ++trial) {
    std::vector<point> p(3);
    for (auto& a : p) a = {u(rng), u(rng), u(rng)};
    const double t = 0.5 + 0.4 * u(rng);
    if (trial % 2)  // obtuse and thin: the third node close to the side p0 p1
      for (int i = 0; i < 3; ++i) p[2][i] = p[0][i] + t * (p[1][i] - p[0][i]) + 1e-3 * u(rng);
    const dense2D<double> tc = make_table(p);
    const double r2 = circumcircle(tc, 0, 1, 2, o);
    ASSERT_NE(r2, NO_VALUE);
    for (unsigned j = 0; j < 3; ++j)
      EXPECT_NEAR(edge_length2(make_table({p[j], {o[0], o[1], o[2]}}), 0, 1), r2, 1e-11 * r2);
    EXPECT_LE(point_plane_distance2(tc, 0, 1, 2, o), 1e-20 * r2);
  }
  o[0] = 7;
  EXPECT_EQ(circumcircle(make_table({{0, 0, 0}, {1, 2, 3}, {2, 4, 6}}), 0, 1, 2, o), NO_VALUE);
  EXPECT_EQ(circumcircle(make_table({{1, 1, 1}, {1, 1, 1}, {2, 0, 0}}), 0, 1, 2, o), NO_VALUE);
  EXPECT_EQ(o[0], 7.0);  // not written for a flat triangle
}

// Solvers that lose the residual on ill-conditioned systems, or divide by a zero determinant.
TEST(GeometrySolvers, ResidualsAndSingularity) {
  std::mt19937 rng(9);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int trial = 0; trial < 500; ++trial) {
    double m[9], b[3], x[3];
    for (auto& v : m) v = u(rng);
    // The third column nearly a combination of the first two: condition up to about 1e12.
    const double eps = std::pow(10.0, -12 + trial % 12);
    for (int i = 0; i < 3; ++i) m[6 + i] = 0.3 * m[i] - 1.7 * m[3 + i] + eps * u(rng);
    for (int i = 0; i < 3; ++i) x[i] = b[i] = u(rng);
    ASSERT_NE(solve_3x3(m, x, 2), 0.0);
    for (int i = 0; i < 3; ++i) {
      const double r = b[i] - (m[i] * x[0] + m[3 + i] * x[1] + m[6 + i] * x[2]);
      const double scale = std::fabs(m[i] * x[0]) + std::fabs(m[3 + i] * x[1]) +
                           std::fabs(m[6 + i] * x[2]) + std::fabs(b[i]);
      EXPECT_LT(std::fabs(r), 2e-15 * scale) << trial;
    }
  }
  const double singular[9] = {1, 2, 3, 2, 4, 6, 0, 1, 1};
  double y[3] = {1, 2, 3};
  EXPECT_EQ(solve_3x3(singular, y, 2), 0.0);
  EXPECT_TRUE(y[0] == 0.0 && y[1] == 0.0 && y[2] == 0.0);
}

// Weights or side indices mixed up: point location and the tolerant tests go wrong.
TEST(GeometryBarycentric, InsideOnFaceOutside) {
  const dense2D<double> c = make_table(regular);
  double w[3];
  const double centroid[3] = {0, 0, 0};
  EXPECT_GT(tet_barycentric(c, 0, 1, 2, 3, centroid, w), 0.0);
  for (double x : w) EXPECT_NEAR(x, 0.25, 1e-15);
  EXPECT_EQ(classify_tet_point(w, 0.0), -1);
  for (unsigned f = 0; f < 4; ++f) {  // the centre of face f, and a point just beyond it
    const unsigned* g = tet_face_nodes[f];
    double p[3], out[3];
    for (unsigned i = 0; i < 3; ++i) {
      p[i] = (c(i, g[0]) + c(i, g[1]) + c(i, g[2])) / 3.0;
      out[i] = p[i] + 0.1 * (p[i] - c(i, f));
    }
    tet_barycentric(c, 0, 1, 2, 3, p, w);
    EXPECT_EQ(classify_tet_point(w, 1e-12), -1) << f;
    EXPECT_EQ(classify_tet_point(w, -1e-12), int(f)) << f;
    tet_barycentric(c, 0, 1, 2, 3, out, w);
    EXPECT_EQ(classify_tet_point(w, 1e-12), int(f)) << f;
  }
  const dense2D<double> flat = make_table({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}});
  EXPECT_EQ(tet_barycentric(flat, 0, 1, 2, 3, centroid, w), 0.0);
  EXPECT_EQ(w[0], 0.0);

  // p0 p1 the shortest side (the shifted base), and a point lifted off the plane.
  const dense2D<double> t = make_table({{0, 0, 0}, {0.1, 0.05, 0}, {3, 1, 0}});
  const double q[3] = {0.63, 0.215, 0.7};  // 0.5 p0 + 0.3 p1 + 0.2 p2, lifted
  double v[2];
  EXPECT_NEAR(triangle_barycentric(t, 0, 1, 2, q, v), face_double_area(t, 0, 1, 2), 1e-15);
  EXPECT_TRUE(std::fabs(v[0] - 0.5) < 1e-13 && std::fabs(v[1] - 0.3) < 1e-13);
  EXPECT_GT(triangle_barycentric(t, 0, 1, 2, t.col(1), v), 0.0);
  EXPECT_TRUE(v[0] == 0.0 && v[1] == 1.0);
  EXPECT_EQ(triangle_barycentric(make_table({{0, 0, 0}, {1, 1, 1}, {3, 3, 3}}), 0, 1, 2, q, v),
            0.0);
  EXPECT_TRUE(v[0] == 0.0 && v[1] == 0.0);

  EXPECT_EQ(classify_triangle_point(0.3, 0.3, 0.0), -1);
  EXPECT_EQ(classify_triangle_point(0.5, -0.1, 0.0), 1);
  EXPECT_EQ(classify_triangle_point(0.7, 0.7, 0.0), 2);
  EXPECT_EQ(classify_triangle_point(-0.1, -0.1, 0.0), 0);  // tie: the earlier side
  EXPECT_EQ(classify_triangle_point(-0.1, 0.5, 0.2), -1);
  EXPECT_EQ(classify_triangle_point(0.0, 0.5, -1e-12), 0);
  // Weight times height: sides 3, 4, 5 and double area 12 give heights 4, 3, 2.4.
  EXPECT_EQ(classify_triangle_point_scaled(-0.1, 1.0, 0.3, 3, 4, 5, 12), 0);  // 0.4 away
  EXPECT_EQ(classify_triangle_point_scaled(-0.1, 1.0, 0.5, 3, 4, 5, 12), -1);
  EXPECT_EQ(classify_triangle_point_scaled(-0.1, -0.15, 0.0, 3, 4, 5, 12), 1);  // 0.45 away
  EXPECT_EQ(classify_triangle_point_scaled(0.2, 0.2, 0.0, 3, 0, 5, 12), -3);
  EXPECT_EQ(classify_triangle_point_scaled(0.2, 0.2, 0.0, 3, 4, 5, 0), -3);
}

// Wrong crossing parameters, parallel segments taken as crossings, segment ends missed.
TEST(GeometrySegments, PlanesAndSegments) {
  const dense2D<double> t = make_table({{0, 0, 1}, {4, 0, 1}, {0, 4, 1}});
  const dense2D<double> flat = make_table({{0, 0, 0}, {1, 1, 1}, {2, 2, 2}});
  const double P[3] = {1, 1, 5}, Q[3] = {1, 1, -3}, R[3] = {2, 1, 3}, S[3] = {3, 2, 3};
  double gap2 = -1;
  EXPECT_NEAR(point_plane_distance2(t, 0, 1, 2, P), 16.0, 1e-12);
  EXPECT_EQ(point_plane_distance2(flat, 0, 1, 2, P), 0.0);
  EXPECT_NEAR(segment_plane_parameter(t, 0, 1, 2, P, Q, 64.0, gap2), 0.5, 1e-15);
  EXPECT_EQ(gap2, 0.0);
  EXPECT_EQ(segment_plane_parameter(t, 0, 1, 2, P, R, 5.0, gap2), 2.0);       // beyond R
  EXPECT_EQ(segment_plane_parameter(t, 0, 1, 2, R, S, 5.0, gap2), NO_VALUE);  // parallel
  EXPECT_NEAR(gap2, 4.0, 1e-12);
  EXPECT_EQ(segment_plane_parameter(flat, 0, 1, 2, P, Q, 64.0, gap2), NO_VALUE);
  EXPECT_EQ(gap2, 0.0);

  const double A[3] = {0.1, 0.7, -0.3}, B[3] = {1.3, -0.2, 0.9};
  const double beyond[3] = {2.0, -1.0, 2.0}, before[3] = {-1.0, 1.0, -1.0};
  EXPECT_TRUE(closest_on_segment(A, B, B) == 1.0 && closest_on_segment(A, B, A) == 0.0);
  EXPECT_TRUE(closest_on_segment(A, B, beyond) == 1.0 && closest_on_segment(A, B, before) == 0.0);
  double m[3];
  for (double s : {0.3, 0.8}) {
    point_on_segment(s, A, B, m);
    EXPECT_NEAR(closest_on_segment(A, B, m), s, 1e-15);
  }
  point_on_segment(1.0, A, B, m);
  EXPECT_TRUE(m[0] == B[0] && m[1] == B[1] && m[2] == B[2]);
  point_on_segment(0.0, A, B, m);
  EXPECT_TRUE(m[0] == A[0] && m[1] == A[1] && m[2] == A[2]);
  const double a2[2] = {0, 0}, b2[2] = {4, 0}, p2[2] = {3, 2}, q2[2] = {6, 1};
  double d2 = -1;
  EXPECT_NEAR(closest_on_segment<2>(a2, b2, p2, &d2), 0.75, 1e-15);
  EXPECT_NEAR(d2, 4.0, 1e-15);
  EXPECT_EQ(closest_on_segment<2>(a2, b2, q2, &d2), 1.0);
  EXPECT_EQ(d2, 5.0);
  EXPECT_EQ(closest_on_segment<2>(a2, a2, q2, &d2), 0.0);  // a point for a segment
  EXPECT_EQ(d2, 37.0);
}
