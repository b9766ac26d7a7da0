// The whole run of the Delaunay pipeline through the public interface, beside the kernel alone:
// tets per second and peak bytes per tet, so that the cost around the kernel shows.
#include <benchmark/benchmark.h>

#include "peers/cloud_points.h"
#include "process_memory.h"
#include "voxfill/mesher_th4.h"

using kelvo::dense2D;
using kelvo::voxfill::mesher;

namespace {

void BM_mesher_run_delaunay(benchmark::State& state) {
  const std::vector<double> xyz = bench_clouds::uniform_cloud(unsigned(state.range(0)));
  const unsigned n = unsigned(xyz.size() / 3);
  for (auto _ : state) {
    state.PauseTiming();
    bench_memory::reset_peak();
    dense2D<double> pos(3, n);
    std::copy(xyz.begin(), xyz.end(), pos.vec->data);
    auto* data = new mesher::data_type(pos, dense2D<unsigned>());
    data->isolated_nodes.resize(n);
    for (unsigned k = 0; k < n; ++k) data->isolated_nodes[k] = k;
    mesher m;
    m.settings.mode = 2;
    m.settings.optim_level = 0;
    state.ResumeTiming();
    m.run(*data);
    state.PauseTiming();
    const double tets = data->tet_count;
    state.counters["tets"] = tets;
    state.counters["tets_per_s"] = benchmark::Counter(tets, benchmark::Counter::kIsRate);
    state.counters["peak_bytes_per_tet"] = bench_memory::status_bytes("VmHWM:") / tets;
    state.counters["front_s"] = data->front_time;
    state.counters["error"] = data->error_code;
    delete data;
    state.ResumeTiming();
  }
}
BENCHMARK(BM_mesher_run_delaunay)
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
