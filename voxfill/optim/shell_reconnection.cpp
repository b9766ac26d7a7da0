// The triangulations of small rings and the search for the best one.
#include "voxfill/optim/shell_reconnection.h"

#include <algorithm>

#include "delaunay/geometry.h"
#include "delaunay/quality_lanes.h"

namespace kelvo::voxfill {

namespace {

// All triangulations of convex rings of 3 to 6 nodes. Their order decides between equal ones.
constexpr shell_pattern patterns[] = {
    // r = 3
    {{{0, 1, 2}}, {}},
    // r = 4
    {{{0, 1, 2}, {0, 2, 3}}, {{0, 2}}},
    {{{0, 1, 3}, {1, 2, 3}}, {{1, 3}}},
    // r = 5
    {{{0, 1, 2}, {0, 2, 3}, {0, 3, 4}}, {{0, 2}, {0, 3}}},
    {{{0, 1, 2}, {0, 2, 4}, {2, 3, 4}}, {{0, 2}, {2, 4}}},
    {{{1, 2, 3}, {0, 1, 3}, {0, 3, 4}}, {{1, 3}, {0, 3}}},
    {{{1, 2, 3}, {1, 3, 4}, {0, 1, 4}}, {{1, 3}, {1, 4}}},
    {{{2, 3, 4}, {1, 2, 4}, {0, 1, 4}}, {{2, 4}, {1, 4}}},
    // r = 6
    {{{0, 1, 2}, {0, 2, 3}, {0, 3, 4}, {0, 4, 5}}, {{0, 2}, {0, 3}, {0, 4}}},
    {{{0, 1, 2}, {0, 2, 4}, {2, 3, 4}, {0, 4, 5}}, {{0, 2}, {2, 4}, {0, 4}}},
    {{{0, 1, 2}, {0, 2, 5}, {2, 4, 5}, {2, 3, 4}}, {{2, 0}, {2, 4}, {2, 5}}},
    {{{0, 1, 2}, {0, 2, 3}, {0, 3, 5}, {3, 4, 5}}, {{2, 0}, {0, 3}, {3, 5}}},
    {{{0, 1, 2}, {0, 2, 5}, {2, 3, 5}, {3, 4, 5}}, {{0, 2}, {2, 5}, {5, 3}}},
    {{{1, 2, 3}, {1, 3, 4}, {1, 4, 5}, {1, 5, 0}}, {{1, 3}, {1, 4}, {1, 5}}},
    {{{1, 2, 3}, {1, 3, 5}, {3, 4, 5}, {1, 5, 0}}, {{1, 3}, {3, 5}, {5, 1}}},
    {{{1, 2, 3}, {0, 1, 3}, {0, 3, 5}, {3, 4, 5}}, {{3, 1}, {3, 0}, {3, 5}}},
    {{{1, 2, 3}, {1, 3, 4}, {1, 4, 0}, {0, 4, 5}}, {{0, 4}, {4, 1}, {1, 3}}},
    {{{1, 2, 3}, {0, 1, 3}, {0, 3, 4}, {0, 4, 5}}, {{4, 0}, {0, 3}, {3, 1}}},
    {{{2, 3, 4}, {1, 2, 4}, {0, 1, 4}, {0, 4, 5}}, {{4, 0}, {4, 1}, {4, 2}}},
    {{{2, 3, 4}, {2, 4, 1}, {1, 4, 5}, {1, 5, 0}}, {{5, 1}, {1, 4}, {4, 2}}},
    {{{2, 3, 4}, {2, 4, 5}, {2, 5, 1}, {1, 5, 0}}, {{1, 5}, {5, 2}, {2, 4}}},
    {{{5, 3, 4}, {5, 2, 3}, {5, 1, 2}, {5, 0, 1}}, {{5, 1}, {5, 2}, {5, 3}}},
};
constexpr unsigned first_pattern[7] = {0, 0, 0, 0, 1, 3, 8};
constexpr unsigned counts[7] = {0, 0, 0, 1, 2, 5, 14};

// The patterns of one ring size share triangles, and a triangle (in its order of nodes) gives the
// same two tets in each. Each distinct (triangle, side) is a slot, numbered as the patterns first
// meet them; a pattern's rows name their slots, so that a search keeps a quality per slot.
struct ring_slots {
  unsigned count = 0;
  unsigned char nodes[112][4] = {};   // ring positions of the row, then 0 for a or 1 for b
  unsigned char rows[14][8] = {};     // per pattern of this size and row: its slot
  unsigned short patterns[112] = {};  // per slot: a bit for each pattern that has it
};

constexpr ring_slots make_slots(unsigned r) {
  ring_slots t;
  for (unsigned p = 0; p < counts[r]; ++p) {
    const shell_pattern& pat = patterns[first_pattern[r] + p];
    for (unsigned row = 0; row < 2 * r - 4; ++row) {
      const unsigned char* tri = pat.triangles[row / 2];
      const unsigned side = row % 2;
      unsigned s = 0;
      while (s < t.count && !(t.nodes[s][0] == tri[0] && t.nodes[s][1] == tri[1] &&
                              t.nodes[s][2] == tri[2] && t.nodes[s][3] == side))
        ++s;
      if (s == t.count) {
        t.nodes[s][0] = tri[0], t.nodes[s][1] = tri[1], t.nodes[s][2] = tri[2];
        t.nodes[s][3] = static_cast<unsigned char>(side);
        ++t.count;
      }
      t.rows[p][row] = static_cast<unsigned char>(s);
      t.patterns[s] = static_cast<unsigned short>(t.patterns[s] | 1u << p);
    }
  }
  return t;
}

constexpr ring_slots slots_of[7] = {
    {}, {}, {}, make_slots(3), make_slots(4), make_slots(5), make_slots(6)};
static_assert(slots_of[6].count <= 112);

// Quality of each row in order, stopping at the first at or under `limit`: the smallest, or
// -1.0 when the pattern gave up.
double qualities_above(const mesh_store& m, const dense2D<unsigned>& rows, double limit,
                       dense1D<double>& out) noexcept {
  out.clear();
  double q = 1.0;
  for (unsigned j = 0; j < rows.cols; ++j) {
    const unsigned* r = rows.col(j);
    const double v = tet_quality(m.nodes.data, r[0], r[1], r[2], r[3]);
    out.push_back(v);
    q = std::min(q, v);
    if (!(q > limit)) return -1.0;
  }
  return q;
}

void clear_outputs(dense2D<unsigned>& rows, dense2D<unsigned>& edges,
                   dense1D<double>& qualities) noexcept {
  reshape(rows, 4, 0);
  reshape(edges, 2, 0);
  qualities.clear();
}

bool take(const dense2D<unsigned>& rows, const dense2D<unsigned>& edges,
          const dense1D<double>& qualities, dense2D<unsigned>& new_rows,
          dense2D<unsigned>& new_edges, dense1D<double>& new_qualities) noexcept {
  if (!reshape(new_rows, 4, rows.cols) || !reshape(new_edges, 2, edges.cols) ||
      !new_qualities.resize(qualities.size)) {
    clear_outputs(new_rows, new_edges, new_qualities);
    return false;
  }
  for (unsigned j = 0; j < rows.cols; ++j) std::copy_n(rows.col(j), 4, new_rows.col(j));
  for (unsigned j = 0; j < edges.cols; ++j) std::copy_n(edges.col(j), 2, new_edges.col(j));
  std::copy_n(qualities.begin(), qualities.size, new_qualities.begin());
  return true;
}

}  // namespace

unsigned pattern_count(unsigned r) noexcept {
  return r < 7 ? counts[r] : 0;
}

const shell_pattern& pattern_of(unsigned r, unsigned p) noexcept {
  return patterns[first_pattern[r] + p];
}

bool pattern_rows(unsigned a, unsigned b, const dense1D<unsigned>& ring, unsigned p,
                  dense2D<unsigned>& rows, dense2D<unsigned>& edges) noexcept {
  const unsigned r = ring.size;
  if (p >= pattern_count(r)) return false;
  const shell_pattern& pat = pattern_of(r, p);
  if (!reshape(rows, 4, 2 * r - 4) || !reshape(edges, 2, r - 3)) return false;
  // The nodes in a local array, which the stores of the rows cannot alias; both lists packed.
  unsigned nodes[6];
  std::copy_n(ring.begin(), r, nodes);
  unsigned* w = rows.col(0);
  for (unsigned t = 0; t + 2 < r; ++t, w += 8) {
    const unsigned i = nodes[pat.triangles[t][0]], j = nodes[pat.triangles[t][1]],
                   k = nodes[pat.triangles[t][2]];
    w[0] = i, w[1] = j, w[2] = k, w[3] = a;
    w[4] = k, w[5] = j, w[6] = i, w[7] = b;
  }
  if (r > 3) {
    unsigned* e = edges.col(0);
    for (unsigned d = 0; d + 3 < r; ++d, e += 2) {
      e[0] = nodes[pat.diagonals[d][0]];
      e[1] = nodes[pat.diagonals[d][1]];
    }
  }
  return true;
}

void reconnect_patterns(move_record& mr, unsigned a, unsigned b, const dense1D<unsigned>& ring,
                        double& best, unsigned& pattern, dense2D<unsigned>& new_rows,
                        dense2D<unsigned>& new_edges, dense1D<double>& new_qualities,
                        const dense2D<unsigned>* reference) noexcept {
  const double limit = best;
  best = 0.0;
  pattern = NONE;
  clear_outputs(new_rows, new_edges, new_qualities);
  const unsigned r = ring.size;
  const mesh_store& m = mr.store;
  move_merit& merit = mr.merit;
  // Each slot's quality once it is known, for up (a) and down (b); `seen` has a bit per slot.
  const ring_slots& slots = slots_of[r < 7 ? r : 0];
  double known[112];
  std::uint64_t seen[2] = {0, 0};
  const unsigned count = pattern_count(r), rows = 2 * r - 4;
  // Hard nodes by ring position (a bit each), and whether an end is one: a pattern's rows are a
  // triangle and an end each, so the most hard nodes of a row come from its triangles. Looked
  // up once the first pattern passes the quality limit; most rings have none.
  unsigned hard = 0, hard_ends = 0;
  bool hard_known = false;
  // The ring's nodes in a local array, which the stores of the rows cannot alias.
  unsigned nodes[6] = {};
  if (r <= 6) std::copy_n(ring.begin(), r, nodes);
  // Patterns that have a slot at or under the limit: they fail whatever their other rows give.
  unsigned dead = 0;
  for (unsigned p = 0; p < count; ++p) {
    if (dead >> p & 1) continue;
    // A winner's list is swapped out for the old outputs, which may be shorter.
    if (!mr.trial_qualities.reserve(rows)) return;
    // Qualities first, in the order of the pattern's rows, given up at the first at or under
    // `limit`: most patterns stop at a tet, and then no row, logarithm or topology is needed.
    const unsigned char* row_slots = slots.rows[p];
    double* out = mr.trial_qualities.data();
    unsigned made = 0;
    double q = 1.0;
    for (unsigned row = 0; row < rows && q > limit; ++row) {
      const unsigned id = row_slots[row];
      if (!(seen[id >> 6] >> (id & 63) & 1)) {
        // This row and the next unknown ones of the pattern, four at a time (the last repeated
        // to fill the lanes): a quality depends on its nodes alone, so one worked out ahead
        // serves whichever pattern meets it.
        unsigned n[16], ids[4], lanes = 0;
        for (unsigned next = row; next < rows && lanes < 4; ++next) {
          const unsigned d = row_slots[next];
          if (seen[d >> 6] >> (d & 63) & 1) continue;
          const unsigned char* t = slots.nodes[d];
          const unsigned i = nodes[t[0]], j = nodes[t[1]], k = nodes[t[2]];
          unsigned* w = n + 4 * lanes;
          if (t[3] == 0)
            w[0] = i, w[1] = j, w[2] = k, w[3] = a;
          else
            w[0] = k, w[1] = j, w[2] = i, w[3] = b;
          ids[lanes++] = d;
        }
        for (unsigned l = lanes; l < 4; ++l) std::copy_n(n + 4 * (lanes - 1), 4, n + 4 * l);
        double v[4];
        tet_quality_lanes(m.nodes.data, n, v);
        for (unsigned l = 0; l < lanes; ++l) {
          known[ids[l]] = v[l];
          if (v[l] <= limit) dead |= slots.patterns[ids[l]];
          seen[ids[l] >> 6] |= std::uint64_t(1) << (ids[l] & 63);
        }
      }
      out[made++] = known[id];
      q = std::min(q, known[id]);
    }
    mr.trial_qualities.size = made;
    if (!(q > limit)) continue;
    if (reference) {
      merit.shell_reference(*reference, a, b, ring);
      reference = nullptr;
    }
    if (!pattern_rows(a, b, ring, p, mr.trial_rows, mr.trial_edges)) return;
    double s = 1.0;
    if (merit.shape_weight < 1.0)
      for (unsigned d = 0; d < mr.trial_edges.cols; ++d)
        s = std::min(s, symmetric_length(m, mr.trial_edges(0, d), mr.trial_edges(1, d)));
    // Every triangulation of the ring has the shell's nodes, those of the merit's reference.
    double share = -1.0;
    if (merit.hard_base != 1.0 && r <= 6) {
      if (!hard_known) {
        for (unsigned i = 0; i < r; ++i) hard |= unsigned(m.hard_set.has_node(ring[i])) << i;
        hard_ends = std::max(unsigned(m.hard_set.has_node(a)), unsigned(m.hard_set.has_node(b)));
        hard_known = true;
      }
      unsigned most = 0;
      if (hard) {
        const shell_pattern& pat = pattern_of(r, p);
        for (unsigned t = 0; t + 2 < r; ++t) {
          const unsigned char* tri = pat.triangles[t];
          most = std::max(most, (hard >> tri[0] & 1) + (hard >> tri[1] & 1) + (hard >> tri[2] & 1));
        }
      }
      share = 0.25 * (most + hard_ends);
    }
    const double value =
        merit.merit_blend(s, q) * merit.topology_factor(mr.trial_rows, true, share);
    if (value > best + 1e-12) {
      // The trial's lists become the outputs, and the old outputs serve the next trials.
      std::swap(mr.trial_rows, new_rows);
      std::swap(mr.trial_edges, new_edges);
      std::swap(mr.trial_qualities, new_qualities);
      best = value;
      pattern = p;
    }
  }
}

void recover_patterns(move_record& mr, unsigned a, unsigned b, const dense1D<unsigned>& ring,
                      const entity_set& wanted, std::uint32_t& pattern_mask, double& best,
                      unsigned& pattern, dense2D<unsigned>& new_rows, dense2D<unsigned>& new_edges,
                      dense1D<double>& new_qualities) noexcept {
  const double limit = best;
  best = 0.0;
  pattern = NONE;
  clear_outputs(new_rows, new_edges, new_qualities);
  const unsigned r = ring.size;
  const mesh_store& m = mr.store;
  const move_merit& merit = mr.merit;
  unsigned best_wanted = 0;
  for (unsigned p = 0; p < pattern_count(r); ++p) {
    const std::uint32_t bit = std::uint32_t(1) << p;
    if (pattern_mask & bit) continue;
    if (!pattern_rows(a, b, ring, p, mr.trial_rows, mr.trial_edges)) return;
    unsigned count = 0;
    for (unsigned d = 0; d < mr.trial_edges.cols; ++d)
      count += wanted.has_edge(mr.trial_edges(0, d), mr.trial_edges(1, d));
    if (count < best_wanted) continue;
    const double q = qualities_above(m, mr.trial_rows, limit, mr.trial_qualities);
    if (q < 0.0) {
      pattern_mask |= bit;
      continue;
    }
    pattern_mask &= ~bit;
    double s = 1.0;
    if (merit.shape_weight < 1.0)
      for (unsigned d = 0; d < mr.trial_edges.cols; ++d) {
        const unsigned u = mr.trial_edges(0, d), v = mr.trial_edges(1, d);
        if (!wanted.has_edge(u, v)) s = std::min(s, symmetric_length(m, u, v));
      }
    const double value = merit.merit_blend(s, q);
    const bool better = value > best + 1e-12 || (value > 1e-12 && count > best_wanted);
    if (better && take(mr.trial_rows, mr.trial_edges, mr.trial_qualities, new_rows, new_edges,
                       new_qualities)) {
      best = value;
      best_wanted = count;
      pattern = p;
    }
  }
}

}  // namespace kelvo::voxfill
