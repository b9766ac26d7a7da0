// Local topology queries by short walks over neighbours.
#include "delaunay/mesh_walks.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "delaunay/cpu_lanes.h"
#include "delaunay/geometry.h"
#include "delaunay/lanes_avx.h"
#include "delaunay/tet_tables.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// The four face tests of a walk step in four lanes where the processor has AVX2, chosen when the
// program runs.
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define VOXFILL_WALK_AVX2 1
#include <immintrin.h>
#else
#define VOXFILL_WALK_AVX2 0
#endif

namespace kelvo::voxfill {
namespace {

bool holds(const unsigned* tet, unsigned node) noexcept {
  return local_index(tet, node) < 4;
}

// One shell walk; `ring` may be null.
bool walk_shell(mesh_store& m, unsigned a, unsigned b, unsigned start, dense1D<unsigned>& out,
                dense1D<unsigned>* ring) noexcept {
  out.clear();
  if (start == NONE && a < m.ancestors.size) start = m.ancestors[a];
  if (start == NONE) return false;
  start = find_edge_tet(m, a, b, start);
  if (start == NONE) return false;
  // In each tet the two other local nodes are c (table value for the faces of a and b) and d;
  // crossing face d turns one way around the edge, crossing face c the other way.
  auto others = [&](unsigned t, unsigned& c, unsigned& d) {
    const unsigned* n = m.tets.row(t);
    const unsigned ia = local_index(n, a), ib = local_index(n, b);
    c = unsigned(tet_face_pair_node[ia][ib]);
    d = 6 - c - ia - ib;
  };
  unsigned t = start, pass = 0;
  for (;;) {
    unsigned c, d;
    others(t, c, d);
    out.push_back(t);
    if (ring) ring->push_back(m.tets(d, t));
    const unsigned next = m.neighbors(pass == 0 ? d : c, t);
    if (next == start) return true;
    if (next != NONE) {
      t = next;
      continue;
    }
    if (pass == 1) {
      if (ring) ring->push_back(m.tets(d, t));
      return false;
    }
    if (ring) ring->push_back(m.tets(c, t));
    unsigned cs, ds;
    others(start, cs, ds);
    t = m.neighbors(cs, start);
    pass = 1;
    if (t == NONE) return false;
  }
}

}  // namespace

namespace {

// Depth-first walk over the tets around `node`; `visit(t)` is true the first time t is seen.
template <class Visit>
bool walk_ball(const mesh_store& m, unsigned node, unsigned start, dense1D<unsigned>& out,
               dense1D<unsigned>& stack, Visit visit) noexcept {
  bool closed = true;
  stack.clear();
  visit(start);
  stack.push_back(start);
  while (stack.size) {
    const unsigned t = stack.back();
    stack.pop_back();
    const unsigned* n = m.tets.row(t);
    unsigned faces[4], count = 0;
    for (unsigned i = 0; i < 4; ++i)
      if (n[i] != node) faces[count++] = i;
    out.push_back(t);
    for (unsigned k = count; k-- > 0;) {
      const unsigned nb = m.neighbors(faces[k], t);
      if (nb == NONE)
        closed = false;
      else if (visit(nb))
        stack.push_back(nb);
    }
  }
  return closed;
}

}  // namespace

namespace {

// Bit i set when node i of the tet `n` is `node`.
inline unsigned node_bits(const unsigned* n, unsigned node) noexcept {
#if defined(__SSE2__)
  const __m128i eq = _mm_cmpeq_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(n)),
                                     _mm_set1_epi32(int(node)));
  return unsigned(_mm_movemask_ps(_mm_castsi128_ps(eq)));
#else
  return unsigned(n[0] == node) | unsigned(n[1] == node) << 1 | unsigned(n[2] == node) << 2 |
         unsigned(n[3] == node) << 3;
#endif
}

// The walk of ball_of_node over raw views, rows `stride` apart in both tables (0: tld and nld).
// Room for a tet's pushes is made before it is visited, so that the pushes themselves need no
// checks. Every tet has its mark entry (the store covers the marks of each tet it makes), so a
// mark is read without a bound. A tet that holds the node once leaves by the three faces at the
// node, from the last down, as the scan over its four faces does.
template <unsigned stride>
bool ball_walk(const unsigned* tets, std::size_t tld, const unsigned* nbs, std::size_t nld,
               unsigned* mk, unsigned mv, unsigned node, unsigned start, dense1D<unsigned>& stack,
               dense1D<unsigned>& out) noexcept {
  if (!stack.reserve(8) || !out.reserve(8)) return false;
  unsigned* st = stack.data();
  unsigned* o = out.data();
  unsigned ns = 0, no = 0, room_s = stack.vec->capacity - stack.offset,
           room_o = out.vec->capacity - out.offset;
  bool closed = true;
  mk[start] = mv;
  st[ns++] = start;
  while (ns) {
    const unsigned t = st[--ns];
    if (ns + 4 > room_s || no + 1 > room_o) {
      stack.size = ns;
      out.size = no;
      if (!stack.reserve(2 * (ns + 4)) || !out.reserve(2 * (no + 1))) return false;
      st = stack.data();
      o = out.data();
      room_s = stack.vec->capacity - stack.offset;
      room_o = out.vec->capacity - out.offset;
    }
    const unsigned* n = tets + (stride ? std::size_t(stride) * t : tld * t);
    const unsigned* nb4 = nbs + (stride ? std::size_t(stride) * t : nld * t);
    o[no++] = t;
    // Every face but those opposite the node's places (one in a proper row).
    const unsigned at = node_bits(n, node);
    for (unsigned k = 4; k-- > 0;) {
      if (at >> k & 1) continue;
      const unsigned nb = nb4[k];
      if (nb == NONE) {
        closed = false;
      } else if (mk[nb] != mv) {
        mk[nb] = mv;
        st[ns++] = nb;
      }
    }
  }
  stack.size = 0;
  out.size = no;
  return closed;
}

}  // namespace

