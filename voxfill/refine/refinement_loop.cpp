// The refinement loop: judging of new tets, the front, candidates from its faces, the insertion of
// each pass, and the last step on the edges still too long.
#include "voxfill/refine/refinement_loop.h"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cstdint>
#include <new>
#include <tuple>
#include <vector>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "delaunay/cpu_lanes.h"
#include "delaunay/delaunay_mgr.h"
#include "delaunay/geometry.h"
#include "delaunay/insertion_order.h"
#include "delaunay/lanes_avx.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/tet_tables.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/kernel_task.h"
#include "voxfill/refine/candidate_merging.h"
#include "voxfill/refine/front_placement.h"
#include "voxfill/refine/metric_trace.h"
#include "voxfill/refine/size_field.h"
#include "voxfill/refine/size_limiting.h"
#include "voxfill/refine/spacing_filter.h"

namespace kelvo::voxfill {

namespace {

// Resizes a list, false when memory ran out.
template <class T>
bool sized(dense1D<T>& list, unsigned n) noexcept {
  return list.resize(n) && list.size == n;
}

// The tets made since the last judging, their rows in local node numbers and which new tets hold
// each local node. False when memory ran out.
bool build_local_tets(th4_engine& e, refine_context& c) noexcept {
  const unsigned T = c.new_tets.size;
  if (!c.new_tet_rows.resize(4, T)) return false;
  if (c.local_index.size < e.nodes.cols() && !sized(c.local_index, e.nodes.cols())) return false;
  // Room for the most local nodes there can be, cut down at the end: the loops below then read
  // and write plain pointers.
  if (!sized(c.local_nodes, 4 * T)) return false;
  unsigned* index = c.local_index.data();
  unsigned* locals = c.local_nodes.data();
  const unsigned* tets = c.new_tets.data();
  unsigned L = 0;
  for (unsigned k = 0; k < T; ++k) {
    const unsigned* r = e.tets.row(tets[k]);
    unsigned* out = c.new_tet_rows.col(k);
    for (unsigned i = 0; i < 4; ++i) {
      const unsigned n = r[i];
      unsigned& local = index[n];
      // The entry is trusted only when it points back to n: no clearing between passes.
      if (!(local < L && locals[local] == n)) {
        local = L;
        locals[L++] = n;
      }
      out[i] = local;
    }
  }
  c.local_nodes.size = L;
  // Positions of the tets of each local node, ascending since the tets are read in order.
  if (!sized(c.node_tet_offsets, L + 1) || !sized(c.node_tets, 4 * T)) return false;
  unsigned* offsets = c.node_tet_offsets.data();
  std::fill(offsets, offsets + L + 1, 0u);
  const unsigned* rows = T ? c.new_tet_rows.col(0) : nullptr;
  const std::size_t ld = c.new_tet_rows.ld;
  for (unsigned k = 0; k < T; ++k)
    for (unsigned i = 0; i < 4; ++i) ++offsets[rows[ld * k + i] + 1];
  for (unsigned v = 0; v < L; ++v) offsets[v + 1] += offsets[v];
  dense1D<unsigned>& fill = c.size_stamps;  // scratch here; the size limiting reuses it later
  if (!sized(fill, L)) return false;
  unsigned* next = fill.data();
  std::copy_n(offsets, L, next);
  unsigned* node_tets = c.node_tets.data();
  for (unsigned k = 0; k < T; ++k)
    for (unsigned i = 0; i < 4; ++i) node_tets[next[rows[ld * k + i]]++] = k;
  return true;
}

// Which local nodes share a new tet: the other nodes of the tets of each node, each once. Only the
// size limiting walks this graph. False when memory ran out.
bool build_local_graph(refine_context& c) noexcept {
  const unsigned L = c.local_nodes.size;
  c.graph_nodes.clear();
  if (!sized(c.graph_offsets, L + 1) || !sized(c.size_stamps, L)) return false;
  c.graph_offsets[0] = 0;
  dense1D<unsigned>& seen = c.size_stamps;
  std::fill(seen.begin(), seen.end(), NONE);
  for (unsigned v = 0; v < L; ++v) {
    for (unsigned p = c.node_tet_offsets[v]; p < c.node_tet_offsets[v + 1]; ++p) {
      const unsigned k = c.node_tets[p];
      for (unsigned i = 0; i < 4; ++i) {
        const unsigned w = c.new_tet_rows(i, k);
        if (w == v || seen[w] == v) continue;
        seen[w] = v;
        const unsigned before = c.graph_nodes.size;
        c.graph_nodes.push_back(w);
        if (c.graph_nodes.size != before + 1) return false;
      }
    }
    c.graph_offsets[v + 1] = c.graph_nodes.size;
  }
  return true;
}

bool insert_front(refine_context& c, unsigned code) noexcept {
  const unsigned n = c.front_faces.size;
  c.front_faces.push_back(code);
  return c.front_faces.size == n + 1;
}

// The rows below n whose bit is clear, ascending, into `rows`. False when memory ran out.
bool clear_rows_of(const bit_set& bits, unsigned n, dense1D<unsigned>& rows) noexcept {
  rows.clear();
  const unsigned* words = bits.words.data();
  for (unsigned w = 0; w < (n + 31) >> 5; ++w) {
    unsigned clear = ~words[w];
    if (32 * w + 32 > n) clear &= (1u << (n & 31)) - 1u;
    for (; clear != 0; clear &= clear - 1) {
      const unsigned before = rows.size;
      rows.push_back(32 * w + unsigned(std::countr_zero(clear)));
      if (rows.size != before + 1) return false;
    }
  }
  return true;
}

// The rows whose bit is clear once a judging has settled them: the clear rows from before that
// are still clear and the new tets judged bad, merged in row order. Nothing else changed a bit.
// Without memory for them they stay unknown.
void next_clear_rows(refine_context& c) noexcept {
  const bit_set& bits = c.good_tets;
  dense1D<unsigned>& out = c.clear_spare;
  out.clear();
  if (!out.reserve(c.clear_rows.size + c.new_tets.size)) return;
  const unsigned *x = c.clear_rows.data(), *y = c.new_tets.data();
  const unsigned xe = c.clear_rows.size, ye = c.new_tets.size;
  unsigned i = 0, j = 0;
  for (;;) {
    unsigned t;
    if (i < xe && (j >= ye || x[i] <= y[j])) {
      t = x[i++];
      if (j < ye && y[j] == t) ++j;
    } else if (j < ye) {
      t = y[j++];
    } else {
      break;
    }
    if (!bits.test(t)) out.push_back(t);
  }
  std::swap(c.clear_rows, c.clear_spare);
  c.clear_rows_known = true;
}

// The six edges of a tet as pairs of its places, in the order of the lanes below: first each
// place with the next one round, then the two diagonals.
constexpr unsigned EDGE_PLACES[6][2] = {{0, 1}, {1, 2}, {2, 3}, {3, 0}, {0, 2}, {1, 3}};

// Whether the tet with nodes n is condemned by one of its edges that are not short: bit k of
// `bits` for edge k of EDGE_PLACES, bit k + 8 when its verdict is to be asked. Over the mesh
// itself a length depends on the edge alone and has no side effects.
bool condemned(th4_engine& e, size_field& field, const unsigned* n, unsigned bits,
               double limit) noexcept {
  for (unsigned maybe = bits & 63u; maybe != 0; maybe &= maybe - 1) {
    const unsigned edge = unsigned(std::countr_zero(maybe));
    const unsigned a = n[EDGE_PLACES[edge][0]], b = n[EDGE_PLACES[edge][1]];
    if (bits >> (edge + 8) & 1u && !longer_than(field, e.nodes.row(a), NONE, e.node_sizes[a],
                                                e.nodes.row(b), NONE, e.node_sizes[b], limit))
      continue;
    // A hard edge that is too long condemns nothing: it cannot be split here.
    if (!e.hard_set.has_edge(a, b)) return true;
  }
  return false;
}

#if VOXFILL_LANES_AVX
// edge_verdict of the edges from the places in x, y, z, H to those in qx, qy, qz, hq: `maybe`
// has the bits of the lanes not short, `ask` those of the lanes to ask.
VOXFILL_AVX inline void judge_edges_avx(__m256d x, __m256d y, __m256d z, __m256d H, __m256d qx,
                                        __m256d qy, __m256d qz, __m256d hq, __m256d L, int& maybe,
                                        int& ask) noexcept {
  const __m256d dx = _mm256_sub_pd(x, qx), dy = _mm256_sub_pd(y, qy), dz = _mm256_sub_pd(z, qz);
  const __m256d d2 = _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(dx, dx), _mm256_mul_pd(dy, dy)),
                                   _mm256_mul_pd(dz, dz));
  // min and max pick as the scalar choices wherever both sizes are numbers; where one is not,
  // the bounds fail and the lane is asked either way.
  const __m256d near = _mm256_mul_pd(L, _mm256_min_pd(H, hq));
  const __m256d far = _mm256_mul_pd(L, _mm256_max_pd(hq, H));
  const __m256d ok = _mm256_and_pd(_mm256_cmp_pd(near, _mm256_set1_pd(1e-150), _CMP_GT_OQ),
                                   _mm256_cmp_pd(far, _mm256_set1_pd(1e150), _CMP_LT_OQ));
  const __m256d mean = _mm256_mul_pd(_mm256_set1_pd(0.5), _mm256_add_pd(near, far));
  const __m256d is_long = _mm256_and_pd(
      ok, _mm256_cmp_pd(d2, _mm256_mul_pd(_mm256_mul_pd(mean, mean), _mm256_set1_pd(1.0 + 1e-9)),
                        _CMP_GT_OQ));
  const __m256d is_short = _mm256_and_pd(
      ok, _mm256_cmp_pd(d2, _mm256_mul_pd(_mm256_mul_pd(near, far), _mm256_set1_pd(1.0 - 1e-9)),
                        _CMP_LT_OQ));
  maybe = _mm256_movemask_pd(is_short) ^ 15;
  ask = _mm256_movemask_pd(_mm256_or_pd(is_long, is_short)) ^ 15;
}

