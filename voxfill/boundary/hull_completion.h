// The Delaunay mesh of the convex hull of the given nodes, completed from the mesh that still
// hangs on the corners of the enclosing box.
#pragma once

#include "delaunay/mesh_store.h"

namespace kelvo::voxfill {

enum class hull_completion : unsigned {
  done = 0,
  no_memory,  // the mesh is as it was
  failed,     // no consistent filling could be found; the mesh is as it was
};

// Takes out every tet at a box node, and every tet of given nodes whose circumsphere holds a box
// node or the node of a neighbour (such tets are not Delaunay for the given nodes alone), and
// fills the room they leave inside the convex hull of the given nodes face by face: on each open
// face the apex is the node beyond it whose sphere through the face holds no other node beyond
// it, ties going to the lower index. Faces with no node beyond them are hull faces and get no
// neighbour. The box nodes are left without tets (ancestor NONE); new tets take the colour of the
// first one taken out. Every node that is not in `box_nodes` counts as a given node.
hull_completion complete_hull(mesh_store& m);

}  // namespace kelvo::voxfill
