// Pairing of the faces of a star that hold the new node. Such a face is the node plus one edge of
// the cavity's boundary, so two faces of the star are twins exactly when their edges are the same
// pair of nodes, and they are reversed exactly when the edges run in opposite directions. An open
// addressed table of edges does that matching in one pass; entries are told apart by a stamp per
// use, so the table is not cleared between stars.
#pragma once

#include "numcore/dense1D.h"

namespace kelvo::voxfill {

struct star_edge_table {
  // Four words per slot: stamp, smaller node, larger node, value. The value is the face code
  // (4 row + local face) with two flags above it.
  static constexpr unsigned FORWARD = 1u << 31;  // the edge ran from the smaller node
  static constexpr unsigned PAIRED = 1u << 30;   // a twin was found
  static constexpr unsigned CODE = PAIRED - 1;

  dense1D<unsigned> slots;
  unsigned mask = 0;
  unsigned stamp = 0;

  // Ready for `edges` entries, all slots empty. False when memory ran out.
  bool prepare(unsigned edges) noexcept {
    unsigned n = 16;
    while (n < 2 * edges) n <<= 1;
    if (4 * std::size_t(n) > slots.size) {
      if (!slots.resize(4 * n, 0u)) return false;
      stamp = 0;
      for (unsigned k = 0; k < slots.size; k += 4) slots[k] = 0;
    }
    mask = n - 1;
    if (++stamp == 0) {  // the stamps wrapped: forget every old entry
      for (unsigned k = 0; k < slots.size; k += 4) slots[k] = 0;
      stamp = 1;
    }
    return true;
  }

  // The table of one use, with its words held apart from the table object, so that a loop of
  // entries keeps them in registers while it writes elsewhere.
  struct view {
    unsigned* slots;
    unsigned mask;
    unsigned stamp;

    // Enters the face `code` whose edge runs from a to b. `twin` becomes the code of the reversed
    // twin when there is one (both are then paired), else 0xFFFFFFFF. False when the edge had
    // been paired already or comes again in the same direction: the star does not close.
    bool enter(unsigned a, unsigned b, unsigned code, unsigned& twin) const noexcept {
      const unsigned lo = a < b ? a : b, hi = a < b ? b : a;
      const unsigned forward = a < b ? FORWARD : 0u;
      unsigned h = lo * 0x9E3779B1u ^ hi * 0x85EBCA77u;
      h ^= h >> 15;
      for (unsigned i = h & mask;; i = (i + 1) & mask) {
        unsigned* s = slots + 4 * std::size_t(i);
        if (s[0] != stamp) {
          s[0] = stamp;
          s[1] = lo;
          s[2] = hi;
          s[3] = code | forward;
          twin = 0xFFFFFFFFu;
          return true;
        }
        if (s[1] != lo || s[2] != hi) continue;
        if ((s[3] & PAIRED) || (s[3] & FORWARD) == forward) return false;
        s[3] |= PAIRED;
        twin = s[3] & CODE;
        return true;
      }
    }
  };
  // Valid until the next prepare.
  view use() noexcept { return view{slots.data(), mask, stamp}; }

  bool enter(unsigned a, unsigned b, unsigned code, unsigned& twin) noexcept {
    return use().enter(a, b, code, twin);
  }
};

}  // namespace kelvo::voxfill
