// Four-lane geometry of the node smoothing.
#pragma once

namespace kelvo::voxfill {

// Bit l set when P lies in the tet of the points t[l][0] to t[l][3] as locate_side(.., tol, ..)
// finds it (-1): positive finite volume, and P beyond none of its faces by more than the
// tolerance relative to that volume. The lanes round as that function does.
unsigned inside_lanes(const double* const* const t[4], const double* P, double tol) noexcept;

}  // namespace kelvo::voxfill
