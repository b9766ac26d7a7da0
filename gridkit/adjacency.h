// Adjacency of connectivity tables: a column per node, and the partner across each side.
#pragma once

#include "gridkit/element_type.h"
#include "numcore/dense2D.h"

namespace kelvo::gridkit {

// `ancestors` is sized to the largest index of `connect` plus one (empty for an empty table) and
// holds for each node a column that uses it, the last one in column order; 0xFFFFFFFF for a node
// in no column. Returns 0, or -199 when memory ran out (then `ancestors` is as it was).
int get_ancestors(const dense2D<unsigned>& connect, dense1D<unsigned>& ancestors);

// `neighbors` gets one row per side and one column per element: entry i of column c is the
// element across side i of c, 0xFFFFFFFF when no other element has that side. Side i is the one
// opposite local node i: for a triangle the nodes at (i + 1) mod 3 and (i + 2) mod 3, for a tet
// its face i, for an edge its other node. Sides are matched by their node sets, whatever the
// orientation. A side held by more than two elements: with `flag` true each holder points to the
// next one in column order, the last back to the first, so that no such side reads as free; with
// `flag` false they all get 0xFFFFFFFF. Returns 0; -1 when the row count does not fit `type`; -199
// when memory ran out. On failure `neighbors` is as it was.
int get_neighbors(const dense2D<unsigned>& connect, element_type type, bool flag,
                  dense2D<unsigned>& neighbors);

}  // namespace kelvo::gridkit
