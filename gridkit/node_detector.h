// Closest-node search over a listed subset of the nodes of a coordinate table (a k-d tree).
#pragma once

#include "numcore/dense2D.h"

namespace kelvo::gridkit {

// Built by `reinit` over some columns of `pos`; `find_closest` answers for any column. Among
// listed nodes at the same distance the one listed first wins, so the answer depends on the order
// of the list and on nothing else.
class node_detector {
 public:
  dense2D<double> pos;          // the coordinate table, shared with the caller
  dense1D<unsigned> nodes;      // the listed nodes in tree order
  dense1D<unsigned> ranks;      // place of each node of `nodes` in the caller's list
  dense2D<double> points;       // coordinates of `nodes`, packed, 3 rows
  dense1D<unsigned char> axes;  // split axis of each subtree root in `nodes`
  unsigned dims = 0;            // coordinates read from `pos` (its rows, at most 3)

  node_detector() = default;

  // Builds the search over the columns `indices` of `pos` (entries not below its column count
  // are left out). Returns 0, or -199 when memory ran out (then the detector is as it was).
  int reinit(const dense2D<double>& pos, const dense1D<unsigned>& indices);

  // The listed node closest to column `node` of `pos`; 0xFFFFFFFF when none is listed or `node`
  // is not a column of `pos`.
  unsigned find_closest(unsigned node) const noexcept;
  // The listed node closest to the point p (`dims` coordinates).
  unsigned find_closest_point(const double* p) const noexcept;
};

}  // namespace kelvo::gridkit
