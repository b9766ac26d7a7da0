// Gmsh meshes (.msh), format 4.1 ASCII.
#pragma once

#include <string>
#include <string_view>

#include "mesh_io/mesh_file.h"

namespace kelvo::mesh_io {

// Writes `m` in format 4.1 ASCII: one volume entity per colour (tag and physical tag colour + 1),
// one surface entity per triangle reference (reference + 1), one curve for the hard edges and
// one point entity per hard node. Element tags follow the order of the tables, so that reading
// back gives the same tables. False with "cannot write PATH: REASON".
bool write_msh(const std::string& path, const mesh_file& m, std::string& error);
// Reads a format 4.1 ASCII file: nodes, points (hard nodes), lines (hard edges), triangles and
// tetrahedra (first-order corners of second-order ones), in the order of their element tags.
// The colour of a tet and the reference of a triangle are the first physical tag of its entity
// minus 1, or the entity tag minus 1 when it has none. Other element types are skipped. False
// with "NAME:LINE: expected ..., found ...".
bool read_msh(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error);

}  // namespace kelvo::mesh_io
