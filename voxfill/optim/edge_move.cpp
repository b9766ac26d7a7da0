// Reconnection, split or contraction of one edge, rated on one merit.
#include "voxfill/optim/edge_move.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "voxfill/optim/edge_code.h"
#include "voxfill/optim/edge_split.h"
#include "voxfill/optim/shell_reconnection.h"

namespace kelvo::voxfill {

namespace {

// The most that any reconnection of r ring nodes can reach against the old state: its count
// factor, and the valence and hard terms at their best. Those terms are powers of at least 1
// (fits are at most 1, exponents not negative), so a count factor over `best` is returned as it
// is: the bound is over `best` as well.
double reconnection_bound(const move_merit& mm, unsigned r, double best) noexcept {
  const long count = r >= 2 ? 2 * long(r) - 4 : 0;
  const long lo = long(mm.old_count) - long(mm.count_window),
             hi = long(mm.old_count) + long(mm.count_window);
  double bound = mm.count_factors[8 + std::clamp(count, lo, hi) - long(mm.old_count)];
  if (bound > best && mm.worst_exponent >= 0.0 && mm.mean_exponent >= 0.0 &&
      !(mm.old_mean_fit > 1.0) && !(mm.old_worst_fit > 1.0) && mm.hard_base > 0.0)
    return bound;
  if (mm.valence_records.size && (mm.worst_exponent != 0.0 || mm.mean_exponent != 0.0)) {
    if (mm.old_mean_fit > 0.0) bound *= std::pow(1.0 / mm.old_mean_fit, mm.mean_exponent);
    if (mm.old_worst_fit > 0.0) bound *= std::pow(1.0 / mm.old_worst_fit, mm.worst_exponent);
  }
  if (mm.hard_base != 1.0) {
    const double h = mm.hard_base < 1.0 ? 0.0 : 1.0;
    bound *= std::pow(mm.hard_base, h - mm.old_hard_share);
  }
  return bound;
}

// reconnection_bound(mm, r, best) > best as it would be after merit_reference of `old_count`
// rows, when the count factor alone settles it (the usual case); false otherwise.
bool count_factor_passes(const move_merit& mm, unsigned old_count, unsigned r,
                         double best) noexcept {
  const long count = r >= 2 ? 2 * long(r) - 4 : 0;
  const long lo = long(old_count) - long(mm.count_window),
             hi = long(old_count) + long(mm.count_window);
  const double bound = mm.count_factors[8 + std::clamp(count, lo, hi) - long(old_count)];
  // The reference's fits are never over 1: that part of the test needs no reference.
  return bound > best && mm.worst_exponent >= 0.0 && mm.mean_exponent >= 0.0 && mm.hard_base > 0.0;
}

bool node_gone(const mesh_store& m, unsigned n) noexcept {
  return n >= m.ancestors.size || m.ancestors[n] == NONE;
}

// An end of the edge that no tet holds any more has its record cleared and gives its node back.
void settle_ends(move_merit& mm, const mesh_store& m, unsigned a, unsigned b,
                 unsigned& nodes_left) noexcept {
  for (const unsigned e : {a, b}) {
    if (!node_gone(m, e)) continue;
    mm.clear_valence_record(e);
    if (nodes_left != NONE) ++nodes_left;
  }
}

}  // namespace

bool edge_move(regularizer& g, unsigned t, unsigned k, double short_limit, double long_limit,
               unsigned shell_limit, bool hard_links, bool insert, double quality_factor,
               double merit_factor, unsigned& nodes_left, dense1D<unsigned>& new_nodes,
               double& gain) noexcept {
  th4_engine& m = g.engine;
  move_merit& mm = g.merit;
  unsigned a, b;
  edge_nodes(m, t, k, a, b);
  gain = merit_factor;
  shell_limit = std::min(shell_limit, 6u);

  // Edges on the hull or on a hole are left alone, and so is anything frozen.
  g.ring_nodes.clear();
  if (!shell_with_ring(m, a, b, t, g.shell_tets, g.ring_nodes)) return false;
  double q0 = 1.0;
  for (unsigned i = 0; i < g.shell_tets.size; ++i) {
    if (g.frozen(g.shell_tets[i])) return false;
    q0 = std::min(q0, m.tet_qualities[g.shell_tets[i]]);
  }
  const double L =
      mm.shape_weight < 1.0 ? metric_length(m, a, b) : std::sqrt(edge_length2(m.nodes.data, a, b));
  if (!(q0 >= 1e-12) || L == 0.0 || !(L < DBL_MAX)) return false;
  // Two hard nodes joined by an edge: the split is wanted whatever the merit says.
  const bool hard_pair = hard_links && m.hard_set.has_node(a) && m.hard_set.has_node(b);
  const bool split = insert && L > (hard_pair ? 0.0 : long_limit);
  const bool reconnect = g.shell_tets.size <= shell_limit;
  // A hard pair is not contracted (its short limit becomes 0 below). With no move in reach, the
  // rows and the merit are not needed: about a quarter of the edges end here.
  if (!reconnect && !split && !(hard_pair ? L < 0.0 : L < short_limit)) {
    settle_ends(mm, m, a, b, nodes_left);
    return false;
  }
  const double s = std::min(L, 1.0 / L);
  const double m0 = mm.merit_blend(s, q0);
  double best = std::max(m0 * merit_factor, 1e-12);
  double floor = std::max(q0 * quality_factor, 1e-12);

  if (!reshape(g.old_rows, 4, g.shell_tets.size)) return false;
  for (unsigned i = 0; i < g.shell_tets.size; ++i)
    std::copy_n(m.tets.row(g.shell_tets[i]), 4, g.old_rows.col(i));
  // Only a reconnection or a split is rated against this reference; a contraction takes its own.
  // A reconnection whose count factor passes the bound takes it only once one of its patterns
  // passes the quality limit, which most often none does.
  const bool defer =
      reconnect && !split && count_factor_passes(mm, g.shell_tets.size, g.ring_nodes.size, best);
  if ((reconnect || split) && !defer) mm.shell_reference(g.old_rows, a, b, g.ring_nodes);
  reshape(g.new_rows, 4, 0);
  g.new_qualities.clear();

  if (reconnect && (defer || reconnection_bound(mm, g.ring_nodes.size, best) > best)) {
    double value = floor;
    unsigned pattern = NONE;
    reconnect_patterns(g.moves, a, b, g.ring_nodes, value, pattern, g.new_rows, g.new_edges,
                       g.new_qualities, defer ? &g.old_rows : nullptr);
    if (pattern != NONE && value > best) {
      best = value;
    } else {
      reshape(g.new_rows, 4, 0);
      g.new_qualities.clear();
    }
  }

  if (hard_pair) {
    floor = best = 1e-12;
    short_limit = 0.0;
  }

  unsigned n1 = NONE, n2 = NONE;
  if (split) try_split(g.moves, a, b, floor, g.old_rows, g.new_rows, g.new_qualities, best, n1);
  if (g.new_rows.cols) gain = best / m0;

  // The old set is the shell unless a contraction wins; it then names its own.
  const dense1D<unsigned>* old_tets = &g.shell_tets;
  const dense2D<unsigned>* old_rows = &g.old_rows;
  const dense2D<unsigned>* rows = &g.new_rows;
  const dense1D<double>* qualities = &g.new_qualities;
  if (L < short_limit) {
    const unsigned tries = unsigned(std::clamp(1.0 / m0, 1.0, 6.0));
    if (try_contract(g.moves, t, k, s, quality_factor, tries, insert, g.contraction, gain)) {
      old_tets = &g.contraction.old_tets;
      old_rows = &g.contraction.old_rows;
      rows = &g.contraction.new_rows;
      qualities = &g.contraction.new_qualities;
      // Only a node made at the midpoint counts; a neighbour that takes the place was there.
      if (g.contraction.made_node) n2 = g.contraction.kept_node;
    }
  }

  bool done = false;
  if (gain > merit_factor && rows->cols &&
      replace_tets(m, g.exchange, *old_tets, *rows, *qualities, g.new_tets)) {
    done = true;
    mm.commit_valence(*old_rows, *rows);
  }

  // A new node that no tet took is let go again.
  auto settle = [&](unsigned& n) {
    if (n == NONE || !node_gone(m, n)) return;
    mm.clear_valence_record(n);
    if (n < m.ancestors.size) m.release_node(n);
    n = NONE;
  };
  settle(n1);
  settle(n2);
  if ((n1 != NONE || n2 != NONE) && nodes_left != NONE) --nodes_left;
  if (n1 != NONE) new_nodes.push_back(n1);
  settle_ends(mm, m, a, b, nodes_left);
  return done;
}

}  // namespace kelvo::voxfill
