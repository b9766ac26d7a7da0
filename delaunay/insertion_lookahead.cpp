// Reading ahead of a list of insertions: a few walks in flight, one step each per insertion.
#include "delaunay/insertion_lookahead.h"

#include "delaunay/cavity.h"
#include "delaunay/mesh_walks.h"
#include "numcore/prefetch.h"

namespace kelvo::voxfill {
namespace {

using numcore::prefetch;

enum stage : unsigned {
  idle,         // nothing to do (or given up)
  coordinates,  // the node's coordinates were asked for
  tet_row,      // the current tet's row has come: ask for its corners
  walk,         // the corners have come: one step of the walk
  found,        // the tet holding the node: ask for its neighbours
  first_ring,   // their corners, and the rows of their neighbours
  second_ring,  // the corners of those, and the rows of their neighbours
  third_ring,   // the corners of those
};

// The walks of the kernel take a few steps; a cursor that wanders further is not worth following.
constexpr unsigned MAX_STEPS = 16;

struct tables {
  const double* xyz;
  const unsigned* nodes;
  const unsigned* nbrs;
  const unsigned* marks;
  unsigned node_count, tet_count, mark_count;

  explicit tables(const mesh_store& m) noexcept
      : xyz(m.nodes.row(0)),
        nodes(m.tets.row(0)),
        nbrs(m.neighbors.row(0)),
        marks(m.marks.data()),
        node_count(m.nodes.cols()),
        tet_count(m.tets.cols()),
        mark_count(m.marks.size) {}
  bool tet_ok(unsigned t) const noexcept { return t < tet_count; }
  void ask_tet(unsigned t) const noexcept {
    prefetch(nodes + 4 * std::size_t(t));
    prefetch(nbrs + 4 * std::size_t(t));
    if (t < mark_count) prefetch(marks + t);
  }
  void ask_corners(unsigned t) const noexcept {
    const unsigned* n = nodes + 4 * std::size_t(t);
    for (unsigned i = 0; i < 4; ++i)
      if (n[i] < node_count) prefetch(xyz + 3 * std::size_t(n[i]));
  }
};

}  // namespace

void insertion_lookahead::start(const mesh_store& m, const unsigned* first,
                                unsigned count) noexcept {
  first_ = first;
  count_ = count;
  for (cursor& c : ring_) c = cursor{NONE, NONE, idle, 0};
  const unsigned n = count < depth ? count : depth;
  for (unsigned s = 0; s < n; ++s) {
    ring_[s % depth] = cursor{first[s], NONE, coordinates, 0};
    if (first[s] < m.nodes.cols()) prefetch(m.nodes.row(first[s]));
  }
}

void insertion_lookahead::advance(mesh_store& m, unsigned s) noexcept {
  if (s >= count_) return;
  cursor& own = ring_[s % depth];
  own.stage = idle;
  if (s + depth < count_) {
    own = cursor{first_[s + depth], NONE, coordinates, 0};
    if (own.node < m.nodes.cols()) prefetch(m.nodes.row(own.node));
  }
  for (unsigned k = 1; k < depth; ++k) {
    cursor& c = ring_[(s + k) % depth];
    if (c.stage != idle) step(m, c);
  }
}

void insertion_lookahead::step(mesh_store& m, cursor& c) noexcept {
  if (m.tets.cols() == 0) return;
  const tables v(m);
  switch (c.stage) {
    case idle:
      return;
    case coordinates: {
      c.stage = idle;
      if (c.node >= v.node_count) return;
      const unsigned near = m.locator.near_node(m.nodes.row(c.node));
      if (near == NONE || near >= m.ancestors.size) return;
      c.tet = m.ancestors[near];
      if (!v.tet_ok(c.tet)) return;
      v.ask_tet(c.tet);
      c.stage = tet_row;
      return;
    }
    case tet_row:
      v.ask_corners(c.tet);
      c.stage = walk;
      return;
    case walk: {
      const unsigned* n = v.nodes + 4 * std::size_t(c.tet);
      for (unsigned i = 0; i < 4; ++i)
        if (n[i] >= v.node_count) {
          c.stage = idle;
          return;
        }
      const int side = locate_side(m.nodes.data, m.nodes.row(c.node), n, LOCATE_TOL, 0);
      if (side == -1) {
        c.stage = found;
        return;
      }
      const unsigned next = side >= 0 ? v.nbrs[4 * std::size_t(c.tet) + unsigned(side)] : NONE;
      if (!v.tet_ok(next) || ++c.steps > MAX_STEPS) {
        c.stage = idle;
        return;
      }
      c.tet = next;
      v.ask_tet(next);
      c.stage = tet_row;
      return;
    }
    case found: {
      const unsigned* nb = v.nbrs + 4 * std::size_t(c.tet);
      for (unsigned i = 0; i < 4; ++i)
        if (v.tet_ok(nb[i])) v.ask_tet(nb[i]);
      c.stage = first_ring;
      return;
    }
    case first_ring: {
      const unsigned* nb = v.nbrs + 4 * std::size_t(c.tet);
      for (unsigned i = 0; i < 4; ++i) {
        if (!v.tet_ok(nb[i])) continue;
        v.ask_corners(nb[i]);
        const unsigned* nn = v.nbrs + 4 * std::size_t(nb[i]);
        for (unsigned j = 0; j < 4; ++j)
          if (nn[j] != c.tet && v.tet_ok(nn[j])) v.ask_tet(nn[j]);
      }
      c.stage = second_ring;
      return;
    }
    case second_ring:
    case third_ring: {
      const bool last = c.stage == third_ring;
      const unsigned* nb = v.nbrs + 4 * std::size_t(c.tet);
      for (unsigned i = 0; i < 4; ++i) {
        if (!v.tet_ok(nb[i])) continue;
        const unsigned* nn = v.nbrs + 4 * std::size_t(nb[i]);
        for (unsigned j = 0; j < 4; ++j) {
          if (nn[j] == c.tet || !v.tet_ok(nn[j])) continue;
          if (!last) v.ask_corners(nn[j]);
          const unsigned* n3 = v.nbrs + 4 * std::size_t(nn[j]);
          for (unsigned k = 0; k < 4; ++k) {
            if (n3[k] == nb[i] || !v.tet_ok(n3[k])) continue;
            if (last)
              v.ask_corners(n3[k]);
            else
              v.ask_tet(n3[k]);
          }
        }
      }
      c.stage = last ? idle : third_ring;
      return;
    }
  }
}

}  // namespace kelvo::voxfill
