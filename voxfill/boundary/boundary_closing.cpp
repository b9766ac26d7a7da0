// Closing of a boundary that lost faces or had holes: flood from the box corners, peeling of the
// outline, and the faces between outside and inside made hard.
#include "voxfill/boundary/boundary_closing.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <new>

#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/tet_tables.h"
#include "gridkit/adjacency.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/optim/regularize_mesh.h"
#include "voxfill/optim/regularizer.h"

namespace kelvo::voxfill {

namespace {

// Weight of a unit of free area at an edge: from 0.2 on a flat outline to 1.0 at a fold.
constexpr double FOLD_WEIGHT = 0.8;
constexpr double FLAT_WEIGHT = 0.19999999999999996;  // 1 - 0.8 in double precision
constexpr double INV_PI = 0.3183098861837907;

void push(dense1D<unsigned>& list, unsigned v) {
  const unsigned before = list.size;
  list.push_back(v);
  if (list.size != before + 1) throw std::bad_alloc();
}

void grow(bit_set& bits, unsigned n) {
  if (!bits.grow(n)) throw std::bad_alloc();
}

bool in_sorted(const dense1D<unsigned>& list, unsigned v) noexcept {
  return v != NONE && std::binary_search(list.begin(), list.end(), v);
}

void sort_unique(dense1D<unsigned>& list) noexcept {
  std::sort(list.begin(), list.end());
  list.size = unsigned(std::unique(list.begin(), list.end()) - list.begin());
}

// Pairs turned so that the smaller node comes first, sorted by (first, second), each once.
void sort_edges(dense2D<unsigned>& edges) {
  std::vector<std::pair<unsigned, unsigned>> pairs;
  pairs.reserve(edges.cols);
  for (unsigned j = 0; j < edges.cols; ++j)
    pairs.emplace_back(std::min(edges(0, j), edges(1, j)), std::max(edges(0, j), edges(1, j)));
  std::sort(pairs.begin(), pairs.end());
  pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());
  if (!edges.resize(2, unsigned(pairs.size()))) throw std::bad_alloc();
  for (unsigned j = 0; j < pairs.size(); ++j)
    edges(0, j) = pairs[j].first, edges(1, j) = pairs[j].second;
}

void append_edge(dense2D<unsigned>& edges, unsigned a, unsigned b) {
  const unsigned j = edges.cols;
  if (!edges.resize(2, j + 1)) throw std::bad_alloc();
  edges(0, j) = a;
  edges(1, j) = b;
}

// Nodes of face f of tet t, in the order of the face table.
void face_nodes(const mesh_store& m, unsigned t, unsigned f, unsigned* n) noexcept {
  const unsigned* r = m.tets.row(t);
  for (unsigned k = 0; k < 3; ++k) n[k] = r[tet_face_nodes[f][k]];
}

bool hard_face(const mesh_store& m, const unsigned* n) noexcept {
  return m.hard_set.has_face(n[0], n[1], n[2]);
}

// Side i of a face: the nodes at positions i + 1 and i + 2.
void side(const unsigned* n, unsigned i, unsigned& a, unsigned& b) noexcept {
  a = n[(i + 1) % 3];
  b = n[(i + 2) % 3];
}

void report(boundary_closer& bc, const char* format, unsigned count) {
  char line[96];
  std::snprintf(line, sizeof line, format, int(count));
  if (bc.task) bc.task->display(2, line);
}

// The dropped region grows from the corners of the box, through faces that are not hard and not
// spanned by nodes of a rim or of a given-up entity.
void flood(boundary_closer& bc, bit_set& visited, bit_set& kept) {
  th4_engine& m = bc.engine;
  dense1D<unsigned> queue;
  for (unsigned k = 0; k < m.box_nodes.size; ++k) {
    const unsigned v = m.box_nodes[k];
    if (v < m.ancestors.size && m.ancestors[v] != NONE) push(queue, m.ancestors[v]);
  }
  for (unsigned head = 0; head < queue.size; ++head) {
    const unsigned t = queue[head];
    if (visited.test(t)) continue;
    visited.set(t);
    const unsigned* r = m.tets.row(t);
    bool all_hard = true;
    for (unsigned i = 0; i < 4; ++i) all_hard &= m.hard_set.has_node(r[i]);
    if (all_hard && (bc.shielded_tets.test(t) || !can_drop_tet(bc, t))) continue;
    for (unsigned f = 0; f < 4; ++f) {
      unsigned n[3];
      face_nodes(m, t, f, n);
      if (hard_face(m, n)) continue;
      if (bc.open_nodes.test(n[0]) && bc.open_nodes.test(n[1]) && bc.open_nodes.test(n[2]))
        continue;
      if (bc.patho_nodes.test(n[0]) && bc.patho_nodes.test(n[1]) && bc.patho_nodes.test(n[2]))
        continue;
      const unsigned nb = m.neighbors(f, t);
      if (nb != NONE && !visited.test(nb)) push(queue, nb);
    }
    drop_tet(bc, t, kept);
  }
}

}  // namespace

