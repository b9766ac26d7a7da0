// Hard entities of the input: registration in the hard set, and the list of those the mesh lacks.
#include "voxfill/boundary/hard_entities.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <new>

#include "delaunay/mesh_walks.h"
#include "delaunay/tet_tables.h"

namespace kelvo::voxfill {

void register_hard_entities(mesh_store& m, mesher::data_type& data, bool keep_two_way,
                            const task_type& task) {
  if (*task.error_code != 0 || *task.warning_code == -10) return;
  entity_set& h = m.hard_set;
  h.clear_hard();
  const dense2D<unsigned>& B = data.connectB;
  const dense2D<unsigned>& E = data.connectE;
  const dense1D<unsigned>& iso = data.isolated_nodes;
  const unsigned nB = B.empty() ? 0 : B.cols, nE = E.empty() ? 0 : E.cols;

  // About 1.5 sides per triangle on a closed surface; the face table gets a bucket per face.
  // A set short of memory would leave entities out unnoticed: the run ends with a memory error.
  bool ok = true;
  unsigned buckets = 8;
  while (buckets < (3 * nB / 2 + nE)) buckets <<= 1;
  ok = h.edges.rehash(buckets) && ok;
  buckets = 8;
  while (buckets < nB) buckets <<= 1;
  ok = h.faces.rehash(buckets) && ok;

  unsigned top = 0;
  for (unsigned k = 0; k < iso.size; ++k) top = iso[k] > top ? iso[k] : top;
  for (unsigned j = 0; j < nE; ++j) top = std::max({top, E(0, j), E(1, j)});
  ok = h.node_bits.grow(top + 1) && ok;

  for (unsigned k = 0; k < iso.size && ok; ++k) ok = h.add_node(iso[k]);
  for (unsigned j = 0; j < nE && ok; ++j) ok = h.add_edge(E(0, j), E(1, j), keep_two_way);
  for (unsigned j = 0; j < nB && ok; ++j) ok = h.add_face(B(0, j), B(1, j), B(2, j), keep_two_way);
  if (!ok) throw std::bad_alloc();

  data.hard_nodes_in = h.node_count;
  data.hard_edges_in = h.edges.size();
  data.hard_faces_in = h.faces.size();
  if (task.settings->nodes_limit < h.node_count) task.raise_error(msg::insufficient_nodes_limit);
}

void hard_nodes_and_box(const mesh_store& m, dense1D<unsigned>& list, double lo[3], double hi[3]) {
  list.clear();
  const bit_set& bits = m.hard_set.node_bits;
  list.reserve(m.hard_set.node_count);
  for (unsigned n = 0; n < bits.length && n < m.nodes.cols(); ++n)
    if (bits.test(n)) list.push_back(n);
  for (unsigned k = 0; k < 3; ++k) {
    lo[k] = list.size ? m.nodes(k, list[0]) : 0.0;
    hi[k] = lo[k];
  }
  for (unsigned n : list)
    for (unsigned k = 0; k < 3; ++k) {
      const double x = m.nodes(k, n);
      if (!std::isfinite(x)) {
        // A box that cannot be made: the kernel refuses it with its own error.
        lo[0] = lo[1] = lo[2] = hi[0] = hi[1] = hi[2] = std::nan("");
        return;
      }
      lo[k] = std::min(lo[k], x);
      hi[k] = std::max(hi[k], x);
    }
}

namespace {

// The pass of hard_face_holders; with `keep`, also the tets of each face met into `tets`.
template <bool keep>
bool holders_pass(const mesh_store& m, dense1D<unsigned char>& holders,
                  hard_face_tets* tets) noexcept {
  const entity_set& h = m.hard_set;
  holders.clear();
  if (!holders.resize(h.faces.keys.size, 0)) return false;
  [[maybe_unused]] unsigned* pairs = nullptr;
  if constexpr (keep) {
    tets->usable = false;
    tets->pairs.clear();
    if (!tets->pairs.resize(2 * h.faces.keys.size, NONE)) return false;
    pairs = tets->pairs.empty() ? nullptr : tets->pairs.begin();
  }
  [[maybe_unused]] bool twice = false;
  const unsigned T = m.tets.cols();
  if (T == 0) {
    if constexpr (keep) tets->usable = true;
    return true;
  }
  // The tables through plain pointers taken once: the byte stores into `holders` would otherwise
  // make the compiler read every table's handle again for each tet.
  const unsigned ldt = m.tets.data.ld, ldn = m.neighbors.data.ld;
  const unsigned* rows = m.tets.data.col(0);
  const unsigned* nbs = m.neighbors.data.col(0);
  const unsigned* colors = m.colors.begin();
  const unsigned* node_words = h.node_bits.words.empty() ? nullptr : h.node_bits.words.begin();
  const unsigned node_length = h.node_bits.length;
  unsigned char* held = holders.empty() ? nullptr : holders.begin();
  const bool filtered = h.face_bits_shift < 32;
  const unsigned* bits = filtered ? h.face_bits.begin() : nullptr;
  const unsigned shift = h.face_bits_shift;
  auto has_node = [&](unsigned v) {
    return v < node_length && (node_words[v >> 5] >> (v & 31)) & 1u;
  };
  for (unsigned t = 0; t < T; ++t) {
    const unsigned color = colors[t];
    if (color == DELETED) continue;
    const unsigned* n = rows + std::size_t(ldt) * t;
    bool hard[4];
    unsigned count = 0;
    for (unsigned i = 0; i < 4; ++i) count += (hard[i] = has_node(n[i]));
    if (count < 3) continue;
    const bool inside = color_in_domain(color);
    const unsigned* nb4 = nbs + std::size_t(ldn) * t;
    // The filter's hash of face i is the sum of the mixed terms of the nodes but i: the four
    // terms once, not three for each face.
    unsigned term[4], total = 0;
    if (filtered)
      for (unsigned i = 0; i < 4; ++i) total += (term[i] = mixed_node_term(n[i]));
    for (unsigned i = 0; i < 4; ++i) {
      if (count - hard[i] < 3) continue;
      // A face between two live tets is looked up once, from the higher one.
      const unsigned nb = nb4[i];
      const bool twin = nb != NONE && colors[nb] != DELETED;
      if (twin && nb > t) continue;
      if (filtered) {  // as may_have_face
        const unsigned x = (total - term[i]) >> shift;
        if (!((bits[x >> 5] >> (x & 31)) & 1u)) continue;
      }
      const unsigned* f = tet_face_nodes[i];
      const unsigned e = h.faces.find(face_key{{n[f[0]], n[f[1]], n[f[2]]}});
      if (e == NONE) continue;
      held[e] |= inside || (twin && color_in_domain(colors[nb])) ? 3 : 1;
      if constexpr (keep) {
        twice |= pairs[2 * e] != NONE;
        pairs[2 * e] = t;
        pairs[2 * e + 1] = nb;
      }
    }
  }
  if constexpr (keep) tets->usable = !twice;
  return true;
}

}  // namespace

bool hard_face_holders(const mesh_store& m, dense1D<unsigned char>& holders) noexcept {
  return holders_pass<false>(m, holders, nullptr);
}

bool hard_face_holders(const mesh_store& m, dense1D<unsigned char>& holders,
                       hard_face_tets& tets) noexcept {
  return holders_pass<true>(m, holders, &tets);
}

bool holders_from_tets(const mesh_store& m, const hard_face_tets& tets,
                       dense1D<unsigned char>& holders) noexcept {
  const unsigned count = tets.pairs.size / 2;
  holders.clear();
  if (!holders.resize(count, 0)) return false;
  const unsigned* colors = m.colors.begin();
  // The pass looks a face up from the higher of its two live tets, or from its only live one;
  // either way the face is held when one of them lives, in the domain when a live one is in it.
  for (unsigned e = 0; e < count; ++e) {
    const unsigned t = tets.pairs[2 * e], nb = tets.pairs[2 * e + 1];
    if (t == NONE) continue;
    const bool live_t = colors[t] != DELETED, live_nb = nb != NONE && colors[nb] != DELETED;
    if (!live_t && !live_nb) continue;
    const bool inside =
        (live_t && color_in_domain(colors[t])) || (live_nb && color_in_domain(colors[nb]));
    holders[e] = inside ? 3 : 1;
  }
  return true;
}

unsigned holder_entry(const mesh_store& m, const dense1D<unsigned char>& holders, unsigned a,
                      unsigned b, unsigned c) noexcept {
  const unsigned count = m.ancestors.size;
  if (a == b || b == c || a == c || a >= count || b >= count || c >= count) return NONE;
  const unsigned e = m.hard_set.faces.find(face_key{{a, b, c}});
  return e < holders.size ? e : NONE;
}

void collect_missing(mesh_store& m, const dense2D<unsigned>& connectB,
                     const dense2D<unsigned>& connectE, const dense1D<unsigned>& isolated_nodes,
                     bool with_entity_nodes, std::vector<std::array<unsigned, 3>>& absent_faces,
                     std::vector<std::array<unsigned, 2>>& absent_edges,
                     dense1D<unsigned>& absent_nodes, hard_face_tets* face_tets) {
  absent_faces.clear();
  absent_edges.clear();
  absent_nodes.clear();
  const unsigned count = m.ancestors.size;
  dense1D<unsigned> list;  // tets of one entity
  // The hard faces that the tets hold, in one pass: far cheaper than a walk around each face.
  dense1D<unsigned char> holders;
  if (face_tets) face_tets->usable = false;
  if (!connectB.empty() &&
      !(face_tets ? hard_face_holders(m, holders, *face_tets) : hard_face_holders(m, holders)))
    holders.clear();
  unsigned* entries = nullptr;
  if (face_tets && face_tets->usable) {
    face_tets->entries.clear();
    if (face_tets->entries.resize(connectB.empty() ? 0 : connectB.cols))
      entries = face_tets->entries.begin();
    else
      face_tets->usable = false;
  }
  if (!connectB.empty())
    for (unsigned j = 0; j < connectB.cols; ++j) {
      const unsigned a = connectB(0, j), b = connectB(1, j), c = connectB(2, j);
      const unsigned e = holder_entry(m, holders, a, b, c);
      if (entries) entries[j] = e;
      const bool held = e != NONE ? holders[e] != 0 : find_face_tet(m, a, b, c, list) != NONE;
      if (!held) absent_faces.push_back({a, b, c});
    }
  if (!connectE.empty())
    for (unsigned j = 0; j < connectE.cols; ++j) {
      const unsigned a = connectE(0, j), b = connectE(1, j);
      if (edge_tet(m, a, b) == NONE) absent_edges.push_back({a, b});
    }
  auto missing = [&](unsigned n) { return n >= count || m.ancestors[n] == NONE; };
  for (unsigned k = 0; k < isolated_nodes.size; ++k)
    if (missing(isolated_nodes[k])) absent_nodes.push_back(isolated_nodes[k]);
  if (with_entity_nodes) {
    for (const auto& f : absent_faces)
      for (unsigned n : f)
        if (missing(n)) absent_nodes.push_back(n);
    for (const auto& e : absent_edges)
      for (unsigned n : e)
        if (missing(n)) absent_nodes.push_back(n);
  }
  // Drop repeats, keeping first occurrences; marks are indexed by node here.
  m.bump_marks();
  unsigned kept = 0;
  for (unsigned k = 0; k < absent_nodes.size; ++k) {
    const unsigned n = absent_nodes[k];
    if (n < m.marks.size) {
      if (m.marked(n)) continue;
      m.mark(n);
    }
    absent_nodes[kept++] = n;
  }
  absent_nodes.size = kept;
}

}  // namespace kelvo::voxfill
