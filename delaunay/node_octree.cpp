// Octree over node indices: cell table upkeep, descents and the depth-first searches.
#include "delaunay/node_octree.h"

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "numcore/debug_check.h"

namespace kelvo::voxfill {
namespace {

constexpr double SPAN = 2147483648.0;  // 2^31 integer positions per axis
constexpr unsigned TOP = 0x7FFFFFFFu;  // the last integer position
constexpr unsigned ROOT = node_octree::ROOT;
// A search pops an inner cell and pushes its eight children; along one path from the root that
// leaves at most 7 siblings per level on the stack, so 7 x 31 + 8 entries is the deepest it gets.
constexpr unsigned STACK_ENTRIES = 256;

// Child index at `level`: bit `level` of x, y and z as bits 0, 1 and 2.
inline unsigned octant(const unsigned c[3], unsigned level) noexcept {
  return ((c[0] >> level) & 1u) | (((c[1] >> level) & 1u) << 1) | (((c[2] >> level) & 1u) << 2);
}

// Writes n into a leaf that has room, keeping the indices ascending.
inline void insert_sorted(unsigned* w, unsigned n) noexcept {
  VOXFILL_ASSERT(w[0] < node_octree::LEAF_SIZE);
  unsigned i = ++w[0];
  while (i > 1 && w[i - 1] > n) {
    w[i] = w[i - 1];
    --i;
  }
  w[i] = n;
}

struct leaf_pos {
  unsigned cell, parent, level;
};

// Follows the bits of c from the root down to a leaf; the root is its own parent.
inline leaf_pos descend(const unsigned* cells, std::size_t ld, const unsigned c[3]) noexcept {
  leaf_pos at{ROOT, ROOT, node_octree::TOP_LEVEL};
  const unsigned* w = cells + ld * ROOT;
  while (w[0] >= 8) {
    at.parent = at.cell;
    --at.level;
    at.cell = w[octant(c, at.level)];
    w = cells + ld * at.cell;
  }
  return at;
}

// The smallest cell that holds the integer box lo..hi: two positions share a cell of level L when
// they agree on all bits from L up, so the level is one above the highest bit where they differ.
// The descent stops earlier at a leaf.
inline void containing_cell(const unsigned* cells, std::size_t ld, const unsigned lo[3],
                            const unsigned hi[3], unsigned& row, unsigned& level) noexcept {
  const unsigned diff = (lo[0] ^ hi[0]) | (lo[1] ^ hi[1]) | (lo[2] ^ hi[2]);
  const unsigned target = unsigned(std::bit_width(diff));
  row = ROOT;
  level = node_octree::TOP_LEVEL;
  const unsigned* w = cells + ld * ROOT;
  while (w[0] >= 8 && level > target) {
    --level;
    row = w[octant(lo, level)];
    w = cells + ld * row;
  }
}

// Moves the corner of the cell just popped to that cell: the bits of its child index are written
// at its level and the bits below are cleared; the bits above are those of its ancestors, which
// the depth-first order left in place.
inline void enter_cell(unsigned corner[3], unsigned level, unsigned k) noexcept {
  const unsigned keep = ~((2u << level) - 1u);  // 2u << 31 wraps to 0: nothing kept at the root
  for (unsigned a = 0; a < 3; ++a) corner[a] = (corner[a] & keep) | (((k >> a) & 1u) << level);
}

inline bool overlaps(const unsigned corner[3], unsigned ext, const unsigned lo[3],
                     const unsigned hi[3]) noexcept {
  for (unsigned a = 0; a < 3; ++a)
    if (corner[a] > hi[a] || corner[a] + ext < lo[a]) return false;
  return true;
}

// The children of a cell that meets the integer box lo..hi which meet it too, as bits by child
// index: a child meets it when the box reaches its half of the cell on every axis.
inline unsigned children_met(const unsigned corner[3], unsigned half, const unsigned lo[3],
                             const unsigned hi[3]) noexcept {
  static constexpr unsigned upper[3] = {0xAAu, 0xCCu, 0xF0u};
  unsigned met = 0xFFu;
  for (unsigned a = 0; a < 3; ++a) {
    const unsigned mid = corner[a] | half;
    if (lo[a] >= mid) met &= upper[a];
    if (hi[a] < mid) met &= ~upper[a];
  }
  return met;
}

// The state of one near or nearest search around p.
struct search_state {
  const unsigned* cells;
  std::size_t cld;
  const double* xyz;
  std::size_t xld;
  unsigned node_cols;
  const double* scale;
  unsigned* stack;
  const unsigned* ancestors = nullptr;
  unsigned ancestor_count = 0;
  node_filter accept;
  const double* p;
  unsigned pc[3];
  unsigned lo[3] = {0, 0, 0};  // search box, whole range at the start
  unsigned hi[3] = {TOP, TOP, TOP};
  unsigned best = NONE;
  double best_d2 = DBL_MAX;
};

// Offers the nodes of a leaf; true when the best improved. Nodes that left the mesh may still be
// in the tree, which is why the ancestor is looked at.
bool scan(search_state& s, const unsigned* w) noexcept {
  bool improved = false;
  const unsigned count = w[0];
  for (unsigned i = 1; i <= count; ++i) {
    const unsigned n = w[i];
    if (n == s.best || n >= s.node_cols) continue;
    if (s.ancestors && (n >= s.ancestor_count || s.ancestors[n] == NONE)) continue;
    if (s.accept.test && !s.accept.test(s.accept.ctx, n)) continue;
    const double* x = s.xyz + s.xld * n;
    const double dx = x[0] - s.p[0], dy = x[1] - s.p[1], dz = x[2] - s.p[2];
    const double d2 = dx * dx + dy * dy + dz * dz;
    if (d2 < s.best_d2) {
      s.best = n;
      s.best_d2 = d2;
      improved = true;
    }
  }
  return improved;
}

// The search box becomes the integer box around p of half width sqrt(best).
void shrink_box(search_state& s) noexcept {
  const double r = std::sqrt(s.best_d2);
  for (unsigned a = 0; a < 3; ++a) {
    const double wd = s.scale[a] * r;
    const unsigned w = wd < SPAN ? unsigned(wd) : 0x80000000u;
    s.lo[a] = s.pc[a] < w ? 0 : s.pc[a] - w;
    s.hi[a] = std::uint64_t(s.pc[a]) + w >= 0x80000000ull ? TOP : s.pc[a] + w;
  }
}

// Depth-first search from `row` (a cell of `level` that holds `corner0`), passing over `skip` and
// over cells outside the search box; children go in the order first, first + 1, ... modulo 8.
void search_down(search_state& s, unsigned row, unsigned level, const unsigned corner0[3],
                 unsigned skip, unsigned first) noexcept {
  unsigned corner[3] = {corner0[0], corner0[1], corner0[2]};
  unsigned* st = s.stack;
  st[0] = octant(corner0, level) + 8 * level;
  st[1] = row;
  unsigned top = 1;
  while (top && s.best_d2 != 0.0) {
    --top;
    const unsigned code = st[2 * top], r = st[2 * top + 1];
    const unsigned* w = s.cells + s.cld * r;
    if (r == skip || w[0] == 0) continue;
    const unsigned lv = code >> 3;
    enter_cell(corner, lv, code & 7u);
    if (!overlaps(corner, (1u << lv) - 1u, s.lo, s.hi)) continue;
    if (w[0] >= 8) {
      VOXFILL_ASSERT(lv > 0 && top + 8 <= STACK_ENTRIES);
      // Children that are empty, or already clear of the box (which only shrinks), would be
      // dropped when popped; leaving them off the stack changes nothing else.
      const unsigned child_code = 8 * (lv - 1), half = 1u << (lv - 1);
      const unsigned met = children_met(corner, half, s.lo, s.hi);
      for (unsigned j = 8; j-- > 0;) {
        const unsigned k = (first + j) & 7u;
        if (!((met >> k) & 1u) || s.cells[s.cld * w[k]] == 0) continue;
        st[2 * top] = child_code + k;
        st[2 * top + 1] = w[k];
        ++top;
      }
    } else if (scan(s, w)) {
      shrink_box(s);
    }
  }
}

// The near search: the leaf of p, then its parent starting across the wall of the finest axis,
// then the whole tree. Returns the cell that was searched last, which holds no better node.
unsigned near_search(search_state& s) noexcept {
  const leaf_pos at = descend(s.cells, s.cld, s.pc);
  if (scan(s, s.cells + s.cld * at.cell)) return at.cell;
  unsigned axis = 0;
  if (s.scale[1] > s.scale[axis]) axis = 1;
  if (s.scale[2] > s.scale[axis]) axis = 2;
  const unsigned up = at.level < node_octree::TOP_LEVEL ? at.level + 1 : at.level;
  const unsigned first = octant(s.pc, at.level) ^ (1u << axis);
  search_down(s, at.parent, up, s.pc, at.cell, first);
  if (s.best != NONE) return at.parent;
  search_down(s, ROOT, node_octree::TOP_LEVEL, s.pc, at.parent, 0);
  return ROOT;
}

// After a near search that found a node: every other cell that meets the box of that distance.
void nearest_search(search_state& s, unsigned stop) noexcept {
  if (s.lo[0] == 0 && s.lo[1] == 0 && s.lo[2] == 0) shrink_box(s);
  unsigned row, level;
  containing_cell(s.cells, s.cld, s.lo, s.hi, row, level);
  search_down(s, row, level, s.lo, stop, 0);
}

}  // namespace

bool node_octree::set_box(const double lo[3], const double hi[3]) noexcept {
  double e = 0.0;
  for (unsigned a = 0; a < 3; ++a)
    if (hi[a] - lo[a] > e) e = hi[a] - lo[a];
  double d = e * 1e-12;
  if (d == 0.0) d = 1e-12;
  for (unsigned a = 0; a < 3; ++a) {
    double b0 = lo[a] - d, b1 = hi[a] + d;
    origin[a] = b0;
    scale[a] = SPAN / (b1 - b0);
    // Far from zero the widening can vanish in rounding; then step outwards by units in the last
    // place until both corners map inside.
    for (unsigned guard = 0; guard < 64; ++guard) {
      const double v0 = (lo[a] - origin[a]) * scale[a], v1 = (hi[a] - origin[a]) * scale[a];
      if (!(v0 >= 0.0) || !(v1 < SPAN) || !(v0 <= v1)) {
        if (!(b0 <= b1) || !std::isfinite(b1 - b0)) break;
        b0 = std::nextafter(b0, -DBL_MAX);
        b1 = std::nextafter(b1, DBL_MAX);
        origin[a] = b0;
        scale[a] = SPAN / (b1 - b0);
        continue;
      }
      break;
    }
  }
  cells.set_columns(0);
  for (unsigned i = 0; i <= ROOT; ++i) {
    const unsigned r = cells.acquire();
    if (r == NONE) {
      cells.set_columns(0);
      return false;
    }
    unsigned* w = cells.row(r);
    for (unsigned k = 0; k < 8; ++k) w[k] = 0;
  }
  return true;
}

bool node_octree::to_cell_coords(const double p[3], unsigned c[3]) const noexcept {
  bool inside = true;
  for (unsigned a = 0; a < 3; ++a) {
    const double v = (p[a] - origin[a]) * scale[a];
    if (!(v >= 0.0)) {  // negative or NaN
      c[a] = 0;
      inside = false;
    } else if (v >= SPAN) {
      c[a] = TOP;
      inside = false;
    } else {
      c[a] = unsigned(v);
    }
  }
  return inside;
}

namespace {

// Turns a full leaf of `level` into an inner cell with eight empty leaves and hands its indices
// down. False (cell untouched) when the rows could not be had.
bool split(node_octree& t, unsigned cell, unsigned level) noexcept {
  unsigned rows[8];
  for (unsigned k = 0; k < 8; ++k) {
    rows[k] = t.cells.acquire();
    if (rows[k] == NONE) {
      while (k--) t.cells.release(rows[k]);
      return false;
    }
    unsigned* r = t.cells.row(rows[k]);
    for (unsigned i = 0; i < 8; ++i) r[i] = 0;
  }
  unsigned* w = t.cells.row(cell);
  unsigned old[node_octree::LEAF_SIZE];
  const unsigned count = w[0];
  for (unsigned i = 0; i < count; ++i) old[i] = w[i + 1];
  for (unsigned k = 0; k < 8; ++k) w[k] = rows[k];
  // Seven indices over eight children: none of them can overflow here.
  for (unsigned i = 0; i < count; ++i) {
    unsigned c[3];
    t.to_cell_coords(t.coords->row(old[i]), c);
    insert_sorted(t.cells.row(w[octant(c, level - 1)]), old[i]);
  }
  return true;
}

}  // namespace

bool node_octree::add(unsigned n) noexcept {
  if (cells.cols() <= ROOT || !coords || n >= coords->cols()) return false;
  unsigned c[3];
  if (!to_cell_coords(coords->row(n), c)) return false;
  unsigned cell = ROOT, level = TOP_LEVEL;
  for (;;) {
    const unsigned* w = cells.row(cell);
    while (w[0] >= 8) {
      --level;
      cell = w[octant(c, level)];
      w = cells.row(cell);
    }
    if (w[0] < LEAF_SIZE) {
      insert_sorted(cells.row(cell), n);
      return true;
    }
    // A full leaf: split it and go on down from it; at the last level there is nothing to split.
    if (level == 0 || !split(*this, cell, level)) return false;
  }
}

bool node_octree::remove(unsigned n) noexcept {
  if (cells.cols() <= ROOT || !coords || n >= coords->cols()) return false;
  unsigned c[3];
  if (!to_cell_coords(coords->row(n), c)) return false;
  const std::size_t ld = cells.data.ld;
  const leaf_pos at = descend(cells.row(0), ld, c);
  unsigned* w = cells.row(at.cell);
  unsigned i = 1;
  while (i <= w[0] && w[i] != n) ++i;
  if (i > w[0]) return false;
  for (; i < w[0]; ++i) w[i] = w[i + 1];
  --w[0];
  if (w[0]) return true;
  // Fold upwards while a parent has only empty leaves below it; the root stays.
  unsigned cell = at.cell, parent = at.parent;
  while (!(parent == ROOT && cell == ROOT)) {
    unsigned* pw = cells.row(parent);
    if (pw[0] < 8) break;
    bool all_empty = true;
    for (unsigned k = 0; k < 8 && all_empty; ++k) all_empty = cells(0, pw[k]) == 0;
    if (!all_empty) break;
    for (unsigned k = 0; k < 8; ++k) cells.release(pw[k]);
    for (unsigned k = 0; k < 8; ++k) pw[k] = 0;
    cell = parent;
    parent = descend(cells.row(0), ld, c).parent;
  }
  return true;
}

namespace {

// Prepares a search around p; false when the tree has no root or the stack could not be had.
bool start_search(node_octree& t, search_state& s, const double p[3],
                  const dense1D<unsigned>* ancestors, node_filter accept) noexcept {
  if (t.cells.cols() <= ROOT || !t.coords) return false;
  if (!t.stack.reserve(2 * STACK_ENTRIES)) return false;
  s.cells = t.cells.row(0);
  s.cld = t.cells.data.ld;
  s.xyz = t.coords->row(0);
  s.xld = t.coords->data.ld;
  s.node_cols = t.coords->cols();
  s.scale = t.scale;
  s.stack = t.stack.data();
  if (ancestors) {
    s.ancestors = ancestors->data();
    s.ancestor_count = ancestors->size;
  }
  s.accept = accept;
  s.p = p;
  t.to_cell_coords(p, s.pc);
  return true;
}

}  // namespace

unsigned node_octree::near_node(const double p[3], const dense1D<unsigned>* ancestors) noexcept {
  search_state s;
  if (!start_search(*this, s, p, ancestors, node_filter{})) return NONE;
  near_search(s);
  return s.best;
}

unsigned node_octree::nearest_node(const double p[3], const dense1D<unsigned>* ancestors) noexcept {
  return nearest_node_filtered(p, node_filter{}, ancestors);
}

unsigned node_octree::nearest_node_filtered(const double p[3], node_filter accept,
                                            const dense1D<unsigned>* ancestors) noexcept {
  search_state s;
  if (!start_search(*this, s, p, ancestors, accept)) return NONE;
  const unsigned stop = near_search(s);
  if (s.best == NONE) return NONE;
  nearest_search(s, stop);
  return s.best;
}

bool node_octree::nodes_in_box(const unsigned ilo[3], const unsigned ihi[3], const double lo[3],
                               const double hi[3], dense1D<unsigned>& out) noexcept {
  if (cells.cols() <= ROOT || !coords) return true;
  for (unsigned a = 0; a < 3; ++a)
    if (ilo[a] > ihi[a] || ilo[a] > TOP) return true;
  if (!stack.reserve(2 * STACK_ENTRIES)) return false;
  const unsigned* base = cells.row(0);
  const std::size_t cld = cells.data.ld;
  const double* xyz = coords->row(0);
  const std::size_t xld = coords->data.ld;
  const unsigned node_cols = coords->cols();
  unsigned row, level;
  containing_cell(base, cld, ilo, ihi, row, level);
  unsigned corner[3] = {ilo[0], ilo[1], ilo[2]};
  unsigned* st = stack.data();
  st[0] = octant(ilo, level) + 8 * level;
  st[1] = row;
  unsigned top = 1;
  std::uint64_t expected = out.size;
  while (top) {
    --top;
    const unsigned code = st[2 * top], r = st[2 * top + 1];
    const unsigned* w = base + cld * r;
    if (w[0] == 0) continue;
    const unsigned lv = code >> 3;
    enter_cell(corner, lv, code & 7u);
    const unsigned ext = (1u << lv) - 1u;
    if (w[0] >= 8) {
      // Only children that meet the box go on the stack, child 0 on top.
      const unsigned met = children_met(corner, 1u << (lv - 1), ilo, ihi);
      for (unsigned k = 8; k-- > 0;) {
        if (!((met >> k) & 1u) || base[cld * w[k]] == 0) continue;
        st[2 * top] = 8 * (lv - 1) + k;
        st[2 * top + 1] = w[k];
        ++top;
      }
      continue;
    }
    // A leaf clear of the box's boundary positions lies inside the box: truncation keeps the
    // order, so a position strictly between the integer corners is strictly between the corners.
    // A leaf that touches them has its points compared one by one.
    bool inside = true;
    for (unsigned a = 0; a < 3 && inside; ++a)
      inside = corner[a] > ilo[a] && corner[a] + ext < ihi[a];
    const unsigned count = w[0];
    for (unsigned i = 1; i <= count; ++i) {
      const unsigned n = w[i];
      if (!inside) {
        if (n >= node_cols) continue;
        const double* x = xyz + xld * n;
        if (!(lo[0] <= x[0] && x[0] <= hi[0] && lo[1] <= x[1] && x[1] <= hi[1] && lo[2] <= x[2] &&
              x[2] <= hi[2]))
          continue;
      }
      out.push_back(n);
      ++expected;
    }
  }
  return out.size == expected;
}

bool node_octree::any_in_box(const unsigned ilo[3], const unsigned ihi[3], const double lo[3],
                             const double hi[3], const unsigned from[3], node_filter hit) noexcept {
  if (cells.cols() <= ROOT || !coords || !hit.test) return false;
  for (unsigned a = 0; a < 3; ++a)
    if (ilo[a] > ihi[a] || ilo[a] > TOP) return false;
  if (!stack.reserve(2 * STACK_ENTRIES)) return false;
  const unsigned* base = cells.row(0);
  const std::size_t cld = cells.data.ld;
  const double* xyz = coords->row(0);
  const std::size_t xld = coords->data.ld;
  const unsigned node_cols = coords->cols();
  unsigned row, level;
  containing_cell(base, cld, ilo, ihi, row, level);
  unsigned corner[3] = {ilo[0], ilo[1], ilo[2]};
  unsigned* st = stack.data();
  st[0] = octant(ilo, level) + 8 * level;
  st[1] = row;
  unsigned top = 1;
  while (top) {
    --top;
    const unsigned code = st[2 * top], r = st[2 * top + 1];
    const unsigned* w = base + cld * r;
    if (w[0] == 0) continue;
    const unsigned lv = code >> 3;
    enter_cell(corner, lv, code & 7u);
    const unsigned ext = (1u << lv) - 1u;
    if (w[0] >= 8) {
      // The child on the side of `from` goes on top, the one across all three walls at the
      // bottom.
      // Every cell on the stack meets the box.
      const unsigned first = octant(from, lv - 1);
      const unsigned met = children_met(corner, 1u << (lv - 1), ilo, ihi);
      for (unsigned j = 8; j-- > 0;) {
        const unsigned k = first ^ j;
        if (!((met >> k) & 1u) || base[cld * w[k]] == 0) continue;
        st[2 * top] = 8 * (lv - 1) + k;
        st[2 * top + 1] = w[k];
        ++top;
      }
      continue;
    }
    bool inside = true;
    for (unsigned a = 0; a < 3 && inside; ++a)
      inside = corner[a] > ilo[a] && corner[a] + ext < ihi[a];
    const unsigned count = w[0];
    for (unsigned i = 1; i <= count; ++i) {
      const unsigned n = w[i];
      if (!inside) {
        if (n >= node_cols) continue;
        const double* x = xyz + xld * n;
        if (!(lo[0] <= x[0] && x[0] <= hi[0] && lo[1] <= x[1] && x[1] <= hi[1] && lo[2] <= x[2] &&
              x[2] <= hi[2]))
          continue;
      }
      if (hit.test(hit.ctx, n)) return true;
    }
  }
  return false;
}

bool node_octree::reserve(unsigned node_count) noexcept {
  return cells.reserve(ROOT + 1 + node_count / 2);
}

void node_octree::clear_hard() {
  cells.clear_hard();
  stack.clear_hard();
  for (unsigned a = 0; a < 3; ++a) origin[a] = scale[a] = 0.0;
}

}  // namespace kelvo::voxfill
