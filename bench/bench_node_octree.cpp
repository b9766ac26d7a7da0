// Speed of the node octree on a million nodes: build, nearest and near node, small box queries.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "delaunay/node_octree.h"

using namespace kelvo::voxfill;
using kelvo::dense1D;

namespace {

constexpr unsigned node_count = 1000000;
constexpr unsigned query_count = 1u << 16;

// A million nodes in the unit cube, uniform or in 1000 clusters of side 1e-3, and random query
// points of the same kind.
struct fixture {
  slot_table<double> xyz{3};
  std::vector<double> queries;
  node_octree tree{&xyz};
  const double lo[3] = {0.0, 0.0, 0.0};
  const double hi[3] = {1.0, 1.0, 1.0};

  explicit fixture(bool clustered) {
    std::mt19937 rng(1);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    xyz.reserve(node_count);
    std::vector<double> centres(3000);
    for (double& c : centres) c = 0.001 + 0.998 * u(rng);
    auto point = [&](double* p) {
      const double* c = &centres[3 * (rng() % 1000)];
      for (unsigned a = 0; a < 3; ++a) p[a] = clustered ? c[a] + 1e-3 * (u(rng) - 0.5) : u(rng);
    };
    for (unsigned j = 0; j < node_count; ++j) point(xyz.row(xyz.acquire()));
    queries.resize(3 * std::size_t(query_count));
    for (unsigned q = 0; q < query_count; ++q) point(&queries[3 * q]);
    tree.set_box(lo, hi);
    for (unsigned j = 0; j < node_count; ++j) tree.add(j);
  }
};

fixture& uniform() {
  static fixture f(false);
  return f;
}
fixture& clustered() {
  static fixture f(true);
  return f;
}

void BM_build(benchmark::State& state) {
  fixture& f = state.range(0) ? clustered() : uniform();
  node_octree t(&f.xyz);
  for (auto _ : state) {
    t.set_box(f.lo, f.hi);
    for (unsigned j = 0; j < node_count; ++j) t.add(j);
    benchmark::DoNotOptimize(t.cells.cols());
  }
  state.SetItemsProcessed(state.iterations() * node_count);
  state.counters["cells"] = t.cells.cols();
}
BENCHMARK(BM_build)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_nearest_node(benchmark::State& state) {
  fixture& f = state.range(0) ? clustered() : uniform();
  unsigned q = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.tree.nearest_node(&f.queries[3 * q]));
    q = (q + 1) & (query_count - 1);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_nearest_node)->Arg(0)->Arg(1);

void BM_near_node(benchmark::State& state) {
  fixture& f = state.range(0) ? clustered() : uniform();
  unsigned q = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.tree.near_node(&f.queries[3 * q]));
    q = (q + 1) & (query_count - 1);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_near_node)->Arg(0)->Arg(1);

// Cubes of half width 0.01 around the query points: about 8 nodes each in the uniform cloud.
void BM_nodes_in_box(benchmark::State& state) {
  fixture& f = uniform();
  dense1D<unsigned> out;
  unsigned q = 0;
  for (auto _ : state) {
    const double* p = &f.queries[3 * q];
    const double lo[3] = {p[0] - 0.01, p[1] - 0.01, p[2] - 0.01};
    const double hi[3] = {p[0] + 0.01, p[1] + 0.01, p[2] + 0.01};
    unsigned ilo[3], ihi[3];
    f.tree.to_cell_coords(lo, ilo);
    f.tree.to_cell_coords(hi, ihi);
    out.clear();
    f.tree.nodes_in_box(ilo, ihi, lo, hi, out);
    benchmark::DoNotOptimize(out.size);
    q = (q + 1) & (query_count - 1);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_nodes_in_box);

}  // namespace

BENCHMARK_MAIN();
