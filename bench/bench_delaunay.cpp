// Speed and peak memory of start_delaunay on uniform random clouds and on a regular lattice; the
// same clouds feed the CGAL driver in peers/ for the ratio.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "delaunay/delaunay_mgr.h"
#include "peers/cloud_points.h"
#include "process_memory.h"

using namespace kelvo::voxfill;
using kelvo::Ptr;

namespace {

using bench_memory::reset_peak;
using bench_memory::status_bytes;

// Meshes the cloud with the settings of the Delaunay pipeline (cube of 10 times the extent, no
// shell nodes) and reports tets per second and peak bytes per tet of the whole process.
void run_cloud(benchmark::State& state, const std::vector<double>& xyz) {
  const unsigned n = unsigned(xyz.size() / 3);
  for (auto _ : state) {
    state.PauseTiming();
    reset_peak();
    auto* m = new mesh_store;
    mesher::settings_type settings;
    mesher::data_type data;
    Ptr<progress_bar> root = new progress_bar(0.0, 1.0);
    root->add_phase_bars(phase_weights(2), 6);
    Ptr<task_type> task = new task_type(&settings, root.get(), &data.error_code, &data.warning_code,
                                        data.msg_title, data.msg_text);
    m->reserve(n, 0);
    kelvo::dense1D<unsigned> list;
    list.reserve(n);
    double lo[3], hi[3];
    for (unsigned k = 0; k < n; ++k) {
      const double* p = &xyz[3 * std::size_t(k)];
      list.push_back(m->new_node(p[0], p[1], p[2], 0.0));
      for (unsigned i = 0; i < 3; ++i) {
        lo[i] = k && lo[i] < p[i] ? lo[i] : p[i];
        hi[i] = k && hi[i] > p[i] ? hi[i] : p[i];
      }
    }
    Ptr<task_type> phase = task->phase_task(phase_delaunay);
    state.ResumeTiming();
    start_delaunay(*m, list, lo, hi, 10.0, 0.0, *phase);
    state.PauseTiming();
    unsigned tets = 0;
    for (unsigned t = 0; t < m->tets.cols(); ++t) tets += m->tet_live(t);
    state.counters["tets"] = tets;
    state.counters["tets_per_s"] = benchmark::Counter(tets, benchmark::Counter::kIsRate);
    state.counters["peak_bytes_per_tet"] = status_bytes("VmHWM:") / tets;
    state.counters["unenforced"] = m->unenforced_set.node_count;
    state.counters["error"] = data.error_code;
    delete m;
    state.ResumeTiming();
  }
}

void BM_start_delaunay_uniform(benchmark::State& state) {
  run_cloud(state, bench_clouds::uniform_cloud(unsigned(state.range(0))));
}
BENCHMARK(BM_start_delaunay_uniform)
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_start_delaunay_lattice(benchmark::State& state) {
  run_cloud(state, bench_clouds::lattice_cloud(unsigned(state.range(0))));
}
BENCHMARK(BM_start_delaunay_lattice)
    ->Arg(100)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
