// Mesh invariant checker: a sound mesh passes, and each fault planted by hand is reported with
// its kind and place.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>

#include "delaunay/mesh_check.h"
#include "mesh_fixtures.h"
#include "voxfill/mesher_th4.h"

using namespace kelvo::voxfill;

namespace {

// A 3 x 3 x 3 Kuhn lattice: 162 tets, interior and hull faces, qualities stored.
void lattice(mesh_store& m) {
  fixtures::kuhn_lattice(m, 3);
  m.recompute_qualities(false);
}

// An interior tet of the lattice and one of its neighbours: t, its face i towards u, u's face g.
struct face_link {
  unsigned t, i, u, g;
};
face_link interior_link(const mesh_store& m) {
  for (unsigned t = 0; t < m.tets.cols(); ++t)
    for (unsigned i = 0; i < 4; ++i)
      if (m.neighbors(i, t) != NONE) {
        const unsigned u = m.neighbors(i, t);
        return {t, i, u, m.neighbor_index(u, t)};
      }
  return {NONE, NONE, NONE, NONE};
}

bool holds(const mesh_store& m, unsigned t, unsigned n) {
  const unsigned* r = m.tets.row(t);
  return r[0] == n || r[1] == n || r[2] == n || r[3] == n;
}

}  // namespace

// Each planted fault is caught with its own kind and place; a checker that skipped one of its
// passes, compared qualities with a tolerance, or looked at deleted rows would fail here. The
// lattice itself, whose cubes have eight co-spherical corners, passes every check: exact ties
// must not count as violations of the empty sphere. The fixtures themselves pass too, so that a
// fixture fault cannot hide behind the tests that use them.
TEST(MeshCheck, SoundLatticeAndPlantedFaults) {
  mesh_check_options all;
  all.positive_quality = all.stored_qualities = all.empty_sphere = true;
  {  // the other fixtures, which the walk and classification tests trust
    mesh_store cube, ball;
    fixtures::kuhn_cube(cube);
    fixtures::centred_cube(ball);
    EXPECT_TRUE(check_mesh(cube).ok) << check_mesh(cube).text;
    EXPECT_TRUE(check_mesh(ball).ok) << check_mesh(ball).text;
  }
  {
    mesh_store m;
    lattice(m);
    const mesh_check_result r = check_mesh(m, all);
    EXPECT_TRUE(r.ok) << r.text;
    EXPECT_EQ(r.fault, mesh_fault::none);
    EXPECT_EQ(r.tet, NONE);
    // A deleted row is not looked at, whatever it holds, once nothing refers to it.
    const unsigned t = 5;
    for (unsigned i = 0; i < 4; ++i) {
      const unsigned nb = m.neighbors(i, t);
      if (nb != NONE) m.neighbors(m.neighbor_index(nb, t), nb) = NONE;
    }
    m.release_tet(t);
    m.tets(1, t) = m.tets(0, t);
    for (unsigned u = 0; u < m.tets.cols(); ++u)
      if (u != t)
        for (unsigned k = 0; k < 4; ++k) m.ancestors[m.tets(k, u)] = u;
    const mesh_check_result holed = check_mesh(m, all);
    EXPECT_TRUE(holed.ok) << holed.text;
  }
  {  // one-sided link: u forgets t
    mesh_store m;
    lattice(m);
    const face_link l = interior_link(m);
    m.neighbors(l.g, l.u) = NONE;
    const mesh_check_result r = check_mesh(m);
    EXPECT_EQ(r.fault, mesh_fault::one_sided_link);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.tet, l.t);
    EXPECT_EQ(r.face, l.i);
    EXPECT_STREQ(r.text, ("one_sided_link: tet " + std::to_string(l.t) + " face " +
                          std::to_string(l.i) + ": neighbour links not back")
                             .c_str());
  }
  {  // a tet turned negative by swapping two nodes
    mesh_store m;
    lattice(m);
    std::swap(m.tets(1, 7), m.tets(2, 7));
    const mesh_check_result r = check_mesh(m);
    EXPECT_EQ(r.fault, mesh_fault::not_positive);
    EXPECT_EQ(r.tet, 7u);
  }
  {  // a node out of range and a node twice in one tet
    mesh_store m;
    lattice(m);
    m.tets(3, 9) = m.nodes.cols();
    EXPECT_EQ(check_mesh(m).fault, mesh_fault::bad_node);
    m.tets(3, 9) = m.tets(0, 9);
    const mesh_check_result r = check_mesh(m);
    EXPECT_EQ(r.fault, mesh_fault::bad_node);
    EXPECT_EQ(r.node, m.tets(0, 9));
  }
  {  // a wrong ancestor: a live tet that does not hold the node
    mesh_store m;
    lattice(m);
    const unsigned n = 21;
    unsigned other = 0;
    while (holds(m, other, n)) ++other;
    m.ancestors[n] = other;
    const mesh_check_result r = check_mesh(m);
    EXPECT_EQ(r.fault, mesh_fault::bad_ancestor);
    EXPECT_EQ(r.node, n);
    EXPECT_TRUE(holds(m, r.tet, n));
  }
  {  // two tets share a face without a face_link either way
    mesh_store m;
    lattice(m);
    const face_link l = interior_link(m);
    m.neighbors(l.i, l.t) = NONE;
    m.neighbors(l.g, l.u) = NONE;
    const mesh_check_result r = check_mesh(m);
    EXPECT_EQ(r.fault, mesh_fault::unlinked_face);
    EXPECT_EQ(r.tet, std::min(l.t, l.u));
    EXPECT_EQ(r.face, l.t < l.u ? l.i : l.g);
  }
  {  // a deleted tet that its neighbours still name
    mesh_store m;
    lattice(m);
    const face_link l = interior_link(m);
    m.release_tet(l.u);
    const mesh_check_result r = check_mesh(m);
    EXPECT_EQ(r.fault, mesh_fault::bad_neighbor);
    ASSERT_NE(r.tet, NONE);
    EXPECT_EQ(m.neighbors(r.face, r.tet), l.u);
  }
  {  // a face_link across a face that the neighbour does not hold
    mesh_store m;
    lattice(m);
    const face_link l = interior_link(m);
    const unsigned f = (l.i + 1) % 4;
    ASSERT_NE(m.neighbors(f, l.t), NONE);
    const unsigned v = m.neighbors(f, l.t);
    // Swap t's two links: both neighbours still face_link back once, each across the other face.
    m.neighbors(l.i, l.t) = v;
    m.neighbors(f, l.t) = l.u;
    EXPECT_EQ(check_mesh(m).fault, mesh_fault::face_mismatch);
  }
  {  // a third tet on an interior face
    mesh_store m;
    lattice(m);
    const face_link l = interior_link(m);
    unsigned f[3];
    for (unsigned k = 0; k < 3; ++k) f[k] = m.tets(tet_face_nodes[l.i][k], l.t);
    const unsigned far = m.new_node(40, 50, 60, 0.0);
    if (orient_det(m.nodes.data, far, f[0], f[1], f[2]) < 0) std::swap(f[0], f[1]);
    const unsigned extra = m.new_tet(far, f[0], f[1], f[2], 0, 0.0);
    m.ancestors[far] = extra;
    const mesh_check_result r = check_mesh(m);
    EXPECT_EQ(r.fault, mesh_fault::face_overused);
  }
  {  // a stored quality one unit in the last place off
    mesh_store m;
    lattice(m);
    m.tet_qualities[11] = std::nextafter(m.tet_qualities[11], 2.0);
    EXPECT_TRUE(check_mesh(m).ok);
    const mesh_check_result r = check_mesh(m, all);
    EXPECT_EQ(r.fault, mesh_fault::stale_quality);
    EXPECT_EQ(r.tet, 11u);
  }
}

