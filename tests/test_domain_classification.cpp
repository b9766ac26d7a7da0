// Classification of tets into subdomains by floods across hard faces, and hard entity input.
#include <gtest/gtest.h>

#include <array>
#include <set>
#include <vector>

#include "delaunay/mesh_walks.h"
#include "mesh_fixtures.h"
#include "voxfill/boundary/domain_classification.h"
#include "voxfill/boundary/hard_entities.h"

using namespace kelvo::voxfill;
using kelvo::dense1D;
using kelvo::dense2D;
using kelvo::Ptr;

namespace {

// A Kuhn lattice of n^3 unit cubes whose corner 0 plays the enclosing box's corner, with a record
// and a task to register hard entities and report through.
struct lattice_case {
  mesh_store m;
  mesher::settings_type settings;
  mesher::data_type data;
  Ptr<progress_bar> root;
  Ptr<task_type> task;
  unsigned n;

  explicit lattice_case(unsigned cells) : n(cells) {
    fixtures::kuhn_lattice(m, n);
    m.box_nodes.push_back(0);
    root = new progress_bar(0.0, 1.0);
    task = new task_type(&settings, root.get(), &data.error_code, &data.warning_code,
                         data.msg_title, data.msg_text);
    data.pos.resize(3, m.nodes.cols());
  }
  unsigned node(unsigned i, unsigned j, unsigned k) const {
    return i + (n + 1) * (j + (n + 1) * k);
  }

  // The triangles of the lattice on the surface of the box lo..hi, turned outward (or inward).
  std::vector<std::array<unsigned, 3>> box_surface(const unsigned lo[3], const unsigned hi[3],
                                                   bool outward) {
    std::set<std::array<unsigned, 3>> seen;
    std::vector<std::array<unsigned, 3>> out;
    for (unsigned t = 0; t < m.tets.cols(); ++t)
      for (unsigned f = 0; f < 4; ++f) {
        std::array<unsigned, 3> tri;
        for (unsigned k = 0; k < 3; ++k) tri[k] = m.tets(tet_face_nodes[f][k], t);
        for (unsigned axis = 0; axis < 3; ++axis)
          for (unsigned side = 0; side < 2; ++side) {
            const double plane = side ? hi[axis] : lo[axis];
            bool on = true;
            for (unsigned v : tri) {
              for (unsigned a = 0; a < 3; ++a) {
                const double x = m.nodes(a, v);
                on = on && (a == axis ? x == plane : x >= lo[a] && x <= hi[a]);
              }
            }
            if (!on) continue;
            std::array<unsigned, 3> key = tri;
            std::sort(key.begin(), key.end());
            if (!seen.insert(key).second) continue;
            double e1[3], e2[3];
            for (unsigned a = 0; a < 3; ++a) {
              e1[a] = m.nodes(a, tri[1]) - m.nodes(a, tri[0]);
              e2[a] = m.nodes(a, tri[2]) - m.nodes(a, tri[0]);
            }
            const double nrm =
                e1[(axis + 1) % 3] * e2[(axis + 2) % 3] - e1[(axis + 2) % 3] * e2[(axis + 1) % 3];
            const bool points_out = (nrm > 0) == (side == 1);
            if (points_out != outward) std::swap(tri[1], tri[2]);
            out.push_back(tri);
          }
      }
    return out;
  }
  void set_boundary(const std::vector<std::array<unsigned, 3>>& tris) {
    data.connectB.resize(3, unsigned(tris.size()));
    for (unsigned j = 0; j < tris.size(); ++j)
      for (unsigned k = 0; k < 3; ++k) data.connectB(k, j) = tris[j][k];
  }
  // Flood and order; returns the number of subdomains.
  unsigned classify(unsigned rule, int& sign) {
    register_hard_entities(m, data, true, *task);
    unsigned count = flood_colors(m);
    sign = 7;
    order_subdomains(m, count, rule, sign);
    return count;
  }
  // Colour of the tet holding the centre of unit cube (i, j, k).
  unsigned color_at(unsigned i, unsigned j, unsigned k) {
    const double P[3] = {i + 0.4, j + 0.3, k + 0.6};
    unsigned t = m.ancestors[node(i, j, k)];
    EXPECT_EQ(walk_to_point(m, P, t, 1e-12, m.bits), 1);
    return m.colors[t];
  }
};

}  // namespace

// A closed box: one subdomain inside, the outside stays NONE; turning the faces inward flips the
// sign but still finds the inside; one face turned the wrong way makes the sign 0.
TEST(DomainClassification, SingleBoxAndOrientation) {
  const unsigned lo[3] = {1, 1, 1}, hi[3] = {3, 3, 3};
  for (int variant = 0; variant < 3; ++variant) {
    lattice_case c(4);
    auto tris = c.box_surface(lo, hi, variant != 1);
    if (variant == 2) std::swap(tris[5][0], tris[5][1]);
    c.set_boundary(tris);
    int sign;
    EXPECT_EQ(c.classify(0, sign), 1u);
    EXPECT_EQ(c.color_at(2, 2, 2), 0u);
    EXPECT_EQ(c.color_at(0, 0, 0), NONE);
    EXPECT_EQ(c.color_at(3, 3, 3), NONE);
    EXPECT_EQ(sign, variant == 2 ? 0 : (variant == 0 ? -1 : 1))
        << variant;  // outward faces read -1
    EXPECT_EQ(c.data.hard_faces_in, tris.size());
  }
}

