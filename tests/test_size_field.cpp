// Sizing field: triangle quality and best apex, the laying of points along an edge, node sizes
// from a boundary, from a mesh and by filling, and the size at a point.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "delaunay/geometry.h"
#include "mesh_fixtures.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/refine/size_field.h"

using namespace kelvo::voxfill;
using kelvo::dense1D;
using kelvo::dense2D;

namespace {

dense2D<double> points(const std::vector<std::array<double, 3>>& p) {
  dense2D<double> t(3, unsigned(p.size()));
  for (unsigned j = 0; j < p.size(); ++j)
    for (unsigned k = 0; k < 3; ++k) t(k, j) = p[j][k];
  return t;
}

// The surface of the unit cube: the face z = 0 cut into k x k squares, the five others into
// 1 x 1, two triangles per square. The faces do not share nodes: sizes come per face.
void two_scale_cube(th4_engine& e, mesher::data_type& d, unsigned k, std::vector<bool>& fine) {
  std::vector<unsigned> tri;
  auto face = [&](unsigned cells, auto map) {
    const unsigned first = e.nodes.cols();
    for (unsigned j = 0; j <= cells; ++j)
      for (unsigned i = 0; i <= cells; ++i) {
        double p[3];
        map(double(i) / cells, double(j) / cells, p);
        e.new_node(p[0], p[1], p[2], 0.0);
        fine.push_back(cells == k);
      }
    for (unsigned j = 0; j < cells; ++j)
      for (unsigned i = 0; i < cells; ++i) {
        const unsigned a = first + i + (cells + 1) * j, b = a + 1, c = a + cells + 1, dd = c + 1;
        tri.insert(tri.end(), {a, b, dd, a, dd, c});
      }
  };
  face(k, [](double u, double v, double* p) { p[0] = u, p[1] = v, p[2] = 0; });
  face(1, [](double u, double v, double* p) { p[0] = u, p[1] = v, p[2] = 1; });
  face(1, [](double u, double v, double* p) { p[0] = u, p[1] = 0, p[2] = v; });
  face(1, [](double u, double v, double* p) { p[0] = u, p[1] = 1, p[2] = v; });
  face(1, [](double u, double v, double* p) { p[0] = 0, p[1] = u, p[2] = v; });
  face(1, [](double u, double v, double* p) { p[0] = 1, p[1] = u, p[2] = v; });
  d.connectB.resize(3, unsigned(tri.size() / 3));
  for (unsigned i = 0; i < tri.size(); ++i) d.connectB(i % 3, i / 3) = tri[i];
}

// Weights of P in tet t by brute force; true when P is inside within tol.
bool weights_in(const mesh_store& m, unsigned t, const double* P, double* w, double tol) {
  const unsigned* n = m.tets.row(t);
  tet_barycentric(m.nodes.data, n[0], n[1], n[2], n[3], P, w);
  w[3] = 1.0 - w[0] - w[1] - w[2];
  return std::min({w[0], w[1], w[2], w[3]}) >= -tol;
}

void build_locator(mesh_store& m) {
  double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
  for (unsigned j = 0; j < m.nodes.cols(); ++j)
    for (unsigned k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], m.nodes(k, j));
      hi[k] = std::max(hi[k], m.nodes(k, j));
    }
  m.locator.build(lo, hi);
}

}  // namespace

// 1 for the equilateral triangle, 0 for a flat one and for repeated nodes, the closed form for a
// right triangle; a wrong constant or a missing clamp shows here.
TEST(SizeField, TriangleQuality) {
  const double s = std::sqrt(3.0) / 2;
  const dense2D<double> p =
      points({{0, 0, 0}, {1, 0, 0}, {0.5, s, 0}, {2, 0, 0}, {0, 1, 0}, {0.3, 0.2, 0.7}});
  EXPECT_NEAR(triangle_quality(p, 0, 1, 2), 1.0, 1e-15);
  EXPECT_LE(triangle_quality(p, 0, 1, 2), 1.0);
  EXPECT_EQ(triangle_quality(p, 0, 1, 3), 0.0);
  EXPECT_EQ(triangle_quality(p, 0, 0, 5), 0.0);
  EXPECT_NEAR(triangle_quality(p, 0, 1, 4),
              2 * std::sqrt(3.0) / (std::sqrt(2.0) * (2 + std::sqrt(2.0))), 1e-15);
  dense2D<unsigned> f(3, 2, 0u);
  f(0, 0) = 0, f(1, 0) = 1, f(2, 0) = 2, f(0, 1) = 0, f(1, 1) = 1, f(2, 1) = 4;
  const double q = triangle_quality(p, 0, 1, 4),
               b = q * std::sqrt(2.0) / (q * std::sqrt(2.0) + 1 - q);
  EXPECT_NEAR(quality_bound(p, f), b, 1e-15);
  EXPECT_EQ(quality_bound(p, dense2D<unsigned>()), 0.0);
}

