// Node smoothing by a weighted vote of the ball and a line search along it.
#include "voxfill/optim/node_smoothing.h"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "delaunay/cpu_lanes.h"
#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/quality_lanes.h"
#include "delaunay/tet_tables.h"
#include "voxfill/optim/regularize_mesh.h"
#include "voxfill/optim/regularizer.h"
#include "voxfill/optim/smoothing_lanes.h"

namespace kelvo::voxfill {

namespace {

using namespace geometry_detail;

// q^w s^(1 - w), or q alone when w >= 1.
double blend(double s, double q, double w) noexcept {
  return w >= 1.0 ? q : s * std::pow(q / s, w);
}

// Best place along a line of unit steps, kept in the outputs when it beats `best`.
struct line_search {
  regularizer& g;
  unsigned node;
  const double* start;
  double start_size;
  const double* step;
  double weight;
  bool use_ray;
  unsigned steps;
  double& best;
  double* best_position;
  double& best_size;
  unsigned worst;  // the ball's position of the worst tet at the best place so far
};

// s x^e (1 - 1e-9) as hopeless_below takes it, or a little lower: ln x = k ln 2 + 2 atanh(u), u =
// (m - 1) / (m + 1) with m within a factor of sqrt 2 of 1, the series cut after u^9 (short by
// under 1e-9), then exp as 2^n times its Taylor series to r^7 (|r| < 0.35, off by under 1e-8).
// For e up to 4 the result is within 3e-8 of s x^e, far within the 1e-7 taken off; outside the
// ranges where that holds, the power itself.
double power_below(double s, double x, double e) noexcept {
  constexpr double LN2 = 0.6931471805599453;
  if (x >= 1e-300 && x <= 1e300 && e > 0.0 && e <= 4.0) {
    const std::uint64_t bits = std::bit_cast<std::uint64_t>(x);
    int k = int((bits >> 52) & 0x7FF) - 1023;
    double m = std::bit_cast<double>((bits & 0x000FFFFFFFFFFFFFull) | 0x3FF0000000000000ull);
    if (m > 1.4142135623730951) m *= 0.5, k += 1;
    const double u = (m - 1.0) / (m + 1.0), u2 = u * u;
    const double series = 1.0 + u2 * (1.0 / 3 + u2 * (1.0 / 5 + u2 * (1.0 / 7 + u2 * (1.0 / 9))));
    const double y = e * (k * LN2 + 2.0 * u * series);
    if (y > -600.0 && y < 600.0) {
      const double z = y * (1.0 / LN2);
      const int n = int(z < 0.0 ? z - 0.5 : z + 0.5);
      const double r = y - n * LN2;
      const double t =
          1.0 +
          r * (1.0 +
               r * (1.0 / 2 +
                    r * (1.0 / 6 + r * (1.0 / 24 + r * (1.0 / 120 + r * (1.0 / 720 + r / 5040))))));
      const double v = s * (t * std::bit_cast<double>(std::uint64_t(n + 1023) << 52));
      if (v > 1e-290 && v < 1e290) return v * (1.0 - 1e-7);
    }
  }
  return s * std::pow(x, e) * (1.0 - 1e-9);
}

// A quality under which a trial's merit, blended with edge fit s, cannot exceed `best`: below
// s (best / s)^(1 / weight) (1 - 1e-9), so that a trial given up on it would never have won.
// Any lower value gives up on fewer trials but keeps the same winners.
double hopeless_below(double best, double s, double weight) noexcept {
  if (!(best > 0.0)) return 0.0;
  if (weight >= 1.0) return best;
  if (!(s > 0.0) || weight <= 0.0) return 0.0;
  return power_below(s, best / s, 1.0 / weight);
}

// What apex_of reads of the store, by plain pointers: coordinates, sizes, the visit marks and,
// when given, the log means of the marked nodes with the size of the apex's node.
struct apex_view {
  const double* xyz;
  std::size_t ld;
  const double* sizes;
  const unsigned* marks;
  unsigned marks_size;
  unsigned mark;
  const double* means;