unsigned* boundary_closer::closing_count(unsigned a, unsigned b, unsigned c) noexcept {
  const unsigned e = closing_faces.find(face_key{{a, b, c}});
  return e == NONE || e >= closing_counts.size ? nullptr : &closing_counts[e];
}

void fill_closer(boundary_closer& bc, const dense2D<unsigned>& connectB) {
  th4_engine& m = bc.engine;
  bc.closing_faces.clear();
  bc.closing_counts.clear();
  bc.open_edges.clear();
  bc.open_nodes.clear();
  bc.patho_nodes.clear();
  grow(bc.open_nodes, m.nodes.cols());
  grow(bc.patho_nodes, m.nodes.cols());
  // The faces that the mesh does not hold are given up; their edges and nodes stay hard.
  for (unsigned j = 0; j < connectB.cols; ++j) {
    const unsigned* tri = connectB.col(j);
    if (find_face_tet(m, tri[0], tri[1], tri[2], bc.shell) != NONE) continue;
    const face_key k{{tri[0], tri[1], tri[2]}};
    m.hard_set.faces.erase(k);
    m.hard_set.two_way_faces.erase(k);
  }
  const face_set& faces = m.hard_set.faces;
  dense2D<unsigned> table(3, 0);
  if (!table.reserve(3, faces.size())) throw std::bad_alloc();
  for (unsigned e = 0; e < faces.keys.size; ++e) {
    if (!faces.live(e)) continue;
    const face_key& k = faces.keys[e];
    const unsigned j = table.cols;
    if (!table.resize(3, j + 1)) throw std::bad_alloc();
    for (unsigned i = 0; i < 3; ++i) table(i, j) = k.n[i];
    const unsigned entry = bc.closing_faces.keys.size;
    if (bc.closing_faces.insert(k) != 2) throw std::bad_alloc();
    if (!bc.closing_counts.resize(entry + 1)) throw std::bad_alloc();
    bc.closing_counts[entry] = 2;
  }
  dense2D<unsigned> neighbours;
  if (gridkit::get_neighbors(table, TRIA3, true, neighbours) != 0) throw std::bad_alloc();
  for (unsigned j = 0; j < table.cols; ++j)
    for (unsigned i = 0; i < 3; ++i) {
      if (neighbours(i, j) != NONE) continue;
      unsigned a, b;
      side(table.col(j), i, a, b);
      if (bc.open_edges.insert(edge_key{{a, b}}) == 0) throw std::bad_alloc();
      bc.open_nodes.set(a);
      bc.open_nodes.set(b);
    }
  const entity_set& u = m.unenforced_set;
  auto patho = [&](unsigned v) {
    grow(bc.patho_nodes, v + 1);
    bc.patho_nodes.set(v);
  };
  for (unsigned e = 0; e < u.faces.keys.size; ++e)
    if (u.faces.live(e))
      for (unsigned v : u.faces.keys[e].n) patho(v);
  for (unsigned e = 0; e < u.edges.keys.size; ++e)
    if (u.edges.live(e))
      for (unsigned v : u.edges.keys[e].n) patho(v);
  for (unsigned v = 0; v < u.node_bits.length; ++v)
    if (u.node_bits.test(v)) patho(v);
}

void shield_tets(boundary_closer& bc) {
  th4_engine& m = bc.engine;
  bc.shielded_tets.clear();
  grow(bc.shielded_tets, m.tets.cols());
  auto shield = [&](const bit_set& nodes) {
    for (unsigned v = 0; v < nodes.length; ++v) {
      if (!nodes.test(v) || v >= m.ancestors.size || m.ancestors[v] == NONE) continue;
      ball_of_node(m, v, m.ancestors[v], bc.list);
      for (unsigned t : bc.list) bc.shielded_tets.set(t);
    }
  };
  shield(bc.open_nodes);
  shield(bc.patho_nodes);
}

