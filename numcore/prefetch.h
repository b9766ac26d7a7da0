// Hints that a cache line will be read, or written, soon; they never change a result.
#pragma once

namespace kelvo::numcore {

inline void prefetch(const void* p) noexcept {
#if defined(__GNUC__) || defined(__clang__)
  __builtin_prefetch(p);
#else
  (void)p;
#endif
}

inline void prefetch_for_write(const void* p) noexcept {
#if defined(__GNUC__) || defined(__clang__)
  __builtin_prefetch(p, 1);
#else
  (void)p;
#endif
}

}  // namespace kelvo::numcore
