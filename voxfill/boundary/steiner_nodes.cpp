// Steiner nodes: softness, removal by contraction, moves to the ball's centre, placement clear of
// an edge.
#include "voxfill/boundary/steiner_nodes.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <utility>

#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/tet_tables.h"
#include "voxfill/boundary/intersection_tests.h"
#include "voxfill/optim/edge_contraction.h"

namespace kelvo::voxfill {

namespace {

bool stopped(const steiner_workspace& w) {
  return w.task && w.task->must_stop();
}

bool alive(const mesh_store& m, unsigned n) noexcept {
  return n < m.ancestors.size && m.ancestors[n] != NONE;
}

double worst_quality(const mesh_store& m, const dense1D<unsigned>& tets) noexcept {
  double q = 1.0;
  for (unsigned k = 0; k < tets.size; ++k) q = std::min(q, m.tet_qualities[tets[k]]);
  return q;
}

// ball_rows = the rows of `ball`, ring_nodes = their nodes other than `node`, sorted, each once.
// False when memory ran out.
bool gather_ball(steiner_workspace& w, unsigned node, const dense1D<unsigned>& ball) noexcept {
  const mesh_store& m = w.store;
  w.ring_nodes.clear();
  if (!w.ball_rows.resize(4, ball.size)) return false;
  for (unsigned k = 0; k < ball.size; ++k) {
    const unsigned* r = m.tets.row(ball[k]);
    std::copy_n(r, 4, w.ball_rows.col(k));
    for (unsigned i = 0; i < 4; ++i)
      if (r[i] != node) w.ring_nodes.push_back(r[i]);
  }
  if (w.ring_nodes.size != 3 * ball.size) return false;
  std::sort(w.ring_nodes.begin(), w.ring_nodes.end());
  w.ring_nodes.size =
      unsigned(std::unique(w.ring_nodes.begin(), w.ring_nodes.end()) - w.ring_nodes.begin());
  return true;
}

// The cone over the ball's outer faces from the nearest of `tries` ring nodes that keeps every
// tet above `floor`, exchanged for the ball. False leaves the mesh as it was.
bool contract_ball(steiner_workspace& w, unsigned node, const dense1D<unsigned>& ball,
                   unsigned tries, double floor) noexcept {
  double merit = 1e-12;
  unsigned kept_node = NONE;
  if (!contract_node(w.removal_state, node, w.ring_nodes, tries, floor, w.ball_rows, w.new_rows,
                     w.new_qualities, merit, kept_node) ||
      !w.new_rows.cols)
    return false;
  return replace_tets(w.store, w.exchange, ball, w.new_rows, w.new_qualities, w.new_tets);
}

// One soft node of a sweep of remove_steiner_nodes: true when it is gone.
bool remove_one(steiner_workspace& w, unsigned v, bool skip_single, bool release,
                bool thorough) noexcept {
  mesh_store& m = w.store;
  const bool closed = ball_of_node(m, v, NONE, w.ball_tets);
  if (w.ball_tets.size) {
    // A node on the hull stays: a cone from one of its neighbours would change the region.
    if (!closed || !gather_ball(w, v, w.ball_tets)) return false;
    if (skip_single) {
      unsigned kept = 0;
      for (unsigned k = 0; k < w.ring_nodes.size; ++k)
        if (std::binary_search(w.listed.begin(), w.listed.end(), w.ring_nodes[k]))
          w.ring_nodes[kept++] = w.ring_nodes[k];
      w.ring_nodes.size = kept;
    }
    // Normally a removal may cost the ball a tenth of its worst quality and no more; a ball
    // already at 1e-10 or below must keep its level.
    double floor = 1e-12;
    if (!thorough) {
      floor = worst_quality(m, w.ball_tets);
      if (floor > 1e-10) floor *= 0.1;
    }
    if (!contract_ball(w, v, w.ball_tets, thorough ? 12 : 4, floor)) return false;
  }
  if (release) m.release_node(v);
  return true;
}

// One pass over the list; it keeps what stays. The number of entries that left it.
unsigned removal_sweep(steiner_workspace& w, dense1D<unsigned>& list, bool skip_single,
                       bool release, bool thorough) noexcept {
  const mesh_store& m = w.store;
  if (skip_single) {
    // Nodes removed during the sweep are in no ball any more, so the list as it stands at the
    // start answers for the whole sweep.
    w.listed.clear();
    for (unsigned k = 0; k < list.size; ++k) w.listed.push_back(list[k]);
    std::sort(w.listed.begin(), w.listed.end());
  }
  const unsigned before = list.size;
  unsigned kept = 0;
  for (unsigned k = 0; k < before; ++k) {
    const unsigned v = list[k];
    if (!alive(m, v)) continue;
    if (!is_soft_node(m, v) || !remove_one(w, v, skip_single, release, thorough)) list[kept++] = v;
  }
  list.size = kept;
  return before - kept;
}

// Value of a position Y in place_node_in_ball: the least of the squared clearances of the
// segments from Y to the ring nodes off the edge, and of the signed squared distances of Y to
// the planes of the faces (negative outside). Stops as soon as it falls below `bar`.
double placement_value(const steiner_workspace& w, const double* Y, const dense1D<unsigned>& faces,
                       const dense1D<unsigned>& ring, unsigned a, unsigned b, double bar) noexcept {
  using namespace geometry_detail;
  const mesh_store& m = w.store;
  const dense2D<double>& xyz = m.nodes.data;
  const double *A = xyz.col(a), *B = xyz.col(b);
  double value = DBL_MAX;
  for (unsigned k = 0; k < ring.size; ++k) {
    const unsigned n = ring[k];
    if (n == a || n == b) continue;
    double s, t;
    const double d = segment_distance2(Y, xyz.col(n), A, B, s, t, nullptr);
    if (d < value) value = d;
    if (value < bar) return value;
  }
  const ball_polyhedron& poly = w.polyhedron;
  for (unsigned j = 0; j < faces.size; ++j) {
    double v = 0.0;
    if (poly.normals2[j] != 0.0) {
      // Measured from the face's node nearest to Y, to keep the offset short.
      const unsigned t = faces[j] >> 2, f = faces[j] & 3u;
      const double* T = nullptr;
      double near2 = DBL_MAX;
      for (unsigned k = 0; k < 3; ++k) {
        const double* p = xyz.col(m.tets(tet_face_nodes[f][k], t));
        const double d2 = dist2<3>(Y, p);
        if (d2 < near2) near2 = d2, T = p;
      }
      double off[3];
      sub3(Y, T, off);
      const double d = dot3(off, poly.normals.col(j));
      v = d * d * poly.inverse2[j];
      if (d < 0.0) v = -v;
    }
    if (v < value) value = v;
    if (value < bar) return value;
  }
  return value;
}

}  // namespace

steiner_workspace::steiner_workspace(mesh_store& m, Ptr<task_type> t)
    : store(m), task(std::move(t)), merit(m), removal_state(m, merit) {
  // Room for usual balls, so that warm calls do not allocate; too little room is only slower.
  ball_tets.reserve(64);
  ball_rows.reserve(4, 64);
  ring_nodes.reserve(256);
  ball_faces.reserve(64);
  new_rows.reserve(4, 64);
  new_qualities.reserve(64);
  new_tets.reserve(64);
}

bool is_soft_node(const mesh_store& m, unsigned node) noexcept {
  if (m.hard_set.has_node(node)) return false;
  for (unsigned k = 0; k < m.box_nodes.size; ++k)
    if (m.box_nodes[k] == node) return false;
  return true;
}

void keep_soft_nodes(const mesh_store& m, dense1D<unsigned>& list) noexcept {
  unsigned kept = 0;
  for (unsigned k = 0; k < list.size; ++k)
    if (alive(m, list[k]) && is_soft_node(m, list[k])) list[kept++] = list[k];
  list.size = kept;
}

unsigned remove_steiner_nodes(steiner_workspace& w, dense1D<unsigned>& list, bool skip_single,
                              bool release, bool thorough) noexcept {
  if (!list.size || (skip_single && list.size == 1) || stopped(w)) return 0;
  const unsigned start = list.size;
  for (;;) {
    const unsigned before = list.size;
    const unsigned removed = removal_sweep(w, list, skip_single, release, thorough);
    // Thorough sweeps go on while they pay: more than one node in twenty goes.
    if (!thorough || !(20 * removed > before)) break;
  }
  return start - list.size;
}

bool remove_node_by_cone(steiner_workspace& w, unsigned node, const dense1D<unsigned>& ball_tets,
                         unsigned tries, double floor) noexcept {
  mesh_store& m = w.store;
  if (!ball_tets.size) {
    m.locator.remove(node);
    m.ancestors[node] = NONE;
    return true;
  }
  if (!tries || !gather_ball(w, node, ball_tets)) return false;
  return contract_ball(w, node, ball_tets, tries, floor);
}

unsigned smooth_steiner_nodes(steiner_workspace& w, const dense1D<unsigned>& list) noexcept {
  if (!list.size || stopped(w)) return 0;
  unsigned moved = 0;
  for (unsigned k = 0; k < list.size; ++k) {
    const unsigned v = list[k];
    if (alive(w.store, v) && is_soft_node(w.store, v) &&
        smooth_steiner_node(w, v, 0.0, 1.000000000001))
      ++moved;
  }
  return moved;
}

bool smooth_steiner_node(steiner_workspace& w, unsigned node, double tol, double factor) noexcept {
  mesh_store& m = w.store;
  // A node on the hull stays: a move would change the region the mesh covers.
  if (!ball_of_node(m, node, NONE, w.ball_tets)) return false;
  const dense1D<unsigned>& ball = w.ball_tets;
  const double q0 = worst_quality(m, ball);
  w.ball_faces.clear();
  for (unsigned k = 0; k < ball.size; ++k)
    w.ball_faces.push_back(4 * ball[k] + local_index(m.tets.row(ball[k]), node));
  if (w.ball_faces.size != ball.size) return false;

  double* p = m.nodes.row(node);
  const double X0[3] = {p[0], p[1], p[2]};
  double X[3] = {p[0], p[1], p[2]}, least2;
  ball_center(m, w.ball_faces, X, least2, w.polyhedron);
  if (least2 < tol * tol) return false;

  // Only a strict gain on the worst tet around the node pays for the move.
  p[0] = X[0], p[1] = X[1], p[2] = X[2];
  const double floor = std::max(q0 * factor, 1e-12);
  w.new_qualities.clear();
  for (unsigned k = 0; k < ball.size; ++k) {
    const unsigned* r = m.tets.row(ball[k]);
    const double q = tet_quality(m.nodes.data, r[0], r[1], r[2], r[3]);
    if (!(q > floor)) break;
    w.new_qualities.push_back(q);
  }
  if (w.new_qualities.size != ball.size) {
    p[0] = X0[0], p[1] = X0[1], p[2] = X0[2];
    return false;
  }
  for (unsigned k = 0; k < ball.size; ++k) m.tet_qualities[ball[k]] = w.new_qualities[k];
  return true;
}

bool place_node_in_ball(steiner_workspace& w, unsigned node, const dense1D<unsigned>& faces,
                        const dense1D<unsigned>& ring, unsigned a, unsigned b, double tol,
                        const dense2D<unsigned>& rows, dense1D<double>& new_qualities,
                        random_source_type& shuffle_source) noexcept {
  mesh_store& m = w.store;
  new_qualities.clear();
  const double t2 = tol * tol;
  double* p = m.nodes.row(node);
  const double X0[3] = {p[0], p[1], p[2]};
  double C[3] = {p[0], p[1], p[2]}, least2;
  ball_center(m, faces, C, least2, w.polyhedron);
  if (least2 < t2) return false;

  // A random search around the centre, widening the steps after a gain and narrowing them
  // after a loss. Inside the planes the value can reach least2 at most; 0.8 of it is enough.
  const double r = std::sqrt(least2), limit = 0.8 * least2;
  double best[3] = {C[0], C[1], C[2]}, best_value = 0.0, step = 0.5;
  double Y[3] = {C[0], C[1], C[2]};
  if (!ring.size) {
    best_value = least2;
  } else {
    for (unsigned k = 0; k < 39; ++k) {
      const double v = placement_value(w, Y, faces, ring, a, b, best_value);
      if (v > best_value) {
        best[0] = Y[0], best[1] = Y[1], best[2] = Y[2];
        best_value = v;
        step *= 1.5;
      } else {
        step *= 0.8;
      }
      if (v > limit && v > 2.0 * t2) break;
      for (unsigned i = 0; i < 3; ++i) {
        const double u = double(std::uint32_t(shuffle_source())) * 4.656612874161595e-10 - 1.0;
        Y[i] = best[i] + step * r * u;
      }
    }
  }

  if (best_value > t2) {
    p[0] = best[0], p[1] = best[1], p[2] = best[2];
    for (unsigned j = 0; j < rows.cols; ++j) {
      const unsigned* n = rows.col(j);
      const double q = tet_quality(m.nodes.data, n[0], n[1], n[2], n[3]);
      if (!(q > 1e-12)) break;
      new_qualities.push_back(q);
    }
    if (new_qualities.size == rows.cols) return true;
  }
  p[0] = X0[0], p[1] = X0[1], p[2] = X0[2];
  new_qualities.clear();
  return false;
}

}  // namespace kelvo::voxfill
