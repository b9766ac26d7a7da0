// Filling the locator's octree from the tets of a mesh or from a list of nodes.
#include "delaunay/node_locator.h"

namespace kelvo::voxfill {

unsigned node_locator::build(const double lo[3], const double hi[3]) {
  if (!set_box(lo, hi) || !nodes || !tets) return 0;
  const unsigned node_cols = nodes->cols();
  bit_set seen;
  if (!seen.grow(node_cols)) return 0;
  const unsigned tet_cols = tets->cols();
  for (unsigned t = 0; t < tet_cols; ++t) {
    if (tets->is_free(t)) continue;
    const unsigned* row = tets->row(t);
    for (unsigned i = 0; i < 4; ++i) {
      const unsigned n = row[i];
      if (n >= node_cols || seen.test(n)) continue;
      seen.set(n);
      add(n);
    }
  }
  return count;
}

unsigned node_locator::build(const double lo[3], const double hi[3], const unsigned* list,
                             unsigned size) noexcept {
  if (!set_box(lo, hi)) return 0;
  for (unsigned i = 0; i < size; ++i) add(list[i]);
  return count;
}

}  // namespace kelvo::voxfill
