// Steiner nodes: softness, removal by contraction (sound mesh, volume kept, hard nodes kept,
// refusals without trace), ball_center, moves to the centre and placement clear of an edge.
#include <gtest/gtest.h>

#include <cmath>

#include "delaunay/mesh_check.h"
#include "delaunay/mesh_walks.h"
#include "mesh_fixtures.h"
#include "voxfill/boundary/steiner_nodes.h"

using namespace kelvo::voxfill;
using fixtures::table_snapshot;
using kelvo::dense1D;
using kelvo::dense2D;

namespace {

double volume(const mesh_store& m) {
  double v = 0.0;
  for (unsigned t = 0; t < m.tets.cols(); ++t)
    if (m.tet_live(t))
      v += orient_det(m.nodes.data, m.tets(0, t), m.tets(1, t), m.tets(2, t), m.tets(3, t)) / 6.0;
  return v;
}

// Positive shape quality everywhere, and stored qualities equal to recomputed ones.
::testing::AssertionResult sound(const mesh_store& m) {
  mesh_check_options o;
  o.positive_quality = o.stored_qualities = true;
  const mesh_check_result r = check_mesh(m, o);
  return r.ok ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << r.text;
}

dense1D<unsigned> list_of(std::initializer_list<unsigned> nodes) {
  dense1D<unsigned> l;
  for (unsigned n : nodes) l.push_back(n);
  return l;
}

// The ball faces of `node`, coded 4 t + i.
dense1D<unsigned> ball_faces(mesh_store& m, unsigned node) {
  dense1D<unsigned> ball, faces;
  ball_of_node(m, node, NONE, ball);
  for (unsigned k = 0; k < ball.size; ++k)
    for (unsigned i = 0; i < 4; ++i)
      if (m.tets(i, ball[k]) == node) faces.push_back(4 * ball[k] + i);
  return faces;
}

// The cube with its centre node 8 (hull nodes 0 to 7), qualities stored.
struct cube_case {
  mesh_store m;
  cube_case() {
    fixtures::centred_cube(m);
    m.recompute_qualities(false);
  }
};

// A Delaunay cloud whose hull nodes are hard, as the box nodes of a recovery would be.
struct cloud_case {
  mesh_store m;
  cloud_case(unsigned n, unsigned seed) {
    EXPECT_TRUE(fixtures::delaunay_cloud(m, n, seed));
    m.recompute_qualities(false);
    for (unsigned t = 0; t < m.tets.cols(); ++t)
      for (unsigned f = 0; f < 4; ++f)
        if (m.tet_live(t) && m.neighbors(f, t) == NONE)
          for (unsigned k = 0; k < 3; ++k) m.hard_set.add_node(m.tets(tet_face_nodes[f][k], t));
  }
};

}  // namespace

// A box node or a hard node taken for soft would be moved or removed by the recovery; nodes that
// left the mesh leave the lists.
TEST(SteinerNodes, SoftNodesAndDeadNodes) {
  cube_case c;
  c.m.hard_set.add_node(0);
  c.m.box_nodes.push_back(7);
  EXPECT_TRUE(!is_soft_node(c.m, 0) && !is_soft_node(c.m, 7) && is_soft_node(c.m, 8));
  const unsigned dead = c.m.new_node(5, 5, 5, 0.0);
  dense1D<unsigned> list = list_of({0, 3, dead, 7, 8});
  keep_soft_nodes(c.m, list);
  ASSERT_EQ(list.size, 2u);
  EXPECT_TRUE(list[0] == 3 && list[1] == 8);
  steiner_workspace w(c.m);
  list = list_of({dead, 0});
  EXPECT_EQ(remove_steiner_nodes(w, list, false, true, false), 1u);
  EXPECT_TRUE(list.size == 1 && list[0] == 0);
}

