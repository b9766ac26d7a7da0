// The wanted size: per node, at a point, and along an edge.
#include "voxfill/refine/size_field.h"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <memory>
#include <new>
#include <numbers>
#include <utility>

#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "gridkit/gridkit3d/metric_interpolation.h"
#include "gridkit/metric_smoothing.h"
#include "gridkit/node_detector.h"
#include "voxfill/delaunay_th4.h"

// The qualities of the apex search in AVX2 lanes where the processor has them, chosen when the
// program runs.
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define VOXFILL_APEX_AVX2 1
#include "delaunay/cpu_lanes.h"
#include "delaunay/lanes_avx.h"
#else
#define VOXFILL_APEX_AVX2 0
#endif

namespace kelvo::voxfill {

size_field::size_field(dense1D<double>& sizes_in, node_locator& locator_in,
                       dense1D<unsigned>& colors_in, bool direct, size_field* parent)
    : sizes(sizes_in),
      locator(locator_in),
      colors(colors_in),
      direct_lengths(direct),
      parent_field(parent) {
  reseed();
}

void size_field::reseed() noexcept {
  const random_source_type seeded(1u);
  walk_bits.seed_from(seeded);
  trace_bits.seed_from(seeded);
}

namespace {

bool bound(const node_locator& loc) noexcept {
  return loc.nodes && loc.tets && loc.neighbors && loc.ancestors;
}

bool in_domain(const size_field& field, unsigned t) noexcept {
  return t < field.colors.size && color_in_domain(field.colors[t]);
}

// The tet holding P over the field's own tables and with its own random bits, so that a
// background mesh is walked like the mesh itself. With `w`, also P's weights in it.
// The look-up checks the tables itself; a field whose tables are not all bound leaves t as it was.
bool locate_in_field(size_field& field, const double* P, unsigned& t, double* w = nullptr,
                     walk_memo* memo = nullptr) noexcept {
  const unsigned t0 = t;
  const bool found = memo ? locate_tet(field.locator, P, t, LOCATE_TOL, field.walk_bits, w, *memo)
                          : locate_tet(field.locator, P, t, LOCATE_TOL, field.walk_bits, w);
  if (!found && !bound(field.locator)) t = t0;
  return found;
}

// The tets around `node` into field.ball, depth first from its ancestor.
void ball_in_field(size_field& field, unsigned node) noexcept {
  const node_locator& loc = field.locator;
  field.ball.clear();
  field.stack.clear();
  field.seen.clear();
  if (node >= loc.ancestors->size || (*loc.ancestors)[node] == NONE) return;
  const unsigned start = (*loc.ancestors)[node];
  field.seen.insert(index_key{{start}});
  field.stack.push_back(start);
  while (field.stack.size) {
    const unsigned t = field.stack.back();
    field.stack.pop_back();
    field.ball.push_back(t);
    const unsigned* n = loc.tets->row(t);
    for (unsigned f = 0; f < 4; ++f) {
      if (n[f] == node) continue;
      const unsigned nb = (*loc.neighbors)(f, t);
      if (nb != NONE && field.seen.insert(index_key{{nb}}) == 2) field.stack.push_back(nb);
    }
  }
}

// As locate_in_field, and the tet must be in the domain; else each tet of the ball of the
// nearest node is a start, until a walk ends in the domain.
bool locate_in_field_domain(size_field& field, const double* P, unsigned& t) noexcept {
  if (locate_in_field(field, P, t) && in_domain(field, t)) return true;
  t = NONE;
  if (!bound(field.locator)) return false;
  const unsigned node = field.locator.nearest_node(P);
  if (node == NONE) return false;
  ball_in_field(field, node);
  for (unsigned k = 0; k < field.ball.size; ++k) {
    unsigned s = field.ball[k];
    if (walk_to_point(field.locator, P, s, LOCATE_TOL, field.walk_bits) == 1 &&
        in_domain(field, s)) {
      t = s;
      return true;
    }
  }
  return false;
}

double distance(const double* p, const double* q) noexcept {
  return std::sqrt(geometry_detail::dist2<3>(p, q));
}

// A side with two different nodes counts its length once for each end.
void add_side(const dense2D<double>& xyz, unsigned a, unsigned b, dense1D<double>& raw,
              dense1D<unsigned>& counts) noexcept {
  if (a == b) return;
  const double L = std::sqrt(edge_length2(xyz, a, b));
  raw[a] += L;
  raw[b] += L;
  counts[a] += 1;
  counts[b] += 1;
}

// The mean: a node that nothing reached keeps 0.0.
void divide(dense1D<double>& raw, const dense1D<unsigned>& counts) noexcept {
  for (unsigned i = 0; i < raw.size; ++i)
    if (counts[i] > 0) raw[i] /= counts[i];
}

// `out` gets the columns of `table` whose index is not in `missing`.
bool kept_columns(const dense2D<unsigned>& table, const dense1D<unsigned>& missing,
                  dense1D<unsigned>& work, dense2D<unsigned>& out) {
  work.clear();
  if (!work.copy(missing)) return false;
  std::sort(work.begin(), work.end());
  const unsigned cols = table.empty() ? 0 : table.cols;
  unsigned kept = 0;
  for (unsigned j = 0; j < cols; ++j) kept += !std::binary_search(work.begin(), work.end(), j);
  if (!out.resize(table.rows, kept)) return false;
  for (unsigned j = 0, k = 0; j < cols; ++j)
    if (!std::binary_search(work.begin(), work.end(), j)) {
      for (unsigned i = 0; i < table.rows; ++i) out(i, k) = table(i, j);
      ++k;
    }
  return true;
}

bool alive_without_size(const th4_engine& engine, unsigned n) noexcept {
  return n < engine.nodes.cols() && !engine.nodes.is_free(n) && n < engine.node_sizes.size &&
         !(engine.node_sizes[n] > 0.0);
}

bool alive_with_size(const th4_engine& engine, unsigned n) noexcept {
  return n < engine.nodes.cols() && !engine.nodes.is_free(n) && n < engine.node_sizes.size &&
         engine.node_sizes[n] > 0.0;
}

void keep_unsized(const th4_engine& engine, dense1D<unsigned>& list) noexcept {
  unsigned w = 0;
  for (unsigned k = 0; k < list.size; ++k)
    if (alive_without_size(engine, list[k])) list[w++] = list[k];
  list.size = w;
}

// The sized nodes of the balls of the listed nodes, sorted, each once.
void sized_neighbourhood(th4_engine& engine, const dense1D<unsigned>& list,
                         dense1D<unsigned>& around) {
  dense1D<unsigned> ball;
  around.clear();
  for (unsigned n : list) {
    if (n >= engine.ancestors.size || engine.ancestors[n] == NONE) continue;
    ball_of_node(engine, n, NONE, ball);
    const unsigned from = around.size;
    for (unsigned t : ball)
      for (unsigned i = 0; i < 4; ++i) around.push_back(engine.tets(i, t));
    std::sort(around.begin() + from, around.end());
    unsigned w = from;
    for (unsigned k = from; k < around.size; ++k)
      if ((k == from || around[k] != around[k - 1]) && alive_with_size(engine, around[k]))
        around[w++] = around[k];
    around.size = w;
  }
  std::sort(around.begin(), around.end());
  around.size = unsigned(std::unique(around.begin(), around.end()) - around.begin());
}

// Linear interpolation in the Delaunay mesh of `around`, by a nested run of the engine in mode 2.
// Its failures stay in its own record.
void interpolate_in_hull(th4_engine& engine, const dense1D<unsigned>& around,
                         const dense1D<unsigned>& list) {
  auto nested = std::make_unique<th4_engine>();
  nested->settings.mode = 2;
  nested->settings.optim_level = 6;
  mesher::data_type hull;
  hull.pos = engine.nodes.data;
  hull.isolated_nodes = around;
  nested->run_inner(hull);
  if (hull.error_code == 0)
    gridkit3d::interpolate_metrics(hull.pos, hull.connectM, hull.neighbors, hull.ancestors,
                                   engine.node_sizes, list, true);
}

}  // namespace

namespace {

// interpolate_size; without `sized` the caller throws the size away, and the weights are worked
// out only where the walks depend on them (the result is then meaningless, `tet` and the random
// draws are the same).
[[gnu::always_inline]] inline bool interpolate_in(size_field& field, const double* P, unsigned& tet,
                                                  double& h, bool sized,
                                                  walk_memo* memo = nullptr) noexcept {
  h = 0.0;
  double w[3];
  if (!locate_in_field(field, P, tet, sized ? w : nullptr, memo)) return false;
  // A look-up through the memo ends in the memo's tet, whose row it keeps.
  const unsigned* n = memo && tet == memo->tet ? memo->row : field.locator.tets->row(tet);
  if (!in_domain(field, tet)) {
    if (!sized) tet_barycentric(field.locator.nodes->data, n[0], n[1], n[2], n[3], P, w);
    // Clearly inside an outside tet: no size here. On its skin: the tet of the domain beside it.
    if (classify_tet_point(w, -LOCATE_TOL) == -1 || !locate_in_field_domain(field, P, tet)) {
      tet = NONE;
      return false;
    }
    if (!sized) return false;
    n = field.locator.tets->row(tet);
    tet_barycentric(field.locator.nodes->data, n[0], n[1], n[2], n[3], P, w);
  }
  if (!sized) return false;
  const unsigned count = field.sizes.size;
  if (n[0] >= count || n[1] >= count || n[2] >= count || n[3] >= count) return false;
  const double* s = field.sizes.data();
  const double s3 = s[n[3]];
  h = s3 + (s[n[2]] - s3) * w[2] + (s[n[1]] - s3) * w[1] + (s[n[0]] - s3) * w[0];
  return h > 0.0 && h < DBL_MAX;
}

}  // namespace

bool interpolate_size(size_field& field, const double* P, unsigned& tet, double& h) noexcept {
  return interpolate_in(field, P, tet, h, true);
}

namespace {
// The size at P in the field, or else in its parent; the memo, when given, serves the walk.
[[gnu::always_inline]] inline bool size_in_fields(size_field& field, const double* P, unsigned& tet,
                                                  double& h, walk_memo* memo) noexcept {
  if (interpolate_in(field, P, tet, h, true, memo)) return true;
  if (field.parent_field) {
    tet = NONE;
    const bool found = field_size_at(*field.parent_field, P, tet, h);
    tet = NONE;
    if (found) return true;
  }
  h = 0.0;
  return false;
}
}  // namespace

bool field_size_at(size_field& field, const double* P, unsigned& tet, double& h) noexcept {
  return size_in_fields(field, P, tet, h, nullptr);
}

bool field_size_at(size_field& field, const double* P, unsigned& tet, double& h,
                   walk_memo& memo) noexcept {
  return size_in_fields(field, P, tet, h, &memo);
}

void field_walk(size_field& field, const double* P, unsigned& tet) noexcept {
  double h;
  // Whether the parents are asked hangs on the size.
  if (field.parent_field)
    field_size_at(field, P, tet, h);
  else
    interpolate_in(field, P, tet, h, false);
}

void field_walk(size_field& field, const double* P, unsigned& tet, walk_memo& memo) noexcept {
  double h;
  if (field.parent_field)
    field_size_at(field, P, tet, h, memo);
  else
    interpolate_in(field, P, tet, h, false, &memo);
}

bool size_at(th4_engine& engine, const double* P, double& h) noexcept {
  h = 0.0;
  size_field* field = engine.size_field;
  if (!field) return false;
  unsigned tet = NONE;
  if (interpolate_size(*field, P, tet, h)) return true;
  if (field->parent_field) {
    tet = NONE;
    if (field_size_at(*field->parent_field, P, tet, h)) return true;
  }
  h = 0.0;
  return false;
}

void merge_sizes(dense1D<double>& node_sizes, const dense1D<double>& values) noexcept {
  const unsigned n = std::min(node_sizes.size, values.size);
  for (unsigned i = 0; i < n; ++i)
    if (values[i] > 0.0) node_sizes[i] = values[i];
}

double set_boundary_sizes(th4_engine& engine, const mesher::data_type& data) {
  if (engine.must_stop()) return -1.0;
  const unsigned N = engine.nodes.cols();
  const dense2D<double>& xyz = engine.nodes.data;
  try {
    engine.node_sizes.clear();
    dense1D<double> raw;
    dense1D<unsigned> counts;
    if (!engine.node_sizes.resize(N, 0.0) || !raw.resize(N, 0.0) || !counts.resize(N, 0u)) {
      engine.raise_error(msg::memory_boundary_sizes);
      return -1.0;
    }
    auto fits = [N](const unsigned* c, unsigned k) {
      for (unsigned i = 0; i < k; ++i)
        if (c[i] >= N) return false;
      return true;
    };
    const dense2D<unsigned>& B = data.connectB;
    // quality_bound's answer, from the qualities worked out here: the smallest Q over the faces
    // of three different nodes, 1.0 when there is none, 0.0 for an empty table.
    double bound = B.empty() ? 0.0 : 1.0;
    for (unsigned j = 0; !B.empty() && j < B.cols; ++j) {
      const unsigned* tri = B.col(j);
      if (!fits(tri, 3)) {
        bound = -1.0;  // quality_bound reads such a face; not worked out here
        continue;
      }
      const double q = triangle_quality(xyz, tri[0], tri[1], tri[2]);
      const double Q = q * std::numbers::sqrt2 / (q * std::numbers::sqrt2 + 1.0 - q);
      const bool distinct = tri[0] != tri[1] && tri[1] != tri[2] && tri[0] != tri[2];
      if (distinct && bound >= 0.0) bound = std::min(bound, Q);
      if (q == 0.0) {
        for (unsigned i = 0; i < 3; ++i) add_side(xyz, tri[i], tri[(i + 1) % 3], raw, counts);
        continue;
      }
      // A poor face gets a large weight: its idea of a well-shaped tet dominates its nodes.
      double apex[3];
      best_apex(xyz, tri, 0.01, apex);
      const double w = Q > 0.001 ? 1.0 / Q : 1000.0;
      const unsigned weight = std::max(1u, unsigned(w));
      for (unsigned i = 0; i < 3; ++i) {
        raw[tri[i]] += weight * distance(apex, xyz.col(tri[i]));
        counts[tri[i]] += weight;
      }
    }
    const dense2D<unsigned>& E = data.connectE;
    for (unsigned j = 0; !E.empty() && j < E.cols; ++j)
      if (fits(E.col(j), 2)) add_side(xyz, E(0, j), E(1, j), raw, counts);
    divide(raw, counts);
    const dense1D<unsigned> all;
    if (gridkit::bound_metric_variations(xyz, B, TRIA3, all, true, 1, 4.0, raw) == 0)
      gridkit::bound_metric_variations(xyz, E, EDGE2, all, true, 1, 4.0, raw);
    merge_sizes(engine.node_sizes, raw);
    merge_sizes(engine.node_sizes, data.metrics);
    return bound;
  } catch (const std::bad_alloc&) {
    engine.raise_error(msg::memory_boundary_sizes);
  }
  return -1.0;
}

void retry_boundary_sizes(th4_engine& engine, mesher::data_type& data) {
  try {
    // Only the two tables change in the copy, so the rest is shared, not copied.
    mesher::data_type copy;
    copy.shallow_copy(data);
    if (engine.must_stop()) return;
    copy.connectB.clear_hard();
    copy.connectE.clear_hard();
    dense1D<unsigned> work;
    const unsigned cB = data.connectB.empty() ? 0 : data.connectB.cols;
    const unsigned cE = data.connectE.empty() ? 0 : data.connectE.cols;
    if (!work.resize(std::max(cB, cE)) ||
        !kept_columns(data.connectB, data.missing_faces, work, copy.connectB) ||
        !kept_columns(data.connectE, data.missing_edges, work, copy.connectE)) {
      engine.raise_error(msg::memory_resizing);
      return;
    }
    const double bound = set_boundary_sizes(engine, copy);
    data.quality_bound = bound >= 0.0 ? bound : quality_bound(engine.nodes.data, copy.connectB);
  } catch (const std::bad_alloc&) {
    engine.raise_error(msg::memory_resizing);
  }
}

void sizes_from_mesh(th4_engine& engine, const mesher::data_type& data) {
  if (engine.must_stop()) return;
  const unsigned N = engine.nodes.cols();
  const dense2D<double>& xyz = engine.nodes.data;
  try {
    engine.node_sizes.clear();
    dense1D<double> raw;
    dense1D<unsigned> counts;
    dense1D<std::uint64_t> edges;  // smaller node in the high half
    if (!engine.node_sizes.resize(N, 0.0) || !raw.resize(N, 0.0) || !counts.resize(N, 0u) ||
        !edges_of_live_tets(engine, edges)) {
      engine.raise_error(msg::memory_mode1_sizes);
      return;
    }
    for (const std::uint64_t e : edges) {
      const unsigned a = unsigned(e >> 32), b = unsigned(e & 0xFFFFFFFFu);
      if (a < N && b < N) add_side(xyz, a, b, raw, counts);
    }
    divide(raw, counts);
    // A skin node takes the mean of its skin edges alone: the inner edges of a mesh with few or no
    // inner nodes cross the whole body, and their lengths would make the skin's sizes meaningless.
    // In a mesh that is already graded the two means are nearly the same.
    dense1D<double> skin;
    dense1D<unsigned> skin_counts;
    if (!skin.resize(N, 0.0) || !skin_counts.resize(N, 0u)) {
      engine.raise_error(msg::memory_mode1_sizes);
      return;
    }
    const dense2D<unsigned>& B = data.connectB;
    for (unsigned j = 0; !B.empty() && j < B.cols; ++j) {
      const unsigned* tri = B.col(j);
      if (tri[0] >= N || tri[1] >= N || tri[2] >= N) continue;
      for (unsigned i = 0; i < 3; ++i) add_side(xyz, tri[i], tri[(i + 1) % 3], skin, skin_counts);
    }
    divide(skin, skin_counts);
    merge_sizes(raw, skin);
    merge_sizes(engine.node_sizes, raw);
    merge_sizes(engine.node_sizes, data.metrics);
  } catch (const std::bad_alloc&) {
    engine.raise_error(msg::memory_mode1_sizes);
  }
}

void fill_sizes(th4_engine& engine, dense1D<unsigned>& list) {
  if (list.empty()) return;
  keep_unsized(engine, list);
  if (list.empty()) return;
  try {
    dense1D<unsigned> around;
    sized_neighbourhood(engine, list, around);
    if (around.size > 3) {
      try {
        interpolate_in_hull(engine, around, list);
      } catch (const std::bad_alloc&) {
        // The nearest sized node stands in for all of the list.
      }
      keep_unsized(engine, list);
    }
    if (!list.empty() && !around.empty()) {
      // A fixed shuffle: the order of the nodes decides ties of the search, the same every run.
      random_source_type draw(1u);
      for (unsigned i = 1; i < around.size; ++i) {
        const unsigned j = unsigned(draw() % (i + 1));
        if (j != i) std::swap(around[i], around[j]);
      }
      gridkit::node_detector detector;
      if (detector.reinit(engine.nodes.data, around) == 0)
        for (unsigned n : list) {
          const unsigned c = detector.find_closest(n);
          if (c != NONE) engine.node_sizes[n] = engine.node_sizes[c];
        }
    }
  } catch (const std::bad_alloc&) {
    // Nodes left without size stay at 0.0; the list is emptied all the same.
  }
  list.clear();
}

bool subdivide_edge(const double* p0, const double* p1, double h0, double h1, double len, bool even,
                    unsigned min_n, unsigned max_n, dense2D<double>& points,
                    dense1D<double>& sizes) noexcept {
  points.clear();
  sizes.clear();
  // The multiple of s nearest to len, in the sense of the geometric mean of the two candidates.
  const double s = even ? 2.0 : 1.0;
  double count = std::trunc(len / s) * s;
  if (count * (count + s) < len * len) count += s;
  if (!(count >= 1.0)) count = 1.0;
  count = std::max(count, double(min_n));
  count = std::min(count, double(max_n));
  std::uint64_t n = std::uint64_t(count);
  if (even && n % 2 == 1) n += 1;
  if (n <= 1) return true;
  if (n - 1 > 0xFFFFFFFFull || !points.resize(3, unsigned(n - 1)) ||
      !sizes.resize(unsigned(n - 1))) {
    points.clear();
    sizes.clear();
    return false;
  }
  const double r = h1 / h0;
  for (std::uint64_t i = 1; i < n; ++i) {
    const double t = (1.0 / double(n)) * double(i);
    double w;
    if (r >= 0.999 && r <= 1.001) {
      // The series of the geometric form, which loses its digits as r nears 1.
      const double x = r - 1.0;
      w = t * (1.0 + x * (t - 1.0) / 2.0 + x * x * (t - 1.0) * (t - 2.0) / 6.0 +
               x * x * x * (t - 1.0) * (t - 2.0) * (t - 3.0) / 24.0);
    } else {
      w = (std::pow(r, t) - 1.0) / (r - 1.0);
    }
    w = std::clamp(w, 0.0, 1.0);
    const unsigned k = unsigned(i - 1);
    sizes[k] = h0 + (h1 - h0) * w;
    for (unsigned c = 0; c < 3; ++c) points(c, k) = p0[c] + (p1[c] - p0[c]) * w;
  }
  return true;
}

namespace {

// The search of best_apex once its face's centre and unit normal are known; `heights(z, q)` gives
// the qualities of the tets (c, b, a, centre + z normal) for four heights, bit for bit those of
// one call each.
template <class Heights>
[[gnu::always_inline]] inline double apex_search(const dense2D<double>& nodes, const unsigned* tri,
                                                 const double* a, const double* b, const double* c,
                                                 const double* centre, const double* normal,
                                                 double tol, double* apex,
                                                 const Heights& heights) noexcept {
  double s[3];
  side_lengths2(nodes, tri[0], tri[1], tri[2], s);
  const double z0 = std::sqrt(std::min({s[0], s[1], s[2]}) * 2.0 / 3.0);
  const double z1 = std::sqrt(std::max({s[0], s[1], s[2]}));
  const double step = (z1 - z0) * 0.1;
  // Swapping the first and third nodes puts a point on the side of the normal on the positive
  // side of the tet.
  auto quality = [&](double z) {
    double p[3];
    for (unsigned k = 0; k < 3; ++k) p[k] = centre[k] + normal[k] * z;
    return tet_quality(c, b, a, p);
  };

  // Four heights at a time: the qualities are those of one call each, bit for bit. The twelfth
  // only pads the last call.
  double zs[12], qs[12];
  zs[0] = z0;
  for (unsigned k = 1; k <= 10; ++k) zs[k] = z0 + step * k;
  zs[11] = z0;
  for (unsigned k = 0; k <= 10; k += 4) heights(zs + k, qs + k);
  double zbest = z0, qbest = qs[0];
  for (unsigned k = 1; k <= 10; ++k)
    if (qs[k] > qbest) zbest = zs[k], qbest = qs[k];
  // The ends of the bracket are most often points of the scan, bit for bit: their values are
  // at hand. Those that are not come in the lanes of the first round.
  auto scanned = [&](double z, double& q) {
    for (unsigned k = 0; k <= 10; ++k)
      if (std::bit_cast<std::uint64_t>(zs[k]) == std::bit_cast<std::uint64_t>(z)) {
        q = qs[k];
        return true;
      }
    return false;
  };
  double lo = std::max(z0, zbest - step), hi = std::min(z1, zbest + step);
  double qlo = 0.0, qhi = 0.0;
  bool lo_known = scanned(lo, qlo), hi_known = scanned(hi, qhi);
  const double ztol = (hi - lo) * tol;
  // A round needs two midpoints and a call holds four: the spare lanes take midpoints that the
  // next round needs after some pick of this one, so that a good guess spares the next call.
  // next[g] below is, bit for bit, the midpoint that the next round works out after the picks
  // that `from` names; its values are kept for it.
  static constexpr int from[5][2] = {{-1, 2}, {2, 0}, {0, 1}, {1, 3}, {3, -1}};
  double held_q[2] = {0.0, 0.0};
  bool held[2] = {false, false};
  // Halving around the best point; the cap only guards a tolerance below the rounding of z.
  for (unsigned round = 0; round < 200 && (zbest - lo > ztol || hi - zbest > ztol); ++round) {
    const double m1 = 0.5 * (lo + zbest), m2 = 0.5 * (zbest + hi);
    double q1 = held_q[0], q2 = held_q[1];
    // The first next_count of the next midpoints have their values in next_q.
    double next_q[4];
    int next_count = 0;
    if (!held[0] || !held[1] || !lo_known || !hi_known) {
      const double next[4] = {0.5 * (m1 + zbest), 0.5 * (zbest + m2), 0.5 * (lo + m1),
                              0.5 * (m2 + hi)};
      double hq[4];
      if (lo_known && hi_known && !held[0] && !held[1]) {
        const double hz[4] = {m1, m2, next[0], next[1]};
        heights(hz, hq);
        q1 = hq[0], q2 = hq[1];
        next_q[0] = hq[2], next_q[1] = hq[3];
        next_count = 2;
      } else if (lo_known && hi_known) {
        const double hz[4] = {held[0] ? m2 : m1, next[0], next[1], next[2]};
        heights(hz, hq);
        (held[0] ? q2 : q1) = hq[0];
        next_q[0] = hq[1], next_q[1] = hq[2], next_q[2] = hq[3];
        next_count = 3;
      } else {
        double hz[4];
        unsigned n = 0;
        if (!lo_known) hz[n++] = lo;
        if (!hi_known) hz[n++] = hi;
        if (!held[0]) hz[n++] = m1;
        if (!held[1]) hz[n++] = m2;
        const unsigned needed = n;
        for (unsigned g = 0; n < 4; ++g) hz[n++] = next[g];
        heights(hz, hq);
        unsigned k = 0;
        if (!lo_known) qlo = hq[k++];
        if (!hi_known) qhi = hq[k++];
        if (!held[0]) q1 = hq[k++];
        if (!held[1]) q2 = hq[k++];
        for (unsigned g = 0; g < 4 - needed; ++g) next_q[g] = hq[needed + g];
        next_count = int(4 - needed);
        lo_known = hi_known = true;
      }
    }
    const double z[5] = {lo, m1, zbest, m2, hi}, q[5] = {qlo, q1, qbest, q2, qhi};
    unsigned best = 2;
    for (unsigned k : {0u, 1u, 3u, 4u})
      if (q[k] > q[best]) best = k;
    for (unsigned i = 0; i < 2; ++i) {
      const int g = from[best][i];
      held[i] = g >= 0 && g < next_count;
      if (held[i]) held_q[i] = next_q[g];
    }
    const unsigned left = best > 0 ? best - 1 : 0, right = best < 4 ? best + 1 : 4;
    lo = z[left], qlo = q[left];
    hi = z[right], qhi = q[right];
    zbest = z[best], qbest = q[best];
  }
  if (!lo_known) qlo = quality(lo);
  if (!hi_known) qhi = quality(hi);
  if (qlo > qbest) zbest = lo, qbest = qlo;
  if (qhi > qbest) zbest = hi, qbest = qhi;
  for (unsigned k = 0; k < 3; ++k) apex[k] = centre[k] + normal[k] * zbest;
  return qbest;
}

// The four heights by tet_quality_heights.
struct call_heights {
  const double *a, *b, *c, *centre, *normal;
  void operator()(const double* z, double* q) const noexcept {
    tet_quality_heights(c, b, a, centre, normal, z, q);
  }
};

#if VOXFILL_APEX_AVX2
const bool apex_avx2 = lanes_avx2();

// The same four heights in the lanes of the caller's AVX2 code: the apexes, their edge vectors
// and shape qualities as tet_quality_heights works them out, and the lanes that it leaves to the
// scalar routine left to it here too.
struct lane_heights {
  const double *a, *b, *c, *centre, *normal;
  VOXFILL_AVX2 inline void operator()(const double* z, double* q) const noexcept {
    const __m256d h = _mm256_loadu_pd(z);
    const __m256d X =
        _mm256_add_pd(_mm256_set1_pd(centre[0]), _mm256_mul_pd(_mm256_set1_pd(normal[0]), h));
    const __m256d Y =
        _mm256_add_pd(_mm256_set1_pd(centre[1]), _mm256_mul_pd(_mm256_set1_pd(normal[1]), h));
    const __m256d Z =
        _mm256_add_pd(_mm256_set1_pd(centre[2]), _mm256_mul_pd(_mm256_set1_pd(normal[2]), h));
    // The tet is (c, b, a, apex): its edge vectors are c, b and a less the apex.
    const double* p[3] = {c, b, a};
    __m256d v[3][3];
    for (unsigned i = 0; i < 3; ++i) {
      v[i][0] = _mm256_sub_pd(_mm256_set1_pd(p[i][0]), X);
      v[i][1] = _mm256_sub_pd(_mm256_set1_pd(p[i][1]), Y);
      v[i][2] = _mm256_sub_pd(_mm256_set1_pd(p[i][2]), Z);
    }
    const int taken = avx_lanes::shape_quality(v[0][0], v[0][1], v[0][2], v[1][0], v[1][1], v[1][2],
                                               v[2][0], v[2][1], v[2][2], q);
    if (taken == 15) return;
    for (unsigned k = 0; k < 4; ++k)
      if (!(taken >> k & 1)) {
        double P[3];
        for (unsigned d = 0; d < 3; ++d) P[d] = centre[d] + normal[d] * z[k];
        q[k] = tet_quality(c, b, a, P);
      }
  }
};

[[gnu::flatten]] VOXFILL_AVX2 double apex_search_avx2(const dense2D<double>& nodes,
                                                      const unsigned* tri, const double* a,
                                                      const double* b, const double* c,
                                                      const double* centre, const double* normal,
                                                      double tol, double* apex) noexcept {
  return apex_search(nodes, tri, a, b, c, centre, normal, tol, apex,
                     lane_heights{a, b, c, centre, normal});
}
#endif

}  // namespace

double best_apex(const dense2D<double>& nodes, const unsigned* tri, double tol,
                 double* apex) noexcept {
  const double* a = nodes.col(tri[0]);
  const double* b = nodes.col(tri[1]);
  const double* c = nodes.col(tri[2]);
  double centre[3], normal[3];
  for (unsigned k = 0; k < 3; ++k) centre[k] = (a[k] + b[k] + c[k]) / 3.0;
  face_normal(a, b, c, normal);
  const double n2 = geometry_detail::dot3(normal, normal);
  if (n2 != 0.0 && n2 != 1.0) {
    const double inv = 1.0 / std::sqrt(n2);
    for (unsigned k = 0; k < 3; ++k) normal[k] *= inv;
  }
#if VOXFILL_APEX_AVX2
  if (apex_avx2) return apex_search_avx2(nodes, tri, a, b, c, centre, normal, tol, apex);
#endif
  return apex_search(nodes, tri, a, b, c, centre, normal, tol, apex,
                     call_heights{a, b, c, centre, normal});
}

double triangle_quality(const dense2D<double>& nodes, unsigned n0, unsigned n1,
                        unsigned n2) noexcept {
  using namespace geometry_detail;
  const double* p[3] = {nodes.col(n0), nodes.col(n1), nodes.col(n2)};
  // Side i runs from node i + 1 to node i + 2, opposite node i.
  double side[3][3], L2[3];
  for (unsigned i = 0; i < 3; ++i) {
    sub3(p[(i + 2) % 3], p[(i + 1) % 3], side[i]);
    L2[i] = dot3(side[i], side[i]);
  }
  // Twice the area from the two shorter sides, which keeps the most digits.
  unsigned longest = 0;
  for (unsigned i = 1; i < 3; ++i)
    if (L2[i] > L2[longest]) longest = i;
  double cr[3];
  cross3(side[(longest + 1) % 3], side[(longest + 2) % 3], cr);
  const double C = std::sqrt(dot3(cr, cr));
  const double a = std::sqrt(L2[0]), b = std::sqrt(L2[1]), c = std::sqrt(L2[2]);
  const double den = std::max({a, b, c}) * (a + b + c);
  if (!(den > 0.0)) return 0.0;
  return std::min(1.0, 3.4641016151377544 * C / den);
}

double quality_bound(const dense2D<double>& nodes, const dense2D<unsigned>& connectB) noexcept {
  if (connectB.empty()) return 0.0;
  double b = 1.0;
  for (unsigned j = 0; j < connectB.cols; ++j) {
    const unsigned* t = connectB.col(j);
    if (t[0] == t[1] || t[1] == t[2] || t[0] == t[2]) continue;
    const double q = triangle_quality(nodes, t[0], t[1], t[2]);
    b = std::min(b, q * std::numbers::sqrt2 / (q * std::numbers::sqrt2 + 1.0 - q));
  }
  return b;
}

}  // namespace kelvo::voxfill
