// Hash set of edge or face keys: power-of-two buckets, chains in flat arrays, load factor <= 1.
#pragma once

#include "delaunay/keys.h"
#include "delaunay/slot_table.h"

namespace kelvo::voxfill {

// Entries live in insertion order in flat arrays, so that a walk over the set is deterministic.
// An erased entry is unlinked and its slot marked with `next` = DELETED.
template <class K>
struct key_set {
  dense1D<unsigned> heads;  // bucket -> first entry, NONE when empty
  dense1D<K> keys;
  dense1D<unsigned> next;  // entry -> next in chain, NONE at the end, DELETED when erased
  unsigned count = 0;

  key_set() { rehash(8); }

  unsigned size() const noexcept { return count; }
  bool live(unsigned e) const noexcept { return next[e] != DELETED; }

  // Entry index of an equal key (either direction), or NONE. `dir` gets the comparison result.
  unsigned find(const K& k, int* dir = nullptr) const noexcept {
    if (!heads.size) return NONE;  // a set whose first buckets could not be had is empty
    for (unsigned e = heads[key_hash(k) & (heads.size - 1)]; e != NONE; e = next[e]) {
      const int c = compare_keys(keys[e], k);
      if (c) {
        if (dir) *dir = c;
        return e;
      }
    }
    return NONE;
  }
  bool contains(const K& k) const noexcept { return find(k) != NONE; }

  // Inserts k unless an equal key is there. Returns 2 when inserted, otherwise the comparison of
  // the stored key with k (+1 same direction, -1 reversed); 0 when memory ran out.
  int insert(const K& k) noexcept {
    int dir = 0;
    if (find(k, &dir) != NONE) return dir;
    if (count + 1 > heads.size && !rehash(heads.size ? heads.size * 2 : 8)) return 0;
    const unsigned e = keys.size;
    keys.push_back(k);
    next.push_back(NONE);
    if (keys.size != e + 1 || next.size != e + 1) {
      keys.size = next.size = e;
      return 0;
    }
    unsigned& head = heads[key_hash(k) & (heads.size - 1)];
    next[e] = head;
    head = e;
    ++count;
    return 2;
  }

  bool erase(const K& k) noexcept {
    if (!heads.size) return false;
    unsigned* link = &heads[key_hash(k) & (heads.size - 1)];
    for (unsigned e = *link; e != NONE; link = &next[e], e = *link) {
      if (compare_keys(keys[e], k)) {
        *link = next[e];
        next[e] = DELETED;
        --count;
        return true;
      }
    }
    return false;
  }

  // Empties the set, keeping its buckets and storage so that refilling allocates nothing.
  void clear() noexcept {
    heads = NONE;
    keys.clear();
    next.clear();
    count = 0;
  }
  void clear_hard() {
    heads.clear_hard();
    keys.clear_hard();
    next.clear_hard();
    count = 0;
    rehash(8);
  }

  // Rebuilds the chains on `buckets` heads (a power of two), dropping erased slots. The heads are
  // resized in place: a fresh container would get its buffer from a throwing allocation.
  bool rehash(unsigned buckets) noexcept {
    if (!heads.resize(buckets)) return false;
    heads = NONE;
    unsigned w = 0;
    for (unsigned e = 0; e < keys.size; ++e) {
      if (next[e] == DELETED) continue;
      keys[w] = keys[e];
      unsigned& head = heads[key_hash(keys[w]) & (buckets - 1)];
      next[w] = head;
      head = w++;
    }
    keys.size = next.size = w;
    return true;
  }
};

using edge_set = key_set<edge_key>;
using face_set = key_set<face_key>;
using index_set = key_set<index_key>;

}  // namespace kelvo::voxfill
