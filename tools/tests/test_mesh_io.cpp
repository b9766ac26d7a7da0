// Mesh file readers and writers: round trips, what each reader makes of a file, and the
// messages for malformed files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include "mesh_io/gmsh.h"
#include "mesh_io/medit.h"
#include "mesh_io/mesh_file.h"
#include "mesh_io/obj.h"
#include "mesh_io/off.h"
#include "mesh_io/ply.h"
#include "mesh_io/stl.h"
#include "mesh_io/tetgen.h"
#include "mesh_io/vtu.h"
#include "mesh_io/xyz.h"
#include "voxfill/mesher_th4.h"

namespace {

using namespace kelvo::mesh_io;
namespace fs = std::filesystem;

fs::path temp_folder() {
  const fs::path p = fs::temp_directory_path() / ("voxfill_io_" + std::to_string(getpid()));
  fs::create_directories(p);
  return p;
}

// Two tets of different colours sharing a face, values that print with many digits, and
// every kind of table filled.
mesh_file sample() {
  mesh_file m;
  m.pos = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 1.0 / 3.0, 0.1, -2.5e17, 1e-300, 7, 3};
  m.tets = {0, 1, 2, 3, 1, 2, 3, 4, 0, 1, 3, 5};
  m.tet_refs = {2, 0, 2};  // interleaved colours: the order must survive grouping by colour
  m.triangles = {0, 1, 2, 1, 2, 3};
  m.triangle_refs = {4, 1};
  m.edges = {0, 4, 4, 5};
  m.hard_nodes = {5, 2};
  return m;
}

void expect_same(const mesh_file& a, const mesh_file& b, bool all_tables) {
  EXPECT_EQ(a.pos, b.pos);
  EXPECT_EQ(a.tets, b.tets);
  EXPECT_EQ(a.tet_refs, b.tet_refs);
  if (!all_tables) return;
  EXPECT_EQ(a.triangles, b.triangles);
  EXPECT_EQ(a.triangle_refs, b.triangle_refs);
  EXPECT_EQ(a.edges, b.edges);
  EXPECT_EQ(a.hard_nodes, b.hard_nodes);
}

// Catches a writer and its reader that disagree on a table, on index base or on digits.
TEST(MeshIo, WritersRoundTrip) {
  const mesh_file m = sample();
  for (const char* ext : {".mesh", ".msh", ".vtu"}) {
    SCOPED_TRACE(ext);
    const std::string path = (temp_folder() / (std::string("round") + ext)).string();
    std::string error;
    ASSERT_TRUE(write_mesh_file(path, m, error)) << error;
    mesh_file back;
    ASSERT_TRUE(read_mesh_file(path, back, error)) << error;
    expect_same(m, back, std::string(ext) != ".vtu");  // .vtu holds the tets only
  }
  const std::vector<double> sizes = {0.5, 1.0 / 7.0, 0.0, 3e-9};
  const std::string sol = (temp_folder() / "round.sol").string();
  std::string error;
  std::vector<double> back;
  ASSERT_TRUE(write_sol(sol, sizes, error)) << error;
  ASSERT_TRUE(read_sol_file(sol, back, error)) << error;
  EXPECT_EQ(back, sizes);
  fs::remove_all(temp_folder());
}

