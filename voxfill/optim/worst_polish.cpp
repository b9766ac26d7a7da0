// Max-min polish of the worst tets.
#include "voxfill/optim/worst_polish.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "delaunay/cavity.h"
#include "delaunay/cpu_lanes.h"
#include "delaunay/geometry.h"
#include "delaunay/lanes_avx.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/quality_lanes.h"
#include "delaunay/tet_tables.h"
#include "voxfill/optim/edge_code.h"
#include "voxfill/optim/regularize_mesh.h"
#include "voxfill/optim/regularizer.h"

namespace kelvo::voxfill {

namespace {

using namespace geometry_detail;

// Row j to the front, with its entries of `best`, and of `ball` when the rows are a ball's.
void row_to_front(polish_scratch& s, unsigned j) noexcept {
  unsigned* front = s.rows.col(0);
  unsigned* r = s.rows.col(j);
  for (unsigned i = 0; i < 4; ++i) std::swap(front[i], r[i]);
  std::swap(s.best[0], s.best[j]);
  if (s.rows_of_ball) std::swap(s.ball[0], s.ball[j]);
}

// Doubles per block of four rows in polish.row_lanes: x, y, z of each of the four points by
// lanes, then per point the mask of the lanes where it is the moving node. The moving node's
// lanes hold 0.0 (no bit set), so that a place goes in by an or of its masked coordinates.
constexpr unsigned BLOCK = 64;

// Row j's points into lane j % 4 of its block, 0.0 where the row has `node` (the masks' lanes).
void set_row_lane(polish_scratch& s, const mesh_store& m, unsigned j, const unsigned* r,
                  unsigned node) noexcept {
  double* b = s.row_lanes.begin() + BLOCK * (j / 4) + j % 4;
  const double ones = std::bit_cast<double>(~std::uint64_t(0));
  for (unsigned k = 0; k < 4; ++k) {
    const double* y = m.nodes.row(r[k]);
    for (unsigned c = 0; c < 3; ++c) b[12 * k + 4 * c] = r[k] == node ? 0.0 : y[c];
    b[48 + 4 * k] = r[k] == node ? ones : 0.0;
  }
}

#if VOXFILL_LANES_AVX
// The blocks of four whole rows at once: each point's coordinates gathered into lanes, and its
// mask from a compare of the four rows' nodes with `node`.
VOXFILL_AVX void set_row_blocks(polish_scratch& s, const mesh_store& m, unsigned blocks,
                                unsigned node) noexcept {
  const double* xyz = m.nodes.data.col(0);
  const std::size_t ld = m.nodes.data.ld;
  const unsigned* rows = s.rows.col(0);
  const std::size_t rld = s.rows.ld;
  const __m128i key = _mm_set1_epi32(int(node));
  for (unsigned b = 0; b < blocks; ++b) {
    double* out = s.row_lanes.begin() + BLOCK * b;
    const unsigned* r0 = rows + rld * (4 * b);
    const unsigned *r1 = r0 + rld, *r2 = r1 + rld, *r3 = r2 + rld;
    for (unsigned k = 0; k < 4; ++k) {
      __m256d x, y, z;
      avx_lanes::gather_points(xyz + ld * r0[k], xyz + ld * r1[k], xyz + ld * r2[k],
                               xyz + ld * r3[k], x, y, z);
      const __m128i hit =
          _mm_cmpeq_epi32(_mm_set_epi32(int(r3[k]), int(r2[k]), int(r1[k]), int(r0[k])), key);
      const __m256d mask = _mm256_castsi256_pd(_mm256_insertf128_si256(
          _mm256_castsi128_si256(_mm_unpacklo_epi32(hit, hit)), _mm_unpackhi_epi32(hit, hit), 1));
      _mm256_storeu_pd(out + 12 * k, _mm256_andnot_pd(mask, x));
      _mm256_storeu_pd(out + 12 * k + 4, _mm256_andnot_pd(mask, y));
      _mm256_storeu_pd(out + 12 * k + 8, _mm256_andnot_pd(mask, z));
      _mm256_storeu_pd(out + 48 + 4 * k, mask);
    }
  }
}
#endif

// polish.row_lanes for the rows as they stand (the last row repeated to fill the last block).
// Nothing when the lanes don't run; false when memory ran out.
bool set_row_lanes(regularizer& g, unsigned node) noexcept {
  polish_scratch& s = g.polish;
  const unsigned n = s.rows.cols;
  if (!lanes_avx() || !n) return true;
  if (!s.row_lanes.resize(BLOCK * ((n + 3) / 4))) return false;
#if VOXFILL_LANES_AVX
  set_row_blocks(s, g.engine, n / 4, node);
#endif
  for (unsigned j = n / 4 * 4; j < (n + 3) / 4 * 4; ++j)
    set_row_lane(s, g.engine, j, s.rows.col(j < n ? j : n - 1), node);
  return true;
}

// The scalar quality of row r with the node at p.
double row_quality_at(const mesh_store& m, const unsigned* r, unsigned node,
                      const double* p) noexcept {
  const double* q[4];
  for (unsigned i = 0; i < 4; ++i) q[i] = r[i] == node ? p : m.nodes.row(r[i]);
  return tet_quality(q[0], q[1], q[2], q[3]);
}

#if VOXFILL_LANES_AVX
// Rows 0 and j exchanged in polish.row_lanes.
void swap_row_lanes(polish_scratch& s, unsigned j) noexcept {
  double* a = s.row_lanes.begin();
  double* b = a + BLOCK * (j / 4) + j % 4;
  for (unsigned i = 0; i < BLOCK; i += 4) std::swap(a[i], b[i]);
}

// worst_at over polish.row_lanes: the same qualities (those of tet_quality), met in the same
// order, with the same give-up and the same exchange of rows.
VOXFILL_AVX double worst_at_lanes(regularizer& g, unsigned node, const double* p, double floor,
                                  dense1D<double>& out) noexcept {
  using namespace avx_lanes;
  const mesh_store& m = g.engine;
  polish_scratch& s = g.polish;
  dense2D<unsigned>& rows = s.rows;
  const __m256d px = _mm256_set1_pd(p[0]), py = _mm256_set1_pd(p[1]), pz = _mm256_set1_pd(p[2]);
  const unsigned n = rows.cols;
  double q = 1.0;
  for (unsigned j0 = 0; j0 < n; j0 += 4) {
    const double* b = s.row_lanes.begin() + BLOCK * (j0 / 4);
    __m256d x[4], y[4], z[4];
    for (unsigned k = 0; k < 4; ++k) {
      const __m256d mask = _mm256_loadu_pd(b + 48 + 4 * k);
      x[k] = _mm256_or_pd(_mm256_loadu_pd(b + 12 * k), _mm256_and_pd(mask, px));
      y[k] = _mm256_or_pd(_mm256_loadu_pd(b + 12 * k + 4), _mm256_and_pd(mask, py));
      z[k] = _mm256_or_pd(_mm256_loadu_pd(b + 12 * k + 8), _mm256_and_pd(mask, pz));
    }
    double lanes[4];
    const int plain = points_shape_quality(x, y, z, lanes);
    // A full block of plain lanes all over the floor (the usual case) needs no test by lane.
    if (plain == 15 && n - j0 >= 4) {
      const __m256d v = _mm256_loadu_pd(lanes);
      if (!_mm256_movemask_pd(_mm256_cmp_pd(v, _mm256_set1_pd(floor), _CMP_NGT_UQ))) {
        _mm256_storeu_pd(out.begin() + j0, v);
        q = std::min(q, lanes[0]);
        q = std::min(q, lanes[1]);
        q = std::min(q, lanes[2]);
        q = std::min(q, lanes[3]);
        continue;
      }
    }
    for (unsigned l = 0; l < 4 && j0 + l < n; ++l) {
      const unsigned j = j0 + l;
      // A lane that tet_quality would retry is done by it, and only when it is reached.
      const double v = (plain >> l) & 1 ? lanes[l] : row_quality_at(m, rows.col(j), node, p);
      out[j] = v;
      if (!(v > floor)) {
        if (j > 0) {
          row_to_front(s, j);
          swap_row_lanes(s, j);
        }
        return 0.0;
      }
      q = std::min(q, v);
    }
  }
  return q;
}
#endif

// The worst quality of the tets `rows` with the node at `p`, each into `out`, or 0.0 as soon as
// one falls to `floor` or below: such a place cannot win. The tet that failed moves to the front,
// so that the next trial meets it first (with its entries of `best`, and of `ball` when the rows
// are a ball's).
double worst_at(regularizer& g, unsigned node, const double* p, double floor,
                dense1D<double>& out) noexcept {
#if VOXFILL_LANES_AVX
  if (lanes_avx()) return worst_at_lanes(g, node, p, floor, out);
#endif
  th4_engine& m = g.engine;
  polish_scratch& s = g.polish;
  dense2D<unsigned>& rows = s.rows;
  double* x = m.nodes.row(node);
  const double old[3] = {x[0], x[1], x[2]};
  x[0] = p[0], x[1] = p[1], x[2] = p[2];
  double q = 1.0;
  const unsigned n = rows.cols;
  // Four rows at a time (the last repeated to fill the lanes), used in order up to the give-up.
  bool gave_up = false;
  for (unsigned j0 = 0; j0 < n && !gave_up; j0 += 4) {
    unsigned nodes[16];
    for (unsigned l = 0; l < 4; ++l)
      std::copy_n(rows.col(j0 + l < n ? j0 + l : n - 1), 4, nodes + 4 * l);
    double lanes[4];
    tet_quality_lanes(m.nodes.data, nodes, lanes);
    for (unsigned l = 0; l < 4 && j0 + l < n; ++l) {
      const unsigned j = j0 + l;
      const double v = lanes[l];
      out[j] = v;
      if (!(v > floor)) {
        q = 0.0;
        gave_up = true;
        if (j > 0) {
          row_to_front(s, j);
        }
        break;
      }
      q = std::min(q, v);
    }
  }
  x[0] = old[0], x[1] = old[1], x[2] = old[2];
  return q;
}

#if VOXFILL_LANES_AVX
// The quality of row r with the node at p[l] into q[l], l = 0 to 3: the bits of tet_quality.
VOXFILL_AVX void front_quad(const mesh_store& m, const unsigned* r, unsigned node,
                            const double* const p[4], double q[4]) noexcept {
  using namespace avx_lanes;
  // Every point broadcast from its row (the node's own too, read for nothing), then the places
  // put in at the node's point: the row's points stay in registers.
  const double* xyz = m.nodes.data.col(0);
  const std::size_t ld = m.nodes.data.ld;
  __m256d x[4], y[4], z[4];
  for (unsigned k = 0; k < 4; ++k) {
    const double* w = xyz + ld * r[k];
    x[k] = _mm256_broadcast_sd(w), y[k] = _mm256_broadcast_sd(w + 1);
    z[k] = _mm256_broadcast_sd(w + 2);
  }
  switch (local_index(r, node)) {
    case 0:
      gather_points(p[0], p[1], p[2], p[3], x[0], y[0], z[0]);
      break;
    case 1:
      gather_points(p[0], p[1], p[2], p[3], x[1], y[1], z[1]);
      break;
    case 2:
      gather_points(p[0], p[1], p[2], p[3], x[2], y[2], z[2]);
      break;
    case 3:
      gather_points(p[0], p[1], p[2], p[3], x[3], y[3], z[3]);
      break;
    default:
      break;
  }
  const int plain = points_shape_quality(x, y, z, q);
  for (unsigned l = 0, redo = ~plain & 15; redo; ++l, redo >>= 1)
    if (redo & 1) q[l] = row_quality_at(m, r, node, p[l]);
}
#endif

// The qualities of the front row (row 0) with the node at each of a list of places, worked out
// as they are asked for, four at a time where the lanes run. A trial gives up at the first row
// that falls to the floor, and most give up at the front row, which then stays where it is: a
// place whose front row falls there is passed over without a trial, to the same effect.
struct front_lookahead {
  const double* places;  // xyz triples
  unsigned count;
  unsigned base = 0;  // v[i] is of place base + i, for i below span (0: nothing known)
  unsigned span = 0;
  double v[4] = {};
  bool lanes = lanes_avx();
};

// The first place from `from` on whose front row is over `floor`; f.count when there is none.
// A trial that fails moves another row to the front: f.span must then be reset to 0.
unsigned next_trial(regularizer& g, unsigned node, front_lookahead& f, unsigned from,
                    double floor) noexcept {
  const mesh_store& m = g.engine;
  const unsigned* r = g.polish.rows.col(0);
  for (unsigned i = from; i < f.count; ++i) {
    if (i - f.base >= f.span) {  // below base too, by the wrap
      f.base = i;
#if VOXFILL_LANES_AVX
      if (f.lanes) {
        f.span = std::min(f.count - i, 4u);
        const double* at = f.places + 3 * i;
        const unsigned last = 3 * (f.span - 1);
        const double* p[4] = {at, at + std::min(3u, last), at + std::min(6u, last), at + last};
        front_quad(m, r, node, p, f.v);
      } else
#endif
      {
        f.span = 1;
        f.v[0] = row_quality_at(m, r, node, f.places + 3 * i);
      }
    }
    if (f.v[i - f.base] > floor) return i;
  }
  return f.count;
}

// Tries `at` and keeps it in (best, best_at, polish.best) when it beats `best`.
bool try_place(regularizer& g, unsigned node, const double* at, double& best,
               double* best_at) noexcept {
  polish_scratch& s = g.polish;
  const double q = worst_at(g, node, at, best, s.trial);
  if (!(q > best)) return false;
  best = q;
  std::copy_n(at, 3, best_at);
  std::copy_n(s.trial.begin(), s.rows.cols, s.best.begin());
  return true;
}

#if VOXFILL_LANES_AVX
// Bit k set when q[k] is not above `bar` (NaN included), for k < n <= 32.
unsigned not_above_bits(const double* q, unsigned n, double bar) noexcept {
  unsigned bits = 0, k = 0;
#if defined(__SSE2__)
  const __m128d B = _mm_set1_pd(bar);
  for (; k + 1 < n; k += 2)
    bits |= unsigned(_mm_movemask_pd(_mm_cmpngt_pd(_mm_loadu_pd(q + k), B))) << k;
#endif
  for (; k < n; ++k) bits |= unsigned(!(q[k] > bar)) << k;
  return bits;
}
#endif

// From best_at, steps up the sum of the unit gradients of the tets within 2 % of the worst one
// (by differences), halving each step until it wins. `polish.best` holds the qualities at
// best_at; `scale` is the ball's mean edge.
void ascend(regularizer& g, unsigned node, double scale, double& best, double* best_at) noexcept {
  th4_engine& m = g.engine;
  polish_scratch& s = g.polish;
  double* x = m.nodes.row(node);
  const double kept[3] = {x[0], x[1], x[2]};
  const double h = 1e-6 * scale;
  for (unsigned it = 0; it < 8 && scale > 0.0; ++it) {
    double dir[3] = {0.0, 0.0, 0.0};
    const double at[3] = {best_at[0], best_at[1], best_at[2]};
    // The node moved by h along each axis, given to the tets as their point in its place: the
    // differences of several tets then go four at a time, in the order of the rows and axes.
    double moved[3][3];
    for (unsigned c = 0; c < 3; ++c) {
      std::copy_n(at, 3, moved[c]);
      moved[c][c] += h;
    }
    const double* points[4][4];
    const double* const* lanes[4] = {points[0], points[1], points[2], points[3]};
    unsigned item_row[4], item_axis[4], fill = 0;
    double grad[3] = {0.0, 0.0, 0.0};
    auto flush = [&] {
      if (!fill) return;
      for (unsigned l = fill; l < 4; ++l) std::copy_n(points[fill - 1], 4, points[l]);
      double v[4];
      tet_quality_lanes(lanes, v);
      for (unsigned l = 0; l < fill; ++l) {
        const unsigned c = item_axis[l];
        grad[c] = (v[l] - s.best[item_row[l]]) / h;
        if (c < 2) continue;
        const double len = std::sqrt(dot3(grad, grad));
        if (len > 0.0)
          for (unsigned k = 0; k < 3; ++k) dir[k] += grad[k] / len;
      }
      fill = 0;
    };
#if VOXFILL_LANES_AVX
    if (lanes_avx()) {
      // A row's three moves in the lanes of one call, the moved places put in by broadcast.
      const double* places[4] = {moved[0], moved[1], moved[2], moved[2]};
      const double bar = 1.02 * best;
      const unsigned n = s.rows.cols;
      // The rows within 2 % found by a compare of two at a time, a word of bits per 32 rows.
      for (unsigned j0 = 0; j0 < n; j0 += 32)
        for (unsigned bits = not_above_bits(s.best.begin() + j0, std::min(n - j0, 32u), bar); bits;
             bits &= bits - 1) {
          const unsigned j = j0 + unsigned(std::countr_zero(bits));
          double v[4];
          front_quad(m, s.rows.col(j), node, places, v);
          for (unsigned c = 0; c < 3; ++c) grad[c] = (v[c] - s.best[j]) / h;
          const double len = std::sqrt(dot3(grad, grad));
          if (len > 0.0)
            for (unsigned k = 0; k < 3; ++k) dir[k] += grad[k] / len;
        }
    } else
#endif
    {
      for (unsigned j = 0; j < s.rows.cols; ++j) {
        if (s.best[j] > 1.02 * best) continue;
        const unsigned* r = s.rows.col(j);
        for (unsigned c = 0; c < 3; ++c) {
          for (unsigned i = 0; i < 4; ++i)
            points[fill][i] = r[i] == node ? moved[c] : m.nodes.data.col(r[i]);
          item_row[fill] = j, item_axis[fill] = c;
          if (++fill == 4) flush();
        }
      }
      flush();
    }
    std::copy_n(kept, 3, x);
    const double len = std::sqrt(dot3(dir, dir));
    if (!(len > 0.0)) break;
    bool gained = false;
    double step = 0.25 * scale / len, trials[10][3];
    for (unsigned k = 0; k < 10; ++k, step *= 0.5)
      for (unsigned c = 0; c < 3; ++c) trials[k][c] = at[c] + step * dir[c];
    front_lookahead f{trials[0], 10};
    for (unsigned k = next_trial(g, node, f, 0, best); k < 10 && !gained;
         k = next_trial(g, node, f, k + 1, best)) {
      gained = try_place(g, node, trials[k], best, best_at);
      if (!gained) f.span = 0;
    }
    if (!gained) break;
  }
}

// The mean edge of the tets `rows` at `node`.
double mean_edge_at(const mesh_store& m, const dense2D<unsigned>& rows, unsigned node) noexcept {
  double sum = 0.0;
  unsigned count = 0;
  const double* p = m.nodes.row(node);
  for (unsigned j = 0; j < rows.cols; ++j) {
    const unsigned* r = rows.col(j);
    for (unsigned i = 0; i < 4; ++i)
      if (r[i] != node) sum += std::sqrt(dist2<3>(m.nodes.row(r[i]), p)), ++count;
  }
  return count ? sum / count : 0.0;
}

bool in_region(const dense1D<unsigned>& region, unsigned t) noexcept {
  return std::find(region.begin(), region.end(), t) != region.end();
}

// Grows `region` by the neighbours across faces that are not hard, up to `cap` tets.
void grow_region(regularizer& g, dense1D<unsigned>& region, unsigned cap) noexcept {
  const th4_engine& m = g.engine;
  const unsigned n = region.size;
  for (unsigned k = 0; k < n; ++k) {
    const unsigned t = region[k];
    const unsigned* r = m.tets.row(t);
    for (unsigned f = 0; f < 4; ++f) {
      const unsigned nb = m.neighbors(f, t);
      if (nb == NONE || g.frozen(nb) || in_region(region, nb)) continue;
      const unsigned* fn = tet_face_nodes[f];
      if (m.hard_set.has_face(r[fn[0]], r[fn[1]], r[fn[2]])) continue;
      if (region.size >= cap) return;
      region.push_back(nb);
    }
  }
}

// Sorts a short list in place.
void sort_short(unsigned* v, unsigned n) noexcept {
  for (unsigned i = 1; i < n; ++i) {
    const unsigned x = v[i];
    unsigned j = i;
    for (; j > 0 && v[j - 1] > x; --j) v[j] = v[j - 1];
    v[j] = x;
  }
}

// Bit e set when both nodes of local edge e are in the node mask `hard` (bit i for node i).
constexpr auto hard_pair_edges = [] {
  std::array<unsigned char, 16> edges{};
  for (unsigned hard = 0; hard < 16; ++hard)
    for (unsigned e = 0; e < 6; ++e)
      if ((hard >> tet_edge_nodes[e][0]) & (hard >> tet_edge_nodes[e][1]) & 1u)
        edges[hard] |= static_cast<unsigned char>(1u << e);
  return edges;
}();

// The star of a new node over the outer faces of `region` into polish.rows. False when a node of
// the region is on none of those faces (it would be lost) or memory ran out.
bool star_rows(regularizer& g, const dense1D<unsigned>& region, unsigned node) noexcept {
  th4_engine& m = g.engine;
  polish_scratch& s = g.polish;
  const unsigned n = region.size;
  const unsigned* reg = region.begin();
  const unsigned* tets = m.tets.data.vec->data + m.tets.data.offset;
  const unsigned* nbs = m.neighbors.data.vec->data + m.neighbors.data.offset;
  const std::size_t tld = m.tets.data.ld, nld = m.neighbors.data.ld;
  // Room for four outer faces a tet (the count set after), and for every node of the region.
  s.region_nodes.clear();
  s.lost.clear();
  if (!s.rows.resize(4, 4 * n) || !s.outer_faces.resize(n) || !s.region_nodes.reserve(4 * n) ||
      !s.lost.reserve(4 * n))
    return false;
  // The region's tets marked, for the test of each neighbour (the marks of nodes come later,
  // under a fresh mark value: tets and nodes share the list).
  unsigned mv = m.bump_marks();
  unsigned top = node;
  for (unsigned k = 0; k < n; ++k) {
    if (!m.cover_marks(reg[k])) return false;
    const unsigned* r = tets + tld * reg[k];
    for (unsigned i = 0; i < 4; ++i) top = std::max(top, r[i]);
  }
  unsigned* mk = m.marks.data();
  unsigned msize = m.marks.size;
  for (unsigned k = 0; k < n; ++k) mk[reg[k]] = mv;
  unsigned* rows = s.rows.col(0);
  unsigned count = 0;
  for (unsigned k = 0; k < n; ++k) {
    const unsigned* r = tets + tld * reg[k];
    const unsigned* nb4 = nbs + nld * reg[k];
    unsigned outer = 0;
    for (unsigned f = 0; f < 4; ++f) {
      const unsigned nb = nb4[f];
      if (nb != NONE && nb < msize && mk[nb] == mv) continue;
      outer |= 1u << f;
      unsigned* out = rows + 4 * count++;
      std::copy_n(r, 4, out);
      out[f] = node;  // in place of the node opposite the face: the turn is kept
    }
    s.outer_faces[k] = outer;
  }
  s.rows.resize(4, count);
  // A hard edge inside the region would be lost: only one on an outer face may stay. The faces
  // of its own tet at the edge (those opposite its other two nodes) answer most often; else the
  // outer faces of the others.
  for (unsigned k = 0; k < n; ++k) {
    const unsigned* r = tets + tld * reg[k];
    unsigned hard = 0;
    for (unsigned i = 0; i < 4; ++i) hard |= unsigned(m.hard_set.has_node(r[i])) << i;
    for (unsigned edges = hard_pair_edges[hard]; edges; edges &= edges - 1) {
      const unsigned e = unsigned(std::countr_zero(edges));
      const unsigned i = tet_edge_nodes[e][0], j = tet_edge_nodes[e][1];
      const unsigned a = r[i], b = r[j];
      if (!m.hard_set.has_edge(a, b)) continue;
      bool outer = (s.outer_faces[k] & ~((1u << i) | (1u << j))) != 0;
      for (unsigned c = 0; c < count && !outer; ++c)
        outer = local_index(rows + 4 * c, a) < 4 && local_index(rows + 4 * c, b) < 4;
      if (!outer) return false;
    }
  }
  // The nodes of the outer faces, each once, marked; then the region's other nodes, which the
  // star drops: only free ones may go.
  mv = m.bump_marks();
  if (!m.cover_marks(top)) return false;
  mk = m.marks.data();
  unsigned* nodes = s.region_nodes.data();
  unsigned* lost = s.lost.data();
  unsigned nn = 0, nl = 0;
  // Node i of a tet is on one of its outer faces when a face other than face i is outer: the
  // rows' nodes, met a tet at a time (the list is sorted below).
  for (unsigned k = 0; k < n; ++k) {
    const unsigned* r = tets + tld * reg[k];
    const unsigned outer = s.outer_faces[k];
    for (unsigned i = 0; i < 4; ++i) {
      const unsigned v = r[i];
      if (!(outer & ~(1u << i)) || mk[v] == mv) continue;
      mk[v] = mv;
      nodes[nn++] = v;
    }
  }
  for (unsigned k = 0; k < n; ++k) {
    const unsigned* r = tets + tld * reg[k];
    for (unsigned i = 0; i < 4; ++i) {
      const unsigned v = r[i];
      if (mk[v] == mv) continue;
      if (m.hard_set.has_node(v) || g.settled_nodes.test(v)) return false;
      mk[v] = mv;
      lost[nl++] = v;
      nodes[nn++] = v;
    }
  }
  sort_short(nodes, nn);
  sort_short(lost, nl);
  s.region_nodes.size = nn;
  s.lost.size = nl;
  return s.trial.resize(s.rows.cols) && s.best.resize(s.rows.cols);
}

// The best place of a new node in the star over `region`, if it beats `beat`. The rows and their
// qualities stay in polish.rows and polish.best.
bool best_star(regularizer& g, const dense1D<unsigned>& region, unsigned node, double beat,
               double* best_at, double& best) noexcept {
  th4_engine& m = g.engine;
  polish_scratch& s = g.polish;
  if (!star_rows(g, region, node) || !set_row_lanes(g, node)) return false;
  s.rows_of_ball = false;
  // A start far below what must be beaten seldom climbs to it: such places are cut short.
  best = std::max(0.5 * beat, 1e-12);
  bool any = false;
  // Starts: the centre of each tet of the region, and of the region's nodes.
  double centre[3] = {0.0, 0.0, 0.0};
  for (unsigned k = 0; k < s.region_nodes.size; ++k) {
    const double* y = m.nodes.row(s.region_nodes[k]);
    for (unsigned c = 0; c < 3; ++c) centre[c] += y[c] / s.region_nodes.size;
  }
  if (!s.places.resize(3 * (region.size + 1))) return false;
  std::copy_n(centre, 3, s.places.begin());
  for (unsigned k = 0; k < region.size; ++k) {
    const unsigned* r = m.tets.row(region[k]);
    double* at = s.places.begin() + 3 * (k + 1);
#if defined(__SSE2__)
    // x and y in one register, z in another: the sums of the scalar loop, lane by lane.
    const __m128d quarter = _mm_set1_pd(0.25);
    __m128d xy = _mm_setzero_pd(), z = _mm_setzero_pd();
    for (unsigned i = 0; i < 4; ++i) {
      const double* y = m.nodes.row(r[i]);
      xy = _mm_add_pd(xy, _mm_mul_pd(quarter, _mm_loadu_pd(y)));
      z = _mm_add_sd(z, _mm_mul_sd(quarter, _mm_load_sd(y + 2)));
    }
    _mm_storeu_pd(at, xy);
    _mm_store_sd(at + 2, z);
#else
    at[0] = at[1] = at[2] = 0.0;
    for (unsigned i = 0; i < 4; ++i)
      for (unsigned c = 0; c < 3; ++c) at[c] += 0.25 * m.nodes.row(r[i])[c];
#endif
  }
  front_lookahead f{s.places.begin(), region.size + 1};
  for (unsigned k = next_trial(g, node, f, 0, best); k < f.count;
       k = next_trial(g, node, f, k + 1, best)) {
    if (try_place(g, node, s.places.begin() + 3 * k, best, best_at))
      any = true;
    else
      f.span = 0;
  }
  if (!any) return false;
  double* x = m.nodes.row(node);
  std::copy_n(best_at, 3, x);
  ascend(g, node, mean_edge_at(m, s.rows, node), best, best_at);
  return best > beat;
}

}  // namespace

bool polish_node(regularizer& g, unsigned node) noexcept {
  th4_engine& m = g.engine;
  polish_scratch& s = g.polish;
  const unsigned start = node < m.ancestors.size ? m.ancestors[node] : NONE;
  if (start == NONE || !ball_of_node(m, node, start, s.ball) || !s.ball.size) return false;
  const unsigned n = s.ball.size;
  if (!s.rows.resize(4, n) || !s.trial.resize(n) || !s.best.resize(n)) return false;
  s.rows_of_ball = true;
  double q0 = 1.0;
  for (unsigned j = 0; j < n; ++j) {
    if (g.frozen(s.ball[j])) return false;
    std::copy_n(m.tets.row(s.ball[j]), 4, s.rows.col(j));
    s.best[j] = m.tet_qualities[s.ball[j]];
    q0 = std::min(q0, s.best[j]);
  }
  if (!set_row_lanes(g, node)) return false;
  const double* p = m.nodes.row(node);
  const double here[3] = {p[0], p[1], p[2]};

  // The regular apex over the face opposite the node in each of the three worst tets of the
  // ball, and the centre of the ball's other nodes, each tried at halving steps.
  double targets[4][3];
  unsigned count = 0, picked[3] = {NONE, NONE, NONE};
  for (unsigned k = 0; k < 3 && k < n; ++k) {
    unsigned w = NONE;
    for (unsigned j = 0; j < n; ++j) {
      if (j == picked[0] || j == picked[1]) continue;
      if (w == NONE || m.tet_qualities[s.ball[j]] < m.tet_qualities[s.ball[w]]) w = j;
    }
    picked[k] = w;
    const unsigned* r = s.rows.col(w);
    apex_target(g, r, local_index(r, node), 1.0, m.node_sizes[node], targets[count++]);
  }
  double centre[3] = {0.0, 0.0, 0.0};
  for (unsigned j = 0; j < n; ++j) {
    const unsigned* r = s.rows.col(j);
    for (unsigned i = 0; i < 4; ++i)
      if (r[i] != node)
        for (unsigned c = 0; c < 3; ++c) centre[c] += m.nodes.row(r[i])[c] / (3.0 * n);
  }
  std::copy_n(centre, 3, targets[count++]);

  double best = q0, best_at[3] = {here[0], here[1], here[2]};
  for (unsigned t = 0; t < count; ++t) {
    double step = 1.0, trials[8][3];
    for (unsigned k = 0; k < 8; ++k, step *= 0.5)
      for (unsigned c = 0; c < 3; ++c) trials[k][c] = here[c] + step * (targets[t][c] - here[c]);
    front_lookahead f{trials[0], 8};
    for (unsigned k = next_trial(g, node, f, 0, best); k < 8;
         k = next_trial(g, node, f, k + 1, best)) {
      if (try_place(g, node, trials[k], best, best_at)) break;  // the longest step that wins
      f.span = 0;
    }
  }
  ascend(g, node, mean_edge_at(m, s.rows, node), best, best_at);
  if (!(best > q0 * (1.0 + 1e-9))) return false;
  double* x = m.nodes.row(node);
  x[0] = best_at[0], x[1] = best_at[1], x[2] = best_at[2];
  for (unsigned j = 0; j < n; ++j) m.tet_qualities[s.ball[j]] = s.best[j];
  return true;
}

bool star_insert(regularizer& g, unsigned t, unsigned& nodes_left) noexcept {
  th4_engine& m = g.engine;
  polish_scratch& s = g.polish;
  if (nodes_left == 0 || g.frozen(t)) return false;
  const unsigned* row = m.tets.row(t);
  double size = 0.0;
  for (unsigned i = 0; i < 4; ++i) size += 0.25 * m.node_sizes[row[i]];
  const unsigned node = m.new_node(0.0, 0.0, 0.0, size);
  if (node == NONE) return false;

  // Where a node would lift the tet: over its hard faces, the mean of their regular apexes on
  // the tet's side; else its centre. The Delaunay cavity of that place is one of the regions.
  double lift[3] = {0.0, 0.0, 0.0};
  unsigned hard_faces = 0;
  for (unsigned f = 0; f < 4; ++f) {
    const unsigned* fn = tet_face_nodes[f];
    if (!m.hard_set.has_face(row[fn[0]], row[fn[1]], row[fn[2]])) continue;
    double apex[3];
    apex_target(g, row, f, 1.0, size, apex);
    for (unsigned c = 0; c < 3; ++c) lift[c] += apex[c];
    ++hard_faces;
  }
  for (unsigned c = 0; c < 3; ++c) {
    if (hard_faces) {
      lift[c] /= hard_faces;
    } else {
      lift[c] = 0.0;
      for (unsigned i = 0; i < 4; ++i) lift[c] += 0.25 * m.nodes.row(row[i])[c];
    }
  }

  // Regions: the shell of each soft edge, the tet with its neighbours across soft faces (once
  // and twice grown), and the cavity of the lift. The best star over them wins if it beats their
  // worst tet.
  double best = 0.0, best_at[3] = {0.0, 0.0, 0.0};
  bool found = false;
  s.winner.clear();
  // Free nodes next to the tet, across its soft faces: each may move into the tet's place.
  unsigned near[4], near_count = 0;
  for (unsigned f = 0; f < 4; ++f) {
    const unsigned nb = m.neighbors(f, t);
    const unsigned* fn = tet_face_nodes[f];
    if (nb == NONE || m.hard_set.has_face(row[fn[0]], row[fn[1]], row[fn[2]])) continue;
    const unsigned* r = m.tets.row(nb);
    for (unsigned i = 0; i < 4; ++i)
      if (local_index(row, r[i]) == 4 && !m.hard_set.has_node(r[i]) &&
          !g.settled_nodes.test(r[i]) &&
          std::find(near, near + near_count, r[i]) == near + near_count)
        near[near_count++] = r[i];
  }
  for (unsigned kind = 0; kind < 9 + near_count; ++kind) {
    dense1D<unsigned>& region = s.region;
    region.clear();
    unsigned cap = 24;
    if (kind >= 9) {
      const unsigned v = near[kind - 9];
      if (m.ancestors[v] == NONE || !ball_of_node(m, v, m.ancestors[v], region)) continue;
      cap = 40;
      if (!in_region(region, t)) region.push_back(t);
    } else if (kind < 6) {
      unsigned a, b;
      edge_nodes(m, t, kind, a, b);
      if (m.hard_set.has_edge(a, b) || !shell_of_edge(m, a, b, t, region)) continue;
    } else if (kind < 8) {
      region.push_back(t);
      grow_region(g, region, cap);
      if (kind == 7) grow_region(g, region, cap);
    } else {
      cap = 64;
      double* x = m.nodes.row(node);
      std::copy_n(lift, 3, x);
      kernel_workspace& ws = m.kernel;
      cavity_record& cav = ws.cavity;
      dense1D<unsigned>& seeds = g.insertion_seeds;
      seeds.clear();
      seeds.push_back(t);
      collect_cavity(m, node, seeds, cav, CAVITY_TOL);
      correct_cavity(m, ws, cav, kernel_mode_type::hard_edges, m.hard_set);
      if (cav.node == NONE || cav.tets.size > cap) continue;
      for (unsigned k = 0; k < cav.tets.size; ++k) region.push_back(cav.tets[k]);
      if (!in_region(region, t)) continue;
    }
    if (region.size < 2 || region.size > cap) continue;
    double q0 = 1.0;
    bool frozen = false;
    for (unsigned k = 0; k < region.size; ++k) {
      frozen = frozen || g.frozen(region[k]);
      q0 = std::min(q0, m.tet_qualities[region[k]]);
    }
    double at[3], q = 0.0;
    const double beat = q0 * std::max(found ? best : 0.0, 1.0 + 1e-9);
    if (frozen || !best_star(g, region, node, beat, at, q)) continue;
    // Gains are weighed against each region's own worst tet.
    if (!found || q / q0 > best) {
      found = true;
      best = q / q0;
      std::copy_n(at, 3, best_at);
      s.winner.clear();
      for (unsigned k = 0; k < region.size; ++k) s.winner.push_back(region[k]);
      if (best >= 2.0) break;  // good enough: the other regions would cost more than they add
    }
  }

  bool done = false;
  if (found) {
    double* x = m.nodes.row(node);
    std::copy_n(best_at, 3, x);
    if (star_rows(g, s.winner, node) && g.old_rows.resize(4, s.winner.size)) {
      for (unsigned k = 0; k < s.winner.size; ++k)
        std::copy_n(m.tets.row(s.winner[k]), 4, g.old_rows.col(k));
      double q = 1.0;
      for (unsigned j = 0; j < s.rows.cols; ++j) {
        const unsigned* r = s.rows.col(j);
        s.best[j] = tet_quality(m.nodes.data, r[0], r[1], r[2], r[3]);
        q = std::min(q, s.best[j]);
      }
      g.merit.add_valence_record(node);
      if (q > 1e-12 && replace_tets(m, g.exchange, s.winner, s.rows, s.best, g.new_tets)) {
        g.merit.commit_valence(g.old_rows, s.rows);
        done = true;
        for (unsigned k = 0; k < s.lost.size; ++k) {
          g.merit.clear_valence_record(s.lost[k]);
          if (nodes_left != NONE) ++nodes_left;
        }
      } else {
        g.merit.clear_valence_record(node);
      }
    }
  }
  if (!done) {
    m.release_node(node);
    return false;
  }
  if (nodes_left != NONE) --nodes_left;
  s.new_nodes.push_back(node);
  return true;
}

double polish_worst(regularizer& g, unsigned count, unsigned rounds, double limit,
                    unsigned& nodes_left) noexcept {
  th4_engine& m = g.engine;
  polish_scratch& s = g.polish;
  double gain = 1.0;
  unsigned stalled = 0;
  for (unsigned r = 0; r < rounds; ++r) {
    if (g.task && g.task->must_stop()) break;
    pick_worst_tets(g, limit, g.frozen_bits, count, s.tets);
    if (!s.tets.size) break;
    const double before = m.tet_qualities[s.tets[0]];
    // Moves of the free nodes first; then a node in a star round the worst tets that stayed.
    s.nodes.clear();
    m.bump_marks();
    for (unsigned k = 0; k < s.tets.size; ++k) {
      const unsigned* row = m.tets.row(s.tets[k]);
      for (unsigned i = 0; i < 4; ++i)
        if (!m.marked(row[i]) && !g.settled_nodes.test(row[i]) && !m.hard_set.has_node(row[i])) {
          m.mark(row[i]);
          s.nodes.push_back(row[i]);
        }
    }
    bool changed = false;
    for (unsigned k = 0; k < s.nodes.size; ++k) changed = polish_node(g, s.nodes[k]) || changed;
    s.new_nodes.clear();
    const unsigned clock = ++m.tet_clock;
    for (unsigned k = 0; k < s.tets.size; ++k) {
      const unsigned t = s.tets[k];
      if (m.tet_deleted(t) || m.tet_stamps[t] >= clock || m.tet_qualities[t] > 2.0 * before)
        continue;
      changed = star_insert(g, t, nodes_left) || changed;
    }
    for (unsigned k = 0; k < s.new_nodes.size; ++k) polish_node(g, s.new_nodes[k]);
    if (!changed) break;
    pick_worst_tets(g, 1.0, g.frozen_bits, 1, s.tets);
    if (!s.tets.size) break;
    const double after = m.tet_qualities[s.tets[0]];
    if (before > 0.0 && after > before) gain = std::max(gain, after / before);
    // Rounds that keep the worst tet where it was only spend time on the ones above it.
    stalled = after > before ? 0 : stalled + 1;
    if (stalled == 2) break;
  }
  return gain;
}

}  // namespace kelvo::voxfill
