// Size limiting under a target size: the nodes that a refinement pass made take the caller's
// target size, and are then moved back towards their neighbours' sizes, worst edge first, until
// no edge of the pass grows faster than the size gradation allows.
#pragma once

#include <vector>

#include "numcore/dense1D.h"
#include "numcore/dense2D.h"

namespace kelvo::voxfill {

class th4_engine;
struct refine_context;

// An edge waiting in the relaxation's heap, largest key first. The key is the edge's gradation
// in single precision, so that an entry takes 16 bytes; the stamp tells a stale entry.
struct limit_entry {
  float key;
  unsigned stamp;
  unsigned node_a;  // local numbers: the node whose size may move, and its neighbour
  unsigned node_b;
};

// Scratch of the relaxation, kept in the refinement's context from pass to pass.
struct limit_scratch {
  std::vector<limit_entry> heap;
  std::vector<signed char> directions;  // per local node: 0, or the way its size has moved
  std::vector<unsigned> others;         // fixed neighbours of the node under work
};

// How fast the size grows along edge vector e between sizes h1 and h2: exp(|h2 - h1| / |e|) - 1.
// 0.0 for equal sizes at one point, DBL_MAX for different ones, or when it overflows.
double edge_gradation(double h1, double h2, const double* e) noexcept;

// The job of one move of a node's size towards a neighbour's: the fixed neighbours of a, whose
// gradation with a must not get worse, and the way in which a's size may move.
struct limit_job {
  const dense2D<double>& xyz;
  const dense1D<double>& sizes;
  unsigned a, b;  // node indices
  int direction;
  double gradation;
  const std::vector<unsigned>& others;
};

// Sum over the fixed neighbours of the squared excess of their gradation with a, were a's size
// moved the fraction x of the way to b's. DBL_MAX when an excess overflows.
double gradation_excess(const limit_job& job, double x) noexcept;

// Moves the size of node a towards that of b, by the fraction at which the edge has the
// gradation g, or less when a's fixed neighbours would suffer. `direction` is a's way so far
// (0 for none yet) and comes back set. False when the size stays.
bool limit_edge(const dense2D<double>& xyz, dense1D<double>& sizes, unsigned a, unsigned b,
                const std::vector<unsigned>& others, double g, int& direction) noexcept;

// Best-first relaxation over the local graph: `nodes` are the coordinates, `local_nodes` the node
// of each local number, `size_stamps` 0xFFFFFFFF for a fixed node and 0 for a mobile one. The
// count of nodes whose size changed, or -199 when memory ran out.
int spread_limit(const dense2D<double>& nodes, const dense1D<unsigned>& graph_offsets,
                 const dense1D<unsigned>& graph_nodes, const dense1D<unsigned>& local_nodes,
                 dense1D<unsigned>& size_stamps, double g, dense1D<double>& node_sizes,
                 limit_scratch& scratch) noexcept;

// The nodes of `inserted`, and the protected ones of the last pass, take the target size, and
// the relaxation then limits their gradation against the fixed nodes round them. The count of
// nodes changed, or -199.
int limit_sizes(th4_engine& e, refine_context& c, const dense1D<unsigned>& inserted) noexcept;

}  // namespace kelvo::voxfill
