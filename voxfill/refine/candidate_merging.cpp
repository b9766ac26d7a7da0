// Merging of close candidates of a pass into the centroids of their groups.
#include "voxfill/refine/candidate_merging.h"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <new>
#include <numeric>
#include <tuple>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "delaunay/cpu_lanes.h"
#include "delaunay/geometry.h"
#include "delaunay/lanes_avx.h"
#include "delaunay/mesh_walks.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/optim/move_merit.h"
#include "voxfill/refine/metric_trace.h"
#include "voxfill/refine/refine_context.h"
#include "voxfill/refine/size_field.h"
#include "voxfill/refine/spacing_filter.h"

namespace kelvo::voxfill {

namespace {

// A group collapses into its centroid when its score is above this per member.
constexpr double COLLAPSE_SCORE = 0.85;
constexpr double MERGE_BOX = 1.0;

unsigned next_axis(unsigned axis) noexcept {
  return axis == 2 ? 0 : axis + 1;
}

bool walkable(const size_field& f) noexcept {
  const node_locator& loc = f.locator;
  return loc.nodes && loc.tets && loc.neighbors && loc.ancestors;
}

// Hands a list of the scratch to the filter of one call and takes it back at the end, so that its
// capacity survives from pass to pass.
struct lent_items {
  std::vector<std::pair<double, unsigned>>& owner;
  std::vector<std::pair<double, unsigned>>& user;
  lent_items(std::vector<std::pair<double, unsigned>>& o,
             std::vector<std::pair<double, unsigned>>& u) noexcept
      : owner(o), user(u) {
    owner.swap(user);
  }
  ~lent_items() { owner.swap(user); }
  lent_items(const lent_items&) = delete;
  lent_items& operator=(const lent_items&) = delete;
};

// The members of a group, i first and then its near candidates in order, coordinates and sizes
// by columns: the lanes load four members at once.
struct member_table {
  const double* x;
  const double* y;
  const double* z;
  const double* s;
};

#if VOXFILL_LANES_AVX
// The terms r2 / (d^2 + r2) of direct_score for members q to q + 3 in lanes, as the scalar code
// rounds them: log_mean by its series, the distance by dist2, nothing fused. Bit l of the result
// is set where log_mean would take its logarithm: that lane is to be done again, from the squared
// distance, the smaller size and the ratio r of log_mean stored in d2s, los and rs.
VOXFILL_AVX int group_terms_avx(const member_table& M, unsigned q, const double* G, double hG,
                                double r2, double* t, double* d2s, double* los,
                                double* rs) noexcept {
  const __m256d dx = _mm256_sub_pd(_mm256_set1_pd(G[0]), _mm256_loadu_pd(M.x + q));
  const __m256d dy = _mm256_sub_pd(_mm256_set1_pd(G[1]), _mm256_loadu_pd(M.y + q));
  const __m256d dz = _mm256_sub_pd(_mm256_set1_pd(G[2]), _mm256_loadu_pd(M.z + q));
  const __m256d d2 = _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(dx, dx), _mm256_mul_pd(dy, dy)),
                                   _mm256_mul_pd(dz, dz));
  const __m256d S = _mm256_loadu_pd(M.s + q), H = _mm256_set1_pd(hG);
  // As log_mean's choices: lo = hG < s ? hG : s, hi = hG < s ? s : hG.
  const __m256d lo = _mm256_min_pd(H, S), hi = _mm256_max_pd(S, H);
  const __m256d r = _mm256_div_pd(_mm256_sub_pd(hi, lo), lo);
  const int logs = _mm256_movemask_pd(_mm256_cmp_pd(r, _mm256_set1_pd(0.1), _CMP_GE_OQ));
  _mm256_store_pd(d2s, d2);
  _mm256_store_pd(los, lo);
  _mm256_store_pd(rs, r);
  const __m256d one = _mm256_set1_pd(1.0), third = _mm256_set1_pd(1.0 / 3);
  const __m256d u = _mm256_div_pd(r, _mm256_set1_pd(2.0));
  __m256d p = _mm256_sub_pd(third, _mm256_mul_pd(_mm256_set1_pd(0.42222222222222217), u));
  p = _mm256_sub_pd(third, _mm256_mul_pd(p, u));
  p = _mm256_sub_pd(one, _mm256_mul_pd(p, u));
  p = _mm256_add_pd(one, _mm256_mul_pd(u, p));
  const __m256d mean = _mm256_mul_pd(lo, p);
  const __m256d sized = _mm256_cmp_pd(mean, _mm256_setzero_pd(), _CMP_GT_OQ);
  const __m256d d = _mm256_and_pd(sized, _mm256_div_pd(_mm256_sqrt_pd(d2), mean));
  const __m256d R2 = _mm256_set1_pd(r2);
  _mm256_storeu_pd(t, _mm256_div_pd(R2, _mm256_add_pd(_mm256_mul_pd(d, d), R2)));
  return logs;
}

