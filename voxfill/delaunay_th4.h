// The engine of one run: all its state, the dispatch on the mode, and the steps the pipelines
// share.
#pragma once

#include <memory>

#include "delaunay/kernel_workspace.h"
#include "delaunay/mesh_store.h"
#include "voxfill/boundary/recovery_counts.h"
#include "voxfill/mesher_th4.h"
#include "voxfill/refine/background_mesh.h"
#include "voxfill/refine/size_field.h"
#include "voxfill/task_mgr.h"

namespace kelvo::voxfill {

struct refine_context;

// Phase bars of the root: weights per mode for the six sections.
enum phase_index : unsigned {
  phase_init = 0,
  phase_delaunay = 1,
  phase_recovery = 2,
  phase_refine = 3,
  phase_regularize = 4,
  phase_none = 5
};

// All state of one run. The mesh store's tables are the engine's own fields.
class th4_engine : public mesh_store {
 public:
  background_tables background;  // empty without a background mesh
  // The size field over the mesh itself, made with the engine, and the field in force: the own
  // one, or a field over a background mesh, which the engine then owns as well.
  std::unique_ptr<voxfill::size_field> own_size_field;
  voxfill::size_field* size_field = nullptr;
  mesher::settings_type settings;  // the run's copy; the run may change it
  Ptr<task_type> tasks;            // null outside of a run
  kernel_workspace kernel;         // scratch of the Delaunay kernel, handed to its every call
  recovery_counts last_recovery;   // what the last boundary recovery of the run did

  th4_engine();
  ~th4_engine();
  th4_engine(const th4_engine&) = delete;
  th4_engine& operator=(const th4_engine&) = delete;

  // Clears the engine, puts the settings in order, makes the progress tree and the task manager,
  // runs the pipeline of `settings.mode`, and restores the settings.
  void run(mesher::data_type& data, refine_context& context);
  // The same for a nested run on a fresh record: `data` is not cleared first, and only modes 1
  // and 2 are run.
  void run_inner(mesher::data_type& data);

  // Empties every table, re-seeds the generators, and puts the own size field back in force.
  void clear();

  // The run after the record's clearing; mode 0 only with a refinement context.
  void run_steps(mesher::data_type& data, refine_context* context);

  // Pipelines of the three modes.
  void run_mesh_generation(mesher::data_type& data, refine_context& context);
  void run_regularization(mesher::data_type& data, refine_context* context);
  // The first steps of the regularisation: the caller's tets loaded, linked and sized, skin and
  // walls hard, `min_quality_in` and `quality_bound` set. True when the input was inverted.
  bool load_given_mesh(mesher::data_type& data, bool again);
  // Nodes that may still be made under `nodes_limit`; NONE for no limit.
  unsigned nodes_under_limit() const noexcept;
  // The refinement loop on the classified mesh, from `context.nodes_left` on; the Steiner nodes
  // that the boundary recovery left are protected.
  void refine_inside(refine_context& context, const dense1D<unsigned>& steiner_list);
  void run_delaunay(mesher::data_type& data);

  // Output stage.
  // Removes the outside tets, then the nodes from `first_node` on that no tet uses, and compacts.
  void drop_outside(unsigned first_node);
  // Close the holes of the tet (node) tables; `map` takes old rows to new ones, NONE for dropped
  // rows. Return the new count.
  unsigned compact_tets(dense1D<unsigned>& map);
  unsigned compact_nodes(dense1D<unsigned>& map);
  // Removes all tets; the nodes stay.
  void empty_mesh();
  // Reverses every tet by swapping its local nodes 1 and 2 (and neighbours 1 and 2).
  void turn_all_tets();
  // Histogram of the edge lengths in the size field, each edge of the live tets once.
  void fill_histo_Qh(histogram& h) const;
  // Hands the tables to `data` by sharing and sets the counts and the quality histogram. False
  // when the new columns of `pos` could not be appended (everything else is set all the same).
  bool write_output(mesher::data_type& data, unsigned first_node);
  // Keeps in the missing lists only what the final mesh really lacks, and sets the hard counts.
  void update_missing_lists(mesher::data_type& data);
  // Smallest quality of the tets in the domain; 0.0 when there is none.
  double min_quality() const;
  // Sum of the signed volumes of the tets in the domain.
  double domain_volume() const;
  // ancestors from the tets in the domain only.
  void set_domain_ancestors();

  // Raises through the run's task, when there is one.
  void raise_error(msg id) const {
    if (tasks) tasks->raise_error(id);
  }
  bool must_stop() const { return tasks && tasks->must_stop(); }
  void display(const char* text) const {
    if (tasks) tasks->display(text);
  }
};

// Weights of the six phase bars for a mode; all zero for an unknown mode.
const double* phase_weights(unsigned mode) noexcept;

}  // namespace kelvo::voxfill
