// The order in which a list of nodes goes into the kernel: rounds of growing size chosen at random
// (each node joins the last round with probability 1/2, the one before with 1/4, and so on), and
// within each round the nodes along a Hilbert curve. The rounds keep what a random order gives
// (each round is a random sample of the cloud, so cavities stay small), the curve gives locality:
// consecutive insertions land in the same part of the mesh and find their rows in the caches.
#pragma once

#include <cstdint>

#include "delaunay/random_source.h"
#include "numcore/dense2D.h"

namespace kelvo::voxfill {

// Position of the point along a Hilbert curve through a 2^19 grid on each axis of the cube
// lo + [0, side]^3 (coordinates outside are clamped): 57 bits.
std::uint64_t hilbert_key(const double* p, const double lo[3], double side) noexcept;

// `order` becomes the column indices of `points` (3 x n) sorted along the Hilbert curve of the
// bounding cube of their finite coordinates, ties by index. False when memory ran out
// (std::bad_alloc from a scratch list's header is possible too).
bool hilbert_order(const dense2D<double>& points, dense1D<unsigned>& order);

// Reorders `list` (indices into the flat xyz array `xyz`) for insertion: one draw of `g` per node
// for its round, then rounds in order, each along the Hilbert curve of the list's bounding cube,
// ties by node index. Lists of 8 nodes or fewer keep their order and draw nothing. False when
// memory ran out (or std::bad_alloc from the scratch list's header); the list is then as it was.
bool order_for_insertion(const double* xyz, unsigned* list, unsigned count, random_source_type& g);

}  // namespace kelvo::voxfill
