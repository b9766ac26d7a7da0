// The Delaunay kernel as a step of a pipeline: its progress and polls go through a task, and the
// status it returns becomes the code and message of the record.
#pragma once

#include "delaunay/delaunay_mgr.h"
#include "voxfill/task_mgr.h"

namespace kelvo::voxfill {

// Callbacks that poll the task (`must_stop`) and advance its bar. The task must outlive them.
kernel_progress progress_of(const task_type& task) noexcept;

// Raises the error that stands for `status` through the task; nothing for ok.
void raise_kernel_status(const task_type& task, kernel_status status);

// start_delaunay on a progress section of the list's length, with errors raised through the task:
// -102 "Illegal coordinates.", -107 "Aligned nodes." (flat box, or flat cube tets), -199 memory.
void start_delaunay(mesh_store& m, kernel_workspace& ws, dense1D<unsigned>& list,
                    const double lo[3], const double hi[3], double box_factor, double shell_ratio,
                    const task_type& task);

}  // namespace kelvo::voxfill
