// A background mesh drives the sizes through the public interface: the size where the background
// says, the refusal of a background that is not a mesh with its exact message, a node shared with
// the mesh being made, the mesh of the front as background, both modes, and determinism.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "delaunay/geometry.h"
#include "mesh_fixtures.h"
#include "surface_fixtures.h"
#include "voxfill/mesher_th4.h"

using kelvo::dense1D;
using kelvo::dense2D;
using kelvo::voxfill::mesher;
using data_type = mesher::data_type;
using point = std::array<double, 3>;

namespace {

constexpr const char* kRefusedTitle = "BACKGROUND MESH IS NOT VALID";
constexpr const char* kRefusedText = "\nFile = voxfill/delaunay_th4.cpp, line = 780.\n";

// A grid on the planes xs x ys x zs, its nodes appended to `pts`, each cell split into six tets
// around its diagonal from the lowest to the highest corner (the splits match across cells). The
// tets are positive.
std::vector<std::array<unsigned, 4>> grid_tets(std::vector<point>& pts,
                                               const std::vector<double>& xs,
                                               const std::vector<double>& ys,
                                               const std::vector<double>& zs) {
  const unsigned first = unsigned(pts.size());
  const unsigned nx = unsigned(xs.size()), ny = unsigned(ys.size());
  for (double z : zs)
    for (double y : ys)
      for (double x : xs) pts.push_back({x, y, z});
  auto id = [&](unsigned i, unsigned j, unsigned k) { return first + i + nx * (j + ny * k); };
  std::vector<std::array<unsigned, 4>> tets;
  for (unsigned k = 0; k + 1 < zs.size(); ++k)
    for (unsigned j = 0; j + 1 < ys.size(); ++j)
      for (unsigned i = 0; i + 1 < xs.size(); ++i) {
        unsigned axes[3] = {0, 1, 2};
        do {
          unsigned c[3] = {i, j, k};
          std::array<unsigned, 4> t;
          t[0] = id(c[0], c[1], c[2]);
          for (unsigned s = 0; s < 2; ++s) {
            ++c[axes[s]];
            t[s + 1] = id(c[0], c[1], c[2]);
          }
          t[3] = id(i + 1, j + 1, k + 1);
          const point &a = pts[t[0]], &b = pts[t[1]], &d = pts[t[2]], &e = pts[t[3]];
          if (kelvo::voxfill::orient_det(a.data(), b.data(), d.data(), e.data()) < 0.0)
            std::swap(t[1], t[2]);
          tets.push_back(t);
        } while (std::next_permutation(axes, axes + 3));
      }
  return tets;
}

dense2D<unsigned> table_of(const std::vector<std::array<unsigned, 4>>& tets) {
  dense2D<unsigned> t(4, unsigned(tets.size()));
  for (unsigned j = 0; j < tets.size(); ++j)
    for (unsigned i = 0; i < 4; ++i) t(i, j) = tets[j][i];
  return t;
}

dense2D<double> pos_of(const std::vector<point>& pts) {
  dense2D<double> pos(3, unsigned(pts.size()));
  for (unsigned j = 0; j < pts.size(); ++j)
    for (unsigned i = 0; i < 3; ++i) pos(i, j) = pts[j][i];
  return pos;
}

// The surface of the unit cube and, behind its nodes, a background grid over the same cube whose
// size is `coarse` up to x = 0.45 and half of it from x = 0.55 on.
struct halved_case {
  surfaces::input surface;
  data_type record;
  unsigned background_first = 0;
};

// With `shared`, a node of the grid at the place of a node of the surface is that node.
halved_case halved_cube(double coarse, bool shared = false) {
  halved_case c;
  surfaces::add_box(c.surface, 4);
  c.record = surfaces::record_of(c.surface);
  std::vector<point> pts = c.surface.pts;
  c.background_first = unsigned(pts.size());
  const std::vector<double> xs = {0.0, 0.25, 0.45, 0.55, 0.75, 1.0}, yz = {0.0, 0.5, 1.0};
  auto tets = grid_tets(pts, xs, yz, yz);
  if (shared)
    for (auto& t : tets)
      for (unsigned& v : t) {
        const auto at = std::find(pts.begin(), pts.begin() + c.background_first, pts[v]);
        if (at != pts.begin() + c.background_first) v = unsigned(at - pts.begin());
      }
  c.record.pos = pos_of(pts);
  c.record.background_mesh = table_of(tets);
  dense1D<double> metrics(unsigned(pts.size()), 0.0);
  for (const auto& t : tets)
    for (unsigned v : t) metrics[v] = pts[v][0] < 0.5 ? coarse : 0.5 * coarse;
  c.record.metrics = metrics;
  return c;
}

// Tets whose centroid is in the slab lo < x < hi.
unsigned tets_in_slab(const data_type& d, double lo, double hi) {
  unsigned n = 0;
  for (unsigned t = 0; t < d.connectM.cols; ++t) {
    double x = 0.0;
    for (unsigned k = 0; k < 4; ++k) x += 0.25 * d.pos(0, d.connectM(k, t));
    n += x > lo && x < hi;
  }
  return n;
}

data_type run_copy(const data_type& in, const mesher::settings_type& st) {
  data_type d = in;  // deep: the caller's arrays stay as they were
  mesher(st).run(d);
  return d;
}

::testing::AssertionResult same_mesh(const data_type& a, const data_type& b) {
  if (a.pos.cols != b.pos.cols || a.connectM.cols != b.connectM.cols)
    return ::testing::AssertionFailure() << "counts " << a.pos.cols << "/" << a.connectM.cols
                                         << " against " << b.pos.cols << "/" << b.connectM.cols;
  for (unsigned j = 0; j < a.pos.cols; ++j)
    if (std::memcmp(a.pos.col(j), b.pos.col(j), 3 * sizeof(double)) != 0)
      return ::testing::AssertionFailure() << "node " << j << " differs";
  for (unsigned t = 0; t < a.connectM.cols; ++t)
    for (unsigned i = 0; i < 4; ++i)
      if (a.connectM(i, t) != b.connectM(i, t))
        return ::testing::AssertionFailure() << "tet " << t << " differs";
  for (unsigned t = 0; t < a.colors.size; ++t)
    if (a.colors[t] != b.colors[t]) return ::testing::AssertionFailure() << "colour " << t;
  if (a.min_quality != b.min_quality) return ::testing::AssertionFailure() << "min quality";
  return ::testing::AssertionSuccess();
}

bool same_table(const dense2D<unsigned>& a, const dense2D<unsigned>& b) {
  if (a.rows != b.rows || a.cols != b.cols) return false;
  for (unsigned j = 0; j < a.cols; ++j)
    for (unsigned i = 0; i < a.rows; ++i)
      if (a(i, j) != b(i, j)) return false;
  return true;
}

// A mode 1 input: the Delaunay mesh of a random cloud in [-1, 1]^3, slivers and all.
data_type cloud_input(unsigned n, unsigned seed) {
  kelvo::voxfill::mesh_store m;
  EXPECT_TRUE(fixtures::delaunay_cloud(m, n, seed));
  return fixtures::record_of_store(m);
}

// Appends a background grid on the planes xs x ys x zs to the record, its nodes after the others,
// with the size h(x) at each of them (0 for the nodes that were there).
void add_background(data_type& d, const std::vector<double>& xs, const std::vector<double>& ys,
                    const std::vector<double>& zs, double (*h)(double)) {
  std::vector<point> pts;
  for (unsigned j = 0; j < d.pos.cols; ++j) pts.push_back({d.pos(0, j), d.pos(1, j), d.pos(2, j)});
  const unsigned first = unsigned(pts.size());
  const auto tets = grid_tets(pts, xs, ys, zs);
  d.pos = pos_of(pts);
  d.background_mesh = table_of(tets);
  d.metrics = dense1D<double>(unsigned(pts.size()), 0.0);
  for (unsigned j = first; j < pts.size(); ++j) d.metrics[j] = h(pts[j][0]);
}

mesher::settings_type mode1_settings() {
  mesher::settings_type st;
  st.mode = 1;
  return st;
}

}  // namespace

