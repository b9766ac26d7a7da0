// Pipe of an absent edge: the walk along the segment, its checks, and the swaps of its faces.
#include "voxfill/boundary/pipe_recovery.h"

#include <algorithm>

#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/tet_tables.h"
#include "voxfill/boundary/intersection_tests.h"

namespace kelvo::voxfill {

namespace {

bool holds(const unsigned* f, unsigned count, unsigned n) noexcept {
  for (unsigned k = 0; k < count; ++k)
    if (f[k] == n) return true;
  return false;
}

void face_of(const mesh_store& m, unsigned t, unsigned i, unsigned* f) noexcept {
  const unsigned* r = m.tets.row(t);
  const unsigned* fn = tet_face_nodes[i];
  f[0] = r[fn[0]], f[1] = r[fn[1]], f[2] = r[fn[2]];
}

unsigned face_toward(const mesh_store& m, unsigned t, unsigned other) noexcept {
  const unsigned* nb = m.neighbors.row(t);
  for (unsigned k = 0; k < 4; ++k)
    if (nb[k] == other) return k;
  return 4;
}

// The segment passes through face f: both flags, and more than a touch at a node of the face.
bool passes(const mesh_store& m, const unsigned* f, unsigned a, unsigned b, double d) noexcept {
  const triangle_contact c = intersect_segment_triangle(m.nodes.data, f[0], f[1], f[2],
                                                        m.nodes.row(a), m.nodes.row(b), d, false);
  if (!(c.in_face && c.on_segment)) return false;
  return c.strict || (!holds(f, 3, a) && !holds(f, 3, b));
}

}  // namespace

int walk_pipe(boundary_recoverer& r, unsigned a, unsigned b, double d) noexcept {
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
    r.pipe.push_back(c);
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
    if (next == NONE) return 1;
    c = next;
  }
}

int check_pipe(boundary_recoverer& r, unsigned a, unsigned b) noexcept {
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

int flip_pipe(boundary_recoverer& r, unsigned a, unsigned b, double d) noexcept {
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
      r.new_qualities.push_back(q);
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
    r.ball_tets.push_back(t);
    r.ball_tets.push_back(n);
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

int recover_edge_by_pipe(boundary_recoverer& r, unsigned a, unsigned b, double d, unsigned& budget,
                         dense1D<unsigned>& new_nodes) noexcept {
  (void)new_nodes;
  int c = walk_pipe(r, a, b, d);
  if (c == 2 || c < 0) return c;
  c = check_pipe(r, a, b);
  if (c) return c;
  if (flip_pipe(r, a, b, d) == 1) return 1;
  if (edge_tet(r.store, a, b) != NONE) return 1;
  if (r.pipe.size < 2) return -4;
  // Thinning of the pipe and Steiner nodes in its fan are not made yet: the edge waits for a
  // later pass, when the mesh around it has changed.
  return budget ? -1 : 0;
}

}  // namespace kelvo::voxfill
