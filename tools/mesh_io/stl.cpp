// Stereolithography surfaces (.stl), ASCII and binary.
#include "mesh_io/stl.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <unordered_map>

#include "mesh_io/text_scanner.h"

namespace kelvo::mesh_io {

namespace {

// Merges vertices by exact equality of their coordinates (-0 and +0 are equal).
class vertex_merger {
 public:
  struct key_hash {
    std::size_t operator()(const std::array<double, 3>& k) const {
      std::uint64_t h = 0x9E3779B97F4A7C15ull;
      for (double x : k) {
        std::uint64_t b;
        std::memcpy(&b, &x, sizeof b);
        h = (h ^ b) * 0x100000001B3ull;
        h ^= h >> 29;
      }
      return std::size_t(h);
    }
  };
  std::unordered_map<std::array<double, 3>, unsigned, key_hash> index;
  mesh_file* m;

  explicit vertex_merger(mesh_file& m_) : m(&m_) {}
  unsigned add(double x, double y, double z) {
    // Adding 0.0 turns -0.0 into +0.0, so that both hash alike.
    const std::array<double, 3> k = {x + 0.0, y + 0.0, z + 0.0};
    const auto [it, fresh] = index.try_emplace(k, m->node_count());
    if (fresh) m->pos.insert(m->pos.end(), k.begin(), k.end());
    return it->second;
  }
};

bool read_ascii(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error) {
  text_scanner s(name, bytes, error, '\0');
  vertex_merger merge(m);
  if (!s.expect("solid")) return false;
  s.rest_of_line();  // the solid's name
  while (true) {
    if (!s.next()) return s.fail("'facet' or 'endsolid'");
    if (same_word(s.tok, "endsolid")) {
      s.rest_of_line();
      // Several solids may follow one another; their triangles are put together.
      if (!s.next()) return true;
      if (!same_word(s.tok, "solid")) return s.fail("'solid' or end of file");
      s.rest_of_line();
      continue;
    }
    if (!same_word(s.tok, "facet")) return s.fail("'facet' or 'endsolid'");
    double skip;
    if (!s.expect("normal")) return false;
    for (int k = 0; k < 3; ++k)
      if (!s.read_double(skip, "a normal component")) return false;
    if (!s.expect("outer") || !s.expect("loop")) return false;
    unsigned v[3];
    for (unsigned& n : v) {
      double x[3];
      if (!s.expect("vertex")) return false;
      for (double& c : x)
        if (!s.read_double(c, "a finite coordinate")) return false;
      n = merge.add(x[0], x[1], x[2]);
    }
    if (!s.expect("endloop") || !s.expect("endfacet")) return false;
    m.triangles.insert(m.triangles.end(), v, v + 3);
  }
}

float read_float(const char* p) {
  float f;
  std::memcpy(&f, p, 4);
  return f;
}

bool read_binary(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error) {
  const auto fail = [&](std::size_t offset, const std::string& what) {
    error = std::string(name) + ": byte " + std::to_string(offset) + ": expected " + what;
    return false;
  };
  if (bytes.size() < 84) return fail(bytes.size(), "an 84-byte header, found end of file");
  std::uint32_t count;
  std::memcpy(&count, bytes.data() + 80, 4);
  const std::uint64_t need = 84 + 50 * std::uint64_t(count);
  if (bytes.size() < need)
    return fail(84, std::to_string(count) + " triangles of 50 bytes (" + std::to_string(need) +
                        " bytes in all), found " + std::to_string(bytes.size()) + " bytes");
  vertex_merger merge(m);
  m.triangles.reserve(3 * std::size_t(count));
  for (std::uint32_t f = 0; f < count; ++f) {
    const std::size_t at = 84 + 50 * std::size_t(f);
    unsigned v[3];
    for (unsigned j = 0; j < 3; ++j) {
      const std::size_t p = at + 12 + 12 * j;
      const float x = read_float(&bytes[p]), y = read_float(&bytes[p + 4]),
                  z = read_float(&bytes[p + 8]);
      if (!std::isfinite(x) || !std::isfinite(y) || !std::isfinite(z))
        return fail(p, "finite coordinates");
      v[j] = merge.add(x, y, z);
    }
    m.triangles.insert(m.triangles.end(), v, v + 3);
  }
  return true;
}

// ASCII files begin with "solid"; so do some binary ones, whose size then matches their count.
bool looks_binary(std::string_view bytes) {
  std::size_t i = 0;
  while (i < bytes.size() &&
         (bytes[i] == ' ' || bytes[i] == '\t' || bytes[i] == '\r' || bytes[i] == '\n'))
    ++i;
  if (bytes.size() - i < 5 || !same_word(bytes.substr(i, 5), "solid")) return true;
  if (bytes.size() < 84) return false;
  std::uint32_t count;
  std::memcpy(&count, bytes.data() + 80, 4);
  return bytes.size() == 84 + 50 * std::uint64_t(count);
}

}  // namespace

bool read_stl(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error) {
  return looks_binary(bytes) ? read_binary(name, bytes, m, error)
                             : read_ascii(name, bytes, m, error);
}

}  // namespace kelvo::mesh_io
