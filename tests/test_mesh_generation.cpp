// Volume meshing of a closed surface through the public interface: the boundary kept, the volume,
// subdomains by the rule, the caller's numbering, open and empty input, interruption and
// determinism; and the numbering of the nodes for locality.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "delaunay/geometry.h"
#include "delaunay/mesh_check.h"
#include "delaunay/tet_tables.h"
#include "mesh_fixtures.h"
#include "surface_fixtures.h"
#include "voxfill/mesher_th4.h"
#include "voxfill/node_ordering.h"

using kelvo::dense1D;
using kelvo::dense2D;
using kelvo::voxfill::mesher;
using data_type = mesher::data_type;
using point = std::array<double, 3>;
using triangle = std::array<unsigned, 3>;

namespace {

constexpr unsigned NONE = 0xFFFFFFFFu;

using surface = surfaces::input;
using surfaces::add_ellipsoid;
using surfaces::record_of;

// The volume that the triangles enclose (outward), by the divergence theorem.
double enclosed_volume(const surface& s, unsigned first_tri, unsigned count) {
  double v = 0.0;
  for (unsigned k = first_tri; k < first_tri + count; ++k) {
    const triangle& f = s.tris[k];
    const point &a = s.pts[f[0]], &b = s.pts[f[1]], &c = s.pts[f[2]];
    v += a[0] * (b[1] * c[2] - b[2] * c[1]) - a[1] * (b[0] * c[2] - b[2] * c[0]) +
         a[2] * (b[0] * c[1] - b[1] * c[0]);
  }
  return std::abs(v) / 6.0;
}

mesher::settings_type plain_settings() {
  mesher::settings_type st;
  st.refine = false;
  st.optim_level = 0;
  return st;
}

struct message_log {
  std::string all;
  static void hdl(void* p, unsigned level, const char* text) {
    EXPECT_EQ(level, 0u);
    static_cast<message_log*>(p)->all += text;
  }
};

data_type run(const surface& s, mesher::settings_type st, message_log* log = nullptr) {
  data_type d = record_of(s);
  if (log) {
    st.display_hdl = message_log::hdl;
    st.pass_thru = log;
  }
  mesher(st).run(d);
  return d;
}

double tet_volume(const data_type& d, unsigned t) {
  return kelvo::voxfill::orient_det(d.pos.col(d.connectM(0, t)), d.pos.col(d.connectM(1, t)),
                                    d.pos.col(d.connectM(2, t)), d.pos.col(d.connectM(3, t))) /
         6.0;
}

// The output put through the library's checker (positive tets, links, conformity, ancestors,
// stored qualities), plus what it does not see: counts, volume, ancestors of unused nodes.
void expect_sound_mesh(const data_type& d) {
  const unsigned m = d.connectM.cols;
  ASSERT_EQ(d.tet_count, m);
  ASSERT_EQ(d.neighbors.cols, m);
  ASSERT_EQ(d.colors.size, m);
  ASSERT_EQ(d.shape_qualities.size, m);
  ASSERT_EQ(d.ancestors.size, d.pos.cols);
  EXPECT_TRUE(fixtures::output_sound(d));
  double volume = 0.0;
  for (unsigned t = 0; t < m; ++t) volume += tet_volume(d, t);
  EXPECT_NEAR(d.volume, volume, 1e-9 * std::max(1.0, std::abs(volume)));
  std::vector<bool> held(d.pos.cols, false);
  for (unsigned t = 0; t < m; ++t)
    for (unsigned k = 0; k < 4; ++k) held[d.connectM(k, t)] = true;
  for (unsigned n = 0; n < d.ancestors.size; ++n)
    EXPECT_EQ(d.ancestors[n] != NONE, bool(held[n])) << "node " << n;
}

using coord_face = std::array<point, 3>;

coord_face face_by_coords(const data_type& d, unsigned a, unsigned b, unsigned c) {
  coord_face f;
  const unsigned n[3] = {a, b, c};
  for (unsigned k = 0; k < 3; ++k) f[k] = {d.pos(0, n[k]), d.pos(1, n[k]), d.pos(2, n[k])};
  std::sort(f.begin(), f.end());
  return f;
}

// The input triangles that no output tet has as a face, compared by node coordinates.
unsigned faces_absent_by_coords(const data_type& d, const surface& s) {
  std::set<coord_face> faces;
  for (unsigned t = 0; t < d.connectM.cols; ++t)
    for (unsigned f = 0; f < 4; ++f) {
      const unsigned* fn = kelvo::voxfill::tet_face_nodes[f];
      faces.insert(
          face_by_coords(d, d.connectM(fn[0], t), d.connectM(fn[1], t), d.connectM(fn[2], t)));
    }
  unsigned absent = 0;
  for (const triangle& t : s.tris) {
    coord_face f;
    for (unsigned k = 0; k < 3; ++k) f[k] = s.pts[t[k]];
    std::sort(f.begin(), f.end());
    absent += !faces.count(f);
  }
  return absent;
}

// The same by node indices: the mesh must speak the caller's numbering.
unsigned faces_absent_by_index(const data_type& d, const surface& s) {
  std::set<triangle> faces;
  for (unsigned t = 0; t < d.connectM.cols; ++t)
    for (unsigned f = 0; f < 4; ++f) {
      const unsigned* fn = kelvo::voxfill::tet_face_nodes[f];
      triangle k = {d.connectM(fn[0], t), d.connectM(fn[1], t), d.connectM(fn[2], t)};
      std::sort(k.begin(), k.end());
      faces.insert(k);
    }
  unsigned absent = 0;
  for (triangle t : s.tris) {
    std::sort(t.begin(), t.end());
    absent += !faces.count(t);
  }
  return absent;
}

// True when the first columns of `pos` are the points of `s`, bit for bit.
bool input_columns_kept(const data_type& d, const surface& s) {
  if (d.pos.cols < s.pts.size()) return false;
  for (unsigned j = 0; j < s.pts.size(); ++j)
    for (unsigned i = 0; i < 3; ++i)
      if (d.pos(i, j) != s.pts[j][i]) return false;
  return true;
}

bool boundary_kept(const data_type& d, const surface& s) {
  if (d.connectB.cols != s.tris.size()) return false;
  for (unsigned j = 0; j < s.tris.size(); ++j)
    for (unsigned i = 0; i < 3; ++i)
      if (d.connectB(i, j) != s.tris[j][i]) return false;
  return true;
}

surface ellipsoid(unsigned levels) {
  surface s;
  add_ellipsoid(s, levels, {1.0, 0.9, 0.8}, {0.1, -0.2, 0.05}, true);
  return s;
}

// An ellipsoid with a smaller one inside, both of level 3; the inner one turned as asked.
surface nested(bool inner_outward) {
  surface s;
  add_ellipsoid(s, 3, {1.0, 0.9, 0.8}, {0.0, 0.0, 0.0}, true);
  add_ellipsoid(s, 3, {0.45, 0.4, 0.35}, {0.05, 0.02, -0.03}, inner_outward);
  return s;
}

bool inside_inner(const data_type& d, unsigned t) {
  double c[3] = {0, 0, 0};
  for (unsigned k = 0; k < 4; ++k)
    for (unsigned i = 0; i < 3; ++i) c[i] += 0.25 * d.pos(i, d.connectM(k, t));
  const double x = (c[0] - 0.05) / 0.45, y = (c[1] - 0.02) / 0.4, z = (c[2] + 0.03) / 0.35;
  return x * x + y * y + z * z < 1.0;
}

}  // namespace

