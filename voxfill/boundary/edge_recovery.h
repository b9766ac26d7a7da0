// Recovery of one absent hard edge, and passes over lists of them: what lies across the segment
// is cleared by shell reconnections and moves of soft nodes, with Steiner nodes off the segment as
// the last means; the pipe of tets along the segment is left to the swaps of the pipe step.
#pragma once

#include <utility>
#include <vector>

#include "delaunay/keys.h"
#include "voxfill/boundary/boundary_recoverer.h"

namespace kelvo::voxfill {

// What a crossing edge must keep clear of after a reconnection: a segment (count 2) or a triangle
// (count 3). A segment of two equal nodes asks nothing.
struct recovery_target {
  unsigned n[3] = {NONE, NONE, NONE};
  unsigned count = 0;
};

// One pass over `list` from `given_up` on: each edge is tried at tolerances 1e-12, 1e-11 and
// 1e-10 of its length. Recovered edges and edges found in the mesh leave the list; impossible ones
// go behind the old given-up head (and into `unenforced_set`), `given_up` counting them; the rest
// stay in order. Steiner nodes that survive the attempt are appended to `steiner_list`. Returns
// the number of edges recovered.
unsigned recover_edge_list(boundary_recoverer& r, std::vector<edge_key>& list, unsigned& given_up,
                           unsigned budget, dense1D<unsigned>& steiner_list);

// One attempt on edge (a, b) at tolerance `tol_rel` of its length: 2 in the mesh already, 1
// recovered, 0 out of budget (or an error stands), -1 to -8 failed for now, below -8 impossible.
// `budget` is lowered by the Steiner nodes made, which go to `new_nodes`.
int recover_edge(boundary_recoverer& r, unsigned a, unsigned b, double tol_rel, unsigned& budget,
                 dense1D<unsigned>& new_nodes);

// The faces crossed by the segment ab at tolerance d (coded 4 t + i), found by a flood from the
// ball of a; with `stop_at_hard` not across hard faces. 2 when the edge exists, 1 when something
// crosses, -1 when nothing does.
int crossing_tets_of_edge(boundary_recoverer& r, unsigned a, unsigned b, double d,
                          dense1D<unsigned>& faces, bool stop_at_hard);

// The sides of those faces that cross the segment ab, each once, in `crossing`. 2 when the edge
// exists, else 1.
int crossing_edges_of_edge(boundary_recoverer& r, unsigned a, unsigned b, double d,
                           std::vector<edge_key>& crossing, dense1D<unsigned>& faces);

// Clears the crossing edges of segment ab: blocking nodes (-11) and edges (-20) first, then moves
// of near soft nodes, reconnections and, within `budget`, splits of crossing edges. 1 when no
// crossing edge is left.
int edge_obstacles(boundary_recoverer& r, unsigned a, unsigned b, double d,
                   std::vector<edge_key>& crossing, unsigned& budget, dense1D<unsigned>& new_nodes);

// Reconnects the shell of each listed edge by the best triangulation of its ring whose new edges
// keep clear of `target`; edges that went leave the list. `repeat` sweeps again while a sweep
// removed something. Returns (edges removed, ok): ok is false when an edge on the hull or between
// two colours was met, and the rest of the list was left untouched.
std::pair<unsigned, bool> remove_crossing_edges(boundary_recoverer& r,
                                                std::vector<edge_key>& crossing,
                                                const recovery_target& target, double d,
                                                bool repeat);

// Splits the crossing edge pq by a node placed in its new ball clear of the segment ab. The new
// node, or NONE when no place was found (the mesh is then unchanged).
unsigned split_crossing_edge(boundary_recoverer& r, unsigned p, unsigned q, unsigned a, unsigned b,
                             double d);

// Moves the soft node v to a place in its ball from which no edge crosses the segment ab.
bool move_node_off_edge(boundary_recoverer& r, unsigned v, unsigned a, unsigned b, double d);

// Whether node n has a tet.
inline bool node_alive(const mesh_store& m, unsigned n) noexcept {
  return n < m.ancestors.size && m.ancestors[n] != NONE;
}

// Whether an error stands in the run.
bool error_standing(const boundary_recoverer& r);

// Notes an impossible edge with what blocks it in `unenforced_set`.
void note_unenforced_edge(mesh_store& m, unsigned a, unsigned b);
void note_unenforced_face(mesh_store& m, unsigned a, unsigned b, unsigned c);

}  // namespace kelvo::voxfill