// A box inside a box: the inner surface turned outward is a second subdomain under rule 0; turned
// inward it is a hole under rule 0 and a subdomain under rule 1; rule 2 keeps the first region
// only.
TEST(DomainClassification, NestedBoxesUnderEachRule) {
  const unsigned olo[3] = {1, 1, 1}, ohi[3] = {5, 5, 5}, ilo[3] = {2, 2, 2}, ihi[3] = {4, 4, 4};
  struct expectation {
    bool inner_outward;
    unsigned rule, subdomains;
    bool inner_is_domain;
  };
  for (const expectation e : {expectation{true, 0, 2, true}, expectation{false, 0, 1, false},
                              expectation{false, 1, 2, true}, expectation{true, 2, 1, false}}) {
    lattice_case c(6);
    auto tris = c.box_surface(olo, ohi, true);
    auto inner = c.box_surface(ilo, ihi, e.inner_outward);
    tris.insert(tris.end(), inner.begin(), inner.end());
    c.set_boundary(tris);
    int sign;
    EXPECT_EQ(c.classify(e.rule, sign), e.subdomains) << e.rule;
    EXPECT_EQ(c.color_at(1, 1, 1), 0u);
    EXPECT_EQ(c.color_at(3, 3, 3) < DELETED, e.inner_is_domain) << e.rule;
    EXPECT_EQ(sign, -1);
  }
}

// Two boxes sharing a wall given in both orientations: the wall is two-way, counts once as a hard
// face, and both boxes are subdomains; without two-way entities (keep_two_way false) nothing is
// kept.
TEST(DomainClassification, StackedBoxesWithTwoWayWall) {
  lattice_case c(4);
  const unsigned alo[3] = {1, 1, 1}, ahi[3] = {3, 3, 2}, blo[3] = {1, 1, 2}, bhi[3] = {3, 3, 3};
  auto tris = c.box_surface(alo, ahi, true);
  auto upper = c.box_surface(blo, bhi, true);
  tris.insert(tris.end(), upper.begin(), upper.end());
  c.set_boundary(tris);
  int sign;
  EXPECT_EQ(c.classify(0, sign), 2u);
  EXPECT_EQ(c.m.hard_set.two_way_faces.size(), 8u);  // the 2 x 2 wall, two triangles per square
  EXPECT_EQ(c.data.hard_faces_in, tris.size() - 8);
  EXPECT_NE(c.color_at(1, 1, 1), c.color_at(1, 1, 2));
  EXPECT_LT(c.color_at(1, 1, 2), DELETED);

  register_hard_entities(c.m, c.data, false, *c.task);
  EXPECT_EQ(c.m.hard_set.two_way_faces.size(), 0u);
}

// Hard entity input: degenerate entities, counts, the node limit, and what collect_missing finds.
TEST(HardEntities, RegisterAndCollect) {
  lattice_case c(2);
  c.data.connectB.resize(3, 3);
  const unsigned tri[3][3] = {
      {0, 1, 4}, {4, 1, 0}, {2, 2, 5}};  // same face both ways, a degenerate one
  for (unsigned j = 0; j < 3; ++j)
    for (unsigned k = 0; k < 3; ++k) c.data.connectB(k, j) = tri[j][k];
  c.data.connectE.resize(2, 3);
  const unsigned edges[3][2] = {{0, 1}, {7, 7}, {20, 26}};
  for (unsigned j = 0; j < 3; ++j)
    for (unsigned k = 0; k < 2; ++k) c.data.connectE(k, j) = edges[j][k];
  c.data.isolated_nodes.push_back(13);
  c.settings.nodes_limit = 9;
  register_hard_entities(c.m, c.data, true, *c.task);
  EXPECT_EQ(c.data.hard_faces_in, 1u);
  EXPECT_EQ(c.data.hard_edges_in, 5u);  // three sides, (2, 5) and (20, 26); (0, 1) counted once
  EXPECT_EQ(c.data.hard_nodes_in, 9u);
  EXPECT_EQ(c.m.hard_set.two_way_faces.size(), 1u);
  EXPECT_EQ(c.data.error_code, 0);
  c.settings.nodes_limit = 8;
  register_hard_entities(c.m, c.data, true, *c.task);
  EXPECT_EQ(c.data.error_code, -103);
  EXPECT_STREQ(c.data.msg_title, "INSUFFICIENT NODES LIMIT");

  std::vector<std::array<unsigned, 3>> faces;
  std::vector<std::array<unsigned, 2>> absent_edges;
  dense1D<unsigned> nodes;
  collect_missing(c.m, c.data.connectB, c.data.connectE, c.data.isolated_nodes, true, faces,
                  absent_edges, nodes);
  // (0, 1, 4) is a lattice face; (20, 26) is a diagonal no tet holds.
  EXPECT_EQ(faces.size(), 0u);
  ASSERT_EQ(absent_edges.size(), 1u);
  EXPECT_EQ(absent_edges[0][0], 20u);
  EXPECT_EQ(nodes.size, 0u);
  c.m.ancestors[20] = NONE;  // take a node out of the mesh: listed once
  c.data.isolated_nodes.push_back(20);
  collect_missing(c.m, c.data.connectB, c.data.connectE, c.data.isolated_nodes, true, faces,
                  absent_edges, nodes);
  ASSERT_EQ(nodes.size, 1u);
  EXPECT_EQ(nodes[0], 20u);
}
