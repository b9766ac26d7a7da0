// Linear interpolation of a size per node at nodes that lie inside a tetrahedral mesh.
#pragma once

#include "numcore/dense2D.h"

namespace kelvo::gridkit3d {

// For each node n of `indices`, finds the tet of `connect` (4 x tets, positive) that holds column
// n of `pos` and sets metrics[n] to the linear interpolation of the entries of its four nodes. The
// search walks over `neighbors` (4 x tets, row i across the face opposite node i, 0xFFFFFFFF on
// the hull) from ancestors[n] when n has one, else from the tet of the previous node. `flag` true:
// the mesh is taken as convex, and a walk that leaves it through the hull means that the node is
// outside. `flag` false: the tets are then scanned in index order for one that holds the node.
// A node in no tet, or with a tet whose nodes have no entry in `metrics`, keeps its entry.
// Returns 0; -1 when the tables do not fit together.
int interpolate_metrics(const dense2D<double>& pos, const dense2D<unsigned>& connect,
                        const dense2D<unsigned>& neighbors, const dense1D<unsigned>& ancestors,
                        dense1D<double>& metrics, const dense1D<unsigned>& indices, bool flag);

}  // namespace kelvo::gridkit3d
