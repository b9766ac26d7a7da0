// A tet mesh that carries the wanted sizes apart from the mesh being made: its tables beside the
// engine's, the size field over it, and the sizes that it gives to the nodes of the domain.
#pragma once

#include "delaunay/node_locator.h"
#include "delaunay/slot_table.h"
#include "numcore/dense1D.h"
#include "numcore/dense2D.h"

namespace kelvo::voxfill {

class th4_engine;

// The tables of a background mesh. Its node table and its sizes are the store's own `nodes` and
// `node_sizes`: a node that the store makes later has a column there too, and a size is one value
// for both meshes. The locator is bound to these tables once, by the engine.
struct background_tables {
  slot_table<unsigned> tets{4};
  slot_table<unsigned> neighbors{4};
  dense1D<unsigned> ancestors;  // one tet per node of the background, NONE for the other nodes
  dense1D<unsigned> colors;     // the domain of the background is below DELETED
  node_locator locator;

  background_tables() = default;
  background_tables(const background_tables&) = delete;
  background_tables& operator=(const background_tables&) = delete;

  // Points the locator at the store's nodes and at the tables above.
  void bind(const slot_table<double>& nodes) noexcept {
    locator.bind(&nodes, &tets, &neighbors, &ancestors);
  }
  // Lets every table go; the bindings stay.
  void clear();
};

// The caller's background mesh, every tet of colour 0, through load_background_from_mesh. False
// for a run that must stop or an empty table; a mesh that is refused raises -109.
bool load_background_mesh(th4_engine& e, const dense2D<unsigned>& background_mesh);

// Makes the tets of `connect` (over the store's nodes), with their `colors`, the background mesh,
// and a field over it the size field in force, with the engine's own field as its parent. A node
// that is in the mesh being made is copied, so that moves of the node leave the background as it
// was. False, with nothing replaced, for a flat box, a tet of quality at most 1e-12, or faces that
// do not match; false too when memory ran out.
bool load_background_from_mesh(th4_engine& e, const dense2D<unsigned>& connect,
                               const dense1D<unsigned>& colors);

// Each node of the domain that is not a node of the field in force takes the size that the field
// interpolates at it; where the field has none, the node keeps its size.
void sizes_from_background(th4_engine& e);

}  // namespace kelvo::voxfill
