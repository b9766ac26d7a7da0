// Walks over neighbours: balls, shells, rings, edge and face tets, point location.
#include <gtest/gtest.h>

#include <random>

#include "delaunay/mesh_walks.h"
#include "mesh_fixtures.h"

using namespace kelvo::voxfill;
using kelvo::dense1D;

namespace {
bool holds(const mesh_store& m, unsigned t, unsigned n) {
  const unsigned* r = m.tets.row(t);
  return r[0] == n || r[1] == n || r[2] == n || r[3] == n;
}
}  // namespace

// Balls close around inner nodes and open at the hull; every tet of a ball holds the node.
TEST(MeshWalks, Balls) {
  mesh_store m;
  fixtures::centred_cube(m);
  dense1D<unsigned> ball;
  EXPECT_TRUE(ball_of_node(m, 8, NONE, ball));
  EXPECT_EQ(ball.size, 12u);
  EXPECT_EQ(ball[0], m.ancestors[8]);
  EXPECT_FALSE(ball_of_node(m, 0, NONE, ball));
  for (unsigned t : ball) EXPECT_TRUE(holds(m, t, 0));
  dense1D<unsigned> stack, ball2;
  index_set seen;
  EXPECT_FALSE(ball_of_node_unmarked(m, 0, NONE, ball2, stack, seen));
  ASSERT_EQ(ball2.size, ball.size);
  for (unsigned k = 0; k < ball.size; ++k) EXPECT_EQ(ball[k], ball2[k]);
  const unsigned before = m.mark_value;
  ball_of_node_unmarked(m, 8, NONE, ball2, stack, seen);
  EXPECT_EQ(m.mark_value, before);
  m.ancestors[5] = NONE;
  EXPECT_FALSE(ball_of_node(m, 5, NONE, ball));
  EXPECT_EQ(ball.size, 0u);
}

// Shells: an inner edge closes in rotation order with one ring node per tet; a hull edge
// gives two runs with hull faces at their ends.
TEST(MeshWalks, ShellsAndRings) {
  mesh_store m;
  fixtures::kuhn_cube(m);
  dense1D<unsigned> shell, ring;
  EXPECT_TRUE(shell_with_ring(m, 0, 7, NONE, shell, ring));
  EXPECT_EQ(shell.size, 6u);
  EXPECT_EQ(ring.size, 6u);
  for (unsigned k = 0; k < shell.size; ++k) {  // consecutive tets are neighbours
    const unsigned a = shell[k], b = shell[(k + 1) % shell.size];
    EXPECT_LT(m.neighbor_index(a, b), 4u);
    EXPECT_TRUE(holds(m, a, ring[k]));
  }
  EXPECT_FALSE(shell_of_edge(m, 0, 1, NONE, shell));
  ASSERT_GE(shell.size, 1u);
  unsigned hull_faces = 0;
  for (unsigned t : shell)
    for (unsigned i = 0; i < 4; ++i) hull_faces += m.neighbors(i, t) == NONE && !holds(m, t, 99);
  EXPECT_GE(hull_faces, 2u);

  // Three tets around an inner edge: three ring nodes.
  mesh_store p;
  fixtures::load_mesh(p, {{0, 0, 1}, {0, 0, -1}, {1, 0, 0}, {-0.5, 0.9, 0}, {-0.5, -0.9, 0}},
                      {{0, 1, 2, 3}, {0, 1, 3, 4}, {0, 1, 4, 2}});
  dense1D<unsigned> s3, r3;
  EXPECT_TRUE(shell_with_ring(p, 0, 1, NONE, s3, r3));
  EXPECT_EQ(s3.size, 3u);
  EXPECT_EQ(r3.size, 3u);
  EXPECT_FALSE(shell_with_ring(p, 0, 2, NONE, s3, r3));
  EXPECT_EQ(s3.size, 2u);
}

// Edge and face tets, including pairs and triples that are not in the mesh.
TEST(MeshWalks, EdgeAndFaceTets) {
  mesh_store m;
  fixtures::centred_cube(m);
  unsigned start = m.ancestors[0];
  EXPECT_EQ(find_edge_tet(m, 0, 7, start), NONE);  // no common tet: the diagonal of the cube
  EXPECT_EQ(start, NONE);
  EXPECT_EQ(m.work_stack.size, 0u);
  const unsigned t = edge_tet(m, 0, 8);
  ASSERT_NE(t, NONE);
  EXPECT_TRUE(holds(m, t, 0) && holds(m, t, 8));

  dense1D<unsigned> out;
  tets_of_face(m, 0, 1, 8, out);  // inner face
  EXPECT_EQ(out.size, 2u);
  tets_of_face(m, 0, 1, 3, out);  // hull face
  EXPECT_EQ(out.size, 1u);
  tets_of_face(m, 0, 1, 7, out);  // no face
  EXPECT_EQ(out.size, 0u);
  EXPECT_NE(find_face_tet(m, 0, 1, 8, out), NONE);
  EXPECT_EQ(find_face_tet(m, 0, 1, 99, out), NONE);
}

