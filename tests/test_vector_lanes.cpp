// The vector-lane forms of the tet quality must give the scalar routine's bits in every lane,
// including the lanes they hand back to it (flat, doubtful, degenerate and extreme tets).
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "delaunay/geometry.h"
#include "delaunay/quality_lanes.h"

using namespace kelvo::voxfill;

namespace {

using point = std::array<double, 3>;
using tet = std::array<point, 4>;

std::uint64_t bits(double x) {
  return std::bit_cast<std::uint64_t>(x);
}

// Well-shaped, needle, flat, nearly flat, repeated-node and collinear tets, at several scales.
std::vector<tet> sample_tets() {
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  auto rnd = [&] { return point{u(rng), u(rng), u(rng)}; };
  std::vector<tet> out;
  for (double scale : {1.0, 1e-100, 1e100, 3.7e-7}) {
    for (int k = 0; k < 200; ++k) {
      tet t = {rnd(), rnd(), rnd(), rnd()};
      switch (k % 6) {
        case 1:  // the fourth point almost on the plane of the others
          for (int i = 0; i < 3; ++i)
            t[3][i] = (t[0][i] + t[1][i] + t[2][i]) / 3.0 + 1e-14 * u(rng);
          break;
        case 2:  // exactly flat
          for (int i = 0; i < 3; ++i) t[3][i] = 0.5 * (t[0][i] + t[1][i]);
          break;
        case 3:  // a repeated node
          t[2] = t[0];
          break;
        case 4:  // a needle
          for (int i = 0; i < 3; ++i) t[1][i] = t[0][i] + 1e-9 * u(rng);
          break;
        case 5:  // collinear
          for (int i = 0; i < 3; ++i) {
            t[2][i] = 2.0 * t[1][i] - t[0][i];
            t[3][i] = 3.0 * t[1][i] - 2.0 * t[0][i];
          }
          break;
        default:
          break;
      }
      for (point& p : t)
        for (double& x : p) x *= scale;
      out.push_back(t);
    }
  }
  return out;
}

}  // namespace

TEST(VectorLanes, TetQualitiesMatchTheScalarRoutine) {
  const std::vector<tet> tets = sample_tets();
  unsigned mismatches = 0, fours = 0;
  for (std::size_t s = 0; s + 4 <= tets.size(); s += 4) {
    const double* p[16];
    for (unsigned l = 0; l < 4; ++l)
      for (unsigned i = 0; i < 4; ++i) p[4 * l + i] = tets[s + l][i].data();
    double q[4];
    tet_quality_lanes(p, q);
    ++fours;
    for (unsigned l = 0; l < 4; ++l) {
      const double want = tet_quality(p[4 * l], p[4 * l + 1], p[4 * l + 2], p[4 * l + 3]);
      mismatches += bits(q[l]) != bits(want);
      mismatches +=
          bits(tet_quality_wide(p[4 * l], p[4 * l + 1], p[4 * l + 2], p[4 * l + 3])) != bits(want);
    }
  }
  EXPECT_EQ(fours, 200u);
  EXPECT_EQ(mismatches, 0u);

  // Lanes given the same tet twice, and the points of a coordinate table.
  kelvo::dense2D<double> xyz(3, 4);
  for (unsigned j = 0; j < 4; ++j)
    for (unsigned i = 0; i < 3; ++i) xyz(i, j) = tets[6][j][i];
  const unsigned n[16] = {0, 1, 2, 3, 0, 1, 2, 3, 1, 0, 3, 2, 2, 3, 0, 1};
  double q[4];
  tet_quality_lanes(xyz, n, q);
  for (unsigned l = 0; l < 4; ++l)
    EXPECT_EQ(bits(q[l]), bits(tet_quality(xyz.col(n[4 * l]), xyz.col(n[4 * l + 1]),
                                           xyz.col(n[4 * l + 2]), xyz.col(n[4 * l + 3]))));
}

TEST(VectorLanes, TrialHeightsMatchOneCallEach) {
  const std::vector<tet> tets = sample_tets();
  unsigned mismatches = 0;
  for (const tet& t : tets) {
    const double* a = t[0].data();
    const double* b = t[1].data();
    const double* c = t[2].data();
    double centre[3], normal[3];
    for (unsigned k = 0; k < 3; ++k) centre[k] = (a[k] + b[k] + c[k]) / 3.0;
    face_normal(a, b, c, normal);
    // Heights below, at and beyond the face, the last one far out.
    const double z[4] = {0.0, 1e-13, 0.37, -4.0e3};
    double q[4];
    tet_quality_heights(c, b, a, centre, normal, z, q);
    for (unsigned k = 0; k < 4; ++k) {
      double p[3];
      for (unsigned i = 0; i < 3; ++i) p[i] = centre[i] + normal[i] * z[k];
      mismatches += bits(q[k]) != bits(tet_quality(c, b, a, p));
    }
  }
  EXPECT_EQ(mismatches, 0u);
}

// Solid angles are kept as floats of 2 atan2(y, x); the fast form must round to the same float
// everywhere, zeros, signs, infinities and the octant borders included.
TEST(VectorLanes, TwiceAtan2RoundsAsTheLibrary) {
  std::mt19937_64 rng(11);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> ys, xs;
  const double special[] = {0.0,
                            -0.0,
                            1.0,
                            -1.0,
                            1e-300,
                            -1e-300,
                            1e300,
                            0.41421356237309503,
                            2.414213562373095,
                            std::numeric_limits<double>::infinity(),
                            -std::numeric_limits<double>::infinity()};
  for (double y : special)
    for (double x : special) ys.push_back(y), xs.push_back(x);
  for (int k = 0; k < 200000; ++k) {
    const double y = u(rng), x = u(rng);
    ys.push_back(y), xs.push_back(x);
    ys.push_back(x * (1.0 + 1e-15 * u(rng))), xs.push_back(x);  // near the diagonal
    ys.push_back(y * 1e-9), xs.push_back(x);                    // near the axis
  }
  while (ys.size() % 4) ys.push_back(0.5), xs.push_back(0.25);
  unsigned mismatches = 0;
  for (std::size_t k = 0; k < ys.size(); k += 4) {
    float out[4];
    twice_atan2_lanes(&ys[k], &xs[k], out);
    for (unsigned l = 0; l < 4; ++l)
      mismatches += std::bit_cast<std::uint32_t>(out[l]) !=
                    std::bit_cast<std::uint32_t>(float(2.0 * std::atan2(ys[k + l], xs[k + l])));
  }
  EXPECT_EQ(mismatches, 0u);
}
