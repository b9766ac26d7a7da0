// The engine of one run: clearing, settings in order, progress tree, dispatch on the mode.
#include "voxfill/delaunay_th4.h"

#include <algorithm>
#include <cfloat>

#include "voxfill/kernel_task.h"
#include "voxfill/refine/refine_context.h"
#include "voxfill/refine/refinement_loop.h"

namespace kelvo::voxfill {

const double* phase_weights(unsigned mode) noexcept {
  static constexpr double kWeights[4][6] = {
      {0.01, 0.09, 0.1, 0.55, 0.25, 0.0},  // mesh generation
      {0.1, 0.0, 0.0, 0.4, 0.5, 0.0},      // regularisation
      {0.1, 0.9, 0.0, 0.0, 0.0, 0.0},      // Delaunay of the hull
      {0.0, 0.0, 0.0, 0.0, 0.0, 0.0},      // any other mode
  };
  return kWeights[mode < 3 ? mode : 3];
}

th4_engine::th4_engine()
    : own_size_field(
          std::make_unique<voxfill::size_field>(node_sizes, locator, colors, true, nullptr)),
      size_field(own_size_field.get()) {
  background.bind(nodes);
}

th4_engine::~th4_engine() {
  tasks = nullptr;
  if (size_field != own_size_field.get()) delete size_field;
}

void th4_engine::clear() {
  mesh_store::clear();
  kernel.clear();
  last_recovery = recovery_counts();
  if (size_field != own_size_field.get()) delete size_field;
  size_field = own_size_field.get();
  background.clear();
  own_size_field->reseed();
}

unsigned th4_engine::nodes_under_limit() const noexcept {
  if (settings.nodes_limit == NONE) return NONE;
  unsigned alive = 0;
  for (unsigned v = 0; v < ancestors.size; ++v) alive += ancestors[v] != NONE;
  return settings.nodes_limit - std::min(settings.nodes_limit, alive);
}

void th4_engine::refine_inside(refine_context& context, const dense1D<unsigned>& steiner_list) {
  context.protected_nodes.clear();
  for (unsigned v : steiner_list) context.protected_nodes.insert(index_key{{v}});
  refine_mesh(*this, context, *tasks->phase_task(phase_refine));
}

void th4_engine::run(mesher::data_type& data, refine_context& context) {
  data.clear_data_out();
  run_steps(data, &context);
}

void th4_engine::run_inner(mesher::data_type& data) {
  run_steps(data, nullptr);
}

void th4_engine::run_steps(mesher::data_type& data, refine_context* context) {
  const mesher::settings_type kept = settings;
  clear();

  if (settings.front_as_background) settings.target_size = 0.0;
  if (!data.background_mesh.empty()) settings.target_size = 0.0;
  if (settings.mode == 0 && !settings.refine) settings.optim_node_insertion = false;
  if (settings.mode == 2) settings.compute_Qh = false;
  // A target size that a background sets aside does not limit the refinement's sizes either.
  if (context && !(settings.target_size > 0.0 && settings.target_size < DBL_MAX)) {
    context->target_size = settings.target_size;
    context->size_gradation = DBL_MAX;
  }

  Ptr<progress_bar> root(new progress_bar(settings.progress_offset, settings.progress_scale));
  root->add_phase_bars(phase_weights(settings.mode), 6);
  tasks = new task_type(&settings, root.get(), &data.error_code, &data.warning_code, data.msg_title,
                        data.msg_text);

  switch (settings.mode) {
    case 0:
      if (context) run_mesh_generation(data, *context);
      break;
    case 1:
      run_regularization(data, context);
      break;
    case 2:
      run_delaunay(data);
      break;
    default:
      break;
  }

  // The handlers come from the caller's settings, which the run does not change.
  settings = kept;
  root->finish();
  if (settings.interrupt_hdl) settings.interrupt_hdl(settings.pass_thru, root->value());
  tasks = nullptr;
}

}  // namespace kelvo::voxfill