// The apex of an equilateral triangle makes the regular tet on the side of the normal of the
// triangle turned (0, 1, 2) -> (2, 1, 0); for a skewed triangle, no height on the search range
// does clearly better than the apex found. A search that stops at its first sample, or an apex on
// the wrong side, fails here.
TEST(SizeField, BestApex) {
  const double s = std::sqrt(3.0) / 2;
  const dense2D<double> p =
      points({{1, 2, 3}, {1, 3, 3}, {1, 2.5, 3 + s}, {0, 0, 0}, {4, 1, 0}, {0.7, 0.4, 1.1}});
  const unsigned tri[3] = {0, 1, 2};
  double apex[3];
  const double q = best_apex(p, tri, 0.01, apex);
  EXPECT_GT(q, 0.9999);
  for (unsigned i = 0; i < 3; ++i)
    EXPECT_NEAR(std::sqrt(geometry_detail::dist2<3>(apex, p.col(i))), 1.0, 1e-3);
  EXPECT_NEAR(tet_quality(p.col(2), p.col(1), p.col(0), apex), q, 1e-15);

  const unsigned skew[3] = {3, 4, 5};
  const double qs = best_apex(p, skew, 0.01, apex);
  double c[3], nrm[3], L2[3];
  for (unsigned k = 0; k < 3; ++k) c[k] = (p(k, 3) + p(k, 4) + p(k, 5)) / 3;
  face_normal(p, 3, 4, 5, nrm);
  const double nn = std::sqrt(geometry_detail::dot3(nrm, nrm));
  side_lengths2(p, 3, 4, 5, L2);
  const double z0 = std::sqrt(std::min({L2[0], L2[1], L2[2]}) * 2 / 3);
  const double z1 = std::sqrt(std::max({L2[0], L2[1], L2[2]}));
  double best = -1;
  for (unsigned i = 0; i <= 2000; ++i) {
    const double z = z0 + (z1 - z0) * i / 2000;
    double x[3];
    for (unsigned k = 0; k < 3; ++k) x[k] = c[k] + nrm[k] / nn * z;
    best = std::max(best, tet_quality(p.col(5), p.col(4), p.col(3), x));
  }
  EXPECT_GT(qs, 0.0);
  EXPECT_GE(qs, best - 1e-4);
}

