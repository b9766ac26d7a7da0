// A cloud loaded into a mesh store, ready for start_delaunay as the Delaunay pipeline calls it:
// the nodes in cloud order, their bounding box, and a task on the Delaunay phase bar.
#pragma once

#include <vector>

#include "voxfill/delaunay_th4.h"
#include "voxfill/kernel_task.h"

namespace bench_kernel {

struct kernel_job {
  kelvo::voxfill::mesher::settings_type settings;
  kelvo::voxfill::mesher::data_type data;
  kelvo::Ptr<kelvo::voxfill::progress_bar> root;
  kelvo::Ptr<kelvo::voxfill::task_type> task;
  kelvo::dense1D<unsigned> list;
  kelvo::voxfill::kernel_workspace ws;
  double lo[3] = {0.0, 0.0, 0.0}, hi[3] = {0.0, 0.0, 0.0};

  // x y z of point k at 3 k of `xyz`.
  kernel_job(kelvo::voxfill::mesh_store& m, const std::vector<double>& xyz) {
    using namespace kelvo::voxfill;
    root = new progress_bar(0.0, 1.0);
    root->add_phase_bars(phase_weights(2), 6);
    task = new task_type(&settings, root.get(), &data.error_code, &data.warning_code,
                         data.msg_title, data.msg_text);
    const unsigned n = unsigned(xyz.size() / 3);
    m.reserve(n, 0);
    list.reserve(n);
    for (unsigned k = 0; k < n; ++k) {
      const double* p = &xyz[3 * std::size_t(k)];
      list.push_back(m.new_node(p[0], p[1], p[2], 0.0));
      for (unsigned i = 0; i < 3; ++i) {
        lo[i] = k && lo[i] < p[i] ? lo[i] : p[i];
        hi[i] = k && hi[i] > p[i] ? hi[i] : p[i];
      }
    }
  }

  void start(kelvo::voxfill::mesh_store& m, double box_factor, double shell_ratio) {
    kelvo::Ptr<kelvo::voxfill::task_type> phase = task->phase_task(kelvo::voxfill::phase_delaunay);
    kelvo::voxfill::start_delaunay(m, ws, list, lo, hi, box_factor, shell_ratio, *phase);
  }
};

}  // namespace bench_kernel
