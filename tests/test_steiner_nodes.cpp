// Steiner nodes: softness, removal by contraction (sound mesh, volume kept, hard nodes kept,
// refusals without trace), ball_center, moves to the centre and placement clear of an edge.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "delaunay/mesh_check.h"
#include "delaunay/mesh_walks.h"
#include "mesh_fixtures.h"
#include "voxfill/boundary/steiner_nodes.h"

using namespace kelvo::voxfill;
using kelvo::dense1D;
using kelvo::dense2D;
using kelvo::Ptr;

namespace {

double volume(const mesh_store& m) {
  double v = 0.0;
  for (unsigned t = 0; t < m.tets.cols(); ++t)
    if (m.tet_live(t)) {
      const unsigned* r = m.tets.row(t);
      v += orient_det(m.nodes.data, r[0], r[1], r[2], r[3]) / 6.0;
    }
  return v;
}

// Positive shape quality everywhere and stored qualities that match, bit for bit.
::testing::AssertionResult sound(const mesh_store& m) {
  mesh_check_options o;
  o.positive_quality = true;
  o.stored_qualities = true;
  const mesh_check_result r = check_mesh(m, o);
  if (r.ok) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << r.text;
}

// The nodes of hull faces stand for the enclosing box: they are hard.
void harden_hull(mesh_store& m) {
  for (unsigned t = 0; t < m.tets.cols(); ++t)
    for (unsigned f = 0; f < 4; ++f)
      if (m.tet_live(t) && m.neighbors(f, t) == NONE)
        for (unsigned k = 0; k < 3; ++k) m.hard_set.add_node(m.tets(tet_face_nodes[f][k], t));
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

// X strictly inside every plane of the faces: X in the place of the node keeps each tet positive
// (the node followed by its face in table order is an even order of the tet).
bool inside_faces(const mesh_store& m, const dense1D<unsigned>& faces, const double* X) {
  for (unsigned k = 0; k < faces.size; ++k) {
    const unsigned t = faces[k] >> 2, i = faces[k] & 3u;
    const double* p[3];
    for (unsigned j = 0; j < 3; ++j) p[j] = m.nodes.data.col(m.tets(tet_face_nodes[i][j], t));
    if (!(tet_quality(X, p[0], p[1], p[2]) > 0.0)) return false;
  }
  return true;
}

struct cloud_case {
  mesh_store m;
  explicit cloud_case(unsigned n, unsigned seed) {
    EXPECT_TRUE(fixtures::delaunay_cloud(m, n, seed));
    m.recompute_qualities(false);
    harden_hull(m);
  }
};

}  // namespace

// A box node or a hard node taken for soft would be moved or removed by the recovery.
TEST(SteinerNodes, SoftNodesAndFilter) {
  mesh_store m;
  fixtures::centred_cube(m);
  m.hard_set.add_node(0);
  m.box_nodes.push_back(7);
  EXPECT_FALSE(is_soft_node(m, 0));
  EXPECT_FALSE(is_soft_node(m, 7));
  EXPECT_TRUE(is_soft_node(m, 8));
  const unsigned dead = m.new_node(5, 5, 5, 0.0);  // no tet holds it
  dense1D<unsigned> list = list_of({0, 3, dead, 7, 8, 5});
  keep_soft_nodes(m, list);
  ASSERT_EQ(list.size, 3u);
  EXPECT_EQ(list[0], 3u);
  EXPECT_EQ(list[1], 8u);
  EXPECT_EQ(list[2], 5u);
}

// The centre of a cube goes by a cone from a corner: six sound tets, the same volume; with
// `release` its row is free, without it the row stays but the node is no longer alive.
TEST(RemoveSteinerNodes, CentreOfCubeGoes) {
  for (bool release : {true, false}) {
    mesh_store m;
    fixtures::centred_cube(m);
    m.recompute_qualities(false);
    steiner_workspace w(m);
    dense1D<unsigned> list = list_of({8});
    EXPECT_EQ(remove_steiner_nodes(w, list, false, release, false), 1u);
    EXPECT_EQ(list.size, 0u);
    EXPECT_TRUE(sound(m));
    EXPECT_NEAR(volume(m), 1.0, 1e-12);
    EXPECT_EQ(m.ancestors[8], NONE);
    EXPECT_EQ(m.nodes.is_free(8), release);
    unsigned live = 0;
    for (unsigned t = 0; t < m.tets.cols(); ++t) live += m.tet_live(t);
    EXPECT_EQ(live, 6u);
  }
}

// skip_single: a lone node stays; a node goes only onto another listed node, and with none in
// its ball it stays. A hard node on the list is no failure and stays on it.
TEST(RemoveSteinerNodes, SkipSingleAndHardNodes) {
  mesh_store m;
  fixtures::centred_cube(m);
  m.recompute_qualities(false);
  steiner_workspace w(m);
  const fixtures::table_snapshot before(m);
  dense1D<unsigned> list = list_of({8});
  EXPECT_EQ(remove_steiner_nodes(w, list, true, true, true), 0u);
  EXPECT_EQ(list.size, 1u);
  EXPECT_TRUE(before.same_as(m));

  m.hard_set.add_node(8);
  list = list_of({8, 3});
  EXPECT_EQ(remove_steiner_nodes(w, list, false, true, true), 0u);  // 3 is on the hull
  ASSERT_EQ(list.size, 2u);
  EXPECT_EQ(list[0], 8u);
  EXPECT_TRUE(before.same_as(m));

  mesh_store l;
  fixtures::kuhn_lattice(l, 3);
  l.recompute_qualities(false);
  steiner_workspace wl(l);
  // (2, 1, 1) and (1, 2, 1) are inner nodes that share no edge.
  const unsigned p = 2 + 4 * (1 + 4 * 1), q = 1 + 4 * (2 + 4 * 1);
  const fixtures::table_snapshot lattice(l);
  list = list_of({p, q});
  EXPECT_EQ(remove_steiner_nodes(wl, list, true, true, false), 0u);
  EXPECT_EQ(list.size, 2u);
  EXPECT_TRUE(lattice.same_as(l));

  m.hard_set.node_bits.reset(8);
  list = list_of({8, 0});  // 0 is a corner: the centre may go onto it
  EXPECT_EQ(remove_steiner_nodes(w, list, true, false, false), 1u);
  ASSERT_EQ(list.size, 1u);
  EXPECT_EQ(list[0], 0u);
  EXPECT_TRUE(sound(m));
}

// Nodes that left the mesh leave the list; a stopped run does nothing at all.
TEST(RemoveSteinerNodes, DeadNodesAndStoppedRun) {
  mesh_store m;
  fixtures::centred_cube(m);
  m.recompute_qualities(false);
  const unsigned dead = m.new_node(2, 2, 2, 0.0);
  {
    steiner_workspace w(m);
    dense1D<unsigned> list = list_of({dead, 0});
    EXPECT_EQ(remove_steiner_nodes(w, list, false, true, false), 1u);
    ASSERT_EQ(list.size, 1u);
    EXPECT_EQ(list[0], 0u);
  }
  mesher::settings_type settings;
  int error = -199, warning = 0;
  char title[128] = {}, text[512] = {};
  Ptr<task_type> task = new task_type(&settings, nullptr, &error, &warning, title, text);
  steiner_workspace w(m, task);
  const fixtures::table_snapshot before(m);
  dense1D<unsigned> list = list_of({8});
  EXPECT_EQ(remove_steiner_nodes(w, list, false, true, true), 0u);
  EXPECT_EQ(smooth_steiner_nodes(w, list), 0u);
  EXPECT_EQ(list.size, 1u);
  EXPECT_TRUE(before.same_as(m));
}

// The cone of an empty ball is nothing: the node is simply no longer alive, its row kept. No
// tries, no removal.
TEST(RemoveNodeByCone, EmptyBallAndNoTries) {
  mesh_store m;
  fixtures::centred_cube(m);
  m.recompute_qualities(false);
  steiner_workspace w(m);
  dense1D<unsigned> ball;
  ball_of_node(m, 8, NONE, ball);
  const fixtures::table_snapshot before(m);
  EXPECT_FALSE(remove_node_by_cone(w, 8, ball, 0, 1e-12));
  EXPECT_TRUE(before.same_as(m));
  EXPECT_TRUE(remove_node_by_cone(w, 8, ball, 4, 1e-12));
  EXPECT_TRUE(sound(m));
  const unsigned lone = m.new_node(3, 3, 3, 0.0);
  m.ancestors[lone] = 0;  // as if a tet still named it
  EXPECT_TRUE(remove_node_by_cone(w, lone, dense1D<unsigned>(), 4, 1e-12));
  EXPECT_EQ(m.ancestors[lone], NONE);
  EXPECT_FALSE(m.nodes.is_free(lone));
}

// Every node of a Delaunay cloud, one at a time: a removal leaves a sound mesh of the same
// volume, a refusal leaves every table as it was.
TEST(RemoveSteinerNodes, OneByOneSoundOrUntouched) {
  cloud_case c(120, 3);
  mesh_store& m = c.m;
  steiner_workspace w(m);
  const double v0 = volume(m);
  unsigned removed = 0, refused = 0;
  for (unsigned n = 0; n < m.nodes.cols(); ++n) {
    if (!is_soft_node(m, n)) continue;
    const fixtures::table_snapshot before(m);
    dense1D<unsigned> list = list_of({n});
    if (remove_steiner_nodes(w, list, false, true, false)) {
      ++removed;
      ASSERT_TRUE(sound(m)) << n;
      ASSERT_NEAR(volume(m), v0, 1e-12) << n;
    } else {
      ++refused;
      ASSERT_TRUE(before.same_as(m)) << n;
      // A quality floor above every cone refuses too.
      dense1D<unsigned> ball;
      ball_of_node(m, n, NONE, ball);
      EXPECT_FALSE(remove_node_by_cone(w, n, ball, 12, 1.0));
      ASSERT_TRUE(before.same_as(m)) << n;
    }
  }
  EXPECT_GT(removed, 10u);
  EXPECT_GT(refused, 0u);
}

// Thorough removal of a whole list keeps hard nodes, the volume and a sound mesh, and is
// deterministic: two runs give equal tables.
TEST(RemoveSteinerNodes, ThoroughOnCloud) {
  cloud_case a(300, 5), b(300, 5);
  for (unsigned n = 0; n < a.m.nodes.cols(); n += 7) {
    a.m.hard_set.add_node(n);
    b.m.hard_set.add_node(n);
  }
  const double v0 = volume(a.m);
  steiner_workspace wa(a.m), wb(b.m);
  dense1D<unsigned> la, lb;
  for (unsigned n = 0; n < a.m.nodes.cols(); ++n) la.push_back(n), lb.push_back(n);
  const unsigned start = la.size;
  const unsigned removed = remove_steiner_nodes(wa, la, false, true, true);
  EXPECT_EQ(remove_steiner_nodes(wb, lb, false, true, true), removed);
  EXPECT_GT(removed, start / 3);
  EXPECT_EQ(la.size, start - removed);
  EXPECT_TRUE(sound(a.m));
  EXPECT_NEAR(volume(a.m), v0, 1e-12);
  for (unsigned n = 0; n < a.m.nodes.cols(); ++n)
    if (a.m.hard_set.has_node(n)) {
      EXPECT_NE(a.m.ancestors[n], NONE) << n;
    }
  for (unsigned k = 0; k < la.size; ++k) {
    EXPECT_NE(a.m.ancestors[la[k]], NONE);
  }
  EXPECT_TRUE(fixtures::table_snapshot(a.m).same_as(b.m));
}

// The analytic centre of a symmetric ball is its centre, from the centre and from elsewhere.
TEST(BallCenter, SymmetricBallGivesItsCentre) {
  mesh_store m;
  fixtures::centred_cube(m);
  const dense1D<unsigned> faces = ball_faces(m, 8);
  ASSERT_EQ(faces.size, 12u);
  ball_polyhedron poly;
  double X[3] = {0.5, 0.5, 0.5}, least2;
  EXPECT_TRUE(ball_center(m, faces, X, least2, poly));
  for (double x : X) EXPECT_NEAR(x, 0.5, 1e-12);
  EXPECT_NEAR(least2, 0.25, 1e-12);
  double Y[3] = {0.2, 0.7, 0.45};
  EXPECT_TRUE(ball_center(m, faces, Y, least2, poly));
  for (double y : Y) EXPECT_NEAR(y, 0.5, 1e-3);
  double Z[3] = {1.5, 0.5, 0.5};  // from outside, across one plane
  EXPECT_TRUE(ball_center(m, faces, Z, least2, poly));
  for (double z : Z) EXPECT_NEAR(z, 0.5, 1e-3);
}

// The centre of a star-shaped ball lies inside it: the ball of every inner node of a cloud,
// started from the node.
TEST(BallCenter, StarShapedBallKeepsItInside) {
  cloud_case c(200, 9);
  mesh_store& m = c.m;
  ball_polyhedron poly;
  unsigned tried = 0;
  for (unsigned n = 0; n < m.nodes.cols(); ++n) {
    if (!is_soft_node(m, n)) continue;
    const dense1D<unsigned> faces = ball_faces(m, n);
    double X[3] = {m.nodes(0, n), m.nodes(1, n), m.nodes(2, n)}, least2;
    ASSERT_TRUE(ball_center(m, faces, X, least2, poly)) << n;
    EXPECT_GT(least2, 0.0);
    ASSERT_TRUE(inside_faces(m, faces, X)) << n;
    ++tried;
  }
  EXPECT_GT(tried, 50u);
}

// Planes with no common inner point: least2 at or below 0, false, and no placement there.
TEST(BallCenter, EmptyIntersectionFails) {
  mesh_store m;
  // Face (0, 1, 2) in z = 1 with node 3 above; face (4, 5, 6) in z = 0 with node 7 below: the
  // two sides they face never meet.
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
  m.recompute_qualities(false);
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
  const double x0 = m.nodes(2, 3);
  EXPECT_FALSE(
      place_node_in_ball(w, 3, faces, dense1D<unsigned>(), 0, 1, 0.0, dense2D<unsigned>(), q, rng));
  EXPECT_EQ(m.nodes(2, 3), x0);
}

// A node off the centre moves to it when the worst tet improves; at the centre a move is
// refused and leaves the coordinates bit for bit.
TEST(SmoothSteinerNode, MovesOnlyForAStrictGain) {
  mesh_store m;
  fixtures::centred_cube(m);
  m.nodes(0, 8) = 0.3, m.nodes(1, 8) = 0.35, m.nodes(2, 8) = 0.4;
  const double q0 = m.recompute_qualities(false);
  steiner_workspace w(m);
  EXPECT_TRUE(smooth_steiner_node(w, 8, 0.0, 1.000000000001));
  EXPECT_TRUE(sound(m));
  double q1 = 1.0;
  for (unsigned t = 0; t < m.tets.cols(); ++t) q1 = std::min(q1, m.tet_qualities[t]);
  EXPECT_GT(q1, q0);
  for (unsigned i = 0; i < 3; ++i) EXPECT_NEAR(m.nodes(i, 8), 0.5, 0.05);
  unsigned calls = 0;
  while (smooth_steiner_node(w, 8, 0.0, 1.000000000001)) ASSERT_LT(++calls, 20u);
  const fixtures::table_snapshot before(m);
  EXPECT_FALSE(smooth_steiner_node(w, 8, 0.0, 1.000000000001));
  EXPECT_TRUE(before.same_as(m));
  EXPECT_FALSE(smooth_steiner_node(w, 8, 1.0, 1.0));  // the centre is nearer than 1 to a plane
  // Hull and hard nodes are passed over by the list form.
  m.hard_set.add_node(8);
  EXPECT_EQ(smooth_steiner_nodes(w, list_of({8, 0})), 0u);
  EXPECT_TRUE(before.same_as(m));
}

// Placement clear of the cube's diagonal 0-7, which runs through the centre: the node leaves
// the diagonal, its tets are positive, and equal seeds give equal positions; an impossible
// clearance puts the node back.
TEST(PlaceNodeInBall, ClearOfATargetEdge) {
  mesh_store m;
  fixtures::centred_cube(m);
  m.recompute_qualities(false);
  steiner_workspace w(m);
  const dense1D<unsigned> faces = ball_faces(m, 8);
  dense2D<unsigned> rows(4, faces.size);
  for (unsigned k = 0; k < faces.size; ++k)
    for (unsigned i = 0; i < 4; ++i) rows(i, k) = m.tets(i, faces[k] >> 2);
  const dense1D<unsigned> ring = list_of({0, 1, 2, 3, 4, 5, 6, 7});
  dense1D<double> q;
  double first[3];
  for (unsigned run = 0; run < 2; ++run) {
    m.nodes(0, 8) = m.nodes(1, 8) = m.nodes(2, 8) = 0.5;
    random_source_type rng(1);
    ASSERT_TRUE(place_node_in_ball(w, 8, faces, ring, 0, 7, 0.02, rows, q, rng));
    ASSERT_EQ(q.size, rows.cols);
    for (unsigned k = 0; k < q.size; ++k) {
      const unsigned* r = rows.col(k);
      EXPECT_EQ(q[k], tet_quality(m.nodes.data, r[0], r[1], r[2], r[3]));
      EXPECT_GT(q[k], 1e-12);
    }
    const double* p = m.nodes.row(8);
    const double along = (p[0] + p[1] + p[2]) / 3.0;
    double off2 = 0.0;
    for (unsigned i = 0; i < 3; ++i) off2 += (p[i] - along) * (p[i] - along);
    EXPECT_GT(off2, 0.02 * 0.02);
    if (run == 0)
      for (unsigned i = 0; i < 3; ++i) first[i] = p[i];
    else
      for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(p[i], first[i]);
  }
  m.nodes(0, 8) = 0.4, m.nodes(1, 8) = 0.5, m.nodes(2, 8) = 0.6;
  random_source_type rng(1);
  EXPECT_FALSE(place_node_in_ball(w, 8, faces, ring, 0, 7, 1.0, rows, q, rng));
  EXPECT_EQ(m.nodes(0, 8), 0.4);
  EXPECT_EQ(m.nodes(1, 8), 0.5);
  EXPECT_EQ(m.nodes(2, 8), 0.6);
}