// Catches readers that lose polygons, comments, index forms or extra columns.
TEST(MeshIo, TextReadersFillTheTables) {
  std::string e;
  mesh_file m;
  ASSERT_TRUE(read_off("a.off",
                       "OFF 5 2 0\n# comment\n0 0 0\n1 0 0\n1 1 0\n0 1 0\n0 0 1 0.5 0.5\n"
                       "4 0 1 2 3  255 0 0\n3 0 1 4\n",
                       m, e))
      << e;
  EXPECT_EQ(m.node_count(), 5u);
  EXPECT_EQ(m.triangles, (std::vector<unsigned>{0, 1, 2, 0, 2, 3, 0, 1, 4}));

  m = mesh_file();
  ASSERT_TRUE(read_obj("a.obj",
                       "v 0 0 0\nv 1 0 0\nvt 0 0\nv 1 1 0\nv 0 1 0\n"
                       "f 1/1 2/1/1 3//1 4\nf -4 -3 -1\nl 1 2 3\ng x\n",
                       m, e))
      << e;
  EXPECT_EQ(m.triangles, (std::vector<unsigned>{0, 1, 2, 0, 2, 3, 0, 1, 3}));
  EXPECT_EQ(m.edges, (std::vector<unsigned>{0, 1, 1, 2}));

  m = mesh_file();
  ASSERT_TRUE(read_ply("a.ply",
                       "ply\nformat ascii 1.0\ncomment c\nelement vertex 4\n"
                       "property float x\nproperty float y\nproperty float z\nproperty uchar red\n"
                       "element face 1\nproperty list uchar int vertex_indices\nend_header\n"
                       "0 0 0 9\n1 0 0 9\n1 1 0 9\n0 1 0 9\n4 0 1 2 3\n",
                       m, e))
      << e;
  EXPECT_EQ(m.pos[6], 1.0);
  EXPECT_EQ(m.triangles, (std::vector<unsigned>{0, 1, 2, 0, 2, 3}));

  m = mesh_file();
  unsigned base = 9;
  ASSERT_TRUE(read_node(
      "a.node", "5 3 0 1\n1 0 0 0 7\n2 1 0 0 7\n3 0 1 0 7\n4 0 0 1 7\n5 1 1 1 7\n", m, e, &base))
      << e;
  ASSERT_TRUE(read_ele("a.ele", "2 4 1\n1 1 2 3 4 3\n2 2 3 4 5 0\n", base, m, e)) << e;
  EXPECT_EQ(base, 1u);
  EXPECT_EQ(m.tets, (std::vector<unsigned>{0, 1, 2, 3, 1, 2, 3, 4}));
  EXPECT_EQ(m.tet_refs, (std::vector<unsigned>{3, 0}));

  m = mesh_file();
  ASSERT_TRUE(read_xyz("a.xyz", "# x y z nx ny nz\n1 2 3 0 0 1\n\n4e0 +5 -6\n", m, e)) << e;
  EXPECT_EQ(m.pos, (std::vector<double>{1, 2, 3, 4, 5, -6}));

  m = mesh_file();
  ASSERT_TRUE(read_medit("a.mesh",
                         "MeshVersionFormatted 1\nDimension\n3\nVertices\n4\n0 0 0 1\n"
                         "1 0 0 1\n0 1 0 1\n1 1 0 1\nQuadrilaterals\n1\n1 2 4 3 7\nRidges\n1\n1\n"
                         "Corners\n2\n1 4\nRequiredVertices\n1\n4\nEnd\n",
                         m, e))
      << e;
  EXPECT_EQ(m.triangles, (std::vector<unsigned>{0, 1, 3, 0, 3, 2}));
  EXPECT_EQ(m.triangle_refs, (std::vector<unsigned>{7, 7}));
  EXPECT_EQ(m.hard_nodes, (std::vector<unsigned>{0, 3}));  // node 4 once
}

std::string binary_stl(const std::string& header, const std::vector<std::array<float, 9>>& tris) {
  std::string b = header;
  b.resize(80, ' ');
  const std::uint32_t n = std::uint32_t(tris.size());
  b.append(reinterpret_cast<const char*>(&n), 4);
  for (const auto& t : tris) {
    const float normal[3] = {0, 0, 0};
    b.append(reinterpret_cast<const char*>(normal), 12);
    b.append(reinterpret_cast<const char*>(t.data()), 36);
    b.append(2, '\0');
  }
  return b;
}