// mark_long_tets with the verdicts in lanes: the edges to the next place round in one register,
// the diagonals in the low half of another. Each lane does the scalar steps in the same order,
// nothing fused; a difference taken the other way round squares to the same value.
VOXFILL_AVX void mark_long_tets_avx(th4_engine& e, refine_context& c) noexcept {
  size_field& field = *e.size_field;
  const double limit = c.max_edge_length;
  const __m256d L = _mm256_set1_pd(limit);
  const double* node_sizes = e.node_sizes.data();
  const unsigned* tets = c.new_tets.data();
  const unsigned T = c.new_tets.size;
  if (T == 0) return;
  // The tables through plain pointers taken once: the verdicts' stores could change them for all
  // the compiler knows.
  const double* xyz = e.nodes.row(0);
  const std::size_t nld = e.nodes.data.ld;
  const unsigned* rows = e.tets.row(0);
  const std::size_t tld = e.tets.data.ld;
  for (unsigned k = 0; k < T; ++k) {
    const unsigned t = tets[k];
    const unsigned* n = rows + tld * t;
    __m256d x, y, z;
    avx_lanes::gather_points(xyz + nld * n[0], xyz + nld * n[1], xyz + nld * n[2], xyz + nld * n[3],
                             x, y, z);
    const __m256d H =
        _mm256_setr_pd(node_sizes[n[0]], node_sizes[n[1]], node_sizes[n[2]], node_sizes[n[3]]);
    // Places 2, 3, 0, 1 by swapping the halves, and 1, 2, 3, 0 by picking from both.
    const __m256d x2 = _mm256_permute2f128_pd(x, x, 1), y2 = _mm256_permute2f128_pd(y, y, 1),
                  z2 = _mm256_permute2f128_pd(z, z, 1), H2 = _mm256_permute2f128_pd(H, H, 1);
    const __m256d x1 = _mm256_shuffle_pd(x, x2, 5), y1 = _mm256_shuffle_pd(y, y2, 5),
                  z1 = _mm256_shuffle_pd(z, z2, 5), H1 = _mm256_shuffle_pd(H, H2, 5);
    int maybe1, ask1, maybe2, ask2;
    judge_edges_avx(x, y, z, H, x1, y1, z1, H1, L, maybe1, ask1);
    judge_edges_avx(x, y, z, H, x2, y2, z2, H2, L, maybe2, ask2);
    const unsigned bits = unsigned(maybe1 | (maybe2 & 3) << 4 | (ask1 | (ask2 & 3) << 4) << 8);
    if (bits != 0 && condemned(e, field, n, bits, limit)) c.good_tets.reset(t);
  }
}
#endif