bool ball_of_node(mesh_store& m, unsigned node, unsigned start, dense1D<unsigned>& out) noexcept {
  out.clear();
  if (start == NONE && node < m.ancestors.size) start = m.ancestors[node];
  if (start == NONE) return false;
  const unsigned mv = m.bump_marks();
  dense1D<unsigned>& stack = m.work_stack;
  stack.clear();
  unsigned* mk = m.marks.data();
  const unsigned* tets = m.tets.data.vec->data + m.tets.data.offset;
  const unsigned* nbs = m.neighbors.data.vec->data + m.neighbors.data.offset;
  const std::size_t tld = m.tets.data.ld, nld = m.neighbors.data.ld;
  if (tld == 4 && nld == 4)
    return ball_walk<4>(tets, tld, nbs, nld, mk, mv, node, start, stack, out);
  return ball_walk<0>(tets, tld, nbs, nld, mk, mv, node, start, stack, out);
}

bool ball_of_node_unmarked(const mesh_store& m, unsigned node, unsigned start,
                           dense1D<unsigned>& out, dense1D<unsigned>& stack,
                           index_set& seen) noexcept {
  out.clear();
  stack.clear();
  seen.clear();
  if (start == NONE && node < m.ancestors.size) start = m.ancestors[node];
  if (start == NONE) return false;
  return walk_ball(m, node, start, out, stack,
                   [&seen](unsigned t) { return seen.insert(index_key{{t}}) == 2; });
}

unsigned find_edge_tet(mesh_store& m, unsigned a, unsigned b, unsigned& start) noexcept {
  dense1D<unsigned>& stack = m.work_stack;
  stack.clear();
  unsigned result = NONE;
  if (start == NONE) return NONE;
  const unsigned mv = m.bump_marks();
  // Raw views, with room for a tet's pushes made before it is visited: the same order and marks
  // as checked pushes give.
  if (!stack.reserve(8)) {
    start = NONE;
    return NONE;
  }
  unsigned* mk = m.marks.data();
  const unsigned msize = m.marks.size;
  const unsigned* tets = m.tets.data.vec->data + m.tets.data.offset;
  const unsigned* nbs = m.neighbors.data.vec->data + m.neighbors.data.offset;
  const std::size_t tld = m.tets.data.ld, nld = m.neighbors.data.ld;
  unsigned* st = stack.data();
  unsigned ns = 0, room = stack.vec->capacity - stack.offset;
  mk[start] = mv;
  st[ns++] = start;
  while (ns) {
    const unsigned t = st[--ns];
    const unsigned* n = tets + tld * t;
    if (holds(n, b)) {
      result = t;
      break;
    }
    if (ns + 4 > room) {
      stack.size = ns;
      if (!stack.reserve(2 * (ns + 4))) break;
      st = stack.data();
      room = stack.vec->capacity - stack.offset;
    }
    const unsigned ia = local_index(n, a);
    const unsigned* nb4 = nbs + nld * t;
    for (unsigned i = 0; i < 4; ++i) {
      if (i == ia) continue;
      const unsigned nb = nb4[i];
      if (nb != NONE && !(nb < msize && mk[nb] == mv)) {
        mk[nb] = mv;
        st[ns++] = nb;
      }
    }
  }
  stack.size = 0;
  start = result;
  return result;
}

unsigned edge_tet(mesh_store& m, unsigned a, unsigned b) noexcept {
  if (a >= m.ancestors.size || b >= m.ancestors.size) return NONE;
  unsigned t = m.ancestors[a];
  if (t == NONE) return NONE;
  if (m.ancestors[b] == t) return t;
  return find_edge_tet(m, a, b, t);
}

bool shell_of_edge(mesh_store& m, unsigned a, unsigned b, unsigned start,
                   dense1D<unsigned>& out) noexcept {
  return walk_shell(m, a, b, start, out, nullptr);
}

bool shell_with_ring(mesh_store& m, unsigned a, unsigned b, unsigned start, dense1D<unsigned>& out,
                     dense1D<unsigned>& ring) noexcept {
  return walk_shell(m, a, b, start, out, &ring);
}