// The centre of a cube goes by a cone from a corner: six sound tets, the same volume; the row is
// freed only with `release`. Without tries, or hard, it stays and nothing changes.
TEST(RemoveSteinerNodes, CentreOfCube) {
  for (bool release : {true, false}) {
    cube_case c;
    steiner_workspace w(c.m);
    const table_snapshot before(c.m);
    c.m.hard_set.add_node(8);
    dense1D<unsigned> list = list_of({8, 3});  // 3 is on the hull
    EXPECT_EQ(remove_steiner_nodes(w, list, false, release, true), 0u);
    EXPECT_TRUE(list.size == 2 && before.same_as(c.m));
    c.m.hard_set.node_bits.reset(8);
    dense1D<unsigned> ball;
    ball_of_node(c.m, 8, NONE, ball);
    EXPECT_FALSE(remove_node_by_cone(w, 8, ball, 0, 1e-12));
    EXPECT_TRUE(before.same_as(c.m));
    list = list_of({8});
    EXPECT_EQ(remove_steiner_nodes(w, list, false, release, false), 1u);
    EXPECT_EQ(list.size, 0u);
    EXPECT_TRUE(sound(c.m));
    EXPECT_NEAR(volume(c.m), 1.0, 1e-12);
    EXPECT_TRUE(c.m.ancestors[8] == NONE && c.m.nodes.is_free(8) == release);
  }
}

// skip_single: a lone node stays; nodes go only onto other listed nodes, and with none in the
// ball they stay. An empty ball needs no cone: the node is just no longer alive.
TEST(RemoveSteinerNodes, SkipSingleAndEmptyBall) {
  cube_case c;
  steiner_workspace w(c.m);
  const table_snapshot before(c.m);
  dense1D<unsigned> list = list_of({8});
  EXPECT_EQ(remove_steiner_nodes(w, list, true, true, true), 0u);
  EXPECT_TRUE(list.size == 1 && before.same_as(c.m));

  mesh_store l;
  fixtures::kuhn_lattice(l, 3);
  l.recompute_qualities(false);
  steiner_workspace wl(l);
  const table_snapshot lattice(l);
  list = list_of({2 + 4 * (1 + 4), 1 + 4 * (2 + 4)});  // inner nodes with no edge between them
  EXPECT_EQ(remove_steiner_nodes(wl, list, true, true, false), 0u);
  EXPECT_TRUE(list.size == 2 && lattice.same_as(l));

  list = list_of({8, 0});  // the centre may go onto corner 0
  EXPECT_EQ(remove_steiner_nodes(w, list, true, false, false), 1u);
  EXPECT_TRUE(list.size == 1 && list[0] == 0 && sound(c.m));

  const unsigned lone = c.m.new_node(3, 3, 3, 0.0);
  c.m.ancestors[lone] = 0;
  EXPECT_TRUE(remove_node_by_cone(w, lone, dense1D<unsigned>(), 4, 1e-12));
  EXPECT_TRUE(c.m.ancestors[lone] == NONE && !c.m.nodes.is_free(lone));
}

// Every inner node of a cloud in turn: a removal leaves a sound mesh of the same volume, a
// refusal (by the normal floor or by a floor above every cone) leaves every table as it was.
TEST(RemoveSteinerNodes, OneByOneSoundOrUntouched) {
  cloud_case c(120, 3);
  steiner_workspace w(c.m);
  const double v0 = volume(c.m);
  unsigned removed = 0, refused = 0;
  for (unsigned n = 0; n < c.m.nodes.cols(); ++n) {
    if (!is_soft_node(c.m, n)) continue;
    const table_snapshot before(c.m);
    dense1D<unsigned> ball, list = list_of({n});
    ball_of_node(c.m, n, NONE, ball);
    EXPECT_FALSE(remove_node_by_cone(w, n, ball, 12, 1.0));
    ASSERT_TRUE(before.same_as(c.m)) << n;
    if (remove_steiner_nodes(w, list, false, true, false)) {
      ++removed;
      ASSERT_TRUE(sound(c.m)) << n;
      ASSERT_NEAR(volume(c.m), v0, 1e-12) << n;
    } else {
      ++refused;
      ASSERT_TRUE(before.same_as(c.m)) << n;
    }
  }
  EXPECT_TRUE(removed > 10 && refused > 0) << removed << " " << refused;
}

