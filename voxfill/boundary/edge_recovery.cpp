// Edge recovery: crossing searches from the ball of one end, obstacles by kind, reconnections that
// keep clear of a target, splits of crossing edges, and the list pass.
#include "voxfill/boundary/edge_recovery.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/tet_tables.h"
#include "voxfill/boundary/intersection_tests.h"
#include "voxfill/boundary/pipe_recovery.h"
#include "voxfill/optim/shell_reconnection.h"
#include "voxfill/refine/size_field.h"

namespace kelvo::voxfill {

namespace {

bool face_holds(const unsigned* f, unsigned n) {
  return f[0] == n || f[1] == n || f[2] == n;
}

// The nodes of coded face c, in table order.
void coded_face_nodes(const mesh_store& m, unsigned c, unsigned* f) {
  const unsigned* r = m.tets.row(c >> 2);
  const unsigned* fn = tet_face_nodes[c & 3u];
  f[0] = r[fn[0]], f[1] = r[fn[1]], f[2] = r[fn[2]];
}

// A crossing of the segment AB with face f that is more than a touch at a shared node.
bool face_crossed(const mesh_store& m, const unsigned* f, const double* A, const double* B,
                  unsigned a, unsigned b, double d) {
  if (segment_triangle_apart(m.nodes.data, f[0], f[1], f[2], A, B, d)) return false;
  const triangle_contact c =
      intersect_segment_triangle(m.nodes.data, f[0], f[1], f[2], A, B, d, false);
  if (!(c.in_face && c.on_segment)) return false;
  return c.strict || !(face_holds(f, a) || face_holds(f, b));
}

bool shell_one_colour(const mesh_store& m, const dense1D<unsigned>& shell) {
  for (unsigned k = 1; k < shell.size; ++k)
    if (m.colors[shell[k]] != m.colors[shell[0]]) return false;
  return true;
}

// Whether the new edge xy runs across the target.
bool crosses_target(const mesh_store& m, unsigned x, unsigned y, const recovery_target& target,
                    double d) {
  if (target.count == 2) {
    if (target.n[0] == target.n[1]) return false;
    const segment_contact c =
        intersect_node_edges(m.nodes.data, target.n[0], target.n[1], x, y, d, false);
    return c.on_first && c.on_second;
  }
  const unsigned* f = target.n;
  if (face_holds(f, x) && face_holds(f, y)) return false;
  if (segment_triangle_apart(m.nodes.data, f[0], f[1], f[2], m.nodes.row(x), m.nodes.row(y), d))
    return false;
  const triangle_contact c = intersect_segment_triangle(m.nodes.data, f[0], f[1], f[2],
                                                        m.nodes.row(x), m.nodes.row(y), d, false);
  if (!(c.in_face && c.on_segment)) return false;
  return c.strict || !(face_holds(f, x) || face_holds(f, y));
}

// Rows of the ball of v (in ball order), its faces opposite v, and the other nodes once, sorted.
bool gather_node_ball(boundary_recoverer& r, unsigned v) {
  mesh_store& m = r.store;
  if (!ball_of_node(m, v, NONE, r.ball_tets) || !r.ball_tets.size) return false;
  if (!shell_one_colour(m, r.ball_tets)) return false;
  r.coded_faces.clear();
  r.ring_nodes.clear();
  if (!r.ball_rows.resize(4, r.ball_tets.size)) return false;
  for (unsigned k = 0; k < r.ball_tets.size; ++k) {
    const unsigned t = r.ball_tets[k];
    const unsigned* row = m.tets.row(t);
    std::copy_n(row, 4, r.ball_rows.col(k));
    for (unsigned i = 0; i < 4; ++i) {
      if (row[i] == v)
        push_checked(r.coded_faces, 4 * t + i);
      else
        push_checked(r.ring_nodes, row[i]);
    }
  }
  if (r.coded_faces.size != r.ball_tets.size || r.ring_nodes.size != 3 * r.ball_tets.size)
    return false;
  std::sort(r.ring_nodes.begin(), r.ring_nodes.end());
  r.ring_nodes.size =
      unsigned(std::unique(r.ring_nodes.begin(), r.ring_nodes.end()) - r.ring_nodes.begin());
  return true;
}

// Sorts the crossing edges by decreasing length; equal lengths keep their order.
void sort_longest_first(boundary_recoverer& r, std::vector<edge_key>& crossing) {
  const mesh_store& m = r.store;
  r.sort_keys.clear();
  for (unsigned k = 0; k < crossing.size(); ++k)
    r.sort_keys.emplace_back(-float(edge_length2(m.nodes.data, crossing[k].n[0], crossing[k].n[1])),
                             k);
  std::stable_sort(r.sort_keys.begin(), r.sort_keys.end(),
                   [](const auto& x, const auto& y) { return x.first < y.first; });
  r.sort_scratch.clear();
  for (const auto& [key, k] : r.sort_keys) r.sort_scratch.push_back(crossing[k]);
  crossing.swap(r.sort_scratch);
}

}  // namespace

bool error_standing(const boundary_recoverer& r) {
  return r.task && r.task->error_code && *r.task->error_code != 0;
}

void note_unenforced_edge(mesh_store& m, unsigned a, unsigned b) {
  m.unenforced_set.add_edge(a, b, true);
}

void note_unenforced_face(mesh_store& m, unsigned a, unsigned b, unsigned c) {
  if (a != b && b != c && a != c) m.unenforced_set.add_face(a, b, c, true);
}

int crossing_tets_of_edge(boundary_recoverer& r, unsigned a, unsigned b, double d,
                          dense1D<unsigned>& faces, bool stop_at_hard) {
  mesh_store& m = r.store;
  const double* A = m.nodes.row(a);
  const double* B = m.nodes.row(b);
  dense1D<unsigned>& stack = r.ball_tets_2;
  stack.clear();
  ball_of_node(m, a, NONE, r.ball_tets);
  for (unsigned k = 0; k < r.ball_tets.size; ++k) {
    const unsigned t = r.ball_tets[k];
    const unsigned* row = m.tets.row(t);
    unsigned i = 0;
    while (i < 4 && row[i] != a) ++i;
    unsigned f[3];
    coded_face_nodes(m, 4 * t + i, f);
    if (face_holds(f, b)) return 2;
    if (face_crossed(m, f, A, B, a, b, d)) push_checked(stack, 4 * t + i);
  }
  if (!stack.size) return -1;
  m.bump_marks();
  for (unsigned k = 0; k < r.ball_tets.size; ++k) m.mark(r.ball_tets[k]);
  while (stack.size) {
    const unsigned c = stack[--stack.size];
    const unsigned t = c >> 2, i = c & 3u;
    const unsigned n = m.neighbors(i, t);
    if (n == NONE) continue;
    unsigned f[3];
    coded_face_nodes(m, c, f);
    if (stop_at_hard && m.hard_set.has_face(f[0], f[1], f[2])) continue;
    push_checked(faces, c);
    if (m.marked(n)) continue;
    m.mark(n);
    const unsigned* nb = m.neighbors.row(n);
    for (unsigned j = 0; j < 4; ++j) {
      if (nb[j] == t) continue;
      unsigned g[3];
      coded_face_nodes(m, 4 * n + j, g);
      if (face_holds(g, a) && face_holds(g, b)) continue;
      if (face_crossed(m, g, A, B, a, b, d)) push_checked(stack, 4 * n + j);
    }
  }
  return 1;
}

int crossing_edges_of_edge(boundary_recoverer& r, unsigned a, unsigned b, double d,
                           std::vector<edge_key>& crossing, dense1D<unsigned>& faces) {
  mesh_store& m = r.store;
  crossing.clear();
  faces.clear();
  if (crossing_tets_of_edge(r, a, b, d, faces, false) == 2) return 2;
  r.crossing_seen.clear();
  for (unsigned k = 0; k < faces.size; ++k) {
    unsigned f[3];
    coded_face_nodes(m, faces[k], f);
    for (unsigned s = 0; s < 3; ++s) {
      const unsigned p = f[s], q = f[(s + 1) % 3];
      if (r.crossing_seen.insert(edge_key{{p, q}}) != 2) continue;
      const segment_contact c = intersect_node_edges(m.nodes.data, a, b, p, q, d, false);
      if (c.on_first && c.on_second) crossing.push_back(edge_key{{p, q}});
    }
  }
  return 1;
}

bool move_node_off_edge(boundary_recoverer& r, unsigned v, unsigned a, unsigned b, double d) {
  mesh_store& m = r.store;
  if (!gather_node_ball(r, v)) return false;
  if (!place_node_in_ball(r.steiner, v, r.coded_faces, r.ring_nodes, a, b, d, r.ball_rows,
                          r.new_qualities, r.shuffle_source))
    return false;
  for (unsigned k = 0; k < r.ball_tets.size; ++k)
    m.tet_qualities[r.ball_tets[k]] = r.new_qualities[k];
  return true;
}

std::pair<unsigned, bool> remove_crossing_edges(boundary_recoverer& r,
                                                std::vector<edge_key>& crossing,
                                                const recovery_target& target, double d,
                                                bool repeat) {
  mesh_store& m = r.store;
  const unsigned start = unsigned(crossing.size());
  bool ok = true;
  bool have_rings = false;
  for (;;) {
    unsigned removed = 0, kept = 0;
    r.failed_rings_next.clear();
    r.failed_starts_next.clear();
    r.failed_starts_next.push_back(0);
    for (unsigned i = 0; i < crossing.size(); ++i) {
      const unsigned p = crossing[i].n[0], q = crossing[i].n[1];
      const unsigned t0 = edge_tet(m, p, q);
      if (t0 == NONE) {
        ++removed;  // gone by an earlier change
        continue;
      }
      r.ring_nodes.clear();
      const bool closed = shell_with_ring(m, p, q, t0, r.ball_tets, r.ring_nodes);
      if (!closed || !shell_one_colour(m, r.ball_tets)) {
        ok = false;
        for (unsigned j = i; j < crossing.size(); ++j) crossing[kept++] = crossing[j];
        break;
      }
      bool same_ring = false;
      if (have_rings) {
        const unsigned lo = r.failed_starts[i], hi = r.failed_starts[i + 1];
        same_ring = hi - lo == r.ring_nodes.size;
        for (unsigned k = 0; same_ring && k < r.ring_nodes.size; ++k)
          same_ring = r.failed_rings[lo + k] == r.ring_nodes[k];
      }
      std::uint32_t mask = 0;
      bool gone = false;
      for (unsigned tries = 0; tries < 32 && !gone && !same_ring; ++tries) {
        double best = 1e-12;
        unsigned pattern = NONE;
        recover_patterns(r.steiner.removal_state, p, q, r.ring_nodes, m.hard_set, mask, best,
                         pattern, r.new_rows, r.edge_rows, r.new_qualities);
        if (pattern == NONE || pattern >= 32) break;
        mask |= std::uint32_t(1) << pattern;
        bool crosses = false;
        for (unsigned e = 0; e < r.edge_rows.cols && !crosses; ++e)
          crosses = crosses_target(m, r.edge_rows(0, e), r.edge_rows(1, e), target, d);
        if (crosses) continue;
        gone = replace_tets(m, r.steiner.exchange, r.ball_tets, r.new_rows, r.new_qualities,
                            r.new_tets);
      }
      if (gone) {
        ++removed;
      } else {
        crossing[kept++] = crossing[i];
        for (unsigned k = 0; k < r.ring_nodes.size; ++k)
          r.failed_rings_next.push_back(r.ring_nodes[k]);
        r.failed_starts_next.push_back(unsigned(r.failed_rings_next.size()));
      }
    }
    crossing.resize(kept);
    if (!(repeat && ok && removed && kept)) break;
    r.failed_rings.swap(r.failed_rings_next);
    r.failed_starts.swap(r.failed_starts_next);
    have_rings = true;
  }
  return {start - unsigned(crossing.size()), ok};
}

unsigned split_crossing_edge(boundary_recoverer& r, unsigned p, unsigned q, unsigned a, unsigned b,
                             double d) {
  mesh_store& m = r.store;
  if (p == a || p == b || q == a || q == b) return NONE;
  const unsigned t0 = edge_tet(m, p, q);
  if (t0 == NONE) return NONE;
  r.ring_nodes.clear();
  if (!shell_with_ring(m, p, q, t0, r.ball_tets, r.ring_nodes) || !shell_one_colour(m, r.ball_tets))
    return NONE;
  const double* P = m.nodes.row(p);
  const double* Q = m.nodes.row(q);
  const unsigned n = m.new_node(0.5 * (P[0] + Q[0]), 0.5 * (P[1] + Q[1]), 0.5 * (P[2] + Q[2]), 0.0);
  if (n == NONE) return NONE;
  const unsigned S = r.ball_tets.size;
  r.coded_faces.clear();
  if (!r.new_rows.resize(4, 2 * S)) {
    m.release_node(n);
    return NONE;
  }
  for (unsigned k = 0; k < S; ++k) {
    const unsigned t = r.ball_tets[k];
    const unsigned* row = m.tets.row(t);
    unsigned* u = r.new_rows.col(2 * k);
    unsigned* v = r.new_rows.col(2 * k + 1);
    for (unsigned i = 0; i < 4; ++i) {
      u[i] = row[i] == p ? n : row[i];
      v[i] = row[i] == q ? n : row[i];
      if (row[i] == p || row[i] == q) push_checked(r.coded_faces, 4 * t + i);
    }
  }
  // The new node's ring: the shell's ring and both ends, sorted.
  push_checked(r.ring_nodes, p);
  push_checked(r.ring_nodes, q);
  std::sort(r.ring_nodes.begin(), r.ring_nodes.end());
  if (r.coded_faces.size != 2 * S ||
      !place_node_in_ball(r.steiner, n, r.coded_faces, r.ring_nodes, a, b, d, r.new_rows,
                          r.new_qualities, r.shuffle_source) ||
      !replace_tets(m, r.steiner.exchange, r.ball_tets, r.new_rows, r.new_qualities, r.new_tets)) {
    m.release_node(n);
    return NONE;
  }
  return n;
}

int edge_obstacles(boundary_recoverer& r, unsigned a, unsigned b, double d,
                   std::vector<edge_key>& crossing, unsigned& budget,
                   dense1D<unsigned>& new_nodes) {
  mesh_store& m = r.store;
  if (crossing.empty()) return 1;
  const double* A = m.nodes.row(a);
  const double* B = m.nodes.row(b);
  const double length2 = edge_length2(m.nodes.data, a, b);

  // Nodes of the crossing edges on the segment: soft ones may be moved, others block it.
  r.near_nodes.clear();
  m.bump_marks();
  m.mark(a);
  m.mark(b);
  for (const edge_key& e : crossing)
    for (unsigned v : e.n) {
      if (m.marked(v)) continue;
      m.mark(v);
      double g2 = 0.0;
      const double t = closest_on_segment<3>(A, B, m.nodes.row(v), &g2);
      if (!(g2 <= d * d)) continue;
      if (is_soft_node(m, v)) {
        push_checked(r.near_nodes, v);
      } else if (length2 > 0.0 && 0.0 <= t && t <= 1.0 &&
                 triangle_quality(m.nodes.data, a, b, v) < 1e-12) {
        push_checked(r.blocking_nodes, v);
      }
    }
  if (r.blocking_nodes.size) return -11;

  // Hard edges cannot be reconnected away; one in the segment's plane truly crosses it.
  unsigned before = unsigned(crossing.size()), kept = 0;
  for (const edge_key& e : crossing) {
    if (m.hard_set.has_edge(e.n[0], e.n[1])) {
      if (std::fabs(tet_quality(m.nodes.data, a, b, e.n[0], e.n[1])) < 1e-12)
        r.blocking_edges.push_back(e);
      continue;
    }
    crossing[kept++] = e;
  }
  crossing.resize(kept);
  if (!r.blocking_edges.empty()) return -20;

  if (r.near_nodes.size) {
    bool moved = false;
    for (;;) {
      const unsigned size = r.near_nodes.size;
      unsigned left = 0;
      for (unsigned k = 0; k < size; ++k) {
        if (move_node_off_edge(r, r.near_nodes[k], a, b, d))
          moved = true;
        else
          r.near_nodes[left++] = r.near_nodes[k];
      }
      r.near_nodes.size = left;
      if (!left || left == size) break;
    }
    if (r.near_nodes.size) return -1;
    if (moved) {
      before = unsigned(crossing.size());
      kept = 0;
      for (const edge_key& e : crossing) {
        const segment_contact c =
            intersect_node_edges(m.nodes.data, a, b, e.n[0], e.n[1], d, false);
        if (c.on_first && c.on_second) crossing[kept++] = e;
      }
      crossing.resize(kept);
    }
  }
  if (crossing.empty()) return 1;

  sort_longest_first(r, crossing);
  const bool repeat = before < 16;
  recovery_target target;
  target.n[0] = a, target.n[1] = b, target.count = 2;
  auto [removed, ok] = remove_crossing_edges(r, crossing, target, d, repeat);
  (void)removed;
  if (crossing.empty()) return 1;
  if (!ok) return -9;
  if (!budget) return 0;

  unsigned kept_edges = 0;
  for (unsigned k = 0; k < crossing.size(); ++k) {
    if (budget) {
      const unsigned n = split_crossing_edge(r, crossing[k].n[0], crossing[k].n[1], a, b, d);
      if (n != NONE) {
        push_checked(new_nodes, n);
        --budget;
        continue;
      }
    }
    crossing[kept_edges++] = crossing[k];
  }
  crossing.resize(kept_edges);
  remove_crossing_edges(r, crossing, target, d, repeat);
  if (crossing.empty()) return 1;
  return budget ? -1 : 0;
}

int recover_edge(boundary_recoverer& r, unsigned a, unsigned b, double tol_rel, unsigned& budget,
                 dense1D<unsigned>& new_nodes) {
  mesh_store& m = r.store;
  r.blocking_nodes.clear();
  r.blocking_edges.clear();
  r.blocking_faces.clear();
  if (error_standing(r)) return 0;
  if (!node_alive(m, a) || !node_alive(m, b)) return -10;
  if (edge_tet(m, a, b) != NONE) return 2;
  const double d = std::sqrt(edge_length2(m.nodes.data, a, b)) * tol_rel;
  if (crossing_edges_of_edge(r, a, b, d, r.crossing, r.coded_faces) == 2) return 2;
  const int c = edge_obstacles(r, a, b, d, r.crossing, budget, new_nodes);
  if (c != 1) return c;
  if (edge_tet(m, a, b) != NONE) {
    r.steps_used |= step_crossing_edges;
    return 1;
  }
  int p = recover_edge_by_pipe(r, a, b, d, budget, new_nodes);
  if (r.pipe.size > 31 && p > -8) p = -8;
  if (-8 <= p && p <= -1) {
    int q = recover_edge_by_pipe(r, b, a, d, budget, new_nodes);
    if (r.pipe.size > 31 && q > -8) q = -8;
    p = q;
  }
  return p;
}

unsigned recover_edge_list(boundary_recoverer& r, std::vector<edge_key>& list, unsigned& given_up,
                           unsigned budget, dense1D<unsigned>& steiner_list) {
  mesh_store& m = r.store;
  unsigned recovered = 0;
  r.given_edges.clear();
  r.kept_edges.clear();
  dense1D<unsigned>& made = r.edge_nodes;
  unsigned k = given_up;
  for (; k < list.size(); ++k) {
    if (k % 500 == 499 && r.must_stop()) break;
    const unsigned a = list[k].n[0], b = list[k].n[1];
    made.clear();
    if (&list != &r.sides) r.steps_used = 0;
    unsigned left = budget;
    int c = recover_edge(r, a, b, 1e-12, left, made);
    if (-7 <= c && c <= -1) {
      unsigned reduced = budget > made.size ? budget - made.size : 0;
      int c2 = recover_edge(r, a, b, 1e-11, reduced, made);
      if (-7 <= c2 && c2 <= -1) {
        reduced = budget > made.size ? budget - made.size : 0;
        c2 = recover_edge(r, a, b, 1e-10, reduced, made);
      }
      r.blocking_edges.clear();
      r.blocking_faces.clear();
      c = c2 >= 0 ? c2 : 0;
    }
    if (c == 1) {
      ++recovered;
      // The sides of a face count with their face.
      if (&list != &r.sides) tally_steps(r, r.counts.edges);
    } else if (c == 2) {
    } else if (c >= -8) {
      r.kept_edges.push_back(list[k]);
    } else {
      r.given_edges.push_back(list[k]);
      for (unsigned i = 0; i < r.blocking_nodes.size; ++i)
        m.unenforced_set.add_node(r.blocking_nodes[i]);
      for (const edge_key& e : r.blocking_edges) note_unenforced_edge(m, e.n[0], e.n[1]);
      note_unenforced_edge(m, a, b);
      for (const face_key& f : r.blocking_faces) note_unenforced_face(m, f.n[0], f.n[1], f.n[2]);
    }
    if (c > 0 || c < -8) remove_steiner_nodes(r.steiner, made, false, true, false);
    for (unsigned i = 0; i < made.size; ++i) push_checked(steiner_list, made[i]);
  }
  // Head, then the edges given up now, then the open ones in order, then those not reached.
  unsigned w = given_up;
  for (const edge_key& e : r.given_edges) list[w++] = e;
  for (const edge_key& e : r.kept_edges) list[w++] = e;
  for (; k < list.size(); ++k) list[w++] = list[k];
  list.resize(w);
  given_up += unsigned(r.given_edges.size());
  return recovered;
}

}  // namespace kelvo::voxfill