unsigned find_face_tet(mesh_store& m, unsigned n0, unsigned n1, unsigned n2,
                       dense1D<unsigned>& out) noexcept {
  out.clear();
  const unsigned count = m.ancestors.size;
  if (n0 >= count || n1 >= count || n2 >= count) return NONE;
  if (n0 != n1)
    shell_of_edge(m, n0, n1, m.ancestors[n0], out);
  else
    ball_of_node(m, n0, m.ancestors[n0], out);
  for (unsigned k = 0; k < out.size; ++k)
    if (holds(m.tets.row(out[k]), n2)) return out[k];
  return NONE;
}

void tets_of_face(mesh_store& m, unsigned n0, unsigned n1, unsigned n2,
                  dense1D<unsigned>& out) noexcept {
  out.clear();
  if (n1 >= m.ancestors.size) return;
  shell_of_edge(m, n1, n2, m.ancestors[n1], out);
  // A tet has the face when its node sum less node i equals the face's sum, with the same
  // smallest and largest node: cheap, and exact for three distinct indices.
  const unsigned long long sum = 0ull + n0 + n1 + n2;
  const unsigned lo = std::min({n0, n1, n2}), hi = std::max({n0, n1, n2});
  unsigned kept = 0;
  for (unsigned k = 0; k < out.size; ++k) {
    const unsigned* n = m.tets.row(out[k]);
    const unsigned long long all = 0ull + n[0] + n[1] + n[2] + n[3];
    for (unsigned i = 0; i < 4; ++i) {
      if (all - n[i] != sum) continue;
      const unsigned* f = tet_face_nodes[i];
      const unsigned a = n[f[0]], b = n[f[1]], c = n[f[2]];
      if (std::min({a, b, c}) == lo && std::max({a, b, c}) == hi) {
        out[kept++] = out[k];
        break;
      }
    }
  }
  out.size = kept;
}

namespace {

// Bit f set when P lies beyond the plane of face f by more than the tolerance; -2 for a tet of
// non-positive or non-finite volume. The four faces are all tested: the scan order only picks
// among them, and a point that is inside needs all four anyway.
// `e` keeps the edge vectors from node 3 and the determinant, computed as orient_det does.
struct edge_frame {
  double a[3], b[3], c[3], bc[3];
  double V;
};

inline int beyond_faces(const double* const* q, const double* P, double tol,
                        edge_frame& e) noexcept {
  using namespace geometry_detail;
  sub3(q[0], q[3], e.a);
  sub3(q[1], q[3], e.b);
  sub3(q[2], q[3], e.c);
  cross3(e.b, e.c, e.bc);
  const double V = e.V = dot3(e.a, e.bc);
  if (!(V > 0.0) || !std::isfinite(V)) return -2;
  const double limit = V * tol;
  // The nodes seen from P once for the four faces.
  double d[4][3];
  for (unsigned i = 0; i < 4; ++i)
    for (unsigned k = 0; k < 3; ++k) d[i][k] = q[i][k] - P[k];
  // D_f = d_a . (d_b x d_c) over the nodes of face f, positive when P lies beyond its plane (the
  // face turns negatively seen from P). Faces 1 and 2 share the product of nodes 0 and 3 with
  // the sign turned, which rounds the same.
  double c23[3], c03[3], c10[3];
  cross3(d[2], d[3], c23);
  cross3(d[0], d[3], c03);
  cross3(d[1], d[0], c10);
  static_assert(
      tet_face_nodes[0][0] == 1 && tet_face_nodes[0][1] == 2 && tet_face_nodes[0][2] == 3 &&
      tet_face_nodes[1][0] == 2 && tet_face_nodes[1][1] == 0 && tet_face_nodes[1][2] == 3 &&
      tet_face_nodes[2][0] == 1 && tet_face_nodes[2][1] == 3 && tet_face_nodes[2][2] == 0 &&
      tet_face_nodes[3][0] == 2 && tet_face_nodes[3][1] == 1 && tet_face_nodes[3][2] == 0);
  const double D0 = dot3(d[1], c23), D1 = dot3(d[2], c03), D2 = -dot3(d[1], c03),
               D3 = dot3(d[2], c10);
  return int(D0 > limit) | int(D1 > limit) << 1 | int(D2 > limit) << 2 | int(D3 > limit) << 3;
}

// The first face of `mask` in the cyclic scan from start + 1; -1 for an empty mask.
inline int first_face(int mask, unsigned start) noexcept {
  if (mask == 0) return -1;
  const unsigned s = (start + 1) & 3;
  const unsigned rotated = (unsigned(mask) | unsigned(mask) << 4) >> s;
  return int((unsigned(__builtin_ctz(rotated)) + s) & 3);
}

}  // namespace

