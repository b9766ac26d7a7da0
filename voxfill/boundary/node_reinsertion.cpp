// Reinsertion of hard nodes: room-making by removal of the nearest yielding nodes, then plain
// Delaunay insertion in order of priority, and the conflicts noted for what stays out.
#include "voxfill/boundary/node_reinsertion.h"

#include <algorithm>
#include <new>
#include <utility>

#include "delaunay/delaunay_mgr.h"
#include "delaunay/mesh_walks.h"
#include "voxfill/boundary/boundary_recoverer.h"
#include "voxfill/boundary/edge_recovery.h"
#include "voxfill/delaunay_th4.h"

namespace kelvo::voxfill {

int build_hard_node_order(const dense2D<unsigned>& connectB, const dense2D<unsigned>& connectE,
                          const dense1D<unsigned>& isolated_nodes, unsigned node_count,
                          dense1D<unsigned>& hard_node_order) {
  hard_node_order.clear();
  if (!hard_node_order.resize(node_count, NONE)) return -199;
  // The first use counts: triangles, then edges, then the listed nodes.
  auto note = [&](unsigned v, unsigned order) {
    if (v < node_count && hard_node_order[v] == NONE) hard_node_order[v] = order;
  };
  const unsigned nB = connectB.rows >= 3 ? connectB.cols : 0;
  const unsigned nE = connectE.rows >= 2 ? connectE.cols : 0;
  for (unsigned j = 0; j < nB; ++j)
    for (unsigned i = 0; i < 3; ++i) note(connectB(i, j), j);
  for (unsigned j = 0; j < nE; ++j)
    for (unsigned i = 0; i < 2; ++i) note(connectE(i, j), nB + j);
  for (unsigned k = 0; k < isolated_nodes.size; ++k) note(isolated_nodes[k], nB + nE + k);
  return 0;
}

namespace {

unsigned order_of(const dense1D<unsigned>& order, unsigned v) noexcept {
  return v < order.size ? order[v] : NONE;
}

// u yields to x: it comes later by order, ties broken by index.
bool comes_after(const dense1D<unsigned>& order, unsigned u, unsigned x) noexcept {
  const unsigned ou = order_of(order, u), ox = order_of(order, x);
  return ou > ox || (ou == ox && u > x);
}

}  // namespace

unsigned reinsert_hard_nodes(boundary_recoverer& r, dense1D<unsigned>& absent_nodes,
                             const dense1D<unsigned>& hard_node_order) {
  th4_engine& e = r.engine;
  mesh_store& m = r.store;
  unsigned kept = 0;
  for (unsigned k = 0; k < absent_nodes.size; ++k) {
    const unsigned x = absent_nodes[k];
    if (order_of(hard_node_order, x) != NONE && !node_alive(m, x)) absent_nodes[kept++] = x;
  }
  absent_nodes.size = kept;
  if (!kept) return 0;
  ++r.counts.reinsertions;

  // The insertions below run under the plain kernel; the caller's mode comes back on every exit.
  struct mode_guard {
    mesh_store& m;
    kernel_mode_type saved;
    ~mode_guard() { m.kernel_mode = saved; }
  } guard{m, m.kernel_mode};
  unsigned changes = 0;
  // A mesh of given nodes keeps every node it was given: only hard nodes, which come back by
  // their order, make room there.
  const bool soft_may_go = r.steiner_limit != 0;
  auto may_go = [&](unsigned u) { return soft_may_go || order_of(hard_node_order, u) != NONE; };

  dense1D<unsigned>& in_the_way = r.in_the_way;
  in_the_way.clear();
  for (unsigned k = 0; k < absent_nodes.size; ++k) {
    const unsigned x = absent_nodes[k];
    const double* P = m.nodes.row(x);
    const unsigned after = m.locator.nearest_node_filtered(
        P, [&](unsigned u) { return comes_after(hard_node_order, u, x) && may_go(u); });
    if (after != NONE) push_checked(in_the_way, after);
    const unsigned nearest = m.locator.nearest_node(P);
    if (nearest != NONE && nearest != after && nearest != x && may_go(nearest))
      push_checked(in_the_way, nearest);
  }

  // Sweeps while the list shrinks: a removal may open the way for another.
  for (unsigned before = in_the_way.size + 1; in_the_way.size && in_the_way.size < before;) {
    before = in_the_way.size;
    unsigned left = 0;
    for (unsigned k = 0; k < in_the_way.size; ++k) {
      const unsigned u = in_the_way[k];
      if (!node_alive(m, u)) continue;
      const bool closed = ball_of_node(m, u, NONE, r.ball_tets);
      if (!closed || !r.ball_tets.size ||
          !remove_node_by_cone(r.steiner, u, r.ball_tets, 0xFFFFFFFFu, 1e-12)) {
        in_the_way[left++] = u;
        continue;
      }
      m.ancestors[u] = NONE;
      m.locator.remove(u);
      push_checked(absent_nodes, u);
      ++changes;
      ++r.counts.nodes_taken_out;
    }
    in_the_way.size = left;
  }

  m.kernel_mode = kernel_mode_type::plain;
  std::vector<std::pair<unsigned, unsigned>>& pairs = r.reinsertion_pairs;
  pairs.clear();
  for (unsigned k = 0; k < absent_nodes.size; ++k) {
    const unsigned x = absent_nodes[k];
    const unsigned o = order_of(hard_node_order, x);
    if (o != NONE && !node_alive(m, x)) pairs.emplace_back(o, x);
  }
  std::sort(pairs.begin(), pairs.end());
  absent_nodes.clear();
  for (const auto& [o, x] : pairs) {
    if (node_alive(m, x) || !insert_node(m, e.kernel, x, e.kernel.seeds, 1e-12)) {
      // A node listed twice fails its second time; the kernel may also have run out of room.
      if (!node_alive(m, x)) push_checked(absent_nodes, x);
      continue;
    }
    m.locator.remove(x);  // a stale entry would be counted twice
    m.locator.add(x);
    ++changes;
    ++r.counts.nodes_reinserted;
  }

  // What stays out is in conflict with the hard node nearest to it.
  entity_set& u = m.unenforced_set;
  u.node_bits.clear();
  u.node_count = 0;
  for (unsigned k = 0; k < absent_nodes.size; ++k) {
    const unsigned x = absent_nodes[k];
    if (!u.add_node(x)) throw std::bad_alloc();
    const unsigned nearest = m.locator.nearest_node(m.nodes.row(x));
    if (nearest != NONE && m.hard_set.has_node(nearest) && !u.add_node(nearest))
      throw std::bad_alloc();
  }
  return changes;
}

}  // namespace kelvo::voxfill
