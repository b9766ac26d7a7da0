// Boundary recovery through volume meshing without refinement: every boundary triangle, hard
// edge and hard node of the input in a sound mesh of the enclosed volume, on the shared surfaces
// and on cases built to need Steiner nodes; conflicting input ends with codes, never a hang;
// interruption at any poll and determinism.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "surface_fixtures.h"

using kelvo::voxfill::mesher;
using namespace surfaces;

namespace {

data_type run(const input& s, bool strict = true, bool (*interrupt)(void*, double) = nullptr,
              void* pass_thru = nullptr) {
  mesher::settings_type st;
  st.refine = false;
  st.optim_level = 0;
  st.strict_constraints = strict;
  st.interrupt_hdl = interrupt;
  st.pass_thru = pass_thru;
  data_type d = record_of(s);
  mesher(st).run(d);
  return d;
}

// Everything of the input held, sound, the enclosed volume filled.
void expect_whole(const data_type& d, const input& s, const std::string& name) {
  ASSERT_EQ(d.error_code, 0) << name << ": " << d.msg_title;
  ASSERT_GT(d.connectM.cols, 0u) << name;
  EXPECT_TRUE(sound(d)) << name;
  const absent_count a = absent_by_coords(d, s);
  EXPECT_EQ(a.faces, 0u) << name;
  EXPECT_EQ(a.edges, 0u) << name;
  EXPECT_EQ(a.nodes, 0u) << name;
  EXPECT_EQ(d.missing_faces.size + d.missing_edges.size + d.missing_nodes.size, 0u) << name;
  const double V = enclosed_volume(s);
  EXPECT_NEAR(mesh_volume(d), V, 1e-9 * V) << name;
  EXPECT_NEAR(d.volume, V, 1e-9 * V) << name;
}

// Schönhardt's twisted prism: its side quads are split by their reflex diagonals, so that no
// tetrahedra on its own six nodes fill it. `twist` in radians.
input twisted_prism(double twist) {
  input best;
  double least = 1e300;
  for (unsigned diagonal = 0; diagonal < 2; ++diagonal) {
    input s;
    for (unsigned level = 0; level < 2; ++level)
      for (unsigned i = 0; i < 3; ++i) {
        const double angle = 2.0943951023931953 * i + (level ? twist : 0.0);
        s.pts.push_back({std::cos(angle), std::sin(angle), double(level)});
      }
    s.tris.push_back({0, 2, 1});
    s.tris.push_back({3, 4, 5});
    for (unsigned i = 0; i < 3; ++i) {
      const unsigned a0 = i, a1 = (i + 1) % 3, b0 = 3 + i, b1 = 3 + (i + 1) % 3;
      if (diagonal) {
        s.tris.push_back({a0, a1, b1});
        s.tris.push_back({a0, b1, b0});
      } else {
        s.tris.push_back({a0, a1, b0});
        s.tris.push_back({a1, b1, b0});
      }
    }
    // The reflex choice encloses less than the convex hull.
    const double v = enclosed_volume(s);
    if (v < least) least = v, best = s;
  }
  return best;
}

// A box with hard nodes and hard edges between them inside: the edges run through the Delaunay
// mesh of the nodes and must be recovered by swaps, thinning and Steiner nodes.
input box_with_inner_edges(unsigned seed) {
  input s;
  add_box(s, 3);
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> u(0.1, 0.9);
  const unsigned first = unsigned(s.pts.size());
  for (unsigned k = 0; k < 60; ++k) {
    s.pts.push_back({u(gen), u(gen), u(gen)});
    s.nodes.push_back(first + k);
  }
  for (unsigned k = 0; k + 1 < 30; k += 2) s.edges.push_back({first + k, first + k + 1});
  return s;
}

}  // namespace

TEST(BoundaryRecovery, SharedSurfacesComeOutWhole) {
  const std::string dir = VOXFILL_SHARED_DATA;
  if (!std::ifstream(dir + "/cube.off")) GTEST_SKIP() << "no shared data at " << dir;
  for (const char* name : {"cube", "rotor", "sphere966", "handle", "elephant", "knot1", "femur",
                           "fandisk", "bunny00"}) {
    const input s = read_off(dir + "/" + name + ".off");
    ASSERT_FALSE(s.tris.empty()) << name;
    const data_type d = run(s);
    expect_whole(d, s, name);
    EXPECT_EQ(d.subdomains, 1u) << name;
  }
}

TEST(BoundaryRecovery, TwistedPrismNeedsASteinerNode) {
  const input s = twisted_prism(0.5);
  const data_type d = run(s);
  expect_whole(d, s, "twisted prism");
  EXPECT_GE(d.steiner_nodes, 1u);
  EXPECT_EQ(d.pos.cols, 6u + d.steiner_nodes);
  // The input's six nodes keep their places and numbers.
  for (unsigned n = 0; n < 6; ++n) EXPECT_EQ(at(d, n), s.pts[n]);
}

TEST(BoundaryRecovery, HardEdgesAndNodesInsideTheVolume) {
  for (unsigned seed : {1u, 2u, 3u}) {
    const input s = box_with_inner_edges(seed);
    const data_type d = run(s);
    expect_whole(d, s, "seed " + std::to_string(seed));
    // Equal input, equal mesh.
    const data_type again = run(s);
    ASSERT_EQ(again.connectM.cols, d.connectM.cols);
    ASSERT_EQ(again.pos.cols, d.pos.cols);
    for (unsigned t = 0; t < d.connectM.cols; ++t)
      for (unsigned i = 0; i < 4; ++i) ASSERT_EQ(d.connectM(i, t), again.connectM(i, t));
    for (unsigned n = 0; n < d.pos.cols; ++n) ASSERT_EQ(at(d, n), at(again, n));
  }
}

