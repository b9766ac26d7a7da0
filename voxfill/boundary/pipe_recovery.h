// The pipe of an absent edge: the chain of tets that the segment runs through once no edge
// crosses it, turned into the edge by swaps of the crossed faces.
#pragma once

#include "voxfill/boundary/boundary_recoverer.h"

namespace kelvo::voxfill {

// Walks the segment ab and, when it holds no hard face and one colour, swaps its faces. 2 the
// edge was there, 1 recovered, -1 no way through, -2/-3 a broken pipe, -4 a pipe of fewer than
// two faces left, -9 two colours, -30 a hard face on the way (in `blocking_faces`), 0 when the
// budget is out. `pipe` holds what is left of the pipe.
int recover_edge_by_pipe(boundary_recoverer& r, unsigned a, unsigned b, double d, unsigned& budget,
                         dense1D<unsigned>& new_nodes);

// The coded faces crossed from a to b into `pipe`: 2 the edge exists, 1 the walk ended, -1 no way
// through.
int walk_pipe(boundary_recoverer& r, unsigned a, unsigned b, double d);

// 0 for a sound pipe, else the code of the first fault; hard faces go to `blocking_faces`.
int check_pipe(boundary_recoverer& r, unsigned a, unsigned b);

// Two-into-three swaps along the pipe, shortening it: 1 when the edge ab now exists.
int flip_pipe(boundary_recoverer& r, unsigned a, unsigned b, double d);

// The same pipe seen from its other end.
void turn_pipe(boundary_recoverer& r);

// Takes the soft node v out onto w when its ball covers one stretch of the pipe (with
// `same_side`, its faces on the pipe all show v the same edge). False leaves the mesh unchanged.
bool remove_pipe_node(boundary_recoverer& r, unsigned v, unsigned w, bool same_side);

// Removal of soft nodes from the walls of the pipe walked from `from`: true when the edge came.
bool thin_pipe(boundary_recoverer& r, unsigned from, unsigned to, double d);

// Nodes on the crossed faces of the fan at the pipe's start, between the segment ab and the fan's
// apex, so that the fan no longer lies across the segment: 1 done (`budget` lowered), -1 not
// possible, -199 no node could be had; nothing changes unless 1.
int pipe_steiner_step(boundary_recoverer& r, unsigned a, unsigned b, unsigned& budget,
                      dense1D<unsigned>& new_nodes);

}  // namespace kelvo::voxfill
