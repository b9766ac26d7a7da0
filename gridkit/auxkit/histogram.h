// Histogram of doubles with fixed bin bounds.
#pragma once

#include <vector>

#include "numcore/dense1D.h"

namespace kelvo::auxkit {

// With n bounds there are n - 1 bins; bin i holds values from bound i up to bound i + 1, the
// last bin also its upper bound. Values outside go to `smaller()` and `larger()`; NaN is ignored.
// Minimum, maximum and mean run over every value processed.
class histogram {
 public:
  histogram() = default;
  explicit histogram(const dense1D<double>& bounds);
  histogram(const histogram&) = default;
  histogram& operator=(const histogram&) = default;

  void clear_hits() noexcept;
  void process(double value) noexcept;
  void process(const dense1D<double>& values) noexcept;

  unsigned bins() const noexcept { return bounds.empty() ? 0 : unsigned(bounds.size() - 1); }
  double lower_bin_bound(unsigned i) const noexcept { return bounds[i]; }
  unsigned hits(unsigned i) const noexcept { return counts[i]; }
  unsigned total_hits() const noexcept { return inside; }
  unsigned larger() const noexcept { return above; }
  unsigned smaller() const noexcept { return below; }
  double max_value() const noexcept { return processed ? vmax : 0.0; }
  double min_value() const noexcept { return processed ? vmin : 0.0; }
  double mean_value() const noexcept { return processed ? sum / processed : 0.0; }

  std::vector<double> bounds;
  std::vector<unsigned> counts;
  unsigned inside = 0, below = 0, above = 0, processed = 0;
  double vmin = 0.0, vmax = 0.0, sum = 0.0;
};

}  // namespace kelvo::auxkit
