// The spacing filter of new points: against each other and against the nodes of the mesh.
#include "voxfill/refine/spacing_filter.h"

#include <cfloat>
#include <cmath>
#include <new>
#include <vector>

#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/optim/move_merit.h"
#include "voxfill/refine/candidate_merging.h"
#include "voxfill/refine/metric_trace.h"

namespace kelvo::voxfill {

namespace {

constexpr unsigned FOUND_ROOM = 512;
constexpr double NEAR_BOX = 1.5;
constexpr double EXCLUSION_BOX = 4.0;
// Cell widths of the grids of the filter in mean half widths of the boxes, the best measured: the
// kept candidates are sparse, so their cells are wider.
constexpr double MESH_CELL = 1.0;
constexpr double KEPT_CELL = 2.0;

double direct_length(const double* P, double hP, const double* Q, double hQ) noexcept {
  const double h = log_mean(hP, hQ);
  return h > 0.0 ? std::sqrt(geometry_detail::dist2<3>(P, Q)) / h : 0.0;
}

// direct_length(P, hP, Q, hQ) <= ratio, with the logarithm only when the distance lies between
// ratio times the geometric and the arithmetic mean of the sizes: the logarithmic mean lies
// between them (log_mean's series keeps to that far within the margins). The margins keep the
// rounding of the mean from turning an answer.
[[gnu::always_inline]] inline bool directly_near(const double* P, double hP, const double* Q,
                                                 double hQ, double ratio) noexcept {
  const double lo = hP < hQ ? hP : hQ, hi = hP < hQ ? hQ : hP;
  if (lo > 0.0 && hi < DBL_MAX) {
    const double d2 = geometry_detail::dist2<3>(P, Q);
    const double far = ratio * (0.5 * (lo + hi)), near = ratio * lo;
    if (d2 > far * far * (1.0 + 1e-9)) return false;
    if (d2 < near * (ratio * hi) * (1.0 - 1e-9)) return true;
  }
  return direct_length(P, hP, Q, hQ) <= ratio;
}

void cube(const double* P, double half, double* lo, double* hi) noexcept {
  for (unsigned k = 0; k < 3; ++k) {
    lo[k] = P[k] - half;
    hi[k] = P[k] + half;
  }
}

// The nodes of `octree` in the cube of half width `half` around P, into `found`.
bool octree_box(node_octree& octree, const double* P, double half,
                dense1D<unsigned>& found) noexcept {
  double lo[3], hi[3];
  unsigned ilo[3], ihi[3];
  cube(P, half, lo, hi);
  octree.to_cell_coords(lo, ilo);
  octree.to_cell_coords(hi, ihi);
  found.clear();
  return octree.nodes_in_box(ilo, ihi, lo, hi, found);
}

// True when a node of `octree` in the cube of half width `half` around P, with a size in `sizes`
// other than 0.0 and alive when `ancestors` is given, lies within `ratio` of P by the end sizes.
// Whichever node is met first decides, so the search stops there.
bool near_in_octree(node_octree& octree, const double* P, double h, double half, double ratio,
                    const dense1D<double>& sizes, const dense1D<unsigned>* ancestors) noexcept {
  if (!octree.coords) return false;
  double lo[3], hi[3];
  unsigned ilo[3], ihi[3], from[3];
  cube(P, half, lo, hi);
  octree.to_cell_coords(lo, ilo);
  octree.to_cell_coords(hi, ihi);
  octree.to_cell_coords(P, from);
  const dense2D<double>& xyz = octree.coords->data;
  auto near = [&](unsigned n) {
    if (ancestors && (n >= ancestors->size || (*ancestors)[n] == NONE)) return false;
    const double s = n < sizes.size ? sizes[n] : 0.0;
    return s != 0.0 && directly_near(P, h, xyz.col(n), s, ratio);
  };
  return octree.any_in_box(ilo, ihi, lo, hi, from, near);
}

// The nodes of the mesh in the cube of half width `half` around P, into `found`: the locator's
// octree may still hold nodes that left the mesh.
void live_nodes_in_box(th4_engine& e, const double* P, double half,
                       dense1D<unsigned>& found) noexcept {
  double lo[3], hi[3];
  cube(P, half, lo, hi);
  found.clear();
  e.locator.nodes_in_box(lo, hi, found);
  unsigned w = 0;
  for (unsigned k = 0; k < found.size; ++k) {
    const unsigned n = found[k];
    if (n < e.ancestors.size && e.ancestors[n] != NONE) found[w++] = n;
  }
  found.size = w;
}

// The kept candidates of one filter call in the cells of a grid over all of its candidates, each
// cell a list through `next`: the same set as the octree of the kept ones, searched by cells.
struct kept_cells {
  cell_grid grid;
  std::vector<unsigned> head;  // per cell its last kept candidate, NONE for none
  std::vector<unsigned> next;  // per kept candidate the one kept before it in its cell
  // The largest size of the candidates when none is negative or not finite, else DBL_MAX.
  double largest = DBL_MAX;
};

unsigned kept_cell(const cell_grid& grid, unsigned axis, double x) noexcept {
  // As the grid's own bucketing: rounding keeps the order of the coordinates.
  const double t = (x - grid.origin[axis]) * grid.inverse;
  const double top = double(grid.dims[axis] - 1);
  const double above = t > 0.0 ? t : 0.0;
  return unsigned(above < top ? above : top);
}

// near_in_octree over the kept candidates (columns of `points`, sizes in `sizes`).
bool near_in_cells(const kept_cells& K, const double* P, double h, double half, double ratio,
                   const dense2D<double>& points, const dense1D<double>& sizes) noexcept {
  const cell_grid& g = K.grid;
  double lo[3], hi[3];
  // Beyond ratio times the arithmetic mean of the two sizes a point is far for directly_near:
  // with the largest size of the candidates the box shrinks to that reach. The margin is far
  // above the rounding of the box and of the squared distance.
  if (h > 0.0 && h < DBL_MAX && ratio > 0.0 && K.largest < DBL_MAX) {
    const double reach = ratio * (0.5 * (h + K.largest)) * (1.0 + 1e-6);
    if (reach < half) half = reach;
  }
  cube(P, half, lo, hi);
  unsigned a[3], b[3];
  for (unsigned d = 0; d < 3; ++d) {
    a[d] = kept_cell(g, d, lo[d]);
    b[d] = kept_cell(g, d, hi[d]);
  }
  const unsigned* head = K.head.data();
  const unsigned* next = K.next.data();
  const double* xyz = points.col(0);
  const std::size_t ld = points.ld;
  const double* size_of = sizes.data();
  for (unsigned z = a[2]; z <= b[2]; ++z)
    for (unsigned y = a[1]; y <= b[1]; ++y) {
      const unsigned row = (z * g.dims[1] + y) * g.dims[0];
      for (unsigned x = a[0]; x <= b[0]; ++x)
        for (unsigned n = head[row + x]; n != NONE; n = next[n]) {
          const double* X = xyz + ld * n;
          if (!(lo[0] <= X[0] && X[0] <= hi[0] && lo[1] <= X[1] && X[1] <= hi[1] && lo[2] <= X[2] &&
                X[2] <= hi[2]))
            continue;
          const double s = size_of[n];
          if (s != 0.0 && directly_near(P, h, X, s, ratio)) return true;
        }
    }
  return false;
}

// The nodes of the mesh octree that the searches of one filter call can meet (those in the union
// of their boxes, alive, with a size other than 0.0), copied and bucketed in a grid: the same
// answers as near_in_octree on the mesh, by cells.
struct mesh_cells {
  dense2D<double> xyz{3, 0};
  std::vector<double> sizes;
  cell_grid grid;
  // The largest size when all are positive and finite, else DBL_MAX: a node can be near only
  // within ratio times the larger size, so the boxes may shrink to that.
  double largest = DBL_MAX;
  std::vector<double> cell_largest;  // per cell its largest size, when `largest` is finite
  std::vector<double> cell_data;     // x, y, z and size of each node in the order of the cells
};

// False when the boxes are not all finite or memory ran out: the octree is searched then.
bool build_mesh_cells_or_throw(node_octree& octree, const dense1D<double>& node_sizes,
                               const dense1D<unsigned>& ancestors, const dense2D<double>& points,
                               const dense1D<double>& sizes, unsigned n, double box_factor,
                               double width, dense1D<unsigned>& found, mesh_cells& M) {
  if (!octree.coords || n == 0) return false;
  // The union of the boxes, from the very corners that the searches will compare with.
  double lo[3], hi[3];
  for (unsigned k = 0; k < n; ++k) {
    const double P[3] = {points(0, k), points(1, k), points(2, k)};
    double a[3], b[3];
    cube(P, box_factor * sizes[k], a, b);
    for (unsigned d = 0; d < 3; ++d) {
      if (!(a[d] >= -DBL_MAX && a[d] <= DBL_MAX && b[d] >= -DBL_MAX && b[d] <= DBL_MAX))
        return false;
      if (k == 0 || a[d] < lo[d]) lo[d] = a[d];
      if (k == 0 || b[d] > hi[d]) hi[d] = b[d];
    }
  }
  unsigned ilo[3], ihi[3];
  octree.to_cell_coords(lo, ilo);
  octree.to_cell_coords(hi, ihi);
  found.clear();
  if (!octree.nodes_in_box(ilo, ihi, lo, hi, found)) return false;
  const dense2D<double>& xyz = octree.coords->data;
  const unsigned cols = octree.coords->cols();
  unsigned m = 0;
  for (unsigned k = 0; k < found.size; ++k) {
    const unsigned v = found[k];
    if (v >= ancestors.size || ancestors[v] == NONE || v >= node_sizes.size ||
        node_sizes[v] == 0.0 || v >= cols)
      continue;
    found[m++] = v;
  }
  if (!M.xyz.resize(3, m)) return false;
  M.sizes.resize(m);
  double largest = 0.0;
  for (unsigned k = 0; k < m; ++k) {
    const double* X = xyz.col(found[k]);
    for (unsigned d = 0; d < 3; ++d) M.xyz(d, k) = X[d];
    const double size = node_sizes[found[k]];
    M.sizes[k] = size;
    if (!(size > 0.0 && size < DBL_MAX))
      largest = DBL_MAX;
    else if (largest < DBL_MAX && size > largest)
      largest = size;
  }
  M.largest = largest;
  if (m == 0) {
    M.grid.dims[0] = M.grid.dims[1] = M.grid.dims[2] = 0;
    return true;
  }
  if (!grid_build(M.grid, M.xyz, m, width)) return false;
  // The searches read the nodes in the order of the cells, without the indirection.
  M.cell_data.resize(4 * std::size_t(m));
  double* out = M.cell_data.data();
  for (unsigned k = 0; k < m; ++k, out += 4) {
    const unsigned j = M.grid.points[k];
    out[0] = M.xyz(0, j);
    out[1] = M.xyz(1, j);
    out[2] = M.xyz(2, j);
    out[3] = M.sizes[j];
  }
  if (largest < DBL_MAX) {
    M.cell_largest.assign(M.grid.starts.size() - 1, 0.0);
    for (unsigned k = 0; k < m; ++k) {
      double& top = M.cell_largest[M.grid.cells[k]];
      if (M.sizes[k] > top) top = M.sizes[k];
    }
  }
  return true;
}

bool build_mesh_cells(node_octree& octree, const dense1D<double>& node_sizes,
                      const dense1D<unsigned>& ancestors, const dense2D<double>& points,
                      const dense1D<double>& sizes, unsigned n, double box_factor, double width,
                      dense1D<unsigned>& found, mesh_cells& M) noexcept {
  try {
    return build_mesh_cells_or_throw(octree, node_sizes, ancestors, points, sizes, n, box_factor,
                                     width, found, M);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

bool near_in_mesh_cells(const mesh_cells& M, const double* P, double h, double half,
                        double ratio) noexcept {
  const cell_grid& g = M.grid;
  if (g.dims[0] == 0) return false;
  double lo[3], hi[3];
  cube(P, half, lo, hi);
  unsigned a[3], b[3];
  for (unsigned d = 0; d < 3; ++d) {
    a[d] = kept_cell(g, d, lo[d]);
    b[d] = kept_cell(g, d, hi[d]);
  }
  // Beyond ratio times the arithmetic mean of the two sizes a node is far for directly_near
  // whatever the mean: with the largest size in the cells of the box, the box shrinks to that
  // reach. The margin is far above the rounding of the box and of the squared distance.
  if (h > 0.0 && h < DBL_MAX && ratio > 0.0 && M.largest < DBL_MAX) {
    // The largest size of all bounds the reach first: the cells whose largest sizes are looked
    // at are then those of that box, where every near node lies.
    const double reach_all = ratio * (0.5 * (h + M.largest)) * (1.0 + 1e-6);
    if (reach_all < half) {
      cube(P, reach_all, lo, hi);
      for (unsigned d = 0; d < 3; ++d) {
        a[d] = kept_cell(g, d, lo[d]);
        b[d] = kept_cell(g, d, hi[d]);
      }
    }
    double top = 0.0;
    const double* cell_top = M.cell_largest.data();
    for (unsigned z = a[2]; z <= b[2]; ++z)
      for (unsigned y = a[1]; y <= b[1]; ++y) {
        const unsigned row = (z * g.dims[1] + y) * g.dims[0];
        for (unsigned x = a[0]; x <= b[0]; ++x)
          if (cell_top[row + x] > top) top = cell_top[row + x];
      }
    const double reach = ratio * (0.5 * (h + top)) * (1.0 + 1e-6);
    if (reach < half) {
      cube(P, reach, lo, hi);
      for (unsigned d = 0; d < 3; ++d) {
        a[d] = kept_cell(g, d, lo[d]);
        b[d] = kept_cell(g, d, hi[d]);
      }
    }
  }
  const unsigned* starts = g.starts.data();
  const double* cell_data = M.cell_data.data();
  for (unsigned z = a[2]; z <= b[2]; ++z)
    for (unsigned y = a[1]; y <= b[1]; ++y) {
      const unsigned row = (z * g.dims[1] + y) * g.dims[0];
      const unsigned end = starts[row + b[0] + 1];
      for (unsigned k = starts[row + a[0]]; k < end; ++k) {
        const double* X = cell_data + 4 * std::size_t(k);
        if (!(lo[0] <= X[0] && X[0] <= hi[0] && lo[1] <= X[1] && X[1] <= hi[1] && lo[2] <= X[2] &&
              X[2] <= hi[2]))
          continue;
        if (directly_near(P, h, X, X[3], ratio)) return true;
      }
    }
  return false;
}

}  // namespace

spacing_filter::spacing_filter(double ratio_in, double box_factor_in)
    : ratio(ratio_in), box_factor(box_factor_in) {
  if (!found.reserve(FOUND_ROOM)) throw std::bad_alloc();
}

bool far_from(spacing_filter& F, const double* P, double h, const dense2D<double>& table,
              const dense1D<double>& sizes, size_field& field,
              const dense1D<unsigned>& list) noexcept {
  for (unsigned k = 0; k < list.size; ++k) {
    const unsigned n = list[k];
    // A node without size keeps nothing away.
    const double s = n < sizes.size ? sizes[n] : 0.0;
    if (s == 0.0) continue;
    const double* X = table.col(n);
    if (field.direct_lengths) {
      if (directly_near(P, h, X, s, F.ratio)) return false;
      continue;
    }
    unsigned t = NONE;
    if (field.locator.ancestors) locate_tet(field.locator, P, t, LOCATE_TOL, field.walk_bits);
    const bool ok = t != NONE ? trace_length(field, P, t, h, X, NONE, s, F.ratio)
                              : trace_steps(field, P, X, NONE, h, s, F.ratio);
    if (ok && trace_last_length(field) <= F.ratio) return false;
  }
  return true;
}

bool far_from_octree(spacing_filter& F, const double* P, double h, const dense1D<double>& sizes,
                     node_octree& octree, unsigned count) noexcept {
  if (count == 0 || !octree.coords) return true;
  octree_box(octree, P, F.box_factor * h, F.found);
  const dense2D<double>& xyz = octree.coords->data;
  for (unsigned k = 0; k < F.found.size; ++k) {
    const unsigned n = F.found[k];
    const double s = n < sizes.size ? sizes[n] : 0.0;
    if (s == 0.0) continue;
    if (directly_near(P, h, xyz.col(n), s, F.ratio)) return false;
  }
  return true;
}

void filter_candidates(th4_engine& e, dense2D<double>& points, dense1D<double>& sizes,
                       double ratio) {
  const unsigned n = points.cols < sizes.size ? points.cols : sizes.size;
  if (n == 0) {
    points.resize(3, 0);
    sizes.clear();
    return;
  }
  size_field& field = e.size_field ? *e.size_field : *e.own_size_field;
  try {
    spacing_filter F(ratio, NEAR_BOX);
    // The kept candidates, indexed over the very columns of `points`: a kept point moves down to
    // its column before it is added.
    slot_table<double> kept_points(3);
    kept_points.data = points;
    node_octree accepted(&kept_points);
    unsigned accepted_count = 0;
    accepted.set_box(e.box_min, e.box_max);
    const bool mesh_nodes = e.tets.cols() != 0 && e.locator.count != 0;
    // The kept candidates and the mesh nodes are searched by cells: the octree's descents cost
    // more than the few cells a box meets.
    kept_cells K;
    bool celled = false;
    if (field.direct_lengths) {
      double halves = 0.0, largest = 0.0;
      for (unsigned k = 0; k < n; ++k) {
        halves += F.box_factor * sizes[k];
        const double s = sizes[k];
        if (!(s >= 0.0 && s < DBL_MAX))
          largest = DBL_MAX;
        else if (s > largest && largest < DBL_MAX)
          largest = s;
      }
      K.largest = largest;
      celled = grid_build(K.grid, points, n, KEPT_CELL * halves / double(n));
      if (celled) {
        K.head.assign(K.grid.starts.size() - 1, NONE);
        K.next.assign(n, NONE);
      }
    }
    mesh_cells M;
    bool mesh_celled = false;
    if (field.direct_lengths && mesh_nodes) {
      double halves = 0.0;
      for (unsigned k = 0; k < n; ++k) halves += F.box_factor * sizes[k];
      mesh_celled = build_mesh_cells(e.locator.octree, e.node_sizes, e.ancestors, points, sizes, n,
                                     F.box_factor, MESH_CELL * halves / double(n), F.found, M);
    }
    unsigned kept = 0;
    for (unsigned k = 0; k < n; ++k) {
      const double P[3] = {points(0, k), points(1, k), points(2, k)};
      const double h = sizes[k];
      if (field.direct_lengths) {
        // Only whether some node is too near matters: the searches stop at the first one.
        const double half = F.box_factor * h;
        if (accepted_count &&
            (celled ? near_in_cells(K, P, h, half, ratio, points, sizes)
                    : near_in_octree(accepted, P, h, half, ratio, sizes, nullptr)))
          continue;
        if (mesh_nodes && (mesh_celled ? near_in_mesh_cells(M, P, h, half, ratio)
                                       : near_in_octree(e.locator.octree, P, h, half, ratio,
                                                        e.node_sizes, &e.ancestors)))
          continue;
      } else {
        if (accepted_count) {
          octree_box(accepted, P, F.box_factor * h, F.found);
          if (!far_from(F, P, h, points, sizes, field, F.found)) continue;
        }
        if (mesh_nodes) {
          live_nodes_in_box(e, P, F.box_factor * h, F.found);
          if (!far_from(F, P, h, e.nodes.data, e.node_sizes, field, F.found)) continue;
        }
      }
      if (e.exclusion_count) {
        F.box_factor = EXCLUSION_BOX;
        const bool far =
            far_from_octree(F, P, h, e.node_sizes, e.exclusion_octree, e.exclusion_count);
        F.box_factor = NEAR_BOX;
        if (!far) continue;
      }
      for (unsigned c = 0; c < 3; ++c) points(c, kept) = P[c];
      sizes[kept] = h;
      // A point outside of the box stays a candidate but keeps no later one away.
      if (accepted.add(kept)) {
        ++accepted_count;
        if (celled) {
          // The cell of column k when the grid was made: the same point, now in column kept.
          unsigned& first = K.head[K.grid.cells[k]];
          K.next[kept] = first;
          first = kept;
        }
      }
      ++kept;
    }
    points.resize(3, kept);
    sizes.resize(kept);
  } catch (const std::bad_alloc&) {
    // Without its scratch the filter can't vouch for any point: none is made in this pass.
    points.resize(3, 0);
    sizes.clear();
  }
}

}  // namespace kelvo::voxfill