// Catches vertices of an STL that are not merged, merged when they differ, or -0 kept apart
// from +0; and a binary file taken for ASCII because its header says "solid".
TEST(MeshIo, StlMergesEqualVertices) {
  const std::string bin = binary_stl("solid but binary", {{0, 0, 0, 1, 0, 0, 0, 1, 0},
                                                          {-0.0f, 0, 0, 0, 1, 0, 1, 0, 0},
                                                          {1, 0, 0, 0, 1, 0, 1, 1, 1e-7f}});
  mesh_file m;
  std::string e;
  ASSERT_TRUE(read_stl("b.stl", bin, m, e)) << e;
  EXPECT_EQ(m.node_count(), 4u);
  EXPECT_EQ(m.triangles, (std::vector<unsigned>{0, 1, 2, 0, 2, 1, 1, 2, 3}));
  EXPECT_EQ(m.pos[9 + 2], double(1e-7f));

  m = mesh_file();
  ASSERT_TRUE(read_stl("a.stl",
                       "solid s\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\n"
                       "vertex 1 0 0\nvertex 0 1 0\nendloop\nendfacet\nfacet normal 0 0 1\n"
                       "outer loop\nvertex 1 0 0\nvertex 1 1 0\nvertex 0 1 0\nendloop\nendfacet\n"
                       "endsolid s\n",
                       m, e))
      << e;
  EXPECT_EQ(m.node_count(), 4u);
  EXPECT_EQ(m.triangles, (std::vector<unsigned>{0, 1, 2, 1, 3, 2}));
}

// Catches a binary PLY read with the wrong byte order, sizes or list types.
TEST(MeshIo, BinaryPly) {
  for (const bool big : {false, true}) {
    std::string b =
        std::string("ply\nformat ") + (big ? "binary_big_endian" : "binary_little_endian") +
        " 1.0\nelement vertex 3\nproperty double x\nproperty float y\nproperty short z\n"
        "element face 1\nproperty list uchar uint vertex_indices\nend_header\n";
    const auto put = [&](const void* p, std::size_t n) {
      std::string bytes(static_cast<const char*>(p), n);
      if (big) std::reverse(bytes.begin(), bytes.end());
      b += bytes;
    };
    for (int i = 0; i < 3; ++i) {
      const double x = 0.25 * i;
      const float y = float(i);
      const std::int16_t z = std::int16_t(-i);
      put(&x, 8), put(&y, 4), put(&z, 2);
    }
    const std::uint8_t k = 3;
    put(&k, 1);
    for (std::uint32_t v : {2u, 0u, 1u}) put(&v, 4);
    mesh_file m;
    std::string e;
    ASSERT_TRUE(read_ply("b.ply", b, m, e)) << e;
    EXPECT_EQ(m.pos, (std::vector<double>{0, 0, 0, 0.25, 1, -1, 0.5, 2, -2}));
    EXPECT_EQ(m.triangles, (std::vector<unsigned>{2, 0, 1}));
  }
}