TEST(BoundaryRecovery, ConflictingInputEndsWithCodes) {
  // Two boxes that cut through each other; and a hard edge through a boundary face.
  input crossing;
  add_box(crossing, 1);
  add_box(crossing, 1);
  for (unsigned n = 8; n < 16; ++n)
    for (double& x : crossing.pts[n]) x = 0.5 + 0.8 * x;
  input pierced;
  add_box(pierced, 2);
  const unsigned a = unsigned(pierced.pts.size());
  pierced.pts.push_back({0.4, 0.45, 0.5});
  pierced.pts.push_back({1.6, 0.55, 0.5});
  pierced.edges.push_back({a, a + 1});
  for (const input* s : {&crossing, &pierced})
    for (bool strict : {true, false}) {
      const data_type d = run(*s, strict);
      // Something is reported, and what comes back is a sound mesh or nothing.
      EXPECT_TRUE(d.error_code != 0 || d.warning_code != 0) << strict;
      EXPECT_GT(d.missing_faces.size + d.missing_edges.size + d.missing_nodes.size +
                    d.conflicting_faces.size,
                0u)
          << strict;
      if (d.connectM.cols) {
        EXPECT_TRUE(sound(d));
      }
    }
}

TEST(BoundaryRecovery, InterruptionAtAnyPollLeavesASoundMesh) {
  const input s = box_with_inner_edges(4);
  struct poll_count {
    unsigned polls = 0, stop_at = 0;
  };
  auto hdl = [](void* p, double) {
    auto* c = static_cast<poll_count*>(p);
    return ++c->polls == c->stop_at;
  };
  poll_count total;
  const data_type whole = run(s, true, hdl, &total);
  ASSERT_GT(total.polls, 3u);
  for (unsigned k = 1; k <= total.polls; ++k) {
    poll_count c;
    c.stop_at = k;
    const data_type d = run(s, true, hdl, &c);
    // Calls that only report progress cannot stop the run, which then ends as without them.
    EXPECT_TRUE(d.warning_code == -10 || d.connectM.cols == whole.connectM.cols) << "poll " << k;
    if (d.connectM.cols) {
      EXPECT_TRUE(sound(d)) << "poll " << k;
    }
  }
}

TEST(BoundaryRecovery, CloudWithHardEntitiesKeepsItsNodes) {
  std::mt19937 gen(7);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  input s;
  for (unsigned k = 0; k < 300; ++k) s.pts.push_back({u(gen), u(gen), u(gen)});
  for (unsigned k = 0; k < 300; ++k) s.nodes.push_back(k);
  auto delaunay = [](input in) {
    mesher::settings_type st;
    st.mode = 2;
    st.optim_level = 0;
    data_type d = record_of(in);
    mesher(st).run(d);
    return d;
  };
  // Hard faces of a tet of four cloud nodes: recovered without a new node, or reported.
  input faces = s;
  faces.tris = {{0, 2, 1}, {0, 1, 3}, {1, 2, 3}, {0, 3, 2}};
  const data_type f = delaunay(faces);
  EXPECT_EQ(f.pos.cols, 300u);
  EXPECT_EQ(f.steiner_nodes, 0u);
  EXPECT_TRUE(sound(f));
  EXPECT_EQ(absent_by_coords(f, faces).faces, f.missing_faces.size + f.conflicting_faces.size);
  // A hard edge across the cloud has no way in without a Steiner node.
  input edge = s;
  edge.edges.push_back({0, 1});
  const data_type e = delaunay(edge);
  EXPECT_EQ(e.error_code, -103);
  EXPECT_STREQ(e.msg_title, "NODES LIMIT ERROR");
  EXPECT_NE(std::string(e.msg_text).find("line = 161"), std::string::npos) << e.msg_text;
  EXPECT_EQ(e.connectM.cols, 0u);
}

TEST(BoundaryRecovery, HardNodesOnOnePlace) {
  // Two listed nodes at one place, and a listed node on a corner of the boundary: the later one
  // in the order of the input gives way, and the pair is a conflict. Nodes apart by more than
  // the kernel's tolerance are all held.
  for (double gap : {0.0, 1e-15, 1e-12, 1e-9}) {
    input s;
    add_box(s, 2);
    const unsigned a = unsigned(s.pts.size());
    s.pts.push_back({0.3, 0.4, 0.5});
    s.pts.push_back({0.3 + gap, 0.4, 0.5});
    s.pts.push_back({gap, gap, gap});  // next to the box's corner at the origin
    s.nodes = {a, a + 1, a + 2};
    const bool apart = gap > 1e-13;
    for (bool strict : {false, true}) {
      const std::string what = "gap " + std::to_string(gap) + (strict ? ", strict" : "");
      const data_type d = run(s, strict);
      if (apart) {
        expect_whole(d, s, what);
        continue;
      }
      if (strict) {
        EXPECT_EQ(d.error_code, -104) << what;
        EXPECT_STREQ(d.msg_title, "NODE ERROR") << what;
        EXPECT_EQ(d.connectM.cols, 0u) << what;
        continue;
      }
      EXPECT_EQ(d.error_code, 0) << what;
      EXPECT_EQ(d.warning_code, -12) << what;
      ASSERT_EQ(d.missing_nodes.size, 2u) << what;
      EXPECT_EQ(d.missing_nodes[0], a + 1) << what;
      EXPECT_EQ(d.missing_nodes[1], a + 2) << what;
      EXPECT_TRUE(sound(d)) << what;
      const absent_count absent = absent_by_coords(d, s);
      EXPECT_EQ(absent.faces, 0u) << what;
      EXPECT_NEAR(mesh_volume(d), 1.0, 1e-12) << what;
    }
  }
}
