// The in-memory tetrahedral mesh: node and tet tables with O(1) row reuse, parallel per-row
// arrays, hard entity sets, visit marks, scratch lists and the run's random sources.
#pragma once

#include "delaunay/entity_set.h"
#include "delaunay/node_locator.h"
#include "delaunay/node_octree.h"
#include "delaunay/random_source.h"

namespace kelvo::voxfill {

// What a cavity of the kernel may not cross. Whoever changes it puts the old value back.
enum class kernel_mode_type : unsigned {
  plain = 0,       // nothing: a plain Delaunay cavity
  hard_faces = 1,  // no hard face
  hard_edges = 2,  // no hard face, and no hard edge may come to lie inside it
};

class mesh_store {
 public:
  entity_set hard_set;
  entity_set unenforced_set;
  slot_table<double> nodes{3};
  slot_table<unsigned> tets{4};
  slot_table<unsigned> neighbors{4};
  dense1D<unsigned> ancestors;
  dense1D<unsigned> colors;
  dense1D<double> node_sizes;
  dense1D<double> tet_qualities;
  dense1D<unsigned> tet_stamps;
  unsigned tet_clock = 0;
  dense1D<unsigned> marks;
  unsigned mark_value = 1;
  unsigned mark_step = 1;
  bool lost_rows = false;  // a tet row could not be freed for want of memory: it stays, unused
  node_octree exclusion_octree;
  unsigned exclusion_count = 0;
  dense1D<unsigned> work_stack;  // scratch of the walks and queries; holds nothing across a call
  kernel_mode_type kernel_mode = kernel_mode_type::plain;
  dense1D<unsigned> box_nodes;
  double box_min[3] = {0.0, 0.0, 0.0};
  double box_max[3] = {0.0, 0.0, 0.0};
  node_locator locator;
  random_source_type random_source{1u};
  bit_source bits;

  mesh_store();
  mesh_store(const mesh_store&) = delete;
  mesh_store& operator=(const mesh_store&) = delete;

  // A node at (x, y, z) with wanted size h: its index, or NONE when memory ran out (store
  // unchanged).
  unsigned new_node(double x, double y, double z, double h) noexcept;
  // Takes the node out of the locator's octree if it is there, and frees its row.
  void release_node(unsigned n) noexcept;
  // A tet with neighbours NONE, colour and quality as given: its index, or NONE (store unchanged).
  unsigned new_tet(unsigned n0, unsigned n1, unsigned n2, unsigned n3, unsigned color,
                   double quality) noexcept;
  // new_tet for each of the `count` rows of four nodes at `rows` (qualities at `qualities`), the
  // tets' indices put into `made`, when neither table has a free row and every array has room
  // for them already: then they are simply the next columns, and their neighbour rows are left to
  // the caller. False, and nothing done, in any other case.
  bool append_tets(const unsigned* rows, const double* qualities, unsigned count, unsigned color,
                   unsigned* made) noexcept;
  // Frees the rows; nodes and neighbours stay readable until the rows are reused.
  void release_tet(unsigned t) noexcept;
  void release_tets(const unsigned* list, unsigned count) noexcept;
  void set_tet_nodes(unsigned t, const unsigned n[4]) noexcept {
    unsigned* r = tets.row(t);
    r[0] = n[0], r[1] = n[1], r[2] = n[2], r[3] = n[3];
  }
  // Appends one node per column of `points`; columns beyond `sizes` get size 0.0.
  bool load_nodes(const dense2D<double>& points, const dense1D<double>& sizes) noexcept;
  // Appends one tet per column of `t4`, with colour `color` and quality 0.0.
  bool load_tets(const dense2D<unsigned>& t4, unsigned color) noexcept;
  // Room for that many nodes and tets in every parallel array; false when memory ran out.
  bool reserve(unsigned node_count, unsigned tet_count) noexcept;

  // A fresh generation of visit marks, without clearing (but at the wrap of the counter). It owns
  // `values` mark values, mark_value and the ones just above it; the next generation starts
  // beyond them.
  unsigned bump_marks(unsigned values = 1) noexcept;
  bool marked(unsigned i) const noexcept { return i < marks.size && marks[i] == mark_value; }
  void mark(unsigned i) noexcept { marks[i] = mark_value; }
  // Makes `marks` cover index i (new entries 0). False when memory ran out. The room doubles, but
  // only the entries up to i are written, so that pages nobody marks are never touched.
  bool cover_marks(unsigned i) noexcept {
    if (i < marks.size) return true;
    const unsigned room = i + 1 > 2 * marks.size ? i + 1 : 2 * marks.size;
    if (i >= marks.capacity() && !marks.reserve(room)) return false;
    return marks.resize(i + 1, 0u);
  }

  // Local face of a opposite b, 4 when b is not a neighbour of a.
  unsigned neighbor_index(unsigned a, unsigned b) const noexcept {
    const unsigned* nb = neighbors.row(a);
    for (unsigned f = 0; f < 4; ++f)
      if (nb[f] == b) return f;
    return 4;
  }
  // A tet row is deleted (free for reuse), live (any other colour), unclassified (live with the
  // colour NONE: not yet sorted into a subdomain or outside), or in the domain (a subdomain
  // colour, below both sentinels).
  bool tet_deleted(unsigned t) const noexcept { return colors[t] == DELETED; }
  bool tet_live(unsigned t) const noexcept { return colors[t] != DELETED; }
  bool tet_unclassified(unsigned t) const noexcept { return colors[t] == NONE; }
  bool tet_in_domain(unsigned t) const noexcept { return color_in_domain(colors[t]); }

  // Recomputes every quality (only classified tets when asked); the smallest, 1.0 when no tet,
  // 0.0 at a non-finite value.
  double recompute_qualities(bool only_classified) noexcept;
  // ancestors[node] = tet for each node of each tet of [first, last); the last write wins.
  void set_ancestors(unsigned first, unsigned last) noexcept;

  // Lets go of every table, empties the sets, re-seeds the generators.
  void clear();
};

}  // namespace kelvo::voxfill