// An empty boundary: nothing happens, not even a message; the run is timed all the same.
TEST(MeshGeneration, EmptyBoundaryDoesNothing) {
  surface s = ellipsoid(1);
  data_type d = record_of(s);
  d.connectB = dense2D<unsigned>();
  d.isolated_nodes.push_back(3);  // hard entities without a boundary: still nothing
  d.total_time = -1.0;
  for (bool refine : {false, true}) {
    message_log log;
    mesher::settings_type st;
    st.refine = refine;
    st.display_hdl = message_log::hdl;
    st.pass_thru = &log;
    mesher(st).run(d);
    EXPECT_EQ(log.all, "");
    EXPECT_EQ(d.error_code, 0);
    EXPECT_EQ(d.warning_code, 0);
    EXPECT_EQ(d.msg_title[0], '\0');
    EXPECT_TRUE(d.connectM.empty());
    EXPECT_EQ(d.tet_count, 0u);
    EXPECT_GE(d.total_time, 0.0);
    EXPECT_TRUE(input_columns_kept(d, s));
    EXPECT_EQ(d.pos.cols, s.pts.size());
    ASSERT_EQ(d.isolated_nodes.size, 1u);
    EXPECT_EQ(d.isolated_nodes[0], 3u);
  }
}

// A surface with a hole: the not-watertight warning, no volume, no mesh, nothing refined or
// regularised, and the record's tables given back as they came.
TEST(MeshGeneration, OpenSurfaceIsNotWatertight) {
  surface s = ellipsoid(3);
  s.tris.erase(s.tris.begin() + 17);
  for (const mesher::settings_type& st : {plain_settings(), mesher::settings_type()}) {
    message_log log;
    const data_type d = run(s, st, &log);
    EXPECT_EQ(d.error_code, 0);
    EXPECT_EQ(d.warning_code, -15);
    EXPECT_STREQ(d.msg_title, "BOUNDARY MESH IS NOT WATERTIGHT");
    EXPECT_EQ(d.volume, 0.0);
    EXPECT_EQ(d.subdomains, 0u);
    EXPECT_TRUE(d.connectM.empty());
    EXPECT_EQ(d.min_quality, 0.0);
    EXPECT_EQ(log.all, "Initialization.\nFront mesh.\nFinalize mesh.\n");
    EXPECT_TRUE(input_columns_kept(d, s));
    EXPECT_TRUE(boundary_kept(d, s));
  }
}

