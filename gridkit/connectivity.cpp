// Checks and index tools on connectivity tables.
#include "gridkit/connectivity.h"

#include <algorithm>
#include <new>

namespace kelvo::gridkit {

bool check_IDs(const dense2D<unsigned>& connect, element_type type, unsigned nods) noexcept {
  if (connect.empty()) return true;
  if (connect.rows != nodes_per_element(type)) return false;
  for (unsigned j = 0; j < connect.cols; ++j) {
    const unsigned* c = connect.col(j);
    for (unsigned i = 0; i < connect.rows; ++i)
      if (c[i] >= nods) return false;
  }
  return true;
}

int unique_indices(dense1D<unsigned>& out, const dense2D<unsigned>& connect,
                   dense1D<unsigned> work) {
  out.clear();
  if (connect.empty()) return 0;
  // A bit per node up to the largest index: linear, and the output comes sorted.
  unsigned top = 0;
  for (unsigned j = 0; j < connect.cols; ++j)
    for (unsigned i = 0; i < connect.rows; ++i) top = std::max(top, connect(i, j));
  const unsigned words = top / 32 + 1;
  work.clear();
  if (!work.resize(words, 0u)) return -199;
  unsigned count = 0;
  for (unsigned j = 0; j < connect.cols; ++j)
    for (unsigned i = 0; i < connect.rows; ++i) {
      const unsigned n = connect(i, j);
      unsigned& w = work[n >> 5];
      if (!(w & (1u << (n & 31)))) {
        w |= 1u << (n & 31);
        ++count;
      }
    }
  if (!out.reserve(count)) return -199;
  for (unsigned k = 0; k < words; ++k)
    for (unsigned w = work[k]; w; w &= w - 1) out.push_back(k * 32 + unsigned(__builtin_ctz(w)));
  return 0;
}

int get_sorted_order(const dense1D<unsigned>& values, dense1D<unsigned>& order,
                     dense1D<unsigned>& starts) {
  const unsigned n = values.size;
  order.clear();
  starts.clear();
  if (!order.resize(n)) return -199;
  for (unsigned i = 0; i < n; ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(),
                   [&](unsigned a, unsigned b) { return values[a] < values[b]; });
  for (unsigned k = 0; k < n; ++k)
    if (k == 0 || values[order[k]] != values[order[k - 1]]) {
      const unsigned before = starts.size;
      starts.push_back(k);
      if (starts.size == before) return -199;
    }
  const unsigned before = starts.size;
  starts.push_back(n);
  return starts.size == before ? -199 : 0;
}

void change_indices(dense2D<unsigned>& connect, const dense1D<unsigned>& map) noexcept {
  if (connect.empty()) return;
  for (unsigned j = 0; j < connect.cols; ++j) {
    unsigned* c = connect.col(j);
    for (unsigned i = 0; i < connect.rows; ++i)
      if (c[i] < map.size) c[i] = map[c[i]];
  }
}

void change_indices(dense1D<unsigned>& list, const dense1D<unsigned>& map) noexcept {
  for (unsigned& e : list)
    if (e < map.size) e = map[e];
}

namespace {

// With `map` a permutation of 0 .. m-1 (m the smaller size), the values move along its cycles
// in place, with one bit per index as scratch; otherwise through a copy of the values.
template <class T>
int permute(dense1D<T>& values, const dense1D<unsigned>& map) noexcept {
  if (values.empty()) return 0;
  const unsigned m = std::min(values.size, map.size);
  try {  // scratch headers come from a throwing allocation
    dense1D<unsigned> seen;
    if (!seen.resize(m / 32 + 1, 0u)) return -199;
    auto test_and_set = [&seen](unsigned i) {
      const unsigned bit = 1u << (i % 32);
      const bool was = seen[i / 32] & bit;
      seen[i / 32] |= bit;
      return was;
    };
    bool bijective = true;
    for (unsigned i = 0; i < m && bijective; ++i) bijective = map[i] < m && !test_and_set(map[i]);
    if (bijective) {
      std::fill(seen.begin(), seen.end(), 0u);
      for (unsigned s = 0; s < m; ++s) {
        if (test_and_set(s)) continue;
        T carried = values[s];
        for (unsigned j = map[s]; j != s; j = map[j]) {
          test_and_set(j);
          const T here = values[j];
          values[j] = carried;
          carried = here;
        }
        values[s] = carried;
      }
      return 0;
    }
    dense1D<T> old;
    if (!old.copy(values)) return -199;
    for (unsigned i = 0; i < m; ++i)
      if (map[i] < values.size) values[map[i]] = old[i];
    return 0;
  } catch (const std::bad_alloc&) {
    return -199;
  }
}

}  // namespace

int permutation(dense1D<unsigned>& values, const dense1D<unsigned>& map) noexcept {
  return permute(values, map);
}
int permutation(dense1D<double>& values, const dense1D<unsigned>& map) noexcept {
  return permute(values, map);
}

}  // namespace kelvo::gridkit