// direct_score's sum over members 0 to k, all terms by the lanes (the logarithms of log_mean
// where it takes them, from the lanes' own distances and ratios), 0.0 as soon as a block holds a
// term not above 0.5.
VOXFILL_AVX double direct_score_avx(const member_table& M, double r2, unsigned k, const double* G,
                                    double hG) noexcept {
  double score = 0.0;
  for (unsigned q = 0; q <= k; q += 4) {
    const unsigned used = k + 1 - q < 4 ? k + 1 - q : 4;
    const int lanes = (1 << used) - 1;
    alignas(32) double t[4], d2s[4], los[4], rs[4];
    int logs = group_terms_avx(M, q, G, hG, r2, t, d2s, los, rs) & lanes;
    for (; logs != 0; logs &= logs - 1) {
      const unsigned l = unsigned(std::countr_zero(unsigned(logs)));
      // As log_mean and direct_score's term round them.
      const double mean = los[l] * rs[l] / std::log(1.0 + rs[l]);
      const double d = mean > 0.0 ? std::sqrt(d2s[l]) / mean : 0.0;
      t[l] = r2 / (d * d + r2);
    }
    const __m256d above = _mm256_cmp_pd(_mm256_load_pd(t), _mm256_set1_pd(0.5), _CMP_GT_OQ);
    // A member at `radius` or beyond is not served by G: the group is no group.
    if ((_mm256_movemask_pd(above) & lanes) != lanes) return 0.0;
    for (unsigned l = 0; l < used; ++l) score += t[l];
  }
  return score;
}
#endif

// The score of direct_score's group of members 0 to k when it is above `best`, else some value
// not above it: the caller stops at the first group that does not beat the last. The newest
// member, the farthest from i, is judged first since it is the likeliest to lie out of reach.
// Where the lanes allow, all terms are worked out four at a time instead and judged by one mask
// per block: groups mostly grow to their end, so the early stops would save little. The terms
// are summed in the members' order either way.
double direct_score(const member_table& M, double r2, unsigned k, const double* G, double hG,
                    double best, [[maybe_unused]] bool lanes) noexcept {
  auto term_of = [&](unsigned q) {
    const double h = log_mean(hG, M.s[q]);
    double d = 0.0;
    if (h > 0.0) {
      // As dist2: the squares summed from 0.0 in the order of the axes.
      const double dx = G[0] - M.x[q], dy = G[1] - M.y[q], dz = G[2] - M.z[q];
      double d2 = 0.0;
      d2 += dx * dx;
      d2 += dy * dy;
      d2 += dz * dz;
      d = std::sqrt(d2) / h;
    }
    return r2 / (d * d + r2);
  };
#if VOXFILL_LANES_AVX
  // The columns have room for three lanes past the last member; those lanes are dropped.
  if (lanes) return direct_score_avx(M, r2, k, G, hG);
#endif
  const double last = term_of(k);
  // A member at `radius` or beyond is not served by G: the group is no group.
  if (!(last > 0.5)) return 0.0;
  double score = 0.0;
  for (unsigned q = 0; q < k; ++q) {
    const double term = term_of(q);
    if (!(term > 0.5)) return 0.0;
    score += term;
    // No term is above 1: with the rest at 1 the group still can't beat `best`. The margin is
    // far above the rounding of the sum.
    if (score + double(k - q) + 1e-9 <= best) return 0.0;
  }
  return score + last;
}

}  // namespace

