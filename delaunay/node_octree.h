// Octree over node indices on 31-bit integer coordinates: insertion, removal, near and nearest
// node, and the nodes in a box.
#pragma once

#include "delaunay/slot_table.h"

namespace kelvo::voxfill {

// A predicate on node indices for the filtered search; `test(ctx, n)` true accepts node n.
struct node_filter {
  bool (*test)(const void* ctx, unsigned node) = nullptr;
  const void* ctx = nullptr;
};

// The tree stores node numbers only; the points stay in `coords`. Every cell is one row of 8 words
// of `cells`. Rows 0 to 7 are never used, so that a word of 8 or more is always a child row: a
// cell whose word 0 is below 8 is a leaf holding that many indices (at most 7, ascending) in words
// 1 to 7; any other cell is inner and its eight words are its children. Child k covers the octant
// whose x, y, z bits at the cell's level are bits 0, 1, 2 of k; the root (row 8) has level 31.
//
// The tree is usable once `set_box` (or a build of the locator) has made the root: until then
// every query answers none and `add` refuses.
struct node_octree {
  static constexpr unsigned ROOT = 8;
  static constexpr unsigned LEAF_SIZE = 7;
  static constexpr unsigned TOP_LEVEL = 31;

  const slot_table<double>* coords = nullptr;  // x, y, z of node j in column j
  double origin[3] = {0.0, 0.0, 0.0};          // lower corner of the covered box
  double scale[3] = {0.0, 0.0, 0.0};           // 2^31 over the covered extent, per axis
  slot_table<unsigned> cells{8};
  // Scratch of the searches, kept warm between calls: entries (child index + 8 x level, row).
  dense1D<unsigned> stack;

  node_octree() = default;
  // Not noexcept: the cell table takes its first rows here.
  explicit node_octree(const slot_table<double>* c) : coords(c) {}

  // Empties the tree and covers the box lo..hi, widened by 1e-12 of its largest extent so that
  // points on its faces are inside. False when the root row could not be had (tree unusable).
  bool set_box(const double lo[3], const double hi[3]) noexcept;
  // Integer coordinates of p in c; false (and c clamped to 0 or 0x7FFFFFFF) when p is outside.
  bool to_cell_coords(const double p[3], unsigned c[3]) const noexcept;
  // Stores node n. False when its point is outside the box, when 8 nodes would share one
  // position at the last level, or when memory ran out; the other nodes stay stored then.
  bool add(unsigned n) noexcept;
  // Takes node n out, folding cells left with eight empty leaves. False when its point is outside
  // the box or n is not found where its point leads.
  bool remove(unsigned n) noexcept;

  // A node near p: the first found going outwards from the leaf of p, not always the nearest.
  // With `ancestors`, nodes whose entry is missing or NONE are passed over. NONE when none.
  unsigned near_node(const double p[3], const dense1D<unsigned>* ancestors = nullptr) noexcept;
  // The node nearest to p; at equal distances the one met first by the search. NONE when none.
  unsigned nearest_node(const double p[3], const dense1D<unsigned>* ancestors = nullptr) noexcept;
  // The nearest node for which `accept` is true (and whose ancestor exists), or NONE.
  unsigned nearest_node_filtered(const double p[3], node_filter accept,
                                 const dense1D<unsigned>* ancestors = nullptr) noexcept;
  template <class F>
  unsigned nearest_node_filtered(const double p[3], const F& accept,
                                 const dense1D<unsigned>* ancestors = nullptr) noexcept {
    node_filter f;
    f.test = [](const void* c, unsigned n) { return bool((*static_cast<const F*>(c))(n)); };
    f.ctx = &accept;
    return nearest_node_filtered(p, f, ancestors);
  }
  // Appends to `out` the nodes in the closed box lo..hi; ilo, ihi are its integer corners (from
  // `to_cell_coords`). False when `out` could not grow (it then lacks some nodes).
  bool nodes_in_box(const unsigned ilo[3], const unsigned ihi[3], const double lo[3],
                    const double hi[3], dense1D<unsigned>& out) noexcept;

  // True as soon as `hit` accepts a node of the closed box lo..hi (corners as for nodes_in_box):
  // the search stops there. The cells on the side of the integer position `from` come first, so
  // that a node near it ends the search early. False when none is accepted, or when the scratch
  // could not grow.
  bool any_in_box(const unsigned ilo[3], const unsigned ihi[3], const double lo[3],
                  const double hi[3], const unsigned from[3], node_filter hit) noexcept;
  template <class F>
  bool any_in_box(const unsigned ilo[3], const unsigned ihi[3], const double lo[3],
                  const double hi[3], const unsigned from[3], const F& hit) noexcept {
    node_filter f;
    f.test = [](const void* c, unsigned n) { return bool((*static_cast<const F*>(c))(n)); };
    f.ctx = &hit;
    return any_in_box(ilo, ihi, lo, hi, from, f);
  }

  // True when no node is stored.
  bool empty() const noexcept { return cells.cols() <= ROOT || cells(0, ROOT) == 0; }
  // Room for the cells of about `node_count` nodes; false when memory ran out.
  bool reserve(unsigned node_count) noexcept;
  // Lets the cells and the scratch go; the tree needs a new `set_box`.
  void clear_hard();
};

}  // namespace kelvo::voxfill
