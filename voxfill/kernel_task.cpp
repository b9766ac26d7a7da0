// The Delaunay kernel as a step of a pipeline: progress, polls and the record's messages.
#include "voxfill/kernel_task.h"

namespace kelvo::voxfill {

kernel_progress progress_of(const task_type& task) noexcept {
  kernel_progress p;
  p.context = const_cast<task_type*>(&task);
  p.must_stop = [](void* c) { return static_cast<const task_type*>(c)->must_stop(); };
  p.advance = [](void* c, unsigned steps) { static_cast<const task_type*>(c)->advance(steps); };
  return p;
}

void raise_kernel_status(const task_type& task, kernel_status status) {
  switch (status) {
    case kernel_status::ok:
      return;
    case kernel_status::illegal_coordinates:
      return task.raise_error(msg::illegal_coordinates);
    case kernel_status::aligned_nodes:
      return task.raise_error(msg::aligned_nodes);
    case kernel_status::degenerate_box:
      return task.raise_error(msg::aligned_nodes_second);
    case kernel_status::out_of_memory:
      return task.raise_error(msg::memory_error_run);
  }
}

void start_delaunay(mesh_store& m, kernel_workspace& ws, dense1D<unsigned>& list,
                    const double lo[3], const double hi[3], double box_factor, double shell_ratio,
                    const task_type& task) {
  if (list.size == 0) return;
  Ptr<task_type> section = task.section(1.0, list.size);
  kernel_progress progress = progress_of(*section);
  const kernel_status status =
      start_delaunay(m, ws, list, lo, hi, box_factor, shell_ratio, progress);
  task.drop_sections(1);
  raise_kernel_status(task, status);
}

}  // namespace kelvo::voxfill
