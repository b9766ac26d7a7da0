// Removal of an edge by reconnection of its shell: the tets round the edge are replaced by two
// tets on each triangle of a triangulation of the ring, one towards each end of the edge.
#pragma once

#include <cstdint>

#include "delaunay/entity_set.h"
#include "voxfill/optim/move_record.h"

namespace kelvo::voxfill {

// One triangulation of a convex ring of r nodes, by ring positions: r - 2 triangles, r - 3
// diagonals.
struct shell_pattern {
  unsigned char triangles[4][3];
  unsigned char diagonals[3][2];
};

// Number of patterns of a ring of r nodes: 1, 2, 5, 14 for r = 3 to 6, none otherwise.
unsigned pattern_count(unsigned r) noexcept;
// Pattern p of ring size r (p below pattern_count(r)).
const shell_pattern& pattern_of(unsigned r, unsigned p) noexcept;

// Rows of pattern p on the ring round (a, b): per triangle (i, j, k) the tets
// (ring[i], ring[j], ring[k], a) and (ring[k], ring[j], ring[i], b); `edges` gets the diagonals.
bool pattern_rows(unsigned a, unsigned b, const dense1D<unsigned>& ring, unsigned p,
                  dense2D<unsigned>& rows, dense2D<unsigned>& edges) noexcept;

// The best pattern by merit whose every tet is above the quality limit `best` (in); `best` (out)
// is its merit, 0.0 and `pattern` NONE when none qualifies. A later pattern must win by more
// than 1e-12, so the first of equal patterns stays. The merit's reference must be the shell of
// (a, b) on this ring (merit_reference of its rows); with `reference`, the shell's rows, it is
// taken here once a pattern passes the quality limit, and not at all when none does.
void reconnect_patterns(move_record& mr, unsigned a, unsigned b, const dense1D<unsigned>& ring,
                        double& best, unsigned& pattern, dense2D<unsigned>& new_rows,
                        dense2D<unsigned>& new_edges, dense1D<double>& new_qualities,
                        const dense2D<unsigned>* reference = nullptr) noexcept;

// For recovery: the pattern that makes the most edges of `wanted`, then the best merit, among the
// patterns whose bit in `pattern_mask` is clear. A pattern that fails the quality limit gets its
// bit set; one that passes gets it cleared.
void recover_patterns(move_record& mr, unsigned a, unsigned b, const dense1D<unsigned>& ring,
                      const entity_set& wanted, std::uint32_t& pattern_mask, double& best,
                      unsigned& pattern, dense2D<unsigned>& new_rows, dense2D<unsigned>& new_edges,
                      dense1D<double>& new_qualities) noexcept;

}  // namespace kelvo::voxfill
