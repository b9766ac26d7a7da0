// The in-memory tetrahedral mesh: row acquisition and release with all-or-nothing growth of
// the parallel arrays, loading, reservation, marks, qualities and ancestors.
#include "delaunay/mesh_store.h"

#include <algorithm>
#include <cmath>

#include "delaunay/geometry.h"

namespace kelvo::voxfill {

mesh_store::mesh_store() {
  locator.bind(&nodes, &tets, &neighbors, &ancestors);
  exclusion_octree.coords = &nodes;
  work_stack.reserve(128);
  bits.seed_from(random_source);
}

unsigned mesh_store::new_node(double x, double y, double z, double h) noexcept {
  const unsigned old_cols = nodes.cols();
  const unsigned n = nodes.acquire();
  if (n == NONE) return NONE;
  if (n == old_cols) {
    const unsigned a = ancestors.size, s = node_sizes.size;
    ancestors.push_back(NONE);
    node_sizes.push_back(h);
    if (ancestors.size == a || node_sizes.size == s || !cover_marks(n)) {
      ancestors.size = a;
      node_sizes.size = s;
      nodes.give_back(n, old_cols);
      return NONE;
    }
  } else {
    if (!cover_marks(n)) {
      nodes.release(n);
      return NONE;
    }
    ancestors[n] = NONE;
    node_sizes[n] = h;
  }
  double* p = nodes.row(n);
  p[0] = x, p[1] = y, p[2] = z;
  return n;
}

void mesh_store::release_node(unsigned n) noexcept {
  locator.remove(n);
  ancestors[n] = NONE;
  node_sizes[n] = 0.0;
  nodes.release(n);
}

unsigned mesh_store::new_tet(unsigned n0, unsigned n1, unsigned n2, unsigned n3, unsigned color,
                             double quality) noexcept {
  const unsigned old_cols = tets.cols();
  const unsigned t = tets.acquire();
  if (t == NONE) return NONE;
  const unsigned t2 = neighbors.acquire();
  if (t2 != t) {
    // Both tables are always released together, so only a failed growth can get here.
    if (t2 != NONE) neighbors.give_back(t2, old_cols);
    tets.give_back(t, old_cols);
    return NONE;
  }
  if (t == old_cols) {
    const unsigned c = colors.size, q = tet_qualities.size, s = tet_stamps.size;
    colors.push_back(color);
    tet_qualities.push_back(quality);
    tet_stamps.push_back(tet_clock);
    if (colors.size == c || tet_qualities.size == q || tet_stamps.size == s || !cover_marks(t)) {
      colors.size = c;
      tet_qualities.size = q;
      tet_stamps.size = s;
      neighbors.give_back(t, old_cols);
      tets.give_back(t, old_cols);
      return NONE;
    }
  } else {
    if (!cover_marks(t)) {
      neighbors.release(t);
      tets.release(t);
      return NONE;
    }
    colors[t] = color;
    tet_qualities[t] = quality;
    tet_stamps[t] = tet_clock;
  }
  unsigned* r = tets.row(t);
  r[0] = n0, r[1] = n1, r[2] = n2, r[3] = n3;
  unsigned* nb = neighbors.row(t);
  nb[0] = nb[1] = nb[2] = nb[3] = NONE;
  return t;
}

bool mesh_store::append_tets(const unsigned* rows, const double* qualities, unsigned count,
                             unsigned color, unsigned* made) noexcept {
  const unsigned n = tets.cols(), end = n + count;
  if (tets.free_stack.size || neighbors.free_stack.size || end < n || neighbors.cols() != n ||
      colors.size != n || tet_qualities.size != n || tet_stamps.size != n || marks.size < end)
    return false;
  dense2D<unsigned>& a = tets.data;
  dense2D<unsigned>& b = neighbors.data;
  if (a.rows != 4 || a.ld != 4 || b.rows != 4 || b.ld != 4 || a.capacity_cols() < end ||
      b.capacity_cols() < end || colors.capacity() < end || tet_qualities.capacity() < end ||
      tet_stamps.capacity() < end)
    return false;
  a.cols = b.cols = end;
  a.size += 4 * count;
  b.size += 4 * count;
  colors.size = tet_qualities.size = tet_stamps.size = end;
  // Through plain pointers: the stores would otherwise make every table's pointer be read again.
  unsigned* r = a.col(n);
  unsigned* c = colors.data() + n;
  double* q = tet_qualities.data() + n;
  unsigned* st = tet_stamps.data() + n;
  const unsigned clock = tet_clock;
  std::copy_n(rows, 4 * std::size_t(count), r);
  for (unsigned k = 0; k < count; ++k) {
    c[k] = color;
    q[k] = qualities[k];
    st[k] = clock;
    made[k] = n + k;
  }
  // Free bits beyond the set's length read as clear already.
  bit_set* bits[2] = {&tets.free_bits, &neighbors.free_bits};
  for (bit_set* b : bits) {
    unsigned* w = b->words.data();
    for (unsigned t = n, stop = std::min(end, b->length); t < stop; ++t)
      w[t >> 5] &= ~(1u << (t & 31));
  }
  return true;
}

void mesh_store::release_tet(unsigned t) noexcept {
  // Both tables free the row or neither does: they must hand out the same rows later. A row that
  // cannot be freed stays taken, deleted and unused.
  if (!tets.release(t)) {
    lost_rows = true;
  } else if (!neighbors.release(t)) {
    tets.take_back(t);
    lost_rows = true;
  }
  colors[t] = DELETED;
  tet_stamps[t] = NONE;
}

void mesh_store::release_tets(const unsigned* list, unsigned count) noexcept {
  for (unsigned k = 0; k < count; ++k) release_tet(list[k]);
}

bool mesh_store::reserve(unsigned node_count, unsigned tet_count) noexcept {
  const unsigned m = node_count > tet_count ? node_count : tet_count;
  return nodes.reserve(node_count) && ancestors.reserve(node_count) &&
         node_sizes.reserve(node_count) && tets.reserve(tet_count) &&
         neighbors.reserve(tet_count) && colors.reserve(tet_count) &&
         tet_qualities.reserve(tet_count) && tet_stamps.reserve(tet_count) && marks.reserve(m);
}

bool mesh_store::load_nodes(const dense2D<double>& points, const dense1D<double>& sizes) noexcept {
  const unsigned want = nodes.cols() + points.cols;
  if (!reserve(want, tets.cols())) return false;
  for (unsigned j = 0; j < points.cols; ++j) {
    const double* p = points.col(j);
    if (new_node(p[0], p[1], p[2], j < sizes.size ? sizes[j] : 0.0) == NONE) return false;
  }
  return true;
}

bool mesh_store::load_tets(const dense2D<unsigned>& t4, unsigned color) noexcept {
  const unsigned live = tets.cols() - tets.free_stack.size;
  const unsigned capacity = tets.data.capacity_cols();
  if (live + t4.cols > capacity) {
    const unsigned want = 2 * capacity > live + t4.cols ? 2 * capacity : live + t4.cols;
    if (!reserve(nodes.cols(), want)) return false;
  }
  for (unsigned j = 0; j < t4.cols; ++j) {
    const unsigned* c = t4.col(j);
    if (new_tet(c[0], c[1], c[2], c[3], color, 0.0) == NONE) return false;
  }
  return true;
}

unsigned mesh_store::bump_marks(unsigned values) noexcept {
  if (mark_value >= 0u - mark_step - (values - 1)) {
    mark_value = 1;
    marks = 0u;  // fills the list: older generations could otherwise read as current
  } else {
    mark_value += mark_step;
  }
  mark_step = values;
  return mark_value;
}

double mesh_store::recompute_qualities(bool only_classified) noexcept {
  const unsigned m = tets.cols();
  tet_qualities.resize(m);
  const dense2D<double>& xyz = nodes.data;
  double qmin = 1.0;
  for (unsigned t = 0; t < m; ++t) {
    tet_qualities[t] = 0.0;
    if (only_classified ? !tet_in_domain(t) : tet_deleted(t)) continue;
    const unsigned* n = tets.row(t);
    const double q = tet_quality(xyz, n[0], n[1], n[2], n[3]);
    if (!std::isfinite(q)) return 0.0;
    tet_qualities[t] = q;
    if (q < qmin) qmin = q;
  }
  return qmin;
}

void mesh_store::set_ancestors(unsigned first, unsigned last) noexcept {
  for (unsigned t = first; t < last; ++t) {
    const unsigned* n = tets.row(t);
    for (unsigned k = 0; k < 4; ++k) ancestors[n[k]] = t;
  }
}

void mesh_store::clear() {
  hard_set.clear_hard();
  unenforced_set.clear_hard();
  nodes.clear_hard();
  tets.clear_hard();
  neighbors.clear_hard();
  lost_rows = false;
  ancestors.clear_hard();
  colors.clear_hard();
  node_sizes.clear_hard();
  tet_qualities.clear_hard();
  tet_stamps.clear_hard();
  tet_clock = 0;
  marks.clear_hard();
  exclusion_octree.clear_hard();
  exclusion_count = 0;
  work_stack.clear();
  work_stack.reserve(128);
  kernel_mode = kernel_mode_type::plain;
  box_nodes.clear_hard();
  locator.clear_hard();
  random_source.seed(1u);
  bits.seed_from(random_source);
}

}  // namespace kelvo::voxfill
