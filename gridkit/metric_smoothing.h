// Smoothing of a size per node along the edges of a mesh: a bounded ratio or a bounded gradation.
#pragma once

#include "gridkit/element_type.h"
#include "numcore/dense2D.h"

namespace kelvo::gridkit {

// Both smoothers read the edges of the elements of `connect` (every pair of nodes of an element)
// and act only on nodes that have a size: an entry of `metrics` that is finite and above 0. Nodes
// without one, and nodes that no element holds, are neither read nor changed.
//
// `flag` true: every node of `connect` may change and `indices` is not read. `flag` false: only
// the nodes listed in `indices` may change; the others keep their values and bound their
// neighbours. `mode` 0 or 1 says how a bound is met (see each function); other modes give -1.
//
// The result is the extreme field that meets the bound: each free node gets the smallest (or
// largest) value that the sizes of the other nodes allow along any path of edges, so that sizes
// stay positive and finite. The bound then holds on every edge of `connect` between two free
// nodes, and on every edge from a fixed node to a free one in the direction that can be met.
// Returns 0; -1 for a bad argument; -199 when memory ran out (then `metrics` is as it was).

// Ratio of the sizes at the two ends of an edge at most `max_ratio` (at least 1). `mode` 1: by
// lowering the larger size; `mode` 0: by raising the smaller one. `pos` is not read.
int bound_metric_variations(const dense2D<double>& pos, const dense2D<unsigned>& connect,
                            element_type type, const dense1D<unsigned>& indices, bool flag,
                            int mode, double max_ratio, dense1D<double>& metrics);

// Difference of the sizes at the two ends of an edge at most `gradation` (at least 0) times the
// edge's length in `pos` (one node per column, up to 3 rows). `mode` 0: by lowering the larger
// size; `mode` 1: by raising the smaller one.
int bound_metric_gradations(const dense2D<double>& pos, const dense2D<unsigned>& connect,
                            element_type type, const dense1D<unsigned>& indices, bool flag,
                            int mode, double gradation, dense1D<double>& metrics);

}  // namespace kelvo::gridkit
