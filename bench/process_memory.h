// Resident memory of this process, for the peak-bytes-per-tet figures of the benchmarks.
#pragma once

#include <cstdlib>
#include <fstream>
#include <string>

namespace bench_memory {

// A field of /proc/self/status in bytes (VmHWM, VmRSS), 0 when unknown.
inline double status_bytes(const char* field) {
  std::ifstream f("/proc/self/status");
  std::string line;
  const std::size_t len = std::string(field).size();
  while (std::getline(f, line))
    if (line.compare(0, len, field) == 0) return std::atof(line.c_str() + len + 1) * 1024.0;
  return 0.0;
}

// Lets the peak resident set start again from the current one (Linux 4.0 and later).
inline void reset_peak() {
  std::ofstream f("/proc/self/clear_refs");
  f << "5";
}

}  // namespace bench_memory