// A thorough pass over all nodes keeps the hard ones, the volume and a sound mesh, and equal
// runs give equal tables.
TEST(RemoveSteinerNodes, ThoroughOnCloud) {
  cloud_case a(300, 5), b(300, 5);
  for (unsigned n = 0; n < a.m.nodes.cols(); n += 7)
    a.m.hard_set.add_node(n), b.m.hard_set.add_node(n);
  const double v0 = volume(a.m);
  steiner_workspace wa(a.m), wb(b.m);
  dense1D<unsigned> la, lb;
  for (unsigned n = 0; n < a.m.nodes.cols(); ++n) la.push_back(n), lb.push_back(n);
  const unsigned removed = remove_steiner_nodes(wa, la, false, true, true);
  EXPECT_EQ(remove_steiner_nodes(wb, lb, false, true, true), removed);
  EXPECT_TRUE(removed > 100 && la.size == a.m.nodes.cols() - removed);
  EXPECT_TRUE(sound(a.m));
  EXPECT_NEAR(volume(a.m), v0, 1e-12);
  for (unsigned k = 0; k < la.size; ++k) EXPECT_NE(a.m.ancestors[la[k]], NONE);
  for (unsigned n = 0; n < a.m.nodes.cols(); ++n)
    EXPECT_TRUE(!a.m.hard_set.has_node(n) || a.m.ancestors[n] != NONE) << n;
  EXPECT_TRUE(table_snapshot(a.m).same_as(b.m));
}

// A symmetric ball's centre is its centre, from the centre, from inside and from outside; a
// star-shaped ball's centre lies inside it.
TEST(BallCenter, SymmetricAndStarShapedBalls) {
  cube_case c;
  const dense1D<unsigned> faces = ball_faces(c.m, 8);
  ball_polyhedron poly;
  double least2, starts[3][3] = {{0.5, 0.5, 0.5}, {0.2, 0.7, 0.45}, {1.5, 0.5, 0.5}};
  for (double* X : starts) {
    EXPECT_TRUE(ball_center(c.m, faces, X, least2, poly));
    for (unsigned i = 0; i < 3; ++i) EXPECT_NEAR(X[i], 0.5, 1e-3);
  }
  EXPECT_NEAR(least2, 0.25, 1e-6);

  cloud_case cl(200, 9);
  unsigned tried = 0;
  for (unsigned n = 0; n < cl.m.nodes.cols(); ++n) {
    if (!is_soft_node(cl.m, n)) continue;
    ++tried;
    const dense1D<unsigned> f = ball_faces(cl.m, n);
    double X[3] = {cl.m.nodes(0, n), cl.m.nodes(1, n), cl.m.nodes(2, n)};
    ASSERT_TRUE(ball_center(cl.m, f, X, least2, poly)) << n;
    for (unsigned k = 0; k < f.size; ++k) {  // X in the node's place keeps each tet positive
      const unsigned t = f[k] >> 2, i = f[k] & 3u;
      const unsigned* fn = tet_face_nodes[i];
      ASSERT_GT(
          tet_quality(X, cl.m.nodes.row(cl.m.tets(fn[0], t)), cl.m.nodes.row(cl.m.tets(fn[1], t)),
                      cl.m.nodes.row(cl.m.tets(fn[2], t))),
          0.0)
          << n;
    }
  }
  EXPECT_GT(tried, 50u);
}

// Planes with no common inner point: least2 at or below 0, false, and no placement there.
TEST(BallCenter, EmptyIntersectionFails) {
  mesh_store m;  // face (0, 1, 2) in z = 1 facing up, face (4, 5, 6) in z = 0 facing down
  fixtures::load_mesh(m,
                      {{0, 0, 1},
                       {1, 0, 1},
                       {0, 1, 1},
                       {0.2, 0.2, 2},
                       {0, 0, 0},
                       {1, 0, 0},
                       {0, 1, 0},
                       {0.2, 0.2, -1}},
                      {{3, 0, 1, 2}, {7, 4, 5, 6}});
  dense1D<unsigned> faces;
  for (unsigned t = 0; t < 2; ++t)
    for (unsigned i = 0; i < 4; ++i)
      if (m.tets(i, t) == 3 || m.tets(i, t) == 7) faces.push_back(4 * t + i);
  ball_polyhedron poly;
  double X[3] = {0.2, 0.2, 0.5}, least2;
  EXPECT_FALSE(ball_center(m, faces, X, least2, poly));
  EXPECT_LE(least2, 0.0);
  steiner_workspace w(m);
  random_source_type rng(1);
  dense1D<double> q;
  EXPECT_FALSE(
      place_node_in_ball(w, 3, faces, dense1D<unsigned>(), 0, 1, 0.0, dense2D<unsigned>(), q, rng));
  EXPECT_EQ(m.nodes(2, 3), 2.0);
}

