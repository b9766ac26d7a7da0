// The tables of a mesh file, the measures taken on them, and reading and writing by extension.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kelvo::mesh_io {

// What a mesh file holds, with 0-based node indices. A reader fills what its format has.
class mesh_file {
 public:
  std::vector<double> pos;              // x y z of each node
  std::vector<unsigned> edges;          // 2 per hard edge
  std::vector<unsigned> triangles;      // 3 per boundary triangle
  std::vector<unsigned> triangle_refs;  // one per triangle, or empty
  std::vector<unsigned> tets;           // 4 per tetrahedron, positive by the right-hand rule
  std::vector<unsigned> tet_refs;       // one per tet (its subdomain colour), or empty
  std::vector<unsigned> hard_nodes;     // nodes that must be kept (corners, required vertices)

  unsigned node_count() const { return unsigned(pos.size() / 3); }
  unsigned tet_count() const { return unsigned(tets.size() / 4); }
  unsigned triangle_count() const { return unsigned(triangles.size() / 3); }
  unsigned edge_count() const { return unsigned(edges.size() / 2); }
};

// Colours above this one mean outside or deleted in the mesher: files may not use them.
constexpr unsigned max_ref = 0xFFFFFFFDu;

// Signed shape quality 2 sqrt(6) r / h of the tet (inscribed radius over longest edge): 1 for
// the regular tet, 0 for a flat one, negative when det(p1 - p0, p2 - p0, p3 - p0) < 0. That is
// the right-hand rule of Medit, VTK, Gmsh and TetGen files, which `tets` follow.
double shape_quality(const double* p0, const double* p1, const double* p2, const double* p3);
// Signed volume of the tet, positive in the same orientation.
double tet_volume(const double* p0, const double* p1, const double* p2, const double* p3);
// Shape quality of every tet of `m`.
std::vector<double> shape_qualities(const mesh_file& m);

// The faces of the tets that lie on the hull or between two colours, oriented outwards from the
// tet of lower colour (whatever the orientation of the tets), with that colour as reference.
// In the order of the tets that own them. Fills m.triangles and m.triangle_refs.
void set_boundary_of_tets(mesh_file& m);

// Drops the nodes that no tet uses, with the hard edges and hard nodes on them, and renumbers.
void drop_unused_nodes(mesh_file& m);

// The formats known by file name extension (ASCII case ignored).
enum class file_format { unknown, medit, medit_sol, off, stl, obj, ply, node, ele, xyz, vtu, msh };
file_format format_of(std::string_view path);
// Whether the format can be read as a mesh, or written.
bool readable(file_format f);
bool writable(file_format f);

// Reads the file into `m`, choosing the reader by extension. False with a message that names
// the file, the line (or byte offset) and what was expected; `m` is then left partly filled.
bool read_mesh_file(const std::string& path, mesh_file& m, std::string& error);
// Reads the bytes of a file of format `f` named `name` (for the messages) into `m`. A .ele file
// needs its .node file: read_mesh_file reads both. False with a message.
bool read_mesh_bytes(file_format f, std::string_view name, std::string_view bytes, mesh_file& m,
                     std::string& error);
// Writes `m` in the format of the extension (.mesh, .vtu, .msh). False with a message.
bool write_mesh_file(const std::string& path, const mesh_file& m, std::string& error);
// Reads a whole file into `bytes`. False with "cannot read PATH: REASON".
bool read_bytes(const std::string& path, std::string& bytes, std::string& error);
// Checks the indices of a mesh read from `name`: false with a message naming the first table
// that holds a node index beyond the nodes. Readers call it when their format cannot check
// as they go.
bool check_indices(std::string_view name, const mesh_file& m, std::string& error);

}  // namespace kelvo::mesh_io
