// Boundary recovery on input built to be hard: hard edges a hair's breadth from lattice nodes and
// faces, an edge through layers of nearly flat tets, hard nodes 1e-9 from a hard face or edge,
// walls along the planes of a cospherical lattice, and plates 1e-4 thick. Each run ends with every
// hard entity in a sound mesh of the enclosed volume, or with codes and lists that say exactly
// what is lacking; equal input gives an equal mesh.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "surface_fixtures.h"

using kelvo::voxfill::mesher;
using namespace surfaces;

namespace {

struct options {
  bool refine = false;  // false: no refinement and no optimisation, the recovered mesh itself
  bool strict = true;
  unsigned subdomain_rule = 0;
};

data_type run(const input& s, options o = {}) {
  mesher::settings_type st;
  if (!o.refine) {
    st.refine = false;
    st.optim_level = 0;
  }
  st.strict_constraints = o.strict;
  st.subdomain_rule = o.subdomain_rule;
  data_type d = record_of(s);
  mesher(st).run(d);
  return d;
}

std::string label(const std::string& name, options o) {
  return name + (o.refine ? " (refined)" : "") + (o.strict ? "" : " (not strict)");
}

// Every hard node of the input: those of the triangles, of the edges and the listed ones, sorted.
std::vector<unsigned> hard_nodes(const input& s) {
  std::set<unsigned> all(s.nodes.begin(), s.nodes.end());
  for (const triangle& t : s.tris) all.insert(t.begin(), t.end());
  for (const auto& e : s.edges) all.insert(e.begin(), e.end());
  return {all.begin(), all.end()};
}

// What the mesh lacks by node numbers, in the order of the output lists: columns of the
// triangles and of the edges, and hard nodes in ascending order.
struct absent_lists {
  std::vector<unsigned> faces, edges, nodes;
};

absent_lists absent_by_index(const data_type& d, const input& s) {
  std::set<std::array<unsigned, 3>> faces;
  std::set<std::array<unsigned, 2>> edges;
  std::set<unsigned> nodes;
  for (unsigned t = 0; t < d.connectM.cols; ++t)
    for (unsigned i = 0; i < 4; ++i) {
      nodes.insert(d.connectM(i, t));
      for (unsigned j = i + 1; j < 4; ++j) {
        edges.insert({std::min(d.connectM(i, t), d.connectM(j, t)),
                      std::max(d.connectM(i, t), d.connectM(j, t))});
        for (unsigned k = j + 1; k < 4; ++k) {
          std::array<unsigned, 3> f = {d.connectM(i, t), d.connectM(j, t), d.connectM(k, t)};
          std::sort(f.begin(), f.end());
          faces.insert(f);
        }
      }
    }
  absent_lists a;
  for (unsigned c = 0; c < s.tris.size(); ++c) {
    std::array<unsigned, 3> f = s.tris[c];
    std::sort(f.begin(), f.end());
    if (!faces.count(f)) a.faces.push_back(c);
  }
  for (unsigned c = 0; c < s.edges.size(); ++c)
    if (!edges.count(
            {std::min(s.edges[c][0], s.edges[c][1]), std::max(s.edges[c][0], s.edges[c][1])}))
      a.edges.push_back(c);
  for (unsigned n : hard_nodes(s))
    if (!nodes.count(n)) a.nodes.push_back(n);
  return a;
}

std::vector<unsigned> list_of(const kelvo::dense1D<unsigned>& l) {
  return std::vector<unsigned>(l.begin(), l.end());
}

// Everything of the input held, sound, and `V` filled (the enclosed volume when not given).
void expect_whole(const data_type& d, const input& s, const std::string& name, double V = -1.0) {
  ASSERT_EQ(d.error_code, 0) << name << ": " << d.msg_title << " " << d.msg_text;
  ASSERT_GT(d.connectM.cols, 0u) << name;
  // A shape quality warning is all that may come with a whole mesh: some cases force flat tets.
  EXPECT_TRUE(d.warning_code == 0 || d.warning_code == -16)
      << name << ": " << d.warning_code << " " << d.msg_title << " " << d.msg_text;
  EXPECT_TRUE(sound(d)) << name;
  const absent_count a = absent_by_coords(d, s);
  EXPECT_EQ(a.faces, 0u) << name;
  EXPECT_EQ(a.edges, 0u) << name;
  EXPECT_EQ(a.nodes, 0u) << name;
  EXPECT_EQ(d.missing_faces.size + d.missing_edges.size + d.missing_nodes.size, 0u) << name;
  EXPECT_EQ(d.conflicting_faces.size, 0u) << name;
  EXPECT_EQ(d.hard_nodes_out, d.hard_nodes_in) << name;
  EXPECT_EQ(d.hard_edges_out, d.hard_edges_in) << name;  // no edge given both ways here
  if (V < 0.0) V = enclosed_volume(s);
  EXPECT_NEAR(mesh_volume(d), V, 1e-9 * V) << name;
  EXPECT_NEAR(d.volume, V, 1e-9 * V) << name;
}

// The conflict codes and their exact words, strict (errors) or not (warnings).
void expect_conflict_code(const data_type& d, bool strict, const std::string& name) {
  struct row {
    int code;
    const char* title;
    const char* words;
  };
  const row rows[] = {
      {-104, "NODE ERROR", "Hard node(s) in hard entity (node, edge or face)."},
      {-105, "EDGE ERROR", "Hard edge(s) intersecting another hard entity (edge or face)."},
      {-106, "FACE ERROR", "Hard face(s) intersecting another hard entity (edge or face)."},
      {-12, "NODE WARNING", "Hard node(s) in hard entity (node, edge or face)."},
      {-13, "EDGE WARNING", "Hard edge(s) intersecting another hard entity (edge or face)."},
      {-14, "FACE WARNING", "Hard face(s) intersecting another hard entity (edge or face)."}};
  const int code = strict ? d.error_code : d.warning_code;
  if (!strict) {
    EXPECT_EQ(d.error_code, 0) << name << ": " << d.msg_title;
  }
  const row* hit = nullptr;
  for (const row& r : rows)
    if (r.code == code) hit = &r;
  ASSERT_NE(hit, nullptr) << name << ": code " << code << " " << d.msg_title;
  EXPECT_EQ(std::string(d.msg_title), hit->title) << name;
  const std::string text = d.msg_text;
  EXPECT_EQ(text.substr(0, text.find('\n')), hit->words) << name;
  EXPECT_NE(text.find("\nFile = "), std::string::npos) << name;
}

// A run that could not hold everything says so: a strict conflict is an error with no mesh; any
// other shortfall is a warning, and then the lists name exactly what the sound mesh lacks. A run
// with nothing listed holds everything and fills `V`.
void expect_held_or_reported(const data_type& d, const input& s, bool strict,
                             const std::string& name, double V) {
  const size_t listed = d.missing_faces.size + d.missing_edges.size + d.missing_nodes.size;
  if (d.error_code != 0) {
    ASSERT_TRUE(strict) << name << ": " << d.msg_title;
    expect_conflict_code(d, true, name);
    EXPECT_EQ(d.connectM.cols, 0u) << name;
    EXPECT_GT(listed + d.conflicting_faces.size, 0u) << name;
    return;
  }
  if (listed == 0 && d.conflicting_faces.size == 0) {
    expect_whole(d, s, name, V);
    return;
  }
  EXPECT_TRUE(d.warning_code >= -15 && d.warning_code <= -12)
      << name << ": " << d.warning_code << " " << d.msg_title;
  if (strict) {
    // A conflict would have been an error.
    EXPECT_EQ(d.conflicting_faces.size, 0u) << name;
  }
  ASSERT_GT(d.connectM.cols, 0u) << name;
  EXPECT_TRUE(sound(d)) << name;
  const absent_lists a = absent_by_index(d, s);
  EXPECT_EQ(list_of(d.missing_faces), a.faces) << name;
  EXPECT_EQ(list_of(d.missing_edges), a.edges) << name;
  EXPECT_EQ(list_of(d.missing_nodes), a.nodes) << name;
  const absent_count c = absent_by_coords(d, s);
  EXPECT_EQ(c.faces, a.faces.size()) << name;
  EXPECT_EQ(c.edges, a.edges.size()) << name;
}

bool same_bits(const data_type& a, const data_type& b) {
  if (a.connectM.cols != b.connectM.cols || a.pos.cols != b.pos.cols) return false;
  for (unsigned t = 0; t < a.connectM.cols; ++t)
    if (std::memcmp(a.connectM.col(t), b.connectM.col(t), 4 * sizeof(unsigned))) return false;
  for (unsigned n = 0; n < a.pos.cols; ++n)
    if (std::memcmp(a.pos.col(n), b.pos.col(n), 3 * sizeof(double))) return false;
  return a.colors.size == b.colors.size &&
         !std::memcmp(a.colors.data(), b.colors.data(), a.colors.size * sizeof(unsigned));
}

unsigned add_node(input& s, point p, bool hard) {
  s.pts.push_back(p);
  const unsigned n = unsigned(s.pts.size() - 1);
  if (hard) s.nodes.push_back(n);
  return n;
}

void add_edge(input& s, point a, point b) {
  const unsigned p = add_node(s, a, false);
  const unsigned q = add_node(s, b, false);
  s.edges.push_back({p, q});
}

// The box [0, 1]^3 sliced in quarters, its 27 inner lattice nodes hard, and hard edges along
// lattice lines or a lattice diagonal, each set off by 1e-6 so that it passes that close to three
// lattice nodes and along the faces between them, without touching any. The edges keep 0.08 or
// more apart from each other.
input lattice_with_offset_edges() {
  input s;
  add_box(s, 4);
  for (unsigned i = 1; i < 4; ++i)
    for (unsigned j = 1; j < 4; ++j)
      for (unsigned k = 1; k < 4; ++k) add_node(s, {i / 4.0, j / 4.0, k / 4.0}, true);
  const double e = 1e-6;
  add_edge(s, {0.25 + e, 0.25 + e, 0.05}, {0.25 + e, 0.25 + e, 0.95});
  add_edge(s, {0.75 - e, 0.75, 0.05}, {0.75 - e, 0.75, 0.95});  // in a lattice plane
  add_edge(s, {0.05, 0.5 + e, 0.25 - e}, {0.95, 0.5 + e, 0.25 - e});
  add_edge(s, {0.05, 0.5, 0.75 + e}, {0.95, 0.5, 0.75 + e});
  add_edge(s, {0.5 + e, 0.05, 0.5}, {0.5 + e, 0.4, 0.5});
  add_edge(s, {0.1 + e, 0.9, 0.1}, {0.9 + e, 0.1, 0.9});  // 8e-7 from three lattice nodes
  return s;
}

// Five layers of hard nodes at z = 0.3 ... 0.7, each a jittered 5 x 5 grid whose heights differ
// by at most 1e-7: the tets between the nodes of one layer are nearly flat. One hard edge crosses
// all the layers obliquely; another runs inside the middle layer, among its flat tets.
input flat_layers() {
  input s;
  add_box(s, 2);
  std::mt19937 gen(11);
  auto jitter = [&gen](double scale) { return scale * (gen() / 4294967296.0 - 0.5); };
  for (unsigned layer = 0; layer < 5; ++layer)
    for (unsigned i = 0; i < 5; ++i)
      for (unsigned j = 0; j < 5; ++j) {
        const double x = 0.2 + 0.15 * i + jitter(0.02), y = 0.2 + 0.15 * j + jitter(0.02);
        add_node(s, {x, y, 0.3 + 0.1 * layer + jitter(1e-7)}, true);
      }
  add_edge(s, {0.43, 0.47, 0.1}, {0.57, 0.52, 0.9});
  add_edge(s, {0.1, 0.24, 0.5}, {0.9, 0.29, 0.5});
  return s;
}

// The box [0, 1]^3 and a hard triangle and a hard edge inside it. `where` puts one hard node:
// 0: 1e-9 above the triangle, 1: 1e-9 beside the edge, 2: 1e-9 inside the box from a boundary
// face, 3: 1e-9 from a boundary edge, 4: in the triangle's plane, inside it (a true conflict),
// 5: on the edge (a true conflict).
input near_conflict(unsigned where) {
  input s;
  add_box(s, 2);
  const unsigned a = add_node(s, {0.3, 0.3, 0.6}, false);
  const unsigned b = add_node(s, {0.7, 0.3, 0.6}, false);
  const unsigned c = add_node(s, {0.5, 0.7, 0.6}, false);
  s.tris.push_back({a, b, c});
  add_edge(s, {0.2, 0.5, 0.3}, {0.8, 0.5, 0.3});
  const point spots[6] = {{0.5, 0.45, 0.6 + 1e-9},   {0.5, 0.5 + 1e-9, 0.3}, {0.3, 0.2, 1e-9},
                          {0.25, 0.25 + 1e-9, 1e-9}, {0.5, 0.45, 0.6},       {0.5, 0.5, 0.3}};
  add_node(s, spots[where], true);
  return s;
}

// The squares of a k x k grid on the plane `axis` = `at` of [0, 1]^3, as triangles of `s` whose
// nodes are looked up by coordinates. `flip` alternates the diagonals, as on a chequerboard.
void add_wall(input& s, unsigned axis, double at, unsigned k, bool two_way, bool flip) {
  auto node = [&](point p) {
    for (unsigned j = 0; j < s.pts.size(); ++j)
      if (s.pts[j] == p) return j;
    s.pts.push_back(p);
    return unsigned(s.pts.size() - 1);
  };
  for (unsigned i = 0; i < k; ++i)
    for (unsigned j = 0; j < k; ++j) {
      unsigned q[4];
      const unsigned u[4] = {i, i + 1, i + 1, i}, v[4] = {j, j, j + 1, j + 1};
      for (unsigned c = 0; c < 4; ++c) {
        point p;
        p[axis] = at;
        p[(axis + 1) % 3] = double(u[c]) / k;
        p[(axis + 2) % 3] = double(v[c]) / k;
        q[c] = node(p);
      }
      std::vector<triangle> two;
      if (flip && (i + j) % 2)
        two = {{q[0], q[1], q[3]}, {q[1], q[2], q[3]}};
      else
        two = {{q[0], q[1], q[2]}, {q[0], q[2], q[3]}};
      for (const triangle& t : two) {
        s.tris.push_back(t);
        if (two_way) s.tris.push_back({t[0], t[2], t[1]});
      }
    }
}

// The 4 x 4 x 4 lattice of [0, 1]^3 in thirds, every node on a sphere with many others, cut into
// 2 x 2 x 2 cells by walls along the planes x = 1/3, y = 2/3, z = 1/3.
input lattice_cells(bool two_way) {
  input s;
  add_box(s, 3);
  add_wall(s, 0, 1.0 / 3.0, 3, two_way, true);
  add_wall(s, 1, 2.0 / 3.0, 3, two_way, false);
  add_wall(s, 2, 1.0 / 3.0, 3, two_way, true);
  for (unsigned i = 1; i < 3; ++i)
    for (unsigned j = 1; j < 3; ++j)
      for (unsigned k = 1; k < 3; ++k) {
        const point p = {i / 3.0, j / 3.0, k / 3.0};
        if (std::find(s.pts.begin(), s.pts.end(), p) == s.pts.end()) add_node(s, p, true);
      }
  return s;
}

// The surface of the box [lo, hi], each side split in k x k, turned inwards when `inward`. Nodes
// already in `s` at the same place are shared, so that a second call makes the same triangles.
void add_cuboid(input& s, point lo, point hi, unsigned k, bool inward) {
  input box;
  add_box(box, k);
  std::vector<unsigned> node;
  for (point p : box.pts) {
    for (unsigned i = 0; i < 3; ++i) p[i] = lo[i] + p[i] * (hi[i] - lo[i]);
    const auto it = std::find(s.pts.begin(), s.pts.end(), p);
    node.push_back(unsigned(it - s.pts.begin()));
    if (it == s.pts.end()) s.pts.push_back(p);
  }
  for (triangle t : box.tris) {
    if (inward) std::swap(t[1], t[2]);
    s.tris.push_back({node[t[0]], node[t[1]], node[t[2]]});
  }
}

// The volume of each subdomain, by colour.
std::vector<double> volumes_by_color(const data_type& d) {
  std::vector<double> v(d.subdomains, 0.0);
  for (unsigned t = 0; t < d.connectM.cols && t < d.colors.size; ++t) {
    if (d.colors[t] >= v.size()) continue;
    v[d.colors[t]] += std::abs(kelvo::voxfill::orient_det(
                          d.pos.col(d.connectM(0, t)), d.pos.col(d.connectM(1, t)),
                          d.pos.col(d.connectM(2, t)), d.pos.col(d.connectM(3, t)))) /
                      6.0;
  }
  std::sort(v.begin(), v.end());
  return v;
}

}  // namespace

