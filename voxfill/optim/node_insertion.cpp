// Node insertion in bad regions: targets first, then the insertions, each checked by its stamp.
#include "voxfill/optim/node_insertion.h"

#include <algorithm>
#include <cfloat>

#include "delaunay/cavity.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/tet_tables.h"
#include "voxfill/optim/edge_code.h"
#include "voxfill/optim/edge_split.h"

namespace kelvo::voxfill {

namespace {

// Appends the pair (tet, local edge or NONE) whole or not at all: a half pair would shift every
// later one. False when the list could not grow.
bool push_target(dense1D<unsigned>& targets, unsigned t, unsigned e) noexcept {
  const unsigned n = targets.size;
  targets.push_back(t);
  targets.push_back(e);
  if (targets.size == n + 2) return true;
  targets.size = n;
  return false;
}

bool interrupted(const regularizer& g) {
  return g.task && g.task->must_stop();
}

void drop_touched(const mesh_store& m, dense1D<unsigned>& tets) noexcept {
  unsigned kept = 0;
  for (unsigned k = 0; k < tets.size; ++k)
    if (m.tet_stamps[tets[k]] < m.tet_clock) tets[kept++] = tets[k];
  tets.size = kept;
}

// Where the node of a target goes, its size, and its seeds. False when the target is passed over.
bool place_target(regularizer& g, unsigned t, unsigned e, double* p, double& size,
                  dense1D<unsigned>& seeds) noexcept {
  th4_engine& m = g.engine;
  const unsigned* r = m.tets.row(t);
  seeds.clear();
  size = 0.0;
  if (e == NONE) {
    for (unsigned c = 0; c < 3; ++c) {
      double s = 0.0;
      for (unsigned i = 0; i < 4; ++i) s += m.nodes.row(r[i])[c];
      p[c] = 0.25 * s;
    }
    if (g.merit.shape_weight < 1.0) {
      const double* h = m.node_sizes.begin();
      size = h[r[3]] + ((h[r[0]] - h[r[3]]) + (h[r[2]] - h[r[3]]) + (h[r[1]] - h[r[3]])) * 0.25;
      if (!(size > 0.0) || size >= DBL_MAX) return false;
    }
    seeds.push_back(t);
  } else {
    unsigned a, b;
    edge_nodes(m, t, e, a, b);
    if (g.merit.shape_weight < 1.0) {
      metric_midpoint(m, a, b, p, size);
    } else {
      const double* pa = m.nodes.row(a);
      const double* pb = m.nodes.row(b);
      for (unsigned c = 0; c < 3; ++c) p[c] = 0.5 * (pa[c] + pb[c]);
    }
    shell_of_edge(m, a, b, t, seeds);
  }
  if (!seeds.size) return false;
  for (unsigned k = 0; k < seeds.size; ++k)
    if (g.frozen(seeds[k])) return false;
  double h = 0.0;
  if (g.use_background && g.moves.size_at && g.moves.size_at(g.moves.size_context, p, h)) size = h;
  return true;
}

}  // namespace

void insert_at_targets(regularizer& g, const dense1D<unsigned>& targets, unsigned& nodes_left,
                       dense1D<unsigned>& new_nodes) noexcept {
  if (!targets.size || interrupted(g)) return;
  th4_engine& m = g.engine;
  kernel_workspace& ws = m.kernel;
  cavity_record& cav = ws.cavity;
  const unsigned clock = ++m.tet_clock;
  const kernel_mode_type kept_mode = m.kernel_mode;
  m.kernel_mode = kernel_mode_type::hard_edges;
  dense1D<unsigned>& seeds = g.insertion_seeds;
  dense1D<unsigned>& star = g.new_tets;
  for (unsigned k = 0; k + 1 < targets.size; k += 2) {
    if (nodes_left == 0) break;
    const unsigned t = targets[k], e = targets[k + 1];
    if (m.tet_stamps[t] >= clock) continue;  // rewritten by an earlier target
    double p[3], size = 0.0;
    if (!place_target(g, t, e, p, size, seeds)) continue;
    const unsigned node = m.new_node(p[0], p[1], p[2], size);
    if (node == NONE) break;
    collect_cavity(m, node, seeds, cav, CAVITY_TOL);
    correct_cavity(m, ws, cav, m.kernel_mode, m.hard_set);
    // The cavity's rows, for the valence counts, before the star takes them over.
    bool starred = cav.tets.size > 0 && g.old_rows.resize(4, cav.tets.size);
    if (starred) {
      for (unsigned i = 0; i < cav.tets.size; ++i)
        std::copy_n(m.tets.row(cav.tets[i]), 4, g.old_rows.col(i));
      starred = fill_star(m, ws, cav, star);
    }
    if (!starred) {
      m.release_node(node);
      continue;
    }
    if (nodes_left != NONE) --nodes_left;
    new_nodes.push_back(node);
    g.merit.add_valence_record(node);
    if (g.new_rows.resize(4, star.size)) {
      for (unsigned i = 0; i < star.size; ++i)
        std::copy_n(m.tets.row(star[i]), 4, g.new_rows.col(i));
      g.merit.commit_valence(g.old_rows, g.new_rows);
    }
  }
  m.kernel_mode = kept_mode;
}

void split_longest_edges(regularizer& g, dense1D<unsigned>& tets, unsigned& nodes_left,
                         dense1D<unsigned>& new_nodes, bool forced) noexcept {
  if (nodes_left == 0 || !tets.size || interrupted(g)) return;
  th4_engine& m = g.engine;
  const bool metric = g.merit.shape_weight < 1.0;
  dense1D<unsigned>& targets = g.targets;
  targets.clear();
  for (unsigned i = 0; i < tets.size; ++i) {
    const unsigned t = tets[i];
    double L[6], longest = 0.0;
    for (unsigned k = 0; k < 6; ++k) {
      unsigned a, b;
      edge_nodes(m, t, k, a, b);
      L[k] = metric ? metric_length(m, a, b) : edge_length2(m.nodes.data, a, b);
      longest = std::max(longest, L[k]);
    }
    // Half the longest edge: a quarter of the squared length, or half of the metric one.
    double bar = forced ? 0.0 : longest * (metric ? 0.5 : 0.25);
    unsigned choice = NONE;
    for (unsigned k = 0; k < 6; ++k) {
      unsigned a, b;
      edge_nodes(m, t, k, a, b);
      if (L[k] > bar && !m.hard_set.has_edge(a, b)) {
        choice = k;
        bar = L[k];
      }
    }
    if (choice == NONE && !forced) continue;
    if (!push_target(targets, t, choice)) break;
  }
  insert_at_targets(g, targets, nodes_left, new_nodes);
  drop_touched(m, tets);
}

void split_beside_worst(regularizer& g, dense1D<unsigned>& tets, double quality_limit,
                        unsigned& nodes_left, dense1D<unsigned>& new_nodes) noexcept {
  if (nodes_left == 0 || interrupted(g)) return;
  th4_engine& m = g.engine;
  dense1D<unsigned>& targets = g.targets;
  targets.clear();
  for (unsigned i = 0; i < tets.size; ++i) {
    const unsigned t = tets[i];
    const unsigned* r = m.tets.row(t);
    for (unsigned f = 0; f < 4; ++f) {
      const unsigned n = m.neighbors(f, t);
      if (n == NONE || g.frozen(n) || !(m.tet_qualities[n] >= quality_limit)) continue;
      const unsigned* fn = tet_face_nodes[f];
      if (m.hard_set.has_face(r[fn[0]], r[fn[1]], r[fn[2]])) continue;
      if (!push_target(targets, n, NONE)) break;
    }
  }
  insert_at_targets(g, targets, nodes_left, new_nodes);
  drop_touched(m, tets);
}

}  // namespace kelvo::voxfill
