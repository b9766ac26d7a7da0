// Closed surfaces for the volume meshing tests: a record of triangles (with hard edges and nodes),
// the volume they enclose, a box surface, an OFF reader, and what of the input a mesh lacks.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "delaunay/mesh_check.h"
#include "delaunay/tet_tables.h"
#include "mesh_fixtures.h"
#include "voxfill/mesher_th4.h"

namespace surfaces {

using kelvo::dense1D;
using kelvo::dense2D;
using data_type = kelvo::voxfill::mesher::data_type;
using point = std::array<double, 3>;
using triangle = std::array<unsigned, 3>;

struct input {
  std::vector<point> pts;
  std::vector<triangle> tris;
  std::vector<std::array<unsigned, 2>> edges;
  std::vector<unsigned> nodes;
};

// The volume the triangles enclose, by the divergence theorem.
inline double enclosed_volume(const input& s) {
  double v = 0.0;
  for (const triangle& f : s.tris) {
    const point &a = s.pts[f[0]], &b = s.pts[f[1]], &c = s.pts[f[2]];
    v += a[0] * (b[1] * c[2] - b[2] * c[1]) - a[1] * (b[0] * c[2] - b[2] * c[0]) +
         a[2] * (b[0] * c[1] - b[1] * c[0]);
  }
  return std::abs(v) / 6.0;
}

inline data_type record_of(const input& s) {
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

inline ::testing::AssertionResult sound(const data_type& d) {
  return fixtures::output_sound(d);
}

inline point at(const data_type& d, unsigned n) {
  return {d.pos(0, n), d.pos(1, n), d.pos(2, n)};
}

// What of the input the mesh lacks, compared by coordinates: triangles, edges, nodes.
struct absent_count {
  unsigned faces = 0, edges = 0, nodes = 0;
};

inline absent_count absent_by_coords(const data_type& d, const input& s) {
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

inline double mesh_volume(const data_type& d) {
  double v = 0.0;
  for (unsigned t = 0; t < d.connectM.cols; ++t)
    v += kelvo::voxfill::orient_det(d.pos.col(d.connectM(0, t)), d.pos.col(d.connectM(1, t)),
                                    d.pos.col(d.connectM(2, t)), d.pos.col(d.connectM(3, t)));
  return std::abs(v) / 6.0;
}

// The surface of the box [0, 1]^3, each side split into k x k squares of two triangles.
inline void add_box(input& s, unsigned k) {
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

inline input read_off(const std::string& path) {
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

// An icosahedron split `levels` times with its nodes on the ellipsoid of half axes `r` around
// `c`, turned outwards or inwards. Unequal half axes keep the nodes off a common sphere, so that
// the Delaunay mesh of the nodes is unique; fine enough, its triangles are Delaunay faces.
inline void add_ellipsoid(input& s, unsigned levels, point r, point c, bool outward) {
  const double t = (1.0 + std::sqrt(5.0)) / 2.0;
  std::vector<point> unit = {{-1, t, 0}, {1, t, 0}, {-1, -t, 0}, {1, -t, 0},
                             {0, -1, t}, {0, 1, t}, {0, -1, -t}, {0, 1, -t},
                             {t, 0, -1}, {t, 0, 1}, {-t, 0, -1}, {-t, 0, 1}};
  auto normalise = [](point p) {
    const double l = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
    return point{p[0] / l, p[1] / l, p[2] / l};
  };
  for (auto& p : unit) p = normalise(p);
  std::vector<triangle> faces = {{0, 11, 5}, {0, 5, 1},  {0, 1, 7},   {0, 7, 10}, {0, 10, 11},
                                 {1, 5, 9},  {5, 11, 4}, {11, 10, 2}, {10, 7, 6}, {7, 1, 8},
                                 {3, 9, 4},  {3, 4, 2},  {3, 2, 6},   {3, 6, 8},  {3, 8, 9},
                                 {4, 9, 5},  {2, 4, 11}, {6, 2, 10},  {8, 6, 7},  {9, 8, 1}};
  for (unsigned level = 0; level < levels; ++level) {
    std::map<std::pair<unsigned, unsigned>, unsigned> middle;
    auto mid = [&](unsigned a, unsigned b) {
      const auto key = std::minmax(a, b);
      auto it = middle.find(key);
      if (it != middle.end()) return it->second;
      const point& p = unit[a];
      const point& q = unit[b];
      unit.push_back(normalise({p[0] + q[0], p[1] + q[1], p[2] + q[2]}));
      middle.emplace(key, unsigned(unit.size() - 1));
      return unsigned(unit.size() - 1);
    };
    std::vector<triangle> finer;
    for (const auto& [a, b, cc] : faces) {
      const unsigned ab = mid(a, b), bc = mid(b, cc), ca = mid(cc, a);
      finer.push_back({a, ab, ca});
      finer.push_back({b, bc, ab});
      finer.push_back({cc, ca, bc});
      finer.push_back({ab, bc, ca});
    }
    faces.swap(finer);
  }
  const unsigned first = unsigned(s.pts.size());
  for (const auto& u : unit)
    s.pts.push_back({c[0] + r[0] * u[0], c[1] + r[1] * u[1], c[2] + r[2] * u[2]});
  for (auto f : faces) {
    const point &a = s.pts[first + f[0]], &b = s.pts[first + f[1]], &d = s.pts[first + f[2]];
    const point u = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
    const point v = {d[0] - a[0], d[1] - a[1], d[2] - a[2]};
    const point n = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2],
                     u[0] * v[1] - u[1] * v[0]};
    const double away = n[0] * (a[0] - c[0]) + n[1] * (a[1] - c[1]) + n[2] * (a[2] - c[2]);
    if ((away > 0.0) != outward) std::swap(f[1], f[2]);
    s.tris.push_back({first + f[0], first + f[1], first + f[2]});
  }
}

}  // namespace surfaces