// Counts by rounding to the nearest multiple, the even rule, the caps; even spacing for equal
// sizes and a geometric one otherwise, with the series agreeing with the closed form near r = 1.
// An off-by-one in the count or a spacing that is not geometric shows here.
TEST(SizeField, SubdivideEdge) {
  const double p0[3] = {0, 0, 0}, p1[3] = {3, 0, 0};
  dense2D<double> pts;
  dense1D<double> h;
  auto count = [&](double len, bool even, unsigned lo, unsigned hi) {
    EXPECT_TRUE(subdivide_edge(p0, p1, 1.0, 1.0, len, even, lo, hi, pts, h));
    EXPECT_EQ(pts.cols, h.size);
    return h.size + 1;
  };
  EXPECT_EQ(count(0.4, false, 0, 100), 1u);
  EXPECT_EQ(pts.cols, 0u);
  EXPECT_EQ(count(0.4, false, 3, 100), 3u);
  EXPECT_EQ(count(2.45, false, 0, 100), 3u);  // 2 x 3 < 2.45^2
  EXPECT_EQ(count(2.44, false, 0, 100), 2u);
  EXPECT_EQ(count(3.0, true, 0, 100), 4u);  // 2 x 4 < 9
  EXPECT_EQ(count(2.5, true, 0, 100), 2u);
  EXPECT_EQ(count(3.0, true, 3, 3), 4u);  // a cap that is odd is rounded up to even
  EXPECT_EQ(count(50.0, false, 2, 7), 7u);

  count(3.0, false, 0, 100);
  for (unsigned i = 0; i < 2; ++i) {
    EXPECT_NEAR(pts(0, i), i + 1.0, 1e-15);
    EXPECT_EQ(h[i], 1.0);
  }
  ASSERT_TRUE(subdivide_edge(p0, p1, 1.0, 2.0, 6.0, false, 0, 100, pts, h));
  ASSERT_EQ(h.size, 5u);
  std::vector<double> x = {0.0};
  for (unsigned i = 0; i < 5; ++i) x.push_back(pts(0, i));
  x.push_back(3.0);
  const double step = std::pow(2.0, 1.0 / 6);
  for (unsigned i = 1; i + 1 < x.size(); ++i)
    EXPECT_NEAR((x[i + 1] - x[i]) / (x[i] - x[i - 1]), step, 1e-12);
  for (unsigned i = 0; i < 5; ++i) EXPECT_NEAR(h[i], 1.0 + pts(0, i) / 3.0, 1e-12);

  dense2D<double> near_pts;
  dense1D<double> near_h;
  ASSERT_TRUE(subdivide_edge(p0, p1, 1.0, 1.0005, 6.0, false, 0, 100, near_pts, near_h));
  ASSERT_TRUE(subdivide_edge(p0, p1, 1.0, 1.0011, 6.0, false, 0, 100, pts, h));
  for (unsigned i = 0; i < 5; ++i) {
    const double t = (i + 1) / 6.0, r = 1.0005;
    EXPECT_NEAR(near_pts(0, i) / 3.0, (std::pow(r, t) - 1) / (r - 1), 1e-12);
    EXPECT_GT(near_pts(0, i), pts(0, i));  // a faster growth starts with shorter steps
  }
}

// The size at a point is the barycentric interpolation in the tet of the domain that holds it; a
// point outside the mesh or clearly inside an outside tet has none; a point on a face between an
// outside and an inside tet, looked for from the outside tet, gets the inside tet's size. A wrong
// weight order or a size taken from an outside tet fails here.
TEST(SizeField, SizeAtIsBarycentric) {
  th4_engine e;
  fixtures::kuhn_lattice(e, 3);
  std::mt19937 g(9);
  std::uniform_real_distribution<double> u(0.0, 3.0);
  for (unsigned n = 0; n < e.nodes.cols(); ++n) e.node_sizes[n] = 0.1 + 0.02 * (g() % 50);
  build_locator(e);
  for (unsigned trial = 0; trial < 300; ++trial) {
    const double P[3] = {u(g), u(g), u(g)};
    double h, w[4];
    ASSERT_TRUE(size_at(e, P, h));
    unsigned t = 0;
    while (!weights_in(e, t, P, w, 1e-12)) ++t;
    const unsigned* n = e.tets.row(t);
    double ref = 0;
    for (unsigned i = 0; i < 4; ++i) ref += w[i] * e.node_sizes[n[i]];
    EXPECT_NEAR(h, ref, 1e-12 * ref);
  }
  const double out[3] = {4.0, 1.0, 1.0};
  double h = 1.0;
  EXPECT_FALSE(size_at(e, out, h));
  EXPECT_EQ(h, 0.0);

  // Tet 0 goes outside. Its centroid has no size; a point on a face it shares with a tet of the
  // domain has that tet's.
  e.colors[0] = NONE;
  const unsigned* n0 = e.tets.row(0);
  double centre[3] = {0, 0, 0}, onface[3] = {0, 0, 0};
  for (unsigned i = 0; i < 4; ++i)
    for (unsigned k = 0; k < 3; ++k) centre[k] += 0.25 * e.nodes(k, n0[i]);
  unsigned f = 0;
  while (e.neighbors(f, 0) == NONE) ++f;
  const unsigned inner = e.neighbors(f, 0);
  for (unsigned i = 0; i < 4; ++i)
    if (i != f)
      for (unsigned k = 0; k < 3; ++k) onface[k] += e.nodes(k, n0[i]) / 3.0;
  unsigned t = NONE;
  EXPECT_FALSE(interpolate_size(*e.size_field, centre, t, h));
  t = 0;
  ASSERT_TRUE(interpolate_size(*e.size_field, onface, t, h));
  EXPECT_NE(t, 0u);
  double w[4], ref = 0;
  ASSERT_TRUE(weights_in(e, inner, onface, w, 1e-12));
  for (unsigned i = 0; i < 4; ++i) ref += w[i] * e.node_sizes[e.tets(i, inner)];
  EXPECT_NEAR(h, ref, 1e-12);

  // A parent answers where the field has none.
  node_locator none;
  dense1D<double> no_sizes;
  dense1D<unsigned> no_colors;
  size_field child(no_sizes, none, no_colors, false, e.own_size_field.get());
  e.size_field = &child;
  EXPECT_TRUE(size_at(e, onface, h));
  EXPECT_NEAR(h, ref, 1e-12);
  e.size_field = e.own_size_field.get();
}

