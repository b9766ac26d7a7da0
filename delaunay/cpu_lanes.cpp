#include "delaunay/cpu_lanes.h"

#include <cstdlib>
#include <cstring>

namespace kelvo::voxfill {

namespace {

bool lanes_wanted() noexcept {
  const char* v = std::getenv("VOXFILL_VECTOR_LANES");
  return !(v && (std::strcmp(v, "off") == 0 || std::strcmp(v, "0") == 0));
}

}  // namespace

bool lanes_sse2() noexcept {
#if defined(__SSE2__)
  static const bool on = lanes_wanted();
  return on;
#else
  return false;
#endif
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
bool lanes_avx() noexcept {
  static const bool on = [] {
    __builtin_cpu_init();
    return lanes_wanted() && __builtin_cpu_supports("avx") != 0;
  }();
  return on;
}

bool lanes_avx2() noexcept {
  static const bool on = [] {
    __builtin_cpu_init();
    return lanes_wanted() && __builtin_cpu_supports("avx2") != 0;
  }();
  return on;
}
#else
bool lanes_avx() noexcept {
  return false;
}
bool lanes_avx2() noexcept {
  return false;
}
#endif

}  // namespace kelvo::voxfill
