// Merging of the candidates of a pass: neighbouring front faces propose points close together,
// and a group whose centroid stands well for all of its members is replaced by that centroid
// before the spacing filter would keep only the first of them.
#pragma once

#include <utility>
#include <vector>

#include "numcore/dense1D.h"
#include "numcore/dense2D.h"

namespace kelvo::voxfill {

class th4_engine;
class size_field;
struct refine_context;
struct spacing_filter;

// A k-d tree over columns of a point table, built by insertion in random order and not balanced.
// The split axis of a row is its depth modulo 3; row 0 is the root.
struct kd_tree {
  struct row {
    double xyz[3];  // a copy of the point's coordinates: a visit then touches one row alone
    unsigned point;
    unsigned left;   // NONE for no child
    unsigned right;  // NONE for no child
  };
  std::vector<row> rows;
  std::vector<std::pair<unsigned, unsigned>> stack;  // (row, axis): scratch of kd_box
};

// Inserts column p of `points`: left of a row when below it on the row's axis, else right.
// Returns the new row. May throw std::bad_alloc unless the rows are reserved.
unsigned kd_insert(kd_tree& tree, const dense2D<double>& points, unsigned p);

// Appends (0.0, point) to `items` for each point of the tree in the closed box [lo, hi].
// May throw std::bad_alloc.
void kd_box(kd_tree& tree, const double* lo, const double* hi,
            std::vector<std::pair<double, unsigned>>& items);

// The candidates within F.ratio of candidate i by their end sizes, searched in the cube of half
// width F.box_factor x h_i, nearest first (ties by index), i itself left out; candidates without
// size are skipped. Uses F.near_items. May throw std::bad_alloc.
void near_candidates(spacing_filter& F, unsigned i, const dense2D<double>& points,
                     const dense1D<double>& sizes, kd_tree& tree, std::vector<unsigned>& near,
                     std::vector<double>& lengths);

// How well the centroid G of candidate i and the first k entries of `near` stands for all of
// them: the sum over the members of r2 / (d^2 + r2), d the length from G in the field. 0.0 when
// G has no size, a length can't be traced, a member lies at `radius` or beyond, or memory ran
// out. `tet` is the
// tet of the previous G of this candidate (NONE at first) and gets that of this one.
double group_score(size_field& field, const dense2D<double>& points, const dense1D<double>& sizes,
                   double r2, unsigned i, const std::vector<unsigned>& near, unsigned k,
                   unsigned& tet, double* G, double& hG) noexcept;

// Columns of a point table bucketed in a uniform grid of cubes, the cells in x-fastest order:
// the points of a run of cells along x lie together in `points`.
struct cell_grid {
  double origin[3] = {0.0, 0.0, 0.0};
  double inverse = 0.0;  // 1 / the cell width
  unsigned dims[3] = {0, 0, 0};
  std::vector<unsigned> starts;  // per cell the first position in `points`, then the end
  std::vector<unsigned> points;
  std::vector<unsigned> cells;  // per column its cell, scratch of the build
};

// Buckets the first n columns of `points` in cells of about `width`, widened so that the cells
// are not many more than the points. False, with the grid unusable, when the points or the width
// are not finite. May throw std::bad_alloc.
bool grid_build(cell_grid& grid, const dense2D<double>& points, unsigned n, double width);

// The same answer as kd_box, in some order, from the grid.
void grid_box(const cell_grid& grid, const dense2D<double>& points, const double* lo,
              const double* hi, std::vector<std::pair<double, unsigned>>& items);

// Scratch of the merging, kept between passes so that a warm pass allocates nothing.
struct merge_scratch {
  kd_tree tree;
  cell_grid grid;
  std::vector<unsigned> order;
  std::vector<unsigned char> removed;
  std::vector<unsigned> near;
  std::vector<double> lengths;
  std::vector<double> cell_data;       // x, y, z and size of each candidate in the grid's order
  std::vector<double> member_columns;  // x, y, z and sizes of the members of a group by columns
  std::vector<std::pair<double, unsigned>> near_items;  // lent to the filter of each call
  dense2D<double> points;                               // the output, swapped with the input
  dense1D<double> sizes;
};

// Replaces both tables by the merged candidates, in the order of the table: a group whose score
// is above 0.85 per member collapses into its centroid; otherwise a candidate moves to the
// centroid of its best group and its members stay candidates of their own. `radius` is the
// nearness in the size field. The near searches go through a grid of cells, or where the points
// allow none through the tree, built in an order shuffled by c.random_source; the source makes
// n - 1 draws either way. When memory runs out the tables are left as they were.
void merge_candidates(th4_engine& e, refine_context& c, dense2D<double>& points,
                      dense1D<double>& sizes, double radius) noexcept;

}  // namespace kelvo::voxfill