// Sizes from a cube surface that is fine (1/8) on one face and coarse (1) on the others: every
// node size lies between the two scales, the fine face is fine and the coarse faces coarse, the
// ratio along each triangle side stays within 4, the caller's metrics win where above 0, and a
// node on no face keeps 0. The same with the fine face listed as missing leaves only the coarse
// scale. A weight or smoothing gone wrong moves sizes out of the band.
TEST(SizeField, BoundaryWithTwoScales) {
  th4_engine e;
  mesher::data_type d;
  std::vector<bool> fine;
  two_scale_cube(e, d, 8, fine);
  const unsigned lonely = e.new_node(0.5, 0.5, 0.5, 0.0);
  d.metrics.resize(3, 0.0);
  d.metrics[1] = 0.123;
  set_boundary_sizes(e, d);
  ASSERT_EQ(e.node_sizes.size, e.nodes.cols());
  EXPECT_EQ(e.node_sizes[lonely], 0.0);
  EXPECT_EQ(e.node_sizes[1], 0.123);
  for (unsigned n = 0; n < lonely; ++n) {
    if (n == 1) continue;
    const double h = e.node_sizes[n];
    EXPECT_GE(h, 0.5 / 8) << n;
    EXPECT_LE(h, 1.5) << n;
    EXPECT_EQ(h < 0.3, bool(fine[n])) << n;
    EXPECT_EQ(h > 0.5, !fine[n]) << n;
  }
  for (unsigned j = 0; j < d.connectB.cols; ++j)
    for (unsigned i = 0; i < 3; ++i) {
      const double a = e.node_sizes[d.connectB(i, j)], b = e.node_sizes[d.connectB((i + 1) % 3, j)];
      const bool caller = d.connectB(i, j) == 1 || d.connectB((i + 1) % 3, j) == 1;
      EXPECT_TRUE(caller || std::max(a / b, b / a) <= 4.0 * (1 + 1e-12));
    }

  for (unsigned j = 0; j < 128; ++j) d.missing_faces.push_back(127 - j);  // the fine face
  retry_boundary_sizes(e, d);
  for (unsigned n = 2; n < lonely; ++n) EXPECT_EQ(e.node_sizes[n] > 0.5, !fine[n]) << n;
  EXPECT_GT(d.quality_bound, 0.5);
  EXPECT_LT(d.quality_bound, 1.0);
}