// Sizes that halve from one half of a cube to the other: about eight times the tets per volume
// there. Without the background both halves come out alike.
TEST(BackgroundMesh, HalvedSizesGiveAboutEightTimesTheTets) {
  const halved_case c = halved_cube(0.2);
  const data_type d = run_copy(c.record, mesher::settings_type());
  ASSERT_EQ(d.error_code, 0) << d.msg_title;
  EXPECT_TRUE(surfaces::sound(d));
  EXPECT_EQ(surfaces::absent_by_coords(d, c.surface).faces, 0u);
  EXPECT_NEAR(surfaces::mesh_volume(d), 1.0, 1e-9);
  const unsigned coarse = tets_in_slab(d, 0.0, 0.45), fine = tets_in_slab(d, 0.55, 1.0);
  ASSERT_GT(coarse, 0u);
  const double ratio = double(fine) / coarse;
  EXPECT_GT(ratio, 5.0) << coarse << " coarse, " << fine << " fine";
  EXPECT_LT(ratio, 12.0) << coarse << " coarse, " << fine << " fine";
  std::printf("halved sizes: %u tets at the coarse end, %u at the fine end, ratio %.2f\n", coarse,
              fine, ratio);

  // Without the background the sizes come from the boundary alone: no such contrast.
  data_type plain = c.record;
  plain.background_mesh = dense2D<unsigned>();
  plain.metrics = dense1D<double>();
  mesher(mesher::settings_type()).run(plain);
  ASSERT_EQ(plain.error_code, 0) << plain.msg_title;
  const double flat = double(tets_in_slab(plain, 0.55, 1.0)) / tets_in_slab(plain, 0.0, 0.45);
  EXPECT_GT(flat, 0.5);
  EXPECT_LT(flat, 2.0);
}