namespace {

// Column j of a table at base + ld * j: the views of the walk's tables, read once per walk.
template <class T>
struct flat_table {
  const T* base;
  std::size_t ld;
  explicit flat_table(const dense2D<T>& a) noexcept : base(a.vec->data + a.offset), ld(a.ld) {}
  const T* col(unsigned j) const noexcept { return base + ld * j; }
};

// first_face by a table, at mask << 2 | start (a walk step only asks for a non-empty mask).
struct face_table {
  unsigned char face[64];
  constexpr face_table() noexcept : face() {
    for (unsigned mask = 1; mask < 16; ++mask)
      for (unsigned start = 0; start < 4; ++start) {
        unsigned f = (start + 1) & 3;
        while (!(mask >> f & 1)) f = (f + 1) & 3;
        face[mask << 2 | start] = static_cast<unsigned char>(f);
      }
  }
};
constexpr face_table exit_faces;

// The neighbour through which a walk beyond the faces of `mask` leaves. Beyond a hull face: a
// point beyond two faces leaves by the one that is not on the hull.
inline unsigned leave_by(const unsigned* nbs, int mask, unsigned start) noexcept {
  const unsigned m4 = unsigned(mask) << 2;
  unsigned nb = nbs[exit_faces.face[m4 | start]];
  for (unsigned r = 0; nb == NONE && r < 3; ++r) {
    start = (start + 1) & 3;
    nb = nbs[exit_faces.face[m4 | start]];
  }
  return nb;
}

// The walk over a mesh's tables, whichever record holds them. With `w`, the weights of P in the
// tet found, from the vectors the last test already computed.
// Out of line: the caller stays a light dispatcher.
[[gnu::noinline]] int walk_scalar(const flat_table<double>& xyz_in,
                                  const flat_table<unsigned>& tets_in,
                                  const flat_table<unsigned>& neighbors_in, unsigned steps,
                                  const double* P, unsigned& t, double tol, bit_source& bits,
                                  double* w) noexcept {
  // Local copies, which the writes to `bits` can't alias: the loop keeps them in registers.
  const flat_table<double> xyz = xyz_in;
  const flat_table<unsigned> tets = tets_in, neighbors = neighbors_in;
  while (t != NONE && steps) {
    --steps;
    const unsigned start = bits.next();
    const unsigned* n = tets.col(t);
    const double* q[4] = {xyz.col(n[0]), xyz.col(n[1]), xyz.col(n[2]), xyz.col(n[3])};
    edge_frame e;
    const int mask = beyond_faces(q, P, tol, e);
    if (mask == 0) {
      if (w) tet_barycentric_prepared(e.a, e.b, e.c, e.bc, e.V, q[3], P, w);
      return 1;
    }
    if (mask < 0) {
      t = NONE;
      return -1;
    }
    t = leave_by(neighbors.col(t), mask, start);
  }
  if (t == NONE) return 0;
  t = NONE;
  return -2;
}

#if VOXFILL_WALK_AVX2
const bool has_avx2 = lanes_avx2();

// The rows of the tet's four nodes: x, y and z in lanes 0 to 2, lane 3 cleared as load3 clears
// it, by masked loads that read no further than the node's z.
VOXFILL_AVX2 inline void node_rows(const double* const* q, __m256d* r) noexcept {
  const __m256i xyz = _mm256_set_epi64x(0, -1, -1, -1);
  for (unsigned i = 0; i < 4; ++i) r[i] = _mm256_maskload_pd(q[i], xyz);
}

// The x, y and z of the four nodes, node i in lane i: the rows transposed.
VOXFILL_AVX2 inline void node_lanes(const __m256d* r, __m256d& x, __m256d& y, __m256d& z) noexcept {
  // Lanes of lo01: x0 x1 z0 z1; of hi01: y0 y1 0 0; likewise for nodes 2 and 3.
  const __m256d lo01 = _mm256_unpacklo_pd(r[0], r[1]), hi01 = _mm256_unpackhi_pd(r[0], r[1]);
  const __m256d lo23 = _mm256_unpacklo_pd(r[2], r[3]), hi23 = _mm256_unpackhi_pd(r[2], r[3]);
  x = _mm256_permute2f128_pd(lo01, lo23, 0x20);
  y = _mm256_permute2f128_pd(hi01, hi23, 0x20);
  z = _mm256_permute2f128_pd(lo01, lo23, 0x31);
}

// beyond_faces_lanes from the rows of the nodes (x, y and z in lanes 0 to 2, lane 3 0.0) and P's
// row: the products of beyond_faces one for one, the cross products by lanes as cross3 forms them
// and the dot products summed across lanes by pairs. The z term is summed with lane 3's 0.0 first,
// which changes only the sign of a zero, and a zero is never beyond the positive limit: the mask
// has the same bits.
VOXFILL_AVX2 inline int beyond_faces_rows(const __m256d* r, __m256d p, __m256d limit,
                                          __m256d turn) noexcept {
  constexpr int YZX = 1 | 2 << 2 | 0 << 4 | 3 << 6, ZXY = 2 | 0 << 2 | 1 << 4 | 3 << 6;
  const __m256d d3 = _mm256_sub_pd(r[3], p), d0 = _mm256_sub_pd(r[0], p);
  const __m256d y3 = _mm256_permute4x64_pd(d3, YZX), z3 = _mm256_permute4x64_pd(d3, ZXY);
  const __m256d y0 = _mm256_permute4x64_pd(d0, YZX), z0 = _mm256_permute4x64_pd(d0, ZXY);
  // c03 = d0 x d3 serves faces 1 and 2.
  const __m256d c03 = _mm256_sub_pd(_mm256_mul_pd(y0, z3), _mm256_mul_pd(z0, y3));
  const __m256d d1 = _mm256_sub_pd(r[1], p), d2 = _mm256_sub_pd(r[2], p);
  const __m256d y2 = _mm256_permute4x64_pd(d2, YZX), z2 = _mm256_permute4x64_pd(d2, ZXY);
  const __m256d c23 = _mm256_sub_pd(_mm256_mul_pd(y2, z3), _mm256_mul_pd(z2, y3));
  const __m256d y1 = _mm256_permute4x64_pd(d1, YZX), z1 = _mm256_permute4x64_pd(d1, ZXY);
  const __m256d c10 = _mm256_sub_pd(_mm256_mul_pd(y1, z0), _mm256_mul_pd(z1, y0));
  // Lanes of h01: d1.c23's x + y, d2.c03's x + y, then their z + 0.0; likewise h23 for d1.c03
  // and d2.c10.
  const __m256d h01 = _mm256_hadd_pd(_mm256_mul_pd(d1, c23), _mm256_mul_pd(d2, c03));
  const __m256d h23 = _mm256_hadd_pd(_mm256_mul_pd(d1, c03), _mm256_mul_pd(d2, c10));
  const __m256d D = _mm256_xor_pd(
      _mm256_add_pd(_mm256_permute2f128_pd(h01, h23, 0x20), _mm256_permute2f128_pd(h01, h23, 0x31)),
      turn);
  return _mm256_movemask_pd(_mm256_cmp_pd(D, limit, _CMP_GT_OQ));
}

using avx_lanes::inverse_rows;
using avx_lanes::load3;
using avx_lanes::refined_solution;

// The part of the lane solve of tet_barycentric_prepared_avx2 that hangs on the tet alone: the
// rows of the inverse by lanes and the determinant, the same operations in the same order.
// The columns come as lane_volume leaves them, lane 3 cleared as load3 clears it.
VOXFILL_AVX2 inline void memo_frame(__m256d C0, __m256d C1, __m256d C2, walk_memo& memo) noexcept {
  __m256d Rx, Ry, Rz;
  memo.det = inverse_rows(C0, C1, C2, Rx, Ry, Rz);
  _mm256_store_pd(memo.cols[0], C0);
  _mm256_store_pd(memo.cols[1], C1);
  _mm256_store_pd(memo.cols[2], C2);
  _mm256_store_pd(memo.rows[0], Rx);
  _mm256_store_pd(memo.rows[1], Ry);
  _mm256_store_pd(memo.rows[2], Rz);
  _mm256_store_pd(memo.inv, _mm256_set1_pd(memo.det == 0.0 ? 0.0 : 1.0 / memo.det));
}

// The rest of that solve: the weights of P in the memo's tet, two refinements at most.
[[gnu::always_inline]] VOXFILL_AVX2 inline void memo_weights(const walk_memo& memo, const double* P,
                                                             double* w) noexcept {
  if (memo.det == 0.0) {
    w[0] = w[1] = w[2] = 0.0;
    return;
  }
  const __m256d C0 = _mm256_load_pd(memo.cols[0]), C1 = _mm256_load_pd(memo.cols[1]),
                C2 = _mm256_load_pd(memo.cols[2]);
  const __m256d Rx = _mm256_load_pd(memo.rows[0]), Ry = _mm256_load_pd(memo.rows[1]),
                Rz = _mm256_load_pd(memo.rows[2]), inv = _mm256_load_pd(memo.inv);
  // P minus node 3 lane by lane, as sub3 does it; lane 3 is 0.0.
  const __m256d B = _mm256_sub_pd(load3(P), load3(memo.q3));
  refined_solution(C0, C1, C2, Rx, Ry, Rz, inv, B, 2, w);
}

// The edge vectors a, b, c from node 3 (the rows less row 3) with coordinate k in lane k (lane 3
// is 0.0), b x c the same way, and the determinant summed in the order of dot3; the operations are
// those of sub3, cross3 and dot3 one for one.
VOXFILL_AVX2 inline double lane_volume(const __m256d* r, __m256d& a, __m256d& b,
                                       __m256d& c) noexcept {
  a = _mm256_sub_pd(r[0], r[3]);
  b = _mm256_sub_pd(r[1], r[3]);
  c = _mm256_sub_pd(r[2], r[3]);
  constexpr int YZX = 1 | 2 << 2 | 0 << 4 | 3 << 6, ZXY = 2 | 0 << 2 | 1 << 4 | 3 << 6;
  const __m256d bc =
      _mm256_sub_pd(_mm256_mul_pd(_mm256_permute4x64_pd(b, YZX), _mm256_permute4x64_pd(c, ZXY)),
                    _mm256_mul_pd(_mm256_permute4x64_pd(b, ZXY), _mm256_permute4x64_pd(c, YZX)));
  const __m256d abc = _mm256_mul_pd(a, bc);
  const __m128d lo = _mm256_castpd256_pd128(abc);
  return (_mm_cvtsd_f64(lo) + _mm_cvtsd_f64(_mm_unpackhi_pd(lo, lo))) +
         _mm_cvtsd_f64(_mm256_extractf128_pd(abc, 1));
}

// The walk; with `keep`, the tet found is kept in `memo` when there is one and P's weights go to
// `w` when it is not null; without, both are null.
template <bool keep>
[[gnu::always_inline]] VOXFILL_AVX2 inline int walk_avx2(const flat_table<double>& xyz_in,
                                                         const flat_table<unsigned>& tets_in,
                                                         const flat_table<unsigned>& neighbors_in,
                                                         unsigned steps, const double* P,
                                                         unsigned& t, double tol, bit_source& bits,
                                                         double* w, walk_memo* memo) noexcept {
  const flat_table<double> xyz = xyz_in;
  const flat_table<unsigned> tets = tets_in, neighbors = neighbors_in;
  static_assert(
      tet_face_nodes[0][0] == 1 && tet_face_nodes[0][1] == 2 && tet_face_nodes[0][2] == 3 &&
      tet_face_nodes[1][0] == 2 && tet_face_nodes[1][1] == 0 && tet_face_nodes[1][2] == 3 &&
      tet_face_nodes[2][0] == 1 && tet_face_nodes[2][1] == 3 && tet_face_nodes[2][2] == 0 &&
      tet_face_nodes[3][0] == 2 && tet_face_nodes[3][1] == 1 && tet_face_nodes[3][2] == 0);
  const __m256d p[3] = {_mm256_set1_pd(P[0]), _mm256_set1_pd(P[1]), _mm256_set1_pd(P[2])};
  const __m256d prow = avx_lanes::load3(P);
  const __m256d turn = _mm256_set_pd(0.0, -0.0, 0.0, 0.0);
  // The tet and the bit source's state in locals, which the stores of the step can't alias: they
  // stay in registers and go back at each exit. The draws are bits.next()'s, in the same order.
  unsigned cur = t, left = bits.count_left, word = bits.word_left;
  auto leave = [&](unsigned tet) {
    t = tet;
    bits.count_left = left;
    bits.word_left = word;
  };
  while (cur != NONE && steps) {
    --steps;
    if (left == 0) {
      word = unsigned(bits.generator());
      left = bit_source::draws_per_word;
    }
    const unsigned start = word & bit_source::mask;
    word >>= bit_source::bits_per_draw;
    --left;
    const unsigned* n = tets.col(cur);
    __m256d r[4];
    {
      const double* q[4] = {xyz.col(n[0]), xyz.col(n[1]), xyz.col(n[2]), xyz.col(n[3])};
      node_rows(q, r);
    }
    __m256d a, b, c;
    const double V = lane_volume(r, a, b, c);
    if (!(V > 0.0 && std::isfinite(V))) {
      leave(NONE);
      return -1;
    }
    // A walk that keeps its tet keeps the nodes by lanes too, which its face tests take; the
    // other walks test the faces from the rows, without the transpose.
    [[maybe_unused]] __m256d x, y, z;
    int mask;
    if constexpr (keep) {
      node_lanes(r, x, y, z);
      mask = avx_lanes::beyond_faces_lanes(x, y, z, p, _mm256_set1_pd(V * tol), turn);
    } else {
      mask = beyond_faces_rows(r, prow, _mm256_set1_pd(V * tol), turn);
    }
    if (mask == 0) {
      leave(cur);
      if constexpr (keep) {
        const double* q3 = xyz.col(n[3]);
        if (memo) {
          memo->tet = cur;
          memo->row = n;
          memo->q3 = q3;
          _mm256_store_pd(memo->nodes[0], x);
          _mm256_store_pd(memo->nodes[1], y);
          _mm256_store_pd(memo->nodes[2], z);
          memo->V = V;
          memo_frame(a, b, c, *memo);
          if (w) memo_weights(*memo, P, w);
        } else if (w) {
          alignas(32) double ea[4], eb[4], ec[4];
          _mm256_store_pd(ea, a);
          _mm256_store_pd(eb, b);
          _mm256_store_pd(ec, c);
          tet_barycentric_prepared_avx2(ea, eb, ec, q3, P, w);
        }
      }
      return 1;
    }
    cur = leave_by(neighbors.col(cur), mask, start);
  }
  leave(NONE);
  return cur == NONE ? 0 : -2;
}
#endif

// A start for a walk to P: t itself, else the tet of the node nearest to P.
inline bool start_tet(node_locator& loc, const double* P, unsigned& t) noexcept {
  if (!loc.ancestors) return false;
  if (t != NONE) return true;
  const unsigned node = loc.near_node(P);
  if (node == NONE || node >= loc.ancestors->size) return false;
  t = (*loc.ancestors)[node];
  return t != NONE;
}

#if VOXFILL_WALK_AVX2
// The face tests of P in the memo's tet, from the nodes kept by lanes.
[[gnu::always_inline]] VOXFILL_AVX2 inline int memo_faces(const walk_memo& memo, const double* P,
                                                          double tol) noexcept {
  const __m256d p[3] = {_mm256_set1_pd(P[0]), _mm256_set1_pd(P[1]), _mm256_set1_pd(P[2])};
  return avx_lanes::beyond_faces_lanes(
      _mm256_load_pd(memo.nodes[0]), _mm256_load_pd(memo.nodes[1]), _mm256_load_pd(memo.nodes[2]),
      p, _mm256_set1_pd(memo.V * tol), _mm256_set_pd(0.0, -0.0, 0.0, 0.0));
}

// locate_tet through the memo: a walk that starts in the memo's tet takes its first step from the
// memo's nodes and frame, whose volume passed the test when it was kept.
[[gnu::noinline]] VOXFILL_AVX2 bool locate_memo_walk(node_locator& loc, const double* P,
                                                     unsigned& t, double tol, bit_source& bits,
                                                     double* w, walk_memo& memo) noexcept {
  if (!start_tet(loc, P, t)) return false;
  if (!loc.nodes || !loc.tets || !loc.neighbors) {
    t = NONE;
    return false;
  }
  unsigned steps = loc.tets->cols();
  if (t == memo.tet && steps) {
    const unsigned start = bits.next();
    const int mask = memo_faces(memo, P, tol);
    if (mask == 0) {
      if (w) memo_weights(memo, P, w);
      return true;
    }
    t = leave_by(loc.neighbors->row(t), mask, start);
    --steps;
  }
  const flat_table<double> xyz(loc.nodes->data);
  const flat_table<unsigned> tets(loc.tets->data), neighbors(loc.neighbors->data);
  if (walk_avx2<true>(xyz, tets, neighbors, steps, P, t, tol, bits, w, &memo) == 1) return true;
  t = NONE;
  return false;
}

// memo_weights out of line, for a tail call that keeps the look-up's common case without a frame.
[[gnu::noinline]] VOXFILL_AVX2 bool memo_hit_weights(const walk_memo& memo, const double* P,
                                                     double* w) noexcept {
  memo_weights(memo, P, w);
  return true;
}

// locate_memo_walk, with the common case first: P in the memo's tet, where the look-up draws its
// bit and ends without a step. Everything else goes to the walk, which tests the memo again, and
// so does a look-up whose bit needs a new word.
VOXFILL_AVX2 bool locate_memo_avx2(node_locator& loc, const double* P, unsigned& t, double tol,
                                   bit_source& bits, double* w, walk_memo& memo) noexcept {
  if (t == memo.tet && t != NONE && loc.ancestors && loc.nodes && loc.tets && loc.neighbors &&
      loc.tets->cols() && bits.count_left != 0 && memo_faces(memo, P, tol) == 0) {
    // The step's draw, which a walk that ends where it starts never reads.
    bits.word_left >>= bit_source::bits_per_draw;
    --bits.count_left;
    if (w) return memo_hit_weights(memo, P, w);
    return true;
  }
  return locate_memo_walk(loc, P, t, tol, bits, w, memo);
}
#endif

#if VOXFILL_WALK_AVX2
// The walks of walk_tables, with the weights or without.
VOXFILL_AVX2 int walk_tables_avx2(const flat_table<double>& xyz, const flat_table<unsigned>& tets,
                                  const flat_table<unsigned>& neighbors, unsigned steps,
                                  const double* P, unsigned& t, double tol, bit_source& bits,
                                  double* w) noexcept {
  return w ? walk_avx2<true>(xyz, tets, neighbors, steps, P, t, tol, bits, w, nullptr)
           : walk_avx2<false>(xyz, tets, neighbors, steps, P, t, tol, bits, nullptr, nullptr);
}

// locate_side by the tests of a walk step, which give the scalar bits.
VOXFILL_AVX2 int locate_side_avx2(const double* const* q, const double* P, double tol,
                                  unsigned start) noexcept {
  __m256d r[4], a, b, c;
  node_rows(q, r);
  const double V = lane_volume(r, a, b, c);
  if (!(V > 0.0) || !std::isfinite(V)) return -2;
  const __m256d p[3] = {_mm256_set1_pd(P[0]), _mm256_set1_pd(P[1]), _mm256_set1_pd(P[2])};
  __m256d x, y, z;
  node_lanes(r, x, y, z);
  const int mask = avx_lanes::beyond_faces_lanes(x, y, z, p, _mm256_set1_pd(V * tol),
                                                 _mm256_set_pd(0.0, -0.0, 0.0, 0.0));
  return first_face(mask, start);
}
#endif

int walk_tables(const dense2D<double>& xyz_table, const slot_table<unsigned>& tets_table,
                const slot_table<unsigned>& neighbors_table, const double* P, unsigned& t,
                double tol, bit_source& bits, double* w = nullptr) noexcept {
  const flat_table<double> xyz(xyz_table);
  const flat_table<unsigned> tets(tets_table.data), neighbors(neighbors_table.data);
  const unsigned steps = tets_table.cols();
#if VOXFILL_WALK_AVX2
  if (has_avx2) return walk_tables_avx2(xyz, tets, neighbors, steps, P, t, tol, bits, w);
#endif
  return walk_scalar(xyz, tets, neighbors, steps, P, t, tol, bits, w);
}

}  // namespace

