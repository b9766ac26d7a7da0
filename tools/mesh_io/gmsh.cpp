// Gmsh meshes (.msh), format 4.1 ASCII.
#include "mesh_io/gmsh.h"

#include <algorithm>
#include <numeric>
#include <unordered_map>

#include "mesh_io/text_output.h"
#include "mesh_io/text_scanner.h"

namespace kelvo::mesh_io {

namespace {

constexpr unsigned msh_point = 15, msh_line = 1, msh_triangle = 2, msh_tet = 4;

// Nodes per element of the Gmsh types up to third order; 0 for an unknown type.
unsigned nodes_of_type(unsigned type) {
  static constexpr unsigned table[] = {0, 2,  3,  4,  4, 8,  6,  5,  3,  6,  9, 10, 27, 18, 14, 1,
                                       8, 20, 15, 13, 9, 10, 12, 15, 15, 21, 4, 5,  6,  20, 35, 56};
  return type < std::size(table) ? table[type] : 0;
}

// Distinct values of a list, in increasing order.
std::vector<unsigned> distinct(std::vector<unsigned> v) {
  std::sort(v.begin(), v.end());
  v.erase(std::unique(v.begin(), v.end()), v.end());
  return v;
}

}  // namespace

bool write_msh(const std::string& path, const mesh_file& m, std::string& error) {
  const unsigned N = m.node_count(), T = m.tet_count(), F = m.triangle_count(), E = m.edge_count();
  const unsigned H = unsigned(m.hard_nodes.size());
  const auto colour = [&](unsigned t) { return m.tet_refs.empty() ? 0u : m.tet_refs[t]; };
  const auto ref = [&](unsigned f) { return m.triangle_refs.empty() ? 0u : m.triangle_refs[f]; };
  std::vector<unsigned> colours(T), refs(F);
  for (unsigned t = 0; t < T; ++t) colours[t] = colour(t);
  for (unsigned f = 0; f < F; ++f) refs[f] = ref(f);
  colours = distinct(colours);
  refs = distinct(refs);
  // The nodes belong to the first volume, so that there is always one.
  if (colours.empty()) colours.push_back(0);

  double lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
  for (unsigned n = 0; n < N; ++n)
    for (unsigned k = 0; k < 3; ++k) {
      const double x = m.pos[3 * n + k];
      lo[k] = n ? std::min(lo[k], x) : x;
      hi[k] = n ? std::max(hi[k], x) : x;
    }
  text_output out(path);
  const auto box = [&]() {
    for (double x : lo) out << ' ' << x;
    for (double x : hi) out << ' ' << x;
  };
  out << "$MeshFormat\n4.1 0 8\n$EndMeshFormat\n$Entities\n"
      << H << ' ' << (E ? 1u : 0u) << ' ' << unsigned(refs.size()) << ' '
      << unsigned(colours.size()) << '\n';
  for (unsigned i = 0; i < H; ++i) {
    const double* p = &m.pos[3 * std::size_t(m.hard_nodes[i])];
    out << i + 1 << ' ' << p[0] << ' ' << p[1] << ' ' << p[2] << " 0\n";
  }
  if (E) {
    out << 1u;
    box();
    out << " 1 1 0\n";
  }
  for (unsigned r : refs) {
    out << r + 1;
    box();
    out << " 1 " << r + 1 << " 0\n";
  }
  for (unsigned c : colours) {
    out << c + 1;
    box();
    out << " 1 " << c + 1 << " 0\n";
  }
  out << "$EndEntities\n$Nodes\n";
  if (N) {
    out << "1 " << N << " 1 " << N << "\n3 " << colours[0] + 1 << " 0 " << N << '\n';
    for (unsigned n = 0; n < N; ++n) out << n + 1 << '\n';
    for (unsigned n = 0; n < N; ++n)
      out << m.pos[3 * n] << ' ' << m.pos[3 * n + 1] << ' ' << m.pos[3 * n + 2] << '\n';
  } else {
    out << "0 0 0 0\n";
  }
  out << "$EndNodes\n$Elements\n";
  // Element tags: hard nodes, then edges, triangles and tets, each in table order.
  const unsigned long long total = 0ull + H + E + F + T;
  const unsigned blocks =
      H + (E ? 1u : 0u) + unsigned(refs.size()) + (T ? unsigned(colours.size()) : 0u);
  out << blocks << ' ' << total << ' ' << (total ? 1u : 0u) << ' ' << total << '\n';
  unsigned long long tag = 1;
  for (unsigned i = 0; i < H; ++i)
    out << "0 " << i + 1 << " 15 1\n" << tag++ << ' ' << m.hard_nodes[i] + 1 << '\n';
  if (E) {
    out << "1 1 1 " << E << '\n';
    for (unsigned e = 0; e < E; ++e)
      out << tag++ << ' ' << m.edges[2 * e] + 1 << ' ' << m.edges[2 * e + 1] + 1 << '\n';
  }
  for (unsigned r : refs) {
    unsigned count = 0;
    for (unsigned f = 0; f < F; ++f) count += ref(f) == r;
    out << "2 " << r + 1 << " 2 " << count << '\n';
    for (unsigned f = 0; f < F; ++f)
      if (ref(f) == r)
        out << tag + f << ' ' << m.triangles[3 * f] + 1 << ' ' << m.triangles[3 * f + 1] + 1 << ' '
            << m.triangles[3 * f + 2] + 1 << '\n';
  }
  tag += F;
  if (T)
    for (unsigned c : colours) {
      unsigned count = 0;
      for (unsigned t = 0; t < T; ++t) count += colour(t) == c;
      out << "3 " << c + 1 << " 4 " << count << '\n';
      for (unsigned t = 0; t < T; ++t)
        if (colour(t) == c)
          out << tag + t << ' ' << m.tets[4 * t] + 1 << ' ' << m.tets[4 * t + 1] + 1 << ' '
              << m.tets[4 * t + 2] + 1 << ' ' << m.tets[4 * t + 3] + 1 << '\n';
    }
  out << "$EndElements\n";
  return out.close(error);
}

namespace {

// Skips to the line "$EndNAME" of a section that this reader does not use.
bool skip_section(text_scanner& s, std::string_view section) {
  const std::string end = "$End" + std::string(section.substr(1));
  while (s.next())
    if (s.tok == end) return true;
  return s.fail("'" + end + "'");
}

// A count or tag that must fit in 32 bits.
bool read_count(text_scanner& s, unsigned& v, std::string_view what) {
  return s.read_uint(v, what);
}

// Rows read for one kind of element, with their element tags so that they can be put in order.
struct element_rows {
  std::vector<unsigned> tags;
  std::vector<unsigned> nodes;  // `width` per row
  std::vector<unsigned> refs;   // one per row
};

// Puts the rows in the order of their tags; equal tags keep their file order.
void sort_rows(element_rows& r, unsigned width, std::vector<unsigned>& nodes,
               std::vector<unsigned>* refs) {
  std::vector<std::size_t> order(r.tags.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return r.tags[a] < r.tags[b]; });
  nodes.clear();
  nodes.reserve(order.size() * width);
  for (std::size_t i : order)
    nodes.insert(nodes.end(), &r.nodes[i * width], &r.nodes[i * width] + width);
  if (!refs) return;
  refs->clear();
  for (std::size_t i : order) refs->push_back(r.refs[i]);
}

}  // namespace

