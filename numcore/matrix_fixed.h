// Small fixed-size matrix held by value, column-major like the views.
#pragma once

namespace kelvo::numcore {

template <class T, unsigned R, unsigned C>
struct matrix_fixed {
  T v[C][R] = {};

  T& operator()(unsigned i, unsigned j) noexcept { return v[j][i]; }
  const T& operator()(unsigned i, unsigned j) const noexcept { return v[j][i]; }
  T* col(unsigned j) noexcept { return v[j]; }
  const T* col(unsigned j) const noexcept { return v[j]; }
};

}  // namespace kelvo::numcore