// mark_long_edges over the mesh itself: a new tet is condemned by any of its six edges, each
// judged on its own, which gives the verdicts of the walk over the local graph without it.
void mark_long_tets(th4_engine& e, refine_context& c) noexcept {
#if VOXFILL_LANES_AVX
  if (lanes_avx()) {
    mark_long_tets_avx(e, c);
    return;
  }
#endif
  size_field& field = *e.size_field;
  const double limit = c.max_edge_length;
  const double* node_sizes = e.node_sizes.data();
  const unsigned* tets = c.new_tets.data();
  const unsigned T = c.new_tets.size;
  for (unsigned k = 0; k < T; ++k) {
    const unsigned t = tets[k];
    const unsigned* n = e.tets.row(t);
    unsigned bits = 0;
    for (unsigned q = 0; q < 6; ++q) {
      const unsigned a = n[EDGE_PLACES[q][0]], b = n[EDGE_PLACES[q][1]];
      const unsigned v =
          edge_verdict(e.nodes.row(a), node_sizes[a], e.nodes.row(b), node_sizes[b], limit);
      if (v != EDGE_SHORT) bits |= 1u << q;
      if (v == EDGE_ASK) bits |= 1u << (q + 8);
    }
    if (bits != 0 && condemned(e, field, n, bits, limit)) c.good_tets.reset(t);
  }
}

}  // namespace

