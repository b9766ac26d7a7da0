// VTK unstructured grids in XML (.vtu), ASCII data arrays.
#pragma once

#include <string>
#include <string_view>

#include "mesh_io/mesh_file.h"

namespace kelvo::mesh_io {

// Writes the nodes and the tets of `m`, with two arrays of cell data: "colour" (the tet
// references, 0 when there are none) and "shape_quality". False with "cannot write PATH: REASON".
bool write_vtu(const std::string& path, const mesh_file& m, std::string& error);
// Reads a .vtu file with ASCII data arrays: the points, the cells (vertices as hard nodes,
// lines as hard edges, triangles, tetrahedra) and the cell data "colour" if present. False with
// "NAME:LINE: expected ..., found ...".
bool read_vtu(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error);

}  // namespace kelvo::mesh_io
