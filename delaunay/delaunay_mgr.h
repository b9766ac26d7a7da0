// The Delaunay kernel: the enclosing cube and its first mesh, insertion of node lists, and the
// insertion of one node by cavity replacement.
#pragma once

#include "delaunay/cavity.h"
#include "delaunay/mesh_store.h"
#include "voxfill/delaunay_th4.h"

namespace kelvo::voxfill {

// Least quality of the tets of the enclosing cube.
inline constexpr double BOX_TOL = 1e-12;

// Meshes the nodes of `list` inside a cube around the box lo..hi (side box_factor times its
// largest extent): the 5-tet cube, then truncate(n shell_ratio) shell nodes, then the list in
// random order (kernel_mode 1) and the failures again (kernel_mode 0) while that helps. Nodes that
// never went in are put into `unenforced_set`. The list itself is not changed. Errors go to the
// task's record: -102 for a non-finite box, -107 for a box flat along an axis or degenerate cube
// tets; the mesh is then empty or the bare cube. An empty list does nothing. Expects a store
// without tets.
void start_delaunay(mesh_store& m, const dense1D<unsigned>& list, const double lo[3],
                    const double hi[3], double box_factor, double shell_ratio, task_type& task);

// Inserts the nodes first[0..count) in order; appends those that failed to `failed`. With
// `add_to_octree`, an inserted node also goes into the locator's octree. Polls the task every
// 10000 nodes and stops at an error or interruption (the rest neither inserted nor listed), and
// advances the task's counter by one per node.
void insert_node_list(mesh_store& m, const unsigned* first, unsigned count, bool add_to_octree,
                      dense1D<unsigned>& failed, const task_type& task);

// Inserts node p (a row of `nodes`) by cavity replacement under the store's kernel_mode, with
// circumsphere tolerance `tol`. True when inserted: `seeds` then lists the tets of its star. False
// when the node could not be located, its cavity came out empty or the star did not close; the
// mesh is then unchanged. `seeds` is scratch (normally `work_stack`).
bool insert_node(mesh_store& m, unsigned p, dense1D<unsigned>& seeds, double tol) noexcept;

}  // namespace kelvo::voxfill
