// Growable set of bits over 32-bit words.
#pragma once

#include "numcore/dense1D.h"

namespace kelvo::voxfill {

struct bit_set {
  dense1D<unsigned> words;
  unsigned length = 0;  // in bits

  bool test(unsigned i) const noexcept { return i < length && (words[i >> 5] >> (i & 31)) & 1u; }
  // Sets bit i, growing the set; false when memory ran out (then nothing changed).
  bool set(unsigned i) noexcept {
    if (i >= length && !grow(i + 1)) return false;
    words[i >> 5] |= 1u << (i & 31);
    return true;
  }
  void reset(unsigned i) noexcept {
    if (i < length) words[i >> 5] &= ~(1u << (i & 31));
  }
  // Makes room for n bits; new bits are clear.
  bool grow(unsigned n) noexcept {
    const unsigned need = (n + 31) >> 5;
    if (need > words.size) {
      unsigned want = words.size * 2 > need ? words.size * 2 : need;
      if (!words.reserve(want)) return false;
      words.resize(need, 0u);
    }
    if (n > length) length = n;
    return true;
  }
  // Drops bits at and above n.
  void truncate(unsigned n) noexcept {
    if (n >= length) return;
    length = n;
    words.resize((n + 31) >> 5);
    if (n & 31) words[n >> 5] &= (1u << (n & 31)) - 1u;
  }
  void clear() noexcept {
    words.clear();
    length = 0;
  }
  void clear_hard() {
    words.clear_hard();
    length = 0;
  }
};

}  // namespace kelvo::voxfill
