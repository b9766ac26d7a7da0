// Pairing of the faces of a star that hold the new node. Such a face is the node plus one edge of
// the cavity's boundary, so two faces of the star are twins exactly when their edges are the same
// pair of nodes, and they are reversed exactly when the edges run in opposite directions. An open
// addressed table of edges does that matching in one pass; entries are told apart by a stamp per
// use, so the table is not cleared between stars.
#pragma once

#include "numcore/dense1D.h"

namespace kelvo::voxfill {

struct star_edge_table {
  // Four words per slot: stamp, first node, second node (the edge as first entered), value. The
  // value is the face code (4 row + local face) with a flag above it. The slot of an edge comes
  // from the sum of its nodes, the same both ways round.
  static constexpr unsigned PAIRED = 1u << 30;  // a twin was found
  static constexpr unsigned CODE = PAIRED - 1;

  dense1D<unsigned> slots;
  unsigned mask = 0;
  unsigned shift = 28;  // 32 - log2 of the slot count
  unsigned stamp = 0;

  // Ready for `edges` entries, all slots empty. False when memory ran out.
  bool prepare(unsigned edges) noexcept {
    unsigned n = 16, bits = 4;
    while (n < 2 * edges) n <<= 1, ++bits;
    if (4 * std::size_t(n) > slots.size) {
      if (!slots.resize(4 * n, 0u)) return false;
      stamp = 0;
      for (unsigned k = 0; k < slots.size; k += 4) slots[k] = 0;
    }
    mask = n - 1;
    shift = 32 - bits;
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
    unsigned shift;
    unsigned stamp;

    // Enters the face `code` whose edge runs from a to b. `twin` becomes the code of the reversed
    // twin when there is one (both are then paired), else 0xFFFFFFFF. False when the edge comes
    // again in the same direction or had been paired already: the star does not close.
    bool enter(unsigned a, unsigned b, unsigned code, unsigned& twin) const noexcept {
      for (unsigned i = ((a + b) * 0x9E3779B1u) >> shift;; i = (i + 1) & mask) {
        unsigned* s = slots + 4 * std::size_t(i);
        if (s[0] != stamp) {
          s[0] = stamp;
          s[1] = a;
          s[2] = b;
          s[3] = code;
          twin = 0xFFFFFFFFu;
          return true;
        }
        if (s[1] == a && s[2] == b) return false;
        if (s[1] != b || s[2] != a) continue;
        if (s[3] & PAIRED) return false;
        s[3] |= PAIRED;
        twin = s[3] & CODE;
        return true;
      }
    }
  };
  // Valid until the next prepare.
  view use() noexcept { return view{slots.data(), mask, shift, stamp}; }

  bool enter(unsigned a, unsigned b, unsigned code, unsigned& twin) noexcept {
    return use().enter(a, b, code, twin);
  }
};

}  // namespace kelvo::voxfill
