// Fuzz target: load of arbitrary bytes returns one of its codes and, when it succeeds, what it
// read survives a save and a second load unchanged. Sanitizers catch the rest.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "voxfill/mesher_th4.h"

using data_type = kelvo::voxfill::mesher::data_type;

namespace {

// One pair of files per process, so that parallel jobs do not share them; removed at exit.
// A memory file system, where there is one, keeps disk I/O from setting the pace.
std::filesystem::path temp_dir() {
  std::error_code ec;
  if (std::filesystem::is_directory("/dev/shm", ec)) return "/dev/shm";
  return std::filesystem::temp_directory_path();
}
const std::string base = (temp_dir() / ("voxfill_fuzz_load_" + std::to_string(getpid()))).string();
const std::string paths[2] = {base + "_in.txt", base + "_out.txt"};

void remove_files() {
  std::remove(paths[0].c_str());
  std::remove(paths[1].c_str());
}

const std::string& temp_path(int k) {
  static const bool registered = std::atexit(remove_files) == 0;
  (void)registered;
  return paths[k];
}

template <class T>
bool same(const kelvo::dense2D<T>& a, const kelvo::dense2D<T>& b) {
  return a.rows == b.rows && a.cols == b.cols &&
         (a.empty() || !std::memcmp(a.col(0), b.col(0), sizeof(T) * a.rows * a.cols));
}
template <class T>
bool same(const kelvo::dense1D<T>& a, const kelvo::dense1D<T>& b) {
  return a.size == b.size && (!a.size || !std::memcmp(a.data(), b.data(), sizeof(T) * a.size));
}

void require(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  // Larger inputs add no new paths through the reader, only time.
  if (size > 1 << 16) return 0;
  std::FILE* f = std::fopen(temp_path(0).c_str(), "wb");
  if (!f) return 0;
  std::fwrite(bytes, 1, size, f);
  std::fclose(f);

  data_type d;
  const int r = d.load(temp_path(0).c_str());
  require(r >= 0 || r == -1 || r == -2 || r == -199);
  if (r < 0) return 0;
  require(d.pos.size == d.pos.rows * d.pos.cols);

  // Sixteen digits behind the point give every double back exactly.
  d.save(temp_path(1).c_str(), 16);
  data_type back;
  require(back.load(temp_path(1).c_str()) == int(d.colors.size));
  require(same(d.pos, back.pos) && same(d.connectB, back.connectB) &&
          same(d.connectE, back.connectE) && same(d.isolated_nodes, back.isolated_nodes) &&
          same(d.background_mesh, back.background_mesh) && same(d.metrics, back.metrics) &&
          same(d.connectM, back.connectM) && same(d.colors, back.colors));
  return 0;
}