void mark_long_edges(th4_engine& e, refine_context& c) {
  size_field& field = *e.size_field;
  if (field.direct_lengths) {
    mark_long_tets(e, c);
    return;
  }
  const unsigned L = c.local_nodes.size;
  if (L == 0) return;
  // Per local node w the last node v that met it, as 2v, or 2v + 1 when the edge vw is too long:
  // the edges of each v are met in the order of its tets, each once, as the graph would list them.
  // The lists are read through plain pointers: none of them changes in here.
  unsigned* seen = c.size_stamps.data();
  std::fill(seen, seen + L, NONE);
  const unsigned* offsets = c.node_tet_offsets.data();
  const unsigned* node_tets = c.node_tets.data();
  const unsigned* locals = c.local_nodes.data();
  const unsigned* rows = c.new_tet_rows.col(0);
  const std::size_t ld = c.new_tet_rows.ld;
  for (unsigned v = 0; v < L; ++v) {
    const unsigned a = locals[v];
    const unsigned first = offsets[v], last = offsets[v + 1];
    const unsigned met = 2 * v, long_met = 2 * v + 1;
    bool any = false;
    for (unsigned p = first; p < last; ++p) {
      const unsigned* r = rows + ld * node_tets[p];
      for (unsigned i = 0; i < 4; ++i) {
        const unsigned w = r[i];
        if (w <= v || seen[w] >> 1 == v) continue;
        seen[w] = met;
        const unsigned b = locals[w];
        if (!longer_than(field, e.nodes.row(a), NONE, e.node_sizes[a], e.nodes.row(b), NONE,
                         e.node_sizes[b], c.max_edge_length))
          continue;
        // A hard edge that is too long condemns nothing: it cannot be split here.
        if (e.hard_set.has_edge(a, b)) continue;
        seen[w] = long_met;
        any = true;
      }
    }
    if (!any) continue;
    // The new tets of v that hold the far end of one of its long edges.
    for (unsigned p = first; p < last; ++p) {
      const unsigned k = node_tets[p];
      const unsigned* r = rows + ld * k;
      if ((r[0] > v && seen[r[0]] == long_met) || (r[1] > v && seen[r[1]] == long_met) ||
          (r[2] > v && seen[r[2]] == long_met) || (r[3] > v && seen[r[3]] == long_met))
        c.good_tets.reset(c.new_tets[k]);
    }
  }
}

