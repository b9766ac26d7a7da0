// Point clouds shared by the Delaunay benchmark and the peer drivers, so that both mesh the same
// points: uniform random in the unit cube, on and inside a sphere, and a regular lattice.
#pragma once

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace bench_clouds {

// n points uniform in [0, 1)^3, x y z of point k at 3 k, from MT19937 seeded with `seed`. The
// conversion is spelled out so that every library sees the same doubles.
inline std::vector<double> uniform_cloud(unsigned n, unsigned seed = 1) {
  std::mt19937 g(seed);
  std::vector<double> xyz(3 * std::size_t(n));
  for (double& x : xyz) {
    const std::uint64_t hi = g() >> 5, lo = g() >> 6;  // 27 + 26 bits
    x = double(hi * 67108864u + lo) * (1.0 / 9007199254740992.0);
  }
  return xyz;
}

// n points about the unit ball: the even ones on the unit sphere, the odd ones uniform inside
// it, from the same generator as uniform_cloud. The sphere's points share one circumsphere, and
// the hull is made of them only, with many flat tets near it.
inline std::vector<double> sphere_cloud(unsigned n, unsigned seed = 1) {
  std::mt19937 g(seed);
  const auto unit = [&g] {
    const std::uint64_t hi = g() >> 5, lo = g() >> 6;
    return double(hi * 67108864u + lo) * (1.0 / 9007199254740992.0);
  };
  std::vector<double> xyz(3 * std::size_t(n));
  for (unsigned k = 0; k < n; ++k) {
    double p[3], r2;
    do {  // rejection from the cube [-1, 1)^3
      for (double& x : p) x = 2.0 * unit() - 1.0;
      r2 = p[0] * p[0] + p[1] * p[1] + p[2] * p[2];
    } while (r2 > 1.0 || r2 < 1e-6);
    const double s = k % 2 == 0 ? 1.0 / std::sqrt(r2) : 1.0;
    for (unsigned i = 0; i < 3; ++i) xyz[3 * std::size_t(k) + i] = p[i] * s;
  }
  return xyz;
}

// The s x s x s lattice of integer points, x fastest.
inline std::vector<double> lattice_cloud(unsigned s) {
  std::vector<double> xyz;
  xyz.reserve(3 * std::size_t(s) * s * s);
  for (unsigned k = 0; k < s; ++k)
    for (unsigned j = 0; j < s; ++j)
      for (unsigned i = 0; i < s; ++i) {
        xyz.push_back(i);
        xyz.push_back(j);
        xyz.push_back(k);
      }
  return xyz;
}

}  // namespace bench_clouds