namespace {

// group_score with the sum of the members' coordinates given, and an answer that only has to be
// right when it is above `best` (see direct_score).
[[gnu::always_inline]] inline double score_above(size_field& field, const dense2D<double>& points,
                                                 const dense1D<double>& sizes, double r2,
                                                 unsigned i, const std::vector<unsigned>& near,
                                                 unsigned k, const member_table& M,
                                                 const double* sum, double best, unsigned& tet,
                                                 double* G, double& hG, walk_memo& memo,
                                                 bool lanes) noexcept {
  const double members = double(k + 1);
  for (unsigned d = 0; d < 3; ++d) G[d] = sum[d] / members;
  hG = 0.0;
  if (!field_size_at(field, G, tet, hG, memo)) return 0.0;
  const unsigned tG = tet;
  if (field.direct_lengths) return direct_score(M, r2, k, G, hG, best, lanes);
  // Over the mesh itself a length comes from the end sizes alone: the members' tets would go
  // unused, and their searches cost more than the rest of the merge.
  const bool walk = walkable(field);
  // The members lie close together: each search starts from the tet found last.
  unsigned last = tG;
  double score = 0.0;
  for (unsigned q = 0; q <= k; ++q) {
    const unsigned x = q == 0 ? i : near[q - 1];
    const double* X = points.col(x);
    unsigned tx = NONE;
    if (q != 0 && walk) {
      tx = last;
      if (locate_tet(field.locator, X, tx, LOCATE_TOL, field.walk_bits)) last = tx;
    }
    double d = 0.0;
    if (!field_length(field, G, tG, hG, X, tx, sizes[x], d)) return 0.0;
    const double term = r2 / (d * d + r2);
    // A member at `radius` or beyond is not served by G: the group is no group.
    if (!(term > 0.5)) return 0.0;
    score += term;
  }
  return score;
}

}  // namespace

unsigned kd_insert(kd_tree& tree, const dense2D<double>& points, unsigned p) {
  const unsigned r = unsigned(tree.rows.size());
  const double* P = points.col(p);
  tree.rows.push_back({{P[0], P[1], P[2]}, p, NONE, NONE});
  if (r == 0) return 0;
  unsigned at = 0, axis = 0;
  for (;;) {
    kd_tree::row& x = tree.rows[at];
    // Equal coordinates go right: kd_box visits the right side of a row at its upper bound.
    unsigned& link = P[axis] < x.xyz[axis] ? x.left : x.right;
    if (link == NONE) {
      link = r;
      return r;
    }
    at = link;
    axis = next_axis(axis);
  }
}

void kd_box(kd_tree& tree, const double* lo, const double* hi,
            std::vector<std::pair<double, unsigned>>& items) {
  if (tree.rows.empty()) return;
  // Depth first, the left side first: a row waits on the stack only while its left sibling's
  // subtree is visited, so the stack never holds more rows than the tree has.
  auto& stack = tree.stack;
  if (stack.size() < tree.rows.size()) stack.resize(tree.rows.size());
  std::pair<unsigned, unsigned>* waiting = stack.data();
  const kd_tree::row* rows = tree.rows.data();
  unsigned count = 0, r = 0, axis = 0;
  for (;;) {
    const kd_tree::row& x = rows[r];
    const double* X = x.xyz;
    if (X[0] >= lo[0] && X[0] <= hi[0] && X[1] >= lo[1] && X[1] <= hi[1] && X[2] >= lo[2] &&
        X[2] <= hi[2])
      items.emplace_back(0.0, x.point);
    const double c = X[axis];
    const unsigned next = next_axis(axis);
    const bool left = c >= lo[axis] && x.left != NONE;
    const bool right = c <= hi[axis] && x.right != NONE;
    if (left) {
      if (right) waiting[count++] = {x.right, next};
      r = x.left;
      axis = next;
    } else if (right) {
      r = x.right;
      axis = next;
    } else if (count != 0) {
      std::tie(r, axis) = waiting[--count];
    } else {
      return;
    }
  }
}

namespace {

unsigned grid_cell(const cell_grid& grid, unsigned axis, double x) noexcept {
  // Rounding keeps the order of the coordinates: a point in a box lies in the cells of its
  // corners or between them.
  const double t = (x - grid.origin[axis]) * grid.inverse;
  const double top = double(grid.dims[axis] - 1);
  // Clamped without branches, which the coordinates would make hard to foresee: NaN and t <= 0
  // to cell 0, t >= top to the top cell.
  const double above = t > 0.0 ? t : 0.0;
  return unsigned(above < top ? above : top);
}

// The candidates of `items` within F.ratio of candidate i, nearest first, into the lists.
void keep_near(spacing_filter& F, unsigned i, const dense2D<double>& points,
               const dense1D<double>& sizes, std::vector<unsigned>& near,
               std::vector<double>& lengths);

// The box of candidate i in the near search.
void near_box(const spacing_filter& F, unsigned i, const dense2D<double>& points,
              const dense1D<double>& sizes, double* lo, double* hi) noexcept {
  const double* P = points.col(i);
  const double half = F.box_factor * sizes[i];
  for (unsigned d = 0; d < 3; ++d) {
    lo[d] = P[d] - half;
    hi[d] = P[d] + half;
  }
}

}  // namespace