void collect_long_edges(th4_engine& e, refine_context& c, const unsigned* n) {
  static constexpr unsigned order[6][2] = {{1, 2}, {2, 0}, {0, 1}, {3, 0}, {3, 1}, {3, 2}};
  size_field& field = *e.size_field;
  for (const auto& [i, j] : order) {
    const unsigned a = n[i], b = n[j];
    // Over the mesh itself the length is that of longer_than, which spares most logarithms, and
    // has no side effects: the short edges go first, without the look-ups.
    if (field.direct_lengths &&
        !longer_than(field, e.nodes.row(a), NONE, e.node_sizes[a], e.nodes.row(b), NONE,
                     e.node_sizes[b], c.max_edge_length))
      continue;
    if (e.hard_set.has_edge(a, b)) continue;
    const auto key = std::minmax(a, b);
    if (c.long_edges.count(key)) continue;
    double L = 0.0;
    if (!field_length(field, e.nodes.row(a), NONE, e.node_sizes[a], e.nodes.row(b), NONE,
                      e.node_sizes[b], L))
      continue;
    if (L > c.max_edge_length) c.long_edges.emplace(key, L);
  }
}

namespace {

// The front faces of the bad tet t, in the order of its faces. False when memory ran out.
bool front_of_tet(th4_engine& e, refine_context& c, unsigned t, bool& any_hard) noexcept {
  const unsigned* r = e.tets.row(t);
  for (unsigned i = 0; i < 4; ++i) {
    const unsigned nb = e.neighbors(i, t);
    if (nb == NONE) {
      // A hard face on the hull is the skin of a given mesh: nothing lies behind it, as behind
      // the good outside tets of a generated one.
      const unsigned* fn = tet_face_nodes[i];
      if (e.hard_set.has_face(r[fn[0]], r[fn[1]], r[fn[2]]) && !insert_front(c, 4 * t + i))
        return false;
      continue;
    }
    if (e.tet_deleted(nb)) continue;
    if (c.good_tets.test(nb)) {
      if (!insert_front(c, 4 * t + i)) return false;
    } else if (c.hard_front) {
      const unsigned* fn = tet_face_nodes[i];
      if (e.hard_set.has_face(r[fn[0]], r[fn[1]], r[fn[2]])) {
        if (!insert_front(c, 4 * t + i)) return false;
        any_hard = true;
      }
    }
  }
  return true;
}

}  // namespace

void collect_front(th4_engine& e, refine_context& c) {
  bool any_hard = false;
  c.front_faces.clear();
  for (unsigned t = 0; t < e.tets.cols(); ++t) {
    if (e.tet_deleted(t) || c.good_tets.test(t)) continue;
    if (!front_of_tet(e, c, t, any_hard)) return;
  }
  c.hard_front = any_hard;
}

int sort_front(const th4_engine& e, refine_context& c) {
  // (smallest node, code) packed in one word per face: the same order as the pairs, one compare.
  // The room past the keys is the scratch of the radix sort.
  std::vector<std::uint64_t>& keys = c.front_keys;
  const unsigned n = c.front_faces.size;
  try {
    keys.resize(2 * std::size_t(n));
  } catch (const std::bad_alloc&) {
    return -199;
  }
  std::uint64_t* a = keys.data();
  const unsigned* codes = c.front_faces.data();
  bool ascending = true;
  unsigned top = 0;
  for (unsigned k = 0; k < n; ++k) {
    const unsigned code = codes[k];
    const unsigned* r = e.tets.row(code >> 2);
    const unsigned* fn = tet_face_nodes[code & 3u];
    const unsigned low = std::min({r[fn[0]], r[fn[1]], r[fn[2]]});
    a[k] = std::uint64_t(low) << 32 | code;
    ascending &= k == 0 || codes[k - 1] < code;
    top |= low;
  }
  if (!ascending) {
    std::sort(a, a + n);
  } else {
    // The codes come ascending, as the front is collected: a stable sort by the smallest node
    // alone gives the order of the words. By its digits from the lowest, as many as its bits.
    constexpr unsigned BITS = 11, DIGITS = 1u << BITS;
    std::uint64_t* b = a + n;
    unsigned counts[DIGITS];
    for (unsigned shift = 32; shift < 64 && (top >> (shift - 32)) != 0; shift += BITS) {
      std::fill(counts, counts + DIGITS, 0u);
      for (unsigned k = 0; k < n; ++k) ++counts[(a[k] >> shift) & (DIGITS - 1)];
      unsigned sum = 0;
      for (unsigned d = 0; d < DIGITS; ++d) {
        const unsigned count = counts[d];
        counts[d] = sum;
        sum += count;
      }
      for (unsigned k = 0; k < n; ++k) b[counts[(a[k] >> shift) & (DIGITS - 1)]++] = a[k];
      std::swap(a, b);
    }
  }
  unsigned* out = c.front_faces.data();
  for (unsigned k = 0; k < n; ++k) out[k] = unsigned(a[k]);
  return 0;
}

