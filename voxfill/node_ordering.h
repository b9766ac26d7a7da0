// A numbering of the input nodes for locality, and the renumbering of a record's tables by it.
#pragma once

#include "voxfill/mesher_th4.h"
#include "voxfill/messages.h"

namespace kelvo::voxfill {

// A numbering of the first `n` nodes of `data` that keeps nodes adjacent on the boundary close:
// the nodes of no hard entity first (in index order), then those of the triangles of connectB
// by a Cuthill-McKee walk from a far node of each piece, then the nodes of connectE and of
// isolated_nodes in the order of the tables. `order` takes new indices to old ones, `rank` old
// to new. False when memory ran out, with `failure` naming the place; both lists are then empty.
bool order_nodes(const mesher::data_type& data, unsigned n, dense1D<unsigned>& order,
                 dense1D<unsigned>& rank, msg& failure) noexcept;

// Renumbers the nodes in the record's tables by `map` (entries beyond it stay as they are, so
// that nodes made by the run keep theirs), and moves the entries of `ancestors` with their
// nodes. 0, or -199 when memory ran out for the latter (`ancestors` then as it was).
int renumber_record(mesher::data_type& data, const dense1D<unsigned>& map) noexcept;

}  // namespace kelvo::voxfill
