// Speed and peak memory of start_delaunay on uniform random clouds and on a regular lattice; the
// same clouds feed the CGAL driver in peers/ for the ratio.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "delaunay/delaunay_mgr.h"
#include "kernel_job.h"
#include "peers/cloud_points.h"
#include "process_memory.h"

using namespace kelvo::voxfill;

namespace {

using bench_memory::reset_peak;
using bench_memory::status_bytes;

// Meshes the cloud with the settings of the Delaunay pipeline (cube of 10 times the extent, no
// shell nodes) and reports tets per second and peak bytes per tet of the whole process.
void run_cloud(benchmark::State& state, const std::vector<double>& xyz) {
  for (auto _ : state) {
    state.PauseTiming();
    reset_peak();
    auto* m = new mesh_store;
    auto* job = new bench_kernel::kernel_job(*m, xyz);
    state.ResumeTiming();
    job->start(*m, 10.0, 0.0);
    state.PauseTiming();
    unsigned tets = 0;
    for (unsigned t = 0; t < m->tets.cols(); ++t) tets += m->tet_live(t);
    state.counters["tets"] = tets;
    state.counters["tets_per_s"] = benchmark::Counter(tets, benchmark::Counter::kIsRate);
    state.counters["peak_bytes_per_tet"] = status_bytes("VmHWM:") / tets;
    state.counters["unenforced"] = m->unenforced_set.node_count;
    state.counters["error"] = job->data.error_code;
    delete job;
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