int make_front(th4_engine& e, refine_context& c, const dense1D<unsigned>& inserted) {
  const unsigned T = e.tets.cols();
  if (c.pass_count == 0) {
    // Room only: the bits must come in below as added ones, set, so that the tets outside of the
    // domain are good and never refined.
    if (!c.new_tets.reserve(T) || !c.ring_tets.reserve(T) ||
        !c.good_tets.words.reserve((T + 31) >> 5))
      return -199;
    c.pass_clock = 0;
    std::fill(e.tet_stamps.begin(), e.tet_stamps.end(), 1u);
    e.tet_clock = 1;
  }
  const unsigned old_bits = std::min(c.good_tets.length, T);
  const unsigned old_length = c.good_tets.length;
  if (c.pass_count == 0 || !c.clear_rows_known) {
    if (!clear_rows_of(c.good_tets, old_length, c.clear_rows)) return -199;
  }
  c.clear_rows_known = false;
  if (!c.good_tets.grow(T)) return -199;
  for (unsigned t = old_bits; t < T; ++t) c.good_tets.set(t);
  c.new_tets.clear();
  // The old bad tets are the rows below old_bits with a clear bit that hold a tet and are not
  // new: all of them among the clear rows, in row order. The new tets come from a sweep of the
  // stamps alone. The graph's list is free until the size limiting makes the graph.
  dense1D<unsigned>& bad = c.graph_nodes;
  bad.clear();
  {
    // Plain pointers: the bits have room for all T rows, and only the new list grows here.
    const unsigned* stamps = e.tet_stamps.data();
    const unsigned* colors = e.colors.data();
    unsigned* words = c.good_tets.words.data();
    const unsigned clock = c.pass_clock;
    auto take = [&](unsigned t) {
      if (colors[t] < DELETED) {
        c.new_tets.push_back(t);
        words[t >> 5] |= 1u << (t & 31);
      }
    };
    unsigned t = 0;
#if defined(__SSE2__)
    if (lanes_sse2()) {
      // Four stamps at a time, compared unsigned by their flipped sign bits; a new tet is rare.
      const __m128i flip = _mm_set1_epi32(int(0x80000000u));
      const __m128i above = _mm_set1_epi32(int(clock ^ 0x80000000u));
      for (; t + 4 <= T; t += 4) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(stamps + t));
        int m = _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpgt_epi32(_mm_xor_si128(x, flip), above)));
        for (; m != 0; m &= m - 1) take(t + unsigned(std::countr_zero(unsigned(m))));
      }
    }
