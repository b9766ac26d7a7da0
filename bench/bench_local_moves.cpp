// Edge moves per second over the worst tets of a real mesh, and tet set exchanges per second.
// The mesh is the Delaunay mesh of the nodes of bunny00.off when the shared data is there, else
// of a random cloud of the same size.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "delaunay/mesh_walks.h"
#include "tests/mesh_fixtures.h"
#include "voxfill/optim/edge_code.h"
#include "voxfill/optim/edge_move.h"
#include "voxfill/optim/shell_reconnection.h"

using namespace kelvo::voxfill;
using kelvo::dense1D;
using kelvo::dense2D;

namespace {

// Nodes of an OFF file; empty when it cannot be read.
std::vector<double> off_nodes(const std::string& path) {
  std::ifstream in(path);
  std::string magic;
  unsigned nv = 0, nf = 0, ne = 0;
  if (!(in >> magic >> nv >> nf >> ne) || magic != "OFF") return {};
  std::vector<double> xyz(3 * std::size_t(nv));
  for (double& v : xyz)
    if (!(in >> v)) return {};
  return xyz;
}

void load_cloud_mesh(th4_engine& e) {
  std::vector<double> xyz =
      off_nodes(std::string(VOXFILL_SOURCE_DIR) + "/../shared/data/bunny00.off");
  if (xyz.empty()) {
    std::mt19937 g(1);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    xyz.resize(3 * 37706);
    for (double& v : xyz) v = u(g);
  }
  const unsigned n = unsigned(xyz.size() / 3);
  dense2D<double> pos(3, n);
  std::copy(xyz.begin(), xyz.end(), pos.col(0));
  mesher::data_type d(pos, dense2D<unsigned>());
  for (unsigned j = 0; j < n; ++j) d.isolated_nodes.push_back(j);
  mesher run;
  run.settings.mode = 2;
  run.run(d);
  fixtures::load_output(e, d);
  // Sizes: the mean length of the edges at each node.
  std::vector<double> sum(e.nodes.cols(), 0.0);
  std::vector<unsigned> count(e.nodes.cols(), 0);
  for (unsigned t = 0; t < e.tets.cols(); ++t)
    for (unsigned k = 0; k < 6; ++k) {
      unsigned a, b;
      edge_nodes(e, t, k, a, b);
      const double l = std::sqrt(edge_length2(e.nodes.data, a, b));
      sum[a] += l, sum[b] += l, ++count[a], ++count[b];
    }
  for (unsigned j = 0; j < e.nodes.cols(); ++j)
    e.node_sizes[j] = count[j] ? sum[j] / count[j] : 0.0;
  e.reserve(2 * e.nodes.cols(), 2 * e.tets.cols());
}

void BM_edge_move(benchmark::State& state) {
  th4_engine e;
  load_cloud_mesh(e);
  regularizer g(e, true, false, true);
  g.merit.shape_weight = 0.6;
  g.merit.start_topology_terms();
  g.merit.fill_valence_records();
  std::vector<unsigned> worst;
  dense1D<unsigned> new_nodes;
  unsigned left = 0xFFFFFFFFu, next = 0, done = 0;
  auto pick = [&] {
    worst.clear();
    for (unsigned t = 0; t < e.tets.cols(); ++t)
      if (!e.tet_deleted(t)) worst.push_back(t);
    std::stable_sort(worst.begin(), worst.end(), [&](unsigned x, unsigned y) {
      return e.tet_qualities[x] < e.tet_qualities[y];
    });
    worst.resize(std::min<std::size_t>(worst.size(), 20000));
    next = 0;
  };
  pick();
  for (auto _ : state) {
    if (next >= 6 * worst.size()) {
      state.PauseTiming();
      pick();
      state.ResumeTiming();
    }
    const unsigned t = worst[next / 6], k = next % 6;
    ++next;
    if (e.tet_deleted(t)) continue;
    double gain;
    done += edge_move(g, t, k, 0.6, 1.4, 6, false, true, 0.25, 1.001, left, new_nodes, gain);
  }
  state.counters["moves_done"] = done;
  state.counters["tets"] = double(e.tets.cols() - e.tets.free_stack.size);
}
BENCHMARK(BM_edge_move)->Unit(benchmark::kMicrosecond)->Iterations(200000);

void BM_replace_tets(benchmark::State& state) {
  // A 3-tet shell closed off by fans: exchanged for its 2-tet pattern and back, over and over.
  mesh_store m;
  std::vector<std::array<double, 3>> pts = {{0, 0, -0.4},   {0, 0, 0.4},     {1, 0, 0},
                                            {-0.5, 0.8, 0}, {-0.5, -0.8, 0}, {0, 0, 2.4},
                                            {0, 0, -2.4}};
  std::vector<std::array<unsigned, 4>> tets;
  for (unsigned i = 0; i < 3; ++i) {
    tets.push_back({2 + i, 2 + (i + 1) % 3, 0, 1});
    tets.push_back({2 + i, 2 + (i + 1) % 3, 1, 5});
    tets.push_back({2 + i, 2 + (i + 1) % 3, 0, 6});
  }
  fixtures::load_mesh(m, pts, tets);
  dense1D<unsigned> shell, ring, fresh;
  shell_with_ring(m, 0, 1, NONE, shell, ring);
  dense2D<unsigned> three(4, 3), two, edges;
  for (unsigned i = 0; i < 3; ++i) std::copy_n(m.tets.row(shell[i]), 4, three.col(i));
  pattern_rows(0, 1, ring, 0, two, edges);
  dense1D<double> q3(3), q2(2);
  replace_scratch s;
  bool ok = true;
  for (auto _ : state) {
    ok &= replace_tets(m, s, shell, two, q2, fresh);
    ok &= replace_tets(m, s, fresh, three, q3, shell);
  }
  if (!ok) state.SkipWithError("an exchange was refused");
  state.SetItemsProcessed(2 * state.iterations());
}
BENCHMARK(BM_replace_tets);

}  // namespace

BENCHMARK_MAIN();
