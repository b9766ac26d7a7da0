// Checks on per-node size lists.
#include "gridkit/metrics.h"

#include <cfloat>

namespace kelvo::gridkit {

bool are_valid_metrics(const dense1D<unsigned>& indices, const dense1D<double>& metrics) noexcept {
  for (unsigned k = 0; k < indices.size; ++k) {
    const unsigned n = indices[k];
    if (n >= metrics.size) return false;
    const double h = metrics[n];
    if (!(h > 0.0 && h <= DBL_MAX)) return false;  // NaN and infinity are no size
  }
  return true;
}

}  // namespace kelvo::gridkit
