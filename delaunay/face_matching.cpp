// Neighbours of a tet table that was given whole, by matching the faces of its rows.
#include "delaunay/face_matching.h"

#include <algorithm>
#include <array>
#include <vector>

#include "delaunay/keys.h"
#include "delaunay/tet_tables.h"

namespace kelvo::voxfill {

bool link_tets_by_faces(const slot_table<unsigned>& tets, slot_table<unsigned>& neighbors) {
  struct face_entry {
    std::array<unsigned, 3> sorted;
    unsigned code;
    bool operator<(const face_entry& o) const {
      return sorted < o.sorted || (sorted == o.sorted && code < o.code);
    }
  };
  const unsigned T = tets.cols();
  std::vector<face_entry> faces;
  faces.reserve(4 * std::size_t(T));
  for (unsigned t = 0; t < T; ++t) {
    const unsigned* r = tets.row(t);
    if (r[0] == r[1] || r[0] == r[2] || r[0] == r[3] || r[1] == r[2] || r[1] == r[3] ||
        r[2] == r[3])
      return false;
    for (unsigned f = 0; f < 4; ++f) {
      const unsigned* fn = tet_face_nodes[f];
      std::array<unsigned, 3> s = {r[fn[0]], r[fn[1]], r[fn[2]]};
      std::sort(s.begin(), s.end());
      faces.push_back({s, 4 * t + f});
    }
  }
  std::sort(faces.begin(), faces.end());
  auto key_of = [&tets](unsigned code) {
    const unsigned* r = tets.row(code >> 2);
    const unsigned* fn = tet_face_nodes[code & 3u];
    return face_key{{r[fn[0]], r[fn[1]], r[fn[2]]}};
  };
  for (std::size_t i = 0; i < faces.size();) {
    std::size_t j = i + 1;
    while (j < faces.size() && faces[j].sorted == faces[i].sorted) ++j;
    if (j - i > 2) return false;
    if (j - i == 2) {
      const unsigned a = faces[i].code, b = faces[i + 1].code;
      if (compare_keys(key_of(a), key_of(b)) != -1) return false;
      neighbors(a & 3u, a >> 2) = b >> 2;
      neighbors(b & 3u, b >> 2) = a >> 2;
    }
    i = j;
  }
  return true;
}

}  // namespace kelvo::voxfill
