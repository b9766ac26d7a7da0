// Appending one view to another, at least doubling the room when it runs short.
#pragma once

#include "numcore/dense2D.h"

namespace kelvo::numcore {

template <class T, unsigned A>
bool append(dense1D<T, A>& dst, const dense1D<T, A>& src) noexcept {
  const unsigned old = dst.size, add = src.size;
  if (std::uint64_t(old) + add > 0xFFFFFFFFull) return false;
  if (old + add > dst.capacity()) {
    const std::uint64_t want = std::uint64_t(old) + (old > add ? old : add);
    if (want > 0xFFFFFFFFull || !dst.reserve(unsigned(want), 1)) return false;
  }
  // Read through src's buffer after the growth: src may be a view of dst's own buffer.
  if (!dst.resize(old + add)) return false;
  std::memmove(static_cast<void*>(dst.data() + old), src.data(), sizeof(T) * add);
  return true;
}

template <class T>
bool append(dense2D<T>& dst, const dense2D<T>& src) noexcept {
  const unsigned old = dst.cols, add = src.cols;
  const unsigned r = dst.rows > src.rows ? dst.rows : src.rows;
  if (std::uint64_t(old) + add > 0xFFFFFFFFull) return false;
  if (dst.empty() && old == 0) dst.rows = 0;
  if (r != dst.rows && !dst.resize(r, old)) return false;
  if (old + add > dst.capacity_cols()) {
    const std::uint64_t want = std::uint64_t(old) + (old > add ? old : add);
    if (want > 0xFFFFFFFFull || !dst.reserve(r, unsigned(want), 1)) return false;
  }
  if (!dst.resize(r, old + add)) return false;
  if (dst.ld == r && src.ld == src.rows && src.rows == r) {
    if (r != 0 && add != 0)
      std::memmove(static_cast<void*>(dst.col(old)), src.col(0), sizeof(T) * r * add);
  } else {
    for (unsigned j = 0; j < add; ++j)
      for (unsigned i = 0; i < src.rows; ++i) dst(i, old + j) = src(i, j);
  }
  return true;
}

}  // namespace kelvo::numcore

namespace kelvo {
using numcore::append;
}
