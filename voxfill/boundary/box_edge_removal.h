// Taking the edges at the corners of the enclosing box out of a mesh, so that the tets of the given
// nodes fill their convex hull.
#pragma once

#include "delaunay/mesh_store.h"

namespace kelvo::voxfill {

// Sweeps over the edges at the box nodes, longest first, and replaces each by a reconnection of its
// shell whose new inner edges at added nodes (index >= first_new) are all shorter than it; until a
// sweep replaces nothing. A reconnection that cannot be made is passed over.
void strip_box_edges(mesh_store& m, unsigned first_new);

}  // namespace kelvo::voxfill