bool grid_build(cell_grid& grid, const dense2D<double>& points, unsigned n, double width) {
  grid.dims[0] = grid.dims[1] = grid.dims[2] = 0;
  if (n == 0 || !(width > 0.0 && width < DBL_MAX)) return false;
  double lo[3], hi[3];
  for (unsigned d = 0; d < 3; ++d) lo[d] = hi[d] = points(d, 0);
  // x * 0.0 is 0.0 for a finite x and NaN for any other: one sum tells whether all are finite.
  double zero = 0.0;
  const double* X = points.col(0);
  const std::size_t ld = points.ld;
#if defined(__SSE2__)
  // x and y of a point in the two lanes of one register, z alone. _mm_min_pd (x, lo) picks as
  // std::min (lo, x) does, ties included, and _mm_max_pd (x, hi) as std::max (hi, x).
  __m128d lo_xy = _mm_loadu_pd(lo), hi_xy = _mm_loadu_pd(hi), zero_xy = _mm_setzero_pd();
  const __m128d nought = _mm_setzero_pd();
  for (unsigned p = 0; p < n; ++p, X += ld) {
    const __m128d xy = _mm_loadu_pd(X);
    zero_xy = _mm_add_pd(zero_xy, _mm_mul_pd(xy, nought));
    lo_xy = _mm_min_pd(xy, lo_xy);
    hi_xy = _mm_max_pd(xy, hi_xy);
    const double z = X[2];
    zero += z * 0.0;
    lo[2] = std::min(lo[2], z);
    hi[2] = std::max(hi[2], z);
  }
  _mm_storeu_pd(lo, lo_xy);
  _mm_storeu_pd(hi, hi_xy);
  double zeros[2];
  _mm_storeu_pd(zeros, zero_xy);
  if (zeros[0] != 0.0 || zeros[1] != 0.0) return false;
#else
  for (unsigned p = 0; p < n; ++p, X += ld)
    for (unsigned d = 0; d < 3; ++d) {
      const double x = X[d];
      zero += x * 0.0;
      lo[d] = std::min(lo[d], x);
      hi[d] = std::max(hi[d], x);
    }
#endif
  if (zero != 0.0) return false;
  // Not many more cells than points: the counts and starts stay linear in n.
  const double room = 16.0 * double(n) + 64.0;
  for (;;) {
    double cells = 1.0;
    for (unsigned d = 0; d < 3; ++d) cells *= std::floor((hi[d] - lo[d]) / width) + 1.0;
    if (cells <= room) break;
    width *= std::max(1.25, std::cbrt(cells / room));
    if (!(width < DBL_MAX)) return false;
  }
  grid.inverse = 1.0 / width;
  for (unsigned d = 0; d < 3; ++d) {
    grid.origin[d] = lo[d];
    grid.dims[d] = unsigned(std::floor((hi[d] - lo[d]) / width)) + 1;
  }
  const unsigned total = grid.dims[0] * grid.dims[1] * grid.dims[2];
  grid.starts.assign(total + 1, 0);
  grid.cells.resize(n);
  grid.points.resize(n);
  unsigned* starts = grid.starts.data();
  unsigned* cells = grid.cells.data();
  unsigned* order = grid.points.data();
  {
    // grid_cell's steps with the grid's numbers in locals: the stores below could otherwise
    // change them for all the compiler knows, which reloads and converts them for each point.
    const double o0 = grid.origin[0], o1 = grid.origin[1], o2 = grid.origin[2];
    const double inverse = grid.inverse;
    const double top0 = double(grid.dims[0] - 1), top1 = double(grid.dims[1] - 1),
                 top2 = double(grid.dims[2] - 1);
    const unsigned d0 = grid.dims[0], d1 = grid.dims[1];
    auto cell_of = [](double x, double origin, double inv, double top) {
      const double t = (x - origin) * inv;
      const double above = t > 0.0 ? t : 0.0;
      return unsigned(above < top ? above : top);
    };
    const double* Y = points.col(0);
    for (unsigned p = 0; p < n; ++p, Y += ld) {
      const unsigned c =
          (cell_of(Y[2], o2, inverse, top2) * d1 + cell_of(Y[1], o1, inverse, top1)) * d0 +
          cell_of(Y[0], o0, inverse, top0);
      cells[p] = c;
      ++starts[c];
    }
  }
  // Each count becomes the end of its cell; the fill from the last point back moves it to the
  // cell's start and leaves the points of a cell ascending.
  unsigned end = 0;
  for (unsigned c = 0; c < total; ++c) {
    end += starts[c];
    starts[c] = end;
  }
  for (unsigned p = n; p-- > 0;) order[--starts[cells[p]]] = p;
  starts[total] = n;
  return true;
}

