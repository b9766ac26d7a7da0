// Face recovery: the sides by edge recovery, crossing edges found from the sides, removal and
// moves of soft nodes on both sides of the plane, and Steiner nodes on planes beside the face.
#include "voxfill/boundary/face_recovery.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/tet_tables.h"
#include "voxfill/boundary/edge_recovery.h"
#include "voxfill/boundary/intersection_tests.h"

namespace kelvo::voxfill {

namespace {

bool face_holds(const face_key& f, unsigned n) {
  return f.n[0] == n || f.n[1] == n || f.n[2] == n;
}

double dot(const double* u, const double* v) {
  return u[0] * v[0] + u[1] * v[1] + u[2] * v[2];
}

// The plane of a face: its normal n (twice the area long), N2 = |n|^2, inv = 1 / N2, centroid G.
struct face_plane {
  double n[3], N2, inv, G[3];

  face_plane(const mesh_store& m, const face_key& f) {
    face_normal(m.nodes.data, f.n[0], f.n[1], f.n[2], n);
    N2 = dot(n, n);
    inv = N2 > 0.0 ? 1.0 / N2 : 0.0;
    const double *a = m.nodes.row(f.n[0]), *b = m.nodes.row(f.n[1]), *c = m.nodes.row(f.n[2]);
    for (unsigned k = 0; k < 3; ++k) G[k] = (a[k] + b[k] + c[k]) * 0.3333333333333333;
  }
  double height(const double* X) const noexcept {
    return (X[0] - G[0]) * n[0] + (X[1] - G[1]) * n[1] + (X[2] - G[2]) * n[2];
  }
};

void heights(const mesh_store& m, const face_plane& pl, const dense1D<unsigned>& list,
             dense1D<double>& out) {
  out.clear();
  for (unsigned k = 0; k < list.size; ++k) push_checked(out, pl.height(m.nodes.row(list[k])));
}

// Turns every edge of the list to run upwards, along n.
void orient_edges(const mesh_store& m, const face_plane& pl, std::vector<edge_key>& crossing) {
  for (edge_key& e : crossing) {
    const double *P = m.nodes.row(e.n[0]), *Q = m.nodes.row(e.n[1]);
    const double d[3] = {Q[0] - P[0], Q[1] - P[1], Q[2] - P[2]};
    if (dot(d, pl.n) < 0.0) std::swap(e.n[0], e.n[1]);
  }
}

// `below`: lower ends of the oriented edges; `above`: upper ends not already below; each once,
// the face's nodes left out.
void split_sides(boundary_recoverer& r, const face_key& f, const std::vector<edge_key>& crossing) {
  mesh_store& m = r.store;
  r.below.clear();
  r.above.clear();
  m.bump_marks();
  for (unsigned v : f.n) m.mark(v);
  for (const edge_key& e : crossing)
    if (!m.marked(e.n[0])) {
      m.mark(e.n[0]);
      push_checked(r.below, e.n[0]);
    }
  for (const edge_key& e : crossing)
    if (!m.marked(e.n[1])) {
      m.mark(e.n[1]);
      push_checked(r.above, e.n[1]);
    }
}

// Moves the nodes of `list` whose height (in `h`) is in the band to `in_plane`: from below those
// at or above -band, from above those at or under band.
void take_in_plane(dense1D<unsigned>& list, dense1D<double>& h, bool from_below, double band,
                   dense1D<unsigned>& in_plane) {
  unsigned kept = 0;
  for (unsigned k = 0; k < list.size; ++k) {
    const bool in_band = from_below ? h[k] >= -band : h[k] <= band;
    if (in_band) {
      push_checked(in_plane, list[k]);
    } else {
      list[kept] = list[k];
      h[kept++] = h[k];
    }
  }
  list.size = h.size = kept;
}

void drop_hard_edges(const mesh_store& m, std::vector<edge_key>& crossing,
                     std::vector<edge_key>* hard) {
  unsigned kept = 0;
  for (const edge_key& e : crossing) {
    if (m.hard_set.has_edge(e.n[0], e.n[1])) {
      if (hard) hard->push_back(e);
    } else {
      crossing[kept++] = e;
    }
  }
  crossing.resize(kept);
}

bool face_in_mesh(boundary_recoverer& r, const face_key& f) {
  return find_face_tet(r.store, f.n[0], f.n[1], f.n[2], r.ball_tets_2) != NONE;
}

recovery_target face_target(const face_key& f) {
  recovery_target t;
  t.n[0] = f.n[0], t.n[1] = f.n[1], t.n[2] = f.n[2], t.count = 3;
  return t;
}

// The ball of v, closed and of one colour, with its faces opposite v in `coded_faces`.
bool node_ball(boundary_recoverer& r, unsigned v) {
  mesh_store& m = r.store;
  if (!ball_of_node(m, v, NONE, r.ball_tets) || !r.ball_tets.size) return false;
  r.coded_faces.clear();
  for (unsigned k = 0; k < r.ball_tets.size; ++k) {
    const unsigned t = r.ball_tets[k];
    if (m.colors[t] != m.colors[r.ball_tets[0]]) return false;
    const unsigned* row = m.tets.row(t);
    for (unsigned i = 0; i < 4; ++i)
      if (row[i] == v) push_checked(r.coded_faces, 4 * t + i);
  }
  return r.coded_faces.size == r.ball_tets.size;
}

// Moves v by `step` times D when every tet of its ball (gathered by node_ball) stays above
// 1e-12; the qualities are stored then. Otherwise v stays.
bool try_move(boundary_recoverer& r, unsigned v, const double* D, double step) {
  mesh_store& m = r.store;
  double* X = m.nodes.row(v);
  const double X0[3] = {X[0], X[1], X[2]};
  for (unsigned k = 0; k < 3; ++k) X[k] = X0[k] + D[k] * step;
  r.new_qualities.clear();
  for (unsigned k = 0; k < r.ball_tets.size; ++k) {
    const unsigned* row = m.tets.row(r.ball_tets[k]);
    const double q = tet_quality(m.nodes.data, row[0], row[1], row[2], row[3]);
    if (!(q > 1e-12)) break;
    push_checked(r.new_qualities, q);
  }
  if (r.new_qualities.size != r.ball_tets.size) {
    X[0] = X0[0], X[1] = X0[1], X[2] = X0[2];
    return false;
  }
  for (unsigned k = 0; k < r.ball_tets.size; ++k)
    m.tet_qualities[r.ball_tets[k]] = r.new_qualities[k];
  return true;
}

bool nudge_node(boundary_recoverer& r, unsigned v, const double* D) {
  if (!node_ball(r, v)) return false;
  const double t = free_travel(r.store, r.store.nodes.row(v), r.coded_faces, D);
  if (t == 0.0 || t == DBL_MAX) return false;
  return try_move(r, v, D, 0.5 * t);
}

// Moves nodes of `in_plane` off the plane, each to the side that frees more crossing edges, and
// rebuilds the list of crossing edges without those freed. The number of nodes moved.
unsigned swap_plane_nodes(boundary_recoverer& r, std::vector<edge_key>& crossing, const double* n) {
  std::vector<edge_key>& S = r.saved_edges;
  S = crossing;
  const double minus_n[3] = {-n[0], -n[1], -n[2]};
  constexpr unsigned ERASED = NONE;
  unsigned moved = 0, kept = 0;
  for (unsigned k = 0; k < r.in_plane.size; ++k) {
    const unsigned v = r.in_plane[k];
    unsigned E1 = 0, E2 = 0;
    for (const edge_key& e : S) {
      if (e.n[0] == ERASED) continue;
      E1 += e.n[0] == v;
      E2 += e.n[1] == v;
    }
    // Under the plane, v frees the edges it was the upper end of; over it, the lower end.
    auto erase = [&S, v](unsigned end) {
      for (edge_key& e : S)
        if (e.n[0] != ERASED && e.n[end] == v) e.n[0] = ERASED;
    };
    int side = 0;
    if (E1 < E2) {
      if (nudge_node(r, v, minus_n))
        side = -1;
      else if (nudge_node(r, v, n))
        side = 1;
    } else {
      if (nudge_node(r, v, n))
        side = 1;
      else if (nudge_node(r, v, minus_n))
        side = -1;
    }
    if (side < 0) {
      erase(1);
      push_checked(r.below, v);
      ++moved;
    } else if (side > 0) {
      erase(0);
      push_checked(r.above, v);
      ++moved;
    } else {
      r.in_plane[kept++] = v;
    }
  }
  r.in_plane.size = kept;
  if (moved) {
    crossing.clear();
    for (const edge_key& e : S)
      if (e.n[0] != ERASED) crossing.push_back(e);
    std::sort(crossing.begin(), crossing.end(), [](const edge_key& x, const edge_key& y) {
      return x.n[0] < y.n[0] || (x.n[0] == y.n[0] && x.n[1] < y.n[1]);
    });
  }
  S.clear();
  return moved;
}

// The nodes of below, above and in_plane anew from the list, the in-plane ones within `band`.
void rebuild_sides(boundary_recoverer& r, const face_key& f, const face_plane& pl,
                   const std::vector<edge_key>& crossing, double band) {
  const mesh_store& m = r.store;
  split_sides(r, f, crossing);
  heights(m, pl, r.below, r.below_heights);
  heights(m, pl, r.above, r.above_heights);
  r.in_plane.clear();
  take_in_plane(r.below, r.below_heights, true, band, r.in_plane);
  take_in_plane(r.above, r.above_heights, false, band, r.in_plane);
}

double mean(const dense1D<double>& h) {
  double s = 0.0;
  for (unsigned k = 0; k < h.size; ++k) s += h[k];
  return h.size ? s / h.size : 0.0;
}

}  // namespace

double free_travel(const mesh_store& m, const double* X, const dense1D<unsigned>& faces,
                   const double* D) {
  double best = DBL_MAX;
  for (unsigned k = 0; k < faces.size; ++k) {
    const unsigned t = faces[k] >> 2;
    const unsigned* fn = tet_face_nodes[faces[k] & 3u];
    const unsigned* row = m.tets.row(t);
    double Nf[3];
    face_normal(m.nodes.data, row[fn[0]], row[fn[1]], row[fn[2]], Nf);
    const double den = dot(D, Nf);
    if (den == 0.0) continue;
    const double* T0 = m.nodes.row(row[fn[0]]);
    const double w[3] = {T0[0] - X[0], T0[1] - X[1], T0[2] - X[2]};
    const double t_hit = dot(w, Nf) / den;
    if (t_hit > 0.0 && t_hit < best) best = t_hit;
  }
  return best;
}

unsigned nudge_nodes_off_plane(boundary_recoverer& r, const dense1D<unsigned>& list,
                               const double* D) {
  unsigned moved = 0;
  for (unsigned k = 0; k < list.size; ++k) moved += nudge_node(r, list[k], D);
  return moved;
}

unsigned push_nodes_to_side(boundary_recoverer& r, const dense1D<unsigned>& list, const double* G,
                            const double* n, double inv, double level) {
  mesh_store& m = r.store;
  const double minus_n[3] = {-n[0], -n[1], -n[2]};
  unsigned moved = 0;
  for (unsigned k = 0; k < list.size; ++k) {
    const unsigned v = list[k];
    if (!node_ball(r, v)) continue;
    const double* X = m.nodes.row(v);
    const double w[3] = {X[0] - G[0], X[1] - G[1], X[2] - G[2]};
    const double hgt = dot(w, n) * inv;
    double step;
    if (level <= hgt) {
      const double t = free_travel(m, X, r.coded_faces, minus_n);
      step = -std::min(t * 0.5, hgt - level);
    } else {
      const double t = free_travel(m, X, r.coded_faces, n);
      step = std::min(t * 0.5, level - hgt);
    }
    if (step == 0.0 || !std::isfinite(step) || std::fabs(step) >= DBL_MAX * 0.25) continue;
    moved += try_move(r, v, n, step);
  }
  return moved;
}

int crossing_edges_of_face(boundary_recoverer& r, const face_key& face, double d,
                           std::vector<edge_key>& crossing) {
  mesh_store& m = r.store;
  r.crossing_seen.clear();
  r.crossing_stack.clear();
  crossing.clear();
  for (unsigned k = 0; k < 3; ++k) {
    const unsigned p = face.n[(k + 1) % 3], q = face.n[(k + 2) % 3];
    const unsigned t0 = edge_tet(m, p, q);
    if (t0 == NONE) continue;
    r.ring_nodes.clear();
    shell_with_ring(m, p, q, t0, r.ball_tets, r.ring_nodes);
    if (!r.ring_nodes.size) continue;
    unsigned last = r.ring_nodes[r.ring_nodes.size - 1];
    for (unsigned i = 0; i < r.ring_nodes.size; ++i) {
      const unsigned v = r.ring_nodes[i];
      if (v == face.n[k]) {
        r.crossing_stack.clear();
        return 2;
      }
      r.crossing_stack.push_back(edge_key{{last, v}});
      last = v;
    }
  }
  while (!r.crossing_stack.empty()) {
    const edge_key e = r.crossing_stack.back();
    r.crossing_stack.pop_back();
    const unsigned x = e.n[0], y = e.n[1];
    if (x == y || (face_holds(face, x) && face_holds(face, y))) continue;
    if (r.crossing_seen.insert(e) != 2) continue;
    if (segment_triangle_apart(m.nodes.data, face.n[0], face.n[1], face.n[2], m.nodes.row(x),
                               m.nodes.row(y), d))
      continue;
    const triangle_contact c = intersect_segment_triangle(
        m.nodes.data, face.n[0], face.n[1], face.n[2], m.nodes.row(x), m.nodes.row(y), d, false);
    if (!(c.in_face && c.on_segment)) continue;
    if (!c.strict && (face_holds(face, x) || face_holds(face, y))) continue;
    crossing.push_back(e);
    const unsigned t0 = edge_tet(m, x, y);
    if (t0 == NONE) continue;
    r.ring_nodes.clear();
    if (!shell_with_ring(m, x, y, t0, r.ball_tets, r.ring_nodes) || !r.ring_nodes.size) continue;
    unsigned last = r.ring_nodes[r.ring_nodes.size - 1];
    for (unsigned i = 0; i < r.ring_nodes.size; ++i) {
      const unsigned v = r.ring_nodes[i];
      r.crossing_stack.push_back(edge_key{{x, v}});
      r.crossing_stack.push_back(edge_key{{v, y}});
      r.crossing_stack.push_back(edge_key{{last, v}});
      last = v;
    }
  }
  return 1;
}

bool face_state(boundary_recoverer& r, const face_key& face, bool& exists) {
  mesh_store& m = r.store;
  exists = false;
  const unsigned a = face.n[0], b = face.n[1], c = face.n[2];
  if (!node_alive(m, a) || !node_alive(m, b) || !node_alive(m, c)) return false;
  dense1D<unsigned>& A = r.ball_tets;
  dense1D<unsigned>& B = r.ball_tets_2;
  ball_of_node(m, a, NONE, A);
  ball_of_node(m, b, NONE, B);
  std::sort(A.begin(), A.end());
  std::sort(B.begin(), B.end());
  // The tets common to both balls go to the front of the ball of a.
  unsigned common = 0;
  for (unsigned k = 0; k < A.size; ++k)
    if (std::binary_search(B.begin(), B.end(), A[k])) std::swap(A[common++], A[k]);
  if (!common) return false;
  auto holds_c = [&m, c](unsigned t) {
    const unsigned* row = m.tets.row(t);
    return row[0] == c || row[1] == c || row[2] == c || row[3] == c;
  };
  unsigned k = 0;
  while (k < A.size && !holds_c(A[k])) ++k;
  if (k < common) {
    exists = true;
    return true;
  }
  if (k == A.size) return false;
  // Edge ac is there; bc must be found in the ball of b outside the common tets.
  for (unsigned i = 0; i < B.size; ++i)
    if (!std::binary_search(A.begin(), A.begin() + common, B[i]) && holds_c(B[i])) return true;
  return false;
}

int clear_face_crossings(boundary_recoverer& r, const face_key& face,
                         std::vector<edge_key>& crossing, double h) {
  mesh_store& m = r.store;
  const recovery_target target = face_target(face);
  {
    const auto [removed, ok] = remove_crossing_edges(r, crossing, target, h, crossing.size() < 16);
    (void)removed;
    if (!ok) return -9;
  }
  if (crossing.empty()) return face_in_mesh(r, face) ? 1 : -1;

  const face_plane pl(m, face);
  const double minus_n[3] = {-pl.n[0], -pl.n[1], -pl.n[2]};
  const double wide_band = std::sqrt(pl.N2) * h;
  rebuild_sides(r, face, pl, crossing, wide_band);
  if (r.in_plane.size) {
    // Repeats and the face's own nodes out; a node that is not soft in the triangle conflicts.
    m.bump_marks();
    for (unsigned v : face.n) m.mark(v);
    unsigned kept = 0;
    for (unsigned k = 0; k < r.in_plane.size; ++k) {
      const unsigned v = r.in_plane[k];
      if (m.marked(v)) continue;
      m.mark(v);
      r.in_plane[kept++] = v;
    }
    r.in_plane.size = kept;
    for (unsigned k = 0; k < r.in_plane.size; ++k) {
      const unsigned v = r.in_plane[k];
      if (is_soft_node(m, v)) continue;
      double w[2];
      const double area =
          triangle_barycentric(m.nodes.data, face.n[0], face.n[1], face.n[2], m.nodes.row(v), w);
      if (area > 0.0 && classify_triangle_point(w[0], w[1], 0.0) == -1 &&
          std::fabs(tet_quality(m.nodes.data, face.n[0], face.n[1], face.n[2], v)) < 1e-12)
        push_checked(r.conflict_nodes, v);
    }
    if (r.conflict_nodes.size) return -11;
  }
  double Hmin = DBL_MAX, Hmax = -DBL_MAX;
  for (unsigned k = 0; k < r.above.size; ++k)
    if (m.hard_set.has_node(r.above[k])) Hmin = std::min(Hmin, r.above_heights[k]);
  for (unsigned k = 0; k < r.below.size; ++k)
    if (m.hard_set.has_node(r.below[k])) Hmax = std::max(Hmax, r.below_heights[k]);
  keep_soft_nodes(m, r.above);
  keep_soft_nodes(m, r.below);
  keep_soft_nodes(m, r.in_plane);
  if (!r.above.size && !r.below.size && !r.in_plane.size) return crossing.size() == 1 ? -1 : 0;

  for (unsigned round = 0; round < 3 && !crossing.empty(); ++round) {
    const unsigned e = unsigned(crossing.size());
    const bool had_in_plane = r.in_plane.size != 0;
    unsigned k = nudge_nodes_off_plane(r, r.below, minus_n);
    k += nudge_nodes_off_plane(r, r.above, pl.n);
    k += swap_plane_nodes(r, crossing, pl.n);
    heights(m, pl, r.above, r.above_heights);
    heights(m, pl, r.below, r.below_heights);
    if (r.above.size > 1 || (r.above.size == 1 && Hmin < DBL_MAX)) {
      const double level = Hmin < DBL_MAX ? Hmin : mean(r.above_heights);
      k += push_nodes_to_side(r, r.above, pl.G, pl.n, pl.inv, level * pl.inv);
    }
    if (r.below.size > 1 || (r.below.size == 1 && Hmax > -DBL_MAX)) {
      const double level = Hmax > -DBL_MAX ? Hmax : mean(r.below_heights);
      k += push_nodes_to_side(r, r.below, pl.G, pl.n, pl.inv, level * pl.inv);
    }
    if (!k) break;
    const auto [removed, ok] = remove_crossing_edges(r, crossing, target, h, e < 16);
    (void)ok;
    if (had_in_plane) orient_edges(m, pl, crossing);
    if (removed && !crossing.empty()) {
      rebuild_sides(r, face, pl, crossing, wide_band);
      keep_soft_nodes(m, r.above);
      keep_soft_nodes(m, r.below);
      keep_soft_nodes(m, r.in_plane);
    }
  }
  if (crossing.empty()) return face_in_mesh(r, face) ? 2 : -1;
  return crossing.size() == 1 ? -1 : 0;
}

int recover_face(boundary_recoverer& r, const face_key& face, double tol, unsigned budget,
                 dense1D<unsigned>& new_nodes) {
  mesh_store& m = r.store;
  std::vector<edge_key>& L = r.crossing_2;
  const face_plane pl(m, face);
  const double normal_length = std::sqrt(pl.N2);
  const double h = std::sqrt(normal_length) * tol;
  const double band = normal_length * tol;

  if (crossing_edges_of_face(r, face, 0.0, L) == 2) return 2;
  drop_hard_edges(m, L, &r.conflict_edges);
  if (!r.conflict_edges.empty()) return -12;
  if (L.empty()) {
    crossing_edges_of_face(r, face, h, L);
    if (L.empty()) {
      double sides = 0.0;
      for (unsigned k = 0; k < 3; ++k)
        sides += std::sqrt(edge_length2(m.nodes.data, face.n[k], face.n[(k + 1) % 3]));
      crossing_edges_of_face(r, face, sides * tol, L);
      if (L.empty()) return -2;
    }
    drop_hard_edges(m, L, nullptr);
  }
  orient_edges(m, pl, L);

  // Soft nodes on either side go first: their edges go with them.
  split_sides(r, face, L);
  r.in_plane.clear();
  unsigned removed = 0;
  if (r.below.size) {
    heights(m, pl, r.below, r.below_heights);
    take_in_plane(r.below, r.below_heights, true, band, r.in_plane);
    for (unsigned v : face.n) push_checked(r.below, v);
    removed += remove_steiner_nodes(r.steiner, r.below, true, true, false);
  }
  if (r.above.size) {
    heights(m, pl, r.above, r.above_heights);
    take_in_plane(r.above, r.above_heights, false, band, r.in_plane);
    for (unsigned v : face.n) push_checked(r.above, v);
    removed += remove_steiner_nodes(r.steiner, r.above, true, true, false);
  }
  if (r.in_plane.size) {
    for (unsigned v : face.n) push_checked(r.in_plane, v);
    removed += remove_steiner_nodes(r.steiner, r.in_plane, true, true, false);
  }
  if (removed) {
    crossing_edges_of_face(r, face, 0.0, L);
    drop_hard_edges(m, L, &r.conflict_edges);
    if (!r.conflict_edges.empty()) return -12;
    orient_edges(m, pl, L);
  }
  int c = clear_face_crossings(r, face, L, h);
  if (c == -1) {
    crossing_edges_of_face(r, face, h, L);
    drop_hard_edges(m, L, nullptr);
    orient_edges(m, pl, L);
    c = clear_face_crossings(r, face, L, h);
  }
  if (c == 1) r.steps_used |= step_face_moves;
  if (c != 0) return c;
  if (!budget) return 0;

  // Steiner nodes on two planes beside the face, one under it and one over it.
  if (L.size() <= 1) return -1;
  split_sides(r, face, L);
  if (!r.below.size || !r.above.size) return -1;
  heights(m, pl, r.below, r.below_heights);
  heights(m, pl, r.above, r.above_heights);
  double Hb = -DBL_MAX, Ha = DBL_MAX;
  for (unsigned k = 0; k < r.below.size; ++k) Hb = std::max(Hb, r.below_heights[k]);
  for (unsigned k = 0; k < r.above.size; ++k) Ha = std::min(Ha, r.above_heights[k]);
  r.in_plane.clear();
  take_in_plane(r.below, r.below_heights, true, band, r.in_plane);
  take_in_plane(r.above, r.above_heights, false, band, r.in_plane);
  if (r.in_plane.size) return -1;
  const unsigned edges = unsigned(L.size());
  if (edges >= 33 && edges / 2 > budget) return 0;
  // The edges that reach farthest from the plane with one of their ends first.
  r.sort_keys.clear();
  for (unsigned k = 0; k < L.size(); ++k) {
    const double hp = pl.height(m.nodes.row(L[k].n[0]));
    const double hq = -pl.height(m.nodes.row(L[k].n[1]));
    r.sort_keys.emplace_back(float(std::min(hp, hq)), k);
  }
  std::stable_sort(r.sort_keys.begin(), r.sort_keys.end(),
                   [](const auto& x, const auto& y) { return x.first < y.first; });
  r.sort_scratch.clear();
  for (const auto& [key, k] : r.sort_keys) r.sort_scratch.push_back(L[k]);
  L.swap(r.sort_scratch);
  keep_soft_nodes(m, r.below);
  keep_soft_nodes(m, r.above);
  if (!r.above.size) Ha *= 0.5;
  if (!r.below.size) Hb *= 0.5;
  double Pb[3], Pa[3];
  for (unsigned k = 0; k < 3; ++k) {
    Pb[k] = pl.G[k] + pl.n[k] * (Hb * pl.inv);
    Pa[k] = pl.G[k] + pl.n[k] * (Ha * pl.inv);
  }
  const recovery_target target = face_target(face);
  unsigned cursor = 0;
  while (budget && cursor < L.size()) {
    const unsigned p = L[cursor].n[0], q = L[cursor].n[1];
    const unsigned t0 = edge_tet(m, p, q);
    if (t0 == NONE) break;
    r.ring_nodes.clear();
    if (!shell_with_ring(m, p, q, t0, r.ball_tets, r.ring_nodes)) break;
    bool one_colour = true;
    for (unsigned k = 1; k < r.ball_tets.size; ++k)
      one_colour = one_colour && m.colors[r.ball_tets[k]] == m.colors[r.ball_tets[0]];
    if (!one_colour) break;
    const double* P = m.nodes.row(p);
    const double* Q = m.nodes.row(q);
    const bool lower = pl.height(Q) - Ha <= Hb - pl.height(P);
    const double* plane = lower ? Pb : Pa;
    const double PQ[3] = {Q[0] - P[0], Q[1] - P[1], Q[2] - P[2]};
    const double PX[3] = {plane[0] - P[0], plane[1] - P[1], plane[2] - P[2]};
    const double den = dot(PQ, pl.n);
    if (den == 0.0) break;
    const double t = dot(PX, pl.n) / den;
    if (!(1e-12 < t && t < 0.999999999999)) break;
    const unsigned N = m.new_node(P[0] + t * PQ[0], P[1] + t * PQ[1], P[2] + t * PQ[2], 0.0);
    if (N == NONE) break;
    const unsigned S = r.ball_tets.size;
    bool sound = r.new_rows.resize(4, 2 * S);
    r.new_qualities.clear();
    for (unsigned k = 0; k < S && sound; ++k) {
      const unsigned* row = m.tets.row(r.ball_tets[k]);
      unsigned* u = r.new_rows.col(2 * k);
      unsigned* v = r.new_rows.col(2 * k + 1);
      for (unsigned i = 0; i < 4; ++i) {
        u[i] = row[i] == p ? N : row[i];
        v[i] = row[i] == q ? N : row[i];
      }
      for (const unsigned* w : {static_cast<const unsigned*>(u), static_cast<const unsigned*>(v)}) {
        const double qw = tet_quality(m.nodes.data, w[0], w[1], w[2], w[3]);
        sound = sound && qw > 1e-12;
        push_checked(r.new_qualities, qw);
      }
    }
    if (!sound || !replace_tets(m, r.steiner.exchange, r.ball_tets, r.new_rows, r.new_qualities,
                                r.new_tets)) {
      m.release_node(N);
      ++cursor;
      continue;
    }
    push_checked(new_nodes, N);
    --budget;
    L[cursor] = lower ? edge_key{{N, q}} : edge_key{{p, N}};
    if (edges > 31) {
      ++cursor;
      continue;
    }
    r.saved_edges.assign(L.begin() + cursor + 1, L.end());
    const auto [gone, ok] = remove_crossing_edges(r, L, target, h, L.size() < 16);
    (void)ok;
    if (!gone) {
      ++cursor;
      continue;
    }
    unsigned next = unsigned(L.size());
    for (unsigned k = 0; k < L.size() && next == L.size(); ++k)
      for (const edge_key& s : r.saved_edges)
        if (s.n[0] == L[k].n[0] && s.n[1] == L[k].n[1]) {
          next = k;
          break;
        }
    cursor = next;
  }
  if (edges > 31) {
    if (remove_crossing_edges(r, L, target, h, false).first)
      remove_crossing_edges(r, L, target, h, false);
  }
  if (L.empty() && face_in_mesh(r, face)) {
    r.steps_used |= step_face_steiner;
    return 1;
  }
  return 0;
}

unsigned recover_face_list(boundary_recoverer& r, std::vector<face_key>& list, unsigned& given_up,
                           unsigned budget, dense1D<unsigned>& steiner_list) {
  mesh_store& m = r.store;
  unsigned recovered = 0;
  r.given_faces.clear();
  r.kept_faces.clear();
  unsigned k = given_up;
  for (; k < list.size(); ++k) {
    if (k % 500 == 499 && r.must_stop()) break;
    const face_key f = list[k];
    const unsigned a = f.n[0], b = f.n[1], c = f.n[2];
    r.sides.clear();
    r.sides.push_back(edge_key{{b, c}});
    r.sides.push_back(edge_key{{c, a}});
    r.sides.push_back(edge_key{{a, b}});
    r.new_nodes.clear();
    r.steps_used = 0;
    unsigned s = 0;
    const unsigned sides_made = recover_edge_list(r, r.sides, s, budget, r.new_nodes);
    if (sides_made && !s && !r.sides.empty()) recover_edge_list(r, r.sides, s, 0, r.new_nodes);
    int code = s ? -8 - int(s) : 0;
    const unsigned left = budget > r.new_nodes.size ? budget - r.new_nodes.size : 0;
    r.conflict_nodes.clear();
    r.conflict_edges.clear();
    if (r.sides.empty()) {
      bool exists = false;
      if (error_standing(r)) {
        code = 0;
      } else if (!face_state(r, f, exists)) {
        code = node_alive(m, a) && node_alive(m, b) && node_alive(m, c) ? 0 : -10;
      } else if (exists) {
        code = 2;
      } else {
        code = recover_face(r, f, 1e-12, left, r.new_nodes);
        if (code == -1) code = recover_face(r, f, 1e-12, left, r.new_nodes);
      }
    }
    if (code > 0) {
      if (code == 1 || (code == 2 && sides_made)) {
        ++recovered;
        tally_steps(r, r.counts.faces);
      }
    } else if (code >= -8) {
      r.kept_faces.push_back(f);
    } else {
      r.given_faces.push_back(f);
      for (unsigned i = 0; i < r.conflict_nodes.size; ++i)
        m.unenforced_set.add_node(r.conflict_nodes[i]);
      for (const edge_key& e : r.conflict_edges) note_unenforced_edge(m, e.n[0], e.n[1]);
      note_unenforced_face(m, a, b, c);
    }
    if (code > 0 || code < -8) remove_steiner_nodes(r.steiner, r.new_nodes, false, true, false);
    for (unsigned i = 0; i < r.new_nodes.size; ++i) push_checked(steiner_list, r.new_nodes[i]);
  }
  unsigned w = given_up;
  for (const face_key& f : r.given_faces) list[w++] = f;
  for (const face_key& f : r.kept_faces) list[w++] = f;
  for (; k < list.size(); ++k) list[w++] = list[k];
  list.resize(w);
  given_up += unsigned(r.given_faces.size());
  return recovered;
}

}  // namespace kelvo::voxfill
