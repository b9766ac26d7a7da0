// Checks on per-node size lists.
#pragma once

#include "numcore/dense1D.h"

namespace kelvo::gridkit {

// True when every listed node has an entry in `metrics` that is a usable size: finite and above 0.
bool are_valid_metrics(const dense1D<unsigned>& indices, const dense1D<double>& metrics) noexcept;

}  // namespace kelvo::gridkit