// An error before the end hands over no mesh, and the record's input as it came: here a nodes
// limit below the count of hard nodes, with the numbering for locality on.
TEST(MeshGeneration, ErrorLeavesNoMesh) {
  const surface s = ellipsoid(2);
  data_type d = record_of(s);
  dense1D<double> metrics;
  metrics.resize(unsigned(s.pts.size()), 0.0);
  for (unsigned j = 0; j < s.pts.size(); ++j) metrics[j] = 0.2 + 0.001 * j;
  d.metrics = metrics;
  message_log log;
  mesher::settings_type st;
  st.nodes_limit = 20;
  st.display_hdl = message_log::hdl;
  st.pass_thru = &log;
  mesher(st).run(d);
  EXPECT_EQ(d.error_code, -103);
  EXPECT_TRUE(d.connectM.empty());
  EXPECT_EQ(d.tet_count, 0u);
  EXPECT_EQ(d.min_quality, 0.0);
  EXPECT_EQ(log.all, "Initialization.\n");
  EXPECT_TRUE(input_columns_kept(d, s));
  EXPECT_EQ(d.pos.cols, s.pts.size());
  EXPECT_TRUE(boundary_kept(d, s));
  // The record's sizes are the run's (none were made); the caller's array is left alone.
  EXPECT_GE(d.metrics.size, unsigned(s.pts.size()));
  for (unsigned j = 0; j < s.pts.size(); ++j) EXPECT_EQ(metrics[j], 0.2 + 0.001 * j) << j;
}

