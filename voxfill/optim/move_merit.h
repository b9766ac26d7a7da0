// The one scale on which local moves are compared: the worst shape quality blended with how well
// the edges fit the sizes, times a factor for the topology (how many tets a move adds, how near
// its nodes come to their natural number of tets, how much of a tet hangs on hard nodes).
#pragma once

#include <cmath>

#include "delaunay/geometry.h"
#include "delaunay/mesh_store.h"
#include "numcore/dense2D.h"

namespace kelvo::voxfill {

// Adds the nodes of a tet row that `marks` does not hold yet to `list`, kept ascending, and marks
// them. A ball meets few distinct nodes many times: insertion beats sorting the whole list.
inline void add_unmarked_sorted(const unsigned* row, unsigned* marks, unsigned mark, unsigned* list,
                                unsigned& size) noexcept {
  for (unsigned i = 0; i < 4; ++i) {
    const unsigned v = row[i];
    if (marks[v] == mark) continue;
    marks[v] = mark;
    unsigned j = size++;
    for (; j > 0 && list[j - 1] > v; --j) list[j] = list[j - 1];
    list[j] = v;
  }
}

// m.resize(r, c) with its usual case inline: the row count stays and the columns are packed, so
// that only the shape changes. The moves reshape their small lists many times per edge.
template <class T>
inline bool reshape(dense2D<T>& m, unsigned r, unsigned c) noexcept {
  if (r == m.rows && (m.ld == r || m.cols <= 1) && r) {
    if (!m.reserve(r, c, 1)) return false;
    m.ld = r;
    m.cols = c;
    m.size = r * c;
    return true;
  }
  return m.resize(r, c);
}

inline constexpr double PI_OVER_5 = 0.6283185307179586;

// Per node: the solid angle round it (4 pi inside, less on the boundary), its tet count times
// pi / 5 (same unit), and the count it would have after the move under evaluation. Three floats,
// since the array is touched for every node of every candidate.
struct topo_quality {
  float angle = 0.0f;
  float count = 0.0f;
  float trial = 0.0f;
};

// At most 1, and 1 when the node has its natural number of tets.
inline double valence_fit(double angle, double count) noexcept {
  if (angle == count) return 1.0;
  return angle < count ? angle / count : count / angle;
}

// Mean of two sizes along an edge whose size varies geometrically between them. Inline: the
// callers are many and the work is a few operations but for the logarithm.
inline double log_mean(double h1, double h2) noexcept {
  const double lo = h1 < h2 ? h1 : h2, hi = h1 < h2 ? h2 : h1;
  const double r = (hi - lo) / lo;
  if (r >= 0.1) return lo * r / std::log(1.0 + r);
  // The series of r / ln(1 + r) about 0: the formula above loses digits there.
  const double x = r / 2;
  return lo * (1 + x * (1 - (1.0 / 3 - (1.0 / 3 - 0.42222222222222217 * x) * x) * x));
}
// Length of the edge over the mean of its nodes' sizes; 0.0 when the sizes give no mean.
inline double metric_length(const mesh_store& m, unsigned a, unsigned b) noexcept {
  const double d = std::sqrt(edge_length2(m.nodes.data, a, b));
  const double h = log_mean(m.node_sizes[a], m.node_sizes[b]);
  return h > 0.0 ? d / h : 0.0;
}
// The same, inverted when above 1: in [0, 1], 1 for a perfect fit.
inline double symmetric_length(const mesh_store& m, unsigned a, unsigned b) noexcept {
  const double d = std::sqrt(edge_length2(m.nodes.data, a, b));
  const double h = log_mean(m.node_sizes[a], m.node_sizes[b]);
  if (d > h) return h / d;
  return h > 0.0 ? d / h : 0.0;
}
// Solid angle at p of the tet (p, a, b, c); positive for a positive tet.
double solid_angle(const double* p, const double* a, const double* b, const double* c) noexcept;

// Shape weight and merit terms. A regularizer holds one; so does a boundary recovery, with the
// topology terms off and shape weight 1.
struct move_merit {
  mesh_store& store;
  double shape_weight = 1.0;  // exponent of the shape in merit_blend
  unsigned count_window = 0;
  unsigned old_count = 0;
  double count_factors[17];  // index d + 8 for a change of d tets, d in -8 .. 8
  dense1D<topo_quality> valence_records;
  double worst_exponent = 0.0;
  double mean_exponent = 0.0;
  double old_worst_fit = 1.0;
  double old_mean_fit = 1.0;
  dense2D<unsigned> old_rows_copy;
  dense1D<unsigned> fit_nodes;
  dense1D<unsigned> fit_marks;  // per node: fit_mark when it is in fit_nodes already
  unsigned fit_mark = 0;
  double hard_base = 1.0;
  double old_hard_share = 0.0;

