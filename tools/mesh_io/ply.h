// Polygon File Format surfaces (.ply), ASCII and binary.
#pragma once

#include <string>
#include <string_view>

#include "mesh_io/mesh_file.h"

namespace kelvo::mesh_io {

// Reads a PLY file (ascii, binary_little_endian or binary_big_endian): the x, y, z properties
// of the vertex element and the vertex_indices (or vertex_index) list of the face element;
// polygons are split into triangles as a fan around their first vertex, other elements and
// properties are skipped. False with "NAME:LINE: expected ..." (header and ASCII body) or
// "NAME: byte OFFSET: expected ..." (binary body).
bool read_ply(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error);

}  // namespace kelvo::mesh_io