bool can_drop_tet(boundary_closer& bc, unsigned t) {
  const th4_engine& m = bc.engine;
  for (unsigned f = 0; f < 4; ++f) {
    if (m.neighbors(f, t) == NONE) continue;
    unsigned n[3];
    face_nodes(m, t, f, n);
    const unsigned* count = bc.closing_count(n[0], n[1], n[2]);
    if (count && !(*count > 1)) return false;
  }
  return true;
}

bool drop_tet(boundary_closer& bc, unsigned t, bit_set& kept) {
  if (!kept.test(t)) return false;
  const th4_engine& m = bc.engine;
  for (unsigned f = 0; f < 4; ++f) {
    unsigned n[3];
    face_nodes(m, t, f, n);
    unsigned* count = bc.closing_count(n[0], n[1], n[2]);
    if (count && *count > 0) --*count;
  }
  kept.reset(t);
  return true;
}

void free_faces(boundary_closer& bc, const bit_set& kept, dense2D<unsigned>& faces) {
  const th4_engine& m = bc.engine;
  if (!faces.resize(3, 0)) throw std::bad_alloc();
  for (unsigned t = 0; t < m.tets.cols(); ++t) {
    if (kept.test(t)) continue;
    for (unsigned f = 0; f < 4; ++f) {
      const unsigned nb = m.neighbors(f, t);
      if (nb == NONE || !kept.test(nb)) continue;
      unsigned n[3];
      face_nodes(m, t, f, n);
      if (hard_face(m, n)) continue;
      const unsigned j = faces.cols;
      if (!faces.resize(3, j + 1)) throw std::bad_alloc();
      for (unsigned i = 0; i < 3; ++i) faces(i, j) = n[i];
    }
  }
}

void free_edges(boundary_closer& bc, const bit_set& kept, dense2D<unsigned>& edges) {
  const th4_engine& m = bc.engine;
  dense2D<unsigned> faces(3, 0);
  free_faces(bc, kept, faces);
  if (!edges.resize(2, 0)) throw std::bad_alloc();
  for (unsigned j = 0; j < faces.cols; ++j)
    for (unsigned i = 0; i < 3; ++i) {
      unsigned a, b;
      side(faces.col(j), i, a, b);
      if (!m.hard_set.has_edge(a, b)) append_edge(edges, a, b);
    }
  sort_edges(edges);
}

void split_shell(boundary_closer& bc, unsigned a, unsigned b, const bit_set& kept,
                 dense1D<unsigned>& K, dense1D<unsigned>& D) {
  th4_engine& m = bc.engine;
  K.clear();
  D.clear();
  const unsigned start = a < m.ancestors.size ? m.ancestors[a] : NONE;
  shell_of_edge(m, a, b, start, bc.shell);
  for (unsigned t : bc.shell) push(kept.test(t) ? K : D, t);
  sort_unique(K);
  sort_unique(D);
}

bool may_drop(boundary_closer& bc, const dense1D<unsigned>& R) {
  const th4_engine& m = bc.engine;
  for (unsigned t : R)
    for (unsigned f = 0; f < 4; ++f) {
      unsigned n[3];
      face_nodes(m, t, f, n);
      const unsigned* count = bc.closing_count(n[0], n[1], n[2]);
      if (!count) continue;
      // A hard face must not vanish inside the dropped set, nor lose its last side.
      if (in_sorted(R, m.neighbors(f, t))) return false;
      if (!(*count > 1)) return false;
    }
  return true;
}

unsigned drop_tets(boundary_closer& bc, const dense1D<unsigned>& R, bit_set& kept) {
  unsigned dropped = 0;
  for (unsigned t : R) dropped += drop_tet(bc, t, kept);
  return dropped;
}

unsigned peel_free_edges(boundary_closer& bc, bit_set& kept) {
  dense2D<unsigned> edges(2, 0);
  free_edges(bc, kept, edges);
  dense1D<unsigned> K, D;
  unsigned dropped = 0;
  for (unsigned j = 0; j < edges.cols; ++j) {
    const unsigned a = edges(0, j), b = edges(1, j);
    if (bc.patho_nodes.test(a) || bc.patho_nodes.test(b)) continue;
    if (bc.open_nodes.test(a) && bc.open_nodes.test(b)) continue;
    split_shell(bc, a, b, kept, K, D);
    if (may_drop(bc, K)) dropped += drop_tets(bc, K, kept);
  }
  return dropped;
}

