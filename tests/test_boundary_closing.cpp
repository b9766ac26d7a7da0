// Closing of boundaries with holes when the constraints are not strict: the domain comes out
// closed and whole, the report tells the open edges and added faces, and a strict run is left
// alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "surface_fixtures.h"

using kelvo::voxfill::mesher;
using namespace surfaces;

namespace {

struct captured {
  std::string level2;
};

data_type run(const input& s, bool strict, captured* out, bool refine = false) {
  mesher::settings_type st;
  st.refine = refine;
  st.optim_level = refine ? 3 : 0;
  st.strict_constraints = strict;
  st.pass_thru = out;
  st.display_hdl = [](void* p, unsigned level, const char* text) {
    if (level == 2) static_cast<captured*>(p)->level2 += text;
  };
  data_type d = record_of(s);
  mesher(st).run(d);
  return d;
}

input box_without(std::initializer_list<unsigned> gone) {
  input full;
  add_box(full, 3);
  input s = full;
  s.tris.clear();
  for (unsigned j = 0; j < full.tris.size(); ++j)
    if (std::find(gone.begin(), gone.end(), j) == gone.end()) s.tris.push_back(full.tris[j]);
  return s;
}

}  // namespace

TEST(BoundaryClosing, HolesAreClosedAndReported) {
  for (bool refine : {false, true}) {
    const input one = box_without({4});
    captured c;
    const data_type d = run(one, false, &c, refine);
    ASSERT_EQ(d.error_code, 0) << d.msg_title;
    EXPECT_TRUE(sound(d));
    EXPECT_EQ(d.subdomains, 1u);
    EXPECT_EQ(absent_by_coords(d, one).faces, 0u);
    EXPECT_NEAR(mesh_volume(d), 1.0, 1e-12);
    EXPECT_NEAR(d.volume, 1.0, 1e-12);
    // The mesh is whole, and the caller still learns that the input was not.
    EXPECT_EQ(d.warning_code, -15);
    EXPECT_STREQ(d.msg_title, "BOUNDARY MESH IS NOT WATERTIGHT");
    EXPECT_EQ(c.level2,
              "Closing boundary mesh...\n"
              "   Open edges                  : 3\n"
              "   Open nodes                  : 3\n"
              "   Patho nodes                 : 0\n"
              "   Faces removed from boundary : 0\n"
              "   Faces added to boundary     : 1\n")
        << "refine " << refine;
  }
  // A square hole of two triangles is spanned again, and the box is whole.
  const input two = box_without({4, 5});
  captured c;
  const data_type d = run(two, false, &c);
  ASSERT_EQ(d.error_code, 0) << d.msg_title;
  EXPECT_TRUE(sound(d));
  EXPECT_EQ(d.subdomains, 1u);
  EXPECT_NEAR(mesh_volume(d), 1.0, 1e-12);
  EXPECT_NE(c.level2.find("   Faces added to boundary     : 2\n"), std::string::npos) << c.level2;
  const data_type again = run(two, false, &c);
  ASSERT_EQ(again.connectM.cols, d.connectM.cols);
  for (unsigned t = 0; t < d.connectM.cols; ++t)
    for (unsigned k = 0; k < 4; ++k) ASSERT_EQ(again.connectM(k, t), d.connectM(k, t));
}

TEST(BoundaryClosing, StrictOrClosedInputIsLeftAlone) {
  input whole;
  add_box(whole, 3);
  captured c;
  const data_type d = run(whole, false, &c);
  ASSERT_EQ(d.error_code, 0);
  EXPECT_EQ(c.level2.find("Closing"), std::string::npos) << c.level2;
  EXPECT_NEAR(mesh_volume(d), 1.0, 1e-12);

  const input holed = box_without({4});
  captured s;
  const data_type e = run(holed, true, &s);
  EXPECT_EQ(s.level2.find("Closing"), std::string::npos) << s.level2;
  EXPECT_EQ(e.subdomains, 0u);
  EXPECT_EQ(e.connectM.cols, 0u);
  EXPECT_EQ(e.warning_code, -15);
  EXPECT_STREQ(e.msg_title, "BOUNDARY MESH IS NOT WATERTIGHT");
}

TEST(BoundaryClosing, HardNodeOnABoundaryEdge) {
  // The node splits the edge, so the two faces on it cannot both stand: strict, that is an error;
  // otherwise the faces give way to ones through the node, and the box is meshed whole.
  input s;
  add_box(s, 2);
  const triangle t = s.tris[0];
  const point a = s.pts[t[0]], b = s.pts[t[1]];
  s.pts.push_back({0.5 * (a[0] + b[0]), 0.5 * (a[1] + b[1]), 0.5 * (a[2] + b[2])});
  s.nodes = {unsigned(s.pts.size() - 1)};
  captured c;
  const data_type strict = run(s, true, &c, true);
  EXPECT_EQ(strict.error_code, -104);
  EXPECT_EQ(strict.connectM.cols, 0u);
  const data_type d = run(s, false, &c, true);
  ASSERT_EQ(d.error_code, 0) << d.msg_title;
  EXPECT_EQ(d.warning_code, -12);
  EXPECT_STREQ(d.msg_title, "NODE WARNING");
  EXPECT_TRUE(sound(d));
  EXPECT_EQ(d.subdomains, 1u);
  EXPECT_NEAR(mesh_volume(d), 1.0, 1e-12);
  EXPECT_EQ(absent_by_coords(d, s).faces, 2u);
  EXPECT_NE(c.level2.find("   Faces removed from boundary : 2\n"), std::string::npos) << c.level2;
}

TEST(BoundaryClosing, OpenSurfacesGiveAClosedDomain) {
  const std::string dir = VOXFILL_SHARED_DATA;
  if (!std::ifstream(dir + "/holes.off")) GTEST_SKIP() << "no shared data at " << dir;
  for (const char* name : {"holes", "lion"}) {
    const input s = read_off(dir + "/" + name + ".off");
    ASSERT_FALSE(s.tris.empty()) << name;
    captured c;
    const data_type d = run(s, false, &c);
    ASSERT_EQ(d.error_code, 0) << name << ": " << d.msg_title;
    EXPECT_EQ(d.warning_code, -15) << name;
    EXPECT_TRUE(sound(d)) << name;
    EXPECT_EQ(d.subdomains, 1u) << name;
    EXPECT_EQ(absent_by_coords(d, s).faces, 0u) << name;
    EXPECT_GT(d.volume, 0.0) << name;
    EXPECT_NEAR(mesh_volume(d), d.volume, 1e-9 * d.volume) << name;
    EXPECT_NE(c.level2.find("   Faces removed from boundary : 0\n"), std::string::npos) << name;
  }
}