// Catches a malformed file that crashes, passes, or gets a message without its file, line or
// byte offset, or without what was expected.
TEST(MeshIo, MalformedFilesGetExactMessages) {
  using reader = bool (*)(std::string_view, std::string_view, mesh_file&, std::string&);
  struct bad_case {
    reader read;
    const char* name;
    std::string text;
    const char* message;
  };
  const reader read_nodes = [](std::string_view n, std::string_view b, mesh_file& m,
                               std::string& e) { return read_node(n, b, m, e); };
  const std::string stl_short = binary_stl("x", {{0, 0, 0, 1, 0, 0, 0, 1, 0}}).substr(0, 100);
  const std::string stl_nan = binary_stl("x", {{0, 0, 0, 1, 0, 0, 0, NAN, 0}});
  const bad_case cases[] = {
      {read_off, "a.off", "OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 3\n",
       "a.off:6: expected a vertex index from 0 to 2, found '3'"},
      {read_off, "a.off", "OFF\n3 1 0\n0 0 0\n1 0\n",
       "a.off:4: expected 3 coordinates, found end of line"},
      {read_off, "a.off", "PLY\n", "a.off:1: expected the header OFF, found 'PLY'"},
      {read_off, "a.off", "OFF\n2 1 0\n0 0 0\n1 0 0\n2 0 1\n",
       "a.off:5: expected a polygon size of 3 or more, found '2'"},
      {read_obj, "a.obj", "v 0 0 0\nv 1 0 0\nf 1 2 x/1\n",
       "a.obj:3: expected a vertex index from 1 to 2 (or from -1 to -2), found 'x/1'"},
      {read_obj, "a.obj", "v 0 0 nan\n", "a.obj:1: expected a finite coordinate, found 'nan'"},
      {read_medit, "a.mesh", "MeshVersionFormatted 2\nDimension 3\nTriangles\n0\n",
       "a.mesh:3: expected a Vertices section before Triangles, found 'Triangles'"},
      {read_medit, "a.mesh", "MeshVersionFormatted 2\nDimension 2\n",
       "a.mesh:2: expected dimension 3, found '2'"},
      {read_medit, "a.mesh",
       "MeshVersionFormatted 2\nVertices\n2\n0 0 0 0\n1 1 1 0\nTetrahedra\n1\n1 2 2 3 0\n",
       "a.mesh:8: expected a vertex index from 1 to 2, found '3'"},
      {read_medit, "a.mesh", "MeshVersionFormatted 2\nVertices\n1\n0 0 0 0\nHexagons\n",
       "a.mesh:5: expected a section keyword (Vertices, Edges, Triangles, Quadrilaterals, "
       "Tetrahedra, Corners, RequiredVertices or End), found 'Hexagons'"},
      {read_medit, "a.mesh", "MeshVersionFormatted 2\nVertices\n3\n0 0 0 0\n",
       "a.mesh:4: expected a finite coordinate, found end of file"},
      {read_stl, "a.stl", "solid s\nfacet normal 0 0 1\nouter loop\nvertex 0 0\nendloop\n",
       "a.stl:5: expected a finite coordinate, found 'endloop'"},
      {read_stl, "b.stl", stl_short,
       "b.stl: byte 84: expected 1 triangles of 50 bytes (134 bytes in all), found 100 bytes"},
      {read_stl, "b.stl", stl_nan, "b.stl: byte 120: expected finite coordinates"},
      {read_ply, "a.ply", "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nend_header\n",
       "a.ply:5: expected a scalar property y of the vertex element, found 'end_header'"},
      {read_ply, "a.ply",
       "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\n"
       "property float z\nelement face 1\nproperty list uchar int vertex_indices\nend_header\n0 0 "
       "0\n3 0 0 1\n",
       "a.ply:11: expected a vertex index from 0 to 0 of face 0, found '1'"},
      {read_ply, "b.ply",
       "ply\nformat binary_little_endian 1.0\nelement vertex 1\nproperty float x\n"
       "property float y\nproperty float z\nend_header\n\1\2\3\4\5",
       "b.ply: byte 119: expected a value of property y of vertex 0, found end of file"},
      {read_ply, "a.ply", "ply\nformat binary_middle_endian 1.0\n",
       "a.ply:2: expected ascii, binary_little_endian or binary_big_endian, found "
       "'binary_middle_endian'"},
      {read_xyz, "a.xyz", "0 0 0\n1 1\n", "a.xyz:2: expected 3 coordinates, found end of line"},
      {read_xyz, "a.xyz", "0 0 1e999\n", "a.xyz:1: expected a finite coordinate, found '1e999'"},
      {read_nodes, "a.node", "2 2 0 0\n", "a.node:1: expected dimension 3, found '2'"},
      {read_nodes, "a.node", "2 3 0 0\n0 0 0 0\n2 1 1 1\n",
       "a.node:3: expected index 1, found '2'"},
      {read_vtu, "a.vtu",
       "<VTKFile>\n<Piece NumberOfPoints=\"1\">\n<Points>\n<DataArray format=\"binary\">\n",
       "a.vtu:4: expected format=\"ascii\" (binary and appended data are not read), found "
       "'binary'"},
      {read_vtu, "a.vtu",
       "<VTKFile>\n<Piece>\n<Points>\n<DataArray format=\"ascii\">0 0 0</DataArray>\n"
       "</Points>\n<Cells>\n<DataArray Name=\"connectivity\" format=\"ascii\">0 0 0 1</DataArray>\n"
       "<DataArray Name=\"offsets\" format=\"ascii\">4</DataArray>\n<DataArray Name=\"types\" "
       "format=\"ascii\">10</DataArray>\n</Cells>\n</Piece>\n</VTKFile>\n",
       "a.vtu:2: expected point indices below the number of points, found 'Piece'"},
      {read_vtu, "a.vtu", "<VTKFile\n type=x>",
       "a.vtu:2: expected a quoted attribute value, found 'x'"},
      {read_msh, "a.msh", "$MeshFormat\n2.2 0 8\n$EndMeshFormat\n",
       "a.msh:2: expected version 4.1, found '2.2'"},
      {read_msh, "a.msh",
       "$MeshFormat\n4.1 0 8\n$EndMeshFormat\n$Nodes\n1 1 1 1\n3 1 0 1\n1\n0 0 0\n"
       "$EndNodes\n$Elements\n1 1 1 1\n3 1 4 1\n1 1 1 1 2\n$EndElements\n",
       "a.msh:13: expected a node tag listed in $Nodes, found '2'"},
  };
  for (const bad_case& c : cases) {
    mesh_file m;
    std::string e;
    EXPECT_FALSE(c.read(c.name, c.text, m, e)) << c.message;
    EXPECT_EQ(e, c.message);
  }
  mesh_file m;
  std::string e;
  EXPECT_FALSE(read_ele("a.ele", "1 4 0\n0 0 1 2 5\n", 0, m, e));
  EXPECT_EQ(e, "a.ele:2: expected a node index from 0 to 4294967295, found '0'");
  std::vector<double> sizes;
  EXPECT_FALSE(
      read_sol("a.sol", "MeshVersionFormatted 2\nDimension 3\nSolAtVertices\n2\n1 3\n", sizes, e));
  EXPECT_EQ(e, "a.sol:5: expected one scalar field ('1 1'), found '3'");
  EXPECT_FALSE(read_mesh_file("/nonexistent/x.mesh", m, e));
  EXPECT_EQ(e, "cannot read /nonexistent/x.mesh: No such file or directory");
  EXPECT_FALSE(read_mesh_file("x.stp", m, e));
  EXPECT_EQ(e,
            "cannot read x.stp: expected the extension .mesh, .off, .stl, .obj, .ply, .node, "
            ".ele, .xyz, .vtu or .msh");
}