int locate_side(const dense2D<double>& xyz, const double* P, const unsigned* tet, double tol,
                unsigned start) noexcept {
  const double* q[4] = {xyz.col(tet[0]), xyz.col(tet[1]), xyz.col(tet[2]), xyz.col(tet[3])};
#if VOXFILL_WALK_AVX2
  if (has_avx2) return locate_side_avx2(q, P, tol, start);
#endif
  edge_frame e;
  const int mask = beyond_faces(q, P, tol, e);
  return mask < 0 ? mask : first_face(mask, start);
}

int walk_to_point(const mesh_store& m, const double* P, unsigned& t, double tol,
                  bit_source& bits) noexcept {
  return walk_tables(m.nodes.data, m.tets, m.neighbors, P, t, tol, bits);
}

int walk_to_point(const node_locator& loc, const double* P, unsigned& t, double tol,
                  bit_source& bits) noexcept {
  if (!loc.nodes || !loc.tets || !loc.neighbors) {
    t = NONE;
    return 0;
  }
  return walk_tables(loc.nodes->data, *loc.tets, *loc.neighbors, P, t, tol, bits);
}

namespace {
[[gnu::noinline]] bool locate_plain(node_locator& loc, const double* P, unsigned& t, double tol,
                                    bit_source& bits, double* w) noexcept {
  if (!start_tet(loc, P, t)) return false;
  if (loc.nodes && loc.tets && loc.neighbors &&
      walk_tables(loc.nodes->data, *loc.tets, *loc.neighbors, P, t, tol, bits, w) == 1)
    return true;
  t = NONE;
  return false;
}
}  // namespace