unsigned peel_faces(boundary_closer& bc, bit_set& kept) {
  const th4_engine& m = bc.engine;
  dense2D<unsigned> faces(3, 0);
  free_faces(bc, kept, faces);
  dense1D<unsigned> R, K, D;
  unsigned dropped = 0;
  for (unsigned j = 0; j < faces.cols; ++j) {
    const unsigned* n = faces.col(j);
    for (unsigned k = 0; k < 3; ++k) {
      R.clear();
      for (unsigned i = 0; i < 3; ++i) {
        if (i == k) continue;
        unsigned a, b;
        side(n, i, a, b);
        if (m.hard_set.has_edge(a, b)) continue;
        split_shell(bc, a, b, kept, K, D);
        for (unsigned t : K) push(R, t);
      }
      sort_unique(R);
      if (may_drop(bc, R) && surface_cost(bc, R, kept) < 0.0) {
        dropped += drop_tets(bc, R, kept);
        break;
      }
    }
  }
  return dropped;
}

double surface_cost(boundary_closer& bc, const dense1D<unsigned>& R, const bit_set& kept) {
  const th4_engine& m = bc.engine;
  dense2D<unsigned> edges(2, 0);
  for (unsigned t : R)
    for (unsigned f = 0; f < 4; ++f) {
      if (in_sorted(R, m.neighbors(f, t))) continue;
      unsigned n[3];
      face_nodes(m, t, f, n);
      for (unsigned i = 0; i < 3; ++i) {
        unsigned a, b;
        side(n, i, a, b);
        append_edge(edges, a, b);
      }
    }
  if (edges.cols == 0) return 0.0;
  sort_edges(edges);
  const dense1D<unsigned> none;
  double c = 0.0;
  for (unsigned j = 0; j < edges.cols; ++j) {
    double angle = 0.0, area = 0.0;
    edge_cost(bc, edges(0, j), edges(1, j), kept, none, angle, area);
    c -= (FOLD_WEIGHT * angle + FLAT_WEIGHT) * area;
    edge_cost(bc, edges(0, j), edges(1, j), kept, R, angle, area);
    c += (FOLD_WEIGHT * angle + FLAT_WEIGHT) * area;
  }
  return c;
}

void edge_cost(boundary_closer& bc, unsigned a, unsigned b, const bit_set& kept,
               const dense1D<unsigned>& R, double& angle, double& area) {
  th4_engine& m = bc.engine;
  angle = 0.0;
  area = 0.0;
  dense1D<unsigned> K, D;
  split_shell(bc, a, b, kept, K, D);
  unsigned w = 0;
  for (unsigned t : K) {
    if (in_sorted(R, t))
      push(D, t);
    else
      K[w++] = t;
  }
  K.size = w;
  sort_unique(D);
  if (K.size == 0 || D.size == 0) return;
  unsigned noted = 0;
  double normals[2][3];
  for (unsigned t : K)
    for (unsigned f = 0; f < 4; ++f) {
      if (!in_sorted(D, m.neighbors(f, t))) continue;
      unsigned n[3];
      face_nodes(m, t, f, n);
      if (!hard_face(m, n)) area += face_double_area(m.nodes.data, n[0], n[1], n[2]);
      if (noted < 2) {
        double* N = normals[noted];
        face_normal(m.nodes.data, n[0], n[1], n[2], N);
        const double n2 = geometry_detail::dot3(N, N);
        if (n2 != 0.0 && n2 != 1.0)
          for (unsigned k = 0; k < 3; ++k) N[k] /= std::sqrt(n2);
      }
      ++noted;
    }
  if (noted == 2) {
    const double d = std::clamp(geometry_detail::dot3(normals[0], normals[1]), -1.0, 1.0);
    angle = std::acos(d) * INV_PI;
  } else {
    angle = 1.0;
  }
}