void grid_box(const cell_grid& grid, const dense2D<double>& points, const double* lo,
              const double* hi, std::vector<std::pair<double, unsigned>>& items) {
  if (grid.dims[0] == 0) return;
  unsigned a[3], b[3];
  for (unsigned d = 0; d < 3; ++d) {
    a[d] = grid_cell(grid, d, lo[d]);
    b[d] = grid_cell(grid, d, hi[d]);
  }
  for (unsigned z = a[2]; z <= b[2]; ++z)
    for (unsigned y = a[1]; y <= b[1]; ++y) {
      const unsigned row = (z * grid.dims[1] + y) * grid.dims[0];
      const unsigned end = grid.starts[row + b[0] + 1];
      for (unsigned k = grid.starts[row + a[0]]; k < end; ++k) {
        const unsigned p = grid.points[k];
        const double* X = points.col(p);
        if (X[0] >= lo[0] && X[0] <= hi[0] && X[1] >= lo[1] && X[1] <= hi[1] && X[2] >= lo[2] &&
            X[2] <= hi[2])
          items.emplace_back(0.0, p);
      }
    }
}

void near_candidates(spacing_filter& F, unsigned i, const dense2D<double>& points,
                     const dense1D<double>& sizes, kd_tree& tree, std::vector<unsigned>& near,
                     std::vector<double>& lengths) {
  double lo[3], hi[3];
  near_box(F, i, points, sizes, lo, hi);
  F.near_items.clear();
  kd_box(tree, lo, hi, F.near_items);
  keep_near(F, i, points, sizes, near, lengths);
}