// The caller's tables come back as they were: the background in the caller's numbering, though
// the run renumbers the nodes for locality.
TEST(BackgroundMesh, CallersTablesComeBack) {
  halved_case c = halved_cube(0.25);
  dense2D<unsigned> background;
  background.copy(c.record.background_mesh);
  const data_type before = c.record;
  mesher(mesher::settings_type()).run(c.record);
  ASSERT_EQ(c.record.error_code, 0) << c.record.msg_title;
  EXPECT_TRUE(same_table(c.record.background_mesh, background));
  for (unsigned j = 0; j < before.pos.cols; ++j)
    for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(c.record.pos(i, j), before.pos(i, j));
  // The nodes of the background are no nodes of the mesh.
  for (unsigned j = c.background_first; j < before.pos.cols; ++j)
    EXPECT_EQ(c.record.ancestors[j], 0xFFFFFFFFu) << j;
}

// A background that is not a mesh of positive tets is refused with its code and exact message,
// in both modes, and no mesh comes out of mode 0.
TEST(BackgroundMesh, InvalidBackgroundIsRefused) {
  const halved_case c = halved_cube(0.2);
  struct spoilt {
    const char* what;
    std::function<void(dense2D<unsigned>&, dense2D<double>&)> spoil;
  };
  const unsigned first = c.background_first;
  const std::vector<spoilt> cases = {
      {"one inverted tet",
       [](dense2D<unsigned>& t, dense2D<double>&) { std::swap(t(1, 7), t(2, 7)); }},
      {"one tet twice",
       [](dense2D<unsigned>& t, dense2D<double>&) {
         dense2D<unsigned> more(4, t.cols + 1);
         for (unsigned j = 0; j < t.cols; ++j)
           for (unsigned i = 0; i < 4; ++i) more(i, j) = t(i, j);
         for (unsigned i = 0; i < 4; ++i) more(i, t.cols) = t(i, 3);
         t = more;
       }},
      {"all nodes on a plane",
       [first](dense2D<unsigned>&, dense2D<double>& pos) {
         for (unsigned j = first; j < pos.cols; ++j) pos(2, j) = 0.5;
       }},
  };
  for (const spoilt& s : cases) {
    data_type d = c.record;
    s.spoil(d.background_mesh, d.pos);
    mesher(mesher::settings_type()).run(d);
    EXPECT_EQ(d.error_code, -109) << s.what;
    EXPECT_STREQ(d.msg_title, kRefusedTitle) << s.what;
    EXPECT_STREQ(d.msg_text, kRefusedText) << s.what;
    EXPECT_TRUE(d.connectM.empty()) << s.what;
    EXPECT_EQ(d.tet_count, 0u) << s.what;
  }

  // Mode 1: the same refusal.
  data_type m = cloud_input(40, 5);
  const std::vector<double> box = {-1.0, 1.0};
  add_background(m, box, box, box, [](double) { return 0.3; });
  std::swap(m.background_mesh(0, 2), m.background_mesh(1, 2));
  mesher(mode1_settings()).run(m);
  EXPECT_EQ(m.error_code, -109);
  EXPECT_STREQ(m.msg_title, kRefusedTitle);
  EXPECT_STREQ(m.msg_text, kRefusedText);
}