// Sizes from a mesh: each node gets the mean length of its edges, each edge counted once; a
// double count of the edges shared by several tets would shift the means.
TEST(SizeField, SizesFromMesh) {
  th4_engine e;
  fixtures::kuhn_cube(e);
  mesher::data_type d;
  sizes_from_mesh(e, d);
  std::vector<std::pair<unsigned, unsigned>> edges;
  for (unsigned t = 0; t < e.tets.cols(); ++t)
    for (unsigned a = 0; a < 4; ++a)
      for (unsigned b = a + 1; b < 4; ++b) edges.push_back(std::minmax(e.tets(a, t), e.tets(b, t)));
  std::sort(edges.begin(), edges.end());
  edges.erase(std::unique(edges.begin(), edges.end()), edges.end());
  for (unsigned n = 0; n < 8; ++n) {
    double sum = 0;
    unsigned c = 0;
    for (auto [a, b] : edges)
      if (a == n || b == n) sum += std::sqrt(edge_length2(e.nodes.data, a, b)), ++c;
    EXPECT_NEAR(e.node_sizes[n], sum / c, 1e-15) << n;
  }
}

// Filling: interior nodes without size get the linear interpolation of their sized neighbours
// (exact for a linear field), a corner node outside their hull and a node in no tet get the size
// of a nearest sized node, and the list is emptied. Equal runs agree bit for bit.
TEST(SizeField, FillSizes) {
  auto run = [](std::vector<double>& out) {
    th4_engine e;
    fixtures::kuhn_lattice(e, 4);
    auto f = [&](unsigned n) {
      return 1.0 + 0.1 * e.nodes(0, n) + 0.05 * e.nodes(1, n) - 0.02 * e.nodes(2, n);
    };
    for (unsigned n = 0; n < e.nodes.cols(); ++n) e.node_sizes[n] = f(n);
    const unsigned lonely = e.new_node(9, 9, 9, 0.0);
    const unsigned s = 5;
    const std::vector<unsigned> holes = {1 + s + s * s, 2 + 2 * s + 2 * s * s, 3 + s + 2 * s * s,
                                         0};
    dense1D<unsigned> list;
    for (unsigned n : holes) e.node_sizes[n] = 0.0, list.push_back(n);
    list.push_back(lonely);
    fill_sizes(e, list);
    EXPECT_EQ(list.size, 0u);
    for (unsigned k = 0; k < 3; ++k) EXPECT_NEAR(e.node_sizes[holes[k]], f(holes[k]), 1e-12);
    const double corner = e.node_sizes[0];
    EXPECT_TRUE(corner == f(1) || corner == f(s) || corner == f(s * s)) << corner;
    EXPECT_GT(e.node_sizes[lonely], 0.0);
    out.assign(e.node_sizes.begin(), e.node_sizes.end());
  };
  std::vector<double> a, b;
  run(a);
  run(b);
  EXPECT_EQ(a, b);
}

// field_walk leaves the same tet and the same random draws as field_size_at, also where the point
// lies in an outside tet or on its skin.
TEST(SizeField, FieldWalkDrawsLikeTheLookUp) {
  th4_engine e;
  fixtures::kuhn_lattice(e, 3);
  for (unsigned n = 0; n < e.nodes.cols(); ++n) e.node_sizes[n] = 0.1 + 0.01 * (n % 7);
  build_locator(e);
  e.colors[0] = NONE;
  size_field& f = *e.size_field;
  std::mt19937 g(3);
  std::uniform_real_distribution<double> u(-0.2, 3.2);
  const unsigned* n0 = e.tets.row(0);
  for (unsigned trial = 0; trial < 300; ++trial) {
    double P[3] = {u(g), u(g), u(g)};
    if (trial % 4 == 0)  // on a face of the outside tet
      for (unsigned k = 0; k < 3; ++k)
        P[k] = (e.nodes(k, n0[1]) + e.nodes(k, n0[2]) + e.nodes(k, n0[trial % 8 ? 3 : 0])) / 3.0;
    const unsigned start = trial % 3 == 0 ? NONE : trial % e.tets.cols();
    const bit_source before = f.walk_bits;
    unsigned t_size = start, t_walk = start;
    double h;
    field_size_at(f, P, t_size, h);
    const bit_source after = f.walk_bits;
    f.walk_bits = before;
    field_walk(f, P, t_walk);
    EXPECT_EQ(t_walk, t_size);
    EXPECT_EQ(f.walk_bits.generator, after.generator);
    EXPECT_EQ(f.walk_bits.count_left, after.count_left);
    EXPECT_EQ(f.walk_bits.word_left, after.word_left);
  }
}
