// Smoothing of a size per node along the edges of a mesh.
#include "gridkit/metric_smoothing.h"

#include <cmath>
#include <functional>
#include <new>
#include <queue>
#include <utility>
#include <vector>

namespace kelvo::gridkit {
namespace {

bool has_size(double h) noexcept {
  return h > 0.0 && std::isfinite(h);
}

double edge_length(const dense2D<double>& pos, unsigned a, unsigned b) noexcept {
  double s = 0.0;
  const unsigned d = pos.rows < 3 ? pos.rows : 3;
  for (unsigned k = 0; k < d; ++k) {
    const double x = pos(k, a) - pos(k, b);
    s += x * x;
  }
  return std::sqrt(s);
}

// The bound that a settled node of size h puts on a neighbour at distance L.
struct bound_law {
  bool ratio;  // h * c (lowering) or h / c (raising); else h + c L or h - c L
  bool lower;  // the neighbour may not exceed the bound (else: may not fall below it)
  double c;

  double bound(double h, double L) const noexcept {
    if (ratio) return lower ? h * c : h / c;
    return lower ? h + c * L : h - c * L;
  }
  // Strictly tighter: NaN never is, so a bound of 0 * infinity changes nothing.
  bool tighter(double candidate, double current) const noexcept {
    return lower ? candidate < current : candidate > current;
  }
};

// The extreme field under the law, by Dijkstra's order over the edges of `connect`: the law's
// bound grows away from the smaller sizes (shrinks away from the larger ones when raising), so a
// node is final once it comes first in the queue. Ties go to the smaller node index.
int bound_sizes(const dense2D<double>& pos, const dense2D<unsigned>& connect, element_type type,
                const dense1D<unsigned>& indices, bool flag, const bound_law& law,
                dense1D<double>& metrics) {
  const unsigned r = nodes_per_element(type);
  if (r == 0) return -1;
  if (connect.empty() || metrics.empty()) return 0;
  if (connect.rows != r) return -1;
  const unsigned n = metrics.size;
  const bool lengths = !law.ratio;
  auto usable = [&](unsigned a) {
    return a < n && has_size(metrics[a]) && (!lengths || a < pos.cols);
  };
  try {
    std::vector<unsigned char> is_free(n, 0);
    if (flag) {
      for (unsigned j = 0; j < connect.cols; ++j)
        for (unsigned i = 0; i < r; ++i)
          if (usable(connect(i, j))) is_free[connect(i, j)] = 1;
    } else {
      for (unsigned a : indices)
        if (usable(a)) is_free[a] = 1;
    }
    // Adjacency in compressed rows, over the usable nodes only.
    std::vector<unsigned> first(std::size_t(n) + 1, 0);
    auto each_edge = [&](auto&& visit) {
      for (unsigned j = 0; j < connect.cols; ++j)
        for (unsigned i = 0; i < r; ++i)
          for (unsigned k = i + 1; k < r; ++k) {
            const unsigned a = connect(i, j), b = connect(k, j);
            if (a != b && usable(a) && usable(b)) visit(a, b);
          }
    };
    each_edge([&](unsigned a, unsigned b) {
      ++first[a + 1];
      ++first[b + 1];
    });
    for (unsigned a = 0; a < n; ++a) first[a + 1] += first[a];
    std::vector<unsigned> next(first.begin(), first.end() - 1);
    std::vector<unsigned> adjacent(first[n]);
    each_edge([&](unsigned a, unsigned b) {
      adjacent[next[a]++] = b;
      adjacent[next[b]++] = a;
    });

    std::vector<double> value(metrics.begin(), metrics.end());
    std::vector<unsigned char> settled(n, 0);
    using entry = std::pair<double, unsigned>;
    std::vector<entry> heap_store;
    heap_store.reserve(n);
    // std::priority_queue pops the largest: ascending order needs the greater-than comparison.
    auto heap_less = [&law](const entry& x, const entry& y) {
      if (x.first != y.first) return law.lower ? x.first > y.first : x.first < y.first;
      return x.second > y.second;
    };
    std::priority_queue<entry, std::vector<entry>, decltype(heap_less)> queue(
        heap_less, std::move(heap_store));
    for (unsigned a = 0; a < n; ++a)
      if (first[a + 1] > first[a]) queue.push({value[a], a});
    while (!queue.empty()) {
      const auto [h, a] = queue.top();
      queue.pop();
      if (settled[a] || h != value[a]) continue;
      settled[a] = 1;
      for (unsigned k = first[a]; k < first[a + 1]; ++k) {
        const unsigned b = adjacent[k];
        if (settled[b] || !is_free[b]) continue;
        const double cand = law.bound(h, lengths ? edge_length(pos, a, b) : 0.0);
        if (law.tighter(cand, value[b]) && has_size(cand)) {
          value[b] = cand;
          queue.push({cand, b});
        }
      }
    }
    for (unsigned a = 0; a < n; ++a) metrics[a] = value[a];
    return 0;
  } catch (const std::bad_alloc&) {
    return -199;
  }
}

}  // namespace

int bound_metric_variations(const dense2D<double>& pos, const dense2D<unsigned>& connect,
                            element_type type, const dense1D<unsigned>& indices, bool flag,
                            int mode, double max_ratio, dense1D<double>& metrics) {
  if ((mode != 0 && mode != 1) || !(max_ratio >= 1.0)) return -1;
  return bound_sizes(pos, connect, type, indices, flag, bound_law{true, mode == 1, max_ratio},
                     metrics);
}

int bound_metric_gradations(const dense2D<double>& pos, const dense2D<unsigned>& connect,
                            element_type type, const dense1D<unsigned>& indices, bool flag,
                            int mode, double gradation, dense1D<double>& metrics) {
  if ((mode != 0 && mode != 1) || !(gradation >= 0.0)) return -1;
  return bound_sizes(pos, connect, type, indices, flag, bound_law{false, mode == 0, gradation},
                     metrics);
}

}  // namespace kelvo::gridkit
