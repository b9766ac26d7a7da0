// Fingerprint of the Delaunay kernel's tables, to check that a change meant to make the kernel
// faster leaves its results alone: the node, neighbour, quality, ancestor and colour tables after
// start_delaunay are hashed (FNV-1a over their bytes) for a set of clouds that reach the awkward
// branches (cospherical lattices, a lattice moved by 1e-11 with hard faces, duplicates, a flat
// slab). Compare the printed lines before and after the change.
// Usage: kernel_digest                  the five small cases
//        kernel_digest uniform N | lattice S | sphere N   one large case, with its time
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "../kernel_job.h"
#include "../peers/cloud_points.h"
#include "delaunay/delaunay_mgr.h"

using namespace kelvo::voxfill;

namespace {

std::uint64_t fnv(const void* p, std::size_t n, std::uint64_t h) {
  const auto* c = static_cast<const unsigned char*>(p);
  for (std::size_t i = 0; i < n; ++i) {
    h ^= c[i];
    h *= 1099511628211ull;
  }
  return h;
}

struct outcome {
  unsigned tets, unenforced;
  double seconds;
  std::uint64_t digest;
};

// Meshes the cloud; hard faces (i, i + 1, i + step) for i below `hard_faces` when asked.
outcome run(const std::vector<double>& xyz, double box_factor, double shell_ratio,
            unsigned hard_faces, unsigned step) {
  mesh_store m;
  bench_kernel::kernel_job job(m, xyz);
  for (unsigned k = 0; k < hard_faces; ++k) m.hard_set.add_face(k, k + 1, k + step);
  const auto t0 = std::chrono::steady_clock::now();
  job.start(m, box_factor, shell_ratio);
  const auto t1 = std::chrono::steady_clock::now();
  std::uint64_t h = 1469598103934665603ull;
  h = fnv(m.tets.row(0), sizeof(unsigned) * 4 * m.tets.cols(), h);
  h = fnv(m.neighbors.row(0), sizeof(unsigned) * 4 * m.neighbors.cols(), h);
  h = fnv(m.tet_qualities.data(), sizeof(double) * m.tet_qualities.size, h);
  h = fnv(m.ancestors.data(), sizeof(unsigned) * m.ancestors.size, h);
  h = fnv(m.colors.data(), sizeof(unsigned) * m.colors.size, h);
  return {m.tets.cols(), m.unenforced_set.node_count,
          std::chrono::duration<double>(t1 - t0).count(), h};
}

void print(const char* name, const outcome& o, bool timed) {
  std::printf("%-10s tets %9u unenforced %5u digest %016llx", name, o.tets, o.unenforced,
              static_cast<unsigned long long>(o.digest));
  if (timed) std::printf(" seconds %.3f", o.seconds);
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3) {
    const std::string kind = argv[1];
    const unsigned n = unsigned(std::strtoul(argv[2], nullptr, 10));
    std::vector<double> xyz;
    if (kind == "uniform")
      xyz = bench_clouds::uniform_cloud(n);
    else if (kind == "lattice")
      xyz = bench_clouds::lattice_cloud(n);
    else if (kind == "sphere")
      xyz = bench_clouds::sphere_cloud(n);
    else {
      std::fprintf(stderr, "kernel_digest: unknown cloud %s\n", argv[1]);
      return 2;
    }
    print(argv[1], run(xyz, 10.0, 0.0, 0, 0), true);
    return 0;
  }
  if (argc != 1) {
    std::fprintf(stderr, "usage: %s [uniform N | lattice S | sphere N]\n", argv[0]);
    return 2;
  }
  print("uniform", run(bench_clouds::uniform_cloud(30000), 10.0, 0.0, 0, 0), false);
  print("lattice", run(bench_clouds::lattice_cloud(20), 3.0, 0.01, 0, 0), false);
  {
    std::vector<double> xyz = bench_clouds::lattice_cloud(14);
    std::mt19937 g(5);
    for (double& x : xyz) x += 1e-11 * (g() / 4294967296.0 - 0.5);
    print("moved", run(xyz, 10.0, 0.0, 40, 14), false);
  }
  {
    std::vector<double> xyz = bench_clouds::uniform_cloud(5000);
    for (unsigned k = 0; k < 500; ++k)
      for (int i = 0; i < 3; ++i) xyz.push_back(xyz[3 * 7 * k + i]);
    print("duplicates", run(xyz, 10.0, 0.0, 0, 0), false);
  }
  {
    std::vector<double> xyz = bench_clouds::uniform_cloud(8000);
    for (std::size_t k = 2; k < xyz.size(); k += 3) xyz[k] *= 1e-7;
    print("slab", run(xyz, 10.0, 0.0, 0, 0), false);
  }
  return 0;
}
