// Pipe of an absent edge: the walk along the segment, its checks, and the swaps of its faces.
#include "voxfill/boundary/pipe_recovery.h"

#include <algorithm>
#include <cfloat>

#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/tet_tables.h"
#include "voxfill/boundary/edge_recovery.h"
#include "voxfill/boundary/intersection_tests.h"
#include "voxfill/boundary/steiner_nodes.h"
#include "voxfill/optim/edge_contraction.h"
#include "voxfill/optim/replace_tets.h"

namespace kelvo::voxfill {

namespace {

bool holds(const unsigned* f, unsigned count, unsigned n) {
  for (unsigned k = 0; k < count; ++k)
    if (f[k] == n) return true;
  return false;
}

void face_of(const mesh_store& m, unsigned t, unsigned i, unsigned* f) {
  const unsigned* r = m.tets.row(t);
  const unsigned* fn = tet_face_nodes[i];
  f[0] = r[fn[0]], f[1] = r[fn[1]], f[2] = r[fn[2]];
}

unsigned face_toward(const mesh_store& m, unsigned t, unsigned other) {
  const unsigned* nb = m.neighbors.row(t);
  for (unsigned k = 0; k < 4; ++k)
    if (nb[k] == other) return k;
  return 4;
}

// The segment passes through face f: both flags, and more than a touch at a node of the face.
bool passes(const mesh_store& m, const unsigned* f, unsigned a, unsigned b, double d) {
  if (segment_triangle_apart(m.nodes.data, f[0], f[1], f[2], m.nodes.row(a), m.nodes.row(b), d))
    return false;
  const triangle_contact c = intersect_segment_triangle(m.nodes.data, f[0], f[1], f[2],
                                                        m.nodes.row(a), m.nodes.row(b), d, false);
  if (!(c.in_face && c.on_segment)) return false;
  return c.strict || (!holds(f, 3, a) && !holds(f, 3, b));
}

double dist2_of(const double* A, const double* B) {
  const double u[3] = {B[0] - A[0], B[1] - A[1], B[2] - A[2]};
  return u[0] * u[0] + u[1] * u[1] + u[2] * u[2];
}

// The face of tet t other than `entry` through which the line from a to b leaves it: the face
// whose three sides the line turns round most clearly in one sense (a face that the line misses
// has sides on both senses). NONE when every candidate holds a or b.
unsigned exit_face(const mesh_store& m, unsigned t, unsigned entry, unsigned a, unsigned b) {
  const double* A = m.nodes.row(a);
  const double* B = m.nodes.row(b);
  unsigned best = NONE;
  double best_score = -DBL_MAX;
  for (unsigned j = 0; j < 4; ++j) {
    if (j == entry) continue;
    unsigned f[3];
    face_of(m, t, j, f);
    if (holds(f, 3, a) || holds(f, 3, b)) continue;
    double lo = DBL_MAX, hi = -DBL_MAX;
    for (unsigned k = 0; k < 3; ++k) {
      const double s = orient_det(A, B, m.nodes.row(f[k]), m.nodes.row(f[(k + 1) % 3]));
      lo = std::min(lo, s);
      hi = std::max(hi, s);
    }
    const double score = std::max(lo, -hi);
    if (score > best_score) best_score = score, best = 4 * t + j;
  }
  return best;
}

recovery_target edge_target(unsigned a, unsigned b) {
  recovery_target target;
  target.n[0] = a, target.n[1] = b, target.count = 2;
  return target;
}

// The soft edges, away from a and b, round which the pipe turns, into `turning_edges`: those
// shared by consecutive faces, and the side of each face that passes nearest to the segment
// (three tets round it are a 3-2 swap that no 2-3 swap reaches). Their number.
unsigned pipe_turning_edges(boundary_recoverer& r, unsigned a, unsigned b) {
  mesh_store& m = r.store;
  std::vector<edge_key>& list = r.turning_edges;
  list.clear();
  auto add = [&](unsigned p, unsigned q) {
    if (p == a || p == b || q == a || q == b || m.hard_set.has_edge(p, q)) return;
    for (const edge_key& x : list)
      if ((x.n[0] == p && x.n[1] == q) || (x.n[0] == q && x.n[1] == p)) return;
    list.push_back(edge_key{{p, q}});
  };
  const double* A = m.nodes.row(a);
  const double* B = m.nodes.row(b);
  for (unsigned k = 0; k < r.pipe.size; ++k) {
    unsigned f[3];
    face_of(m, r.pipe[k] >> 2, r.pipe[k] & 3u, f);
    if (k + 1 < r.pipe.size) {
      unsigned g[3], common[3], count = 0;
      face_of(m, r.pipe[k + 1] >> 2, r.pipe[k + 1] & 3u, g);
      for (unsigned i = 0; i < 3; ++i)
        if (holds(g, 3, f[i])) common[count++] = f[i];
      if (count == 2) add(common[0], common[1]);
    }
    unsigned nearest = 3;
    double least = DBL_MAX;
    for (unsigned i = 0; i < 3; ++i) {
      double s, u;
      const double d2 =
          segment_distance2(m.nodes.row(f[i]), m.nodes.row(f[(i + 1) % 3]), A, B, s, u, nullptr);
      if (d2 < least) least = d2, nearest = i;
    }
    if (nearest < 3) add(f[nearest], f[(nearest + 1) % 3]);
  }
  return unsigned(list.size());
}

}  // namespace

int walk_pipe(boundary_recoverer& r, unsigned a, unsigned b, double d) {
  mesh_store& m = r.store;
  r.pipe.clear();
  ball_of_node(m, a, NONE, r.ball_tets);
  if (!r.ball_tets.size) return -1;
  unsigned t = NONE, c = NONE;
  for (unsigned k = 0; k < r.ball_tets.size && t == NONE; ++k) {
    const unsigned u = r.ball_tets[k];
    const unsigned* row = m.tets.row(u);
    unsigned i = 0;
    while (i < 4 && row[i] != a) ++i;
    unsigned f[3];
    face_of(m, u, i, f);
    if (holds(f, 3, b)) return 2;
    if (passes(m, f, a, b, d)) t = u, c = 4 * u + i;
  }
  if (t == NONE) return -1;
  m.bump_marks();
  m.mark(t);
  for (;;) {
    const unsigned n = m.neighbors(c & 3u, c >> 2);
    if (n == NONE) return -1;
    push_checked(r.pipe, c);
    if (m.marked(n)) return -1;  // round in a circle
    m.mark(n);
    const unsigned* row = m.tets.row(n);
    if (holds(row, 4, b)) return 1;
    const unsigned g = face_toward(m, n, c >> 2);
    unsigned next = NONE;
    for (unsigned j = 0; j < 4 && next == NONE; ++j) {
      if (j == g) continue;
      unsigned f[3];
      face_of(m, n, j, f);
      if (holds(f, 3, a) && holds(f, 3, b)) continue;
      if (passes(m, f, a, b, d)) next = 4 * n + j;
    }
    // A segment that runs along a face within rounding meets its plane anywhere, and the test
    // above may find no way out. The line leaves the tet through the one other face whose sides
    // it turns round in one sense; the signs of those turns are well posed however flat the
    // segment lies to the face.
    if (next == NONE && !holds(m.tets.row(n), 4, a)) next = exit_face(m, n, g, a, b);
    if (next == NONE) return 1;
    c = next;
  }
}

int check_pipe(boundary_recoverer& r, unsigned a, unsigned b) {
  mesh_store& m = r.store;
  r.blocking_faces.clear();
  if (!r.pipe.size) return 0;
  const unsigned first = r.pipe[0] >> 2;
  if (m.tets(r.pipe[0] & 3u, first) != a) return -1;
  const unsigned colour = m.colors[first];
  for (unsigned k = 0; k < r.pipe.size; ++k) {
    const unsigned t = r.pipe[k] >> 2, i = r.pipe[k] & 3u;
    if (m.colors[t] != colour) return -9;
    if (k + 1 < r.pipe.size && m.neighbors(i, t) != (r.pipe[k + 1] >> 2)) return -2;
    unsigned f[3];
    face_of(m, t, i, f);
    if (m.hard_set.has_face(f[0], f[1], f[2]))
      r.blocking_faces.push_back(face_key{{f[0], f[1], f[2]}});
  }
  const unsigned last = r.pipe[r.pipe.size - 1];
  const unsigned n = m.neighbors(last & 3u, last >> 2);
  if (n == NONE || m.colors[n] != colour) return -9;
  const unsigned g = face_toward(m, n, last >> 2);
  if (g == 4 || m.tets(g, n) != b) return -3;
  return r.blocking_faces.empty() ? 0 : -30;
}

int flip_pipe(boundary_recoverer& r, unsigned a, unsigned b, double d) {
  mesh_store& m = r.store;
  dense1D<unsigned>& pipe = r.pipe;
  const double* A = m.nodes.row(a);
  const double* B = m.nodes.row(b);
  unsigned p = 0;
  while (p < pipe.size) {
    const unsigned t = pipe[p] >> 2, f = pipe[p] & 3u;
    const unsigned n = m.neighbors(f, t);
    const unsigned g = face_toward(m, n, t);
    if (n == NONE || g == 4) return 0;
    if (p != 0 && p + 1 < pipe.size) {
      // The two faces of the pair must meet in one node, or the swap would cut the pipe.
      const unsigned u = face_toward(m, t, pipe[p - 1] >> 2);
      const unsigned h = pipe[p + 1] & 3u;
      if (u == 4 || m.tets(u, t) != m.tets(h, n)) {
        ++p;
        continue;
      }
    }
    const unsigned a1 = m.tets(f, t), a2 = m.tets(g, n);
    if (a1 != a && a1 != b && a2 != a && a2 != b) {
      double s, u;
      if (!(segment_distance2(m.nodes.row(a1), m.nodes.row(a2), A, B, s, u, nullptr) > d * d)) {
        ++p;
        continue;
      }
    }
    // Two into three: refused when the new tets would double a face that is already there.
    bool refused = false;
    const unsigned* nt = m.neighbors.row(t);
    const unsigned* nn = m.neighbors.row(n);
    for (unsigned i = 0; i < 4 && !refused; ++i) {
      if (i == f || nt[i] == NONE) continue;
      for (unsigned j = 0; j < 4 && !refused; ++j) refused = j != g && nn[j] == nt[i];
    }
    if (refused) {
      ++p;
      continue;
    }
    unsigned rf[3];
    face_of(m, t, f, rf);
    if (!r.new_rows.resize(4, 3)) return 0;
    r.new_qualities.clear();
    for (unsigned k = 0; k < 3; ++k) {
      unsigned* row = r.new_rows.col(k);
      row[0] = a1, row[1] = a2, row[2] = rf[k], row[3] = rf[(k + 1) % 3];
      const double q = tet_quality(m.nodes.data, row[0], row[1], row[2], row[3]);
      if (!(q > 1e-12)) break;
      push_checked(r.new_qualities, q);
    }
    if (r.new_qualities.size != 3) {
      ++p;
      continue;
    }
    // The tet behind n on the pipe, to aim the next entry at the new tet there.
    unsigned behind = NONE, behind_face = 4;
    if (p + 1 < pipe.size) {
      behind = m.neighbors(pipe[p + 1] & 3u, n);
      behind_face = behind == NONE ? 4 : face_toward(m, behind, n);
    }
    r.ball_tets.clear();
    push_checked(r.ball_tets, t);
    push_checked(r.ball_tets, n);
    if (!replace_tets(m, r.steiner.exchange, r.ball_tets, r.new_rows, r.new_qualities,
                      r.new_tets)) {
      ++p;
      continue;
    }
    if (p + 1 < pipe.size) {
      if (behind == NONE || behind_face == 4) return 0;
      const unsigned y = m.neighbors(behind_face, behind);
      const unsigned k = y == NONE ? 4 : face_toward(m, y, behind);
      if (k == 4) return 0;
      pipe[p + 1] = 4 * y + k;
    }
    std::copy(pipe.begin() + p + 1, pipe.end(), pipe.begin() + p);
    --pipe.size;
    if (p) --p;
    if (!pipe.size && a2 == b) return 1;
  }
  return 0;
}

void turn_pipe(boundary_recoverer& r) {
  mesh_store& m = r.store;
  dense1D<unsigned>& pipe = r.pipe;
  const unsigned n = pipe.size;
  for (unsigned k = 0; k < n; ++k) {
    const unsigned t = pipe[k] >> 2;
    const unsigned u = m.neighbors(pipe[k] & 3u, t);
    pipe[k] = u == NONE ? NONE : 4 * u + face_toward(m, u, t);
  }
  std::reverse(pipe.begin(), pipe.end());
}

bool remove_pipe_node(boundary_recoverer& r, unsigned v, unsigned w, bool same_side) {
  mesh_store& m = r.store;
  if (v == w || !is_soft_node(m, v)) return false;
  if (!ball_of_node(m, v, NONE, r.ball_tets) || !r.ball_tets.size) return false;
  m.bump_marks();
  for (unsigned k = 0; k < r.ball_tets.size; ++k) m.mark(r.ball_tets[k]);
  unsigned first = NONE, last = NONE;
  for (unsigned k = 0; k < r.pipe.size; ++k) {
    if (!m.marked(r.pipe[k] >> 2)) continue;
    if (first == NONE) first = k;
    if (last != NONE && last + 1 != k) return false;  // the range must be one stretch
    last = k;
  }
  if (same_side && first != NONE) {
    // Every face of the range through v must show the same edge opposite v.
    unsigned p = NONE, q = NONE;
    for (unsigned k = first; k <= last; ++k) {
      unsigned f[3];
      face_of(m, r.pipe[k] >> 2, r.pipe[k] & 3u, f);
      for (unsigned i = 0; i < 3; ++i) {
        if (f[i] != v) continue;
        const unsigned x = f[(i + 1) % 3], y = f[(i + 2) % 3];
        if (p == NONE) p = x, q = y;
        if (x != p || y != q) return false;
      }
    }
  }
  if (!r.ball_rows.resize(4, r.ball_tets.size)) return false;
  r.ring_nodes.clear();
  for (unsigned k = 0; k < r.ball_tets.size; ++k) {
    const unsigned* row = m.tets.row(r.ball_tets[k]);
    std::copy_n(row, 4, r.ball_rows.col(k));
  }
  double merit = 0.0;
  if (!collapse_onto(r.steiner.removal_state, v, w, w, r.ring_nodes, 1e-12, r.ball_rows, r.new_rows,
                     r.new_qualities, merit))
    return false;
  if (!replace_tets(m, r.steiner.exchange, r.ball_tets, r.new_rows, r.new_qualities, r.new_tets))
    return false;
  m.locator.remove(v);
  m.ancestors[v] = NONE;
  return true;
}

// Removes soft nodes from the walls of the pipe: first those of the face at its mouth onto the
// start, then, along the pipe, the node behind each entering face onto the node across it. The
// pipe is walked again after each removal. True when the edge has come.
bool thin_pipe(boundary_recoverer& r, unsigned from, unsigned to, double d) {
  mesh_store& m = r.store;
  // At the mouth.
  for (bool removed = true; removed && r.pipe.size;) {
    removed = false;
    unsigned f[3];
    face_of(m, r.pipe[0] >> 2, r.pipe[0] & 3u, f);
    for (unsigned i = 0; i < 3 && !removed; ++i) removed = remove_pipe_node(r, f[i], from, false);
    if (removed) {
      const int c = walk_pipe(r, from, to, d);
      if (c == 2) return true;
      if (c < 0) return false;
    }
  }
  // Along the pipe.
  for (unsigned k = 1; k < r.pipe.size;) {
    const unsigned t = r.pipe[k] >> 2;
    const unsigned entering = face_toward(m, t, r.pipe[k - 1] >> 2);
    if (entering == 4) return false;
    const unsigned c = m.tets(r.pipe[k] & 3u, t), v = m.tets(entering, t);
    if (!remove_pipe_node(r, v, c, true)) {
      ++k;
      continue;
    }
    const int w = walk_pipe(r, from, to, d);
    if (w == 2) return true;
    if (w < 0) return false;
  }
  return r.pipe.size == 0 && edge_tet(m, from, to) != NONE;
}

namespace {

// The three tets of t coned from N over its faces other than e.
bool split_by_one(boundary_recoverer& r, unsigned t, unsigned e, unsigned N) {
  const mesh_store& m = r.store;
  for (unsigned i = 0; i < 4; ++i) {
    if (i == e) continue;
    unsigned f[3];
    face_of(m, t, i, f);
    const unsigned row[4] = {N, f[0], f[1], f[2]};
    const double q = tet_quality(m.nodes.data, row[0], row[1], row[2], row[3]);
    if (!(q > 1e-12)) return false;
    const unsigned j = r.new_rows.cols;
    if (!r.new_rows.resize(4, j + 1)) return false;
    std::copy_n(row, 4, r.new_rows.col(j));
    push_checked(r.new_qualities, q);
  }
  return true;
}

// The five tets of t with N1 on face f1 and N2 on face f2.
bool split_by_two(boundary_recoverer& r, unsigned t, unsigned f1, unsigned f2, unsigned N1,
                  unsigned N2) {
  const mesh_store& m = r.store;
  auto add = [&r, &m](unsigned a, unsigned b, unsigned c, unsigned d) {
    const double q = tet_quality(m.nodes.data, a, b, c, d);
    if (!(q > 1e-12)) return false;
    const unsigned j = r.new_rows.cols;
    if (!r.new_rows.resize(4, j + 1)) return false;
    unsigned* w = r.new_rows.col(j);
    w[0] = a, w[1] = b, w[2] = c, w[3] = d;
    push_checked(r.new_qualities, q);
    return true;
  };
  for (unsigned i = 0; i < 4; ++i) {
    if (i == f1 || i == f2) continue;
    unsigned f[3];
    face_of(m, t, i, f);
    if (!add(N1, f[0], f[1], f[2])) return false;
  }
  unsigned g[3];
  face_of(m, t, f2, g);
  return add(N1, N2, g[0], g[1]) && add(N1, N2, g[1], g[2]) && add(N1, N2, g[2], g[0]);
}

// The line AB meets the plane of coded face c at A + t (B - A): false when they are parallel.
bool line_on_face(const mesh_store& m, unsigned c, const double* A, const double* B, double& t) {
  unsigned f[3];
  face_of(m, c >> 2, c & 3u, f);
  double gap2 = 0.0;
  t = segment_plane_parameter(m.nodes.data, f[0], f[1], f[2], A, B, dist2_of(A, B), gap2);
  return t != NO_VALUE;
}

}  // namespace

int pipe_steiner_step(boundary_recoverer& r, unsigned a, unsigned b, unsigned& budget,
                      dense1D<unsigned>& new_nodes) {
  mesh_store& m = r.store;
  const dense1D<unsigned>& pipe = r.pipe;
  const unsigned n = pipe.size;
  // Copies: new nodes may move the table.
  const double A[3] = {m.nodes(0, a), m.nodes(1, a), m.nodes(2, a)};
  const double B[3] = {m.nodes(0, b), m.nodes(1, b), m.nodes(2, b)};
  const double D[3] = {B[0] - A[0], B[1] - A[1], B[2] - A[2]};
  const double DD = D[0] * D[0] + D[1] * D[1] + D[2] * D[2];
  if (n < 2 || !(DD > 0.0)) return -1;
  auto tet_at = [&](unsigned i) {
    return i < n ? pipe[i] >> 2 : m.neighbors(pipe[n - 1] & 3u, pipe[n - 1] >> 2);
  };
  const unsigned T0 = tet_at(0), T1 = tet_at(1);
  const unsigned P = m.tets(face_toward(m, T1, T0), T1);
  unsigned end = 3;
  while (end < n && holds(m.tets.row(pipe[end] >> 2), 4, P)) ++end;
  const unsigned fan = std::max(1u, std::min(end, n) - 2);
  const double XP[3] = {m.nodes(0, P), m.nodes(1, P), m.nodes(2, P)};
  const double PA[3] = {XP[0] - A[0], XP[1] - A[1], XP[2] - A[2]};
  const double tP = (PA[0] * D[0] + PA[1] * D[1] + PA[2] * D[2]) / DD;
  const double W[3] = {PA[0] - tP * D[0], PA[1] - tP * D[1], PA[2] - tP * D[2]};
  const double L = W[0] * W[0] + W[1] * W[1] + W[2] * W[2];
  if (!(L > 0.0)) return -1;
  double t1;
  if (!line_on_face(m, pipe[1], A, B, t1)) return -1;
  const double S[3] = {A[0] + t1 * D[0], A[1] + t1 * D[1], A[2] + t1 * D[2]};
  // The farthest point from S towards P inside the wedge of the first tet at A.
  double s = DBL_MAX;
  for (unsigned i = 0; i < 4; ++i) {
    if (i == (pipe[0] & 3u)) continue;
    double x;
    if (!line_on_face(m, 4 * T0 + i, S, XP, x)) return -1;
    if (x > 0.0) s = std::min(s, x);
  }
  if (s == DBL_MAX) return -1;
  s = std::min(s, 1.0);
  const double Q[3] = {S[0] + s * (XP[0] - S[0]), S[1] + s * (XP[1] - S[1]),
                       S[2] + s * (XP[2] - S[2])};
  const double h = ((Q[0] - A[0]) * W[0] + (Q[1] - A[1]) * W[1] + (Q[2] - A[2]) * W[2]) / L;
  const double step = h / n;
  if (!(step > 0.0)) return -1;
  const unsigned k = std::min(budget, fan);
  const unsigned first_new = new_nodes.size;
  auto undo = [&](int code) {
    while (new_nodes.size > first_new) m.release_node(new_nodes[--new_nodes.size]);
    return code;
  };
  for (unsigned i = 1; i <= k; ++i) {
    double ti;
    if (!line_on_face(m, pipe[i], A, B, ti)) return undo(-1);
    const double u = h - i * step;
    const double tt = ti + (tP - ti) * u;
    const unsigned N = m.new_node(A[0] + u * W[0] + tt * D[0], A[1] + u * W[1] + tt * D[1],
                                  A[2] + u * W[2] + tt * D[2], 0.0);
    if (N == NONE) return undo(-199);
    push_checked(new_nodes, N);
    if (new_nodes.size != first_new + i) {
      m.release_node(N);
      return undo(-199);
    }
  }
  r.ball_tets.clear();
  r.new_rows.resize(4, 0);
  r.new_qualities.clear();
  const unsigned* made = new_nodes.begin() + first_new;
  push_checked(r.ball_tets, T1);
  if (!split_by_one(r, T1, pipe[1] & 3u, made[0])) return undo(-1);
  for (unsigned j = 1; j < k; ++j) {
    const unsigned t = tet_at(j + 1);
    const unsigned e = face_toward(m, t, tet_at(j)), x = pipe[j + 1] & 3u;
    push_checked(r.ball_tets, t);
    const bool ok = j % 2 ? split_by_two(r, t, x, e, made[j], made[j - 1])
                          : split_by_two(r, t, e, x, made[j - 1], made[j]);
    if (!ok) return undo(-1);
  }
  const unsigned t = tet_at(k + 1);
  if (t == NONE) return undo(-1);
  push_checked(r.ball_tets, t);
  if (!split_by_one(r, t, face_toward(m, t, tet_at(k)), made[k - 1])) return undo(-1);
  if (!replace_tets(m, r.steiner.exchange, r.ball_tets, r.new_rows, r.new_qualities, r.new_tets))
    return undo(-1);
  budget -= k;
  return 1;
}

int recover_edge_by_pipe(boundary_recoverer& r, unsigned a, unsigned b, double d, unsigned& budget,
                         dense1D<unsigned>& new_nodes) {
  unsigned steiner_steps = 0, last_length = NONE, edge_rounds = 0;
  for (;;) {
    int c = walk_pipe(r, a, b, d);
    if (c == 2 || c < 0) return c;
    c = check_pipe(r, a, b);
    if (c) return c;
    bool turned = false;
    for (;;) {
      const unsigned from = turned ? b : a, to = turned ? a : b;
      if (flip_pipe(r, from, to, d) == 1) {
        r.steps_used |= step_pipe_flips;
        return 1;
      }
      // Swaps and thinning take turns while the pipe gets shorter, before any Steiner node.
      if (!(r.pipe.size < last_length) || steiner_steps) break;
      last_length = r.pipe.size;
      if (thin_pipe(r, from, to, d) ||
          (turn_pipe(r), turned = !turned, thin_pipe(r, to, from, d))) {
        r.steps_used |= step_pipe_thinning;
        return 1;
      }
      if (!(r.pipe.size < last_length)) break;
    }
    if (edge_tet(r.store, a, b) != NONE) {
      r.steps_used |= step_pipe_flips;
      return 1;
    }
    // A segment that passes close by a node turns round the edges at it: consecutive faces of
    // the pipe share an edge, and no 2-3 swap applies. Those edges go by reconnection of their
    // shells, a few rounds at most, before any Steiner node.
    // When the rounds below change nothing, the pipe they walked still stands.
    bool walked = false;
    if (!steiner_steps && edge_rounds < 4) {
      ++edge_rounds;
      c = walk_pipe(r, a, b, d);
      if (c == 2) return 1;
      if (c < 0) return c;
      if (pipe_turning_edges(r, a, b) &&
          remove_crossing_edges(r, r.turning_edges, edge_target(a, b), d, true).first) {
        r.steps_used |= step_crossing_edges;
        if (edge_tet(r.store, a, b) != NONE) return 1;
        last_length = NONE;
        continue;
      }
      walked = true;
    }
    // Steiner nodes go in from a, whatever the last direction of the swaps was.
    if (!walked) {
      c = walk_pipe(r, a, b, d);
      if (c == 2) return 1;
      if (c < 0) return c;
    }
    const unsigned n = r.pipe.size;
    if (n > 16 && budget < n / 2) budget = 0;
    if (n < 2) return -4;
    if (!budget) return 0;
    c = pipe_steiner_step(r, a, b, budget, new_nodes);
    if (c != 1) return c;
    r.steps_used |= step_pipe_steiner;
    ++steiner_steps;
  }
}

}  // namespace kelvo::voxfill
