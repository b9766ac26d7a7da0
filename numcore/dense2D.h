// Column-major matrix view of a shared numeric buffer: one node or one element per column.
#pragma once

#include "numcore/dense1D.h"

namespace kelvo::numcore {

// Element (i, j) is vec->data[offset + ld * j + i]. Empty means rows * cols == 0.
template <class T>
class dense2D {
 public:
  using value_type = T;
  using buffer_type = vector_num<T, 8>;

  Ptr<buffer_type> vec;
  unsigned size = 0;
  unsigned offset = 0;
  unsigned rows = 0;
  unsigned cols = 0;
  unsigned ld = 0;

  dense2D() : vec(new buffer_type) {}
  dense2D(unsigned r, unsigned c) : vec(new buffer_type) { resize(r, c); }
  dense2D(unsigned r, unsigned c, const T& value) : vec(new buffer_type) { resize(r, c, value); }
  dense2D(const dense2D& o) noexcept = default;
  dense2D& operator=(const dense2D& o) noexcept = default;
  void shallow_copy(const dense2D& o) noexcept { *this = o; }

  bool empty() const noexcept { return rows * cols == 0; }
  // Columns that fit behind `offset` with the current leading dimension.
  unsigned capacity_cols() const noexcept {
    const unsigned room = vec->capacity > offset ? vec->capacity - offset : 0;
    return ld ? room / ld : room;
  }

  // Deep copy into a buffer of its own, packed (ld == rows).
  bool copy(const dense2D& o) noexcept {
    buffer_type* b = new (std::nothrow) buffer_type;
    if (!b) return false;
    Ptr<buffer_type> hold(b);
    const std::uint64_t n = std::uint64_t(o.rows) * o.cols;
    if (n > 0xFFFFFFFFull) return false;
    if (n && !b->__grow(unsigned(n), 0, 1)) return false;
    for (unsigned j = 0; j < o.cols && o.rows; ++j)
      std::memcpy(static_cast<void*>(b->data + std::size_t(j) * o.rows), o.col(j), sizeof(T) * o.rows);
    vec = hold;
    offset = 0;
    rows = o.rows;
    cols = o.cols;
    ld = o.rows;
    size = unsigned(n);
    return true;
  }

  // Room for c columns of r elements; the matrix is kept as it is.
  bool reserve(unsigned r, unsigned c, unsigned factor = 1) noexcept {
    const unsigned step = ld ? (ld > r ? ld : r) : r;
    const std::uint64_t need = std::uint64_t(offset) + std::uint64_t(step) * c;
    if (need > 0xFFFFFFFFull) return false;
    if (vec->capacity >= need) return true;
    return vec->__grow(unsigned(need), vec->capacity, factor);
  }

  // New shape. Columns are kept when the row count stays; with a new row count the common
  // part of each column is kept and the layout becomes packed.
  bool resize(unsigned r, unsigned c) noexcept {
    if (r == rows && (ld == r || cols <= 1) && r) {
      if (!reserve(r, c, 1)) return false;
      ld = r;
      cols = c;
      size = r * c;
      return true;
    }
    const std::uint64_t n = std::uint64_t(r) * c;
    if (n + offset > 0xFFFFFFFFull) return false;
    if (empty()) {
      if (vec->capacity < offset + n && !vec->__grow(unsigned(offset + n), 0, 1)) return false;
      rows = r;
      cols = c;
      ld = r;
      size = unsigned(n);
      return true;
    }
    dense2D fresh;
    if (!fresh.resize(r, c)) return false;
    const unsigned kr = r < rows ? r : rows, kc = c < cols ? c : cols;
    for (unsigned j = 0; j < kc; ++j)
      for (unsigned i = 0; i < kr; ++i) fresh(i, j) = (*this)(i, j);
    *this = fresh;
    return true;
  }
  bool resize(unsigned r, unsigned c, const T& value) noexcept {
    const unsigned oldr = rows, oldc = cols;
    if (!resize(r, c)) return false;
    for (unsigned j = 0; j < c; ++j)
      for (unsigned i = (j < oldc ? oldr : 0); i < r; ++i) (*this)(i, j) = value;
    return true;
  }

  void clear() noexcept { rows = cols = ld = size = 0; }
  void clear_hard() {
    vec = new buffer_type;
    rows = cols = ld = size = offset = 0;
  }

  dense2D sub_matrix(unsigned i, unsigned j, unsigned r, unsigned c) const noexcept {
    dense2D s(*this);
    s.offset = offset + ld * j + i;
    s.rows = r;
    s.cols = c;
    s.size = r * c;
    return s;
  }
  // The view's header is allocated (and may throw std::bad_alloc) before it takes the buffer.
  dense1D<T> as_vector() const {
    dense1D<T> v;
    v.vec = vec;
    v.offset = offset;
    v.size = rows * cols;
    return v;
  }

  T& operator()(unsigned i, unsigned j) noexcept { return vec->data[offset + ld * j + i]; }
  const T& operator()(unsigned i, unsigned j) const noexcept { return vec->data[offset + ld * j + i]; }
  T* col(unsigned j) noexcept { return vec->data + offset + std::size_t(ld) * j; }
  const T* col(unsigned j) const noexcept { return vec->data + offset + std::size_t(ld) * j; }
};

}  // namespace kelvo::numcore

namespace kelvo {
using numcore::dense2D;
}
