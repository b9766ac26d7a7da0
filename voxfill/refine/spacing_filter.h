// Keeps new points of a pass apart: from each other and from the nodes of the mesh, by their
// length in the size field.
#pragma once

#include <utility>
#include <vector>

#include "delaunay/node_octree.h"
#include "numcore/dense1D.h"
#include "numcore/dense2D.h"
#include "voxfill/refine/size_field.h"

namespace kelvo::voxfill {

class th4_engine;

// A point nearer than `ratio` to another, in the size field, is too near. Only points in the cube
// of half width box_factor x h around a point of size h are looked at: further ones count as far.
struct spacing_filter {
  double ratio = 0.0;
  double box_factor = 1.5;
  dense1D<unsigned> found;                              // node indices in the box
  std::vector<std::pair<double, unsigned>> near_items;  // scratch of the merging

  // Reserves `found`; may throw std::bad_alloc, like every constructor of a record.
  spacing_filter(double ratio_in, double box_factor_in);
};

// True when no point n of `list` (columns of `table`) with a size other than 0.0 lies within
// `ratio` of P (size h): by the end sizes with direct lengths, else by a trace limited to the
// ratio. A point whose length can't be traced counts as far.
bool far_from(spacing_filter& F, const double* P, double h, const dense2D<double>& table,
              const dense1D<double>& sizes, size_field& field,
              const dense1D<unsigned>& list) noexcept;

// The same over the nodes of `octree` in the cube of half width box_factor x h, by the end sizes
// alone. True when `count` is 0.
bool far_from_octree(spacing_filter& F, const double* P, double h, const dense1D<double>& sizes,
                     node_octree& octree, unsigned count) noexcept;

// Cuts both tables down in place (order = preference); uses the engine's locator octree,
// exclusion_octree, node_sizes, box_min/box_max and its size_field.
void filter_candidates(th4_engine& e, dense2D<double>& points, dense1D<double>& sizes,
                       double ratio);

}  // namespace kelvo::voxfill
