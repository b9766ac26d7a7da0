// A tet mesh that carries the wanted sizes apart from the mesh being made.
#include "voxfill/refine/background_mesh.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <new>

#include "delaunay/face_matching.h"
#include "delaunay/geometry.h"
#include "gridkit/adjacency.h"
#include "gridkit/connectivity.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/refine/size_field.h"

namespace kelvo::voxfill {

void background_tables::clear() {
  tets.clear_hard();
  neighbors.clear_hard();
  ancestors.clear_hard();
  colors.clear_hard();
  locator.clear_hard();
}

namespace {

constexpr double FLAT = 1e-12;

// A table put in place whole: no free rows.
void take_rows(slot_table<unsigned>& table, const dense2D<unsigned>& rows) {
  table.data = rows;
  table.free_bits.clear_hard();
  table.free_stack.clear_hard();
}

bool load_background(th4_engine& e, const dense2D<unsigned>& connect,
                     const dense1D<unsigned>& colors) {
  const unsigned T = connect.empty() ? 0 : connect.cols;
  if (T == 0 || connect.rows != 4) return false;
  dense1D<unsigned> list;
  if (gridkit::unique_indices(list, connect, dense1D<unsigned>()) != 0) return false;
  const unsigned N = e.nodes.cols();
  if (list.size == 0 || list[list.size - 1] >= N) return false;  // the list is ascending

  double lo[3] = {DBL_MAX, DBL_MAX, DBL_MAX}, hi[3] = {-DBL_MAX, -DBL_MAX, -DBL_MAX};
  for (unsigned v : list) {
    const double* p = e.nodes.row(v);
    for (unsigned k = 0; k < 3; ++k) {
      if (p[k] < lo[k]) lo[k] = p[k];
      if (p[k] > hi[k]) hi[k] = p[k];
    }
  }
  double largest = 0.0, smallest = DBL_MAX;
  for (unsigned k = 0; k < 3; ++k) {
    const double extent = hi[k] - lo[k];
    if (extent > largest) largest = extent;
    if (extent < smallest) smallest = extent;
  }
  if (largest == DBL_MAX || !std::isfinite(largest) || smallest == 0.0) return false;

  // A flat or inverted tet would give sizes by negative weights: no background at all then.
  for (unsigned t = 0; t < T; ++t)
    if (!(tet_quality(e.nodes.data, connect(0, t), connect(1, t), connect(2, t), connect(3, t)) >
          FLAT))
      return false;

  // Built aside, so that a refusal leaves a background in force as it was.
  slot_table<unsigned> tets(4), links(4);
  if (!tets.data.copy(connect) || !links.data.resize(4, T, NONE)) return false;
  if (!link_tets_by_faces(tets, links)) return false;

  // A node of the mesh being made may move or go; the background keeps a copy of it where it is.
  dense1D<unsigned> map;
  if (!map.resize(N, NONE)) return false;
  for (unsigned v : list) {
    if (v < e.ancestors.size && e.ancestors[v] != NONE) {
      const double* p = e.nodes.row(v);
      const double x = p[0], y = p[1], z = p[2];  // the row may move when the table grows
      const double h = v < e.node_sizes.size ? e.node_sizes[v] : 0.0;
      const unsigned copy = e.new_node(x, y, z, h);
      if (copy == NONE) return false;
      map[v] = copy;
    } else {
      map[v] = v;
    }
  }
  gridkit::change_indices(tets.data, map);
  gridkit::change_indices(list, map);
  dense1D<unsigned> tet_colors, tet_of_node;
  if (!tet_colors.copy(colors)) return false;
  if (gridkit::get_ancestors(tets.data, tet_of_node) != 0) return false;

  // The old field goes before its tables are replaced.
  if (e.size_field != e.own_size_field.get()) delete e.size_field;
  e.size_field = e.own_size_field.get();
  background_tables& bg = e.background;
  take_rows(bg.tets, tets.data);
  take_rows(bg.neighbors, links.data);
  bg.ancestors = tet_of_node;
  bg.colors = tet_colors;
  // A cube twice the largest extent wide, so that the octree's cells are cubes.
  double cube_lo[3], cube_hi[3];
  for (unsigned k = 0; k < 3; ++k) {
    const double centre = 0.5 * (lo[k] + hi[k]);
    cube_lo[k] = centre - largest;
    cube_hi[k] = centre + largest;
  }
  if (bg.locator.build(cube_lo, cube_hi, list.begin(), list.size) == 0) return false;

  e.size_field =
      new voxfill::size_field(e.node_sizes, bg.locator, bg.colors, false, e.own_size_field.get());
  return true;
}

}  // namespace

bool load_background_mesh(th4_engine& e, const dense2D<unsigned>& background_mesh) {
  if (e.must_stop() || background_mesh.empty()) return false;
  dense1D<unsigned> colors;
  bool loaded = colors.resize(background_mesh.cols, 0u) &&
                load_background_from_mesh(e, background_mesh, colors);
  if (!loaded) e.raise_error(msg::background_not_valid);
  return loaded;
}

bool load_background_from_mesh(th4_engine& e, const dense2D<unsigned>& connect,
                               const dense1D<unsigned>& colors) {
  try {
    return load_background(e, connect, colors);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void sizes_from_background(th4_engine& e) {
  if (e.must_stop() || !e.size_field) return;
  voxfill::size_field& field = *e.size_field;
  const dense1D<unsigned>* in_field = field.locator.ancestors;
  const unsigned n = std::min({e.nodes.cols(), e.ancestors.size, e.node_sizes.size});
  for (unsigned v = 0; v < n; ++v) {
    const unsigned t = e.ancestors[v];
    if (t == NONE || t >= e.colors.size || !e.tet_in_domain(t)) continue;
    // The field's own nodes carry its sizes: they keep them.
    if (in_field && v < in_field->size && (*in_field)[v] != NONE) continue;
    unsigned tet = NONE;
    double h = 0.0;
    if (interpolate_size(field, e.nodes.row(v), tet, h)) e.node_sizes[v] = h;
  }
}

}  // namespace kelvo::voxfill
