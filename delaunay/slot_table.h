// A table of fixed-height rows that are acquired, released and reused in O(1).
#pragma once

#include <algorithm>
#include <new>

#include "delaunay/bit_set.h"
#include "numcore/dense2D.h"

namespace kelvo::voxfill {

constexpr unsigned NONE = 0xFFFFFFFFu;     // no node, no tet, no neighbour; colour: not classified
constexpr unsigned DELETED = 0xFFFFFFFEu;  // colour of a deleted tet row; a search that must end
// A colour that names a subdomain: neither NONE (unclassified) nor DELETED.
constexpr bool color_in_domain(unsigned c) noexcept {
  return c < DELETED;
}

// Column j of `data` is row j. The column count is the high-water mark; a released row keeps its
// content until it is reused, so a holder of a stale index can still read it.
template <class T>
struct slot_table {
  dense2D<T> data;
  bit_set free_bits;
  dense1D<unsigned> free_stack;
  unsigned height = 0;  // words per row

  explicit slot_table(unsigned h = 1) : height(h) { data.resize(h, 0); }

  unsigned cols() const noexcept { return data.cols; }
  bool is_free(unsigned i) const noexcept { return free_bits.test(i); }
  T* row(unsigned i) noexcept { return data.col(i); }
  const T* row(unsigned i) const noexcept { return data.col(i); }
  T& operator()(unsigned k, unsigned i) noexcept { return data(k, i); }
  const T& operator()(unsigned k, unsigned i) const noexcept { return data(k, i); }

  // Takes a free row, or a new column at the end (the table doubles, from 8 columns). The row's
  // content is left to the caller. NONE when memory ran out.
  unsigned acquire() noexcept {
    const unsigned n = data.cols;
    unsigned i = n;
    while (free_stack.size) {
      const unsigned top = free_stack.back();
      free_stack.pop_back();
      if (top < n) {
        i = top;
        break;
      }
    }
    free_bits.reset(i);
    if (i == n) {
      if (n >= data.capacity_cols()) {
        const unsigned want = n ? 2 * n : 8;
        if (!data.reserve(height, want < 8 ? 8 : want, 1)) return NONE;
      }
      // Packed columns with room behind them (the common case) just take one more column.
      if (data.rows == height && data.ld == height && data.cols == n)
        ++data.cols, data.size += height;
      else
        data.resize(height, n + 1);
    }
    return i;
  }

  // Marks row i free; its content stays. False when the free list could not grow.
  bool release(unsigned i) noexcept {
    const unsigned before = free_stack.size;
    free_stack.push_back(i);
    if (free_stack.size == before) return false;
    if (!free_bits.set(i)) {
      free_stack.pop_back();
      return false;
    }
    return true;
  }

  // Undoes the last release of row i, after a failure elsewhere: the row is taken again.
  void take_back(unsigned i) noexcept {
    if (free_stack.size && free_stack[free_stack.size - 1] == i) {
      free_stack.pop_back();
      free_bits.reset(i);
    }
  }

  // Undoes an acquire after a failure elsewhere: the table is cut back to `old_cols` columns and
  // the row goes back on the free list.
  void give_back(unsigned i, unsigned old_cols) noexcept {
    if (data.cols > old_cols) data.resize(height, old_cols);
    release(i);
  }

  bool reserve(unsigned n) noexcept { return data.reserve(height, n, 1); }

  // Empties the table and lets its memory go.
  void clear_hard() {
    data.clear_hard();
    data.resize(height, 0);
    free_bits.clear_hard();
    free_stack.clear_hard();
  }
  // Closes the holes: live rows move down in order. `map` takes each old row to its new index,
  // NONE for a free row. Returns the new column count. Without free rows nothing moves. Throws
  // std::bad_alloc, with the table untouched, when `map` cannot be sized.
  unsigned compact(dense1D<unsigned>& map) {
    const unsigned c = data.cols;
    unsigned dead = 0;
    for (unsigned k = 0; k < free_stack.size; ++k) dead += free_stack[k] < c;
    map.clear();
    if (!map.resize(c, NONE) || !free_stack.reserve(free_stack.size + 1)) throw std::bad_alloc();
    if (dead == 0) {
      for (unsigned i = 0; i < c; ++i) map[i] = i;
      return c;
    }
    if (dead == c) {
      set_columns(0);
      return 0;
    }
    std::sort(free_stack.begin(), free_stack.end());
    free_stack.push_back(NONE);
    unsigned w = 0, f = 0;
    for (unsigned row = 0; row < c; ++row) {
      while (free_stack[f] < row) ++f;
      if (free_stack[f] == row) continue;
      if (w < row)
        for (unsigned k = 0; k < height; ++k) data(k, w) = data(k, row);
      map[row] = w++;
    }
    set_columns(w);
    return w;
  }

  // Cuts the table to n columns and forgets the free rows (after a compaction).
  void set_columns(unsigned n) noexcept {
    data.resize(height, n);
    free_bits.clear();
    free_stack.clear();
  }
};

}  // namespace kelvo::voxfill
