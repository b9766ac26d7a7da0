// Mesh store: row reuse, marks, ancestors, keys and hash sets, the face link table.
#include <gtest/gtest.h>

#include "delaunay/key_set.h"
#include "delaunay/keys.h"
#include "delaunay/mesh_store.h"
#include "delaunay/vector_fast.h"
#include "mesh_fixtures.h"

using namespace kelvo::voxfill;

// A reused tet row must come back at the same index in both tables with fresh neighbours;
// growth of the tables must keep every row and its parallel entries.
TEST(MeshStore, RowReuseKeepsTablesInStep) {
  mesh_store m;
  fixtures::kuhn_cube(m);
  EXPECT_EQ(m.tets.cols(), 6u);
  m.release_tet(2);
  m.release_tet(4);
  EXPECT_EQ(m.colors[4], DELETED);
  EXPECT_EQ(m.tet_stamps[4], NONE);
  EXPECT_EQ(m.tets(0, 4), 0u);  // a released row keeps its content
  m.tet_clock = 3;
  const unsigned t = m.new_tet(1, 2, 3, 4, 7, 0.5);
  EXPECT_EQ(t, 4u);  // last released, first reused
  for (unsigned i = 0; i < 4; ++i) EXPECT_EQ(m.neighbors(i, t), NONE);
  EXPECT_EQ(m.colors[t], 7u);
  EXPECT_EQ(m.tet_stamps[t], 3u);
  EXPECT_EQ(m.new_tet(1, 2, 3, 5, 0, 0.0), 2u);
  EXPECT_EQ(m.new_tet(1, 2, 3, 6, 0, 0.0), 6u);
  EXPECT_EQ(m.tets.cols(), m.neighbors.cols());
  EXPECT_EQ(m.colors.size, 7u);
  EXPECT_EQ(m.tet_qualities.size, 7u);

  // Many more tets: the tables grow several times under the rows already there.
  const unsigned before[4] = {m.tets(0, 1), m.tets(1, 1), m.tets(2, 1), m.tets(3, 1)};
  const unsigned nb1 = m.neighbors(0, 1);
  for (unsigned k = 0; k < 200; ++k)
    ASSERT_EQ(m.new_tet(k, k + 1, k + 2, k + 3, k, 0.5 * k), 7 + k);
  for (unsigned i = 0; i < 4; ++i) EXPECT_EQ(m.tets(i, 1), before[i]);
  EXPECT_EQ(m.neighbors(0, 1), nb1);
  EXPECT_EQ(m.colors[4], 7u);
  EXPECT_EQ(m.tet_stamps[4], 3u);
  EXPECT_EQ(m.tets(3, 150), 146u);
  EXPECT_EQ(m.colors[150], 143u);
  EXPECT_EQ(m.tet_qualities[150], 71.5);
  EXPECT_EQ(m.tets.cols(), m.neighbors.cols());
  EXPECT_EQ(m.colors.size, m.tets.cols());

  m.release_node(3);
  EXPECT_EQ(m.ancestors[3], NONE);
  EXPECT_EQ(m.new_node(5, 5, 5, 0.25), 3u);
  EXPECT_EQ(m.node_sizes[3], 0.25);
  EXPECT_EQ(m.nodes(2, 3), 5.0);
  EXPECT_EQ(m.ancestors.size, m.nodes.cols());
}

// Marks: equality only, and the wrap of the counter must not leave stale entries visited.
TEST(MeshStore, MarksWrapAround) {
  mesh_store m;
  fixtures::kuhn_cube(m);
  m.bump_marks();
  m.mark(3);
  EXPECT_TRUE(m.marked(3));
  EXPECT_FALSE(m.marked(1000));
  m.bump_marks();
  EXPECT_FALSE(m.marked(3));
  m.mark(3);
  m.mark_value = 0xFFFFFFFFu;
  m.mark(2);
  EXPECT_EQ(m.bump_marks(), 1u);
  for (unsigned i = 0; i < m.marks.size; ++i) EXPECT_FALSE(m.marked(i));
}

