// Boundary recovery through volume meshing without refinement: every boundary triangle, hard
// edge and hard node of the input in a sound mesh of the enclosed volume, on the shared surfaces
// and on cases built to need Steiner nodes; conflicting input ends with codes, never a hang;
// interruption at any poll and determinism.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "delaunay/mesh_check.h"
#include "delaunay/tet_tables.h"
#include "mesh_fixtures.h"
#include "voxfill/mesher_th4.h"

using kelvo::dense1D;
using kelvo::dense2D;
using kelvo::voxfill::mesher;
using data_type = mesher::data_type;
using point = std::array<double, 3>;
using triangle = std::array<unsigned, 3>;

namespace {

struct input {
  std::vector<point> pts;
  std::vector<triangle> tris;
  std::vector<std::array<unsigned, 2>> edges;
  std::vector<unsigned> nodes;
};

// The volume the triangles enclose, by the divergence theorem.
double enclosed_volume(const input& s) {
  double v = 0.0;
  for (const triangle& f : s.tris) {
    const point &a = s.pts[f[0]], &b = s.pts[f[1]], &c = s.pts[f[2]];
    v += a[0] * (b[1] * c[2] - b[2] * c[1]) - a[1] * (b[0] * c[2] - b[2] * c[0]) +
         a[2] * (b[0] * c[1] - b[1] * c[0]);
  }
  return std::abs(v) / 6.0;
}

data_type record_of(const input& s) {
  dense2D<double> pos(3, unsigned(s.pts.size()));
  for (unsigned j = 0; j < s.pts.size(); ++j)
    for (unsigned i = 0; i < 3; ++i) pos(i, j) = s.pts[j][i];
  dense2D<unsigned> B(3, unsigned(s.tris.size()));
  for (unsigned j = 0; j < s.tris.size(); ++j)
    for (unsigned i = 0; i < 3; ++i) B(i, j) = s.tris[j][i];
  data_type d(pos, B);
  d.connectE.resize(2, unsigned(s.edges.size()));
  for (unsigned j = 0; j < s.edges.size(); ++j)
    for (unsigned i = 0; i < 2; ++i) d.connectE(i, j) = s.edges[j][i];
  for (unsigned n : s.nodes) d.isolated_nodes.push_back(n);
  return d;
}

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

::testing::AssertionResult sound(const data_type& d) {
  kelvo::voxfill::mesh_store m;
  if (!fixtures::load_output(m, d)) return ::testing::AssertionFailure() << "tables disagree";
  kelvo::voxfill::mesh_check_options o;
  o.positive_quality = o.stored_qualities = true;
  const kelvo::voxfill::mesh_check_result r = kelvo::voxfill::check_mesh(m, o);
  if (!r.ok) return ::testing::AssertionFailure() << r.text;
  return ::testing::AssertionSuccess();
}

point at(const data_type& d, unsigned n) {
  return {d.pos(0, n), d.pos(1, n), d.pos(2, n)};
}

// What of the input the mesh lacks, compared by coordinates: triangles, edges, nodes.
struct absent_count {
  unsigned faces = 0, edges = 0, nodes = 0;
};

absent_count absent_by_coords(const data_type& d, const input& s) {
  std::set<std::array<point, 3>> faces;
  std::set<std::array<point, 2>> edges;
  std::set<point> nodes;
  for (unsigned t = 0; t < d.connectM.cols; ++t) {
    for (unsigned f = 0; f < 4; ++f) {
      const unsigned* fn = kelvo::voxfill::tet_face_nodes[f];
      std::array<point, 3> k = {at(d, d.connectM(fn[0], t)), at(d, d.connectM(fn[1], t)),
                                at(d, d.connectM(fn[2], t))};
      std::sort(k.begin(), k.end());
      faces.insert(k);
    }
    for (unsigned i = 0; i < 4; ++i) {
      nodes.insert(at(d, d.connectM(i, t)));
      for (unsigned j = i + 1; j < 4; ++j) {
        std::array<point, 2> k = {at(d, d.connectM(i, t)), at(d, d.connectM(j, t))};
        std::sort(k.begin(), k.end());
        edges.insert(k);
      }
    }
  }
  absent_count a;
  for (const triangle& t : s.tris) {
    std::array<point, 3> k = {s.pts[t[0]], s.pts[t[1]], s.pts[t[2]]};
    std::sort(k.begin(), k.end());
    a.faces += !faces.count(k);
  }
  for (const auto& e : s.edges) {
    std::array<point, 2> k = {s.pts[e[0]], s.pts[e[1]]};
    std::sort(k.begin(), k.end());
    a.edges += !edges.count(k);
  }
  for (unsigned n : s.nodes) a.nodes += !nodes.count(s.pts[n]);
  return a;
}

double mesh_volume(const data_type& d) {
  double v = 0.0;
  for (unsigned t = 0; t < d.connectM.cols; ++t)
    v += kelvo::voxfill::orient_det(d.pos.col(d.connectM(0, t)), d.pos.col(d.connectM(1, t)),
                                    d.pos.col(d.connectM(2, t)), d.pos.col(d.connectM(3, t)));
  return std::abs(v) / 6.0;
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

// The surface of the box [0, 1]^3, each side split into k x k squares of two triangles.
void add_box(input& s, unsigned k) {
  const unsigned first = unsigned(s.pts.size());
  auto node = [&](point p) {
    for (unsigned j = first; j < s.pts.size(); ++j)
      if (s.pts[j] == p) return j;
    s.pts.push_back(p);
    return unsigned(s.pts.size() - 1);
  };
  for (unsigned axis = 0; axis < 3; ++axis)
    for (unsigned side = 0; side < 2; ++side)
      for (unsigned i = 0; i < k; ++i)
        for (unsigned j = 0; j < k; ++j) {
          unsigned q[4];
          const double u[4] = {double(i), double(i + 1), double(i + 1), double(i)};
          const double v[4] = {double(j), double(j), double(j + 1), double(j + 1)};
          for (unsigned c = 0; c < 4; ++c) {
            point p;
            p[axis] = side;
            p[(axis + 1) % 3] = u[c] / k;
            p[(axis + 2) % 3] = v[c] / k;
            q[c] = node(p);
          }
          if (side) {
            s.tris.push_back({q[0], q[1], q[2]});
            s.tris.push_back({q[0], q[2], q[3]});
          } else {
            s.tris.push_back({q[0], q[2], q[1]});
            s.tris.push_back({q[0], q[3], q[2]});
          }
        }
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

input read_off(const std::string& path) {
  input s;
  std::ifstream file(path);
  // Comment lines out, then plain whitespace-separated fields.
  std::stringstream in;
  for (std::string line; std::getline(file, line);)
    if (line.empty() || line[0] != '#') in << line << '\n';
  std::string head;
  unsigned nv = 0, nf = 0, ne = 0;
  if (!(in >> head >> nv >> nf >> ne) || head != "OFF") return s;
  s.pts.resize(nv);
  for (point& p : s.pts) in >> p[0] >> p[1] >> p[2];
  for (unsigned f = 0; f < nf; ++f) {
    unsigned k = 0, a = 0, b = 0, c = 0;
    in >> k >> a >> b >> c;
    s.tris.push_back({a, b, c});
    for (unsigned i = 3; i < k; ++i) {
      b = c;
      in >> c;
      s.tris.push_back({a, b, c});
    }
  }
  if (!in) s = input();
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
