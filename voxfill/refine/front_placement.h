// One new point per face of the front: the apex of the tet that should stand on the face, on the
// side of the bad tet, at the height of a regular tet of the wanted size, then moved until its
// edges to the face come near length 1 in the size field.
#pragma once

#include "numcore/dense1D.h"
#include "numcore/dense2D.h"
#include "numcore/matrix_fixed.h"
#include "voxfill/refine/refine_context.h"
#include "voxfill/refine/size_field.h"

namespace kelvo::voxfill {

class th4_engine;

// Columns 0, 1, 2: the face nodes; column 3: the apex. A value type, copied when the best
// position so far is saved. Beside it stand four sizes and four tets of the field's mesh (NONE
// for unknown), one per column.
using apex_frame = numcore::matrix_fixed<double, 3, 4>;

// The starting apex of a frame, `height_factor` times the height of a regular tet over the face:
// G + H N, N the unit normal of the face towards the bad tet, G its centroid, and H from the
// sum of the sizes blended with the sides by `shape_weight`. Returns H.
double first_apex(const apex_frame& frame, const double* frame_sizes, const unsigned* face_order,
                  double height_factor, double shape_weight, double* apex) noexcept;

// Moves the apex (column 3) from its first position, at most 10 times, so that its three edges
// come near length 1 in `field`, and keeps the position of the best blend of shape and size fit.
// True when one was kept: the frame and sizes hold it and `quality` its shape. False when the
// first apex has no size or makes a flat or inverted tet.
bool adjust_apex(size_field& field, const refine_context& c, apex_frame& frame, double* frame_sizes,
                 unsigned* frame_tets, double height_factor, double shape_weight,
                 double& quality) noexcept;

// The apex over the face (f0, f1, f2), nodes of the engine, tried at 1, 1/2, ... 1/32 of the full
// height. Returns D = -orient_det(f0, f1, f2, P), above 0.0 when a point P of size h was found
// on the side of the bad tet; 0.0 when none was. The walk to the apex starts at `start`, a tet
// of the field's mesh near it, or beside f2 when that is NONE.
double front_point(th4_engine& e, refine_context& c, unsigned f0, unsigned f1, unsigned f2,
                   double* P, double& h, unsigned start = NONE) noexcept;

// Reads c.front_faces (coded 4 t + i, t the bad tet); fills the two tables.
void place_candidates(th4_engine& e, refine_context& c, dense2D<double>& points,
                      dense1D<double>& sizes);

}  // namespace kelvo::voxfill
