// The wall clock of a run's timers, in seconds, to the millisecond.
#pragma once

#include <chrono>

namespace kelvo::voxfill {

inline double clock_now() {
  using namespace std::chrono;
  const auto ms = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  return double(ms / 1000) + 0.001 * double(ms % 1000);
}

}  // namespace kelvo::voxfill