// Ancestors: the last tet of a range that holds a node wins, and nodes outside the range's tets
// are left alone; qualities of a positive mesh.
TEST(MeshStore, AncestorsAndQualities) {
  mesh_store m;
  fixtures::kuhn_cube(m);
  m.ancestors = NONE;
  m.set_ancestors(2, 3);  // one tet: its four nodes get it, the other four keep NONE
  unsigned written = 0;
  for (unsigned n = 0; n < 8; ++n) {
    const unsigned* r = m.tets.row(2);
    const bool in = r[0] == n || r[1] == n || r[2] == n || r[3] == n;
    EXPECT_EQ(m.ancestors[n], in ? 2u : NONE) << n;
    written += in;
  }
  EXPECT_EQ(written, 4u);
  m.set_ancestors(0, 6);
  EXPECT_EQ(m.ancestors[0], 5u);
  for (unsigned n = 0; n < 8; ++n) {
    const unsigned t = m.ancestors[n];
    const unsigned* r = m.tets.row(t);
    EXPECT_TRUE(r[0] == n || r[1] == n || r[2] == n || r[3] == n);
    for (unsigned u = t + 1; u < 6; ++u) {
      const unsigned* s = m.tets.row(u);
      EXPECT_FALSE(s[0] == n || s[1] == n || s[2] == n || s[3] == n);
    }
  }
  const double qmin = m.recompute_qualities(false);
  EXPECT_GT(qmin, 0.5);
  m.colors[0] = NONE;
  m.recompute_qualities(true);
  EXPECT_EQ(m.tet_qualities[0], 0.0);
  EXPECT_GT(m.tet_qualities[1], 0.5);
}

// Keys: the hash ignores order; the face comparison tells rotation from reflection.
TEST(MeshStore, KeysAndSets) {
  const face_key a{{3, 7, 5}};
  EXPECT_EQ(key_hash(face_key{{1, 2, 3}}), key_hash(face_key{{3, 1, 2}}));
  EXPECT_EQ(key_hash(face_key{{1, 2, 3}}), key_hash(face_key{{2, 1, 3}}));
  EXPECT_EQ(compare_keys(a, face_key{{7, 5, 3}}), 1);
  EXPECT_EQ(compare_keys(a, face_key{{7, 3, 5}}), -1);
  EXPECT_EQ(compare_keys(a, face_key{{7, 3, 6}}), 0);

  entity_set s;
  EXPECT_TRUE(s.add_face(1, 2, 3));
  EXPECT_TRUE(s.add_face(2, 3, 1));  // same orientation: not two-way
  EXPECT_EQ(s.two_way_faces.size(), 0u);
  EXPECT_TRUE(s.add_face(3, 2, 1));
  EXPECT_EQ(s.two_way_faces.size(), 1u);
  EXPECT_EQ(s.face_orientation(2, 1, 3), -1);
  EXPECT_EQ(s.face_orientation(2, 3, 1), 1);
  EXPECT_TRUE(s.has_edge(3, 1));
  EXPECT_TRUE(s.add_face(4, 4, 5));  // degenerate: nodes and edge only
  EXPECT_EQ(s.faces.size(), 1u);
  EXPECT_TRUE(s.has_edge(4, 5));
  EXPECT_EQ(s.node_count, 5u);
  EXPECT_TRUE(s.add_edge(6, 6));
  EXPECT_EQ(s.edges.size(), 4u);

  // Growth through many rehashes keeps every key findable; erase unlinks.
  edge_set e;
  for (unsigned i = 0; i < 5000; ++i) e.insert(edge_key{{i, i + 1}});
  for (unsigned i = 0; i < 5000; i += 2) EXPECT_TRUE(e.erase(edge_key{{i + 1, i}}));
  for (unsigned i = 0; i < 5000; ++i) EXPECT_EQ(e.contains(edge_key{{i + 1, i}}), i % 2 == 1);
  EXPECT_EQ(e.size(), 2500u);
}

// The face link table: chains with flat links, never rehashed, removal leaves the chain intact.
TEST(MeshStore, FaceLinkTable) {
  vector_fast v;
  ASSERT_TRUE(v.build(3));
  for (unsigned x = 0; x < 12; ++x) ASSERT_TRUE(v.insert(x, x % 2));  // two long chains
  unsigned p = v.find(0, [](unsigned x) { return x == 10; });
  ASSERT_NE(p, NONE);
  v.erase_at(p);
  EXPECT_EQ(v.find(0, [](unsigned x) { return x == 10; }), NONE);
  EXPECT_NE(v.find(0, [](unsigned x) { return x == 4; }), NONE);
  EXPECT_EQ(v.items, 11u);
}