  // Allocates its lists: may throw std::bad_alloc, like every constructor of a record.
  explicit move_merit(mesh_store& m);
  move_merit(const move_merit&) = delete;
  move_merit& operator=(const move_merit&) = delete;

  // Switches the topology factor on: the count window and factors, the valence exponents from
  // the current shape weight, and the hard base. The valence records are filled separately.
  void start_topology_terms() noexcept;
  // Back to no topology factor; the records are let go.
  void stop_topology_terms() noexcept;

  // q^w s^(1 - w) for a worst quality q and a worst symmetric length s; q alone when w >= 1.
  double merit_blend(double s, double q) const noexcept;
  // A quarter per hard node of the row that has the most; 0.0 without rows.
  double hard_share(const dense2D<unsigned>& rows) const noexcept;
  // Remembers the old state that candidates are compared to.
  void merit_reference(const dense2D<unsigned>& old_rows) noexcept;
  // merit_reference of rows whose distinct nodes are `nodes` (ascending) and `extra` (NONE:
  // none), known to the caller: the list is taken without a pass over the rows.
  void merit_reference(const dense2D<unsigned>& old_rows, const dense1D<unsigned>& nodes,
                       unsigned extra) noexcept;
  // merit_reference of the closed shell of (a, b) on `ring`, whose rows are `old_rows`: their
  // nodes are the ends and the ring's, listed here without a pass over the rows.
  void shell_reference(const dense2D<unsigned>& old_rows, unsigned a, unsigned b,
                       const dense1D<unsigned>& ring) noexcept;
  // Count term x valence term x hard term of a candidate; 1.0 with the terms off. With
  // `same_nodes` the caller knows that the candidate has the nodes of the old rows of the last
  // merit_reference, whose list is then taken as it is (a reconnection of a shell). A `share`
  // of 0 or more is hard_share(new_rows), known to the caller.
  double topology_factor(const dense2D<unsigned>& new_rows, bool same_nodes = false,
                         double share = -1.0) noexcept;

  // One record per node column from the live classified tets. False when memory ran out (the
  // records are then empty, and the valence term is off).
  bool fill_valence_records() noexcept;
  // A fresh node: a full sphere round it and no tet yet.
  void add_valence_record(unsigned n) noexcept;
  void clear_valence_record(unsigned n) noexcept;
  // After a move is done: the counts follow the exchange.
  void commit_valence(const dense2D<unsigned>& old_rows,
                      const dense2D<unsigned>& new_rows) noexcept;

 private:
  // Smallest and mean fit over fit_nodes, from `angle` and `count` (or `trial`).
  void fits(bool trial, double& worst, double& mean) const noexcept;
  // fit_nodes = the sorted distinct nodes of the rows.
  void collect_fit_nodes(const dense2D<unsigned>& rows) noexcept;
  bool start_listed_reference(const dense2D<unsigned>& old_rows, unsigned room) noexcept;
  void end_listed_reference(const dense2D<unsigned>& old_rows) noexcept;
  // The same by a sort of all entries: without room for the marks.
  void fit_nodes_by_sort(const dense2D<unsigned>& rows) noexcept;
};

}  // namespace kelvo::voxfill