// Mode 1 with the given mesh itself as background: every node is shared, so the background
// keeps copies of them while the mesh's nodes move. The mesh comes out sound with the sizes of
// the background, no copy is left in it, and the caller's background table is unchanged.
TEST(BackgroundMesh, NodesSharedWithTheMeshAreCopied) {
  data_type in = cloud_input(150, 7);
  const unsigned n = in.pos.cols;
  in.background_mesh = in.connectM;
  dense2D<unsigned> background;
  background.copy(in.connectM);
  in.metrics = dense1D<double>(n, 0.15);

  data_type d = in;
  d.background_mesh = d.connectM;  // one buffer for both tables of the record
  mesher(mode1_settings()).run(d);
  ASSERT_EQ(d.error_code, 0) << d.msg_title << d.msg_text;
  EXPECT_TRUE(surfaces::sound(d));
  EXPECT_NEAR(surfaces::mesh_volume(d), surfaces::mesh_volume(in), 1e-9);
  EXPECT_TRUE(same_table(d.background_mesh, background));
  EXPECT_TRUE(same_table(in.background_mesh, background));
  // Every node that the run made is in the mesh: the copies of the background are gone.
  for (unsigned j = n; j < d.pos.cols; ++j) EXPECT_NE(d.ancestors[j], 0xFFFFFFFFu) << j;
  // The sizes of the background, well below the cloud's own, made the mesh finer than without.
  data_type own = in;
  own.background_mesh = dense2D<unsigned>();
  own.metrics = dense1D<double>();
  mesher(mode1_settings()).run(own);
  ASSERT_EQ(own.error_code, 0) << own.msg_title;
  EXPECT_GT(d.tet_count, 2 * own.tet_count);
  std::printf("cloud of %u tets: %u tets with itself as background of size 0.15, %u without\n",
              in.connectM.cols, d.tet_count, own.tet_count);
}

// Mode 0 with a background that shares nodes with the surface: they are in the mesh from the
// start on and keep the background's sizes; the boundary is whole, and the contrast holds.
TEST(BackgroundMesh, NodesSharedWithTheSurface) {
  const halved_case c = halved_cube(0.2, true);
  unsigned shared = 0;
  for (unsigned j = 0; j < c.record.background_mesh.cols; ++j)
    for (unsigned i = 0; i < 4; ++i) shared += c.record.background_mesh(i, j) < c.background_first;
  ASSERT_GT(shared, 0u);
  dense2D<unsigned> background;
  background.copy(c.record.background_mesh);
  const data_type d = run_copy(c.record, mesher::settings_type());
  ASSERT_EQ(d.error_code, 0) << d.msg_title;
  EXPECT_TRUE(surfaces::sound(d));
  EXPECT_EQ(surfaces::absent_by_coords(d, c.surface).faces, 0u);
  EXPECT_NEAR(surfaces::mesh_volume(d), 1.0, 1e-9);
  EXPECT_TRUE(same_table(d.background_mesh, background));
  const double ratio = double(tets_in_slab(d, 0.55, 1.0)) / tets_in_slab(d, 0.0, 0.45);
  EXPECT_GT(ratio, 5.0);
  EXPECT_LT(ratio, 12.0);
}

// Mode 1 with a background whose sizes are coarse on one side and fine on the other: the fine
// side gets clearly more tets, the skin and the volume stay, and the run is deterministic.
TEST(BackgroundMesh, RegularizationFollowsTheBackground) {
  data_type in = cloud_input(150, 3);
  const std::vector<double> xs = {-1.0, -0.5, -0.05, 0.05, 0.5, 1.0}, yz = {-1.0, 0.0, 1.0};
  add_background(in, xs, yz, yz, [](double x) { return x < 0.0 ? 0.5 : 0.15; });
  const data_type d = run_copy(in, mode1_settings());
  ASSERT_EQ(d.error_code, 0) << d.msg_title;
  EXPECT_TRUE(surfaces::sound(d));
  EXPECT_NEAR(surfaces::mesh_volume(d), surfaces::mesh_volume(in), 1e-9);
  const unsigned left = tets_in_slab(d, -1.0, -0.05), right = tets_in_slab(d, 0.05, 1.0);
  EXPECT_GT(right, 4 * left) << left << " left, " << right << " right";
  std::printf("mode 1, sizes 0.5 for x < 0 and 0.15 for x > 0: %u tets left, %u right\n", left,
              right);
  EXPECT_TRUE(same_mesh(d, run_copy(in, mode1_settings())));
}

