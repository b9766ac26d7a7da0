// Neighbours of a tet table that was given whole, by matching the faces of its rows.
#pragma once

#include "delaunay/slot_table.h"

namespace kelvo::voxfill {

// Fills `neighbors` (all NONE on entry, one row per row of `tets`) from the faces that two tets
// share. A face may be shared by two tets only, and only turned the other way in the second; a
// tet with a repeated node, a third tet on a face or a pair of the same turn gives false, with
// the links made so far left in place. Throws std::bad_alloc when its scratch can't be had.
bool link_tets_by_faces(const slot_table<unsigned>& tets, slot_table<unsigned>& neighbors);

}  // namespace kelvo::voxfill
