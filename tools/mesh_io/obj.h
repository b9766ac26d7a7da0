// Wavefront surfaces (.obj).
#pragma once

#include <string>
#include <string_view>

#include "mesh_io/mesh_file.h"

namespace kelvo::mesh_io {

// Reads the geometry of an OBJ text: vertices (v), faces (f; polygons split into triangles as
// a fan around their first vertex; v/vt/vn forms and negative indices taken) and polylines (l)
// as hard edges. Other statements are skipped. False with "NAME:LINE: expected ..., found ...".
bool read_obj(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error);

}  // namespace kelvo::mesh_io
