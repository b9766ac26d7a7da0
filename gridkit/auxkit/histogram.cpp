// Histogram of doubles with fixed bin bounds.
#include "gridkit/auxkit/histogram.h"

#include <algorithm>

namespace kelvo::auxkit {

histogram::histogram(const dense1D<double>& b) : bounds(b.begin(), b.end()) {
  counts.assign(bins(), 0u);
}

void histogram::clear_hits() noexcept {
  std::fill(counts.begin(), counts.end(), 0u);
  inside = below = above = processed = 0;
  vmin = vmax = sum = 0.0;
}

void histogram::process(double value) noexcept {
  if (value != value) return;
  if (processed == 0) {
    vmin = vmax = value;
  } else {
    vmin = std::min(vmin, value);
    vmax = std::max(vmax, value);
  }
  ++processed;
  sum += value;
  if (bounds.size() < 2 || value < bounds.front()) {
    ++below;
    return;
  }
  if (value > bounds.back()) {
    ++above;
    return;
  }
  // First bound above the value; the bin starts one before. A value equal to the top bound
  // goes into the last bin.
  unsigned i = unsigned(std::upper_bound(bounds.begin(), bounds.end(), value) - bounds.begin()) - 1;
  if (i >= bins()) i = bins() - 1;
  ++counts[i];
  ++inside;
}

void histogram::process(const dense1D<double>& values) noexcept {
  for (unsigned k = 0; k < values.size; ++k) process(values[k]);
}

}  // namespace kelvo::auxkit
