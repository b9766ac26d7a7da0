// Point clouds as lines of coordinates (.xyz).
#include "mesh_io/xyz.h"

#include "mesh_io/text_scanner.h"

namespace kelvo::mesh_io {

bool read_xyz(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error) {
  text_scanner s(name, bytes, error);
  std::vector<std::string_view> t;
  // A line of a short cloud file holds about 20 bytes.
  m.pos.reserve(3 * (bytes.size() / 20 + 1));
  while (s.next_line(t)) {
    if (t.size() < 3) return s.fail_line_end(s.tok_line, "3 coordinates");
    for (unsigned k = 0; k < 3; ++k) {
      double x;
      if (!parse_double(t[k], x)) return s.fail_at(s.tok_line, t[k], "a finite coordinate");
      m.pos.push_back(x);
    }
  }
  return true;
}

}  // namespace kelvo::mesh_io
