// Object File Format surfaces (.off).
#pragma once

#include <string>
#include <string_view>

#include "mesh_io/mesh_file.h"

namespace kelvo::mesh_io {

// Reads an OFF text: header (OFF, or COFF, NOFF and the like whose extra values are skipped),
// counts, vertices, faces; polygons are split into triangles as a fan around their first
// vertex. False with "NAME:LINE: expected ..., found ...".
bool read_off(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error);

}  // namespace kelvo::mesh_io
