// Cavity of a node insertion: collection, correction (hard faces, hard edges, surface test, victim
// pick) and star filling.
#include "delaunay/cavity.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "delaunay/cpu_lanes.h"
#include "delaunay/keys.h"
#include "delaunay/lanes_avx.h"
#include "delaunay/quality_lanes.h"
#include "delaunay/star_edge_table.h"
#include "delaunay/tet_tables.h"
#include "numcore/debug_check.h"
#include "numcore/prefetch.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
namespace kelvo::voxfill {
namespace {

// Two lanes unless the vector lanes are turned off; the scalar tests give the same answers.
const bool has_sse2 = lanes_sse2();

using numcore::prefetch;
using numcore::prefetch_for_write;

// Raw views of the tables that the cavity routines read in their loops. The node and tet tables
// are packed (3 and 4 words per column), so a row is a plain offset. Valid until a table grows.
struct mesh_view {
  const double* xyz;
  unsigned* nodes;
  unsigned* nbrs;
  unsigned* marks;
  unsigned mark;

  explicit mesh_view(mesh_store& m) noexcept
      : xyz(m.nodes.data.vec->data + m.nodes.data.offset),
        nodes(m.tets.data.vec->data + m.tets.data.offset),
        nbrs(m.neighbors.data.vec->data + m.neighbors.data.offset),
        marks(m.marks.data()),
        mark(m.mark_value) {
    VOXFILL_ASSERT(m.nodes.data.cols == 0 || m.nodes.data.ld == 3);
    VOXFILL_ASSERT(m.tets.data.cols == 0 || m.tets.data.ld == 4);
    VOXFILL_ASSERT(m.neighbors.data.cols == 0 || m.neighbors.data.ld == 4);
  }
  const double* point(unsigned n) const noexcept { return xyz + 3 * std::size_t(n); }
  unsigned* tet(unsigned t) const noexcept { return nodes + 4 * std::size_t(t); }
  unsigned* nb(unsigned t) const noexcept { return nbrs + 4 * std::size_t(t); }
  // Tets and nodes are below the length of `marks` (new rows cover it).
  bool marked(unsigned i) const noexcept { return marks[i] == mark; }
  void set(unsigned i) const noexcept { marks[i] = mark; }
  // Mark values are never 0, so 0 reads as "not visited" in every generation.
  void unset(unsigned i) const noexcept { marks[i] = 0; }
  // Local face of a that leads to b, 4 when none.
  unsigned back_face(unsigned a, unsigned b) const noexcept {
    const unsigned* r = nb(a);
    return r[0] == b ? 0 : r[1] == b ? 1 : r[2] == b ? 2 : r[3] == b ? 3 : 4;
  }
  // The same when b is known to be a neighbour of a: without branches, which the random position
  // of the match would make mispredicted half of the time.
  unsigned back_face_of_neighbor(unsigned a, unsigned b) const noexcept {
    const unsigned* r = nb(a);
    return unsigned(r[1] == b) + 2 * unsigned(r[2] == b) + 3 * unsigned(r[3] == b);
  }
  // Quality of the tet (P, nodes of face i of t in table order): positive when P lies on the side
  // of the node opposite the face.
  double face_quality(const double* P, unsigned code) const noexcept {
    const unsigned* n = tet(code >> 2);
    const unsigned* f = tet_face_nodes[code & 3];
    return tet_quality(P, point(n[f[0]]), point(n[f[1]]), point(n[f[2]]));
  }
};

// Empties an edge set without letting its buckets shrink back, so that a warm set does not
// rehash (and allocate) again: only the buckets that held entries are reset.
void reset_edges(edge_set& s) noexcept {
  const unsigned mask = s.heads.size - 1;
  for (unsigned e = 0; e < s.keys.size; ++e) s.heads[key_hash(s.keys[e]) & mask] = NONE;
  s.keys.clear();
  s.next.clear();
  s.count = 0;
}

// The face link table made ready for n items, as vector_fast::build does (buckets: the smallest
// power of two not below 2 n; room for twice the larger of the bucket words and 2 n), with the
// empty buckets written in one sweep.
bool build_link_table(vector_fast& t, unsigned n) noexcept {
  unsigned b = 1;
  while (b < 2 * n) b <<= 1;
  t.buckets = b;
  t.mask = b - 1;
  t.items = 0;
  t.store.clear();
  const unsigned words = 2 * b > 2 * n ? 2 * b : 2 * n;
  if (!t.store.reserve(2 * words) || !t.store.resize(2 * b)) return false;
  std::fill_n(t.store.data(), 2 * std::size_t(b), NONE);
  return true;
}

// Appends x; false when the list could not grow (it is then as it was).
template <class T>
bool append(dense1D<T>& list, const T& x) noexcept {
  const unsigned n = list.size;
  list.push_back(x);
  return list.size != n;
}

// Appends a boundary face and its quality, both or neither.
bool append_face(cavity_record& cav, unsigned code, double q) noexcept {
  if (!append(cav.faces, code)) return false;
  if (append(cav.face_qualities, q)) return true;
  --cav.faces.size;
  return false;
}

unsigned faces_of_tet(const cavity_record& cav, unsigned t) noexcept {
  unsigned c = 0;
  for (unsigned k = 0; k < cav.faces.size; ++k) c += (cav.faces[k] >> 2) == t;
  return c;
}

// A node well mixed: faces of nearby node numbers spread over all bits.
inline unsigned mixed_node(unsigned x) noexcept {
  x *= 0x9E3779B1u;
  x ^= x >> 16;
  x *= 0x85EBCA6Bu;
  return x ^ (x >> 13);
}

// A hash of a face that does not depend on the order of its nodes, each node well mixed first.
unsigned mixed_face_hash(unsigned a, unsigned b, unsigned c) noexcept {
  return mixed_node(a) + mixed_node(b) + mixed_node(c);
}

// hard.has_face(a, b, c) for nodes known to be hard: the set's own filter, then its chain, where
// a stored face whose node sum differs cannot match and skips the rotation-aware comparison.
bool holds_hard_face(const entity_set& hard, unsigned a, unsigned b, unsigned c) noexcept {
  const face_key k{{a, b, c}};
  if (!hard.may_have_face(k)) return false;
  const face_set& s = hard.faces;
  if (!s.heads.size) return false;
  const unsigned sum = a + b + c;
  const face_key* keys = s.keys.data();
  const unsigned* next = s.next.data();
  for (unsigned e = s.heads[key_hash(k) & (s.heads.size - 1)]; e != NONE; e = next[e]) {
    const unsigned* x = keys[e].n;
    if (x[0] + x[1] + x[2] == sum && compare_keys(keys[e], k) != 0) return true;
  }
  return false;
}

// Both sides of every hard face that runs through the cavity become boundary faces. The far side
// of P gets a non-positive quality and leaves at the next sweep; P on the face sends both away.
// The inner faces that may be hard are those of bits 4-7 of `face_bits`, per tet of the cavity,
// each seen once. False when a list could not grow.
bool add_hard_faces(const mesh_view& v, cavity_record& cav, const unsigned* face_bits,
                    const entity_set& hard, const hard_face_bits& bits, const double* P) noexcept {
  const unsigned* node_words = hard.node_bits.words.data();
  const unsigned node_bits = hard.node_bits.length;
  auto is_hard = [node_words, node_bits](unsigned x) {
    return x < node_bits && ((node_words[x >> 5] >> (x & 31)) & 1u);
  };
  const unsigned* face_words = bits.set == &hard ? bits.words.data() : nullptr;
  const unsigned shift = bits.shift;
  const unsigned T = cav.tets.size;
  for (unsigned k = 0; k < T; ++k) {
    unsigned inner = face_bits[k] >> 4;
    if (!inner) continue;
    const unsigned t = cav.tets[k];
    const unsigned* n = v.tet(t);
    // Face i holds every node but node i: its hash is the sum of the others' terms, and it is hard
    // only with the three of them hard. The face bits first when there are any: while a surface is
    // meshed every node is hard.
    if (face_words) {
      const unsigned m[4] = {mixed_node(n[0]), mixed_node(n[1]), mixed_node(n[2]),
                             mixed_node(n[3])};
      const unsigned sum = m[0] + m[1] + m[2] + m[3];
      unsigned keep = 0;
      for (unsigned b = inner; b; b &= b - 1) {
        const unsigned i = unsigned(__builtin_ctz(b));
        const unsigned h = (sum - m[i]) >> shift;
        keep |= ((face_words[h >> 5] >> (h & 31)) & 1u) << i;
      }
      inner = keep;
    } else {
      // By the hard nodes h: the faces whose three nodes are all hard.
      static constexpr unsigned char hard_faces_of[16] = {0, 0, 0, 0, 0, 0, 0, 8,
                                                          0, 0, 0, 4, 0, 2, 1, 15};
      const unsigned h = unsigned(is_hard(n[0])) | unsigned(is_hard(n[1])) << 1 |
                         unsigned(is_hard(n[2])) << 2 | unsigned(is_hard(n[3])) << 3;
      inner &= hard_faces_of[h];
    }
    for (; inner; inner &= inner - 1) {
      const unsigned i = unsigned(__builtin_ctz(inner));
      const unsigned* f = tet_face_nodes[i];
      const unsigned a = n[f[0]], b = n[f[1]], c = n[f[2]];
      if (!is_hard(a) || !is_hard(b) || !is_hard(c) || !holds_hard_face(hard, a, b, c)) continue;
      const unsigned c1 = 4 * t + i;
      const unsigned nb = v.nb(t)[i];
      const unsigned c2 = 4 * nb + v.back_face(nb, t);
      double q1 = v.face_quality(P, c1), q2 = -q1;
      if (q1 != 0.0) {
        q2 = v.face_quality(P, c2);
        if (q2 == 0.0) q1 = 0.0;
      }
      if (!append_face(cav, c1, q1) || !append_face(cav, c2, q2) || !append(cav.hard_faces, c1) ||
          !append(cav.hard_faces, c2))
        return false;
    }
  }
  return true;
}

// After marks were cleared: drops the faces of the tets that left, and the tets themselves, and
// opens the faces of the remaining tets towards them (but for the hard faces already listed).
// False when a list could not grow.
bool rebuild(const mesh_view& v, cavity_record& cav, const double* P) noexcept {
  unsigned w = 0;
  for (unsigned k = 0; k < cav.faces.size; ++k) {
    if (!v.marked(cav.faces[k] >> 2)) continue;
    cav.faces[w] = cav.faces[k];
    cav.face_qualities[w] = cav.face_qualities[k];
    ++w;
  }
  cav.faces.size = cav.face_qualities.size = w;
  w = 0;
  for (unsigned k = 0; k < cav.hard_faces.size; ++k)
    if (v.marked(cav.hard_faces[k] >> 2)) cav.hard_faces[w++] = cav.hard_faces[k];
  cav.hard_faces.size = w;

  w = 0;
  const unsigned T = cav.tets.size;
  for (unsigned k = 0; k < T; ++k) {
    const unsigned t = cav.tets[k];
    if (v.marked(t)) {
      cav.tets[w++] = t;
      continue;
    }
    const unsigned* nbs = v.nb(t);
    for (unsigned i = 0; i < 4; ++i) {
      const unsigned nb = nbs[i];
      if (nb == NONE || !v.marked(nb)) continue;
      const unsigned code = 4 * nb + v.back_face(nb, t);
      bool listed = false;
      for (unsigned h = 0; h < cav.hard_faces.size && !listed; ++h)
        listed = cav.hard_faces[h] == code;
      if (listed) continue;
      if (!append_face(cav, code, v.face_quality(P, code))) return false;
    }
  }
  cav.tets.size = w;
  return true;
}

// A hard edge that lies inside the cavity: on no boundary face. Candidates are the hard edges
// between two inner faces of a tet; the boundary faces then strike theirs out. The smallest left,
// by (first node, second node) as stored; false when none.
bool hard_edge_inside(kernel_workspace& ws, const mesh_view& v, const cavity_record& cav,
                      const entity_set& hard, edge_key& found) noexcept {
  const unsigned T = cav.tets.size, F = cav.faces.size;
  if (F + 4 > 4 * T) return false;
  edge_set& edges = ws.scratch_edges;
  for (unsigned k = 1; k < T; ++k) {
    const unsigned t = cav.tets[k];
    const unsigned* n = v.tet(t);
    bool h[4];
    unsigned count = 0;
    for (unsigned i = 0; i < 4; ++i) count += (h[i] = hard.has_node(n[i]));
    if (count < 2) continue;
    unsigned inner[4], ni = 0;
    for (unsigned u = 0; u < 4; ++u) {
      if (count - h[u] < 2) continue;
      const unsigned nb = v.nb(t)[u];
      if (nb == NONE || !v.marked(nb)) continue;
      for (unsigned s = 0; s < ni; ++s) {
        const unsigned w = inner[s];
        const unsigned a = unsigned(tet_face_pair_node[u][w]), b = 6 - u - w - a;
        if (!h[a] || !h[b]) continue;
        const edge_key e{{n[a], n[b]}};
        if (hard.edges.contains(e)) edges.insert(e);
      }
      inner[ni++] = u;
    }
  }
  if (edges.count == 0) return false;
  for (unsigned k = 1; k < F && edges.count; ++k) {
    const unsigned code = cav.faces[k];
    const unsigned* n = v.tet(code >> 2);
    const unsigned* f = tet_face_nodes[code & 3];
    edges.erase(edge_key{{n[f[0]], n[f[1]]}});
    edges.erase(edge_key{{n[f[1]], n[f[2]]}});
    edges.erase(edge_key{{n[f[2]], n[f[0]]}});
  }
  bool any = false;
  for (unsigned e = 0; e < edges.keys.size; ++e) {
    if (!edges.live(e)) continue;
    const edge_key& k = edges.keys[e];
    if (!any || k.n[0] < found.n[0] || (k.n[0] == found.n[0] && k.n[1] < found.n[1])) found = k;
    any = true;
  }
  reset_edges(edges);
  return any;
}

enum class surface { ok, node, failure };

// Whether the boundary is a topological sphere that holds every cavity node. Marks hold nodes
// meanwhile; unless the answer is ok, the cavity's tets are marked again in a fresh generation
// before returning. `qmin` is the smallest face quality when known, else NO_VALUE.
surface surface_test(mesh_store& m, kernel_workspace& ws, const cavity_record& cav, double qmin,
                     unsigned& inner_node) noexcept {
  const unsigned T = cav.tets.size, F = cav.faces.size;
  if (4 * T < F + 6) return surface::ok;  // fewer than three inner faces: nothing to check
  if (F > 3 * T + 1 || F > 2 * T + 2 || (F & 1)) return surface::failure;
  m.bump_marks();
  const mesh_view v(m);
  unsigned V = 0;
  for (unsigned k = 1; k < F; ++k) {
    // The nodes of face i are those of the tet but node i, in any order for the count.
    const unsigned code = cav.faces[k];
    const unsigned* n = v.tet(code >> 2);
    const unsigned i = code & 3;
    for (unsigned s = 0; s < 4; ++s) {
      const unsigned x = n[s];
      if (s == i || v.marked(x)) continue;
      v.set(x);
      ++V;
    }
  }
  surface result = surface::ok;
  if (2 * V != F + 4) {  // Euler's formula for a sphere of triangles
    result = surface::failure;
  } else {
    for (unsigned k = 1; k < T && result == surface::ok; ++k) {
      const unsigned* n = v.tet(cav.tets[k]);
      for (unsigned i = 0; i < 4; ++i) {
        if (v.marked(n[i])) continue;
        inner_node = n[i];
        result = surface::node;
      }
    }
    if (result == surface::ok) {
      if (qmin == NO_VALUE) {
        qmin = cav.face_qualities[0];
        for (unsigned k = 1; k < F; ++k)
          if (cav.face_qualities[k] < qmin) qmin = cav.face_qualities[k];
      }
      if (qmin < FLAT_TOL) {
        // Nearly flat new tets: the counts above may hide a pinched surface; a closed
        // two-manifold of F triangles has exactly 3 F / 2 edges.
        edge_set& edges = ws.scratch_edges;
        for (unsigned k = 1; k < F; ++k) {
          const unsigned code = cav.faces[k];
          const unsigned* n = v.tet(code >> 2);
          const unsigned* f = tet_face_nodes[code & 3];
          edges.insert(edge_key{{n[f[0]], n[f[1]]}});
          edges.insert(edge_key{{n[f[1]], n[f[2]]}});
          edges.insert(edge_key{{n[f[2]], n[f[0]]}});
        }
        if (2 * edges.count != 3 * F) result = surface::failure;
        reset_edges(edges);
      }
    }
  }
  if (result == surface::ok) return result;  // the cavity is final: its marks are not read again
  m.bump_marks();
  const mesh_view w(m);
  for (unsigned k = 0; k < T; ++k) w.set(cav.tets[k]);
  return result;
}

// The cavity tet to give up so that a node (b NONE) or the edge (a, b) comes back to the boundary:
// the one holding it with the most boundary faces, then the one of smallest quality, scanning from
// a random start. NONE when no tet holds it.
unsigned pick_victim(mesh_store& m, const mesh_view& v, const cavity_record& cav, unsigned a,
                     unsigned b) noexcept {
  const unsigned T = cav.tets.size;
  const unsigned start = T >= 2 ? unsigned(m.random_source() % T) : 0;
  unsigned best_count = 0, best = NONE;
  double best_quality = 1.0;
  for (unsigned s = 0; s < T; ++s) {
    const unsigned t = cav.tets[(start + s) % T];
    const unsigned* n = v.tet(t);
    const bool has_a = n[0] == a || n[1] == a || n[2] == a || n[3] == a;
    const bool has_b = b == NONE || n[0] == b || n[1] == b || n[2] == b || n[3] == b;
    if (!has_a || !has_b) continue;
    const unsigned c = faces_of_tet(cav, t);
    if (c < best_count) continue;
    double q = tet_quality(v.point(n[0]), v.point(n[1]), v.point(n[2]), v.point(n[3]));
    if (std::fabs(q) < TET_PICK_TOL) q = 0.0;
    if (c > best_count || q < best_quality) {
      best_count = c;
      best_quality = q;
      best = t;
    }
  }
  return best;
}

// in_circumsphere for two tets at once (nodes a[0..3] and b[0..3]), each lane doing the very
// operations of the single test in the same order, so that both answers are those of
// in_circumsphere to the bit. The rare tets that its cheap path leaves open go to the full
// construction one by one, as there.
void in_circumsphere_pair(const double* const a[4], const double* const b[4], const double* P,
                          double limit, bool& in_a, bool& in_b) noexcept {
#if defined(__SSE2__)
  // Lane 0 holds tet a, lane 1 tet b.
  __m128d x[4], y[4], z[4];
  for (unsigned k = 0; k < 4; ++k) {
    const __m128d ua = _mm_loadu_pd(a[k]), ub = _mm_loadu_pd(b[k]);
    x[k] = _mm_unpacklo_pd(ua, ub);
    y[k] = _mm_unpackhi_pd(ua, ub);
    z[k] = _mm_loadh_pd(_mm_load_sd(a[k] + 2), b[k] + 2);
  }
  const __m128d a0 = _mm_sub_pd(x[0], x[3]), a1 = _mm_sub_pd(y[0], y[3]),
                a2 = _mm_sub_pd(z[0], z[3]);
  const __m128d b0 = _mm_sub_pd(x[1], x[3]), b1 = _mm_sub_pd(y[1], y[3]),
                b2 = _mm_sub_pd(z[1], z[3]);
  const __m128d c0 = _mm_sub_pd(x[2], x[3]), c1 = _mm_sub_pd(y[2], y[3]),
                c2 = _mm_sub_pd(z[2], z[3]);
  const __m128d bc0 = _mm_sub_pd(_mm_mul_pd(b1, c2), _mm_mul_pd(b2, c1));
  const __m128d bc1 = _mm_sub_pd(_mm_mul_pd(b2, c0), _mm_mul_pd(b0, c2));
  const __m128d bc2 = _mm_sub_pd(_mm_mul_pd(b0, c1), _mm_mul_pd(b1, c0));
  auto dot = [](__m128d u0, __m128d u1, __m128d u2, __m128d v0, __m128d v1, __m128d v2) {
    return _mm_add_pd(_mm_add_pd(_mm_mul_pd(u0, v0), _mm_mul_pd(u1, v1)), _mm_mul_pd(u2, v2));
  };
  const __m128d O = dot(a0, a1, a2, bc0, bc1, bc2);
  const __m128d la = dot(a0, a1, a2, a0, a1, a2);
  const __m128d lb = dot(b0, b1, b2, b0, b1, b2);
  const __m128d lc = dot(c0, c1, c2, c0, c1, c2);
  const __m128d L2 = _mm_max_pd(lc, _mm_max_pd(la, lb));
  const __m128d fast = _mm_and_pd(
      _mm_and_pd(_mm_cmpgt_pd(O, _mm_setzero_pd()), _mm_cmpge_pd(L2, _mm_set1_pd(1e-90))),
      _mm_and_pd(_mm_cmple_pd(L2, _mm_set1_pd(1e90)),
                 _mm_cmple_pd(_mm_mul_pd(_mm_mul_pd(L2, L2), L2),
                              _mm_mul_pd(_mm_mul_pd(_mm_set1_pd(1e6), O), O))));
  int open = 3;  // lanes still undecided
  const int fast_lanes = _mm_movemask_pd(fast);
  if (fast_lanes) {
    const __m128d ca0 = _mm_sub_pd(_mm_mul_pd(c1, a2), _mm_mul_pd(c2, a1));
    const __m128d ca1 = _mm_sub_pd(_mm_mul_pd(c2, a0), _mm_mul_pd(c0, a2));
    const __m128d ca2 = _mm_sub_pd(_mm_mul_pd(c0, a1), _mm_mul_pd(c1, a0));
    const __m128d ab0 = _mm_sub_pd(_mm_mul_pd(a1, b2), _mm_mul_pd(a2, b1));
    const __m128d ab1 = _mm_sub_pd(_mm_mul_pd(a2, b0), _mm_mul_pd(a0, b2));
    const __m128d ab2 = _mm_sub_pd(_mm_mul_pd(a0, b1), _mm_mul_pd(a1, b0));
    const __m128d s = _mm_div_pd(_mm_set1_pd(0.5), O);
    auto centre = [&](__m128d bc, __m128d ca, __m128d ab) {
      return _mm_mul_pd(
          _mm_add_pd(_mm_add_pd(_mm_mul_pd(la, bc), _mm_mul_pd(lb, ca)), _mm_mul_pd(lc, ab)), s);
    };
    const __m128d x0 = centre(bc0, ca0, ab0), x1 = centre(bc1, ca1, ab1),
                  x2 = centre(bc2, ca2, ab2);
    const __m128d e0 = _mm_sub_pd(_mm_sub_pd(_mm_set1_pd(P[0]), x[3]), x0);
    const __m128d e1 = _mm_sub_pd(_mm_sub_pd(_mm_set1_pd(P[1]), y[3]), x1);
    const __m128d e2 = _mm_sub_pd(_mm_sub_pd(_mm_set1_pd(P[2]), z[3]), x2);
    const __m128d r2 = dot(x0, x1, x2, x0, x1, x2);
    const __m128d ratio = _mm_div_pd(dot(e0, e1, e2, e0, e1, e2), r2);
    const __m128d margin = _mm_mul_pd(_mm_set1_pd(1e-6), _mm_add_pd(_mm_set1_pd(1.0), ratio));
    const __m128d L = _mm_set1_pd(limit);
    const int inside = _mm_movemask_pd(_mm_cmplt_pd(ratio, _mm_sub_pd(L, margin))) & fast_lanes;
    const int outside = _mm_movemask_pd(_mm_cmpgt_pd(ratio, _mm_add_pd(L, margin))) & fast_lanes;
    in_a = inside & 1;
    in_b = inside & 2;
    open = 3 & ~(inside | outside);
  }
  if (open & 1) in_a = circumsphere_ratio(a[0], a[1], a[2], a[3], P) < limit;
  if (open & 2) in_b = circumsphere_ratio(b[0], b[1], b[2], b[3], P) < limit;
#else
  in_a = in_circumsphere(a[0], a[1], a[2], a[3], P, limit);
  in_b = in_circumsphere(b[0], b[1], b[2], b[3], P, limit);
#endif
}

// The lanes l..nl of a collection step that the AVX test did not take, two at a time, then one:
// bit l for lane l's tet holding P. Kept out of line, away from the registers of the step.
[[gnu::noinline]] unsigned in_circumsphere_rest(const mesh_view& v, const unsigned* lane,
                                                unsigned l, unsigned nl, const double* P,
                                                double limit) noexcept {
  unsigned in = 0;
  for (; has_sse2 && l + 1 < nl; l += 2) {
    const unsigned* n = v.tet(lane[l]);
    const unsigned* o = v.tet(lane[l + 1]);
    const double* const pa[4] = {v.point(n[0]), v.point(n[1]), v.point(n[2]), v.point(n[3])};
    const double* const pb[4] = {v.point(o[0]), v.point(o[1]), v.point(o[2]), v.point(o[3])};
    bool in_a, in_b;
    in_circumsphere_pair(pa, pb, P, limit, in_a, in_b);
    in |= unsigned(in_a) << l | unsigned(in_b) << (l + 1);
  }
  for (; l < nl; ++l) {
    const unsigned* n = v.tet(lane[l]);
    in |= unsigned(
              in_circumsphere(v.point(n[0]), v.point(n[1]), v.point(n[2]), v.point(n[3]), P, limit))
          << l;
  }
  return in;
}

#if VOXFILL_LANES_AVX
// Whether the processor runs AVX. Its lanes do the operations of the SSE2 and scalar code one for
// one (nothing fused), so both give the same bits; AVX only does more at a time.
const bool has_avx = lanes_avx();

using namespace avx_lanes;

// in_circumsphere_pair over four lanes: whether the tets t[0..count) (count 3 or 4) hold P in
// their circumspheres, as in_circumsphere, bit l for tet l. With three, the fourth lane repeats
// the last tet and its answer is left out.
VOXFILL_AVX unsigned in_circumsphere_avx(const mesh_view& v, const unsigned* t, unsigned count,
                                         const double* P, double limit) noexcept {
  __m256d x[4], y[4], z[4];
  {
    const unsigned *n0 = v.tet(t[0]), *n1 = v.tet(t[1]), *n2 = v.tet(t[2]),
                   *n3 = v.tet(t[count - 1]);
    for (unsigned k = 0; k < 4; ++k)
      gather_points(v.point(n0[k]), v.point(n1[k]), v.point(n2[k]), v.point(n3[k]), x[k], y[k],
                    z[k]);
  }
  const __m256d a0 = _mm256_sub_pd(x[0], x[3]), a1 = _mm256_sub_pd(y[0], y[3]),
                a2 = _mm256_sub_pd(z[0], z[3]);
  const __m256d b0 = _mm256_sub_pd(x[1], x[3]), b1 = _mm256_sub_pd(y[1], y[3]),
                b2 = _mm256_sub_pd(z[1], z[3]);
  const __m256d c0 = _mm256_sub_pd(x[2], x[3]), c1 = _mm256_sub_pd(y[2], y[3]),
                c2 = _mm256_sub_pd(z[2], z[3]);
  const __m256d bc0 = _mm256_sub_pd(_mm256_mul_pd(b1, c2), _mm256_mul_pd(b2, c1));
  const __m256d bc1 = _mm256_sub_pd(_mm256_mul_pd(b2, c0), _mm256_mul_pd(b0, c2));
  const __m256d bc2 = _mm256_sub_pd(_mm256_mul_pd(b0, c1), _mm256_mul_pd(b1, c0));
  const __m256d O = dot4(a0, a1, a2, bc0, bc1, bc2);
  const __m256d la = dot4(a0, a1, a2, a0, a1, a2);
  const __m256d lb = dot4(b0, b1, b2, b0, b1, b2);
  const __m256d lc = dot4(c0, c1, c2, c0, c1, c2);
  const __m256d L2 = _mm256_max_pd(lc, _mm256_max_pd(la, lb));
  const __m256d fast = _mm256_and_pd(
      _mm256_and_pd(_mm256_cmp_pd(O, _mm256_setzero_pd(), _CMP_GT_OQ),
                    _mm256_cmp_pd(L2, _mm256_set1_pd(1e-90), _CMP_GE_OQ)),
      _mm256_and_pd(
          _mm256_cmp_pd(L2, _mm256_set1_pd(1e90), _CMP_LE_OQ),
          _mm256_cmp_pd(_mm256_mul_pd(_mm256_mul_pd(L2, L2), L2),
                        _mm256_mul_pd(_mm256_mul_pd(_mm256_set1_pd(1e6), O), O), _CMP_LE_OQ)));
  int open = 15;  // lanes still undecided
  const int fast_lanes = _mm256_movemask_pd(fast);
  int inside = 0;
  if (fast_lanes) {
    const __m256d ca0 = _mm256_sub_pd(_mm256_mul_pd(c1, a2), _mm256_mul_pd(c2, a1));
    const __m256d ca1 = _mm256_sub_pd(_mm256_mul_pd(c2, a0), _mm256_mul_pd(c0, a2));
    const __m256d ca2 = _mm256_sub_pd(_mm256_mul_pd(c0, a1), _mm256_mul_pd(c1, a0));
    const __m256d ab0 = _mm256_sub_pd(_mm256_mul_pd(a1, b2), _mm256_mul_pd(a2, b1));
    const __m256d ab1 = _mm256_sub_pd(_mm256_mul_pd(a2, b0), _mm256_mul_pd(a0, b2));
    const __m256d ab2 = _mm256_sub_pd(_mm256_mul_pd(a0, b1), _mm256_mul_pd(a1, b0));
    const __m256d s = _mm256_div_pd(_mm256_set1_pd(0.5), O);
    const __m256d x0 = _mm256_mul_pd(dot4(la, lb, lc, bc0, ca0, ab0), s);
    const __m256d x1 = _mm256_mul_pd(dot4(la, lb, lc, bc1, ca1, ab1), s);
    const __m256d x2 = _mm256_mul_pd(dot4(la, lb, lc, bc2, ca2, ab2), s);
    const __m256d e0 = _mm256_sub_pd(_mm256_sub_pd(_mm256_set1_pd(P[0]), x[3]), x0);
    const __m256d e1 = _mm256_sub_pd(_mm256_sub_pd(_mm256_set1_pd(P[1]), y[3]), x1);
    const __m256d e2 = _mm256_sub_pd(_mm256_sub_pd(_mm256_set1_pd(P[2]), z[3]), x2);
    const __m256d r2 = dot4(x0, x1, x2, x0, x1, x2);
    const __m256d ratio = _mm256_div_pd(dot4(e0, e1, e2, e0, e1, e2), r2);
    const __m256d margin =
        _mm256_mul_pd(_mm256_set1_pd(1e-6), _mm256_add_pd(_mm256_set1_pd(1.0), ratio));
    const __m256d L = _mm256_set1_pd(limit);
    inside =
        _mm256_movemask_pd(_mm256_cmp_pd(ratio, _mm256_sub_pd(L, margin), _CMP_LT_OQ)) & fast_lanes;
    const int outside =
        _mm256_movemask_pd(_mm256_cmp_pd(ratio, _mm256_add_pd(L, margin), _CMP_GT_OQ)) & fast_lanes;
    open = 15 & ~(inside | outside);
  }
  const int used = count > 3 ? 15 : 7;
  unsigned in = unsigned(inside & used);
  open &= used;
  for (unsigned l = 0; open; ++l, open >>= 1) {
    if (!(open & 1)) continue;
    const unsigned* n = v.tet(t[l]);
    in |= unsigned(circumsphere_ratio(v.point(n[0]), v.point(n[1]), v.point(n[2]), v.point(n[3]),
                                      P) < limit)
          << l;
  }
  return in;
}

#endif

void abandon(cavity_record& cav) noexcept {
  cav.node = NONE;
  cav.tets.clear();
  cav.faces.clear();
  cav.hard_faces.clear();
  cav.face_qualities.clear();
  cav.face_bits.clear();
}

// A list of the cavity could not grow: the cavity is given up and says why.
void out_of_memory(cavity_record& cav) noexcept {
  abandon(cav);
  cav.out_of_memory = true;
}
void out_of_memory(cavity_record& cav, dense1D<unsigned>& seeds) noexcept {
  out_of_memory(cav);
  seeds.clear();
}

// Face f of a star row (p, s1, s2, s3), turned so that p comes first, is (p, s[after[f]],
// s[then[f]]): the edge s[after[f]] -> s[then[f]] of the cavity's boundary.
constexpr unsigned after[4] = {0, 3, 1, 2}, then[4] = {0, 2, 3, 1};

// Links faces 1 to 3 of the star rows through their edges opposite p. Twins are faces of equal
// edges in opposite directions; a third face on an edge, or two in the same direction, fail.
bool link_by_edges(kernel_workspace& ws, unsigned F, bool& no_memory) noexcept {
  star_edge_table& table = ws.star_edges;
  if (!table.prepare(3 * F)) return !(no_memory = true);
  const star_edge_table::view edges = table.use();
  const unsigned* star = ws.star_tets.col(0);
  unsigned* link = ws.star_neighbors.col(0);
  auto enter = [&edges, link](unsigned k, unsigned f, unsigned a, unsigned b) {
    unsigned twin;
    if (!edges.enter(a, b, 4 * k + f, twin)) return false;
    if (twin != NONE) {
      link[4 * k + f] = twin >> 2;
      link[twin] = k;
    }
    return true;
  };
  for (unsigned k = 0; k < F; ++k) {
    const unsigned* s = star + 4 * std::size_t(k);
    const unsigned s1 = s[1], s2 = s[2], s3 = s[3];
    // Faces 1, 2, 3 in turn: the edges s3 -> s2, s1 -> s3 and s2 -> s1 (after, then).
    if (!enter(k, 1, s3, s2) || !enter(k, 2, s1, s3) || !enter(k, 3, s2, s1)) return false;
  }
  return true;
}

// The same matching through `face_link_table`, keyed by whole faces: faces 1, 2, 3 of every row
// entered by the face hash, each chain matched against itself by the face comparison. Used when
// a row repeats a node, which the edge matching cannot tell apart.
bool link_by_faces(kernel_workspace& ws, unsigned p, unsigned F, bool& no_memory) noexcept {
  vector_fast& table = ws.face_link_table;
  const unsigned* star = ws.star_tets.col(0);
  unsigned* link = ws.star_neighbors.col(0);
  if (!build_link_table(table, 3 * F)) return !(no_memory = true);
  // The hash is a sum of per-node terms: with p in every face, each face's hash is p's term plus
  // those of its two other nodes (faces 1, 2, 3 leave out s1, s2, s3 in turn).
  const unsigned hp = key_hash(&p, 1);
  for (unsigned k = 0; k < F; ++k) {
    const unsigned* s = star + 4 * std::size_t(k);
    const unsigned h1 = key_hash(s + 1, 1), h2 = key_hash(s + 2, 1), h3 = key_hash(s + 3, 1);
    if (!table.insert(4 * k + 1, hp + h2 + h3) || !table.insert(4 * k + 2, hp + h1 + h3) ||
        !table.insert(4 * k + 3, hp + h1 + h2))
      return !(no_memory = true);
  }
  const unsigned* store = table.store.data();
  auto face_of = [&](unsigned value) {
    const unsigned* s = star + 4 * std::size_t(value >> 2);
    const unsigned* l = tet_face_nodes[value & 3];
    return face_key{{s[l[0]], s[l[1]], s[l[2]]}};
  };
  // With three distinct nodes, the rotation-free comparison of two faces that hold p reduces to
  // that of their two other nodes; anything degenerate goes through compare_keys.
  auto compare_faces = [&](unsigned v1, unsigned v2) {
    const unsigned* s1 = star + 4 * std::size_t(v1 >> 2);
    const unsigned* s2 = star + 4 * std::size_t(v2 >> 2);
    const unsigned a = s1[after[v1 & 3]], b = s1[then[v1 & 3]];
    const unsigned c = s2[after[v2 & 3]], d = s2[then[v2 & 3]];
    if (a + b != c + d) return 0;  // other node sets
    if (a == b || c == d || a == p || b == p || c == p || d == p)
      return compare_keys(face_of(v1), face_of(v2));
    return a == c && b == d ? 1 : (a == d && b == c ? -1 : 0);
  };
  for (unsigned b = 0; b < table.buckets; ++b) {
    std::uint64_t pair;  // (value, link) of the bucket: all ones when it is empty
    std::memcpy(&pair, store + 2 * std::size_t(b), sizeof pair);
    if (pair == ~std::uint64_t(0)) continue;
    for (unsigned p1 = 2 * b;; p1 += store[p1 + 1]) {
      const unsigned v1 = store[p1];
      if (v1 != NONE) {
        unsigned& l1 = link[v1];
        for (unsigned p2 = p1; store[p2 + 1] != NONE;) {
          p2 += store[p2 + 1];
          const unsigned v2 = store[p2];
          if (v2 == NONE) continue;
          const int c = compare_faces(v1, v2);
          if (c == 0) continue;
          unsigned& l2 = link[v2];
          if (c > 0 || l1 != F || l2 != F) return false;
          l1 = v2 >> 2;
          l2 = v1 >> 2;
        }
      }
      if (store[p1 + 1] == NONE) break;
    }
  }
  return true;
}

}  // namespace

void make_hard_face_bits(kernel_workspace& ws, const entity_set& hard) noexcept {
  hard_face_bits& bits = ws.hard_bits;
  bits.set = nullptr;
  const unsigned count = hard.faces.size();
  unsigned log2 = 10;  // 32 bits a face: few other faces fall on a set bit
  while (log2 < 30 && (1u << log2) < 32u * count) ++log2;
  if (!bits.words.resize((1u << log2) >> 5)) return;
  unsigned* words = bits.words.data();
  std::fill_n(words, bits.words.size, 0u);
  const unsigned shift = bits.shift = 32 - log2;
  const face_set& faces = hard.faces;
  const face_key* keys = faces.keys.data();
  const unsigned* next = faces.next.data();
  for (unsigned e = 0, E = faces.keys.size; e < E; ++e) {
    if (next[e] == DELETED) continue;  // erased
    const unsigned* n = keys[e].n;
    const unsigned h = mixed_face_hash(n[0], n[1], n[2]) >> shift;
    words[h >> 5] |= 1u << (h & 31);
  }
  bits.set = &hard;
}

void forget_hard_face_bits(kernel_workspace& ws) noexcept {
  ws.hard_bits.set = nullptr;
}

void collect_cavity(mesh_store& m, unsigned p, dense1D<unsigned>& seeds, cavity_record& cav,
                    double tol) noexcept {
  cav.node = p;
  cav.out_of_memory = false;
  cav.tets.clear();
  cav.faces.clear();
  cav.hard_faces.clear();
  cav.face_qualities.clear();
  cav.face_bits.clear();
  // A tet is claimed by the first tet of the cavity that meets it when it comes off the stack: it
  // joins the cavity (in the order of the faces) when its circumsphere holds the node, and is left
  // out for good otherwise. Four mark values: in the cavity, left out, and the same two for a tet
  // tested ahead of its claim to fill the lanes of a test, which its claim then turns into one of
  // the first two. The tests do not depend on the order in which they are made.
  m.bump_marks(4);
  const mesh_view v(m);
  const unsigned in_cavity = v.mark, left_out = in_cavity + 1, ahead_in = in_cavity + 2,
                 ahead_out = in_cavity + 3;
  unsigned* marks = v.marks;
  // The rows of a cavity are far apart in memory. Each tet taken asks at once for the rows of its
  // neighbours, which are tested when it comes off the stack; and before the tests, for the node
  // each neighbour adds. So the misses of a level overlap instead of coming one by one.
  auto ask_around = [&v](unsigned t) {
    const unsigned* nbs = v.nb(t);
    for (unsigned i = 0; i < 4; ++i) {
      const unsigned nb = nbs[i];
      if (nb == NONE) continue;
      prefetch(v.marks + nb);
      prefetch(v.tet(nb));
      prefetch(v.nb(nb));
    }
  };
  auto ask_points = [&v](unsigned t) {
    const unsigned* n = v.tet(t);
    prefetch(v.point(n[0]));
    prefetch(v.point(n[1]));
    prefetch(v.point(n[2]));
    prefetch(v.point(n[3]));
  };
  // The lists through plain pointers, with room made for the four tets a step can take.
  unsigned *tets = nullptr, *face_bits = nullptr, *stack = nullptr;
  unsigned T = 0, S = seeds.size, tets_room = 0, stack_room = 0;
  auto make_room = [&](unsigned takes) {
    cav.tets.size = cav.face_bits.size = T;
    seeds.size = S;
    if (!cav.tets.reserve(T + takes, 2) || !cav.face_bits.reserve(T + takes, 2) ||
        !seeds.reserve(S + takes, 2))
      return false;
    tets = cav.tets.data();
    face_bits = cav.face_bits.data();
    stack = seeds.data();
    tets_room = std::min(cav.tets.capacity(), cav.face_bits.capacity());
    stack_room = seeds.capacity();
    return true;
  };
  if (!make_room(S)) return out_of_memory(cav, seeds);
  // The seeds, each once in the cavity; the stack holds positions in `cav.tets`, a repeated seed
  // that of its first entry.
  for (unsigned k = 0; k < S; ++k) {
    const unsigned t = stack[k];
    unsigned at = T;
    if (marks[t] == in_cavity) {
      at = 0;
      while (tets[at] != t) ++at;
    } else {
      marks[t] = in_cavity;
      tets[T++] = t;
      ask_around(t);
    }
    stack[k] = at;
  }
  if (T) prefetch(m.colors.data() + tets[0]);
  const double* P = v.point(p);
  const double limit = 1.0 + tol;
  while (S) {
    const unsigned k = stack[--S];
    const unsigned t = tets[k];
    const unsigned* nbs = v.nb(t);
    // The claims of t in the order of its faces: those tested ahead with their answers, the
    // others tested now (marked left out until the test says otherwise). The faces of t come out
    // on the way: bits 0-3 on the boundary, 4-7 inner towards a lower tet.
    unsigned taken[4] = {NONE, NONE, NONE, NONE}, nc = 0, bits = 0;
    unsigned lane[4], lane_face[4], nl = 0;
    for (unsigned i = 0; i < 4; ++i) {
      const unsigned nb = nbs[i];
      if (nb == NONE) {
        bits |= 1u << i;
        continue;
      }
      const unsigned s = marks[nb] - in_cavity;
      if (s >= 4) {
        marks[nb] = left_out;
        ask_points(nb);
        lane[nl] = nb;
        lane_face[nl++] = i;
      } else if (s == 0) {
        bits |= unsigned(nb < t) << (4 + i);
      } else if (s == 2) {
        marks[nb] = in_cavity;
        taken[i] = nb;
        ++nc;
        bits |= unsigned(nb < t) << (4 + i);
      } else {
        marks[nb] = left_out;
        bits |= 1u << i;
      }
    }
    if (nl) {
      const unsigned own = nl;
#if VOXFILL_LANES_AVX
      // Free lanes take the untested neighbours of the next tet on the stack: tests that come
      // anyway. Only below three lanes, where the test would otherwise leave the AVX lanes: a
      // fourth lane filled saves less than the search for it costs.
      if (has_avx && nl < 3 && S) {
        const unsigned* next = v.nb(tets[stack[S - 1]]);
        for (unsigned i = 0; i < 4 && nl < 4; ++i) {
          const unsigned nb = next[i];
          if (nb == NONE || marks[nb] - in_cavity < 4) continue;
          marks[nb] = ahead_out;
          ask_points(nb);
          lane[nl++] = nb;
        }
      }
#endif
      // Four at a time with AVX, else two at a time; the same answers as the one-tet test.
      unsigned in = 0;  // bit l: lane l's tet holds the node
      unsigned l = 0;
#if VOXFILL_LANES_AVX
      if (has_avx && nl >= 3) {
        in = in_circumsphere_avx(v, lane, nl, P, limit);
        l = nl;
      } else if (has_avx && nl == 2) {
        // Two lanes go through the four-lane test too, the second repeated.
        lane[2] = lane[1];
        in = in_circumsphere_avx(v, lane, 3, P, limit) & 3;
        l = nl;
      }
#endif
      if (l < nl) in |= in_circumsphere_rest(v, lane, l, nl, P, limit);
      for (l = 0; l < own; ++l) {
        const unsigned nb = lane[l], i = lane_face[l];
        if ((in >> l) & 1) {
          marks[nb] = in_cavity;
          taken[i] = nb;
          ++nc;
          bits |= unsigned(nb < t) << (4 + i);
        } else {
          bits |= 1u << i;
        }
      }
      for (; l < nl; ++l)
        if ((in >> l) & 1) marks[lane[l]] = ahead_in;
    }
    face_bits[k] = bits;
    if (!nc) continue;
    if ((T + nc > tets_room || S + nc > stack_room) && !make_room(nc))
      return out_of_memory(cav, seeds);
    for (unsigned i = 0; i < 4; ++i) {  // taken in the order of the faces
      const unsigned nb = taken[i];
      if (nb == NONE) continue;
      stack[S++] = T;
      tets[T++] = nb;
      ask_around(nb);
    }
  }
  cav.tets.size = cav.face_bits.size = T;
  seeds.size = 0;
}

void correct_cavity(mesh_store& m, kernel_workspace& ws, cavity_record& cav,
                    kernel_mode_type kernel_mode, const entity_set& hard_set) noexcept {
  if (cav.tets.size == 0) return;
  bool edge_check = kernel_mode == kernel_mode_type::hard_edges;
  // The marks of the collection hold the cavity's tets in the current generation.
  const mesh_view v(m);
  const double* P = v.point(cav.node);

  // Boundary faces, in the order of the tets and then of their faces. With hard faces to honour,
  // the inner faces seen from the higher tet index (bits 4-7), which alone can be hard faces, are
  // looked at below.
  const unsigned T = cav.tets.size;
  const bool hard_check = kernel_mode != kernel_mode_type::plain && hard_set.faces.size() > 0;
  cav.faces.clear();
  cav.hard_faces.clear();
  cav.face_qualities.clear();
  if (T > 0x3FFFFFFFu || !cav.faces.reserve(4 * T) || !cav.face_qualities.reserve(4 * T))
    return out_of_memory(cav);
  unsigned any_inner = 0;
  bool flat = false;  // a face without a positive new tet
  double qmin = NO_VALUE;
  {
    // Each face listed with its new tet (P, face nodes) put into the lanes of a quality call at
    // once, four at a time; the last group of two or three repeats its last face, a last single
    // face goes alone.
    unsigned* faces = cav.faces.data();
    double* q = cav.face_qualities.data();
    const unsigned* tets = cav.tets.data();
    const unsigned* face_bits = cav.face_bits.data();
    double* tet_qualities = m.tet_qualities.data();
    unsigned* tet_stamps = m.tet_stamps.data();
    const double* p[16];
    double out[4];
    unsigned F = 0, nl = 0;
    // A full group writes its qualities in place. The lanes beyond `count` repeat the last face,
    // so all four may go into the flat test and the smallest quality (which is only compared).
    auto take_lanes = [&](unsigned count) {
      double* r = count == 4 ? q + F - 4 : out;
      tet_quality_lanes(p, r);
      if (count < 4) std::copy_n(out, count, q + F - count);
#if defined(__SSE2__)
      const __m128d lo = _mm_loadu_pd(r), hi = _mm_loadu_pd(r + 2);
      const __m128d tol = _mm_set1_pd(STAR_TOL);
      flat |= _mm_movemask_pd(_mm_or_pd(_mm_cmpngt_pd(lo, tol), _mm_cmpngt_pd(hi, tol))) != 0;
      const __m128d two = _mm_min_pd(lo, hi);
      const double least = _mm_cvtsd_f64(_mm_min_sd(two, _mm_unpackhi_pd(two, two)));
      qmin = least < qmin ? least : qmin;
#else
      for (unsigned l = 0; l < 4; ++l) {
        flat |= !(r[l] > STAR_TOL);
        qmin = r[l] < qmin ? r[l] : qmin;
      }
#endif
    };
    for (unsigned k = 0; k < T; ++k) {
      const unsigned t = tets[k], bits = face_bits[k];
      // Rows that the star will mostly rewrite.
      prefetch_for_write(tet_qualities + t);
      prefetch_for_write(tet_stamps + t);
      any_inner |= bits;
      const unsigned* n = v.tet(t);
      for (unsigned b = bits & 15; b; b &= b - 1) {
        const unsigned i = unsigned(__builtin_ctz(b));
        const unsigned* f = tet_face_nodes[i];
        faces[F++] = 4 * t + i;
        const double** r = p + 4 * nl;
        r[0] = P;
        r[1] = v.point(n[f[0]]);
        r[2] = v.point(n[f[1]]);
        r[3] = v.point(n[f[2]]);
        if (++nl == 4) {
          take_lanes(4);
          nl = 0;
        }
      }
    }
    if (nl == 1) {
      q[F - 1] = tet_quality(p[0], p[1], p[2], p[3]);
      flat |= !(q[F - 1] > STAR_TOL);
      qmin = q[F - 1] < qmin ? q[F - 1] : qmin;
    } else if (nl) {
      for (unsigned l = nl; l < 4; ++l) std::copy_n(p + 4 * (nl - 1), 4, p + 4 * l);
      take_lanes(nl);
    }
    cav.faces.size = cav.face_qualities.size = F;
  }
  any_inner = hard_check ? any_inner >> 4 : 0;
  if (any_inner) {
    const unsigned before = cav.faces.size;
    if (!add_hard_faces(v, cav, cav.face_bits.data(), hard_set, ws.hard_bits, P))
      return out_of_memory(cav);
    flat |= cav.faces.size != before;
  }
  // Without a flat face (so without NaN either) the smallest quality holds until a rebuild.
  if (flat) qmin = NO_VALUE;

  for (;;) {
    // Every new tet must be positive: a face that P does not see from inside drops its tet.
    // (The first time, only when some face is known to fail.)
    while (flat && cav.faces.size) {
      const mesh_view u(m);
      bool removed = false;
      for (unsigned k = 0; k < cav.faces.size; ++k) {
        if (cav.face_qualities[k] > STAR_TOL) continue;
        const unsigned t = cav.faces[k] >> 2;
        if (u.marked(t)) {
          u.unset(t);
          removed = true;
        }
      }
      if (!removed) break;
      if (!rebuild(u, cav, P)) return out_of_memory(cav);
    }
    flat = true;

    unsigned victim = NONE;
    bool decided = false;
    if (edge_check) {
      const mesh_view u(m);
      edge_key e{{NONE, NONE}};
      if (hard_edge_inside(ws, u, cav, hard_set, e)) {
        victim = pick_victim(m, u, cav, e.n[0], e.n[1]);
        decided = true;
      } else {
        edge_check = false;  // this cavity is not checked for hard edges again
      }
    }
    if (!decided) {
      unsigned node = NONE;
      const surface s = surface_test(m, ws, cav, qmin, node);
      if (s == surface::ok) return;
      if (s == surface::node) victim = pick_victim(m, mesh_view(m), cav, node, NONE);
    }
    if (victim == NONE) {
      abandon(cav);
      return;
    }
    const mesh_view u(m);
    u.unset(victim);
    qmin = NO_VALUE;
    if (!rebuild(u, cav, P)) return out_of_memory(cav);
    if (cav.tets.size == 0) return;
  }
}

bool fill_star(mesh_store& m, kernel_workspace& ws, cavity_record& cav,
               dense1D<unsigned>& out) noexcept {
  out.clear();
  const unsigned T = cav.tets.size, F = cav.faces.size;
  const unsigned reused = T < F ? T : F;
  if (T + F == 0) return true;
  if (T == 0) return false;
  const unsigned* old_tets = cav.tets.data();
  const unsigned color = m.colors[old_tets[0]];
  const unsigned p = cav.node;

  if (!ws.star_tets.resize(4, F) || !ws.star_neighbors.resize(4, F)) {
    ws.star_tets.clear();
    ws.star_neighbors.clear();
    cav.out_of_memory = true;
    return false;
  }
  unsigned* star = ws.star_tets.col(0);
  unsigned* link = ws.star_neighbors.col(0);
  unsigned* faces = cav.faces.data();
  // Links are star rows, F for none: the final pass reads them through `made`, whose entry F is
  // NONE.
  std::fill_n(link, 4 * std::size_t(F), F);
  // Rows with a repeated node (or p among the face's nodes) are left to the general matching.
  bool degenerate = F >= star_edge_table::PAIRED / 4;
  {
#if defined(__SSE2__)
    __m128i repeated = _mm_setzero_si128();  // lanes of rows with a repeated node
#endif
    const mesh_view v(m);
    const unsigned* anc = m.ancestors.data();
    for (unsigned k = 0; k < F; ++k) {
      const unsigned code = faces[k];
      const unsigned t = code >> 2, i = code & 3;
      const unsigned* n = v.tet(t);
      const unsigned* f = tet_face_nodes[i];
      // Node p in the place of the node opposite the face: an even order, so the new tet is
      // positive when p sees the face from inside, and its face 0 is the cavity face.
      unsigned* s = star + 4 * std::size_t(k);
      const unsigned s1 = n[f[0]], s2 = n[f[1]], s3 = n[f[2]];
      auto repeats = [&]() {
        return (s1 == s2) | (s1 == s3) | (s2 == s3) | (s1 == p) | (s2 == p) | (s3 == p);
      };
#if defined(__SSE2__)
      // The row in one register: compared with itself turned by one and by two places, it meets
      // each of its six pairs.
      const __m128i row = _mm_set_epi32(int(s3), int(s2), int(s1), int(p));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(s), row);
      if (has_sse2)
        repeated = _mm_or_si128(
            repeated,
            _mm_or_si128(_mm_cmpeq_epi32(row, _mm_shuffle_epi32(row, _MM_SHUFFLE(0, 3, 2, 1))),
                         _mm_cmpeq_epi32(row, _mm_shuffle_epi32(row, _MM_SHUFFLE(1, 0, 3, 2)))));
      else
        degenerate |= repeats();
#else
      s[0] = p;
      s[1] = s1;
      s[2] = s2;
      s[3] = s3;
      degenerate |= repeats();
#endif
      prefetch_for_write(anc + s1);
      const unsigned nb = v.nb(t)[i];
      faces[k] = nb == NONE ? NONE : 4 * nb + v.back_face_of_neighbor(nb, t);
    }
#if defined(__SSE2__)
    degenerate |= _mm_movemask_epi8(repeated) != 0;
#endif
  }