// A convex surface with Delaunay triangles, no refinement and no optimisation: the Delaunay mesh
// of its nodes inside it, every triangle a face, the enclosed volume, one subdomain, and only the
// messages of the two phases that ran.
TEST(MeshGeneration, ConvexSurfaceKeepsEveryFace) {
  const surface s = ellipsoid(3);
  message_log log;
  const data_type d = run(s, plain_settings(), &log);
  EXPECT_EQ(d.error_code, 0) << d.msg_title;
  EXPECT_TRUE(d.warning_code == 0 || d.warning_code == -16) << d.msg_title;
  EXPECT_EQ(log.all, "Initialization.\nFront mesh.\nFinalize mesh.\n");
  expect_sound_mesh(d);
  EXPECT_EQ(faces_absent_by_coords(d, s), 0u);
  const double enclosed = enclosed_volume(s, 0, unsigned(s.tris.size()));
  EXPECT_NEAR(d.volume, enclosed, 1e-9 * enclosed);
  EXPECT_EQ(d.subdomains, 1u);
  for (unsigned c : d.colors) EXPECT_EQ(c, 0u);
  EXPECT_NE(d.boundary_sign, 0);
  EXPECT_TRUE(d.missing_faces.empty());
  EXPECT_TRUE(d.missing_nodes.empty());
  EXPECT_EQ(d.steiner_nodes, 0u);
  EXPECT_EQ(d.hard_faces_in, s.tris.size());
  EXPECT_EQ(d.hard_faces_out, s.tris.size());
  EXPECT_EQ(d.hard_nodes_out, s.pts.size());
  // No node was made and none lost: the box and its shell are gone.
  EXPECT_EQ(d.pos.cols, s.pts.size());
  EXPECT_EQ(d.used_node_count, s.pts.size());
  EXPECT_TRUE(input_columns_kept(d, s));
  EXPECT_GT(d.min_quality, 0.0);
  EXPECT_GT(d.quality_bound, 0.0);
  for (unsigned k = 0; k < 3; ++k) EXPECT_LT(d.hard_box_min[k], d.hard_box_max[k]);
  EXPECT_DOUBLE_EQ(d.hard_box_max[0] - d.hard_box_min[0], 2.0);
  EXPECT_GE(d.front_time, 0.0);
}

// The tets turned the other way when asked; the same mesh otherwise.
TEST(MeshGeneration, NegativeOrientation) {
  const surface s = ellipsoid(2);
  mesher::settings_type st = plain_settings();
  const data_type a = run(s, st);
  st.positive_orientation = false;
  const data_type b = run(s, st);
  ASSERT_EQ(a.connectM.cols, b.connectM.cols);
  ASSERT_GT(a.connectM.cols, 0u);
  for (unsigned t = 0; t < a.connectM.cols; ++t) {
    EXPECT_GT(tet_volume(a, t), 0.0);
    EXPECT_LT(tet_volume(b, t), 0.0);
  }
  EXPECT_EQ(a.volume, b.volume);
}

