// Sorting tets into subdomains and outside by floods that stop at hard faces, and the report of
// the hard entities the mesh could not hold.
#include "voxfill/boundary/domain_classification.h"

#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

#include "delaunay/mesh_walks.h"
#include "delaunay/tet_tables.h"
#include "voxfill/boundary/hard_entities.h"

namespace kelvo::voxfill {
namespace {

unsigned start_tet(const mesh_store& m) {
  if (m.box_nodes.empty()) return NONE;
  const unsigned corner = m.box_nodes[0];
  return corner < m.ancestors.size ? m.ancestors[corner] : NONE;
}

}  // namespace

unsigned flood_colors(mesh_store& m, const hard_face_tets* face_tets) {
  const unsigned count = m.tets.cols();
  if (count == 0 || count == m.tets.free_stack.size) return 0;
  // With the tets on the hard faces known, a bit per tet face marks the hard ones between two
  // tets, which are all the flood asks about: no face is looked up.
  std::vector<unsigned char> walls;
  if (face_tets) walls.assign(count, 0);
  const unsigned mv = m.bump_marks();
  // The tables through plain pointers taken once; the hard-face test as has_face makes it, with
  // the node bits and the filter's node terms of a tet worked out once for its four faces.
  unsigned* mk = m.marks.begin();
  const unsigned msize = m.marks.size;
  unsigned* colors = m.colors.begin();
  const unsigned ldt = m.tets.data.ld, ldn = m.neighbors.data.ld;
  const unsigned* rows = m.tets.data.col(0);
  const unsigned* nbs = m.neighbors.data.col(0);
  const entity_set& h = m.hard_set;
  const unsigned* node_words = h.node_bits.words.empty() ? nullptr : h.node_bits.words.begin();
  const unsigned node_length = h.node_bits.length;
  const bool filtered = h.face_bits_shift < 32;
  const unsigned* bits = filtered ? h.face_bits.begin() : nullptr;
  const unsigned shift = h.face_bits_shift;
  auto has_node = [&](unsigned v) {
    return v < node_length && (node_words[v >> 5] >> (v & 31)) & 1u;
  };
  auto marked = [&](unsigned t) { return t < msize && mk[t] == mv; };
  for (unsigned t = 0; t < count; ++t)
    if (colors[t] == DELETED) mk[t] = mv;
  if (face_tets) {
    const unsigned* pairs = face_tets->pairs.begin();
    auto wall = [&](unsigned t, unsigned u) {
      const unsigned* nb4 = nbs + std::size_t(ldn) * t;
      for (unsigned i = 0; i < 4; ++i)
        if (nb4[i] == u) walls[t] |= std::uint8_t(1u << i);
    };
    for (unsigned k = 0; k + 1 < face_tets->pairs.size; k += 2) {
      const unsigned t = pairs[k], u = pairs[k + 1];
      if (t >= count || u >= count) continue;
      wall(t, u);
      wall(u, t);
    }
  }
  const unsigned char* wall_bits = walls.empty() ? nullptr : walls.data();
  unsigned c = NONE;
  unsigned next = 0;  // scan position for the next unmarked tet
  unsigned seed = start_tet(m);
  dense1D<unsigned>& stack = m.work_stack;
  stack.clear();
  if (!stack.reserve(64)) return 0;
  unsigned* st = stack.data();
  unsigned ns = 0, room = stack.capacity();
  for (;;) {
    if (seed == NONE || marked(seed)) {
      while (next < count && marked(next)) ++next;
      if (next == count) break;
      seed = next;
      ++c;
    }
    // A tet is marked when it is stacked, so that it is stacked and its faces are tested once:
    // the flood reaches the same tets in any order.
    if (ns + 1 > room) {
      if (!stack.reserve(2 * (ns + 4))) break;
      st = stack.data();
      room = stack.capacity();
    }
    st[ns++] = seed;
    mk[seed] = mv;
    seed = NONE;
    while (ns) {
      const unsigned t = st[--ns];
      colors[t] = c;
      const unsigned* n = rows + std::size_t(ldt) * t;
      const unsigned* nb4 = nbs + std::size_t(ldn) * t;
      if (ns + 4 > room) {
        stack.size = ns;
        if (!stack.reserve(2 * (ns + 4))) break;
        st = stack.data();
        room = stack.capacity();
      }
      unsigned hard = NONE;  // bit i: node i is hard; NONE until worked out
      unsigned term[4], total = 0;
      for (unsigned f = 0; f < 4; ++f) {
        const unsigned nb = nb4[f];
        if (nb == NONE || marked(nb)) continue;
        if (wall_bits) {
          if (!((wall_bits[t] >> f) & 1u)) {
            mk[nb] = mv;
            st[ns++] = nb;
          }
          continue;
        }
        if (hard == NONE) {
          hard = 0;
          for (unsigned i = 0; i < 4; ++i) hard |= unsigned(has_node(n[i])) << i;
          if (filtered)
            for (unsigned i = 0; i < 4; ++i) total += (term[i] = mixed_node_term(n[i]));
        }
        // Face f: the nodes but f, all hard, the filter's bit set and the face in the table.
        bool wall = (hard | (1u << f)) == 15u;
        if (wall && filtered) {
          const unsigned x = (total - term[f]) >> shift;
          wall = (bits[x >> 5] >> (x & 31)) & 1u;
        }
        if (wall) {
          const unsigned* l = tet_face_nodes[f];
          wall = h.faces.find(face_key{{n[l[0]], n[l[1]], n[l[2]]}}) != NONE;
        }
        if (!wall) {
          mk[nb] = mv;
          st[ns++] = nb;
        }
      }
    }
  }
  stack.size = 0;
  return c + 1;
}

void order_subdomains(mesh_store& m, unsigned& count, unsigned subdomain_rule, int& boundary_sign) {
  const unsigned start = start_tet(m);
  if (m.tets.cols() == 0 || count == 0 || start == NONE) return;
  dense1D<unsigned> region_map(count, DELETED);
  if (region_map.size != count) throw std::bad_alloc();  // the run turns it into its memory error
  // First-in first-out lists as vectors read from a head: nothing is taken from their fronts
  // until they are empty, when they start over.
  std::vector<unsigned> queue[2];
  std::size_t head[2] = {0, 0};
  std::vector<unsigned> pending;
  queue[0].push_back(start);
  unsigned number = NONE;  // last subdomain number given; NONE: none yet
  int sign = 0;
  unsigned current = 0;
  bool consistent = true;
  const unsigned mark = m.bump_marks();
  const unsigned marks_size = m.marks.size;
  unsigned* marks = m.marks.begin();
  const unsigned* colors = m.colors.begin();
  const entity_set& hard = m.hard_set;
  auto marked = [&](unsigned t) { return t < marks_size && marks[t] == mark; };
  for (;;) {
    while (head[current] < queue[current].size()) {
      const unsigned t = queue[current][head[current]++];
      if (marked(t)) continue;
      marks[t] = mark;
      const unsigned c = colors[t];
      if (c != NONE && c < count && region_map[c] == DELETED)
        region_map[c] = current == 0 ? NONE : ++number;
      const unsigned* n = m.tets.row(t);
      const unsigned* nbs = m.neighbors.row(t);
      for (unsigned f = 0; f < 4; ++f) {
        const unsigned nb = nbs[f];
        if (nb == NONE || marked(nb)) continue;
        if (colors[nb] == c) {
          queue[current].push_back(nb);
          continue;
        }
        const unsigned* l = tet_face_nodes[f];
        const face_key key{{n[l[0]], n[l[1]], n[l[2]]}};
        int dir = 0;
        int o = 0;
        if (hard.faces.find(key, &dir) != NONE && !hard.two_way_faces.contains(key)) o = -dir;
        if (number == NONE && (o == 0 || (sign != 0 && sign != o))) consistent = false;
        if (o == 0) {
          pending.push_back(nb);
          continue;
        }
        if (sign == 0) sign = o;
        unsigned k = subdomain_rule == 0 ? (o == sign ? 1u : 0u) : subdomain_rule == 1 ? 1u : 0u;
        if (number == NONE) k = 1;
        queue[k].push_back(nb);
      }
    }
    queue[current].clear();
    head[current] = 0;
    current ^= 1u;
    if (head[current] < queue[current].size()) continue;
    if (!pending.empty()) {
      current = 1;
      queue[1].insert(queue[1].end(), pending.begin(), pending.end());
      pending.clear();
      continue;
    }
    break;
  }
  boundary_sign = consistent ? sign : 0;
  for (unsigned t = 0; t < m.colors.size; ++t) {
    const unsigned c = m.colors[t];
    if (color_in_domain(c)) m.colors[t] = c < count ? region_map[c] : DELETED;
  }
  count = number + 1;
}

void single_domain_colors(mesh_store& m) {
  const unsigned count = m.tets.cols();
  if (count == 0 || count == m.tets.free_stack.size) return;
  for (unsigned t = 0; t < count; ++t)
    if (m.tet_live(t)) m.colors[t] = 0;
  dense1D<unsigned> ball;  // tets around one corner
  for (unsigned k = 0; k < m.box_nodes.size; ++k) {
    ball_of_node(m, m.box_nodes[k], NONE, ball);
    for (unsigned t : ball) m.colors[t] = NONE;
  }
}

void propagate_unenforced(mesh_store& m) {
  entity_set& u = m.unenforced_set;
  const entity_set& h = m.hard_set;
  if (u.node_count != 0)
    for (unsigned e = 0; e < h.edges.keys.size; ++e) {
      if (!h.edges.live(e)) continue;
      const edge_key& k = h.edges.keys[e];
      if (u.has_node(k.n[0]) || u.has_node(k.n[1])) u.add_edge(k.n[0], k.n[1]);
    }
  if (u.edges.size() != 0)
    for (unsigned f = 0; f < h.faces.keys.size; ++f) {
      if (!h.faces.live(f)) continue;
      const face_key& k = h.faces.keys[f];
      const unsigned a = k.n[0], b = k.n[1], c = k.n[2];
      if (u.edges.contains(edge_key{{a, b}}) || u.edges.contains(edge_key{{b, c}}) ||
          u.edges.contains(edge_key{{c, a}}))
        u.add_face(a, b, c);
    }
}

void report_hard_entities(mesh_store& m, mesher::data_type& data, bool strict_constraints,
                          const task_type& task, const hard_face_tets* face_tets) {
  const int err = data.error_code;
  if (err == -101 || err == -102 || err == -199) return;
  data.missing_faces.clear();
  data.missing_edges.clear();
  data.missing_nodes.clear();
  data.conflicting_faces.clear();
  const entity_set& u = m.unenforced_set;
  unsigned lost = 0;
  dense1D<unsigned> list;  // tets of one entity
  auto any_in_domain = [&](const dense1D<unsigned>& tets) {
    for (unsigned t : tets)
      if (t < m.colors.size && m.tet_in_domain(t)) return true;
    return false;
  };
  const dense2D<unsigned>& B = data.connectB;
  // Which tets hold the hard faces, in one pass instead of a walk around each face.
  dense1D<unsigned char> holders;
  // With the tets on the hard faces known, the colours alone give the same bytes.
  if (!B.empty() &&
      !(face_tets ? holders_from_tets(m, *face_tets, holders) : hard_face_holders(m, holders)))
    holders.clear();
  // The entries of the faces too, as the recovery's first pass found them: no node came or went.
  const unsigned* entries =
      face_tets && !holders.empty() && !B.empty() && face_tets->entries.size == B.cols
          ? face_tets->entries.begin()
          : nullptr;
  if (!B.empty())
    for (unsigned i = 0; i < B.cols; ++i) {
      const unsigned a = B(0, i), b = B(1, i), c = B(2, i);
      if (a == b || b == c || a == c) continue;
      bool held = false, in_domain = false;
      const unsigned e = entries ? entries[i] : holder_entry(m, holders, a, b, c);
      if (e != NONE) {
        held = holders[e] != 0;
        in_domain = (holders[e] & 2) != 0;
      } else {
        tets_of_face(m, a, b, c, list);
        held = list.size != 0;
        in_domain = any_in_domain(list);
      }
      const bool unenforced = u.has_face(a, b, c);
      if (!in_domain) {
        data.missing_faces.push_back(i);
        if (!held && !unenforced) ++lost;
      }
      if (unenforced) data.conflicting_faces.push_back(i);
    }
  const dense2D<unsigned>& E = data.connectE;
  if (!E.empty())
    for (unsigned j = 0; j < E.cols; ++j) {
      const unsigned a = E(0, j), b = E(1, j);
      if (a == b) continue;
      shell_of_edge(m, a, b, NONE, list);
      if (!any_in_domain(list)) data.missing_edges.push_back(j);
    }
  const bit_set& bits = m.hard_set.node_bits;
  for (unsigned n = 0; n < bits.length; ++n) {
    if (!bits.test(n)) continue;
    const unsigned t = n < m.ancestors.size ? m.ancestors[n] : NONE;
    if (t == NONE || t >= m.colors.size || !m.tet_in_domain(t)) data.missing_nodes.push_back(n);
  }

  if (strict_constraints) {
    if (u.node_count != 0) task.raise_error(msg::node_error);
    if (u.edges.size() != 0) task.raise_error(msg::edge_error);
    if (u.faces.size() != 0) task.raise_error(msg::face_error);
  }
  if (u.node_count != 0) task.raise_warning(msg::node_warning_conflict);
  if (u.edges.size() != 0) task.raise_warning(msg::edge_warning_conflict);
  if (u.faces.size() != 0) task.raise_warning(msg::face_warning_conflict);
  if (lost == 0) {
    if (!B.empty() && data.volume == 0.0) task.raise_warning(msg::not_watertight);
    if (!data.missing_faces.empty()) task.raise_warning(msg::face_warning_outside);
    if (!data.missing_edges.empty()) task.raise_warning(msg::edge_warning_outside);
    if (!data.missing_nodes.empty()) task.raise_warning(msg::node_warning_outside);
  } else {
    if (!data.missing_faces.empty()) task.raise_warning(msg::face_warning_not_enforced);
    if (!data.missing_edges.empty()) task.raise_warning(msg::edge_warning_not_enforced);
    if (!data.missing_nodes.empty()) task.raise_warning(msg::node_warning_not_enforced);
  }
  if (!B.empty() && data.boundary_sign == 0) task.raise_warning(msg::poorly_oriented);
}

}  // namespace kelvo::voxfill
