// Contraction of a short edge onto its midpoint or onto a neighbour of one end.
#include "voxfill/optim/edge_contraction.h"

#include <algorithm>
#include <cmath>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "delaunay/cpu_lanes.h"
#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/quality_lanes.h"
#include "voxfill/optim/edge_code.h"
#include "voxfill/optim/edge_split.h"

namespace kelvo::voxfill {

namespace {

void sort_unique(dense1D<unsigned>& list) noexcept {
  std::sort(list.begin(), list.end());
  list.size = unsigned(std::unique(list.begin(), list.end()) - list.begin());
}

// The other nodes of the tets of `ball`, sorted, each once. A ball names each node several
// times: a mark per node drops the repeats, and the few that stay are sorted by insertion.
void nodes_near(move_record& mr, unsigned node, const dense1D<unsigned>& ball,
                dense1D<unsigned>& out) noexcept {
  const mesh_store& m = mr.store;
  out.clear();
  const unsigned nodes = m.nodes.cols();
  if (!out.reserve(4 * ball.size) ||
      (nodes > mr.node_marks.size &&
       !mr.node_marks.resize(std::max(nodes, 2 * mr.node_marks.size), 0u))) {
    for (unsigned k = 0; k < ball.size; ++k) {
      const unsigned* r = m.tets.row(ball[k]);
      for (unsigned i = 0; i < 4; ++i)
        if (r[i] != node) out.push_back(r[i]);
    }
    sort_unique(out);
    return;
  }
  if (++mr.node_mark == 0) {
    mr.node_marks.fill(0u);
    mr.node_mark = 1;
  }
  const unsigned mark = mr.node_mark;
  unsigned* marks = mr.node_marks.begin();
  unsigned* list = out.begin();
  unsigned size = 0;
  marks[node] = mark;
  for (unsigned k = 0; k < ball.size; ++k) {
    add_unmarked_sorted(m.tets.row(ball[k]), marks, mark, list, size);
  }
  out.size = size;
}

// The union of two sorted lists of distinct entries, sorted, each once.
void merge_unique(const dense1D<unsigned>& x, const dense1D<unsigned>& y,
                  dense1D<unsigned>& out) noexcept {
  out.clear();
  unsigned i = 0, j = 0;
  while (i < x.size || j < y.size) {
    const unsigned v = j == y.size || (i < x.size && x[i] < y[j]) ? x[i++] : y[j++];
    if (out.size && out.back() == v) continue;
    out.push_back(v);
  }
}

double worst_quality(const mesh_store& m, const dense1D<unsigned>& tets) noexcept {
  double q = 1.0;
  for (unsigned k = 0; k < tets.size; ++k) q = std::min(q, m.tet_qualities[tets[k]]);
  return q;
}

bool rows_of(const mesh_store& m, const dense1D<unsigned>& tets, dense2D<unsigned>& rows) noexcept {
  if (!reshape(rows, 4, tets.size)) {
    reshape(rows, 4, 0);
    return false;
  }
  for (unsigned k = 0; k < tets.size; ++k) std::copy_n(m.tets.row(tets[k]), 4, rows.col(k));
  return true;
}

void clear_candidate(contraction_candidate& out) noexcept {
  out.old_tets.clear();
  reshape(out.old_rows, 4, 0);
  reshape(out.new_rows, 4, 0);
  out.new_qualities.clear();
  out.kept_node = NONE;
  out.made_node = false;
}

}  // namespace

bool collapse_onto(move_record& mr, unsigned a, unsigned b, unsigned c,
                   const dense1D<unsigned>& neighbours, double floor,
                   const dense2D<unsigned>& old_rows, dense2D<unsigned>& rows,
                   dense1D<double>& qualities, double& merit, bool* reference, double bar,
                   const dense1D<unsigned>* nodes) noexcept {
  const mesh_store& m = mr.store;
  merit = 0.0;
  qualities.clear();
  if (!reshape(rows, 4, old_rows.cols)) return false;
  unsigned kept = 0, rated = 0;
  double q = 1.0;
  // The rows made so far from `rated` on, four at a time (the last repeated to fill the lanes),
  // used in order; with `all` the last few too. False at the first at or under the floor: each
  // block is rated as soon as it is made, so that a collapse that fails early makes few rows.
  auto rate = [&](bool all) {
    while (kept - rated >= 4 || (all && rated < kept)) {
      unsigned n[16];
      for (unsigned l = 0; l < 4; ++l)
        std::copy_n(rows.col(rated + l < kept ? rated + l : kept - 1), 4, n + 4 * l);
      double v[4];
      tet_quality_lanes(m.nodes.data, n, v);
      for (unsigned l = 0; l < 4 && rated < kept; ++l, ++rated) {
        if (!(v[l] > floor)) return false;
        qualities.push_back(v[l]);
        q = std::min(q, v[l]);
      }
    }
    return true;
  };
#if defined(__SSE2__)
  // A row's four nodes against a, b and c at once: with c apart from a, each node meets at most
  // one of them, and the count of hits is that of the lanes that meet one.
  if (lanes_sse2() && a != b && a != c && old_rows.cols) {
    const __m128i va = _mm_set1_epi32(int(a)), vb = _mm_set1_epi32(int(b)),
                  vc = _mm_set1_epi32(int(c));
    const unsigned* from = old_rows.col(0);
    const std::size_t ld = old_rows.ld;
    unsigned* to = rows.col(0);  // packed: four rows
    for (unsigned j = 0; j < old_rows.cols; ++j, from += ld) {
      const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
      const __m128i ab = _mm_or_si128(_mm_cmpeq_epi32(x, va), _mm_cmpeq_epi32(x, vb));
      const unsigned hit =
          unsigned(_mm_movemask_ps(_mm_castsi128_ps(_mm_or_si128(ab, _mm_cmpeq_epi32(x, vc)))));
      if (hit & (hit - 1)) continue;  // two hits or more
      _mm_storeu_si128(reinterpret_cast<__m128i*>(to + 4 * std::size_t(kept++)),
                       _mm_or_si128(_mm_and_si128(ab, vc), _mm_andnot_si128(ab, x)));
      if (kept - rated == 4 && !rate(false)) return false;
    }
  } else
#endif
  {
    for (unsigned j = 0; j < old_rows.cols; ++j) {
      const unsigned* r = old_rows.col(j);
      unsigned hits = 0;
      for (unsigned i = 0; i < 4; ++i) hits += (r[i] == a) + (r[i] == b) + (b != c && r[i] == c);
      if (hits >= 2) continue;
      unsigned* w = rows.col(kept++);
      for (unsigned i = 0; i < 4; ++i) w[i] = r[i] == a || r[i] == b ? c : r[i];
      if (kept - rated == 4 && !rate(false)) return false;
    }
  }
  reshape(rows, 4, kept);
  if (!rate(true)) return false;
  if (reference && *reference) {
    if (nodes)
      mr.merit.merit_reference(old_rows, *nodes, a);
    else
      mr.merit.merit_reference(old_rows);
    *reference = false;
  }
  // The topology first: the worst length only lowers the blend, so that a collapse that cannot
  // beat the bar at a length of 1 (a little over, for rounding) needs no lengths.
  const double topology = mr.merit.topology_factor(rows);
  if (bar >= 0.0 && mr.merit.merit_blend(1.0, q) * topology * (1.0 + 1e-9) <= bar) return false;
  double s = 1.0;
  if (kept >= 3 && mr.merit.shape_weight < 1.0) {
    // A node met again gives the same length: where the marks can be had, each is measured once.
    const unsigned nodes = m.nodes.cols();
    unsigned* marks = nullptr;
    unsigned mark = 0;
    if (nodes <= mr.node_marks.size ||
        mr.node_marks.resize(std::max(nodes, 2 * mr.node_marks.size), 0u)) {
      if (++mr.node_mark == 0) {
        mr.node_marks.fill(0u);
        mr.node_mark = 1;
      }
      marks = mr.node_marks.begin();
      mark = mr.node_mark;
    }
    auto visit = [&](unsigned x) {
      if (x == a || x == b || x == c) return;
      if (marks) {
        if (marks[x] == mark) return;
        marks[x] = mark;
      }
      s = std::min(s, symmetric_length(m, c, x));
    };
    for (unsigned k = 0; k < neighbours.size; ++k) visit(neighbours[k]);
    if (b == c)
      for (unsigned j = 0; j < old_rows.cols; ++j) {
        const unsigned* r = old_rows.col(j);
        if (r[0] == b || r[1] == b || r[2] == b || r[3] == b)
          for (unsigned i = 0; i < 4; ++i) visit(r[i]);
      }
  }
  merit = mr.merit.merit_blend(s, q) * topology;
  return merit > 1e-12;
}

bool contract_node(move_record& mr, unsigned node, const dense1D<unsigned>& neighbours,
                   unsigned tries, double floor, const dense2D<unsigned>& old_rows,
                   dense2D<unsigned>& rows, dense1D<double>& qualities, double& merit,
                   unsigned& kept_node, const dense1D<double>* lengths, bool ball) noexcept {
  const mesh_store& m = mr.store;
  reshape(rows, 4, 0);
  qualities.clear();
  kept_node = NONE;
  if (!old_rows.cols) return true;
  if (!tries) return false;
  // The reference is taken by the first collapse whose rows pass the floor: most pass none.
  bool reference = true;
  // Nearest first, by metric length when sizes count, else by distance; ties by node.
  dense1D<unsigned>& order = mr.order;
  dense1D<double>& keys = mr.keys;
  order.clear();
  keys.clear();
  if (lengths && lengths->size != neighbours.size) lengths = nullptr;
  for (unsigned k = 0; k < neighbours.size; ++k) {
    const unsigned n = neighbours[k];
    order.push_back(k);
    keys.push_back(mr.merit.shape_weight < 1.0
                       ? (lengths ? (*lengths)[k] : metric_length(m, node, n))
                       : edge_length2(m.nodes.data, node, n));
  }
  if (order.size != neighbours.size || keys.size != neighbours.size) return false;
  std::sort(order.begin(), order.end(), [&](unsigned x, unsigned y) {
    return keys[x] < keys[y] || (keys[x] == keys[y] && neighbours[x] < neighbours[y]);
  });
  const unsigned count = std::min(tries, order.size);
  for (unsigned k = 0; k < count; ++k) {
    const unsigned n = neighbours[order[k]];
    double value = 0.0;
    if (collapse_onto(mr, node, n, n, neighbours, floor, old_rows, mr.trial_rows,
                      mr.trial_qualities, value, &reference, merit, ball ? &neighbours : nullptr) &&
        value > merit && copy_candidate(mr.trial_rows, mr.trial_qualities, rows, qualities)) {
      merit = value;
      kept_node = n;
      break;
    }
  }
  return rows.cols > 0;
}

bool try_contract(move_record& mr, unsigned t, unsigned k, double s, double quality_factor,
                  unsigned tries, bool insert, contraction_candidate& out, double& gain) noexcept {
  mesh_store& m = mr.store;
  move_merit& merit = mr.merit;
  clear_candidate(out);
  unsigned a, b;
  edge_nodes(m, t, k, a, b);
  const bool free_a = !mr.settled(a), free_b = !mr.settled(b);
  if (!free_a && !free_b) return false;

  double s_a = s, s_b = s, q_a = 1.0, q_b = 1.0;
  // The metric length d / h to each neighbour, kept for the order of the tries, gives the
  // symmetric length too: h / d when d > h, else the same value.
  auto survey = [&](unsigned e, unsigned o, dense1D<unsigned>& ball, dense1D<unsigned>& near,
                    dense1D<double>& lengths, double& s_e, double& q_e) {
    ball_of_node(m, e, t, ball);
    nodes_near(mr, e, ball, near);
    lengths.clear();
    if (merit.shape_weight < 1.0) {
      if (lengths.resize(near.size)) {
        const double he = m.node_sizes[e];
        for (unsigned i = 0; i < near.size; ++i) {
          const unsigned x = near[i];
          const double d = std::sqrt(edge_length2(m.nodes.data, e, x));
          const double h = log_mean(he, m.node_sizes[x]);
          lengths[i] = h > 0.0 ? d / h : 0.0;
          if (x != o) s_e = std::min(s_e, d > h ? h / d : lengths[i]);
        }
      } else {
        lengths.clear();
        for (unsigned i = 0; i < near.size; ++i)
          if (near[i] != o) s_e = std::min(s_e, symmetric_length(m, e, near[i]));
      }
    }
    q_e = worst_quality(m, ball);
  };
  if (free_a) survey(a, b, mr.ball_a, mr.near_a, out.lengths_a, s_a, q_a);
  if (free_b) survey(b, a, mr.ball_b, mr.near_b, out.lengths_b, s_b, q_b);

  // Both ends onto a new node at the midpoint.
  if (free_a && free_b && insert) {
    const double floor = std::max(std::min(q_a, q_b) * quality_factor, 1e-12);
    out.old_tets.clear();
    for (unsigned i = 0; i < mr.ball_a.size; ++i) out.old_tets.push_back(mr.ball_a[i]);
    for (unsigned i = 0; i < mr.ball_b.size; ++i) out.old_tets.push_back(mr.ball_b[i]);
    sort_unique(out.old_tets);
    merge_unique(mr.near_a, mr.near_b, mr.near);
    double p[3], h = 0.0;
    split_point(mr, a, b, p, h);
    const unsigned c =
        rows_of(m, out.old_tets, out.old_rows) ? m.new_node(p[0], p[1], p[2], h) : NONE;
    if (c != NONE) {
      merit.add_valence_record(c);
      const double m0 = merit.merit_blend(std::min(s_a, s_b), worst_quality(m, out.old_tets));
      // The reference is taken once the rows pass the floor.
      bool reference = true;
      double value = 0.0;
      if (collapse_onto(mr, a, b, c, mr.near, floor, out.old_rows, mr.trial_rows,
                        mr.trial_qualities, value, &reference, m0 * gain, &mr.near) &&
          value > m0 * gain &&
          copy_candidate(mr.trial_rows, mr.trial_qualities, out.new_rows, out.new_qualities)) {
        gain = value / m0;
        out.kept_node = c;
        out.made_node = true;
        return true;
      }
      merit.clear_valence_record(c);
      m.release_node(c);
    }
  }

  // One end onto a neighbour.
  auto onto_neighbour = [&](unsigned e, const dense1D<unsigned>& ball,
                            const dense1D<unsigned>& near, const dense1D<double>& lengths,
                            double s_e, double q_e) {
    out.old_tets.clear();
    for (unsigned i = 0; i < ball.size; ++i) out.old_tets.push_back(ball[i]);
    if (out.old_tets.size != ball.size || !rows_of(m, out.old_tets, out.old_rows)) return false;
    const double floor = std::max(q_e * quality_factor, 1e-12);
    const double m0 = merit.merit_blend(s_e, q_e);
    double value = m0 * gain;
    if (contract_node(mr, e, near, tries, floor, out.old_rows, out.new_rows, out.new_qualities,
                      value, out.kept_node, lengths.size ? &lengths : nullptr, true) &&
        out.new_rows.cols) {
      gain = value / m0;
      return true;
    }
    return false;
  };
  if (free_a && onto_neighbour(a, mr.ball_a, mr.near_a, out.lengths_a, s_a, q_a)) return true;
  if (free_b && onto_neighbour(b, mr.ball_b, mr.near_b, out.lengths_b, s_b, q_b)) return true;
  clear_candidate(out);
  return false;
}

}  // namespace kelvo::voxfill