namespace {

void keep_near(spacing_filter& F, unsigned i, const dense2D<double>& points,
               const dense1D<double>& sizes, std::vector<unsigned>& near,
               std::vector<double>& lengths) {
  near.clear();
  lengths.clear();
  const double* P = points.col(i);
  const double h = sizes[i];
  auto& items = F.near_items;
  unsigned kept = 0;
  for (const auto& item : items) {
    const unsigned j = item.second;
    const double s = sizes[j];
    // A candidate without size has no length to anyone.
    if (s == 0.0) continue;
    const double d2 = geometry_detail::dist2<3>(P, points.col(j));
    // The mean lies between the two sizes and below their arithmetic mean: beyond the ratio of
    // that, with a margin for the rounding of the mean, the candidate is far without the
    // logarithm.
    const double far = F.ratio * (s > 0.0 ? 0.5 * (h + s) : (h > s ? h : s));
    if (h > 0.0 && d2 > far * far * (1.0 + 1e-9)) continue;
    const double mean = log_mean(h, s);
    const double d = mean > 0.0 ? std::sqrt(d2) / mean : 0.0;
    if (d <= F.ratio) items[kept++] = {d, j};
  }
  items.resize(kept);
  std::sort(items.begin(), items.end());
  for (const auto& [d, j] : items) {
    if (j == i) continue;
    near.push_back(j);
    lengths.push_back(d);
  }
}

// The candidates copied into the order of the grid's cells, four numbers each (x, y, z, size):
// the sweeps of grid_near read memory in order.
void grid_lay_out(const cell_grid& grid, const dense2D<double>& points,
                  const dense1D<double>& sizes, unsigned n, std::vector<double>& cell_data) {
  cell_data.resize(4 * std::size_t(n));
  const unsigned* order = grid.points.data();
  double* out = cell_data.data();
  for (unsigned k = 0; k < n; ++k, out += 4) {
    const unsigned j = order[k];
    const double* X = points.col(j);
    out[0] = X[0];
    out[1] = X[1];
    out[2] = X[2];
    out[3] = sizes[j];
  }
}

// keep_near's test of a candidate in the box (x, y, z and size at X): its item is listed when it
// is near. Candidate i itself is listed too, to be dropped after the sort.
[[gnu::always_inline]] inline void judge_near(const double* P, double h, double ratio,
                                              const double* X, unsigned j,
                                              std::vector<std::pair<double, unsigned>>& items) {
  const double s = X[3];
  if (s == 0.0) return;
  const double d2 = geometry_detail::dist2<3>(P, X);
  // The mean lies below the arithmetic mean of two positive sizes, and below the larger size.
  const double far = ratio * (s > 0.0 ? 0.5 * (h + s) : (h > s ? h : s));
  if (h > 0.0 && d2 > far * far * (1.0 + 1e-9)) return;
  const double mean = log_mean(h, s);
  const double d = mean > 0.0 ? std::sqrt(d2) / mean : 0.0;
  if (d <= ratio) items.emplace_back(d, j);
}

// The cells of the box around candidate i and their rows: the sweep of grid_near.
struct grid_sweep {
  const double* P;
  double h;
  double ratio;
  double lo[3], hi[3];
  unsigned a[3], b[3];
};

void sweep_cells(const grid_sweep& w, const cell_grid& grid, const double* cell_data,
                 std::vector<std::pair<double, unsigned>>& items) {
  const unsigned dx = grid.dims[0], dy = grid.dims[1];
  const unsigned* starts = grid.starts.data();
  const unsigned* cell_points = grid.points.data();
  for (unsigned z = w.a[2]; z <= w.b[2]; ++z)
    for (unsigned y = w.a[1]; y <= w.b[1]; ++y) {
      const unsigned row = (z * dy + y) * dx;
      const unsigned end = starts[row + w.b[0] + 1];
      for (unsigned k = starts[row + w.a[0]]; k < end; ++k) {
        const double* X = cell_data + 4 * std::size_t(k);
        if (X[0] >= w.lo[0] && X[0] <= w.hi[0] && X[1] >= w.lo[1] && X[1] <= w.hi[1] &&
            X[2] >= w.lo[2] && X[2] <= w.hi[2])
          judge_near(w.P, w.h, w.ratio, X, cell_points[k], items);
      }
    }
}

#if VOXFILL_LANES_AVX
// sweep_cells with the box test of a candidate in one compare of each side: the same answers,
// one branch per candidate.
VOXFILL_AVX void sweep_cells_avx(const grid_sweep& w, const cell_grid& grid,
                                 const double* cell_data,
                                 std::vector<std::pair<double, unsigned>>& items) {
  const unsigned dx = grid.dims[0], dy = grid.dims[1];
  const unsigned* starts = grid.starts.data();
  const unsigned* cell_points = grid.points.data();
  // The fourth lane holds the size: its answer is dropped.
  const __m256d lo = _mm256_setr_pd(w.lo[0], w.lo[1], w.lo[2], 0.0);
  const __m256d hi = _mm256_setr_pd(w.hi[0], w.hi[1], w.hi[2], 0.0);
  for (unsigned z = w.a[2]; z <= w.b[2]; ++z)
    for (unsigned y = w.a[1]; y <= w.b[1]; ++y) {
      const unsigned row = (z * dy + y) * dx;
      const unsigned end = starts[row + w.b[0] + 1];
      for (unsigned k = starts[row + w.a[0]]; k < end; ++k) {
        const double* X = cell_data + 4 * std::size_t(k);
        const __m256d x = _mm256_loadu_pd(X);
        const __m256d in =
            _mm256_and_pd(_mm256_cmp_pd(x, lo, _CMP_GE_OQ), _mm256_cmp_pd(x, hi, _CMP_LE_OQ));
        if ((_mm256_movemask_pd(in) & 7) == 7)
          judge_near(w.P, w.h, w.ratio, X, cell_points[k], items);
      }
    }
}
#endif

// The items sorted as std::sort would: they are few, and the insertions cost less than its set-up.
void sort_items(std::vector<std::pair<double, unsigned>>& items) {
  const std::size_t n = items.size();
  if (n > 32) {
    std::sort(items.begin(), items.end());
    return;
  }
  std::pair<double, unsigned>* a = items.data();
  for (std::size_t x = 1; x < n; ++x) {
    const std::pair<double, unsigned> v = a[x];
    std::size_t y = x;
    for (; y > 0 && v < a[y - 1]; --y) a[y] = a[y - 1];
    a[y] = v;
  }
}

// near_candidates through the grid, the box and the nearness judged in one sweep: only the near
// ones are listed, and the sort makes the order of the cells irrelevant. The merging reads no
// lengths: only the candidates are listed.
// `largest` is the largest size of the candidates when all are positive or 0.0 and finite, else
// DBL_MAX.
void grid_near(spacing_filter& F, unsigned i, const dense2D<double>& points,
               const dense1D<double>& sizes, const cell_grid& grid, const double* cell_data,
               double largest, [[maybe_unused]] bool lanes, std::vector<unsigned>& near) {
  near.clear();
  auto& items = F.near_items;
  items.clear();
  if (grid.dims[0] == 0) return;
  grid_sweep w;
  near_box(F, i, points, sizes, w.lo, w.hi);
  w.P = points.col(i);
  w.h = sizes[i];
  w.ratio = F.ratio;
  // A near candidate lies within the ratio times the mean of the two sizes, which is below
  // their arithmetic mean: the box shrinks to that reach with the largest size. The margin is
  // far above the rounding of the mean and of the box.
  if (w.h > 0.0 && largest < DBL_MAX && F.ratio > 0.0) {
    const double reach = F.ratio * (0.5 * (w.h + largest)) * (1.0 + 1e-6);
    if (reach < F.box_factor * w.h)
      for (unsigned d = 0; d < 3; ++d) {
        w.lo[d] = w.P[d] - reach;
        w.hi[d] = w.P[d] + reach;
      }
  }
  for (unsigned d = 0; d < 3; ++d) {
    w.a[d] = grid_cell(grid, d, w.lo[d]);
    w.b[d] = grid_cell(grid, d, w.hi[d]);
  }
#if VOXFILL_LANES_AVX
  if (lanes)
    sweep_cells_avx(w, grid, cell_data, items);
  else
    sweep_cells(w, grid, cell_data, items);
#else
  sweep_cells(w, grid, cell_data, items);
#endif
  sort_items(items);
  for (const auto& item : items)
    if (item.second != i) near.push_back(item.second);
}

}  // namespace

