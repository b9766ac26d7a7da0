// TetGen node and element lists (.node, .ele).
#pragma once

#include <string>
#include <string_view>

#include "mesh_io/mesh_file.h"

namespace kelvo::mesh_io {

// Reads a .node text: "count 3 attributes markers", then one line per node "index x y z
// [attributes] [marker]". Indices start at 0 or 1, told by the first node; `base`, when given,
// receives it. Appends the nodes to `m`. False with "NAME:LINE: expected ..., found ...".
bool read_node(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error,
               unsigned* base = nullptr);
// Reads a .ele text over the nodes already in `m`, numbered from `base`: "count 4|10
// attributes", then "index n1 n2 n3 n4 [n5..n10] [attributes]". The first attribute, the region,
// becomes the tet's colour and must be a whole number. False with a message.
bool read_ele(std::string_view name, std::string_view bytes, unsigned base, mesh_file& m,
              std::string& error);

}  // namespace kelvo::mesh_io
