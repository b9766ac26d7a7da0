// One-dimensional view of a shared numeric buffer.
#pragma once

#include <new>

#include "numcore/vector_num.h"

namespace kelvo::numcore {

// A view: copying shares the buffer, `copy` is deep. Element i is vec->data[offset + i].
// The buffer is never null; growth replaces `data` inside the shared buffer, so other views
// of the same buffer survive it.
template <class T, unsigned A = 8>
class dense1D {
 public:
  using value_type = T;
  using buffer_type = vector_num<T, A>;

  Ptr<buffer_type> vec;
  unsigned size = 0;
  unsigned offset = 0;

  dense1D() : vec(new buffer_type) {}
  explicit dense1D(unsigned n) : vec(new buffer_type) {
    if (n && vec->__grow(n, 0, 1)) size = n;
  }
  dense1D(unsigned n, const T& value) : dense1D(n) { fill(value); }
  dense1D(const dense1D& o) noexcept : vec(o.vec), size(o.size), offset(o.offset) {}
  dense1D& operator=(const dense1D& o) noexcept {
    vec = o.vec;
    size = o.size;
    offset = o.offset;
    return *this;
  }
  void shallow_copy(const dense1D& o) noexcept { *this = o; }
  // Fills every element of the view.
  const T& operator=(const T& value) noexcept {
    fill(value);
    return value;
  }
  void fill(const T& value) noexcept {
    T* p = vec->data + offset;
    for (unsigned i = 0; i < size; ++i) p[i] = value;
  }

  // Deep copy into a buffer of its own. False (and this view unchanged) when memory runs out.
  bool copy(const dense1D& o) noexcept {
    buffer_type* b = new (std::nothrow) buffer_type;
    if (!b) return false;
    Ptr<buffer_type> hold(b);
    if (o.size && !b->__grow(o.size, 0, 1)) return false;
    if (o.size) std::memcpy(static_cast<void*>(b->data), o.vec->data + o.offset, sizeof(T) * o.size);
    size = o.size;
    offset = 0;
    vec = hold;
    return true;
  }

  unsigned capacity() const noexcept { return vec->capacity > offset ? vec->capacity - offset : 0; }

  // Capacity from `offset` on of at least n; elements and size kept.
  bool reserve(unsigned n, unsigned factor = 1) noexcept {
    if (std::uint64_t(offset) + n > 0xFFFFFFFFull) return false;
    if (vec->capacity >= offset + n) return true;
    return vec->__grow(offset + n, vec->capacity, factor);
  }
  bool resize(unsigned n) noexcept {
    if (!reserve(n, 1)) return false;
    size = n;
    return true;
  }
  // New elements take `value`; the ones that stay are not touched.
  bool resize(unsigned n, const T& value) noexcept {
    const unsigned old = size;
    if (!resize(n)) return false;
    T* p = vec->data + offset;
    for (unsigned i = old; i < n; ++i) p[i] = value;
    return true;
  }
  void clear() noexcept { size = 0; }
  void clear_hard() {
    vec = new buffer_type;
    size = 0;
    offset = 0;
  }

  dense1D sub_vector(unsigned start, unsigned n) const noexcept {
    dense1D r(*this);
    r.offset = offset + start;
    r.size = n;
    return r;
  }

  bool push_back_n(const T& value, unsigned count) noexcept {
    if (std::uint64_t(size) + count > 0xFFFFFFFFull) return false;
    return resize(size + count, value);
  }

  // True when both views sit on one buffer and their stretches up to the end of the reserved
  // capacity share an element.
  bool reserved_overlaps(const dense1D& o) const noexcept {
    if (vec.get() != o.vec.get()) return false;
    const unsigned start = offset > o.offset ? offset : o.offset;
    return start < vec->capacity;
  }

  // Appends; a failed growth silently drops the element (a scratch list then comes out short).
  void push_back(const T& value) noexcept {
    const unsigned p = offset + size;
    buffer_type* b = vec.get();
    if (b->capacity <= p) {
      const T v = value;  // value may live in the block being replaced
      if (!b->__grow(p + 1, p, 2)) return;
      b->data[p] = v;
    } else {
      b->data[p] = value;
    }
    ++size;
  }
  void pop_back() noexcept { --size; }

  T* begin() noexcept { return vec->data + offset; }
  T* end() noexcept { return vec->data + offset + size; }
  const T* begin() const noexcept { return vec->data + offset; }
  const T* end() const noexcept { return vec->data + offset + size; }
  T* data() noexcept { return vec->data + offset; }
  const T* data() const noexcept { return vec->data + offset; }
  T& operator[](unsigned i) noexcept { return vec->data[offset + i]; }
  const T& operator[](unsigned i) const noexcept { return vec->data[offset + i]; }
  T& back() noexcept { return vec->data[offset + size - 1]; }
  const T& back() const noexcept { return vec->data[offset + size - 1]; }
  bool empty() const noexcept { return size == 0; }
};

}  // namespace kelvo::numcore

namespace kelvo {
using numcore::dense1D;
}