void close_hard_surface(boundary_closer& bc, const dense2D<unsigned>& connectB) {
  th4_engine& m = bc.engine;
  const unsigned T = m.tets.cols();
  bit_set visited, kept;
  grow(visited, T);
  grow(kept, T);
  for (unsigned t = 0; t < T; ++t) kept.set(t);
  fill_closer(bc, connectB);
  const unsigned removed = connectB.cols - std::min(connectB.cols, m.hard_set.faces.size());
  if (bc.task) bc.task->display(2, "Closing boundary mesh...\n");
  report(bc, "   Open edges                  : %d\n", bc.open_edges.size());
  unsigned open = 0, patho = 0;
  for (unsigned v = 0; v < bc.open_nodes.length; ++v) open += bc.open_nodes.test(v);
  for (unsigned v = 0; v < bc.patho_nodes.length; ++v) patho += bc.patho_nodes.test(v);
  report(bc, "   Open nodes                  : %d\n", open);
  report(bc, "   Patho nodes                 : %d\n", patho);
  report(bc, "   Faces removed from boundary : %d\n", removed);
  shield_tets(bc);
  flood(bc, visited, kept);
  while (peel_free_edges(bc, kept) != 0) {
  }
  dense2D<unsigned> edges(2, 0);
  dense1D<unsigned> K, D;
  for (unsigned dropped = 1; dropped != 0;) {
    dropped = 0;
    free_edges(bc, kept, edges);
    for (unsigned j = 0; j < edges.cols; ++j) {
      split_shell(bc, edges(0, j), edges(1, j), kept, K, D);
      if (may_drop(bc, K) && surface_cost(bc, K, kept) < 0.0) dropped += drop_tets(bc, K, kept);
    }
    dropped += peel_faces(bc, kept);
  }
  // The faces between the outside and the inside close the surface.
  dense2D<unsigned> faces(3, 0);
  free_faces(bc, kept, faces);
  for (unsigned j = 0; j < faces.cols; ++j)
    if (!bc.added_set.add_face(faces(0, j), faces(1, j), faces(2, j), false))
      throw std::bad_alloc();
  report(bc, "   Faces added to boundary     : %d\n", bc.added_set.faces.size());
  entity_set& hard = m.hard_set;
  const entity_set& added = bc.added_set;
  for (unsigned v = 0; v < added.node_bits.length; ++v)
    if (added.node_bits.test(v) && !hard.add_node(v)) throw std::bad_alloc();
  for (unsigned e = 0; e < added.edges.keys.size; ++e)
    if (added.edges.live(e)) {
      const edge_key& k = added.edges.keys[e];
      if (!hard.add_edge(k.n[0], k.n[1], false)) throw std::bad_alloc();
    }
  for (unsigned e = 0; e < added.two_way_edges.keys.size; ++e)
    if (added.two_way_edges.live(e) && hard.two_way_edges.insert(added.two_way_edges.keys[e]) == 0)
      throw std::bad_alloc();
  for (unsigned e = 0; e < added.faces.keys.size; ++e)
    if (added.faces.live(e)) {
      const face_key& k = added.faces.keys[e];
      if (!hard.add_face(k.n[0], k.n[1], k.n[2], false)) throw std::bad_alloc();
    }
  for (unsigned e = 0; e < added.two_way_faces.keys.size; ++e)
    if (added.two_way_faces.live(e) && hard.two_way_faces.insert(added.two_way_faces.keys[e]) == 0)
      throw std::bad_alloc();
}

void close_boundary(th4_engine& e, const mesher::data_type& data) {
  regularizer g(e, false, false, false);
  if (e.tasks) g.task = e.tasks->section(0.0, 0);
  g.merit.shape_weight = 1.0;
  boundary_closer bc(e, e.tasks ? e.tasks->phase_task(phase_recovery) : Ptr<task_type>());
  if (e.must_stop()) return;
  const dense2D<unsigned>& B = data.connectB;
  try {
    // The nodes of the faces that the mesh lacks; sweeps round them may still bring some in.
    dense1D<unsigned> missing;
    bit_set seen;
    grow(seen, e.nodes.cols());
    for (unsigned j = 0; j < B.cols; ++j) {
      const unsigned* tri = B.col(j);
      if (find_face_tet(e, tri[0], tri[1], tri[2], bc.shell) != NONE) continue;
      for (unsigned k = 0; k < 3; ++k)
        if (tri[k] < e.nodes.cols() && !seen.test(tri[k])) {
          seen.set(tri[k]);
          push(missing, tri[k]);
        }
    }
    for (double gain = DBL_MAX; gain > 2.0;) {
      dense1D<unsigned> list, edges, new_nodes;
      bit_set listed;
      grow(listed, e.tets.cols());
      for (unsigned v : missing) {
        if (v >= e.ancestors.size || e.ancestors[v] == NONE) continue;
        ball_of_node(e, v, e.ancestors[v], bc.list);
        for (unsigned t : bc.list)
          if (!listed.test(t)) {
            listed.set(t);
            push(list, t);
          }
      }
      unsigned nodes_left = 0, moves = 0;
      gain = sweep_tets(g, list, 0.0, DBL_MAX, 5, false, false, 1.05, 1.05, edges, nodes_left,
                        moves, new_nodes);
    }
    dense1D<unsigned> map;
    e.compact_tets(map);
    close_hard_surface(bc, B);
  } catch (const std::bad_alloc&) {
    // What could not be done shows in the report and in the checks that follow.
  }
  bc.closing_faces.clear_hard();
  bc.added_set.clear_hard();
}

}  // namespace kelvo::voxfill