// Two tets on one triangle: with the far apex below the shared face the pair is Delaunay; with a
// near apex it is not, and only the empty-sphere option reports it. A flipped sign in the
// insphere test would report the good pair and pass the bad one. An apex a hair (1e-11) from a
// node of the triangle, inside the sphere by as little, is within the default tolerance, which
// is relative to the sphere: a test scaled by the apex's own distances would call it far inside.
// With no tolerance it is reported.
TEST(MeshCheck, EmptySphereOnTwoTetPairs) {
  mesh_check_options sphere, exact;
  sphere.empty_sphere = exact.empty_sphere = true;
  exact.sphere_tol = 0.0;
  struct pair_case {
    std::array<double, 3> apex;
    bool delaunay, delaunay_exactly;
  };
  for (const pair_case c :
       {pair_case{{0.3, 0.3, -5.0}, true, true}, pair_case{{0.3, 0.3, -0.1}, false, false},
        pair_case{{1e-11, 1e-11, -1e-11}, true, false}}) {
    mesh_store m;
    fixtures::load_mesh(m, {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.3, 0.3, 1.0}, c.apex},
                        {{0, 1, 2, 3}, {0, 1, 2, 4}});
    EXPECT_TRUE(check_mesh(m).ok) << check_mesh(m).text;
    const mesh_check_result r = check_mesh(m, sphere);
    EXPECT_EQ(r.ok, c.delaunay) << c.apex[2] << ": " << r.text;
    EXPECT_EQ(check_mesh(m, exact).ok, c.delaunay_exactly) << c.apex[2];
    if (!c.delaunay) {
      EXPECT_EQ(r.fault, mesh_fault::not_delaunay);
      EXPECT_EQ(r.tet, 0u);
      EXPECT_EQ(r.node, 4u);
      EXPECT_EQ(m.neighbors(r.face, r.tet), 1u);
    }
  }
}

// The Delaunay mesh of a random cloud, as a run hands it over, passes every check with its
// shape qualities as stored qualities; a wrong sign or scale in the insphere test, or a
// conformity pass that mistook hull faces for unlinked ones, would fail on a mesh of this size.
TEST(MeshCheck, DelaunayMeshOfRandomCloud) {
  const unsigned n = 3000;
  kelvo::dense2D<double> pos(3, n);
  std::mt19937 g(17);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (unsigned j = 0; j < n; ++j)
    for (unsigned i = 0; i < 3; ++i) pos(i, j) = u(g);
  mesher::data_type data(pos, kelvo::dense2D<unsigned>());
  for (unsigned j = 0; j < n; ++j) data.isolated_nodes.push_back(j);
  mesher job;
  job.settings.mode = 2;
  job.settings.optim_level = 0;             // the Delaunay mesh itself, without the swap pass
  job.settings.strict_constraints = false;  // nor the reconnections at the hull
  job.run(data);
  ASSERT_EQ(data.error_code, 0);
  mesh_store m;
  ASSERT_TRUE(fixtures::load_output(m, data));
  mesh_check_options all;
  all.positive_quality = all.stored_qualities = all.empty_sphere = true;
  const mesh_check_result r = check_mesh(m, all);
  EXPECT_TRUE(r.ok) << r.text;
  // Moving one node well off keeps the links but breaks the geometry around it.
  m.nodes(0, m.tets(0, 0)) += 0.5;
  EXPECT_FALSE(check_mesh(m, all).ok);
}
