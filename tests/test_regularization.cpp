// Mode 1 through the public interface: the skin and the walls between colours kept face by face,
// the volume, the quality never worse than the input's, determinism, interruption and bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "delaunay/geometry.h"
#include "delaunay/mesh_check.h"
#include "mesh_fixtures.h"
#include "voxfill/mesher_th4.h"

using namespace kelvo::voxfill;
using kelvo::dense1D;
using kelvo::dense2D;
using data_type = mesher::data_type;

namespace {

using face = std::array<unsigned, 3>;

face sorted(unsigned a, unsigned b, unsigned c) {
  face f = {a, b, c};
  std::sort(f.begin(), f.end());
  return f;
}

// A Delaunay mesh of a random cloud (slivers and all) as a mode 1 input, coloured by the side of
// the plane x = 0 that each tet's centroid is on.
data_type cloud_input(unsigned n, unsigned seed, bool coloured) {
  mesh_store m;
  EXPECT_TRUE(fixtures::delaunay_cloud(m, n, seed));
  dense2D<double> pos(3, m.nodes.cols());
  for (unsigned j = 0; j < m.nodes.cols(); ++j) std::copy_n(m.nodes.row(j), 3, pos.col(j));
  dense2D<unsigned> tets(4, m.tets.cols());
  for (unsigned t = 0; t < m.tets.cols(); ++t) std::copy_n(m.tets.row(t), 4, tets.col(t));
  data_type d(pos, dense2D<unsigned>());
  d.connectM = tets;
  if (coloured)
    for (unsigned t = 0; t < m.tets.cols(); ++t) {
      const unsigned* r = m.tets.row(t);
      double x = 0.0;
      for (unsigned i = 0; i < 4; ++i) x += m.nodes.row(r[i])[0];
      d.colors.push_back(x < 0.0 ? 1u : 4u);
    }
  return d;
}

// Faces of the skin and of the walls between colours, with the colour on each side.
std::map<face, std::pair<unsigned, unsigned>> walls(const dense2D<unsigned>& tets,
                                                    const dense1D<unsigned>& colors) {
  std::map<face, std::vector<unsigned>> sides;
  for (unsigned t = 0; t < tets.cols; ++t)
    for (unsigned f = 0; f < 4; ++f) {
      const unsigned* fn = tet_face_nodes[f];
      sides[sorted(tets(fn[0], t), tets(fn[1], t), tets(fn[2], t))].push_back(
          colors.size ? colors[t] : 0u);
    }
  std::map<face, std::pair<unsigned, unsigned>> out;
  for (const auto& [f, c] : sides) {
    if (c.size() == 1) out[f] = {c[0], NONE};
    if (c.size() == 2 && c[0] != c[1]) out[f] = {std::min(c[0], c[1]), std::max(c[0], c[1])};
  }
  return out;
}

double volume_of(const data_type& d) {
  double v = 0.0;
  for (unsigned t = 0; t < d.connectM.cols; ++t) {
    const double* p[4];
    for (unsigned k = 0; k < 4; ++k) p[k] = d.pos.col(d.connectM(k, t));
    v += orient_det(p[0], p[1], p[2], p[3]);
  }
  return v / 6;
}

// The output is a sound mesh, keeps every wall face with its colours, keeps the boundary nodes
// where they were, has the input's volume, and is no worse than the input.
void expect_regularised(const data_type& in, const data_type& out) {
  ASSERT_GT(out.tet_count, 0u);
  mesh_store s;
  ASSERT_TRUE(fixtures::load_output(s, out));
  mesh_check_options o;
  o.positive_quality = o.stored_qualities = true;
  const mesh_check_result r = check_mesh(s, o);
  EXPECT_TRUE(r.ok) << r.text;
  const auto before = walls(in.connectM, in.colors), after = walls(out.connectM, out.colors);
  EXPECT_EQ(before, after);
  for (const auto& [f, c] : before)
    for (unsigned k = 0; k < 3; ++k)
      for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(out.pos(i, f[k]), in.pos(i, f[k]));
  const double v0 = volume_of(in), v1 = volume_of(out);
  EXPECT_NEAR(v1, v0, 1e-12 * std::fabs(v0));
  EXPECT_GE(out.min_quality, out.min_quality_in);
}

}  // namespace

TEST(Regularization, KeepsSkinWallsAndVolumeAndImproves) {
  for (const bool coloured : {false, true}) {
    const data_type in = cloud_input(400, 3, coloured);
    data_type out = cloud_input(400, 3, coloured);
    mesher m;
    m.settings.mode = 1;
    m.run(out);
    ASSERT_EQ(out.error_code, 0) << out.msg_title;
    expect_regularised(in, out);
    EXPECT_GT(out.min_quality, 2 * out.min_quality_in);
    std::printf("coloured %d: tets %u -> %u, quality %.4f -> %.4f, bound %.3f\n", coloured,
                in.connectM.cols, out.tet_count, out.min_quality_in, out.min_quality,
                out.quality_bound);
    // The boundary handed back is the faces held: skin and walls.
    EXPECT_EQ(out.connectB.cols, walls(in.connectM, in.colors).size());
    data_type again = cloud_input(400, 3, coloured);
    m.run(again);
    ASSERT_EQ(again.tet_count, out.tet_count);
    for (unsigned t = 0; t < out.tet_count; ++t)
      for (unsigned k = 0; k < 4; ++k) ASSERT_EQ(again.connectM(k, t), out.connectM(k, t));
    for (unsigned j = 0; j < out.pos.cols; ++j)
      for (unsigned i = 0; i < 3; ++i) ASSERT_EQ(again.pos(i, j), out.pos(i, j));
  }
}