bool read_msh(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error) {
  text_scanner s(name, bytes, error, '\0');
  // Physical tag of each surface and volume entity (0 when it has none), by entity tag.
  std::unordered_map<unsigned, unsigned> physical[4];
  std::unordered_map<unsigned, unsigned> node_index;
  element_rows points, lines, triangles, tets;
  bool have_format = false, have_nodes = false;
  while (s.next()) {
    const std::string_view section = s.tok;
    if (section.empty() || section[0] != '$') return s.fail("a section such as $Nodes");
    if (section == "$MeshFormat") {
      if (!s.next() || s.tok != "4.1") return s.fail("version 4.1");
      unsigned type, size;
      if (!s.read_uint(type, "file type 0 (ASCII)") || type != 0)
        return s.fail("file type 0 (ASCII)");
      if (!s.read_uint(size, "a data size")) return false;
      if (!s.expect("$EndMeshFormat")) return false;
      have_format = true;
      continue;
    }
    if (!have_format) return s.fail("$MeshFormat first");
    if (section == "$Entities") {
      unsigned count[4];
      for (unsigned& c : count)
        if (!read_count(s, c, "an entity count")) return false;
      for (unsigned dim = 0; dim < 4; ++dim)
        for (unsigned i = 0; i < count[dim]; ++i) {
          unsigned tag, nphys, nbound;
          double x;
          if (!read_count(s, tag, "an entity tag")) return false;
          for (unsigned k = 0; k < (dim ? 6u : 3u); ++k)
            if (!s.read_double(x, "a bounding box coordinate")) return false;
          if (!read_count(s, nphys, "a number of physical tags")) return false;
          unsigned first = 0;
          for (unsigned k = 0; k < nphys; ++k) {
            long long p;
            if (!s.read_int(p, "a physical tag")) return false;
            if (k == 0) first = unsigned(std::min<long long>(p < 0 ? -p : p, max_ref + 1ll));
          }
          physical[dim][tag] = first;
          if (!dim) continue;
          if (!read_count(s, nbound, "a number of bounding entities")) return false;
          for (unsigned k = 0; k < nbound; ++k) {
            long long b;
            if (!s.read_int(b, "a bounding entity tag")) return false;
          }
        }
      if (!s.expect("$EndEntities")) return false;
    } else if (section == "$Nodes") {
      if (have_nodes) return s.fail("a single $Nodes section");
      unsigned blocks, total, lo, hi;
      if (!read_count(s, blocks, "a node block count") || !read_count(s, total, "a node count") ||
          !read_count(s, lo, "the smallest node tag") || !read_count(s, hi, "the largest node tag"))
        return false;
      for (unsigned b = 0; b < blocks; ++b) {
        unsigned dim, tag, parametric, count;
        if (!read_count(s, dim, "an entity dimension") || dim > 3)
          return s.fail("an entity dimension from 0 to 3");
        if (!read_count(s, tag, "an entity tag")) return false;
        if (!read_count(s, parametric, "0 or 1 (parametric)") || parametric > 1)
          return s.fail("0 or 1 (parametric)");
        if (!read_count(s, count, "a number of nodes in the block")) return false;
        const unsigned first = m.node_count();
        for (unsigned i = 0; i < count; ++i) {
          unsigned t;
          if (!s.read_uint(t, "a node tag")) return false;
          if (!node_index.emplace(t, first + i).second) return s.fail("a node tag not used before");
        }
        // Parametric nodes carry their coordinates on the entity after x y z.
        const unsigned extra = parametric ? dim : 0;
        for (unsigned i = 0; i < count; ++i) {
          for (unsigned k = 0; k < 3 + extra; ++k) {
            double x;
            if (!s.read_double(x, "a finite coordinate")) return false;
            if (k < 3) m.pos.push_back(x);
          }
        }
      }
      if (m.node_count() != total)
        return s.fail(std::to_string(total) + " nodes in the blocks before $EndNodes");
      if (!s.expect("$EndNodes")) return false;
      have_nodes = true;
    } else if (section == "$Elements") {
      if (!have_nodes) return s.fail("$Nodes before $Elements");
      unsigned blocks, total, lo, hi;
      if (!read_count(s, blocks, "an element block count") ||
          !read_count(s, total, "an element count") ||
          !read_count(s, lo, "the smallest element tag") ||
          !read_count(s, hi, "the largest element tag"))
        return false;
      for (unsigned b = 0; b < blocks; ++b) {
        unsigned dim, tag, type, count;
        if (!read_count(s, dim, "an entity dimension") || dim > 3)
          return s.fail("an entity dimension from 0 to 3");
        if (!read_count(s, tag, "an entity tag")) return false;
        if (!read_count(s, type, "an element type")) return false;
        const unsigned width = nodes_of_type(type);
        if (!width) return s.fail("a known element type");
        if (!read_count(s, count, "a number of elements in the block")) return false;
        // Second-order tets (11) and triangles (9) list their corners first.
        element_rows* rows = type == msh_point                     ? &points
                             : type == msh_line                    ? &lines
                             : (type == msh_triangle || type == 9) ? &triangles
                             : (type == msh_tet || type == 11)     ? &tets
                                                                   : nullptr;
        const unsigned keep = rows == &points ? 1 : rows == &lines ? 2 : rows == &triangles ? 3 : 4;
        const auto it = physical[dim].find(tag);
        const unsigned phys = it == physical[dim].end() ? 0 : it->second;
        const unsigned ref = std::max(phys ? phys : tag, 1u) - 1;
        if (ref > max_ref)
          return s.fail("an entity tag from 1 to " + std::to_string(max_ref + 1ull));
        for (unsigned e = 0; e < count; ++e) {
          unsigned etag;
          if (!s.read_uint(etag, "an element tag")) return false;
          if (rows) rows->tags.push_back(etag);
          for (unsigned j = 0; j < width; ++j) {
            unsigned t;
            if (!s.read_uint(t, "a node tag")) return false;
            const auto n = node_index.find(t);
            if (n == node_index.end()) return s.fail("a node tag listed in $Nodes");
            if (rows && j < keep) rows->nodes.push_back(n->second);
          }
          if (rows) rows->refs.push_back(ref);
        }
      }
      if (!s.expect("$EndElements")) return false;
    } else {
      if (!skip_section(s, section)) return false;
    }
  }
  if (!have_format) return s.fail("$MeshFormat");
  sort_rows(points, 1, m.hard_nodes, nullptr);
  sort_rows(lines, 2, m.edges, nullptr);
  sort_rows(triangles, 3, m.triangles, &m.triangle_refs);
  sort_rows(tets, 4, m.tets, &m.tet_refs);
  return true;
}

}  // namespace kelvo::mesh_io
