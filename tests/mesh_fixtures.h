// Small hand-built meshes for the tests: loaded into a mesh store with neighbours and ancestors.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <vector>

#include "delaunay/geometry.h"
#include "delaunay/mesh_check.h"
#include "delaunay/mesh_store.h"
#include "delaunay/tet_tables.h"
#include "voxfill/mesher_th4.h"

namespace fixtures {

using kelvo::voxfill::mesh_store;
using kelvo::voxfill::NONE;

// Loads points and tets (turned positive), builds neighbours by face matching and ancestors.
inline void load_mesh(mesh_store& m, const std::vector<std::array<double, 3>>& pts,
                      std::vector<std::array<unsigned, 4>> tets) {
  for (const auto& p : pts) m.new_node(p[0], p[1], p[2], 0.0);
  std::map<std::array<unsigned, 3>, std::pair<unsigned, unsigned>> open;
  for (auto& t : tets) {
    if (kelvo::voxfill::orient_det(m.nodes.data, t[0], t[1], t[2], t[3]) < 0) std::swap(t[1], t[2]);
    const unsigned id = m.new_tet(t[0], t[1], t[2], t[3], 0, 0.0);
    for (unsigned i = 0; i < 4; ++i) {
      std::array<unsigned, 3> f;
      for (unsigned k = 0; k < 3; ++k) f[k] = t[kelvo::voxfill::tet_face_nodes[i][k]];
      std::sort(f.begin(), f.end());
      auto it = open.find(f);
      if (it == open.end()) {
        open[f] = {id, i};
      } else {
        m.neighbors(i, id) = it->second.first;
        m.neighbors(it->second.second, it->second.first) = id;
        open.erase(it);
      }
    }
  }
  m.set_ancestors(0, m.tets.cols());
}

// The mesh of a run's record as a store, for the invariant checker: nodes, tets (colour 0),
// neighbours, ancestors, and the shape qualities as stored qualities. False when the record's
// tables disagree in size or memory ran out.
inline bool load_output(mesh_store& m, const kelvo::voxfill::mesher::data_type& d) {
  const unsigned T = d.connectM.cols;
  if (d.neighbors.cols != T || d.shape_qualities.size != T || d.ancestors.size != d.pos.cols)
    return false;
  if (!m.load_nodes(d.pos, kelvo::dense1D<double>()) || !m.load_tets(d.connectM, 0)) return false;
  for (unsigned t = 0; t < T; ++t) {
    for (unsigned f = 0; f < 4; ++f) m.neighbors(f, t) = d.neighbors(f, t);
    m.tet_qualities[t] = d.shape_qualities[t];
  }
  for (unsigned n = 0; n < d.ancestors.size; ++n) m.ancestors[n] = d.ancestors[n];
  return true;
}

// A run's output through the library's checker: positive tets, links on reversed faces,
// conformity, ancestors, stored qualities and, with `empty_sphere`, the empty sphere across every
// interior face.
inline ::testing::AssertionResult output_sound(const kelvo::voxfill::mesher::data_type& d,
                                               bool empty_sphere = false) {
  mesh_store m;
  if (!load_output(m, d)) return ::testing::AssertionFailure() << "tables disagree";
  kelvo::voxfill::mesh_check_options o;
  o.positive_quality = o.stored_qualities = true;
  o.empty_sphere = empty_sphere;
  const kelvo::voxfill::mesh_check_result r = kelvo::voxfill::check_mesh(m, o);
  if (!r.ok) return ::testing::AssertionFailure() << r.text;
  return ::testing::AssertionSuccess();
}

// The Delaunay mesh of n random points in [-1, 1]^3, made through the public interface and
// loaded as by load_output. False when the run or the loading failed.
inline bool delaunay_cloud(mesh_store& m, unsigned n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> U(-1.0, 1.0);
  kelvo::dense2D<double> pos(3, n);
  for (unsigned j = 0; j < n; ++j)
    for (unsigned i = 0; i < 3; ++i) pos(i, j) = U(rng);
  kelvo::voxfill::mesher::data_type d(pos, kelvo::dense2D<unsigned>());
  for (unsigned j = 0; j < n; ++j) d.isolated_nodes.push_back(j);
  kelvo::voxfill::mesher run;
  run.settings.mode = 2;
  run.settings.optim_level = 0;  // the Delaunay mesh, slivers and all
  run.run(d);
  return d.error_code == 0 && load_output(m, d);
}

// The nodes and tets of a store as a record for mode 1, nothing else given.
inline kelvo::voxfill::mesher::data_type record_of_store(const mesh_store& m) {
  kelvo::dense2D<double> pos(3, m.nodes.cols());
  for (unsigned j = 0; j < m.nodes.cols(); ++j) std::copy_n(m.nodes.row(j), 3, pos.col(j));
  kelvo::dense2D<unsigned> tets(4, m.tets.cols());
  for (unsigned t = 0; t < m.tets.cols(); ++t) std::copy_n(m.tets.row(t), 4, tets.col(t));
  kelvo::voxfill::mesher::data_type d(pos, kelvo::dense2D<unsigned>());
  d.connectM = tets;
  return d;
}

// Unit cube, node x + 2y + 4z, split into six tets around the diagonal 0-7.
inline void kuhn_cube(mesh_store& m) {
  std::vector<std::array<double, 3>> pts;
  for (unsigned j = 0; j < 8; ++j)
    pts.push_back({double(j & 1), double((j >> 1) & 1), double((j >> 2) & 1)});
  std::vector<std::array<unsigned, 4>> tets;
  unsigned axes[3] = {1, 2, 4};
  std::sort(axes, axes + 3);
  do {
    tets.push_back({0, axes[0], axes[0] + axes[1], 7});
  } while (std::next_permutation(axes, axes + 3));
  load_mesh(m, pts, tets);
}

// The same cube with a centre node 8 joined to two triangles per side: a closed ball of 12 tets.
inline void centred_cube(mesh_store& m) {
  std::vector<std::array<double, 3>> pts;
  for (unsigned j = 0; j < 8; ++j)
    pts.push_back({double(j & 1), double((j >> 1) & 1), double((j >> 2) & 1)});
  pts.push_back({0.5, 0.5, 0.5});
  const unsigned sides[6][4] = {{0, 1, 3, 2}, {4, 5, 7, 6}, {0, 1, 5, 4},
                                {2, 3, 7, 6}, {0, 2, 6, 4}, {1, 3, 7, 5}};
  std::vector<std::array<unsigned, 4>> tets;
  for (const auto& s : sides) {
    tets.push_back({s[0], s[1], s[2], 8});
    tets.push_back({s[0], s[2], s[3], 8});
  }
  load_mesh(m, pts, tets);
}

// An n x n x n block of unit cubes, each split as kuhn_cube; the splits match across cubes.
inline void kuhn_lattice(mesh_store& m, unsigned n) {
  const unsigned s = n + 1;
  std::vector<std::array<double, 3>> pts;
  for (unsigned k = 0; k < s; ++k)
    for (unsigned j = 0; j < s; ++j)
      for (unsigned i = 0; i < s; ++i) pts.push_back({double(i), double(j), double(k)});
  std::vector<std::array<unsigned, 4>> tets;
  const unsigned step[3] = {1, s, s * s};
  for (unsigned k = 0; k < n; ++k)
    for (unsigned j = 0; j < n; ++j)
      for (unsigned i = 0; i < n; ++i) {
        const unsigned o = i + s * j + s * s * k;
        unsigned axes[3] = {0, 1, 2};
        do {
          const unsigned a = o + step[axes[0]], b = a + step[axes[1]];
          tets.push_back({o, a, b, o + step[0] + step[1] + step[2]});
        } while (std::next_permutation(axes, axes + 3));
      }
  load_mesh(m, pts, tets);
}

// Everything a move may write, to compare before and after a refusal. Node rows added and freed
// again by a losing candidate are allowed: they hold no tet.
struct table_snapshot {
  std::vector<unsigned> tets, neighbors, colors, stamps, ancestors;
  std::vector<double> qualities, nodes;
  unsigned node_cols = 0;
  explicit table_snapshot(const mesh_store& m) : node_cols(m.nodes.cols()) {
    for (unsigned t = 0; t < m.tets.cols(); ++t) {
      tets.insert(tets.end(), m.tets.row(t), m.tets.row(t) + 4);
      neighbors.insert(neighbors.end(), m.neighbors.row(t), m.neighbors.row(t) + 4);
      colors.push_back(m.colors[t]);
      stamps.push_back(m.tet_stamps[t]);
      qualities.push_back(m.tet_qualities[t]);
    }
    for (unsigned n = 0; n < node_cols; ++n) {
      ancestors.push_back(m.ancestors[n]);
      if (m.ancestors[n] != NONE) nodes.insert(nodes.end(), m.nodes.row(n), m.nodes.row(n) + 3);
    }
  }
  bool same_as(const mesh_store& m) const {
    table_snapshot now(m);
    for (unsigned n = node_cols; n < m.nodes.cols(); ++n)
      if (!m.nodes.is_free(n) || m.ancestors[n] != NONE) return false;
    now.ancestors.resize(node_cols);
    return tets == now.tets && neighbors == now.neighbors && colors == now.colors &&
           stamps == now.stamps && qualities == now.qualities && ancestors == now.ancestors &&
           nodes == now.nodes;
  }
};

}  // namespace fixtures