// Catches files from other systems misread: a UTF-8 byte-order mark, old Mac line ends (a
// lone CR), a .vtu whose counts or end do not match its arrays, CDATA, binary OFF.
TEST(MeshIo, FilesFromOtherSystems) {
  const std::string bom = "\xEF\xBB\xBF";
  struct good_case {
    file_format f;
    std::string text;
    unsigned nodes;
  };
  const good_case good[] = {
      {file_format::xyz, bom + "0 0 0\n1 0 0\n", 2},
      {file_format::xyz, "0 0 0\r1 0 0\r0 1 0\r", 3},
      {file_format::xyz, "0 0 0\r\n1 0 0\r\n", 2},
      {file_format::medit, bom + "MeshVersionFormatted 2\rVertices\r1\r0 0 0 0\rEnd\r", 1},
      {file_format::off, bom + "OFF\r3 1 0\r0 0 0\r1 0 0\r0 1 0\r3 0 1 2\r", 3},
      {file_format::stl,
       bom + "solid s\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\nvertex 0 1 0\n"
             "endloop\nendfacet\nendsolid s\n",
       3},
      {file_format::ply,
       bom + "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\n"
             "property float z\nend_header\n1 2 3\n",
       1},
  };
  for (const good_case& c : good) {
    SCOPED_TRACE(c.text);
    mesh_file m;
    std::string e;
    ASSERT_TRUE(read_mesh_bytes(c.f, "a", c.text, m, e)) << e;
    EXPECT_EQ(m.node_count(), c.nodes);
  }

  const std::string vtu = [] {
    const std::string path = (temp_folder() / "quirks.vtu").string();
    std::string e, bytes;
    EXPECT_TRUE(write_mesh_file(path, sample(), e)) << e;
    EXPECT_TRUE(read_bytes(path, bytes, e)) << e;
    return bytes;
  }();
  const auto edited = [&](const std::string& from, const std::string& to) {
    std::string t = vtu;
    const std::size_t at = t.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? t : t.replace(at, from.size(), to);
  };
  const std::string numbers = "format=\"ascii\">\n";
  const std::size_t points = vtu.find(numbers) + numbers.size();
  struct bad_case {
    file_format f;
    std::string text;
    std::string message;
  };
  const bad_case bad[] = {
      {file_format::xyz, "0 0 0\r1 0\r", "a:2: expected 3 coordinates, found end of line"},
      {file_format::vtu, edited("NumberOfPoints=\"6\"", "NumberOfPoints=\"400\""),
       "a:4: expected NumberOfPoints=\"400\" as the Piece says, found 6"},
      {file_format::vtu, edited("NumberOfCells=\"3\"", "NumberOfCells=\"2\""),
       "a:4: expected NumberOfCells=\"2\" as the Piece says, found 3"},
      {file_format::vtu, vtu.substr(0, vtu.find("Name=\"shape_quality\"")),
       "a:38: expected '>', found end of file"},
      {file_format::vtu,
       vtu.substr(0, vtu.find("        </DataArray>\n        <DataArray type=\"Float64\"")),
       "a:37: expected '</VTKFile>' (the file is cut short), found end of file"},
      {file_format::vtu, vtu.substr(0, vtu.find("</CellData>")),
       "a:43: expected '</VTKFile>' (the file is cut short), found end of file"},
      {file_format::vtu, vtu.substr(0, vtu.find("</VTKFile>")),
       "a:46: expected '</VTKFile>' (the file is cut short), found end of file"},
      {file_format::vtu, vtu.substr(0, points) + "<![CDATA[0 0 0]]>" + vtu.substr(points),
       "a:7: expected ASCII numbers in the data arrays (CDATA sections are not read), found "
       "'<![CDATA['"},
      {file_format::off, "OFF BINARY\n",
       "a:1: expected an ASCII OFF file (binary OFF is not read), "
       "found 'BINARY'"},
  };
  for (const bad_case& c : bad) {
    mesh_file m;
    std::string e;
    EXPECT_FALSE(read_mesh_bytes(c.f, "a", c.text, m, e)) << c.message;
    EXPECT_EQ(e, c.message);
  }
  fs::remove_all(temp_folder());
}

