// Exchange of a set of tets: the old set's outer faces are found by pairing faces, the new rows are
// paired with each other and with the outside, and only when everything fits are the tables
// written.
#include "voxfill/optim/replace_tets.h"

#include <algorithm>

#include "delaunay/tet_tables.h"

namespace kelvo::voxfill {

namespace {

// Pairs the listed coded faces of `s.star_tets` that have the same nodes in opposite turns;
// `s.partner` gets each pair, NONE for a face left open. False when a face meets one of the same
// turn, when a key comes up a third time, or when memory ran out.
//
// A face is known by its nodes from the smallest on, the other two in order (its key) and whether
// they came turned (its turn); the table holds the first face of each key, in open addressing
// with a stamp per slot, so that a call neither clears nor allocates once warm.
bool link_faces(replace_scratch& s, unsigned columns) noexcept {
  s.partner.clear();
  if (!s.partner.resize(4 * columns, NONE)) return false;
  const unsigned count = s.codes.size;
  if (!count) return true;
  unsigned slots = 1;
  while (slots < 2 * count) slots <<= 1;
  if (s.face_slots.size < slots && !s.face_slots.resize(slots, 0u)) return false;
  if (!s.face_keys.resize(4 * count)) return false;
  if (++s.face_stamp == 0) {
    s.face_slots.fill(0u);
    s.face_stamp = 1;
  }
  if (!s.face_at.resize(slots)) return false;
  const unsigned stamp = s.face_stamp, mask = slots - 1;
  unsigned* slot_stamps = s.face_slots.begin();
  unsigned* slot_faces = s.face_at.begin();
  unsigned* keys = s.face_keys.begin();
  unsigned* partner = s.partner.begin();
  const dense2D<unsigned>& rows = s.star_tets;
  for (unsigned k = 0; k < count; ++k) {
    const unsigned code = s.codes[k];
    const unsigned* r = rows.col(code >> 2);
    const unsigned* f = tet_face_nodes[code & 3u];
    const unsigned n[3] = {r[f[0]], r[f[1]], r[f[2]]};
    const unsigned i = n[0] < n[1] ? (n[0] < n[2] ? 0 : 2) : (n[1] < n[2] ? 1 : 2);
    const unsigned x = n[i], y = n[(i + 1) % 3], z = n[(i + 2) % 3];
    unsigned* key = keys + 4 * k;
    key[0] = x, key[1] = y < z ? y : z, key[2] = y < z ? z : y, key[3] = y < z ? 0u : 1u;
    unsigned h = (x * 0x9E3779B1u) ^ (key[1] * 0x85EBCA77u) ^ (key[2] * 0xC2B2AE3Du);
    h ^= h >> 15;
    for (unsigned p = h & mask;; p = (p + 1) & mask) {
      if (slot_stamps[p] != stamp) {
        slot_stamps[p] = stamp;
        slot_faces[p] = k;
        break;
      }
      const unsigned* other = keys + 4 * slot_faces[p];
      if (other[0] != key[0] || other[1] != key[1] || other[2] != key[2]) continue;
      // The same nodes: a pair when the turns differ, and when the first one is still open.
      const unsigned first = s.codes[slot_faces[p]];
      if (other[3] == key[3] || partner[first] != NONE) return false;
      partner[first] = code;
      partner[code] = first;
      break;
    }
  }
  return true;
}

// Room for `extra` more tet rows and `released` more free rows, so that the writing steps cannot
// fail half way. Only capacities change.
bool make_room(mesh_store& m, unsigned extra, unsigned released) noexcept {
  const unsigned cols = m.tets.cols();
  unsigned reusable = 0;
  for (unsigned k = 0; k < m.tets.free_stack.size && reusable < extra; ++k)
    reusable += m.tets.free_stack[k] < cols;
  if (reusable < extra) {
    const unsigned need = cols + extra;
    if (m.tets.data.capacity_cols() < need || m.neighbors.data.capacity_cols() < need ||
        m.colors.capacity() < need || m.tet_qualities.capacity() < need ||
        m.tet_stamps.capacity() < need || m.marks.capacity() < need) {
      const unsigned want = std::max(need, 2 * cols);
      if (!m.tets.reserve(want) || !m.neighbors.reserve(want) || !m.colors.reserve(want) ||
          !m.tet_qualities.reserve(want) || !m.tet_stamps.reserve(want))
        return false;
      if (m.marks.capacity() < need && !m.marks.reserve(std::max(want, m.marks.size))) return false;
    }
  }
  if (released) {
    for (slot_table<unsigned>* t : {&m.tets, &m.neighbors}) {
      if (!t->free_stack.reserve(t->free_stack.size + released, 2) || !t->free_bits.grow(cols))
        return false;
    }
  }
  return true;
}

}  // namespace

bool replace_tets(mesh_store& m, replace_scratch& s, const dense1D<unsigned>& old_tets,
                  const dense2D<unsigned>& new_rows, const dense1D<double>& new_qualities,
                  dense1D<unsigned>& new_tets) noexcept {
  new_tets.clear();
  const unsigned n = old_tets.size, nr = new_rows.cols;
  if (n + nr == 0) return true;
  if (n == 0 || new_qualities.size < nr || (nr && new_rows.rows != 4)) return false;
  const unsigned colour = m.colors[old_tets[0]];
  if (!new_tets.reserve(nr)) return false;
  const unsigned limit = m.tets.cols();
  for (unsigned i = 0; i < n; ++i)
    if (old_tets[i] >= limit || m.tet_deleted(old_tets[i])) return false;

  // Outer faces of the old set: those whose neighbour is not in it. The neighbour table pairs
  // the faces inside the set as matching their nodes would; a tet listed twice is refused.
  dense2D<unsigned>& star = s.star_tets;
  const unsigned mv = m.bump_marks();
  for (unsigned i = 0; i < n; ++i) {
    if (m.marked(old_tets[i])) return false;
    m.mark(old_tets[i]);
  }

  // Seen from the outside: the same face as 4 u + g of the tet u beyond it. A hull face has no
  // such tet; it is kept as a stand-in column that holds only the face, turned, so that the new
  // rows must leave exactly these faces on the hull. Both lists get room for every face first.
  s.outer_codes.clear();
  s.hull_codes.clear();
  if (!s.outer_codes.reserve(4 * n) || !s.hull_codes.reserve(4 * n)) return false;
  {
    const unsigned* mk = m.marks.data();
    const unsigned msize = m.marks.size;
    const unsigned* nbs = m.neighbors.data.vec->data + m.neighbors.data.offset;
    const std::size_t nld = m.neighbors.data.ld;
    unsigned* outer = s.outer_codes.data();
    unsigned* hull = s.hull_codes.data();
    unsigned no = 0, nh = 0;
    for (unsigned i = 0; i < n; ++i) {
      const unsigned t = old_tets[i];
      const unsigned* nb4 = nbs + nld * t;
      for (unsigned f = 0; f < 4; ++f) {
        const unsigned u = nb4[f];
        if (u == NONE) {
          hull[nh++] = 4 * i + f;
          continue;
        }
        if (u < msize && mk[u] == mv) continue;
        const unsigned* back = nbs + nld * u;
        unsigned g = 0;
        while (g < 4 && back[g] != t) ++g;
        if (g == 4) return false;  // the mesh around the set is not consistent
        outer[no++] = 4 * u + g;
      }
    }
    s.outer_codes.size = no;
    s.hull_codes.size = nh;
  }
  std::sort(s.outer_codes.begin(), s.outer_codes.end());

  // Columns: the new rows, each outside tet once, then the stand-ins of the hull faces. The outer
  // codes now name columns.
  s.outer_tets.clear();
  for (unsigned k = 0; k < s.outer_codes.size; ++k) {
    const unsigned u = s.outer_codes[k] >> 2;
    if (!s.outer_tets.size || s.outer_tets.back() != u) {
      const unsigned before = s.outer_tets.size;
      s.outer_tets.push_back(u);
      if (s.outer_tets.size == before) return false;
    }
    s.outer_codes[k] = 4 * (nr + s.outer_tets.size - 1) + (s.outer_codes[k] & 3u);
  }
  const unsigned first_hull = nr + s.outer_tets.size;
  const unsigned columns = first_hull + s.hull_codes.size;
  if (!star.resize(4, columns)) return false;
  for (unsigned j = 0; j < nr; ++j) std::copy_n(new_rows.col(j), 4, star.col(j));
  for (unsigned k = 0; k < s.outer_tets.size; ++k)
    std::copy_n(m.tets.row(s.outer_tets[k]), 4, star.col(nr + k));
  for (unsigned k = 0; k < s.hull_codes.size; ++k) {
    const unsigned c = s.hull_codes[k];
    const unsigned* r = m.tets.row(old_tets[c >> 2]);
    const unsigned* f = tet_face_nodes[c & 3u];
    unsigned* w = star.col(first_hull + k);
    w[0] = NONE, w[1] = r[f[0]], w[2] = r[f[2]], w[3] = r[f[1]];  // face 0, turned
  }

  s.codes.clear();
  const unsigned code_count = 4 * nr + s.outer_codes.size + s.hull_codes.size;
  if (!s.codes.reserve(code_count)) return false;
  {
    unsigned* w = s.codes.data();
    for (unsigned c = 0; c < 4 * nr; ++c) *w++ = c;
    w = std::copy_n(s.outer_codes.begin(), s.outer_codes.size, w);
    for (unsigned k = 0; k < s.hull_codes.size; ++k) *w++ = 4 * (first_hull + k);
    s.codes.size = code_count;
  }
  if (!link_faces(s, columns)) return false;

  // Every face has to find its partner: then the new rows fill the old region exactly.
  dense2D<unsigned>& nbr = s.star_neighbors;
  if (!nbr.resize(4, first_hull)) return false;
  {
    unsigned* nb = nbr.col(0);  // packed: four rows
    std::fill_n(nb, 4 * std::size_t(first_hull), NONE);
    const unsigned* codes = s.codes.data();
    const unsigned* partner = s.partner.data();
    for (unsigned k = 0; k < code_count; ++k) {
      const unsigned c = codes[k], p = partner[c];
      if (p == NONE) return false;
      if ((c >> 2) < first_hull && (p >> 2) < first_hull) nb[c] = p >> 2;
    }
    // No tet may have one neighbour through two faces.
    for (unsigned j = 0; j < first_hull; ++j) {
      const unsigned* r = nb + 4 * j;
      for (unsigned a = 0; a < 3; ++a) {
        if (r[a] == NONE) continue;
        for (unsigned b = a + 1; b < 4; ++b)
          if (r[a] == r[b]) return false;
      }
    }
  }
  const unsigned shared = n < nr ? n : nr;
  if (!make_room(m, nr - shared, n - shared)) return false;

  // From here on nothing can fail; new_tets has room for every new tet.
  unsigned* made = new_tets.data();
  unsigned* ancestors = m.ancestors.data();
  for (unsigned i = 0; i < shared; ++i) {
    const unsigned t = old_tets[i];
    const unsigned* old = m.tets.row(t);
    for (unsigned k = 0; k < 4; ++k) ancestors[old[k]] = NONE;
    m.set_tet_nodes(t, new_rows.col(i));
    m.tet_qualities[t] = new_qualities[i];
    m.tet_stamps[t] = m.tet_clock;
    made[i] = t;
  }
  for (unsigned i = shared; i < nr; ++i) {
    const unsigned* r = new_rows.col(i);
    made[i] = m.new_tet(r[0], r[1], r[2], r[3], colour, new_qualities[i]);
  }
  new_tets.size = nr;
  for (unsigned i = shared; i < n; ++i) {
    const unsigned t = old_tets[i];
    const unsigned* old = m.tets.row(t);
    for (unsigned k = 0; k < 4; ++k) ancestors[old[k]] = NONE;
    m.release_tet(t);
  }
  const unsigned* outside = s.outer_tets.data();
  auto tet_of_column = [&](unsigned j) { return j < nr ? made[j] : outside[j - nr]; };
  const unsigned* nb = nbr.col(0);
  for (unsigned j = 0; j < first_hull; ++j) {
    const unsigned t = tet_of_column(j);
    unsigned* row = m.neighbors.row(t);
    const unsigned* r = nb + 4 * j;
    for (unsigned f = 0; f < 4; ++f) {
      if (r[f] != NONE)
        row[f] = tet_of_column(r[f]);
      else if (j < nr)
        row[f] = NONE;
    }
  }
  for (unsigned j = 0; j < nr; ++j) {
    const unsigned t = made[j];
    const unsigned* r = m.tets.row(t);
    for (unsigned k = 0; k < 4; ++k) ancestors[r[k]] = t;
  }
  return true;
}

}  // namespace kelvo::voxfill