// With refinement asked for (the nodes then renumbered for the run) and the optimiser on, the
// caller gets the mesh in its own numbering: the input columns of pos as they were, connectM on
// them, ancestors and missing nodes by the caller's indices, the input tables unchanged. A free
// node stays unused, a hard node inside is held, one outside is reported missing.
TEST(MeshGeneration, CallersNumberingComesBack) {
  surface s = ellipsoid(3);
  // Nodes that the walk over the boundary would put elsewhere: in the middle of the columns.
  const unsigned inside = 100, outside = 200, free_node = 300;
  s.pts.insert(s.pts.begin() + inside, {0.12, -0.15, 0.1});
  s.pts.insert(s.pts.begin() + outside, {2.0, 0.3, 0.1});
  s.pts.insert(s.pts.begin() + free_node, {0.3, 0.2, -0.1});
  for (auto& t : s.tris)
    for (unsigned& v : t) v += (v >= inside) + (v >= outside - 1) + (v >= free_node - 2);
  data_type d = record_of(s);
  d.isolated_nodes.push_back(outside);
  d.isolated_nodes.push_back(inside);
  dense1D<double> metrics;
  metrics.resize(unsigned(s.pts.size()), 0.0);
  for (unsigned j = 0; j < s.pts.size(); ++j) metrics[j] = 0.3 + 0.001 * j;
  dense1D<double> caller_metrics;
  caller_metrics.copy(metrics);
  d.metrics = metrics;
  message_log log;
  mesher::settings_type st;  // refine on, optim_level 3
  st.display_hdl = message_log::hdl;
  st.pass_thru = &log;
  mesher(st).run(d);
  EXPECT_EQ(d.error_code, 0) << d.msg_title;
  EXPECT_EQ(d.warning_code, -12) << d.msg_title;  // the hard node outside
  EXPECT_EQ(log.all,
            "Initialization.\nFront mesh.\nRefine mesh.\nRegularize mesh.\nFinalize mesh.\n");
  expect_sound_mesh(d);
  EXPECT_TRUE(input_columns_kept(d, s));
  EXPECT_TRUE(boundary_kept(d, s));
  ASSERT_EQ(d.isolated_nodes.size, 2u);
  EXPECT_EQ(d.isolated_nodes[0], outside);
  EXPECT_EQ(d.isolated_nodes[1], inside);
  EXPECT_EQ(faces_absent_by_index(d, s), 0u);
  const double enclosed = enclosed_volume(s, 0, unsigned(s.tris.size()));
  EXPECT_NEAR(d.volume, enclosed, 1e-9 * enclosed);
  ASSERT_EQ(d.missing_nodes.size, 1u);
  EXPECT_EQ(d.missing_nodes[0], outside);
  EXPECT_EQ(d.ancestors[outside], NONE);
  EXPECT_EQ(d.ancestors[free_node], NONE);
  ASSERT_NE(d.ancestors[inside], NONE);
  const unsigned t = d.ancestors[inside];
  EXPECT_TRUE(d.connectM(0, t) == inside || d.connectM(1, t) == inside ||
              d.connectM(2, t) == inside || d.connectM(3, t) == inside);
  // The sizes per node come back by the caller's columns: the caller's own above 0 win.
  ASSERT_GE(d.metrics.size, unsigned(s.pts.size()));
  for (unsigned v : {0u, inside, 150u, 400u}) EXPECT_EQ(d.metrics[v], caller_metrics[v]);
  for (unsigned j = 0; j < s.pts.size(); ++j) EXPECT_EQ(metrics[j], caller_metrics[j]) << j;
}

// Two nested surfaces: the shell and the inner body by the subdomain rule and the inner
// surface's orientation; colours by where the tets lie, volumes by what the surfaces enclose.
TEST(MeshGeneration, NestedSurfacesGiveSubdomainsByRule) {
  struct expectation {
    bool inner_outward;
    unsigned rule;
    unsigned subdomains;
    unsigned inner_colour;  // NONE: the inner body is not meshed
  };
  const expectation cases[] = {
      {true, 0, 2, 1},                           // same orientation: a second subdomain
      {false, 0, 1, NONE},                       // turned inwards: a hole
      {true, 1, 2, 1},     {false, 1, 2, 1},     // every region a subdomain
      {true, 2, 1, NONE},  {false, 2, 1, NONE},  // only the first region entered
  };
  for (const expectation& e : cases) {
    SCOPED_TRACE("inner outward " + std::to_string(e.inner_outward) + ", rule " +
                 std::to_string(e.rule));
    const surface s = nested(e.inner_outward);
    const unsigned outer_tris = unsigned(s.tris.size() / 2);
    mesher::settings_type st = plain_settings();
    st.subdomain_rule = e.rule;
    const data_type d = run(s, st);
    EXPECT_EQ(d.error_code, 0) << d.msg_title;
    expect_sound_mesh(d);
    EXPECT_EQ(d.subdomains, e.subdomains);
    const double outer = enclosed_volume(s, 0, outer_tris);
    const double inner = enclosed_volume(s, outer_tris, outer_tris);
    double by_colour[2] = {0.0, 0.0};
    unsigned wrong = 0;
    for (unsigned t = 0; t < d.connectM.cols; ++t) {
      const unsigned c = d.colors[t];
      ASSERT_LT(c, 2u);
      by_colour[c] += tet_volume(d, t);
      wrong += c != (inside_inner(d, t) ? e.inner_colour : 0u);
    }
    EXPECT_EQ(wrong, 0u);
    EXPECT_NEAR(by_colour[0], outer - inner, 1e-9 * outer);
    EXPECT_NEAR(by_colour[1], e.inner_colour == 1 ? inner : 0.0, 1e-9 * outer);
    EXPECT_NEAR(d.volume, by_colour[0] + by_colour[1], 1e-9 * outer);
    // Every face is in the mesh when both sides are; a hole keeps its wall as the skin.
    EXPECT_EQ(faces_absent_by_coords(d, s), 0u);
    EXPECT_TRUE(d.missing_faces.empty());
  }
}