// Point location: centroid inside from any start face, the first violated face in scan order,
// walks that find the tet holding random points and that leave the mesh for outside points.
TEST(MeshWalks, Location) {
  mesh_store m;
  fixtures::kuhn_cube(m);
  const unsigned* t0 = m.tets.row(0);
  double c[3] = {0, 0, 0};
  for (unsigned k = 0; k < 4; ++k)
    for (unsigned i = 0; i < 3; ++i) c[i] += 0.25 * m.nodes(i, t0[k]);
  for (unsigned s = 0; s < 4; ++s) EXPECT_EQ(locate_side(m.nodes.data, c, t0, 1e-12, s), -1);
  // A point beyond two faces: from every start the first violated face of the cyclic scan.
  mesh_store u;
  fixtures::load_mesh(u, {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}}, {{0, 1, 2, 3}});
  const unsigned* r = u.tets.row(0);
  const double far[3] = {-1, -1, 0.5};
  double w[4];
  tet_barycentric(u.nodes.data, r[0], r[1], r[2], r[3], far, w);
  w[3] = 1 - w[0] - w[1] - w[2];
  unsigned violated = 0;
  for (unsigned f = 0; f < 4; ++f) violated += w[f] < 0;
  EXPECT_EQ(violated, 2u);
  for (unsigned s = 0; s < 4; ++s) {
    int expect = -1;
    for (unsigned k = 1; k <= 4 && expect < 0; ++k)
      if (w[(s + k) & 3] < 0) expect = int((s + k) & 3);
    EXPECT_EQ(locate_side(u.nodes.data, far, r, 1e-12, s), expect);
  }

  std::mt19937 rng(7);
  std::uniform_real_distribution<double> U(0.0, 1.0);
  for (int q = 0; q < 200; ++q) {
    const double P[3] = {U(rng), U(rng), U(rng)};
    unsigned t = 0;
    ASSERT_EQ(walk_to_point(m, P, t, 1e-12, m.bits), 1);
    double b[3];
    const unsigned* n = m.tets.row(t);
    tet_barycentric(m.nodes.data, n[0], n[1], n[2], n[3], P, b);
    EXPECT_GE(std::min({b[0], b[1], b[2], 1 - b[0] - b[1] - b[2]}), -1e-9);
  }
  const double out[3] = {2.0, 0.5, 0.5};
  unsigned t = 3;
  EXPECT_EQ(walk_to_point(m, out, t, 1e-12, m.bits), 0);
  EXPECT_EQ(t, NONE);
}

// The walk that also gives the weights of its point ends where the plain walk ends, draws the
// same random bits, and its weights are those of tet_barycentric, bit for bit.
TEST(MeshWalks, LocationWithWeights) {
  mesh_store m;
  fixtures::kuhn_cube(m);
  bit_source plain, weighted;
  plain.seed_from(random_source_type(5u));
  weighted.seed_from(random_source_type(5u));
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> U(-0.1, 1.1);
  unsigned found = 0;
  for (int q = 0; q < 300; ++q) {
    // Some points on the cube's inner planes, where several tets hold them.
    double P[3] = {U(rng), U(rng), U(rng)};
    if (q % 3 == 0) P[q % 2] = P[2];
    unsigned t0 = unsigned(q) % m.tets.cols(), t1 = t0;
    double w[3] = {-7.0, -7.0, -7.0};
    const bool a = locate_tet(m.locator, P, t0, 1e-12, plain);
    const bool b = locate_tet(m.locator, P, t1, 1e-12, weighted, w);
    ASSERT_EQ(a, b);
    ASSERT_EQ(t0, t1);
    if (!b) continue;
    ++found;
    double expect[3];
    const unsigned* n = m.tets.row(t1);
    tet_barycentric(m.nodes.data, n[0], n[1], n[2], n[3], P, expect);
    for (unsigned k = 0; k < 3; ++k) EXPECT_EQ(w[k], expect[k]);
  }
  EXPECT_GT(found, 100u);
  EXPECT_EQ(plain.next(), weighted.next());
  EXPECT_EQ(plain.count_left, weighted.count_left);
}