  apex_view(const mesh_store& m, const dense1D<double>* with) noexcept
      : xyz(m.nodes.data.col(0)),
        ld(m.nodes.data.ld),
        sizes(m.node_sizes.begin()),
        marks(m.marks.begin()),
        marks_size(m.marks.size),
        mark(m.mark_value),
        means(with ? with->begin() : nullptr) {}
};

// The target of apex_target from the frame of the face opposite the node (unit normal N,
// centroid C, perimeter e), the face's nodes f of `row`.
inline void apex_from_frame(const apex_view& m, const unsigned* row, const unsigned* f,
                            double weight, double size, const double* N, const double* C, double e,
                            double* target) noexcept {
  if (weight < 1.0) {
    double s = 0.0;
    for (unsigned k = 0; k < 3; ++k) {
      const unsigned v = row[f[k]];
      s += m.means && v < m.marks_size && m.marks[v] == m.mark ? m.means[v]
                                                               : log_mean(m.sizes[v], size);
    }
    e = s + weight * (e - s);
  }
  for (unsigned k = 0; k < 3; ++k) target[k] = C[k] + 0.2721655269759087 * e * N[k];
}

// apex_target on a view of the store.
inline void apex_of(const apex_view& m, const unsigned* row, unsigned local, double weight,
                    double size, double* target) noexcept {
  const unsigned* f = tet_face_nodes[local];
  const double* a = m.xyz + m.ld * row[f[0]];
  const double* b = m.xyz + m.ld * row[f[1]];
  const double* c = m.xyz + m.ld * row[f[2]];
  double N[3], C[3];
  face_normal(a, b, c, N);
  const double n2 = dot3(N, N);
  if (n2 != 0.0 && n2 != 1.0)
    for (double& x : N) x /= std::sqrt(n2);
  const double e =
      std::sqrt(dist2<3>(a, b)) + std::sqrt(dist2<3>(b, c)) + std::sqrt(dist2<3>(c, a));
  for (unsigned k = 0; k < 3; ++k) C[k] = (a[k] + b[k] + c[k]) / 3;
  apex_from_frame(m, row, f, weight, size, N, C, e, target);
}

// The size on the surface of the ball beyond trial point P, and how far one step goes there.
[[gnu::noinline]] void prepare_ray(regularizer& g, const double* P) noexcept {
  const mesh_store& m = g.engine;
  const node_smoother& sm = g.smoother;
  size_ray& ray = g.smoother.ray;
  ray.valid = false;
  // Each tet of the ball seen from outside its face opposite the node: (node, o1, o3, o2) with o
  // that face turned, from the points and places of the vote.
  const unsigned n = sm.ball_rows.cols;
  const unsigned* locals = sm.ball_locals.begin();
  const double* const* points = sm.ball_points.begin();
  auto face_tet = [&](unsigned j, const double** q) {
    const double* const* t = points + 4 * j;
    const unsigned* o = tet_turned_face_nodes[locals[j]];
    q[0] = t[locals[j]], q[1] = t[o[0]], q[2] = t[o[2]], q[3] = t[o[1]];
  };
  // The first tet of the ball, in its order, that holds P: four at a time.
  unsigned found = n;
  for (unsigned j0 = 0; j0 < n; j0 += 4) {
    const double* pts[4][4];
    const double* const* lanes[4] = {pts[0], pts[1], pts[2], pts[3]};
    for (unsigned l = 0; l < 4; ++l) face_tet(j0 + l < n ? j0 + l : n - 1, pts[l]);
    unsigned bits = inside_lanes(lanes, P, 1e-10);
    if (n - j0 < 4) bits &= (1u << (n - j0)) - 1u;
    if (bits) {
      found = j0 + unsigned(__builtin_ctz(bits));
      break;
    }
  }
  if (found == n) return;
  const double* q[4];
  face_tet(found, q);
  double w[3];
  tet_barycentric(q[0], q[1], q[2], q[3], P, w);
  ray.step_fraction = 1 - w[0];
  double u = 0.0, v = 0.0;
  if (ray.step_fraction > 0.0) {
    u = std::clamp(w[1] / ray.step_fraction, 0.0, 1.0);
    v = std::clamp(w[2] / ray.step_fraction, 0.0, 1.0);
  }
  const unsigned* r = sm.ball_rows.col(found);
  const unsigned* o = tet_turned_face_nodes[locals[found]];
  const double h1 = m.node_sizes[r[o[0]]], h2 = m.node_sizes[r[o[2]]], h3 = m.node_sizes[r[o[1]]];
  const double size = h3 + (h1 - h3) * u + (h2 - h3) * v;
  ray.valid = size > 0.0 && size < DBL_MAX;
  if (ray.valid) {
    ray.start_size = m.node_sizes[ray.node];
    ray.end_size = size;
  }
}

void walk_line(line_search& w) noexcept {
  regularizer& g = w.g;
  th4_engine& m = g.engine;
  node_smoother& sm = g.smoother;
  double* p = m.nodes.row(w.node);
  const double old[3] = {p[0], p[1], p[2]}, old_size = m.node_sizes[w.node];
  const unsigned n = sm.ball_rows.cols;
  const unsigned edges = sm.ball_neighbors.size;
  const double* const* ends = sm.neighbor_points.begin();  // made by the vote
  sm.trial_qualities.resize(n);
  // A trial's qualities go to one list and the best trial's stay in the other: an improvement
  // swaps their roles instead of copying.
  double* trial_qualities = sm.trial_qualities.begin();
  double* kept_qualities = sm.best_qualities.begin();
  const double* const* points = sm.ball_points.begin();  // made by the vote
  unsigned* order = sm.trial_order.begin();
  const double* const** ordered = sm.trial_points.begin();
  unsigned ordered_first = NONE;
  // Four tets at a time straight from `points` when the lanes run, else through `ordered`.
  const bool blocks = lanes_avx();
  double k = 1.0;
  for (unsigned i = 0; i < w.steps; ++i) {
    const double trial[3] = {w.start[0] + k * w.step[0], w.start[1] + k * w.step[1],
                             w.start[2] + k * w.step[2]};
    double size = w.start_size, h = 0.0;
    if (g.use_background && g.moves.size_at && g.moves.size_at(g.moves.size_context, trial, h)) {
      size = h;
    } else if (w.use_ray) {
      if (i == 0) prepare_ray(g, trial);
      if (!sm.ray.valid) break;
      const double t = sm.ray.step_fraction * k;
      if (t > 1.0) break;
      size = sm.ray.start_size + (sm.ray.end_size - sm.ray.start_size) * t;
    }
    p[0] = trial[0], p[1] = trial[1], p[2] = trial[2];
    if (g.moves_carry_sizes) m.node_sizes[w.node] = size;
    // The ball's edges first: with them the quality below which the trial cannot beat `best` is
    // known, and the tets are given up at the first one under it, the last worst one tried first.
    double s = 1.0;
    if (w.weight < 1.0) {
      const double hn = m.node_sizes[w.node];
      if (sm.edge_means.size == edges && hn == sm.means_size) {
        s = cached_edge_fit(p, ends, sm.edge_means.begin(), edges);
      } else if (!sm.edge_lengths.size ||
                 !sized_edge_fit(p, hn, ends, sm.neighbor_sizes.begin(), edges,
                                 sm.edge_lengths.begin(), sm.edge_bounds.begin(), s)) {
        for (unsigned e = 0; e < edges; ++e)
          s = std::min(s, symmetric_length(m, w.node, sm.ball_neighbors[e]));
      }
    }
    const double hopeless = hopeless_below(w.best, s, w.weight);
    double merit = 0.0, q = 1.0;
    const unsigned first = w.worst < n ? w.worst : 0;
    unsigned worst = first;
    if (blocks) {
      if (!ball_trial(points, n, first, hopeless, trial_qualities, q, worst)) q = -1.0;
    } else {
      if (first != ordered_first) {
        // The last worst tet first, then the others in ball order; three more entries repeat the
        // last so that every group of four lanes is full.
        order[0] = first;
        for (unsigned c = 1; c <= first; ++c) order[c] = c - 1;
        for (unsigned c = first + 1; c < n; ++c) order[c] = c;
        for (unsigned c = n; c < n + 3; ++c) order[c] = order[n - 1];
        for (unsigned c = 0; c < n + 3; ++c) ordered[c] = points + 4 * order[c];
        ordered_first = first;
      }
      // Four tets at a time, taken in the order of the scalar loop; the ones past a give-up are
      // evaluated for nothing, but cost less than doing each alone.
      for (unsigned c0 = 0; c0 < n && q > 0.0; c0 += 4) {
        double vs[4];
        tet_quality_lanes(ordered + c0, vs);
        const unsigned lanes = n - c0 < 4 ? n - c0 : 4;
#if defined(__SSE2__)
        // A full group where no lane ends the trial (too flat or hopeless) takes no tests by lane.
        if (lanes == 4) {
          const __m128d lo = _mm_loadu_pd(vs), hi = _mm_loadu_pd(vs + 2);
          const __m128d flat = _mm_set1_pd(1e-12), bar = _mm_set1_pd(hopeless);
          const int stop =
              _mm_movemask_pd(_mm_or_pd(_mm_cmpngt_pd(lo, flat), _mm_cmplt_pd(lo, bar))) |
              _mm_movemask_pd(_mm_or_pd(_mm_cmpngt_pd(hi, flat), _mm_cmplt_pd(hi, bar)));
          if (!stop) {
            for (unsigned l = 0; l < 4; ++l) {
              const unsigned j = order[c0 + l];
              trial_qualities[j] = vs[l];
              if (vs[l] < q) {
                q = vs[l];
                worst = j;
              }
            }
            continue;
          }
        }
#endif
        for (unsigned l = 0; l < lanes; ++l) {
          const unsigned j = order[c0 + l];
          const double v = vs[l];
          if (!(v > 1e-12)) {
            q = -1.0;
            break;
          }
          trial_qualities[j] = v;
          if (v < q) {
            q = v;
            worst = j;
          }
          if (q < hopeless) {
            q = -1.0;
            break;
          }
        }
      }
    }
    if (q > 0.0) merit = blend(s, q, w.weight);
    const bool improved = merit > w.best;
    if (improved) {
      std::copy_n(trial, 3, w.best_position);
      w.best_size = size;
      std::swap(trial_qualities, kept_qualities);
      w.best = merit;
      w.worst = worst;
      k += 1.0;
    }
    p[0] = old[0], p[1] = old[1], p[2] = old[2];
    m.node_sizes[w.node] = old_size;
    if (!improved) break;
  }
  if (kept_qualities != sm.best_qualities.begin())
    std::copy_n(kept_qualities, n, sm.best_qualities.begin());
}

// The vote of the ball and the line search along it: the gain, and the best place.
double search_step(regularizer& g, unsigned node, double weight, const dense1D<unsigned>& ball,
                   double* best_position, double& best_size) noexcept {
  th4_engine& m = g.engine;
  node_smoother& sm = g.smoother;
  const double* base = m.nodes.data.col(0);
  const std::size_t ld = m.nodes.data.ld;
  const double* p = base + ld * node;
  const double* sizes = m.node_sizes.begin();
  const double h = sizes[node];
  const unsigned n = ball.size;
  unsigned* rows = sm.ball_rows.col(0);
  const std::size_t rows_ld = sm.ball_rows.ld;
  double W_sum = 0.0, D[3] = {0.0, 0.0, 0.0};
  unsigned worst = 0;
  // One pass over the ball's tets: their rows, points (for the frames here and the trials of the
  // line search: the nodes other than this one stay put), the node's place in each row, and the
  // other ends of its edges. Every neighbour of a closed ball is in three tets at least: the
  // first two can be left out of that.
  unsigned* locals = sm.ball_locals.begin();
  sm.ball_points.resize(4 * n + 12);
  const double** points = sm.ball_points.begin();
  m.bump_marks();
  m.mark(node);
  {
    const ball_gather b{m.tets.data.col(0),
                        m.tets.data.ld,
                        base,
                        ld,
                        m.marks.begin(),
                        m.marks.size,
                        m.mark_value,
                        m.marks.size >= m.nodes.cols(),
                        rows,
                        points,
                        locals,
                        sm.ball_neighbors.begin()};
    // ball_rows was sized to four rows, which makes its leading dimension 4, as gather_ball
    // takes it.
    sm.ball_neighbors.size = gather_ball(b, ball.begin(), n, node);
  }
  // The last tet's points three more times, so that the line search's last group of four is full.
  for (unsigned i = 4 * n; n && i < 4 * n + 12; ++i) points[i] = points[i - 4];
  const unsigned edges = sm.ball_neighbors.size;
  const unsigned* nb = sm.ball_neighbors.begin();
  {
    // The other ends' points and sizes, the last repeated to fill a group of four lanes.
    const double** ends = sm.neighbor_points.begin();
    double* end_sizes = sm.neighbor_sizes.begin();
    for (unsigned e = 0; e < edges; ++e) {
      ends[e] = base + ld * nb[e];
      end_sizes[e] = sizes[nb[e]];
    }
    for (unsigned e = edges; e < edges + 3 && edges; ++e) {
      ends[e] = ends[edges - 1];
      end_sizes[e] = end_sizes[edges - 1];
    }
  }
  // Each neighbour's mean with the node once, instead of once per tet that the two share.
  const unsigned cols = m.nodes.cols();
  const bool cached =
      weight < 1.0 &&
      (sm.node_means.size >= cols || sm.node_means.resize(std::max(cols, 2 * sm.node_means.size)));
  double* node_means = sm.node_means.begin();
  if (cached)
    for (unsigned e = 0; e < edges; ++e) node_means[nb[e]] = log_mean(h, sizes[nb[e]]);
  // The targets over the faces opposite the node four at a time, then the votes in order.
  double* targets = sm.vote_targets.begin();  // three per tet, padded to full groups and then one
  {
    const unsigned* marks = m.marks.begin();
    const unsigned marks_size = m.marks.size, mark = m.mark_value;
    // The rows from the third on have all their nodes marked by now; with those of the first two
    // marked too, every face node has its mean cached.
    bool direct = cached;
    for (unsigned j = 0; j < 2 && j < n; ++j)
      for (unsigned i = 0; i < 4; ++i) {
        const unsigned v = rows[rows_ld * j + i];
        direct = direct && v < marks_size && marks[v] == mark;
      }
    // Each tet's face opposite the node, its points and (when the sizes vote too) the means of
    // its nodes, in one pass; the last tet repeated to fill the last group of four.
    const double** face = sm.face_points.begin();
    double* means = sm.face_means.begin();
    const bool sized = weight < 1.0;
    for (unsigned j = 0; j < n; ++j) {
      const unsigned* r = rows + rows_ld * j;
      const unsigned* f = tet_face_nodes[locals[j]];
      const double* const* q = points + 4 * j;
      const double** fj = face + 3 * j;
      fj[0] = q[f[0]], fj[1] = q[f[1]], fj[2] = q[f[2]];
      double* mj = means + 3 * j;
      if (direct)
        for (unsigned k = 0; k < 3; ++k) mj[k] = node_means[r[f[k]]];
      else if (sized)
        for (unsigned k = 0; k < 3; ++k) {
          const unsigned v = r[f[k]];
          mj[k] =
              cached && v < marks_size && marks[v] == mark ? node_means[v] : log_mean(sizes[v], h);
        }
    }
    for (unsigned i = 3 * n; n && i < 3 * n + 9; ++i) {
      face[i] = face[i - 3];
      means[i] = means[i - 3];  // unset and unread when the sizes do not vote
    }
    for (unsigned j0 = 0; j0 < n; j0 += 4) {
      const double* const* lanes[4] = {face + 3 * j0, face + 3 * j0 + 3, face + 3 * j0 + 6,
                                       face + 3 * j0 + 9};
      apex_lanes(lanes, 0.2721655269759087, weight,
                 sized ? reinterpret_cast<const double(*)[3]>(means + 3 * j0) : nullptr,
                 reinterpret_cast<double(*)[3]>(targets + 3 * j0));
    }
  }
  const double qmin =
      ball_vote(targets, m.tet_qualities.begin(), ball.begin(), n, p, D, W_sum, worst);
  double d2_min = DBL_MAX, d2_sum = 0.0, r_max = 1.0, s_min = 1.0;
  if (!sm.edge_lengths.resize(edges + 3) || !sm.edge_bounds.resize(edges + 3)) {
    sm.edge_lengths.clear();
    sm.edge_bounds.clear();
  }
  sm.edge_means.clear();
  const bool keep = weight < 1.0 && sm.edge_means.reserve(edges + 3) && sm.edge_means.resize(edges);
  double* edge_means = sm.edge_means.begin();
  sm.means_size = h;
  if (keep || weight >= 1.0) {
    // The means first, three more repeating the last for the groups of four; then the terms.
    for (unsigned e = 0; keep && e < edges; ++e)
      edge_means[e] = cached ? node_means[nb[e]] : log_mean(h, sizes[nb[e]]);
    for (unsigned e = edges; keep && edges && e < edges + 3; ++e)
      edge_means[e] = edge_means[edges - 1];
    ball_edge_terms(p, h, sm.neighbor_points.begin(), sm.neighbor_sizes.begin(),
                    keep ? edge_means : nullptr, edges, g.moves_carry_sizes, d2_min, d2_sum, r_max,
                    s_min);
  } else {
    for (unsigned e = 0; e < edges; ++e) {
      const unsigned b = nb[e];
      const double d2 = dist2<3>(p, base + ld * b);
      d2_min = std::min(d2_min, d2);
      d2_sum += d2;
      const double hb = sizes[b];
      if (g.moves_carry_sizes && h > 0.0 && hb > 0.0) r_max = std::max({r_max, h / hb, hb / h});
      const double mean = cached ? node_means[b] : log_mean(h, hb);
      const double d = std::sqrt(d2);
      s_min = std::min(s_min, d > mean ? mean / d : (mean > 0.0 ? d / mean : 0.0));
    }
  }
  if (!keep) sm.edge_means.clear();
  const double rms = std::sqrt(d2_sum / n);
  if (W_sum > 0.0)
    for (double& d : D) d /= W_sum;
  double len = std::sqrt(dot3(D, D));
  if (!(len >= 1e-12 * rms)) return 1.0;
  if (len > rms) {
    for (double& d : D) d *= rms / len;
    len = rms;
  }
  double f = std::min(0.5 * std::sqrt(d2_min) / len, qmin) / r_max;
  f = std::clamp(f, 0.0025, 0.25);
  const unsigned K = unsigned(std::lround(1.0 / f)), N = std::min(K, 40u);
  for (double& d : D) d /= K;
  const bool use_ray = (r_max - 1) * len * N / K > 0.05 * rms;
  if (use_ray) {
    size_ray& ray = sm.ray;
    ray.node = node;
    ray.valid = false;
  }
  const double m0 = blend(s_min, qmin, weight);
  double best = m0;
  const double start[3] = {p[0], p[1], p[2]};
  line_search w{g, node, start, h, D, weight, use_ray, N, best, best_position, best_size, worst};
  walk_line(w);
  return best > m0 ? best / m0 : 1.0;
}

}  // namespace

void apex_target(const regularizer& g, const unsigned* row, unsigned local, double weight,
                 double size, double* target, const dense1D<double>* means) noexcept {
  apex_of(apex_view(g.engine, means), row, local, weight, size, target);
}

double smooth_node(regularizer& g, unsigned node, double weight,
                   const dense1D<unsigned>& ball) noexcept {
  if (!ball.size) return 1.0;
  th4_engine& m = g.engine;
  node_smoother& sm = g.smoother;
  const unsigned n = ball.size, e = 3 * n / 2;
  if (!sm.ball_rows.resize(4, n) || !sm.trial_qualities.reserve(n) ||
      !sm.ball_points.reserve(4 * n + 12) || !sm.best_qualities.resize(n) ||
      !sm.ball_locals.resize(n) || !sm.trial_order.resize(n + 3) ||
      !sm.trial_points.resize(n + 3) || !sm.ball_neighbors.reserve(4 * n) ||
      !sm.vote_targets.resize(3 * n + 13) || !sm.face_points.resize(3 * n + 9) ||
      !sm.face_means.resize(3 * n + 9) || !sm.neighbor_points.resize(4 * n + 3) ||
      !sm.neighbor_sizes.resize(4 * n + 3) || !sm.edge_means.reserve(e + 3) ||
      !sm.edge_lengths.reserve(e + 3) || !sm.edge_bounds.reserve(e + 3))
    return 0.0;
  const double w = g.moves_carry_sizes ? weight : 1.0;
  double position[3] = {0.0, 0.0, 0.0}, size = 0.0;
  const double gain = search_step(g, node, w, ball, position, size);
  if (!(gain > 1.0)) return gain;
  double* p = m.nodes.row(node);
  p[0] = position[0], p[1] = position[1], p[2] = position[2];
  if (g.moves_carry_sizes) m.node_sizes[node] = size;
  for (unsigned j = 0; j < n; ++j) m.tet_qualities[ball[j]] = sm.best_qualities[j];
  return gain;
}

double smooth_nodes(regularizer& g, const dense1D<unsigned>& nodes, double weight) noexcept {
  th4_engine& m = g.engine;
  double gain = 1.0;
  for (unsigned k = 0; k < nodes.size; ++k) {
    const unsigned node = nodes[k];
    dense1D<unsigned>& ball = g.smoother.ball;
    const unsigned start = node < m.ancestors.size ? m.ancestors[node] : NONE;
    if (start == NONE || !ball_of_node(m, node, start, ball)) ball.clear();
    gain = std::max(gain, smooth_node(g, node, weight, ball));
  }
  return gain;
}

double smooth_worst(regularizer& g, unsigned count, double weight, dense1D<unsigned>& tets,
                    dense1D<unsigned>& nodes) noexcept {
  nodes.clear();
  if (!count || (g.task && g.task->must_stop())) return 1.0;
  th4_engine& m = g.engine;
  pick_worst_tets(g, 1.0, g.frozen_bits, count, tets);
  bit_set& seen = g.scratch_nodes;
  seen.clear();
  if (!seen.grow(m.nodes.cols())) return 1.0;
  for (unsigned k = 0; k < g.settled_nodes.words.size && k < seen.words.size; ++k)
    seen.words[k] = g.settled_nodes.words[k];
  for (unsigned k = 0; k < tets.size; ++k) {
    const unsigned* r = m.tets.row(tets[k]);
    for (unsigned i = 0; i < 4; ++i)
      if (!seen.test(r[i])) {
        seen.set(r[i]);
        nodes.push_back(r[i]);
      }
  }
  return smooth_nodes(g, nodes, weight);
}

}  // namespace kelvo::voxfill
