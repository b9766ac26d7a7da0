// Steiner nodes of the boundary recovery: which nodes are soft, taking soft nodes out again by
// contraction onto a neighbour, moving them to the centre of their balls, and placing a node in a
// ball clear of an edge.
#pragma once

#include "delaunay/mesh_store.h"
#include "delaunay/random_source.h"
#include "voxfill/boundary/ball_center.h"
#include "voxfill/optim/move_merit.h"
#include "voxfill/optim/move_record.h"
#include "voxfill/optim/replace_tets.h"
#include "voxfill/task_mgr.h"

namespace kelvo::voxfill {

// What the routines below work with: the mesh, the run's task (polled before a pass over a list;
// without one a pass is never stopped), the state of the contractions, and scratch lists that
// hold nothing between calls and keep their room. The boundary recoverer owns one, and may use
// its lists (and `exchange`) for its own moves between the calls.
struct steiner_workspace {
  mesh_store& store;
  Ptr<task_type> task;
  // A removal is rated on shape alone (shape weight 1, no topology terms): the merit of a
  // contraction is the worst quality of the tets it makes.
  move_merit merit;
  move_record removal_state;
  replace_scratch exchange;
  dense1D<unsigned> ball_tets;   // the ball of the node under work
  dense2D<unsigned> ball_rows;   // its node rows
  dense1D<unsigned> ring_nodes;  // the other nodes of those rows, sorted, each once
  dense1D<unsigned> ball_faces;  // its faces opposite the node, coded 4 t + i
  dense2D<unsigned> new_rows;
  dense1D<double> new_qualities;
  dense1D<unsigned> new_tets;
  dense1D<unsigned> listed;  // sorted copy of the list under work
  ball_polyhedron polyhedron;

  // Allocates its lists: may throw std::bad_alloc, like every constructor of a record.
  explicit steiner_workspace(mesh_store& m, Ptr<task_type> t = Ptr<task_type>());
  steiner_workspace(const steiner_workspace&) = delete;
  steiner_workspace& operator=(const steiner_workspace&) = delete;
};

// A node that may be moved or removed: neither a hard node nor a node of the enclosing box.
bool is_soft_node(const mesh_store& m, unsigned node) noexcept;

// Keeps in `list`, in order, the nodes that are alive (with an ancestor tet) and soft.
void keep_soft_nodes(const mesh_store& m, dense1D<unsigned>& list) noexcept;

// Takes soft nodes of `list` out of the mesh by contraction, each onto the nearest of its
// neighbours (4, or 12 when `thorough`) that gives tets above the floor: a tenth of the worst
// quality around it (that quality itself at 1e-10 and below), or 1e-12 when `thorough`. With
// `skip_single` a one-entry list is left alone and nodes go only onto other listed nodes. With
// `release` a removed node's row is freed. Nodes no longer alive leave the list; hard nodes and
// nodes that could not go stay, in order. A thorough call sweeps again while a sweep removes more
// than a twentieth of the list. Returns how much the list shrank; 0 when the run is stopped.
unsigned remove_steiner_nodes(steiner_workspace& w, dense1D<unsigned>& list, bool skip_single,
                              bool release, bool thorough) noexcept;

// Replaces the ball `ball_tets` of `node` by the cone from one of its `tries` nearest other nodes
// with all tets above `floor`. An empty ball only takes the node out of the locator and marks it
// not alive. True when the node is gone; its row stays for the caller. `ball_tets` must not be
// one of the workspace's ring_nodes, ball_rows, new_rows or new_tets.
bool remove_node_by_cone(steiner_workspace& w, unsigned node, const dense1D<unsigned>& ball_tets,
                         unsigned tries, double floor) noexcept;

// smooth_steiner_node (tol 0.0, factor 1.000000000001) for each alive soft node of `list`. The
// number of nodes moved; 0 when the run is stopped.
unsigned smooth_steiner_nodes(steiner_workspace& w, const dense1D<unsigned>& list) noexcept;

// Moves `node` to the centre of its ball (ball_center) when the centre stands at least `tol`
// from every plane of the ball and the worst tet around the node rises above `factor` times what
// it was; the new qualities are stored. False with the node where it was otherwise, and for a
// node on the hull.
bool smooth_steiner_node(steiner_workspace& w, unsigned node, double tol, double factor) noexcept;

// Looks for a place for `node` (now at X0) in the ball of the coded `faces`, clear of the target
// edge (a, b): around the ball's centre, by random steps drawn from `shuffle_source`, for the
// position that keeps every segment from it to a `ring` node farthest from the edge and stays
// inside the planes. When that clearance (squared) is above tol^2 and every row of `rows` (the
// tets the node would make) has quality above 1e-12, the node stays there, `new_qualities` gets
// the rows' qualities and the result is true. Otherwise the node is put back at X0: false.
bool place_node_in_ball(steiner_workspace& w, unsigned node, const dense1D<unsigned>& faces,
                        const dense1D<unsigned>& ring, unsigned a, unsigned b, double tol,
                        const dense2D<unsigned>& rows, dense1D<double>& new_qualities,
                        random_source_type& shuffle_source) noexcept;

}  // namespace kelvo::voxfill
