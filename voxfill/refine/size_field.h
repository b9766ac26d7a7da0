// The wanted size: per node from the boundary, the caller or the mesh; at any point by linear
// interpolation in the tet that holds it; and the laying of points along an edge by size.
#pragma once

#include "delaunay/key_set.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/node_locator.h"
#include "delaunay/random_source.h"
#include "voxfill/mesher_th4.h"

namespace kelvo::voxfill {

class th4_engine;

// Answers the size at a point from the node sizes of one mesh: the mesh itself (the engine's own
// field) or a background mesh. A size is there when it is above 0.0; 0.0 means none.
class size_field {
 public:
  dense1D<double>& sizes;     // node sizes of the mesh this field reads
  node_locator& locator;      // its tables and octree: the walk to the tet of a point
  bit_source walk_bits;       // random start faces of the walks of interpolate_size
  dense1D<unsigned>& colors;  // tet colours of that mesh: the domain is below DELETED
  bool direct_lengths;        // true over the mesh itself: an edge's length from its end sizes
  size_field* parent_field;   // asked when this field has no answer; null for the own field

  // Scratch of the trace of a segment through a background field.
  bit_source trace_bits;
  dense2D<double> trace_points;
  dense1D<double> trace_sizes;
  dense1D<unsigned> trace_tets;
  dense1D<double> trace_lengths;

  // Scratch of the second search of interpolate_size, over the ball of the nearest node.
  dense1D<unsigned> ball;
  dense1D<unsigned> stack;
  index_set seen;

  size_field(dense1D<double>& sizes, node_locator& locator, dense1D<unsigned>& colors,
             bool direct_lengths, size_field* parent_field);
  size_field(const size_field&) = delete;
  size_field& operator=(const size_field&) = delete;

  // Both bit sources back to their state at construction (a generator seeded with 1).
  void reseed() noexcept;
};

// The size at P in the engine's field in force, else in its parent; `h` gets 0.0 and the result
// is false when neither has one (or the engine has no field).
bool size_at(th4_engine& engine, const double* P, double& h) noexcept;

// interpolate_size in `field` from the tet hint `tet` (NONE for none), then in the parents with
// no hint. `tet` is NONE after a parent was asked; `h` is 0.0 when all fail.
bool field_size_at(size_field& field, const double* P, unsigned& tet, double& h) noexcept;

// The same through `memo`, for a run of look-ups near each other over a mesh that stays as it is.
bool field_size_at(size_field& field, const double* P, unsigned& tet, double& h,
                   walk_memo& memo) noexcept;

// The walks of field_size_at, with the same random draws and the same `tet` after them, for a
// caller that would throw the size away: the size is not worked out where nothing hangs on it.
void field_walk(size_field& field, const double* P, unsigned& tet) noexcept;
void field_walk(size_field& field, const double* P, unsigned& tet, walk_memo& memo) noexcept;

// The size at P interpolated linearly from the four nodes of the tet of the domain that holds it
// (tolerance 1e-12). A point clearly inside an outside tet has none; a point on the skin of one
// is looked for again in the domain from the ball of the nearest node. True only for a size in
// (0, DBL_MAX); `tet` gets the tet used (NONE when none was found).
bool interpolate_size(size_field& field, const double* P, unsigned& tet, double& h) noexcept;

// node_sizes from the hard faces and hard edges of `data` (in the engine's numbering): per node a
// weighted mean of the distances to the best apexes of its faces and of the lengths of its sides
// and edges, with the ratio along the boundary bounded by 4; then the caller's metrics above 0.
// A node on no face and no edge keeps 0.0. Raises -199 when memory runs out. Returns what
// quality_bound gives for connectB over the nodes as they are, worked out from the same face
// qualities; -1.0 when it did not get that far.
double set_boundary_sizes(th4_engine& engine, const mesher::data_type& data);

// set_boundary_sizes over the faces and edges that are not listed as missing in `data`, so that
// lost entities spoil no size; then data.quality_bound over those faces.
void retry_boundary_sizes(th4_engine& engine, mesher::data_type& data);

// node_sizes from a tet mesh: per node the mean length of the edges of the live tets at it; then
// the caller's metrics above 0. Raises -199 when memory runs out.
void sizes_from_mesh(th4_engine& engine, const mesher::data_type& data);

// Each value above 0 replaces the size of its node, up to the shorter of the two arrays.
void merge_sizes(dense1D<double>& node_sizes, const dense1D<double>& values) noexcept;

// Sizes for the live nodes of `list` that have none: linear interpolation in the Delaunay mesh of
// the sized nodes around them, else the size of the nearest of those nodes. Nodes with no sized
// node around keep 0.0. `list` is emptied.
void fill_sizes(th4_engine& engine, dense1D<unsigned>& list);

// Lays points strictly between p0 and p1 so that the spacing goes geometrically from h0 to h1
// over a segment `len` sizes long: n segments, n the multiple of 1 (of 2 with `even`) nearest to
// len, held to [min_n, max_n] (and even with `even`). `points` (3 x (n - 1)) and `sizes` are
// replaced by the n - 1 inner points and their sizes. False, both empty, when memory ran out.
bool subdivide_edge(const double* p0, const double* p1, double h0, double h1, double len, bool even,
                    unsigned min_n, unsigned max_n, dense2D<double>& points,
                    dense1D<double>& sizes) noexcept;

// The point above the centroid of the triangle `tri` (three columns of `nodes`) at which the tet
// on the triangle has the best shape, searched on heights from sqrt(2/3) times the shortest side
// to the longest side, to (hi - lo) * tol. The apex goes to `apex`; returns its tet's quality, the
// tet being (tri[2], tri[1], tri[0], apex).
double best_apex(const dense2D<double>& nodes, const unsigned* tri, double tol,
                 double* apex) noexcept;

// Shape quality of a triangle in [0, 1]: 2 sqrt(3) times twice its area over its longest side and
// perimeter; 1 for the equilateral triangle, 0 for a flat one or one with repeated nodes.
double triangle_quality(const dense2D<double>& nodes, unsigned n0, unsigned n1,
                        unsigned n2) noexcept;

// The best quality that a tet on the triangles of `connectB` can reach: the smallest over the
// triangles with three different nodes of q sqrt(2) / (q sqrt(2) + 1 - q), q their quality; 1.0
// when there is none, 0.0 for an empty table.
double quality_bound(const dense2D<double>& nodes, const dense2D<unsigned>& connectB) noexcept;

}  // namespace kelvo::voxfill