// Equal input gives an equal mesh, bit for bit: a caller's background, and the front's mesh as
// background, which also sets a target size aside.
TEST(BackgroundMesh, Deterministic) {
  const halved_case c = halved_cube(0.25);
  const data_type a = run_copy(c.record, mesher::settings_type());
  const data_type b = run_copy(c.record, mesher::settings_type());
  ASSERT_EQ(a.error_code, 0) << a.msg_title;
  EXPECT_TRUE(same_mesh(a, b));

  surfaces::input s;
  surfaces::add_box(s, 5);
  const data_type box = surfaces::record_of(s);
  mesher::settings_type st;
  st.front_as_background = true;
  const data_type f1 = run_copy(box, st);
  ASSERT_EQ(f1.error_code, 0) << f1.msg_title;
  EXPECT_TRUE(surfaces::sound(f1));
  EXPECT_TRUE(same_mesh(f1, run_copy(box, st)));
  st.target_size = 0.05;  // set aside with the front as background
  EXPECT_TRUE(same_mesh(f1, run_copy(box, st)));
}

// Stopped at any poll, a run with a background hands over no mesh or a sound one, and leaves the
// caller's background table as it was; so does a run with the front's mesh as background.
TEST(BackgroundMesh, InterruptionAtAnyPoll) {
  const halved_case c = halved_cube(0.3);
  surfaces::input s;
  surfaces::add_box(s, 4);
  const data_type box = surfaces::record_of(s);
  struct counter {
    unsigned calls = 0, stop_at = 0;
  };
  for (const bool front : {false, true}) {
    const data_type& in = front ? box : c.record;
    unsigned whole = 0;
    bool finished = false;
    for (unsigned k = 1; k < 5000 && !finished; ++k) {
      counter n;
      n.stop_at = k;
      mesher::settings_type st;
      st.front_as_background = front;
      st.pass_thru = &n;
      st.interrupt_hdl = [](void* p, double) {
        counter& n = *static_cast<counter*>(p);
        return ++n.calls == n.stop_at;
      };
      data_type d = in;
      mesher(st).run(d);
      finished = n.calls < k;
      EXPECT_EQ(d.error_code, 0) << "poll " << k << " " << d.msg_title;
      EXPECT_TRUE(same_table(d.background_mesh, in.background_mesh)) << "poll " << k;
      if (d.connectM.empty()) continue;
      ++whole;
      EXPECT_TRUE(surfaces::sound(d)) << "poll " << k;
    }
    EXPECT_TRUE(finished) << (front ? "front" : "caller's background");
    EXPECT_GT(whole, 0u);
  }
}

// The front's mesh as background on real surfaces: a sound mesh that keeps the boundary, of a
// size near the mesh made without it, and no node made for the background is left over.
TEST(BackgroundMesh, FrontAsBackgroundOnRealSurfaces) {
  const std::string dir = VOXFILL_SHARED_DATA;
  if (!std::ifstream(dir + "/elephant.off")) GTEST_SKIP() << "no shared data at " << dir;
  for (const char* name : {"elephant", "fandisk", "rotor"}) {
    const surfaces::input s = surfaces::read_off(dir + "/" + name + ".off");
    ASSERT_FALSE(s.tris.empty()) << name;
    const data_type in = surfaces::record_of(s);
    mesher::settings_type st;
    const data_type plain = run_copy(in, st);
    st.front_as_background = true;
    const data_type d = run_copy(in, st);
    EXPECT_EQ(d.error_code, 0) << name << " " << d.msg_title;
    EXPECT_TRUE(surfaces::sound(d)) << name;
    EXPECT_EQ(d.missing_faces.size, plain.missing_faces.size) << name;
    EXPECT_EQ(d.used_node_count, d.pos.cols - (plain.pos.cols - plain.used_node_count)) << name;
    const double r = double(d.tet_count) / plain.tet_count;
    EXPECT_GT(r, 0.5) << name;
    EXPECT_LT(r, 2.0) << name;
    std::printf("%s: %u tets with the front as background, %u without\n", name, d.tet_count,
                plain.tet_count);
  }
}
