// Exchange of a set of tets for another set that fills the same region, as one transaction: every
// local move that does not go through a cavity ends here.
#pragma once

#include "delaunay/mesh_store.h"
#include "numcore/dense2D.h"

namespace kelvo::voxfill {

// Work tables of the exchange. They hold nothing between calls and keep their capacity, so that
// warm exchanges allocate nothing. Each holder of moves (the optimiser, the recovery) owns one.
struct replace_scratch {
  dense2D<unsigned> star_tets;       // node rows: the old set, then the new rows and the outside
  dense2D<unsigned> star_neighbors;  // neighbour rows of the new set, as columns of star_tets
  dense1D<unsigned> face_keys;       // per coded face to pair: its key and turn
  dense1D<unsigned> face_slots;      // open addressing table of the faces: stamp per slot
  dense1D<unsigned> face_at;         // ... and the position in `codes` of the slot's face
  unsigned face_stamp = 0;           // the stamp of the current pairing
  dense1D<unsigned> partner;         // coded face (4 column + face) -> its partner, NONE when open
  dense1D<unsigned> codes;           // coded faces to pair
  dense1D<unsigned> outer_codes;     // outer faces of the old set, coded from the outside tet
  dense1D<unsigned> outer_tets;      // the outside tet of each appended column
  dense1D<unsigned> hull_codes;      // outer faces of the old set on the hull, coded in it
};

// Replaces the tets `old_tets` by tets with the node rows `new_rows` (4 x m) and the qualities
// `new_qualities`. On true `new_tets` holds the m new tet indices in row order: the old rows are
// reused first, further rows take the colour of old_tets[0]. On false (the new rows do not fill
// the old region face for face, a tet would have one neighbour through two faces, or memory ran
// out) the mesh is untouched.
bool replace_tets(mesh_store& m, replace_scratch& s, const dense1D<unsigned>& old_tets,
                  const dense2D<unsigned>& new_rows, const dense1D<double>& new_qualities,
                  dense1D<unsigned>& new_tets) noexcept;

}  // namespace kelvo::voxfill
