// Point clouds as lines of coordinates (.xyz).
#pragma once

#include <string>
#include <string_view>

#include "mesh_io/mesh_file.h"

namespace kelvo::mesh_io {

// Reads one node per line, "x y z" followed by anything (normals, colours), which is skipped.
// False with "NAME:LINE: expected ..., found ...".
bool read_xyz(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error);

}  // namespace kelvo::mesh_io