  // Faces 1 to 3 of the new tets hold p; each must meet exactly one reversed twin.
  auto fail = [&]() {
    ws.star_tets.clear();
    ws.star_neighbors.clear();
    return false;
  };
  auto short_of_memory = [&]() {
    cav.out_of_memory = true;
    return fail();
  };
  bool no_memory = false;
  if (!(degenerate ? link_by_faces(ws, p, F, no_memory) : link_by_edges(ws, F, no_memory))) {
    cav.out_of_memory = no_memory;
    return fail();
  }

  // Room for every new row before the mesh is touched, so that nothing can fail half-way.
  if (F > T) {
    const unsigned extra = F - T;
    const unsigned cols = m.tets.cols();
    const unsigned spare = m.tets.free_stack.size;
    if (extra > spare) {
      const unsigned need = cols + (extra - spare);
      const bool short_of_room = m.tets.data.capacity_cols() < need ||
                                 m.neighbors.data.capacity_cols() < need ||
                                 m.colors.capacity() < need || m.tet_qualities.capacity() < need ||
                                 m.tet_stamps.capacity() < need;
      if (short_of_room && !m.reserve(m.nodes.cols(), need > 2 * cols ? need : 2 * cols))
        return short_of_memory();
      if (!m.cover_marks(need - 1)) return short_of_memory();
    }
  }
  if (!out.reserve(F + 1)) return short_of_memory();
  unsigned* made = out.data();
  made[F] = NONE;

