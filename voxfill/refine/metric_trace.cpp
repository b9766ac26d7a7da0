// Length of a segment in the size field, by its end sizes, by a walk through a background mesh or
// by sampling.
#include "voxfill/refine/metric_trace.h"

#include <cfloat>
#include <cmath>

#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/tet_tables.h"
#include "voxfill/boundary/intersection_tests.h"
#include "voxfill/optim/move_merit.h"

namespace kelvo::voxfill {

namespace {

constexpr double TRACE_TOL = 1e-12;
constexpr double END_PARAMETER = 0.999999999999;
constexpr double NUDGE = 1e-10;
constexpr unsigned NO_FACE = 4;

double distance(const double* p, const double* q) noexcept {
  return std::sqrt(geometry_detail::dist2<3>(p, q));
}

// The distance over the mean size: 0.0 when the sizes give no positive mean.
double direct_length(const double* P, double hP, const double* Q, double hQ) noexcept {
  const double h = log_mean(hP, hQ);
  return h > 0.0 ? distance(P, Q) / h : 0.0;
}

bool in_domain(const size_field& f, unsigned t) noexcept {
  return t < f.colors.size && color_in_domain(f.colors[t]);
}

bool walkable(const size_field& f) noexcept {
  const node_locator& loc = f.locator;
  return loc.nodes && loc.tets && loc.neighbors && loc.ancestors;
}

// The tet of the field's mesh holding P, searched from t (NONE: from the nearest node).
bool locate_in(size_field& f, const double* P, unsigned& t) noexcept {
  if (!walkable(f)) {
    t = NONE;
    return false;
  }
  return locate_tet(f.locator, P, t, TRACE_TOL, f.walk_bits);
}

// One more column in a 3-row table; the room doubles so that a warm scratch never allocates.
bool append_point(dense2D<double>& table, const double* P) noexcept {
  const unsigned c = table.rows == 3 ? table.cols : 0;
  if (c + 1 > table.capacity_cols() && !table.reserve(3, 2 * (c + 1))) return false;
  if (!table.resize(3, c + 1)) return false;
  double* col = table.col(c);
  col[0] = P[0], col[1] = P[1], col[2] = P[2];
  return true;
}

// Keeps the first n points of the polyline.
void trace_cut(size_field& f, unsigned n) noexcept {
  if (f.trace_sizes.size <= n) return;
  f.trace_points.resize(3, n);
  f.trace_sizes.size = n;
  f.trace_lengths.size = n;
}

// The straight polyline P Q of the two end sizes.
bool trace_ends(size_field& f, const double* P, double hP, const double* Q, double hQ) noexcept {
  trace_clear(f);
  return trace_append(f, P, hP) && trace_append(f, Q, hQ);
}

}  // namespace

void trace_clear(size_field& f) noexcept {
  f.trace_points.clear();
  f.trace_sizes.clear();
  f.trace_tets.clear();
  f.trace_lengths.clear();
}

double trace_last_length(const size_field& f) noexcept {
  return f.trace_lengths.size ? f.trace_lengths.back() : 0.0;
}

bool trace_append(size_field& f, const double* P, double h) noexcept {
  const unsigned k = f.trace_sizes.size;
  double length = 0.0;
  if (k) {
    const double* last = f.trace_points.col(k - 1);
    const double mean = log_mean(f.trace_sizes[k - 1], h);
    length = f.trace_lengths[k - 1] + (mean > 0.0 ? distance(last, P) / mean : 0.0);
  }
  // The point's number is its column: 0, 1, 2, ...
  f.trace_sizes.push_back(h);
  f.trace_lengths.push_back(length);
  if (f.trace_sizes.size != k + 1 || f.trace_lengths.size != k + 1 ||
      !append_point(f.trace_points, P)) {
    trace_clear(f);
    return false;
  }
  return true;
}

bool trace_walk(size_field& f, const double* P, const double* Q, unsigned t,
                double limit) noexcept {
  double D[3];
  geometry_detail::sub3(Q, P, D);
  if (D[0] == 0.0 && D[1] == 0.0 && D[2] == 0.0) return true;
  if (!in_domain(f, t) || !walkable(f)) return false;
  const dense2D<double>& xyz = f.locator.nodes->data;
  const slot_table<unsigned>& tets = *f.locator.tets;
  const slot_table<unsigned>& neighbors = *f.locator.neighbors;
  const dense1D<double>& sizes = f.sizes;
  double cur[3] = {P[0], P[1], P[2]};
  double gain = 0.0;  // how far along D the walk is, as a dot product
  unsigned entry = NO_FACE;
  unsigned nudges = 2;
  for (;;) {
    const unsigned s = f.walk_bits.next();
    const unsigned* n = tets.row(t);
    unsigned exit = NO_FACE;
    triangle_contact exit_contact;
    double exit_gain = 0.0;
    for (unsigned j = 1; j <= 4; ++j) {
      const unsigned face = (s + j) & 3;
      if (face == entry) continue;
      const unsigned* fn = tet_face_nodes[face];
      const triangle_contact c =
          intersect_segment_triangle(xyz, n[fn[0]], n[fn[1]], n[fn[2]], cur, Q, TRACE_TOL, true);
      if (c.t != NO_VALUE && c.t > END_PARAMETER) {
        // The segment ends about here: done when Q lies in this tet.
        double w[3];
        tet_barycentric(xyz, n[0], n[1], n[2], n[3], Q, w);
        if (classify_tet_point(w, TRACE_TOL) == -1) return true;
      }
      if (c.in_face && c.on_segment && c.t > TRACE_TOL) {
        double X_P[3];
        geometry_detail::sub3(c.point, P, X_P);
        const double g = geometry_detail::dot3(X_P, D);
        if (g > gain) {
          exit = face;
          exit_contact = c;
          exit_gain = g;
          break;
        }
      }
    }
    bool crossed = false;
    if (exit != NO_FACE) {
      const unsigned* fn = tet_face_nodes[exit];
      const unsigned F0 = n[fn[0]], F1 = n[fn[1]], F2 = n[fn[2]];
      double size = 0.0;
      if (F0 < sizes.size && F1 < sizes.size && F2 < sizes.size) {
        const double s2 = sizes[F2];
        size = s2 + (sizes[F0] - s2) * exit_contact.weights[0] +
               (sizes[F1] - s2) * exit_contact.weights[1];
      }
      // A crossing without a usable size counts as no crossing: the walk steps past it.
      if (size > 0.0 && size < DBL_MAX) {
        gain = exit_gain;
        cur[0] = exit_contact.point[0], cur[1] = exit_contact.point[1],
        cur[2] = exit_contact.point[2];
        if (!trace_append(f, cur, size)) return false;
        if (trace_last_length(f) >= limit) return true;
        const unsigned nb = neighbors(exit, t);
        if (!in_domain(f, nb)) return false;
        const unsigned* back = neighbors.row(nb);
        entry = NO_FACE;
        for (unsigned k = 0; k < 4; ++k)
          if (back[k] == t) entry = k;
        t = nb;
        nudges = 5;
        crossed = true;
      }
    }
    if (crossed) continue;
    // Stuck on an edge or a node of the mesh: a small step along the segment, and a new start.
    if (nudges == 0) return false;
    --nudges;
    for (unsigned k = 0; k < 3; ++k) cur[k] = cur[k] + NUDGE * D[k];
    if (!locate_tet(f.locator, cur, t, TRACE_TOL, f.walk_bits)) return false;
    double C_P[3];
    geometry_detail::sub3(cur, P, C_P);
    gain = geometry_detail::dot3(C_P, D);
    entry = NO_FACE;
  }
}

bool trace_steps(size_field& f, const double* P, const double* Q, unsigned t, double hP, double hQ,
                 double limit) noexcept {
  if (!trace_ends(f, P, hP, Q, hQ)) return false;
  // As many samples as the end sizes say the segment is long, twice over; the cap keeps the
  // count an integer when the sizes are absurd.
  double m = std::trunc(trace_last_length(f));
  if (!(m >= 2.0)) m = 1.0;
  if (m > 1073741823.0) m = 1073741823.0;
  const unsigned N = 2 * unsigned(m);
  trace_cut(f, 1);
  for (unsigned k = 1; k < N && !(trace_last_length(f) > limit); ++k) {
    const double a = double(k) / double(N);
    double R[3];
    for (unsigned c = 0; c < 3; ++c) R[c] = P[c] + a * (Q[c] - P[c]);
    double h = 0.0;
    if (!field_size_at(f, R, t, h)) {
      trace_ends(f, P, hP, Q, hQ);
      return false;
    }
    if (!trace_append(f, R, h)) return false;
  }
  if (trace_last_length(f) > limit) return true;
  double h = 0.0;
  if (!field_size_at(f, Q, t, h)) {
    trace_ends(f, P, hP, Q, hQ);
    return false;
  }
  return trace_append(f, Q, h);
}

bool trace_length(size_field& f, const double* P, unsigned tP, double hP, const double* Q,
                  unsigned tQ, double hQ, double limit) noexcept {
  trace_clear(f);
  if (!trace_append(f, P, hP)) return false;
  if (tP == tQ) return trace_append(f, Q, hQ);
  if (trace_walk(f, P, Q, tP, limit)) {
    if (!(trace_last_length(f) > limit)) return trace_append(f, Q, hQ);
    return true;
  }
  return trace_steps(f, P, Q, tP, hP, hQ, limit);
}

namespace {

// The trace behind field_length and longer_than: from the tet of P, or by sampling when no tet
// of the field holds P.
bool trace_between(size_field& f, const double* P, unsigned tP, double hP, const double* Q,
                   unsigned tQ, double hQ, double limit) noexcept {
  if (tP == NONE) locate_in(f, P, tP);
  if (tP == NONE) return trace_steps(f, P, Q, NONE, hP, hQ, limit);
  return trace_length(f, P, tP, hP, Q, tQ, hQ, limit);
}

}  // namespace

bool field_length(size_field& f, const double* P, unsigned tP, double hP, const double* Q,
                  unsigned tQ, double hQ, double& L) noexcept {
  L = 0.0;
  if (f.direct_lengths) {
    L = direct_length(P, hP, Q, hQ);
    return true;
  }
  const bool ok = trace_between(f, P, tP, hP, Q, tQ, hQ, DBL_MAX);
  if (ok) L = trace_last_length(f);
  return ok;
}

bool longer_than(size_field& f, const double* P, unsigned tP, double hP, const double* Q,
                 unsigned tQ, double hQ, double limit) noexcept {
  if (f.direct_lengths) {
    const unsigned v = edge_verdict(P, hP, Q, hQ, limit);
    if (v != EDGE_ASK) return v == EDGE_LONG;
    return direct_length(P, hP, Q, hQ) > limit;
  }
  // An edge whose length can't be traced counts as too long.
  const double L = trace_between(f, P, tP, hP, Q, tQ, hQ, limit) ? trace_last_length(f) : DBL_MAX;
  return L > limit;
}

}  // namespace kelvo::voxfill