double group_score(size_field& field, const dense2D<double>& points, const dense1D<double>& sizes,
                   double r2, unsigned i, const std::vector<unsigned>& near, unsigned k,
                   unsigned& tet, double* G, double& hG) noexcept {
  const double* Pi = points.col(i);
  double sum[3] = {Pi[0], Pi[1], Pi[2]};
  for (unsigned q = 0; q < k; ++q) {
    const double* X = points.col(near[q]);
    for (unsigned d = 0; d < 3; ++d) sum[d] += X[d];
  }
  std::vector<double> columns;
  try {
    columns.resize(4 * std::size_t(k + 1) + 3);
  } catch (const std::bad_alloc&) {
    return 0.0;
  }
  double* x = columns.data();
  const member_table M{x, x + (k + 1), x + 2 * (k + 1), x + 3 * (k + 1)};
  for (unsigned q = 0; q <= k; ++q) {
    const unsigned j = q == 0 ? i : near[q - 1];
    x[q] = points(0, j);
    x[q + (k + 1)] = points(1, j);
    x[q + 2 * (k + 1)] = points(2, j);
    x[q + 3 * (k + 1)] = sizes[j];
  }
  walk_memo memo;
  return score_above(field, points, sizes, r2, i, near, k, M, sum, -DBL_MAX, tet, G, hG, memo,
                     lanes_avx());
}

