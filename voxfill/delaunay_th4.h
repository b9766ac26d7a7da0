// The engine of one run: all its state, the dispatch on the mode, and the steps the pipelines share.
#pragma once

#include "voxfill/mesher_th4.h"
#include "voxfill/task_mgr.h"

namespace kelvo::voxfill {

struct refine_context;

using task_type = task_mgr<mesher::settings_type, mesher::data_type>;

// Phase bars of the root: weights per mode for the six sections.
enum phase_index : unsigned {
  phase_init = 0,
  phase_delaunay = 1,
  phase_recovery = 2,
  phase_refine = 3,
  phase_regularize = 4,
  phase_none = 5
};

class th4_engine {
 public:
  mesher::settings_type settings;  // the run's copy; the run may change it
  Ptr<task_type> tasks;            // null outside of a run

  th4_engine() = default;
  th4_engine(const th4_engine&) = delete;
  th4_engine& operator=(const th4_engine&) = delete;

  // Clears the engine, puts the settings in order, makes the progress tree and the task manager,
  // runs the pipeline of `settings.mode`, and restores the settings.
  void run(mesher::data_type& data, refine_context& context);

  // Empties every table and re-seeds the generators.
  void clear();

  // Pipelines of the three modes.
  void run_mesh_generation(mesher::data_type& data, refine_context& context);
  void run_regularization(mesher::data_type& data);
  void run_delaunay(mesher::data_type& data);
};

// Weights of the six phase bars for a mode; all zero for an unknown mode.
const double* phase_weights(unsigned mode) noexcept;

}  // namespace kelvo::voxfill