// Catches a quality measure that differs from the library's, or loses its sign or scale.
TEST(MeshIo, ShapeQualityMatchesTheLibrary) {
  const double r = 1.0 / std::sqrt(2.0);
  const double p[4][3] = {{1, 0, -r}, {-1, 0, -r}, {0, 1, r}, {0, -1, r}};
  const double reg = shape_quality(p[0], p[1], p[2], p[3]);
  EXPECT_NEAR(std::fabs(reg), 1.0, 1e-14);
  EXPECT_EQ(shape_quality(p[1], p[0], p[2], p[3]), -reg);
  // The right-hand rule of the files: the corner tet of the axes is positive.
  const double o[3] = {0, 0, 0}, x[3] = {1, 0, 0}, y[3] = {0, 1, 0}, z[3] = {0, 0, 1};
  EXPECT_EQ(tet_volume(o, x, y, z), 1.0 / 6.0);
  EXPECT_GT(shape_quality(o, x, y, z), 0.0);

  // A Delaunay mesh of a jittered lattice: the library's figures against ours, once its tets
  // are turned into the files' orientation by swapping nodes 1 and 2.
  using kelvo::voxfill::mesher;
  kelvo::dense2D<double> pos(3, 64);
  for (unsigned j = 0; j < 64; ++j) {
    pos(0, j) = j % 4 + 0.013 * ((j * 7) % 5);
    pos(1, j) = (j / 4) % 4 + 0.011 * ((j * 11) % 7);
    pos(2, j) = 1e3 * (j / 16 + 0.017 * ((j * 13) % 3));
  }
  mesher::data_type d(pos, kelvo::dense2D<unsigned>());
  for (unsigned j = 0; j < 64; ++j) d.isolated_nodes.push_back(j);
  mesher ms;
  ms.settings.mode = 2;
  ms.run(d);
  ASSERT_EQ(d.error_code, 0);
  mesh_file m;
  m.pos.assign(pos.col(0), pos.col(0) + 3 * 64);
  for (unsigned t = 0; t < d.tet_count; ++t)
    for (unsigned k : {0, 2, 1, 3}) m.tets.push_back(d.connectM(k, t));
  const std::vector<double> q = shape_qualities(m);
  double volume = 0.0;
  for (unsigned t = 0; t < d.tet_count; ++t) {
    EXPECT_NEAR(q[t], d.shape_qualities[t], 1e-9);
    const unsigned* v = &m.tets[4 * t];
    volume += tet_volume(&m.pos[3 * v[0]], &m.pos[3 * v[1]], &m.pos[3 * v[2]], &m.pos[3 * v[3]]);
  }
  EXPECT_NEAR(volume, d.volume, 1e-9 * d.volume);
}

