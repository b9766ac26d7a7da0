// Chained hash table of unsigned values in one flat store; sized up front, never rehashed.
#pragma once

#include "delaunay/slot_table.h"

namespace kelvo::voxfill {

// Word pairs (value, link): the first `buckets` pairs are the buckets, overflow pairs follow.
// Value NONE is an empty pair; a link is the distance in words to the next pair, NONE at the end.
// The hash and the equality live with the caller, which knows what a value stands for.
struct vector_fast {
  unsigned buckets = 1;
  unsigned mask = 0;
  unsigned items = 0;
  dense1D<unsigned> store;

  // Makes room for n items: buckets = smallest power of two not below 2 n.
  bool build(unsigned n) noexcept {
    unsigned b = 1;
    while (b < 2 * n) b <<= 1;
    buckets = b;
    mask = b - 1;
    items = 0;
    store.clear();
    const unsigned words = 2 * b > 2 * n ? 2 * b : 2 * n;
    if (!store.reserve(2 * words)) return false;
    for (unsigned k = 0; k < b; ++k) {
      store.push_back(NONE);
      store.push_back(NONE);
    }
    return true;
  }

  // Adds a value under `hash`; false when the store could not grow.
  bool insert(unsigned value, unsigned hash) noexcept {
    unsigned p = 2 * (hash & mask);
    if (store[p] == NONE) {  // an empty bucket, or one emptied by erase_at
      store[p] = value;
      ++items;
      return true;
    }
    while (store[p + 1] != NONE) p += store[p + 1];
    const unsigned q = store.size;
    store.push_back(value);
    store.push_back(NONE);
    if (store.size != q + 2) {
      store.size = q;
      return false;
    }
    store[p + 1] = q - p;
    ++items;
    return true;
  }

  // Word position of the first value under `hash` for which eq(value) holds, or NONE.
  template <class Eq>
  unsigned find(unsigned hash, Eq eq) const noexcept {
    unsigned p = 2 * (hash & mask);
    for (;;) {
      if (store[p] != NONE && eq(store[p])) return p;
      if (store[p + 1] == NONE) return NONE;
      p += store[p + 1];
    }
  }

  // Removes by overwriting; the pair stays in its chain.
  void erase_at(unsigned p) noexcept {
    store[p] = NONE;
    --items;
  }
};

}  // namespace kelvo::voxfill