// Equal input, equal output, bit for bit, with the numbering for locality and the optimiser on.
TEST(MeshGeneration, Deterministic) {
  const surface s = nested(true);
  const data_type a = run(s, mesher::settings_type());
  const data_type b = run(s, mesher::settings_type());
  EXPECT_EQ(a.error_code, 0) << a.msg_title;
  ASSERT_GT(a.connectM.cols, 0u);
  auto same = [](const auto& x, const auto& y) {
    return x.size == y.size && std::equal(x.begin(), x.end(), y.begin());
  };
  auto same2 = [](const auto& x, const auto& y) {
    if (x.rows != y.rows || x.cols != y.cols) return false;
    for (unsigned j = 0; j < x.cols; ++j)
      for (unsigned i = 0; i < x.rows; ++i)
        if (!(x(i, j) == y(i, j))) return false;
    return true;
  };
  EXPECT_TRUE(same2(a.pos, b.pos));
  EXPECT_TRUE(same2(a.connectM, b.connectM));
  EXPECT_TRUE(same2(a.neighbors, b.neighbors));
  EXPECT_TRUE(same(a.colors, b.colors));
  EXPECT_TRUE(same(a.ancestors, b.ancestors));
  EXPECT_TRUE(same(a.shape_qualities, b.shape_qualities));
  EXPECT_TRUE(same(a.metrics, b.metrics));
  EXPECT_EQ(a.volume, b.volume);
  EXPECT_EQ(a.min_quality, b.min_quality);
  EXPECT_EQ(a.quality_bound, b.quality_bound);
}