bool locate_tet(node_locator& loc, const double* P, unsigned& t, double tol, bit_source& bits,
                double* w) noexcept {
  return locate_plain(loc, P, t, tol, bits, w);
}

bool locate_tet(node_locator& loc, const double* P, unsigned& t, double tol, bit_source& bits,
                double* w, walk_memo& memo) noexcept {
#if VOXFILL_WALK_AVX2
  if (has_avx2) return locate_memo_avx2(loc, P, t, tol, bits, w, memo);
#else
  (void)memo;
#endif
  // Without the lanes the memo is neither read nor filled: the plain look-up, out of line so that
  // the lanes' entry is a jump.
  return locate_plain(loc, P, t, tol, bits, w);
}

bool locate_tet(node_locator& loc, const double* P, unsigned& t, double tol,
                bit_source& bits) noexcept {
  return locate_tet(loc, P, t, tol, bits, nullptr);
}

bool locate_tet(mesh_store& m, const double* P, unsigned& t, double tol) noexcept {
  if (t == NONE) {
    const unsigned node = m.locator.near_node(P);
    if (node == NONE || node >= m.ancestors.size) return false;
    t = m.ancestors[node];
    if (t == NONE) return false;
  }
  if (walk_to_point(m, P, t, tol, m.bits) == 1) return true;
  t = NONE;
  return false;
}

