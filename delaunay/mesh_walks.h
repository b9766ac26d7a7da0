// Local topology queries by short walks over neighbours: balls of nodes, shells of edges, the
// tets holding an edge or a face, and point location.
#pragma once

#include <cstdint>

#include "delaunay/key_set.h"
#include "delaunay/mesh_store.h"

namespace kelvo::voxfill {

// Relative tolerances of the point-in-tet test.
inline constexpr double LOCATE_TOL = 1e-12;
inline constexpr double LOCATE_TOL_WIDE = 1e-6;

// Clears `out` and fills it with the tets around `node`, depth first from the start tet
// (ancestors[node] when start is NONE). Returns `closed`: false when the ball reaches the hull or
// there is no start tet. Uses `work_stack` and `marks`.
bool ball_of_node(mesh_store& m, unsigned node, unsigned start, dense1D<unsigned>& out) noexcept;

// The same ball without touching `marks`: visits go into the caller's `seen` set (cleared here)
// and the caller's `stack`.
bool ball_of_node_unmarked(const mesh_store& m, unsigned node, unsigned start,
                           dense1D<unsigned>& out, dense1D<unsigned>& stack,
                           index_set& seen) noexcept;

// A tet holding a and b, searched over the ball of a from `start` (which holds a); NONE when there
// is none. `start` receives the result.
unsigned find_edge_tet(mesh_store& m, unsigned a, unsigned b, unsigned& start) noexcept;

// A tet holding a and b: ancestors[a] when it also holds b, else a search of the ball of a.
unsigned edge_tet(mesh_store& m, unsigned a, unsigned b) noexcept;

// Clears `out` and fills it with the tets around edge (a, b) in rotation order. Returns `closed`:
// true when the shell goes all the way round. An open shell holds the run from the start in one
// direction, then the run in the other direction, with hull faces at both ends.
bool shell_of_edge(mesh_store& m, unsigned a, unsigned b, unsigned start,
                   dense1D<unsigned>& out) noexcept;

// The shell, and appended to `ring` the node at local position d of each tet; an open shell
// appends one more node where each run stops at the hull.
bool shell_with_ring(mesh_store& m, unsigned a, unsigned b, unsigned start, dense1D<unsigned>& out,
                     dense1D<unsigned>& ring) noexcept;

// Each edge of the live tets once, as (smaller node << 32 | larger node), in increasing order.
// False (list empty) when memory ran out.
bool edges_of_live_tets(const mesh_store& m, dense1D<std::uint64_t>& edges) noexcept;

// First tet holding n0, n1 and n2, or NONE; `out` holds the shell (or ball) that was searched.
unsigned find_face_tet(mesh_store& m, unsigned n0, unsigned n1, unsigned n2,
                       dense1D<unsigned>& out) noexcept;

// Fills `out` with the tets that have exactly the face (n0, n1, n2): 0, 1 or 2 entries.
void tets_of_face(mesh_store& m, unsigned n0, unsigned n1, unsigned n2,
                  dense1D<unsigned>& out) noexcept;

// First face, in the cyclic scan from start + 1, beyond whose plane P lies by more than the
// tolerance relative to the tet's determinant; -1 when P is in the tet; -2 for a tet of
// non-positive or non-finite volume.
int locate_side(const dense2D<double>& xyz, const double* P, const unsigned* tet, double tol,
                unsigned start) noexcept;

// Walks from tet t towards P. 1 found (t holds it), 0 walked out of the mesh, -1 met a bad tet,
// -2 out of steps; t is NONE on every result but 1.
int walk_to_point(const mesh_store& m, const double* P, unsigned& t, double tol,
                  bit_source& bits) noexcept;

// The tet holding P, from `t` or, when t is NONE, from the tet of the node nearest to P found by
// the locator's octree. False (t = NONE) when not found.
bool locate_tet(mesh_store& m, const double* P, unsigned& t, double tol) noexcept;

// The same walk and location over the tables that a locator is bound to, with the caller's random
// bits: a mesh other than the store's (a background mesh) is walked the same way.
int walk_to_point(const node_locator& loc, const double* P, unsigned& t, double tol,
                  bit_source& bits) noexcept;
bool locate_tet(node_locator& loc, const double* P, unsigned& t, double tol,
                bit_source& bits) noexcept;
// The same, and on success the weights of P in t (those of tet_barycentric of its four nodes)
// into w[0..2], taken from the last test of the walk.
bool locate_tet(node_locator& loc, const double* P, unsigned& t, double tol, bit_source& bits,
                double* w) noexcept;

// What a walk keeps of the tet it ended in, for the next look-up nearby: the tet, its row of nodes,
// their coordinates, its determinant and the rows of its inverse. A walk that starts in that tet
// again tests its faces and solves for the weights without working these out anew, with the same
// bits and the same random draws. Filled only by the AVX2 walk; valid only while the mesh and its
// coordinates stay as they are; `tet` is NONE for an empty memo.
struct walk_memo {
  unsigned tet = NONE;
  const unsigned* row = nullptr;  // the tet's nodes, in the table of tets
  const double* q3 = nullptr;     // the tet's fourth node
  double V = 0.0, det = 0.0;
  alignas(32) double nodes[3][4];  // x, y and z of the tet's nodes, node i in lane i
  alignas(32) double cols[3][4];
  alignas(32) double rows[3][4];
  alignas(32) double inv[4];
};

// locate_tet through `memo`, with the weights unless `w` is null: the memo is used when the walk
// starts in its tet and is refilled when the walk ends elsewhere.
bool locate_tet(node_locator& loc, const double* P, unsigned& t, double tol, bit_source& bits,
                double* w, walk_memo& memo) noexcept;

// As locate_tet, but the tet must be classified; with `retry`, walks again from each tet of the
// ball of the nearest node until a walk ends in a classified tet.
bool locate_tet_in_domain(mesh_store& m, const double* P, unsigned& t, double tol, bool retry,
                          dense1D<unsigned>& ball, dense1D<unsigned>& stack,
                          index_set& seen) noexcept;

}  // namespace kelvo::voxfill