TEST(HardCases, EdgesAMicronFromLatticeNodesAndFaces) {
  const input s = lattice_with_offset_edges();
  for (bool refine : {false, true}) {
    const options o{refine};
    const data_type d = run(s, o);
    expect_whole(d, s, label("offset edges", o));
    EXPECT_EQ(d.subdomains, 1u);
    // The input's nodes keep their places and numbers.
    for (unsigned n = 0; n < s.pts.size(); ++n) ASSERT_EQ(at(d, n), s.pts[n]) << n;
  }
}

TEST(HardCases, DiagonalByNodesUnderAnyNumbering) {
  // The lattice's diagonal alone, 8e-7 from three hard nodes, under renumberings of the input:
  // the order in which the kernel meets the nodes changes the pipe round the diagonal, and every
  // one of them must still let it in.
  input s = lattice_with_offset_edges();
  const std::array<unsigned, 2> diagonal = s.edges.back();
  s.edges = {diagonal};
  for (unsigned seed = 1; seed <= 12; ++seed) {
    std::mt19937 gen(seed);
    std::vector<unsigned> to(s.pts.size());
    for (unsigned i = 0; i < to.size(); ++i) to[i] = i;
    std::shuffle(to.begin(), to.end(), gen);
    input t;
    t.pts.resize(s.pts.size());
    for (unsigned i = 0; i < to.size(); ++i) t.pts[to[i]] = s.pts[i];
    for (const triangle& f : s.tris) t.tris.push_back({to[f[0]], to[f[1]], to[f[2]]});
    t.edges.push_back({to[diagonal[0]], to[diagonal[1]]});
    for (unsigned n : s.nodes) t.nodes.push_back(to[n]);
    expect_whole(run(t), t, "numbering " + std::to_string(seed));
  }
}

