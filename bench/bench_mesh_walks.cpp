// Balls, shells and point location per second on a Delaunay mesh of about a million tets.
#include <benchmark/benchmark.h>

#include <random>

#include "delaunay/mesh_walks.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/kernel_task.h"

using namespace kelvo::voxfill;
using kelvo::dense1D;
using kelvo::Ptr;

namespace {

// A mesh of 160000 uniform points (about 1.05 million tets), built once.
struct big_mesh {
  mesher::settings_type settings;
  mesher::data_type data;
  Ptr<progress_bar> root{new progress_bar(0.0, 1.0)};
  Ptr<task_type> task;
  mesh_store m;
  dense1D<unsigned> list;

  big_mesh() {
    root->add_phase_bars(phase_weights(2), 6);
    task = new task_type(&settings, root.get(), &data.error_code, &data.warning_code,
                         data.msg_title, data.msg_text);
    std::mt19937 g(1);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (unsigned k = 0; k < 160000; ++k) list.push_back(m.new_node(u(g), u(g), u(g), 0.0));
    const double lo[3] = {0, 0, 0}, hi[3] = {1, 1, 1};
    Ptr<task_type> phase = task->phase_task(phase_delaunay);
    kernel_workspace ws;
    start_delaunay(m, ws, list, lo, hi, 10.0, 0.0, *phase);
  }
};

big_mesh& mesh() {
  static big_mesh b;
  return b;
}

void BM_ball_of_node(benchmark::State& state) {
  mesh_store& m = mesh().m;
  dense1D<unsigned> out;
  unsigned n = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(ball_of_node(m, mesh().list[n], NONE, out));
    n = (n + 7919) % mesh().list.size;
  }
  state.counters["tets"] = double(m.tets.cols());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ball_of_node);

void BM_shell_of_edge(benchmark::State& state) {
  mesh_store& m = mesh().m;
  dense1D<unsigned> out;
  unsigned t = 0;
  for (auto _ : state) {
    while (!m.tet_live(t)) t = (t + 1) % m.tets.cols();
    const unsigned* r = m.tets.row(t);
    benchmark::DoNotOptimize(shell_of_edge(m, r[0], r[1], t, out));
    t = (t + 7919) % m.tets.cols();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_shell_of_edge);

void BM_locate_tet(benchmark::State& state) {
  mesh_store& m = mesh().m;
  std::mt19937 g(2);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  for (auto _ : state) {
    const double P[3] = {u(g), u(g), u(g)};
    unsigned t = NONE;
    benchmark::DoNotOptimize(locate_tet(m, P, t, LOCATE_TOL));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_locate_tet);

}  // namespace

BENCHMARK_MAIN();