  const double* qualities = cav.face_qualities.data();
  {
    const mesh_view v(m);
    double* tet_qualities = m.tet_qualities.data();
    unsigned* stamps = m.tet_stamps.data();
    const unsigned clock = m.tet_clock;
    for (unsigned k = 0; k < reused; ++k) {
      const unsigned t = old_tets[k];
      std::memcpy(v.tet(t), star + 4 * std::size_t(k), 4 * sizeof(unsigned));
      tet_qualities[t] = qualities[k];
      stamps[t] = clock;
      made[k] = t;
    }
  }
  if (!m.append_tets(star + 4 * std::size_t(reused), qualities + reused, F - reused, color,
                     made + reused))
    for (unsigned k = reused; k < F; ++k) {
      const unsigned* s = star + 4 * std::size_t(k);
      const unsigned t = m.new_tet(s[0], s[1], s[2], s[3], color, qualities[k]);
      VOXFILL_ASSERT(t != NONE);
      made[k] = t;
    }
  out.size = F;
  for (unsigned k = reused; k < T; ++k) m.release_tet(old_tets[k]);

  const mesh_view v(m);
  unsigned* anc = m.ancestors.data();
  for (unsigned k = 0; k < F; ++k) {
    // Everything read before the first store, which could otherwise alias each later read.
    const unsigned t = made[k];
    unsigned* nbs = v.nb(t);
    const unsigned outside = faces[k];
    const unsigned* l = link + 4 * std::size_t(k);
    const unsigned* s = star + 4 * std::size_t(k);
    const unsigned n1 = made[l[1]], n2 = made[l[2]], n3 = made[l[3]];
    const unsigned s1 = s[1], s2 = s[2], s3 = s[3];
    nbs[0] = outside == NONE ? NONE : outside >> 2;
    nbs[1] = n1, nbs[2] = n2, nbs[3] = n3;
    if (outside != NONE) v.nb(outside >> 2)[outside & 3] = t;
    anc[s1] = t, anc[s2] = t, anc[s3] = t;
  }
  if (F) anc[p] = made[F - 1];  // p is node 0 of every row: the last row wins, as for the others
  ws.star_tets.clear();
  ws.star_neighbors.clear();
  return true;
}

}  // namespace kelvo::voxfill