TEST(HardCases, EdgeThroughLayersOfFlatTets) {
  const input s = flat_layers();
  for (bool refine : {false, true}) {
    const options o{refine};
    expect_whole(run(s, o), s, label("flat layers", o));
  }
  // The smallest of it: a hard edge through the flat tets of three nodes that stand `dz` off its
  // plane, alternately above and below.
  for (double dz : {1e-12, 1e-9, 3e-8, 1e-6}) {
    input t;
    add_box(t, 2);
    add_node(t, {0.35, 0.35, 0.5 - dz}, true);
    add_node(t, {0.64, 0.2, 0.5 + dz}, true);
    add_node(t, {0.8, 0.34, 0.5 - dz}, true);
    add_edge(t, {0.1, 0.24, 0.5}, {0.9, 0.29, 0.5});
    expect_whole(run(t), t, "three nodes " + ::testing::PrintToString(dz) + " off");
  }
}

TEST(HardCases, HardNodesANanometreFromHardFacesAndEdges) {
  const char* names[6] = {
      "node over face", "node beside edge", "node over boundary face", "node beside boundary edge",
      "node in face",   "node on edge"};
  for (unsigned where = 0; where < 6; ++where)
    for (bool strict : {true, false}) {
      const input s = near_conflict(where);
      const options o{false, strict};
      const std::string name = label(names[where], o);
      const data_type d = run(s, o);
      expect_held_or_reported(d, s, strict, name, 1.0);
      if (where >= 4) {
        // A node in a hard face or on a hard edge cannot be held with them: a conflict, an error
        // when strict, a warning that lists it otherwise.
        expect_conflict_code(d, strict, name);
        // The face or the edge gives way, and is named; the node stays.
        const unsigned face = unsigned(s.tris.size() - 1);
        if (where == 4) {
          EXPECT_EQ(list_of(d.missing_faces), std::vector<unsigned>{face}) << name;
          EXPECT_EQ(list_of(d.conflicting_faces), std::vector<unsigned>{face}) << name;
        } else {
          EXPECT_EQ(list_of(d.missing_edges), std::vector<unsigned>{0}) << name;
        }
        EXPECT_EQ(d.missing_nodes.size, 0u) << name;
      }
    }
  // With refinement and optimisation, the near-conflicts that the recovery holds stay held.
  for (unsigned where = 0; where < 4; ++where) {
    const input s = near_conflict(where);
    const options o{true};
    expect_held_or_reported(run(s, o), s, true, label(names[where], o), 1.0);
  }
}

