// The Delaunay kernel: the enclosing cube and its first mesh, insertion of node lists, and the
// insertion of one node by cavity replacement. The kernel knows nothing of its caller: it returns
// a status, and polls and counts through the plain callbacks of `kernel_progress`.
#pragma once

#include "delaunay/cavity.h"
#include "delaunay/kernel_workspace.h"
#include "delaunay/mesh_store.h"

namespace kelvo::voxfill {

// Least quality of the tets of the enclosing cube.
inline constexpr double BOX_TOL = 1e-12;

// How a start of the kernel ended. The caller turns it into a code and a message.
enum class kernel_status : unsigned {
  ok = 0,
  illegal_coordinates,  // the box of the nodes is not finite, or too large
  aligned_nodes,        // the box of the nodes is flat along an axis; no mesh made
  degenerate_box,       // the tets of the enclosing cube are too flat; the bare cube is left
  out_of_memory,        // what is in the mesh so far is valid
};

// Progress and interruption of lists of insertions, through plain function pointers (either may
// be null). `stopped` becomes true once `must_stop` has said so, and stays.
struct kernel_progress {
  void* context = nullptr;
  bool (*must_stop)(void* context) = nullptr;                // polled every 10000 insertions
  void (*advance)(void* context, unsigned steps) = nullptr;  // one step per node of a list
  bool stopped = false;

  // Polls the caller: true when the work has to end.
  bool poll() noexcept {
    if (!stopped && must_stop) stopped = must_stop(context);
    return stopped;
  }
  void step() noexcept {
    if (advance) advance(context, 1);
  }
};

// Meshes the nodes of `list` inside a cube around the box lo..hi (side box_factor times its
// largest extent): the 5-tet cube, then truncate(n shell_ratio) shell nodes, then the list in a
// biased randomized order (kernel_mode hard_faces) and the failures again (plain) while that
// helps. Nodes that never went in are put into `unenforced_set`. The list comes back in the order
// of insertion.
// An empty list does nothing. Expects a store without tets.
kernel_status start_delaunay(mesh_store& m, kernel_workspace& ws, dense1D<unsigned>& list,
                             const double lo[3], const double hi[3], double box_factor,
                             double shell_ratio, kernel_progress& progress);

// Inserts the nodes first[0..count) in order; appends those that failed to `failed`. With
// `add_to_octree`, an inserted node also goes into the locator's octree. Polls every 10000 nodes
// and stops once told to (the rest neither inserted nor listed), and advances the progress by one
// per node. out_of_memory when a list could not grow: the list stops there, the mesh valid.
kernel_status insert_node_list(mesh_store& m, kernel_workspace& ws, const unsigned* first,
                               unsigned count, bool add_to_octree, dense1D<unsigned>& failed,
                               kernel_progress& progress);

// Inserts node p (a row of `nodes`) by cavity replacement under the store's kernel_mode, with
// circumsphere tolerance `tol`. True when inserted: `seeds` then lists the tets of its star. False
// when the node could not be located, its cavity came out empty or the star did not close; the
// mesh is then unchanged; `ws.cavity.out_of_memory` then tells a refusal for want of memory.
// `seeds` is scratch (normally `ws.seeds`).
bool insert_node(mesh_store& m, kernel_workspace& ws, unsigned p, dense1D<unsigned>& seeds,
                 double tol) noexcept;

}  // namespace kelvo::voxfill
