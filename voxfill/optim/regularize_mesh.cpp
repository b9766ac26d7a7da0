// Levels and sweeps of the optimiser, and the picks that feed edge moves.
#include "voxfill/optim/regularize_mesh.h"

#include <algorithm>
#include <cassert>
#include <cfloat>
#include <cmath>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "voxfill/optim/edge_code.h"
#include "voxfill/optim/edge_move.h"
#include "voxfill/optim/face_swaps.h"
#include "voxfill/optim/node_insertion.h"
#include "voxfill/optim/worst_polish.h"

namespace kelvo::voxfill {

namespace {

// The shape quality from which the polish leaves a tet of a refined mesh alone.
constexpr double REFINED_GOOD_ENOUGH = 0.35;

bool interrupted(const regularizer& g) {
  return g.task && g.task->must_stop();
}

// Both scans through plain pointers taken once: the table's size and columns are not read
// again for each tet.
unsigned live_tet_count(const mesh_store& m) noexcept {
  const unsigned* colors = m.colors.begin();
  const unsigned cols = m.tets.cols();
  unsigned n = 0;
  for (unsigned t = 0; t < cols; ++t) n += color_in_domain(colors[t]);
  return n;
}

double worst_live_quality(const mesh_store& m) noexcept {
  const unsigned* colors = m.colors.begin();
  const double* quality = m.tet_qualities.begin();
  const unsigned cols = m.tets.cols();
  double q = DBL_MAX;
  bool any = false;
  for (unsigned t = 0; t < cols; ++t)
    if (color_in_domain(colors[t])) {
      q = std::min(q, quality[t]);
      any = true;
    }
  return any ? q : 0.0;
}

// The rule that every entry applies: without nodes left, nothing that makes one.
void no_insertion_without_nodes(unsigned nodes_left, double& long_limit, bool& hard_links,
                                bool& insert) noexcept {
  if (nodes_left != 0) return;
  long_limit = DBL_MAX;
  hard_links = insert = false;
}

// Drops from `list` the entries whose tet (entry / divisor) the sweep that began at `clock`
// rewrote.
void drop_rewritten(const mesh_store& m, dense1D<unsigned>& list, unsigned divisor,
                    unsigned clock) noexcept {
  unsigned kept = 0;
  for (unsigned k = 0; k < list.size; ++k)
    if (m.tet_stamps[list[k] / divisor] < clock) list[kept++] = list[k];
  list.size = kept;
}

// Keeps the tets whose four nodes are hard: no move on their edges can reach them.
void keep_all_hard(const mesh_store& m, dense1D<unsigned>& tets) noexcept {
  unsigned kept = 0;
  for (unsigned k = 0; k < tets.size; ++k) {
    const unsigned* r = m.tets.row(tets[k]);
    bool all = true;
    for (unsigned i = 0; i < 4; ++i) all = all && m.hard_set.has_node(r[i]);
    if (all) tets[kept++] = tets[k];
  }
  tets.size = kept;
}

void grow_bits(bit_set& bits, unsigned n) noexcept {
  bits.grow(n);
}

// Bit k set when q[k] is at most `limit` (NaN never is), for k < n <= 32.
inline unsigned at_most_bits(const double* q, unsigned n, double limit) noexcept {
#if defined(__SSE2__)
  if (n == 32) {
    const __m128d L = _mm_set1_pd(limit);
    unsigned bits = 0;
    for (unsigned k = 0; k < 32; k += 2)
      bits |= unsigned(_mm_movemask_pd(_mm_cmple_pd(_mm_loadu_pd(q + k), L))) << k;
    return bits;
  }
#endif
  unsigned bits = 0;
  for (unsigned k = 0; k < n; ++k) bits |= unsigned(q[k] <= limit) << k;
  return bits;
}

// Bit k set when tet t0 + k is frozen.
inline unsigned frozen_bits_at(const bit_set& frozen, unsigned t0) noexcept {
  if (t0 >= frozen.length) return 0u;
  const unsigned word = frozen.words[t0 >> 5], left = frozen.length - t0;
  return left >= 32 ? word : word & ((1u << left) - 1u);
}

}  // namespace

void prepare_masks(regularizer& g) noexcept {
  th4_engine& m = g.engine;
  g.frozen_bits.clear();
  g.settled_nodes.clear();
  const unsigned cols = m.tets.cols(), nodes = m.nodes.cols();
  grow_bits(g.frozen_bits, cols);
  grow_bits(g.settled_nodes, nodes);
  const bit_set& hard = m.hard_set.node_bits;
  if (cols && g.frozen_bits.length >= cols && g.settled_nodes.length >= nodes) {
    // Both masks hold every tet and node: their words are written directly, and the hard nodes
    // joined a word at a time.
    const unsigned* colors = m.colors.begin();
    const unsigned* tets = m.tets.data.col(0);
    const std::size_t ld = m.tets.data.ld;
    unsigned* frozen = g.frozen_bits.words.begin();
    unsigned* settled = g.settled_nodes.words.begin();
    for (unsigned t = 0; t < cols; ++t) {
      if (colors[t] != NONE) continue;
      frozen[t >> 5] |= 1u << (t & 31);
      const unsigned* r = tets + ld * t;
      // Rows name nodes of the table only (as the fit and smoothing marks take too).
      for (unsigned i = 0; i < 4; ++i) {
        assert(r[i] < nodes);
        settled[r[i] >> 5] |= 1u << (r[i] & 31);
      }
    }
    const unsigned limit = std::min(hard.length, nodes);
    const unsigned* words = hard.words.begin();
    for (unsigned k = 0; k < limit >> 5; ++k) settled[k] |= words[k];
    if (limit & 31) settled[limit >> 5] |= words[limit >> 5] & ((1u << (limit & 31)) - 1u);
    return;
  }
  for (unsigned t = 0; t < cols; ++t) {
    if (!m.tet_unclassified(t)) continue;
    g.frozen_bits.set(t);
    const unsigned* r = m.tets.row(t);
    for (unsigned i = 0; i < 4; ++i) g.settled_nodes.set(r[i]);
  }
  for (unsigned n = 0; n < hard.length && n < nodes; ++n)
    if (hard.test(n)) g.settled_nodes.set(n);
}

namespace {

// The tets of quality at most `bound` (not over the limit of the pick), neither deleted nor
// frozen, in index order.
void tets_at_most(const mesh_store& m, double bound, const bit_set& frozen,
                  dense1D<unsigned>& tets) noexcept {
  const unsigned cols = m.tets.cols();
  const double* quality = m.tet_qualities.begin();
  const unsigned* colors = m.colors.begin();
  unsigned* out = tets.begin();
  unsigned size = 0;
  for (unsigned t0 = 0; t0 < cols; t0 += 32) {
    const unsigned n = cols - t0 < 32 ? cols - t0 : 32;
    unsigned bits = at_most_bits(quality + t0, n, bound);
    if (!bits) continue;
    bits &= ~frozen_bits_at(frozen, t0);
    for (; bits; bits &= bits - 1) {
      const unsigned t = t0 + unsigned(__builtin_ctz(bits));
      if (colors[t] != DELETED) out[size++] = t;
    }
  }
  tets.size = size;
}

}  // namespace

void pick_worst_tets(regularizer& g, double quality_limit, const bit_set& frozen, unsigned count,
                     dense1D<unsigned>& tets) noexcept {
  const mesh_store& m = g.engine;
  tets.clear();
  const unsigned cols = m.tets.cols();
  if (!tets.reserve(cols)) return;
  const double* quality = m.tet_qualities.begin();
  auto worse = [quality](unsigned a, unsigned b) {
    const double qa = quality[a], qb = quality[b];
    return qa < qb || (qa == qb && a < b);
  };
  // The pick is the `count` first tets in the order of (quality, index) among those eligible:
  // any bound under which `count` of them lie holds all of it.
  // The bound comes from the last pick of this count and limit or, without one, from one of a
  // larger count under the same limit.
  regularizer::pick_hint* hint = nullptr;
  const regularizer::pick_hint* guide = nullptr;
  const regularizer::pick_hint* below = nullptr;
  for (regularizer::pick_hint& h : g.pick_hints) {
    if (!count || h.limit != quality_limit || !h.count) continue;
    if (h.count < count) {
      if (!below || h.count > below->count) below = &h;
      continue;
    }
    if (h.count == count) hint = &h;
    if (!guide || h.count < guide->count) guide = &h;
  }
  // Read before a new hint may take the slot of either.
  const double guess = guide ? guide->quality : below ? below->quality : 0.0;
  if (!hint && count) {
    hint = &g.pick_hints[g.next_pick_hint];
    g.next_pick_hint = (g.next_pick_hint + 1) % 8;
    *hint = regularizer::pick_hint{count, quality_limit, 0.0};
  }
  // Without a pick as large, the last quality of a smaller one is where this one starts at the
  // least. Bounds further and further above the guess cost a look at the qualities each, less
  // than the bins below.
  if ((guide || below) && count <= cols / 8) {
    const double step = std::max(0.25 * std::fabs(guess), 0.01);
    for (unsigned attempt = 0; attempt < 4; ++attempt) {
      const double bound = std::min(quality_limit, guess + double(1u << (2 * attempt)) * step);
      tets_at_most(m, bound, frozen, tets);
      // At the limit the list holds every eligible tet: the pick is all of them when too few.
      if (tets.size < count && bound < quality_limit) continue;
      if (!tets.size) return;
      count = std::min(count, tets.size);
      if (count < tets.size)
        std::nth_element(tets.begin(), tets.begin() + count, tets.end(), worse);
      std::sort(tets.begin(), tets.begin() + count, worse);
      tets.size = count;
      hint->quality = quality[tets[count - 1]];
      return;
    }
    tets.clear();
  }
  // Qualities into bins that keep their order: the bins below the one where the pick ends are
  // all in it, the bins above none, so that only the tets of the lower bins are selected among.
  // The bins span [0, quality_limit]: q * scale is at most `bins` there (rounding cannot carry
  // it to bins + 1), and it keeps the order of the qualities.
  constexpr unsigned bins = 1024;
  unsigned counts[bins + 1] = {};
  const double scale = quality_limit > 0.0 && quality_limit < DBL_MAX ? bins / quality_limit : 0.0;
  auto bin = [scale](double q) {
    const double x = q * scale;
    return x > 0.0 ? unsigned(x) : 0u;
  };
  const unsigned* colors = m.colors.begin();
  const unsigned* frozen_words = frozen.words.begin();
  const unsigned frozen_length = frozen.length;
  unsigned* out = tets.begin();
  unsigned size = 0;
  // By blocks of 32 tets, one word of the frozen mask each: most words are 0, and then no tet
  // of the block needs its bit. Under a limit below 1 (no quality exceeds 1) most blocks hold no
  // tet at all, which a look at their qualities alone tells.
  const bool sparse = quality_limit < 1.0;
  for (unsigned t0 = 0; t0 < cols; t0 += 32) {
    const unsigned end = cols - t0 < 32 ? cols : t0 + 32;
    if (sparse && !at_most_bits(quality + t0, end - t0, quality_limit)) continue;
    const unsigned word = t0 < frozen_length ? frozen_words[t0 >> 5] : 0u;
    if (!word) {
      for (unsigned t = t0; t < end; ++t) {
        const double q = quality[t];
        if (!(q <= quality_limit) || colors[t] == DELETED) continue;
        out[size++] = t;
        ++counts[bin(q)];
      }
      continue;
    }
    for (unsigned t = t0; t < end; ++t) {
      const double q = quality[t];
      if (!(q <= quality_limit) || colors[t] == DELETED) continue;
      if (t < frozen_length && (word >> (t & 31)) & 1u) continue;
      out[size++] = t;
      ++counts[bin(q)];
    }
  }
  tets.size = size;
  if (!size) return;
  count = std::min(count, size);
  if (count < size) {
    unsigned last = 0;
    for (unsigned below = counts[0]; below < count; below += counts[++last]) {
    }
    // bin(q) <= last just when q * scale is below last + 1 (or not positive, or NaN): the
    // truncation is not needed to keep a tet.
    const double above = double(last) + 1.0;
    unsigned kept = 0;
    for (unsigned k = 0; k < size; ++k)
      if (!(quality[out[k]] * scale >= above)) out[kept++] = out[k];
    tets.size = kept;
  }
  // Only the order by (quality, index) matters, a total order: selecting the pick first and
  // sorting it alone gives the same list as a sort of all.
  if (count < tets.size) std::nth_element(tets.begin(), tets.begin() + count, tets.end(), worse);
  std::sort(tets.begin(), tets.begin() + count, worse);
  tets.size = count;
  if (hint) hint->quality = quality[tets[count - 1]];
}

void pick_edges(regularizer& g, const dense1D<unsigned>& tets, bool use_metric, bool symmetric,
                double sign, dense1D<unsigned>& edges) noexcept {
  const th4_engine& m = g.engine;
  edge_set& seen = g.seen_edges;
  seen.clear();
  for (unsigned i = 0; i < tets.size; ++i) {
    const unsigned t = tets[i];
    double key[6];
    unsigned order[6], count = 0;
    for (unsigned k = 0; k < 6; ++k) {
      unsigned a, b;
      edge_nodes(m, t, k, a, b);
      if (seen.contains(edge_key{{a, b}}) || m.hard_set.has_edge(a, b)) continue;
      const double length = !use_metric ? edge_length2(m.nodes.data, a, b)
                            : symmetric ? symmetric_length(m, a, b)
                                        : metric_length(m, a, b);
      key[k] = sign * length;
      order[count++] = k;
    }
    // By (key, k): an insertion sort of at most six.
    for (unsigned j = 1; j < count; ++j) {
      const unsigned x = order[j];
      unsigned i = j;
      for (; i > 0 &&
             (key[order[i - 1]] > key[x] || (key[order[i - 1]] == key[x] && order[i - 1] > x));
           --i)
        order[i] = order[i - 1];
      order[i] = x;
    }
    for (unsigned j = 0; j < count; ++j) {
      unsigned a, b;
      edge_nodes(m, t, order[j], a, b);
      edges.push_back(edge_code(t, order[j]));
      seen.insert(edge_key{{a, b}});
    }
  }
}

double sweep_edges(regularizer& g, double short_limit, double long_limit, unsigned shell_limit,
                   bool hard_links, bool insert, double quality_factor, double merit_factor,
                   dense1D<unsigned>& edges, unsigned& nodes_left, unsigned& moves,
                   dense1D<unsigned>& new_nodes) noexcept {
  no_insertion_without_nodes(nodes_left, long_limit, hard_links, insert);
  if ((short_limit <= 0.0 && shell_limit == 0 && !insert) || interrupted(g)) return 1.0;
  th4_engine& m = g.engine;
  const unsigned clock = ++m.tet_clock;
  double gain = 1.0;
  for (unsigned i = 0; i < edges.size; ++i) {
    const unsigned t = edges[i] / 6, k = edges[i] % 6;
    if (m.tet_stamps[t] >= clock) continue;  // rewritten by an earlier move of this sweep
    double g_move = 1.0;
    if (edge_move(g, t, k, short_limit, long_limit, shell_limit, hard_links, insert, quality_factor,
                  merit_factor, nodes_left, new_nodes, g_move)) {
      gain = std::max(gain, g_move);
      ++moves;
    }
  }
  drop_rewritten(m, edges, 6, clock);
  return std::max(gain, 1.0);
}

double sweep_tets(regularizer& g, dense1D<unsigned>& tets, double short_limit, double long_limit,
                  unsigned shell_limit, bool hard_links, bool insert, double quality_factor,
                  double merit_factor, dense1D<unsigned>& edges, unsigned& nodes_left,
                  unsigned& moves, dense1D<unsigned>& new_nodes) noexcept {
  edges.clear();
  moves = 0;
  no_insertion_without_nodes(nodes_left, long_limit, hard_links, insert);
  if (!tets.size) return 1.0;
  // In a metric the edges farthest from 1 come first, or the shortest when only contraction can
  // act; without one the shortest; with no contraction the longest.
  double sign = 1.0;
  bool symmetric = false;
  if (short_limit > 0.0) {
    symmetric = shell_limit != 0 || insert;
  } else {
    if (shell_limit == 0 && !insert) return 1.0;
    sign = -1.0;
  }
  pick_edges(g, tets, g.merit.shape_weight < 1.0, symmetric, sign, edges);
  const double gain =
      sweep_edges(g, short_limit, long_limit, shell_limit, hard_links, insert, quality_factor,
                  merit_factor, edges, nodes_left, moves, new_nodes);
  drop_rewritten(g.engine, tets, 1, g.engine.tet_clock);
  return gain;
}

double improve_worst(regularizer& g, double quality_limit, unsigned count, double short_limit,
                     double long_limit, unsigned shell_limit, bool hard_links, bool insert,
                     double quality_factor, double merit_factor, dense1D<unsigned>& tets,
                     dense1D<unsigned>& edges, unsigned& nodes_left, unsigned& moves,
                     dense1D<unsigned>& new_nodes) noexcept {
  tets.clear();
  edges.clear();
  moves = 0;
  no_insertion_without_nodes(nodes_left, long_limit, hard_links, insert);
  if (short_limit <= 0.0 && shell_limit == 0 && !insert) return 1.0;
  pick_worst_tets(g, quality_limit, g.frozen_bits, count, tets);
  return sweep_tets(g, tets, short_limit, long_limit, shell_limit, hard_links, insert,
                    quality_factor, merit_factor, edges, nodes_left, moves, new_nodes);
}

void run_levels(regularizer& g, unsigned level, unsigned& nodes_left, bool smooth, bool insert,
                bool remove, bool reconnect, bool hard_links, unsigned first_level) {
  th4_engine& m = g.engine;
  const unsigned top = std::min(level, 10u);
  const unsigned first = std::max(1u, std::min(first_level, top));
  const unsigned n = live_tet_count(m);
  if (interrupted(g)) return;
  const bool may_insert = insert && nodes_left != 0;
  const bool may_link = hard_links && nodes_left != 0;
  const bool any_move = may_insert || remove || reconnect;
  if (std::uint64_t(n) * top == 0 || (n == 1 && !may_link) || (!smooth && !any_move && !may_link))
    return;
  if (!may_insert) nodes_left = 0;
  const unsigned shell_limit_1 = reconnect ? 5 : 0;
  const unsigned shell_limit_2 = reconnect ? NONE : 0;

  Ptr<task_type> section;
  if (g.task) section = g.task->section(1.0, (top - first + 1) * 3);
  prepare_masks(g);
  if (g.topology_terms) {
    g.merit.start_topology_terms();
    g.merit.fill_valence_records();
  }
  dense1D<unsigned>& worst = g.worst;
  dense1D<unsigned>& edges = g.edges;
  g.new_nodes.clear();
  g.last_new_nodes.clear();
  unsigned moves = 0;

  for (unsigned L = first; L <= top; ++L) {
    if (interrupted(g)) break;
    const unsigned live = live_tet_count(m);
    const double goal = 1 + 9.0 / (double(L) * L);
    double want = std::ldexp(1.0, int(L) - 1) * live * 0.01;
    unsigned count = unsigned(std::min(want, double(NONE)));
    count = std::min(std::max(count, 8 * L), live);
    const double bad = std::min(0.01 * L, 0.05);
    double long_limit = 1 + 1.2 / L, short_limit = 1 / long_limit;
    const double gain_factor = 1 + 1.0 / L;
    if (g.merit.shape_weight == 1.0) {
      long_limit = 0.0;
      short_limit = DBL_MAX;
    }
    if (!may_insert) long_limit = DBL_MAX;
    if (!remove) short_limit = 0.0;
    const double short_limit_2 = remove ? DBL_MAX : 0.0;
    const double long_limit_2 = may_insert ? 0.0 : DBL_MAX;

    unsigned sweep_limit = 3;
    double gain = 1.0;
    for (unsigned p = 0;; ++p) {
      g.new_nodes.clear();
      g.stage_nodes.clear();
      double gm = 1.0;
      gain = 1.0;
      if (any_move) {
        gm = improve_worst(g, 1.0, count, short_limit, long_limit, shell_limit_1, may_link,
                           may_insert, 0.25, 1.001, worst, edges, nodes_left, moves, g.stage_nodes);
        const double g2 = improve_worst(g, bad, count, short_limit_2, long_limit_2, shell_limit_2,
                                        false, may_insert, gain_factor, 1e-12, worst, edges,
                                        nodes_left, moves, g.new_nodes);
        gm = std::max(gm, g2);
        if (reconnect) {
          unsigned swaps = 0;
          gm = std::max(gm, face_swap_pass(g, worst, gain_factor, 1e-12, swaps));
        }
        if (may_insert && p == 0) {
          split_longest_edges(g, worst, nodes_left, g.new_nodes, false);
          pick_worst_tets(g, 4 * bad, g.frozen_bits, count, worst);
          keep_all_hard(m, worst);
          split_longest_edges(g, worst, nodes_left, g.new_nodes, false);
        }
        if (may_insert && p == 1) {
          unsigned kept = 0;
          for (unsigned k = 0; k < worst.size; ++k)
            if (m.tet_qualities[worst[k]] < 0.05 * bad) worst[kept++] = worst[k];
          worst.size = kept;
          split_beside_worst(g, worst, bad, nodes_left, g.new_nodes);
        }
      }
      for (unsigned k = 0; k < g.new_nodes.size; ++k) {
        const unsigned node = g.new_nodes[k];
        dense1D<unsigned>& ball = g.smoother.ball;
        const unsigned start = m.ancestors[node];
        if (start == NONE || !ball_of_node(m, node, start, ball)) ball.clear();
        gain = std::max(gain, smooth_node(g, node, 1.0, ball));
      }
      const bool some_new = g.new_nodes.size > 0;
      grow_bits(g.settled_nodes, m.nodes.cols());
      for (unsigned k = 0; k < g.last_new_nodes.size; ++k)
        g.settled_nodes.reset(g.last_new_nodes[k]);
      g.last_new_nodes.clear();
      if (smooth)
        gain =
            std::max(gain, smooth_worst(g, count, g.merit.shape_weight, worst, g.smoother.nodes));
      grow_bits(g.settled_nodes, m.nodes.cols());
      for (unsigned k = 0; k < g.new_nodes.size; ++k) g.settled_nodes.set(g.new_nodes[k]);
      std::swap(g.new_nodes, g.last_new_nodes);
      const double q = worst_live_quality(m);
      gain = std::max(gain, gm);
      if (section) section->advance(1);
      bool again = (q < 0.01 && gain > 1.0) || some_new;
      if (again && L == top && p == 2) sweep_limit = 4;
      again = again || gain > goal;
      if (interrupted(g) || p + 1 >= sweep_limit || !again) break;
    }
    if (count == live && gain < goal) {
      if (section) section->bar->done = 3 * (top - first + 1);
      break;
    }
    if (section) section->bar->done = 3 * (L - first + 1);
  }
  for (unsigned k = 0; k < g.last_new_nodes.size; ++k) g.settled_nodes.reset(g.last_new_nodes[k]);

  if (may_link) {
    dense1D<unsigned>& link_nodes = g.stage_nodes;
    link_nodes.clear();
    do {
      worst.clear();
      edges.clear();
      moves = 0;
      if (nodes_left == 0) break;
      pick_worst_tets(g, 1.0, g.frozen_bits, NONE, worst);
      sweep_tets(g, worst, 0.0, DBL_MAX, 0, true, true, 1e-12, 1e-12, edges, nodes_left, moves,
                 link_nodes);
    } while (moves != 0);
    keep_all_hard(m, worst);
    split_longest_edges(g, worst, nodes_left, link_nodes, true);
    smooth_nodes(g, link_nodes, g.merit.shape_weight);
  }
  g.merit.valence_records.clear();
  if (g.task) g.task->drop_sections(1);
}

void regularize_mesh(th4_engine& e, bool with_background, double boundary_quality) {
  regularizer g(e, true, with_background, true);
  if (e.tasks) g.task = e.tasks->phase_task(phase_regularize);
  g.merit.shape_weight = e.settings.shape_weight;
  const mesher::settings_type& s = e.settings;
  unsigned nodes_left = NONE;
  if (s.nodes_limit != NONE) {
    unsigned used = 0;
    for (unsigned n = 0; n < e.nodes.cols(); ++n) used += e.ancestors[n] != NONE;
    nodes_left = s.nodes_limit > used ? s.nodes_limit - used : 0;
  }
  if (s.optim_level == 0 || interrupted(g)) return;
  const unsigned nodes_given = nodes_left;
  run_levels(g, s.optim_level, nodes_left, s.optim_node_smoothing, s.optim_node_insertion,
             s.optim_node_removal, s.optim_shell_reconnection, s.optim_hard_links, 1);
  const double q = worst_live_quality(e);
  const bool retry = q < 0.01 && q < 0.1 * boundary_quality;
  if (s.optim_level > 2 && retry && !interrupted(g)) {
    // The nodes have moved and come and gone: the octree of the walks is made anew.
    double lo[3] = {DBL_MAX, DBL_MAX, DBL_MAX}, hi[3] = {-DBL_MAX, -DBL_MAX, -DBL_MAX};
    for (unsigned t = 0; t < e.tets.cols(); ++t) {
      if (e.tets.is_free(t)) continue;
      const unsigned* r = e.tets.row(t);
      for (unsigned i = 0; i < 4; ++i) {
        const double* p = e.nodes.row(r[i]);
        for (unsigned c = 0; c < 3; ++c)
          lo[c] = std::min(lo[c], p[c]), hi[c] = std::max(hi[c], p[c]);
      }
    }
    if (lo[0] <= hi[0]) {
      std::copy_n(lo, 3, e.box_min);
      std::copy_n(hi, 3, e.box_max);
      e.locator.build(lo, hi);
    }
    run_levels(g, s.optim_level - 2, nodes_left, s.optim_node_smoothing, s.optim_node_insertion,
               s.optim_node_removal, s.optim_shell_reconnection, s.optim_hard_links, 1);
  }
  // The polish of the worst tets. A caller's mesh has many bad tets that no size has shaped: a
  // thousand of the worst are what can still move the worst one, however large the mesh. A
  // refined mesh has a few, and a small pick in a few rounds lifts them at little cost. There
  // the polish stops at REFINED_GOOD_ENOUGH: a tet above it is no trouble to a solver, lifting
  // it further took up to a fifth of a small run, and each node the polish adds lowers the mean.
  if (s.optim_node_smoothing && !interrupted(g)) {
    prepare_masks(g);
    // Nodes that the moves removed do not widen the caller's budget.
    unsigned left = s.optim_node_insertion ? std::min(nodes_left, nodes_given) : 0;
    const bool given = s.mode == 1;
    const unsigned count = given ? std::min(1024u, std::max(64u, live_tet_count(e) / 100)) : 32u;
    polish_worst(g, count, given ? 24 : 4, given ? 1.0 : REFINED_GOOD_ENOUGH, left);
  }
}

void swap_only_pass(th4_engine& e, unsigned level) {
  if (e.must_stop()) return;
  regularizer g(e, false, false, false);
  if (e.tasks) g.task = e.tasks->section(0.0, 0);
  unsigned nodes_left = 0;
  run_levels(g, level, nodes_left, false, false, false, true, false, 1);
}

}  // namespace kelvo::voxfill
