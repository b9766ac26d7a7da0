// The refinement loop: passes of a front that moves from the good tets into the tets with soft
// edges too long for the size field, each face proposing one point, the points of a pass inserted
// together by the Delaunay kernel; when the front dies out, the edges still too long are split.
#pragma once

#include "voxfill/refine/refine_context.h"
#include "voxfill/task_mgr.h"

namespace kelvo::voxfill {

class th4_engine;

// Refines until no front is left, the node budget `c.nodes_left` is used up (it is then 0) or the
// run is stopped. The caller sets the kernel mode, the budget and the protected nodes.
void refine_mesh(th4_engine& e, refine_context& c, const task_type& task);

// Judges the tets made since the last pass, gives up old bad tets beside good or new ones (their
// long edges are kept for the last step), and lists the front, sorted. Negative when memory ran
// out.
int make_front(th4_engine& e, refine_context& c, const dense1D<unsigned>& inserted);

// Clears the verdict of each new tet that holds a soft edge too long. Over the mesh itself each
// new tet is judged alone; otherwise the walk goes through the local tets, which must be made.
void mark_long_edges(th4_engine& e, refine_context& c);

// Enters the soft edges of the tet (n0, n1, n2, n3) that are too long into `c.long_edges`.
void collect_long_edges(th4_engine& e, refine_context& c, const unsigned* n);

// The front: faces of bad tets towards good ones, and hard faces between bad tets while a pass
// still finds such a face.
void collect_front(th4_engine& e, refine_context& c);

// Orders the front by the smallest node of each face, then by code. 0, or -199 for memory.
int sort_front(const th4_engine& e, refine_context& c);

// Makes nodes of the candidates (at most the budget), listed in `inserted`.
void add_candidates(th4_engine& e, refine_context& c, const dense2D<double>& points,
                    const dense1D<double>& sizes, dense1D<unsigned>& inserted);

// One step of direct splitting of the long edges, at most `per_edge_cap` segments an edge.
void split_long_edges(th4_engine& e, refine_context& c, unsigned per_edge_cap,
                      dense1D<unsigned>& inserted);

}  // namespace kelvo::voxfill
