// Closest-node search over a listed subset of the nodes of a coordinate table.
#include "gridkit/node_detector.h"

#include <algorithm>
#include <limits>
#include <new>

namespace kelvo::gridkit {
namespace {

// The tree is implicit: the range [lo, hi) of `nodes` has its root at the middle, the smaller
// half (by the root's axis) before it and the larger half after it.
struct tree_builder {
  dense1D<unsigned>& order;  // positions in the caller's list
  const dense2D<double>& pos;
  const dense1D<unsigned>& indices;
  dense1D<unsigned char>& axes;
  unsigned dims;

  double coord(unsigned k, unsigned axis) const { return pos(axis, indices[k]); }

  void build(unsigned lo, unsigned hi) {
    if (hi - lo < 2) {
      if (hi > lo) axes[lo] = 0;
      return;
    }
    unsigned axis = 0;
    double widest = -1.0;
    for (unsigned a = 0; a < dims; ++a) {
      double mn = coord(order[lo], a), mx = mn;
      for (unsigned k = lo + 1; k < hi; ++k) {
        const double x = coord(order[k], a);
        mn = std::min(mn, x);
        mx = std::max(mx, x);
      }
      if (mx - mn > widest) {
        widest = mx - mn;
        axis = a;
      }
    }
    const unsigned mid = lo + (hi - lo) / 2;
    // Equal coordinates are ordered by list position: a total order, the same in every run.
    std::nth_element(order.begin() + lo, order.begin() + mid, order.begin() + hi,
                     [&](unsigned a, unsigned b) {
                       const double xa = coord(a, axis), xb = coord(b, axis);
                       return xa < xb || (xa == xb && a < b);
                     });
    axes[mid] = (unsigned char)axis;
    build(lo, mid);
    build(mid + 1, hi);
  }
};

struct tree_query {
  const node_detector& d;
  const double* p;
  double best_d2;
  unsigned best_rank;
  unsigned best;

  void visit(unsigned k) {
    const double* q = d.points.col(k);
    double s = 0.0;
    for (unsigned a = 0; a < d.dims; ++a) s += (p[a] - q[a]) * (p[a] - q[a]);
    if (s < best_d2 || (s == best_d2 && d.ranks[k] < best_rank)) {
      best_d2 = s;
      best_rank = d.ranks[k];
      best = d.nodes[k];
    }
  }

  void search(unsigned lo, unsigned hi) {
    if (hi <= lo) return;
    const unsigned mid = lo + (hi - lo) / 2;
    visit(mid);
    if (hi - lo == 1) return;
    const unsigned axis = d.axes[mid];
    const double gap = p[axis] - d.points(axis, mid);
    if (gap < 0.0) {
      search(lo, mid);
      if (gap * gap <= best_d2) search(mid + 1, hi);
    } else {
      search(mid + 1, hi);
      // Equal distances stay in play: a tie is decided by list position, not by the tree.
      if (gap * gap <= best_d2) search(lo, mid);
    }
  }
};

}  // namespace

int node_detector::reinit(const dense2D<double>& pos_in, const dense1D<unsigned>& indices) {
  try {
    const unsigned dim = pos_in.rows < 3 ? pos_in.rows : 3;
    dense1D<unsigned> order, new_nodes, new_ranks;
    dense2D<double> new_points;
    dense1D<unsigned char> new_axes;
    unsigned count = 0;
    for (unsigned k = 0; k < indices.size; ++k) count += indices[k] < pos_in.cols;
    if (!order.resize(count) || !new_nodes.resize(count) || !new_ranks.resize(count) ||
        !new_points.resize(3, count, 0.0) || !new_axes.resize(count))
      return -199;
    count = 0;
    for (unsigned k = 0; k < indices.size; ++k)
      if (indices[k] < pos_in.cols) order[count++] = k;
    tree_builder b{order, pos_in, indices, new_axes, dim};
    b.build(0, count);
    for (unsigned k = 0; k < count; ++k) {
      new_ranks[k] = order[k];
      new_nodes[k] = indices[order[k]];
      for (unsigned a = 0; a < dim; ++a) new_points(a, k) = pos_in(a, new_nodes[k]);
    }
    pos = pos_in;
    nodes = new_nodes;
    ranks = new_ranks;
    points = new_points;
    axes = new_axes;
    dims = dim;
    return 0;
  } catch (const std::bad_alloc&) {
    return -199;
  }
}

unsigned node_detector::find_closest_point(const double* p) const noexcept {
  if (nodes.size == 0) return 0xFFFFFFFFu;
  tree_query q{*this, p, std::numeric_limits<double>::infinity(), 0xFFFFFFFFu, 0xFFFFFFFFu};
  q.search(0, nodes.size);
  return q.best;
}

unsigned node_detector::find_closest(unsigned node) const noexcept {
  if (pos.empty() || node >= pos.cols) return 0xFFFFFFFFu;
  double p[3] = {0.0, 0.0, 0.0};
  for (unsigned a = 0; a < dims; ++a) p[a] = pos(a, node);
  return find_closest_point(p);
}

}  // namespace kelvo::gridkit
