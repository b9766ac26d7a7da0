// Size limiting under a target size, by a best-first relaxation over the local graph of a pass.
#include "voxfill/refine/size_limiting.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <new>

#include "delaunay/geometry.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/optim/move_merit.h"
#include "voxfill/refine/refine_context.h"

namespace kelvo::voxfill {

namespace {

constexpr unsigned FIXED = 0xFFFFFFFFu;
constexpr double SEARCH_TOL = 0.001;

bool inside_range(double s) noexcept {
  return s > 0.0 && s < DBL_MAX;
}

bool heap_order(const limit_entry& x, const limit_entry& y) noexcept {
  return x.key < y.key;
}

float heap_key(double g) noexcept {
  return g < double(FLT_MAX) ? float(g) : FLT_MAX;
}

void edge_vector(const dense2D<double>& xyz, unsigned from, unsigned to, double* e) noexcept {
  const double* p = xyz.col(from);
  const double* q = xyz.col(to);
  for (unsigned k = 0; k < 3; ++k) e[k] = q[k] - p[k];
}

// The smallest excess on [lo, hi] by halving round the best of three points.
double halving_search(const limit_job& job, double lo, double hi, double tol, double& f) noexcept {
  double flo = gradation_excess(job, lo);
  double mid = lo, fmid = flo;
  double fhi = hi > lo ? gradation_excess(job, hi) : flo;
  if (hi > lo) {
    mid = 0.5 * (lo + hi);
    fmid = gradation_excess(job, mid);
    // The interval halves at each round: the cap only guards a tolerance below the rounding.
    for (unsigned round = 0; round < 200; ++round) {
      const double left = 0.5 * (lo + mid), right = 0.5 * (mid + hi);
      if (fmid < flo && fmid < fhi) {
        const double fl = gradation_excess(job, left);
        if (fl < fmid) {
          hi = mid, fhi = fmid;
          mid = left, fmid = fl;
        } else {
          const double fr = gradation_excess(job, right);
          if (fr < fmid) {
            lo = mid, flo = fmid;
            mid = right, fmid = fr;
          } else {
            lo = left, flo = fl;
            hi = right, fhi = fr;
          }
        }
      } else if (fhi < flo) {
        lo = mid, flo = fmid;
        mid = right, fmid = gradation_excess(job, right);
      } else {
        hi = mid, fhi = fmid;
        mid = left, fmid = gradation_excess(job, left);
      }
      if (std::max(std::fabs(fmid - flo), std::fabs(fmid - fhi)) == 0.0 ||
          (mid - lo <= tol && hi - mid <= tol))
        break;
    }
  }
  if (!(flo < fmid) && !(fhi < fmid)) {
    f = fmid;
    return mid;
  }
  if (!(fhi < flo)) {
    f = flo;
    return lo;
  }
  f = fhi;
  return hi;
}

template <class T>
bool push(std::vector<T>& list, const T& item) noexcept {
  try {
    list.push_back(item);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

bool push_entry(std::vector<limit_entry>& heap, double g, unsigned stamp, unsigned a,
                unsigned b) noexcept {
  if (!push(heap, limit_entry{heap_key(g), stamp, a, b})) return false;
  std::push_heap(heap.begin(), heap.end(), heap_order);
  return true;
}

}  // namespace

double edge_gradation(double h1, double h2, const double* e) noexcept {
  const double d = std::sqrt(geometry_detail::dot3(e, e));
  const double m = log_mean(h1, h2);
  if (!(m > 0.0) || d / m < 1e-12) return h1 == h2 ? 0.0 : DBL_MAX;
  const double l = d / m;
  if (!(l < DBL_MAX)) return 0.0;
  const double R = h1 > h2 ? h1 / h2 : h2 / h1;
  const double v = std::log(R) / l;
  if (v >= 700.0) return DBL_MAX;
  return std::exp(v) - 1.0;
}

double gradation_excess(const limit_job& job, double x) noexcept {
  const double ha = job.sizes[job.a], hb = job.sizes[job.b];
  double s = ha + (hb - ha) * x;
  if (!inside_range(s)) return 0.0;
  if (job.direction > 0) s = std::max(s, ha);
  if (job.direction < 0) s = std::min(s, ha);
  const double limit = std::sqrt(DBL_MAX);
  double sum = 0.0;
  for (const unsigned k : job.others) {
    double e[3];
    edge_vector(job.xyz, job.a, k, e);
    const double excess = edge_gradation(s, job.sizes[k], e) - job.gradation;
    if (!(excess > 0.0)) continue;
    if (excess >= limit) return DBL_MAX;
    sum += excess * excess;
  }
  return sum;
}

bool limit_edge(const dense2D<double>& xyz, dense1D<double>& sizes, unsigned a, unsigned b,
                const std::vector<unsigned>& others, double g, int& direction) noexcept {
  const double ha = sizes[a], hb = sizes[b];
  double e[3];
  edge_vector(xyz, a, b, e);
  const double d = std::sqrt(geometry_detail::dot3(e, e));
  const int sign = hb > ha ? 1 : -1;
  const double D = std::fabs(hb - ha);
  double t = 0.0;
  if (D > 0.0) {
    t = 1.0 - d / D * std::log(1.0 + g);
    if (!(t > 0.0)) t = 0.0;
  }
  bool agrees = false;
  if (t > 1e-12) {
    if (direction == 0) direction = sign;
    agrees = direction == sign;
  }
  if (!(t > 0.001 && agrees)) return false;
  if (!others.empty()) {
    const limit_job job{xyz, sizes, a, b, direction, g, others};
    const double f0 = gradation_excess(job, 0.0);
    if (f0 == 0.0) return false;
    if (f0 != DBL_MAX) {
      // The fixed neighbours' excess over seven points of [0, t], then halving round the best.
      const double step = t / 6.0;
      double x = 0.0, fx = f0;
      for (unsigned k = 1; k <= 6; ++k) {
        const double f = gradation_excess(job, step * k);
        if (f < fx) x = step * k, fx = f;
      }
      const double lo = std::max(0.0, x - step), hi = std::min(t, x + step);
      double f = 0.0;
      t = halving_search(job, lo, hi, SEARCH_TOL, f);
      if (!(t > 0.001) || !(f0 > f)) return false;
    }
  }
  double now = ha + (hb - ha) * t;
  if (!inside_range(now)) return false;
  if ((direction > 0 && !(now > ha)) || (direction < 0 && !(now < ha))) now = ha;
  if (!(std::max(now, ha) / std::min(now, ha) > 1.000000000001)) return false;
  sizes[a] = now;
  return true;
}

int spread_limit(const dense2D<double>& nodes, const dense1D<unsigned>& graph_offsets,
                 const dense1D<unsigned>& graph_nodes, const dense1D<unsigned>& local_nodes,
                 dense1D<unsigned>& size_stamps, double g, dense1D<double>& node_sizes,
                 limit_scratch& scratch) noexcept {
  const unsigned n = size_stamps.size;
  if (n == 0 || g == DBL_MAX) return 0;
  std::vector<limit_entry>& heap = scratch.heap;
  std::vector<unsigned>& others = scratch.others;
  heap.clear();
  try {
    scratch.directions.assign(n, 0);
  } catch (const std::bad_alloc&) {
    return -199;
  }
  auto gradation = [&](unsigned i, unsigned j) {
    const unsigned a = local_nodes[i], b = local_nodes[j];
    double e[3];
    edge_vector(nodes, a, b, e);
    return edge_gradation(node_sizes[a], node_sizes[b], e);
  };
  bool all_mobile = true;
  for (unsigned i = 0; i < n; ++i) all_mobile &= size_stamps[i] == 0;
  for (unsigned i = 0; i < n; ++i) {
    if (size_stamps[i] == FIXED) continue;
    for (unsigned p = graph_offsets[i]; p < graph_offsets[i + 1]; ++p) {
      const unsigned j = graph_nodes[p];
      const double ge = gradation(i, j);
      if (ge > g && !push_entry(heap, ge, 0, i, j)) return -199;
    }
  }
  unsigned counter = 0;
  int changed = 0;
  while (!heap.empty()) {
    std::pop_heap(heap.begin(), heap.end(), heap_order);
    const limit_entry top = heap.back();
    heap.pop_back();
    const unsigned a = top.node_a, b = top.node_b;
    // A size that changed after the entry was pushed makes it stale.
    if (size_stamps[a] > top.stamp) continue;
    if (size_stamps[b] > top.stamp && size_stamps[b] != FIXED) continue;
    others.clear();
    if (!all_mobile)
      for (unsigned p = graph_offsets[a]; p < graph_offsets[a + 1]; ++p) {
        const unsigned j = graph_nodes[p];
        if (size_stamps[j] == FIXED && !push(others, local_nodes[j])) return -199;
      }
    int direction = scratch.directions[a];
    if (!limit_edge(nodes, node_sizes, local_nodes[a], local_nodes[b], others, g, direction))
      continue;
    scratch.directions[a] = static_cast<signed char>(direction);
    if (size_stamps[a] == 0) ++changed;
    size_stamps[a] = ++counter;
    for (unsigned p = graph_offsets[a]; p < graph_offsets[a + 1]; ++p) {
      const unsigned j = graph_nodes[p];
      const double ge = gradation(a, j);
      if (!(ge > g)) continue;
      if (!push_entry(heap, ge, counter, a, j)) return -199;
      if (size_stamps[j] != FIXED && !push_entry(heap, ge, counter, j, a)) return -199;
    }
  }
  return changed;
}

int limit_sizes(th4_engine& e, refine_context& c, const dense1D<unsigned>& inserted) noexcept {
  const unsigned n = c.local_nodes.size;
  // The protected nodes that this pass touched get a fresh start; the others are done with.
  dense1D<unsigned> touched;
  if (c.protected_nodes.count != 0) {
    for (unsigned i = 0; i < n; ++i) {
      const unsigned v = c.local_nodes[i];
      if (!c.protected_nodes.contains(index_key{{v}})) continue;
      const unsigned before = touched.size;
      touched.push_back(v);
      if (touched.size != before + 1) return -199;
    }
    try {
      c.protected_nodes.clear_hard();
    } catch (const std::bad_alloc&) {
      return -199;
    }
    for (const unsigned v : touched)
      if (!c.protected_nodes.insert(index_key{{v}})) return -199;
  }
  const double target = c.target_size;
  if (!c.size_stamps.resize(n)) return -199;
  std::fill(c.size_stamps.begin(), c.size_stamps.end(), FIXED);
  auto take = [&](unsigned v) {
    if (v >= e.node_sizes.size) return;
    e.node_sizes[v] = target;
    if (v >= e.ancestors.size || e.ancestors[v] == NONE || v >= c.local_index.size) return;
    const unsigned local = c.local_index[v];
    // The entry is trusted only when it points back to v: the index is never cleared.
    if (local < n && c.local_nodes[local] == v) c.size_stamps[local] = 0;
  };
  for (const unsigned v : inserted) take(v);
  for (const unsigned v : touched) take(v);
  const int changed = spread_limit(e.nodes.data, c.graph_offsets, c.graph_nodes, c.local_nodes,
                                   c.size_stamps, c.size_gradation, e.node_sizes, c.limiting);
  c.size_stamps.clear();
  return changed;
}

}  // namespace kelvo::voxfill