bool edges_of_live_tets(const mesh_store& m, dense1D<std::uint64_t>& edges) noexcept {
  edges.clear();
  std::uint64_t live = 0;
  for (unsigned t = 0; t < m.tets.cols(); ++t) live += m.tet_live(t);
  if (6 * live > 0xFFFFFFFFull || !edges.reserve(unsigned(6 * live))) return false;
  // Every tet lists its six; the sorted list keeps one of each.
  for (unsigned t = 0; t < m.tets.cols(); ++t) {
    if (!m.tet_live(t)) continue;
    const unsigned* n = m.tets.row(t);
    for (unsigned k = 0; k < 6; ++k) {
      const unsigned a = n[tet_edge_nodes[k][0]], b = n[tet_edge_nodes[k][1]];
      edges.push_back(a < b ? std::uint64_t(a) << 32 | b : std::uint64_t(b) << 32 | a);
    }
  }
  std::sort(edges.begin(), edges.end());
  edges.size = unsigned(std::unique(edges.begin(), edges.end()) - edges.begin());
  return true;
}

bool locate_tet_in_domain(mesh_store& m, const double* P, unsigned& t, double tol, bool retry,
                          dense1D<unsigned>& ball, dense1D<unsigned>& stack,
                          index_set& seen) noexcept {
  if (locate_tet(m, P, t, tol) && m.tet_in_domain(t)) return true;
  t = NONE;
  if (!retry) return false;
  const unsigned node = m.locator.nearest_node(P);
  if (node == NONE) return false;
  ball_of_node_unmarked(m, node, NONE, ball, stack, seen);
  for (unsigned k = 0; k < ball.size; ++k) {
    unsigned s = ball[k];
    if (walk_to_point(m, P, s, tol, m.bits) == 1 && m.tet_in_domain(s)) {
      t = s;
      return true;
    }
  }
  return false;
}

}  // namespace kelvo::voxfill
