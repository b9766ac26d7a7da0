// Stereolithography surfaces (.stl), ASCII and binary.
#pragma once

#include <string>
#include <string_view>

#include "mesh_io/mesh_file.h"

namespace kelvo::mesh_io {

// Reads an STL file, ASCII or binary (told apart by the size the binary header announces).
// Vertices with equal coordinates become one node, numbered in order of first appearance.
// False with "NAME:LINE: expected ..." (ASCII) or "NAME: byte OFFSET: expected ..." (binary).
bool read_stl(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error);

}  // namespace kelvo::mesh_io