// An interruption before the tets are sorted leaves nothing to hand over: warning -10, no tets,
// the record's tables as they came. Stopped at any later poll, the mesh is whole.
TEST(MeshGeneration, Interruption) {
  const surface s = ellipsoid(2);
  for (const mesher::settings_type& base : {plain_settings(), mesher::settings_type()}) {
    // Told to stop at every poll: stops in the front phase.
    {
      mesher::settings_type st = base;
      st.interrupt_hdl = [](void*, double) { return true; };
      message_log log;
      const data_type d = run(s, st, &log);
      EXPECT_EQ(d.error_code, 0);
      EXPECT_EQ(d.warning_code, -10);
      EXPECT_TRUE(d.connectM.empty());
      EXPECT_EQ(d.tet_count, 0u);
      EXPECT_EQ(log.all, "Initialization.\nFinalize mesh.\n");
      EXPECT_TRUE(input_columns_kept(d, s));
      EXPECT_TRUE(boundary_kept(d, s));
    }
    // Stopped at the k-th call of the handler, for every k that comes.
    struct counter {
      unsigned calls = 0, stop_at = 0;
      double progress_at_stop = -1.0;
    };
    bool finished = false;
    unsigned empty = 0, whole = 0;
    for (unsigned k = 1; k < 2000 && !finished; ++k) {
      counter c;
      c.stop_at = k;
      mesher::settings_type st = base;
      st.pass_thru = &c;
      st.interrupt_hdl = [](void* p, double progress) {
        counter& c = *static_cast<counter*>(p);
        if (++c.calls != c.stop_at) return false;
        c.progress_at_stop = progress;
        return true;
      };
      const data_type d = run(s, st);
      EXPECT_EQ(d.error_code, 0);
      EXPECT_TRUE(input_columns_kept(d, s));
      EXPECT_TRUE(boundary_kept(d, s));
      if (c.calls < k) {  // no k-th call: every poll has been tried
        finished = true;
        break;
      }
      if (d.warning_code != -10) continue;  // a call whose answer is not read
      // Polls under 0.01 + 0.09 + 0.1 of the run come before the recovery's bar is closed, so
      // before the tets are sorted.
      if (c.progress_at_stop < 0.2 - 1e-9) {
        EXPECT_TRUE(d.connectM.empty()) << "poll " << k;
      }
      if (d.connectM.empty()) {
        ++empty;
        continue;
      }
      ++whole;
      expect_sound_mesh(d);
      EXPECT_EQ(faces_absent_by_index(d, s), 0u) << "poll " << k;
    }
    EXPECT_TRUE(finished);
    EXPECT_GT(empty, 0u);
    // The optimiser polls after the sort: stopped there, the mesh is handed over.
    if (base.optim_level != 0) {
      EXPECT_GT(whole, 0u);
    }
  }
}

// The numbering for locality: free nodes first by index, then the boundary by a walk from a far
// end of its strip, then the nodes of hard edges, then the hard nodes; rank inverts order.
TEST(MeshGeneration, NodeOrdering) {
  data_type d;
  ASSERT_TRUE(d.pos.resize(3, 10));
  const unsigned strip[6] = {6, 2, 7, 3, 5, 4};
  ASSERT_TRUE(d.connectB.resize(3, 4));
  for (unsigned j = 0; j < 4; ++j)
    for (unsigned i = 0; i < 3; ++i) d.connectB(i, j) = strip[j + i];
  ASSERT_TRUE(d.connectE.resize(2, 1));
  d.connectE(0, 0) = 8;
  d.connectE(1, 0) = 3;
  d.isolated_nodes.push_back(9);
  d.isolated_nodes.push_back(8);
  dense1D<unsigned> order, rank;
  kelvo::voxfill::msg failure = kelvo::voxfill::msg::count;
  ASSERT_TRUE(kelvo::voxfill::order_nodes(d, 10, order, rank, failure));
  const std::vector<unsigned> expected = {0, 1, 4, 5, 3, 7, 2, 6, 8, 9};
  ASSERT_EQ(order.size, 10u);
  ASSERT_EQ(rank.size, 10u);
  EXPECT_EQ(std::vector<unsigned>(order.begin(), order.end()), expected);
  for (unsigned i = 0; i < 10; ++i) EXPECT_EQ(rank[order[i]], i);

  // Two pieces: each walked whole before the next, from the first node of smallest degree.
  data_type two;
  ASSERT_TRUE(two.pos.resize(3, 7));
  ASSERT_TRUE(two.connectB.resize(3, 3));
  const unsigned tris[3][3] = {{4, 5, 6}, {0, 1, 2}, {0, 2, 3}};
  for (unsigned j = 0; j < 3; ++j)
    for (unsigned i = 0; i < 3; ++i) two.connectB(i, j) = tris[j][i];
  ASSERT_TRUE(kelvo::voxfill::order_nodes(two, 7, order, rank, failure));
  ASSERT_EQ(order.size, 7u);
  // Nodes 1 and 3 have degree 2 in the quad piece, as have 4, 5, 6: node 1 starts, its far
  // node 3 is found, and the search from 3 ends on 1.
  const std::vector<unsigned> pieces = {1, 0, 2, 3, 4, 5, 6};
  EXPECT_EQ(std::vector<unsigned>(order.begin(), order.end()), pieces);
}