#endif
    for (; t < T; ++t)
      if (stamps[t] > clock) take(t);
    const unsigned* rows = c.clear_rows.data();
    for (unsigned k = 0; k < c.clear_rows.size; ++k) {
      const unsigned u = rows[k];
      if (u < old_bits && colors[u] != DELETED && !(words[u >> 5] >> (u & 31) & 1u)) {
        const unsigned before = bad.size;
        bad.push_back(u);
        if (bad.size != before + 1) return -199;
      }
    }
  }
  // The ring moves out of the list; the tets left stay bad.
  c.ring_tets.clear();
  unsigned still_bad = 0;
  for (unsigned k = 0; k < bad.size; ++k) {
    const unsigned t = bad[k];
    // The hull counts as good: a tet on the skin of a given mesh had its turn on the front.
    const unsigned* nb = e.neighbors.row(t);
    bool ring = false;
    for (unsigned i = 0; i < 4 && !ring; ++i) ring = nb[i] == NONE || c.good_tets.test(nb[i]);
    if (ring)
      c.ring_tets.push_back(t);
    else
      bad[still_bad++] = t;
  }
  bad.size = still_bad;
  // Over the mesh itself the new tets are judged one by one: the local tets are made only for
  // the graph of the size limiting.
  const bool direct = e.size_field->direct_lengths;
  if (!direct && !build_local_tets(e, c)) return -199;
  mark_long_edges(e, c);
  for (unsigned k = 0; k < c.ring_tets.size; ++k) {
    const unsigned t = c.ring_tets[k];
    c.good_tets.set(t);
    collect_long_edges(e, c, e.tets.row(t));
  }
  // The bits are settled: the clear rows for the next judging, else a look at all bits then.
  next_clear_rows(c);
  // The bad tets now: the old ones left and the new ones judged bad, merged into row order.
  {
    bool any_hard = false, whole = true;
    c.front_faces.clear();
    unsigned x = 0, y = 0;
    const unsigned xe = bad.size, ye = c.new_tets.size;
    if (c.front_faces.reserve(4 * (xe + ye), 2)) {
      // front_of_tet with room for four faces of each tet: the faces are written, and the bits,
      // colours and neighbours read, through plain pointers. The bits have room for all rows.
      unsigned* out = c.front_faces.data();
      unsigned f = 0;
      const unsigned* words = c.good_tets.words.data();
      const unsigned* colors = e.colors.data();
      const unsigned* news = c.new_tets.data();
      const bool hard_front = c.hard_front;
      for (;;) {
        while (y < ye && (words[news[y] >> 5] >> (news[y] & 31) & 1u)) ++y;
        unsigned t;
        if (x < xe && (y >= ye || bad[x] < news[y])) {
          t = bad[x++];
        } else if (y < ye) {
          t = news[y++];
        } else {
          break;
        }
        const unsigned* nb = e.neighbors.row(t);
        for (unsigned i = 0; i < 4; ++i) {
          const unsigned u = nb[i];
          bool hard = false;
          if (u == NONE) {
            // A hard face on the hull is the skin of a given mesh, as in front_of_tet.
            hard = true;
          } else if (colors[u] == DELETED) {
            continue;
          } else if (words[u >> 5] >> (u & 31) & 1u) {
            out[f++] = 4 * t + i;
            continue;
          } else if (!hard_front) {
            continue;
          }
          const unsigned* r = e.tets.row(t);
          const unsigned* fn = tet_face_nodes[i];
          if (hard && !e.hard_set.has_face(r[fn[0]], r[fn[1]], r[fn[2]])) continue;
          if (!hard) {
            if (!e.hard_set.has_face(r[fn[0]], r[fn[1]], r[fn[2]])) continue;
            any_hard = true;
          }
          out[f++] = 4 * t + i;
        }
      }
      c.front_faces.size = f;
    } else {
      for (;;) {
        while (y < ye && c.good_tets.test(c.new_tets[y])) ++y;
        unsigned t;
        if (x < xe && (y >= ye || bad[x] < c.new_tets[y])) {
          t = bad[x++];
        } else if (y < ye) {
          t = c.new_tets[y++];
        } else {
          break;
        }
        if (!front_of_tet(e, c, t, any_hard)) {
          whole = false;
          break;
        }
      }
    }
    if (whole) c.hard_front = any_hard;
  }
  if (sort_front(e, c) < 0) return -199;
  const double target = c.target_size;
  if (c.front_faces.size != 0 && inserted.size != 0 && c.size_gradation < DBL_MAX && target > 0.0 &&
      target < DBL_MAX) {
    if ((direct && !build_local_tets(e, c)) || !build_local_graph(c)) return -199;
    const int limited = limit_sizes(e, c, inserted);
    if (limited < 0) return limited;
  }
  return 0;
}

void add_candidates(th4_engine& e, refine_context& c, const dense2D<double>& points,
                    const dense1D<double>& sizes, dense1D<unsigned>& inserted) {
  const unsigned n = std::min(points.cols, c.nodes_left);
  inserted.clear();
  for (unsigned k = 0; k < n; ++k) {
    const double* p = points.col(k);
    const unsigned v = e.new_node(p[0], p[1], p[2], sizes[k]);
    if (v == NONE) break;
    const unsigned before = inserted.size;
    inserted.push_back(v);
    if (inserted.size != before + 1) {
      e.release_node(v);
      break;
    }
  }
  if (c.nodes_left != NONE) c.nodes_left -= inserted.size;
}