// Catches boundary faces that miss a colour wall, keep an inner face, point inwards, or
// nodes dropped with tables left on the old numbering.
TEST(MeshIo, BoundaryOfTetsAndUnusedNodes) {
  mesh_file m;
  m.pos = {9, 9, 9, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 1, 1};
  m.tets = {1, 2, 3, 4, 2, 3, 5, 4};  // one positive, one negative, sharing the face 2 3 4
  m.edges = {0, 1, 1, 2};
  m.hard_nodes = {0, 5};
  for (const unsigned second : {0u, 1u}) {
    m.tet_refs = {0, second};
    set_boundary_of_tets(m);
    EXPECT_EQ(m.triangle_count(), second ? 7u : 6u);  // the wall once, for colour 0
    // Outward faces of each colour enclose a positive volume.
    const double o[3] = {0.3, 0.3, 0.3};
    double v = 0.0;
    for (unsigned f = 0; f < m.triangle_count(); ++f) {
      const unsigned* t = &m.triangles[3 * f];
      if (m.triangle_refs[f] == 0)
        v += tet_volume(o, &m.pos[3 * t[0]], &m.pos[3 * t[1]], &m.pos[3 * t[2]]);
    }
    EXPECT_NEAR(v, second ? 1.0 / 6.0 : 0.5, 1e-12);
  }
  drop_unused_nodes(m);
  EXPECT_EQ(m.node_count(), 5u);
  EXPECT_EQ(m.pos[0], 0.0);
  EXPECT_EQ(m.tets, (std::vector<unsigned>{0, 1, 2, 3, 1, 2, 4, 3}));
  EXPECT_EQ(m.edges, (std::vector<unsigned>{0, 1}));
  EXPECT_EQ(m.hard_nodes, (std::vector<unsigned>{4}));
  std::string e;
  EXPECT_TRUE(check_indices("m", m, e));
}

}  // namespace