TEST(HardCases, WallsAlongThePlanesOfACosphericalLattice) {
  // Walls given both ways are walls between subdomains; given once, rule 1 makes every region
  // behind them a subdomain.
  const std::vector<double> cells = {1.0 / 27, 2.0 / 27, 2.0 / 27, 2.0 / 27,
                                     4.0 / 27, 4.0 / 27, 4.0 / 27, 8.0 / 27};
  for (bool two_way : {true, false})
    for (bool refine : {false, true}) {
      const input s = lattice_cells(two_way);
      options o{refine};
      o.subdomain_rule = two_way ? 0 : 1;
      const std::string name = label(two_way ? "two-way walls" : "walls, rule 1", o);
      const data_type d = run(s, o);
      expect_whole(d, s, name, 1.0);
      ASSERT_EQ(d.subdomains, 8u) << name;
      const std::vector<double> v = volumes_by_color(d);
      for (unsigned c = 0; c < 8; ++c) EXPECT_NEAR(v[c], cells[c], 1e-12) << name << " " << c;
    }
}

TEST(HardCases, PlatesAThousandthOfTheirSizeThick) {
  // The plate as the whole domain.
  input plate;
  add_cuboid(plate, {0, 0, 0}, {1, 1, 1e-4}, 4, false);
  for (bool refine : {false, true}) {
    const options o{refine};
    const data_type d = run(plate, o);
    expect_whole(d, plate, label("plate", o));
    EXPECT_EQ(d.subdomains, 1u);
  }
  // A plate inside a box: walls given both ways (two subdomains), or turned inwards (a hole).
  const double thin = 0.6 * 0.6 * 1e-4;
  for (unsigned kind = 0; kind < 2; ++kind)
    for (bool refine : {false, true}) {
      input s;
      add_box(s, 2);
      add_cuboid(s, {0.2, 0.2, 0.5}, {0.8, 0.8, 0.5 + 1e-4}, 3, true);
      if (kind == 0) add_cuboid(s, {0.2, 0.2, 0.5}, {0.8, 0.8, 0.5 + 1e-4}, 3, false);
      const options o{refine};
      const std::string name = label(kind == 0 ? "plate walls in a box" : "plate hole in a box", o);
      const data_type d = run(s, o);
      expect_whole(d, s, name, kind == 0 ? 1.0 : 1.0 - thin);
      ASSERT_EQ(d.subdomains, kind == 0 ? 2u : 1u) << name;
      if (kind == 0) {
        const std::vector<double> v = volumes_by_color(d);
        EXPECT_NEAR(v[0], thin, 1e-12) << name;
      }
    }
}

TEST(HardCases, EqualInputEqualMesh) {
  const input s = lattice_with_offset_edges();
  for (bool refine : {false, true}) {
    const data_type a = run(s, {refine});
    const data_type b = run(s, {refine});
    ASSERT_EQ(a.error_code, 0);
    EXPECT_TRUE(same_bits(a, b)) << refine;
  }
}
