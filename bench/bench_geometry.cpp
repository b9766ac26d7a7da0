// Speed of the signed tet quality: tet_quality on random and nearly flat tets, raw_shape_quality.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "delaunay/geometry.h"

using namespace kelvo::voxfill;
using kelvo::dense2D;

namespace {

constexpr unsigned node_count = 1u << 14;
constexpr unsigned tet_count = 1u << 14;

// Random nodes in the unit cube and random quadruples of them; with `flat` set, every fourth node
// lies nearly on the plane of the three before it, so that the permutation retries run.
struct fixture {
  dense2D<double> coords{3, node_count};
  std::vector<unsigned> tets;

  explicit fixture(bool flat) {
    std::mt19937 rng(1);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (unsigned j = 0; j < node_count; ++j)
      for (unsigned i = 0; i < 3; ++i) coords(i, j) = u(rng);
    if (flat)
      for (unsigned j = 3; j < node_count; j += 4) {
        const double s = u(rng), t = u(rng);
        for (unsigned i = 0; i < 3; ++i)
          coords(i, j) = coords(i, j - 3) + s * (coords(i, j - 2) - coords(i, j - 3)) +
                         t * (coords(i, j - 1) - coords(i, j - 3)) + 1e-11 * (u(rng) - 0.5);
      }
    std::uniform_int_distribution<unsigned> pick(0, node_count - 1);
    tets.resize(4 * std::size_t(tet_count));
    for (unsigned t = 0; t < tet_count; ++t)
      for (unsigned k = 0; k < 4; ++k)
        tets[4 * t + k] = flat ? 4 * (t % (node_count / 4)) + k : pick(rng);
  }
};

void BM_tet_quality(benchmark::State& state) {
  const fixture f(false);
  unsigned t = 0;
  for (auto _ : state) {
    const unsigned* n = &f.tets[4 * std::size_t(t)];
    benchmark::DoNotOptimize(tet_quality(f.coords, n[0], n[1], n[2], n[3]));
    t = (t + 1) & (tet_count - 1);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_tet_quality);

void BM_tet_quality_nearly_flat(benchmark::State& state) {
  const fixture f(true);
  unsigned t = 0;
  for (auto _ : state) {
    const unsigned* n = &f.tets[4 * std::size_t(t)];
    benchmark::DoNotOptimize(tet_quality(f.coords, n[0], n[1], n[2], n[3]));
    t = (t + 1) & (tet_count - 1);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_tet_quality_nearly_flat);

void BM_raw_shape_quality(benchmark::State& state) {
  const fixture f(false);
  std::vector<double> edges(9 * std::size_t(tet_count));
  for (unsigned t = 0; t < tet_count; ++t) {
    const unsigned* n = &f.tets[4 * std::size_t(t)];
    for (unsigned k = 0; k < 3; ++k)
      for (unsigned i = 0; i < 3; ++i)
        edges[9 * std::size_t(t) + 3 * k + i] = f.coords(i, n[k]) - f.coords(i, n[3]);
  }
  unsigned t = 0;
  for (auto _ : state) {
    const double* e = &edges[9 * std::size_t(t)];
    bool doubtful;
    benchmark::DoNotOptimize(raw_shape_quality(e, e + 3, e + 6, doubtful));
    benchmark::DoNotOptimize(doubtful);
    t = (t + 1) & (tet_count - 1);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_raw_shape_quality);

}  // namespace

BENCHMARK_MAIN();
