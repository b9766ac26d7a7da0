// Fuzz target for one mesh file reader of the command-line tool, the format named by FUZZ_FORMAT:
// arbitrary bytes give a message or tables whose indices stay inside the nodes; the formats the
// tool writes also survive a write and a second read unchanged. Sanitizers catch the rest.
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "mesh_io/medit.h"
#include "mesh_io/mesh_file.h"
#include "mesh_io/tetgen.h"

using namespace kelvo::mesh_io;

namespace {

constexpr std::string_view format = FUZZ_FORMAT;

void require(bool ok) {
  if (!ok) std::abort();
}

// One file per process, so that parallel jobs do not share it; removed at exit. A memory file
// system, where there is one, keeps disk I/O from setting the pace.
const std::string& temp_path() {
  static const std::string path = [] {
    std::error_code ec;
    const std::filesystem::path dir = std::filesystem::is_directory("/dev/shm", ec)
                                          ? "/dev/shm"
                                          : std::filesystem::temp_directory_path();
    return (dir / ("voxfill_fuzz_read_" + std::to_string(getpid()) + "." + std::string(format)))
        .string();
  }();
  static const bool registered = std::atexit([] { std::remove(temp_path().c_str()); }) == 0;
  (void)registered;
  return path;
}

void check_tables(const mesh_file& m, std::string& error) {
  require(m.pos.size() % 3 == 0 && m.edges.size() % 2 == 0 && m.triangles.size() % 3 == 0 &&
          m.tets.size() % 4 == 0);
  require(m.triangle_refs.empty() || m.triangle_refs.size() == m.triangle_count());
  require(m.tet_refs.empty() || m.tet_refs.size() == m.tet_count());
  for (double x : m.pos) require(std::isfinite(x));
  for (unsigned r : m.tet_refs) require(r <= max_ref);
  require(check_indices("fuzz", m, error));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Larger inputs add no new paths through a reader, only time.
  if (size > 1 << 16) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  std::string error;
  mesh_file m;
  if (format == "sol") {
    std::vector<double> sizes;
    const bool ok = read_sol("fuzz.sol", bytes, sizes, error);
    require(ok || error.rfind("fuzz.sol:", 0) == 0);
    if (ok)
      for (double v : sizes) require(std::isfinite(v));
    return 0;
  }
  if (format == "ele") {
    // The .node text, a zero byte, then the .ele text.
    const std::size_t cut = bytes.find('\0');
    if (cut == std::string_view::npos) return 0;
    unsigned base = 0;
    if (!read_node("fuzz.node", bytes.substr(0, cut), m, error, &base)) return 0;
    const bool ok = read_ele("fuzz.ele", bytes.substr(cut + 1), base, m, error);
    require(ok || error.rfind("fuzz.ele:", 0) == 0);
    if (ok) check_tables(m, error);
    return 0;
  }
  const std::string name = "fuzz." + std::string(format);
  const bool ok = read_mesh_bytes(format_of(name), name, bytes, m, error);
  require(ok || error.rfind(name, 0) == 0);
  if (!ok) return 0;
  check_tables(m, error);
  if (!writable(format_of(name))) return 0;

  mesh_file back;
  require(write_mesh_file(temp_path(), m, error));
  require(read_mesh_file(temp_path(), back, error));
  require(back.pos == m.pos && back.tets == m.tets);
  // A .vtu file holds the tets only, always with a colour.
  if (format == "vtu") {
    require(m.tet_refs.empty() ? back.tet_refs == std::vector<unsigned>(m.tet_count(), 0)
                               : back.tet_refs == m.tet_refs);
    return 0;
  }
  require(back.tet_refs == m.tet_refs && back.triangles == m.triangles && back.edges == m.edges &&
          back.hard_nodes == m.hard_nodes);
  require(back.triangle_refs == m.triangle_refs ||
          (m.triangle_refs.empty() &&
           back.triangle_refs == std::vector<unsigned>(m.triangle_count(), 0)));
  return 0;
}
