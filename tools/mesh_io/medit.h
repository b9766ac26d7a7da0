// Medit files: meshes (.mesh, ASCII) and sizes per vertex (.sol, ASCII).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "mesh_io/mesh_file.h"

namespace kelvo::mesh_io {

// Reads a .mesh text: Vertices, Edges (hard edges), Triangles and Quadrilaterals (split in two),
// Tetrahedra with their references as colours, Corners and RequiredVertices (hard nodes); a few
// other known sections are skipped. False with "NAME:LINE: expected ..., found ...".
bool read_medit(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error);
// Writes `m` as a .mesh file: vertices, hard edges, triangles and tets with references, and the
// hard nodes as RequiredVertices. False with "cannot write PATH: REASON".
bool write_medit(const std::string& path, const mesh_file& m, std::string& error);

// Reads a .sol text with one scalar per vertex (SolAtVertices, type 1). False with a message.
bool read_sol(std::string_view name, std::string_view bytes, std::vector<double>& sizes,
              std::string& error);
// Reads the .sol file at `path`.
bool read_sol_file(const std::string& path, std::vector<double>& sizes, std::string& error);
// Writes one scalar per vertex as a .sol file. False with "cannot write PATH: REASON".
bool write_sol(const std::string& path, const std::vector<double>& sizes, std::string& error);

}  // namespace kelvo::mesh_io
