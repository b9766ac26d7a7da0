// Merit of a move: sizes, shape blend, and the topology factor with its valence records.
#include "voxfill/optim/move_merit.h"

#include <algorithm>
#include <cmath>

#include "delaunay/geometry.h"
#include "delaunay/quality_lanes.h"
#include "delaunay/tet_tables.h"

namespace kelvo::voxfill {

namespace {
using namespace geometry_detail;

void unit_from(const double* p, const double* q, double* u) noexcept {
  sub3(q, p, u);
  const double n2 = dot3(u, u);
  if (n2 != 0.0 && n2 != 1.0) {
    const double s = 1.0 / std::sqrt(n2);
    u[0] *= s, u[1] *= s, u[2] *= s;
  }
}
}  // namespace

namespace {
// The solid angle from the unit vectors towards the three other nodes.
inline double solid_angle_of_units(const double* u, const double* v, const double* w) noexcept {
  double vw[3];
  cross3(v, w, vw);
  const double uv[3] = {u[0] + v[0], u[1] + v[1], u[2] + v[2]};
  const double vpw[3] = {v[0] + w[0], v[1] + w[1], v[2] + w[2]};
  return 2.0 * std::atan2(dot3(u, vw), dot3(uv, vpw));
}
}  // namespace

double solid_angle(const double* p, const double* a, const double* b, const double* c) noexcept {
  double u[3], v[3], w[3];
  unit_from(p, a, u);
  unit_from(p, b, v);
  unit_from(p, c, w);
  return solid_angle_of_units(u, v, w);
}

move_merit::move_merit(mesh_store& m) : store(m) {
  std::fill_n(count_factors, 17, 1.0);
}

void move_merit::start_topology_terms() noexcept {
  count_window = 4;
  const double r = std::pow(0.9, 0.25);
  count_factors[8] = 1.0;
  for (int d = 1; d <= 8; ++d) {
    const double f = std::pow(r, d < 4 ? d : 4);
    count_factors[8 + d] = f;
    count_factors[8 - d] = 1.0 / f;
  }
  worst_exponent = shape_weight;
  mean_exponent = 2.5 * shape_weight;
  hard_base = 0.4;
}

void move_merit::stop_topology_terms() noexcept {
  count_window = 0;
  std::fill_n(count_factors, 17, 1.0);
  worst_exponent = mean_exponent = 0.0;
  hard_base = 1.0;
  old_hard_share = 0.0;
  old_worst_fit = old_mean_fit = 1.0;
  valence_records.clear_hard();
}

double move_merit::merit_blend(double s, double q) const noexcept {
  if (shape_weight >= 1.0) return q;
  return s * std::pow(q / s, shape_weight);
}

double move_merit::hard_share(const dense2D<unsigned>& rows) const noexcept {
  double most = 0.0;
  if (!rows.cols) return most;
  const unsigned* r = rows.col(0);
  const std::size_t ld = rows.ld;
  for (unsigned j = 0; j < rows.cols; ++j, r += ld) {
    unsigned h = 0;
    for (unsigned k = 0; k < 4; ++k) h += store.hard_set.has_node(r[k]);
    most = std::max(most, 0.25 * h);
  }
  return most;
}

void move_merit::collect_fit_nodes(const dense2D<unsigned>& rows) noexcept {
  fit_nodes.clear();
  // A node is met in many rows but only a few nodes are distinct: a mark per node drops the
  // repeats, and the few that stay are sorted by insertion as they come.
  // Rows name nodes of the store only: one mark per node column covers them.
  const unsigned nodes = store.nodes.cols();
  if (!rows.cols || !fit_nodes.reserve(4 * rows.cols) ||
      (nodes > fit_marks.size && !fit_marks.resize(std::max(nodes, 2 * fit_marks.size), 0u))) {
    fit_nodes_by_sort(rows);
    return;
  }
  if (++fit_mark == 0) {
    fit_marks.fill(0);
    fit_mark = 1;
  }
  unsigned* marks = fit_marks.begin();
  unsigned* out = fit_nodes.begin();
  unsigned size = 0;
  for (unsigned j = 0; j < rows.cols; ++j) {
    add_unmarked_sorted(rows.col(j), marks, fit_mark, out, size);
  }
  fit_nodes.size = size;
}

void move_merit::fit_nodes_by_sort(const dense2D<unsigned>& rows) noexcept {
  fit_nodes.clear();
  for (unsigned j = 0; j < rows.cols; ++j)
    for (unsigned k = 0; k < 4; ++k) fit_nodes.push_back(rows(k, j));
  std::sort(fit_nodes.begin(), fit_nodes.end());
  fit_nodes.size = unsigned(std::unique(fit_nodes.begin(), fit_nodes.end()) - fit_nodes.begin());
}

void move_merit::fits(bool trial, double& worst, double& mean) const noexcept {
  worst = 1.0;
  mean = 1.0;
  double sum = 0.0;
  unsigned count = 0;
  const unsigned* nodes = fit_nodes.begin();
  const topo_quality* rec = valence_records.begin();
  const unsigned size = valence_records.size;
  for (unsigned k = 0; k < fit_nodes.size; ++k) {
    const unsigned n = nodes[k];
    if (n >= size) continue;
    const topo_quality& r = rec[n];
    const double f = valence_fit(r.angle, trial ? r.trial : r.count);
    worst = std::min(worst, f);
    sum += f;
    ++count;
  }
  if (count) mean = sum / count;
}

void move_merit::merit_reference(const dense2D<unsigned>& old_rows) noexcept {
  old_count = old_rows.cols;
  if (valence_records.size && (worst_exponent != 0.0 || mean_exponent != 0.0)) {
    // Into the buffer it already has, so that warm moves allocate nothing. A failed growth
    // leaves no old rows to take off: the trial counts then only grow, which makes the move look
    // worse, never better.
    if (reshape(old_rows_copy, 4, old_rows.cols))
      for (unsigned j = 0; j < old_rows.cols; ++j)
        std::copy_n(old_rows.col(j), 4, old_rows_copy.col(j));
    else
      old_rows_copy.clear();
    collect_fit_nodes(old_rows);
    fits(false, old_worst_fit, old_mean_fit);
  }
  if (hard_base != 1.0) old_hard_share = hard_share(old_rows);
}

// The start of a reference whose fit nodes the caller lists: false, after the plain reference,
// where there is nothing to list or no room for `room` nodes.
bool move_merit::start_listed_reference(const dense2D<unsigned>& old_rows, unsigned room) noexcept {
  if (!valence_records.size || (worst_exponent == 0.0 && mean_exponent == 0.0) || !old_rows.cols ||
      !fit_nodes.reserve(room)) {
    merit_reference(old_rows);
    return false;
  }
  old_count = old_rows.cols;
  if (reshape(old_rows_copy, 4, old_rows.cols))
    for (unsigned j = 0; j < old_rows.cols; ++j)
      std::copy_n(old_rows.col(j), 4, old_rows_copy.col(j));
  else
    old_rows_copy.clear();
  return true;
}

void move_merit::end_listed_reference(const dense2D<unsigned>& old_rows) noexcept {
  fits(false, old_worst_fit, old_mean_fit);
  if (hard_base != 1.0) old_hard_share = hard_share(old_rows);
}

void move_merit::merit_reference(const dense2D<unsigned>& old_rows, const dense1D<unsigned>& nodes,
                                 unsigned extra) noexcept {
  if (!start_listed_reference(old_rows, nodes.size + 1)) return;
  // The list as it is, with `extra` put in its place unless it is there.
  unsigned* out = fit_nodes.begin();
  unsigned size = 0;
  bool placed = extra == NONE;
  for (unsigned k = 0; k < nodes.size; ++k) {
    const unsigned v = nodes[k];
    if (!placed && extra <= v) {
      if (extra < v) out[size++] = extra;
      placed = true;
    }
    out[size++] = v;
  }
  if (!placed) out[size++] = extra;
  fit_nodes.size = size;
  end_listed_reference(old_rows);
}

void move_merit::shell_reference(const dense2D<unsigned>& old_rows, unsigned a, unsigned b,
                                 const dense1D<unsigned>& ring) noexcept {
  if (!start_listed_reference(old_rows, ring.size + 2)) return;
  // Each row of the shell is (a, b) and two ring nodes, and each ring node is in a row: the
  // distinct nodes of the rows, sorted, are those of this short list.
  unsigned* list = fit_nodes.begin();
  unsigned size = 0;
  auto add = [&](unsigned v) {
    unsigned j = size;
    while (j > 0 && list[j - 1] > v) --j;
    if (j > 0 && list[j - 1] == v) return;
    for (unsigned i = size; i > j; --i) list[i] = list[i - 1];
    list[j] = v;
    ++size;
  };
  add(a);
  add(b);
  for (unsigned i = 0; i < ring.size; ++i) add(ring[i]);
  fit_nodes.size = size;
  end_listed_reference(old_rows);
}

double move_merit::topology_factor(const dense2D<unsigned>& new_rows, bool same_nodes,
                                   double share) noexcept {
  const unsigned c = std::clamp<long>(long(new_rows.cols), long(old_count) - long(count_window),
                                      long(old_count) + long(count_window));
  double factor = count_factors[8 + int(c) - int(old_count)];
  if (valence_records.size && (worst_exponent != 0.0 || mean_exponent != 0.0)) {
    double worst = 1.0, mean = 1.0;
    if (new_rows.cols) {
      if (!same_nodes) collect_fit_nodes(new_rows);
      topo_quality* rec = valence_records.begin();
      const unsigned size = valence_records.size;
      for (unsigned k = 0; k < fit_nodes.size; ++k)
        if (fit_nodes[k] < size) rec[fit_nodes[k]].trial = rec[fit_nodes[k]].count;
      auto shift = [&](const dense2D<unsigned>& rows, double by) {
        if (!rows.cols) return;
        const unsigned* r = rows.col(0);
        const std::size_t ld = rows.ld;
        for (unsigned j = 0; j < rows.cols; ++j, r += ld)
          for (unsigned k = 0; k < 4; ++k) {
            const unsigned n = r[k];
            if (n < size) rec[n].trial = float(double(rec[n].trial) + by);
          }
      };
      shift(new_rows, PI_OVER_5);
      shift(old_rows_copy, -PI_OVER_5);
      fits(true, worst, mean);
    }
    // A reference fit of 0 (a node without a tet) would make any change infinitely good. A
    // ratio of 1 gives a power of exactly 1, and leaves the factor as it is.
    if (old_mean_fit > 0.0 && mean != old_mean_fit)
      factor *= std::pow(mean / old_mean_fit, mean_exponent);
    if (old_worst_fit > 0.0 && worst != old_worst_fit)
      factor *= std::pow(worst / old_worst_fit, worst_exponent);
  }
  if (hard_base != 1.0) {
    const double change = (share >= 0.0 ? share : hard_share(new_rows)) - old_hard_share;
    if (change != 0.0) factor *= std::pow(hard_base, change);
  }
  return factor;
}

bool move_merit::fill_valence_records() noexcept {
  valence_records.clear();
  if (!valence_records.resize(store.nodes.cols(), topo_quality{})) {
    valence_records.clear();
    return false;
  }
  const dense2D<double>& xyz = store.nodes.data;
  topo_quality* rec = valence_records.begin();
  // The tets of the domain four at a time for the vectors and products; the angles and the sums
  // per node in the order of the tets and their nodes, as one at a time.
  unsigned batch[4], fill = 0;
  const double* points[4][4];
  const double* const* lanes[4] = {points[0], points[1], points[2], points[3]};
  auto flush = [&] {
    if (!fill) return;
    for (unsigned l = fill; l < 4; ++l) std::copy_n(points[fill - 1], 4, points[l]);
    double y[4][4], x[4][4];
    solid_angle_lanes(lanes, y, x);
    for (unsigned l = 0; l < fill; ++l) {
      const unsigned* n = store.tets.row(batch[l]);
      float angles[4];
      twice_atan2_lanes(y[l], x[l], angles);
      for (unsigned i = 0; i < 4; ++i) {
        // Seen from node i this turn makes the solid angle of a positive tet positive.
        rec[n[i]].angle += angles[i];
        rec[n[i]].count += 0.62831855f;
      }
    }
    fill = 0;
  };
  // The tables through plain pointers taken once.
  const unsigned cols = store.tets.cols();
  const unsigned* colors = store.colors.begin();
  const unsigned* tets = cols ? store.tets.data.col(0) : nullptr;
  const std::size_t tets_ld = store.tets.data.ld;
  const double* base = store.nodes.cols() ? xyz.col(0) : nullptr;
  const std::size_t ld = xyz.ld;
  for (unsigned t = 0; t < cols; ++t) {
    if (!color_in_domain(colors[t])) continue;
    const unsigned* n = tets + tets_ld * t;
    for (unsigned i = 0; i < 4; ++i) points[fill][i] = base + ld * n[i];
    batch[fill] = t;
    if (++fill == 4) flush();
  }
  flush();
  return true;
}

void move_merit::add_valence_record(unsigned n) noexcept {
  if (!valence_records.size) return;
  if (n >= valence_records.size) {
    unsigned room = 1;
    while (room <= n + 1) room <<= 1;
    if (!valence_records.reserve(room) || !valence_records.resize(n + 1, topo_quality{})) return;
  }
  valence_records[n] = topo_quality{12.566371f, 0.0f, 0.0f};
}

void move_merit::clear_valence_record(unsigned n) noexcept {
  if (n < valence_records.size) valence_records[n] = topo_quality{};
}

void move_merit::commit_valence(const dense2D<unsigned>& old_rows,
                                const dense2D<unsigned>& new_rows) noexcept {
  if (!valence_records.size) return;
  topo_quality* rec = valence_records.begin();
  const unsigned size = valence_records.size;
  auto shift = [&](const dense2D<unsigned>& rows, double by) {
    if (!rows.cols) return;
    const unsigned* r = rows.col(0);
    const std::size_t ld = rows.ld;
    for (unsigned j = 0; j < rows.cols; ++j, r += ld)
      for (unsigned k = 0; k < 4; ++k) {
        const unsigned n = r[k];
        if (n < size) rec[n].count = float(double(rec[n].count) + by);
      }
  };
  shift(old_rows, -PI_OVER_5);
  shift(new_rows, PI_OVER_5);
}

}  // namespace kelvo::voxfill