void split_long_edges(th4_engine& e, refine_context& c, unsigned per_edge_cap,
                      dense1D<unsigned>& inserted) {
  if (c.long_edges.empty() || per_edge_cap < 2 || c.nodes_left == 0) return;
  std::vector<std::tuple<double, unsigned, unsigned>> edges;
  for (auto it = c.long_edges.begin(); it != c.long_edges.end(); it = c.long_edges.erase(it)) {
    const auto [a, b] = it->first;
    const double length = it->second;
    if (length >= c.max_edge_length && a < e.ancestors.size && b < e.ancestors.size &&
        edge_tet(e, a, b) != NONE)
      edges.emplace_back(length, a, b);
  }
  std::sort(edges.begin(), edges.end(), [](const auto& x, const auto& y) {
    if (std::get<0>(x) != std::get<0>(y)) return std::get<0>(x) > std::get<0>(y);
    if (std::get<1>(x) != std::get<1>(y)) return std::get<1>(x) < std::get<1>(y);
    return std::get<2>(x) < std::get<2>(y);
  });
  // The points of all edges gathered first, the table made once: edges may be many.
  dense2D<double> part(3, 0);
  dense1D<double> part_sizes;
  std::vector<double> xyz, hs;
  const bool own_field = e.size_field == e.own_size_field.get();
  for (const auto& [length, a, b] : edges) {
    if (!subdivide_edge(e.nodes.row(a), e.nodes.row(b), e.node_sizes[a], e.node_sizes[b], length,
                        false, 2, per_edge_cap, part, part_sizes))
      break;
    for (unsigned k = 0; k < part.cols; ++k) {
      const double* p = part.col(k);
      xyz.insert(xyz.end(), p, p + 3);
      double h = part_sizes[k];
      if (!own_field) {
        unsigned t = NONE;
        double asked = 0.0;
        if (field_size_at(*e.size_field, p, t, asked)) h = asked;
      }
      hs.push_back(h);
    }
  }
  dense2D<double> points(3, 0);
  dense1D<double> sizes;
  if (!points.resize(3, unsigned(hs.size())) || !sizes.resize(unsigned(hs.size()))) return;
  std::copy(xyz.begin(), xyz.end(), points.col(0));
  std::copy(hs.begin(), hs.end(), sizes.begin());
  filter_candidates(e, points, sizes, c.half_max_edge_length);
  add_candidates(e, c, points, sizes, inserted);
}

void refine_mesh(th4_engine& e, refine_context& c, const task_type& task) {
  const unsigned room = e.nodes.data.capacity_cols() - e.nodes.cols();
  Ptr<task_type> placing = task.section(0.33, room);
  Ptr<task_type> inserting = task.section(0.67, room);
  dense1D<unsigned> inserted, failed;
  dense2D<double> points(3, 0);
  dense1D<double> sizes;
  for (bool again = true; again;) {
    again = false;
    if (c.nodes_left == 0) {
      inserted.clear();
    } else if (make_front(e, c, inserted) < 0) {
      // Memory ran out: the refinement ends here with a sound mesh and no error.
      inserted.clear();
    } else {
      inserted.clear();
      if (c.front_faces.size == 0 && !c.long_edges.empty()) {
        split_long_edges(e, c, c.nodes_left / unsigned(c.long_edges.size()), inserted);
      } else if (c.front_faces.size != 0) {
        points.resize(3, 0);
        sizes.clear();
        if (c.nodes_left != 0) {
          place_candidates(e, c, points, sizes);
          merge_candidates(e, c, points, sizes, c.half_max_edge_length);
          filter_candidates(e, points, sizes, 0.7071067811865476);
          add_candidates(e, c, points, sizes, inserted);
        }
      }
      ++c.pass_count;
      c.pass_clock = e.tet_clock;
      ++e.tet_clock;
      again = c.front_faces.size != 0;
    }
    placing->advance(inserted.size);
    failed.clear();
    if (inserted.size > 8 &&
        !order_for_insertion(e.nodes.row(0), inserted.data(), inserted.size, e.random_source))
      again = false;
    kernel_progress progress = progress_of(*inserting);
    insert_node_list(e, e.kernel, inserted.data(), inserted.size, true, failed, progress);
    if (again && e.must_stop()) break;
  }
  e.kernel.cavity.node = NONE;
  e.kernel.cavity.tets.clear_hard();
  e.kernel.cavity.faces.clear_hard();
  e.kernel.cavity.hard_faces.clear_hard();
  e.kernel.cavity.face_qualities.clear_hard();
  task.drop_sections(2);
}

}  // namespace kelvo::voxfill
