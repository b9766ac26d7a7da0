// Split of an edge at its metric midpoint.
#include "voxfill/optim/edge_split.h"

#include <algorithm>
#include <cmath>

#include "delaunay/geometry.h"
#include "delaunay/quality_lanes.h"
#include "delaunay/tet_tables.h"

namespace kelvo::voxfill {

double size_fraction(double t0, double h_a, double h_b) noexcept {
  const double r = h_b / h_a;
  double t;
  if (r >= 0.999 && r <= 1.001) {
    // Series of the formula below about r = 1, where it loses its digits.
    const double x = r - 1;
    t = t0 * (1 + (t0 - 1) * x / 2 + (t0 - 1) * (t0 - 2) * x * x / 6 +
              (t0 - 1) * (t0 - 2) * (t0 - 3) * x * x * x / 24);
  } else {
    t = (std::pow(r, t0) - 1) / (r - 1);
  }
  if (t0 >= 0.0 && t0 <= 1.0) t = std::clamp(t, 0.0, 1.0);
  return t;
}

void metric_midpoint(const mesh_store& m, unsigned a, unsigned b, double* point,
                     double& size) noexcept {
  const double h_a = m.node_sizes[a], h_b = m.node_sizes[b];
  const double t =
      h_a > 0.0 && h_b > 0.0 && h_b < 1e300 && h_a < 1e300 ? size_fraction(0.5, h_a, h_b) : 0.5;
  const double* p = m.nodes.row(a);
  const double* q = m.nodes.row(b);
  for (unsigned k = 0; k < 3; ++k) point[k] = p[k] + t * (q[k] - p[k]);
  size = h_a + t * (h_b - h_a);
}

void split_point(move_record& mr, unsigned a, unsigned b, double* point, double& size) noexcept {
  if (mr.merit.shape_weight < 1.0) {
    metric_midpoint(mr.store, a, b, point, size);
  } else {
    const double* p = mr.store.nodes.row(a);
    const double* q = mr.store.nodes.row(b);
    for (unsigned k = 0; k < 3; ++k) point[k] = 0.5 * (p[k] + q[k]);
    size = 0.0;
  }
  double h = 0.0;
  if (mr.use_background && mr.size_at && mr.size_at(mr.size_context, point, h)) size = h;
}

bool copy_candidate(const dense2D<unsigned>& rows, const dense1D<double>& qualities,
                    dense2D<unsigned>& to_rows, dense1D<double>& to_qualities) noexcept {
  if (!reshape(to_rows, 4, rows.cols) || !to_qualities.resize(qualities.size)) {
    // Half a copy must not pass for a candidate.
    reshape(to_rows, 4, 0);
    to_qualities.clear();
    return false;
  }
  for (unsigned j = 0; j < rows.cols; ++j) std::copy_n(rows.col(j), 4, to_rows.col(j));
  std::copy_n(qualities.begin(), qualities.size, to_qualities.begin());
  return true;
}

bool star_split(move_record& mr, unsigned a, unsigned b, unsigned n, double floor,
                const dense2D<unsigned>& old_rows, dense2D<unsigned>& rows,
                dense1D<double>& qualities, double& merit) noexcept {
  const mesh_store& m = mr.store;
  merit = 0.0;
  qualities.clear();
  auto fail = [&] {
    reshape(rows, 4, 0);
    qualities.clear();
    return false;
  };
  if (!reshape(rows, 4, 2 * old_rows.cols) || !qualities.reserve(2 * old_rows.cols)) return fail();
  double q = 1.0;
  for (unsigned c = 0; c < old_rows.cols; ++c) {
    const unsigned* row = old_rows.col(c);
    unsigned i = 4, j = 4;
    for (unsigned k = 0; k < 4; ++k) {
      if (row[k] == a) i = k;
      if (row[k] == b) j = k;
    }
    if (i == 4 || j == 4 || i == j) return fail();
    const unsigned x = unsigned(tet_face_pair_node[i][j]), y = 6 - i - j - x;
    unsigned* r0 = rows.col(2 * c);
    r0[0] = n, r0[1] = row[i], r0[2] = row[y], r0[3] = row[x];
    unsigned* r1 = rows.col(2 * c + 1);
    r1[0] = n, r1[1] = row[j], r1[2] = row[x], r1[3] = row[y];
    // The new rows of two old ones in the lanes of one call (the last repeated to fill them),
    // used in order: any failure gives the same cleared result.
    if (c % 2 == 0 && c + 1 < old_rows.cols) continue;
    const unsigned first = 2 * (c - c % 2), count = 2 * c + 2 - first;
    unsigned nodes[16];
    for (unsigned l = 0; l < 4; ++l)
      std::copy_n(rows.col(first + std::min(l, count - 1)), 4, nodes + 4 * l);
    double v[4];
    tet_quality_lanes(m.nodes.data, nodes, v);
    for (unsigned l = 0; l < count; ++l) {
      if (!(v[l] > floor)) return fail();
      qualities.push_back(v[l]);
      q = std::min(q, v[l]);
    }
  }
  if (mr.merit.shape_weight >= 1.0) {
    merit = q;
    return true;
  }
  dense1D<unsigned>& star = mr.star;
  star.clear();
  for (unsigned c = 0; c < rows.cols; ++c)
    for (unsigned k = 1; k < 4; ++k) star.push_back(rows(k, c));
  std::sort(star.begin(), star.end());
  star.size = unsigned(std::unique(star.begin(), star.end()) - star.begin());
  double s = 1.0;
  for (unsigned k = 0; k < star.size; ++k) s = std::min(s, symmetric_length(m, n, star[k]));
  merit = mr.merit.merit_blend(s, q);
  return true;
}

bool try_split(move_record& mr, unsigned a, unsigned b, double floor,
               const dense2D<unsigned>& old_rows, dense2D<unsigned>& new_rows,
               dense1D<double>& new_qualities, double& best, unsigned& split_node) noexcept {
  split_node = NONE;
  mesh_store& m = mr.store;
  double p[3], h = 0.0;
  split_point(mr, a, b, p, h);
  const unsigned n = m.new_node(p[0], p[1], p[2], h);
  if (n == NONE) return false;
  double merit = 0.0;
  if (!star_split(mr, a, b, n, floor, old_rows, mr.best_rows, mr.best_qualities, merit)) {
    m.release_node(n);
    return false;
  }
  mr.merit.add_valence_record(n);
  const double value = mr.merit.topology_factor(mr.best_rows) * merit;
  if (!(value > best) ||
      !copy_candidate(mr.best_rows, mr.best_qualities, new_rows, new_qualities)) {
    mr.merit.clear_valence_record(n);
    m.release_node(n);
    return false;
  }
  best = value;
  split_node = n;
  return true;
}

}  // namespace kelvo::voxfill