void merge_candidates(th4_engine& e, refine_context& c, dense2D<double>& points,
                      dense1D<double>& sizes, double radius) noexcept {
  const unsigned n = points.cols < sizes.size ? points.cols : sizes.size;
  if (n == 0) return;
  size_field& field = e.size_field ? *e.size_field : *e.own_size_field;
  merge_scratch& s = c.merging;
  try {
    spacing_filter F(radius, MERGE_BOX);
    lent_items lend(s.near_items, F.near_items);
    // The output goes to tables of their own, swapped in at the end: until then the input is
    // untouched, and a failure leaves it as it was.
    if (s.points.vec.get() == points.vec.get()) s.points.clear_hard();
    if (s.sizes.vec.get() == sizes.vec.get()) s.sizes.clear_hard();
    if (!s.points.resize(3, n) || !s.sizes.resize(n)) return;
    s.removed.assign(n, 0);

    // The near searches go through a grid of cells about half a box wide when the points allow
    // one, else through the tree. Both find the same sets, and those are sorted: the shape of the
    // tree, and so the order that its draws shuffle, change nothing in the result. The draws are
    // made all the same, one per candidate after the first, so that the source moves as always.
    double widths = 0.0, largest = 0.0;
    for (unsigned k = 0; k < n; ++k) {
      widths += F.box_factor * sizes[k];
      const double h = sizes[k];
      if (!(h >= 0.0 && h < DBL_MAX))
        largest = DBL_MAX;
      else if (h > largest && largest < DBL_MAX)
        largest = h;
    }
    const bool gridded = grid_build(s.grid, points, n, 0.5 * widths / double(n));
    if (gridded) grid_lay_out(s.grid, points, sizes, n, s.cell_data);
    s.tree.rows.clear();
    if (gridded) c.random_source.discard(n - 1);
    if (!gridded) {
      // The tree is built in random order: the front's order would make it a deep chain.
      s.order.resize(n);
      std::iota(s.order.begin(), s.order.end(), 0u);
      for (unsigned k = 1; k < n; ++k) {
        const unsigned j = unsigned(c.random_source() % (k + 1));
        if (j != k) std::swap(s.order[k], s.order[j]);
      }
      s.tree.rows.reserve(n);
      for (unsigned k = 0; k < n; ++k) kd_insert(s.tree, points, s.order[k]);
    }

    const double r2 = radius * radius;
    // The mesh stays as it is through the pass: one memo serves the look-ups of all groups.
    walk_memo memo;
    const bool lanes = lanes_avx();
    unsigned out = 0;
    for (unsigned i = 0; i < n; ++i) {
      if (s.removed[i]) continue;
      if (gridded) {
        grid_near(F, i, points, sizes, s.grid, s.cell_data.data(), largest, lanes, s.near);
      } else {
        near_candidates(F, i, points, sizes, s.tree, s.near, s.lengths);
      }
      // A removed neighbour belongs to another group already: the group stops before it.
      unsigned m = 0;
      while (m < s.near.size() && !s.removed[s.near[m]]) ++m;
      const double* Pi = points.col(i);
      double R[3] = {Pi[0], Pi[1], Pi[2]};
      double hR = sizes[i];
      double best = 1.0;
      unsigned u = 0, tet = NONE;
      // The members' coordinates summed as the groups grow, in the same order as group_score,
      // and laid out by columns for the scores.
      double sum[3] = {Pi[0], Pi[1], Pi[2]};
      if (s.member_columns.size() < 4 * std::size_t(m + 1) + 3)
        s.member_columns.resize(4 * std::size_t(m + 1) + 3);
      double* mx = s.member_columns.data();
      const member_table M{mx, mx + (m + 1), mx + 2 * (m + 1), mx + 3 * (m + 1)};
      mx[0] = Pi[0];
      mx[m + 1] = Pi[1];
      mx[2 * (m + 1)] = Pi[2];
      mx[3 * (m + 1)] = sizes[i];
      for (unsigned k = 1; k <= m; ++k) {
        const unsigned j = s.near[k - 1];
        const double* X = points.col(j);
        for (unsigned d = 0; d < 3; ++d) sum[d] += X[d];
        mx[k] = X[0];
        mx[k + (m + 1)] = X[1];
        mx[k + 2 * (m + 1)] = X[2];
        mx[k + 3 * (m + 1)] = sizes[j];
        double G[3], hG = 0.0;
        const double score = score_above(field, points, sizes, r2, i, s.near, k, M, sum, best, tet,
                                         G, hG, memo, lanes);
        if (!(score > best)) break;
        best = score;
        u = k;
        std::copy(G, G + 3, R);
        hR = hG;
      }
      if (u > 0 && best > COLLAPSE_SCORE * double(u + 1)) {
        s.removed[i] = 1;
        for (unsigned q = 0; q < u; ++q) s.removed[s.near[q]] = 1;
      }
      for (unsigned d = 0; d < 3; ++d) s.points(d, out) = R[d];
      s.sizes[out] = hR;
      ++out;
    }
    s.points.resize(3, out);
    s.sizes.resize(out);
    std::swap(points, s.points);
    std::swap(sizes, s.sizes);
  } catch (const std::bad_alloc&) {
    // The candidates go on unmerged; the filter still keeps them apart.
  }
}

}  // namespace kelvo::voxfill