// A node off the centre moves there when its worst tet improves strictly; at the centre the
// move is refused and the tables stay bit for bit; hard and hull nodes are passed over.
TEST(SmoothSteinerNode, MovesOnlyForAStrictGain) {
  cube_case c;
  c.m.nodes(0, 8) = 0.3, c.m.nodes(1, 8) = 0.35, c.m.nodes(2, 8) = 0.4;
  const double q0 = c.m.recompute_qualities(false);
  steiner_workspace w(c.m);
  EXPECT_EQ(smooth_steiner_nodes(w, list_of({8, 0})), 1u);
  EXPECT_TRUE(sound(c.m));
  EXPECT_GT(c.m.recompute_qualities(false), q0);
  for (unsigned i = 0; i < 3; ++i) EXPECT_NEAR(c.m.nodes(i, 8), 0.5, 0.05);
  for (unsigned calls = 0; smooth_steiner_node(w, 8, 0.0, 1.000000000001);) ASSERT_LT(++calls, 20u);
  const table_snapshot before(c.m);
  EXPECT_FALSE(smooth_steiner_node(w, 8, 0.0, 1.000000000001));
  EXPECT_FALSE(smooth_steiner_node(w, 8, 1.0, 1.0));  // the centre is nearer than 1 to a plane
  c.m.hard_set.add_node(8);
  EXPECT_EQ(smooth_steiner_nodes(w, list_of({8})), 0u);
  EXPECT_TRUE(before.same_as(c.m));
}

// Placement clear of the diagonal 0-7, which runs through the centre: the node leaves it, its
// tets are positive, equal seeds give equal places; an impossible clearance puts it back.
TEST(PlaceNodeInBall, ClearOfATargetEdge) {
  cube_case c;
  steiner_workspace w(c.m);
  const dense1D<unsigned> faces = ball_faces(c.m, 8), ring = list_of({0, 1, 2, 3, 4, 5, 6, 7});
  dense2D<unsigned> rows(4, faces.size);
  for (unsigned k = 0; k < faces.size; ++k)
    for (unsigned i = 0; i < 4; ++i) rows(i, k) = c.m.tets(i, faces[k] >> 2);
  dense1D<double> q;
  double* p = c.m.nodes.row(8);
  double first[3];
  for (unsigned run = 0; run < 2; ++run) {
    p[0] = p[1] = p[2] = 0.5;
    random_source_type rng(1);
    ASSERT_TRUE(place_node_in_ball(w, 8, faces, ring, 0, 7, 0.02, rows, q, rng));
    ASSERT_EQ(q.size, rows.cols);
    for (unsigned k = 0; k < q.size; ++k)
      EXPECT_EQ(q[k], tet_quality(c.m.nodes.data, rows(0, k), rows(1, k), rows(2, k), rows(3, k)));
    const double along = (p[0] + p[1] + p[2]) / 3.0;
    double off2 = 0.0;
    for (unsigned i = 0; i < 3; ++i) off2 += (p[i] - along) * (p[i] - along);
    EXPECT_GT(off2, 0.02 * 0.02);
    for (unsigned i = 0; i < 3; ++i)
      EXPECT_TRUE(run == 0 ? (first[i] = p[i], true) : first[i] == p[i]);
  }
  p[0] = 0.4, p[1] = 0.5, p[2] = 0.6;
  random_source_type rng(1);
  EXPECT_FALSE(place_node_in_ball(w, 8, faces, ring, 0, 7, 1.0, rows, q, rng));
  EXPECT_TRUE(p[0] == 0.4 && p[1] == 0.5 && p[2] == 0.6);
}
