// Mode 2: the Delaunay mesh of the convex hull of the hard nodes.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <optional>

#include "delaunay/delaunay_mgr.h"
#include "delaunay/insertion_order.h"
#include "delaunay/mesh_check.h"
#include "gridkit/connectivity.h"
#include "voxfill/boundary/boundary_recoverer.h"
#include "voxfill/boundary/box_edge_removal.h"
#include "voxfill/boundary/domain_classification.h"
#include "voxfill/boundary/hard_entities.h"
#include "voxfill/boundary/hull_completion.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/kernel_task.h"
#include "voxfill/optim/regularize_mesh.h"
#include "voxfill/run_clock.h"

namespace kelvo::voxfill {
namespace {

// A numbering of the input nodes along a Hilbert curve, so that nodes close in space get close
// rows and the kernel, which inserts along the same curve, finds coordinates, ancestors and marks
// in the caches. `order` takes new indices to the caller's, `rank` the caller's to new ones.
void spatial_numbering(const dense2D<double>& pos, dense1D<unsigned>& order,
                       dense1D<unsigned>& rank) {
  if (!hilbert_order(pos, order) || !rank.resize(pos.cols)) throw std::bad_alloc();
  for (unsigned i = 0; i < pos.cols; ++i) rank[order[i]] = i;
}

// For the length of a run, the node indices of the record's input tables in the engine's
// numbering; the destructor puts them back whatever happens, so that the caller's arrays (which
// the record shares) come back as they were.
class record_renumbering {
 public:
  record_renumbering(mesher::data_type& data, const dense1D<unsigned>& rank,
                     const dense1D<unsigned>& order) noexcept
      : data_(data), order_(order) {
    gridkit::change_indices(data_.connectB, rank);
    gridkit::change_indices(data_.connectE, rank);
    gridkit::change_indices(data_.isolated_nodes, rank);
  }
  ~record_renumbering() {
    gridkit::change_indices(data_.connectB, order_);
    gridkit::change_indices(data_.connectE, order_);
    gridkit::change_indices(data_.isolated_nodes, order_);
  }
  record_renumbering(const record_renumbering&) = delete;
  record_renumbering& operator=(const record_renumbering&) = delete;

 private:
  mesher::data_type& data_;
  const dense1D<unsigned>& order_;
};

// Whether the input tables can be renumbered in place: no two of them share a buffer, which a
// caller may do with views of one array.
bool tables_apart(const mesher::data_type& data) noexcept {
  const void* B = data.connectB.vec.get();
  const void* E = data.connectE.vec.get();
  const void* iso = data.isolated_nodes.vec.get();
  return B != E && B != iso && E != iso;
}

}  // namespace

void th4_engine::run_delaunay(mesher::data_type& data) {
  const unsigned n = data.pos.cols;
  double T = clock_now();
  // The engine works on its own numbering of the nodes, made for locality, and gives the mesh
  // back in the caller's.
  dense1D<unsigned> order;
  std::optional<record_renumbering> renumbered;
  if (tables_apart(data)) {
    dense1D<unsigned> rank;
    spatial_numbering(data.pos, order, rank);
    if (!reserve(n, tets.cols())) raise_error(msg::memory_node_loading);
    for (unsigned i = 0; i < n; ++i) {
      const double* p = data.pos.col(order[i]);
      if (new_node(p[0], p[1], p[2], 0.0) == NONE) {
        raise_error(msg::memory_node_loading);
        break;
      }
    }
    renumbered.emplace(data, rank, order);
  } else if (!load_nodes(data.pos, dense1D<double>())) {
    raise_error(msg::memory_node_loading);
  }
  register_hard_entities(*this, data, false, *tasks);
  tasks->close_phase(phase_init);

  {
    dense1D<unsigned> list;
    double lo[3], hi[3];
    hard_nodes_and_box(*this, list, lo, hi);
    for (unsigned k = 0; k < 3; ++k) {
      data.hard_box_min[k] = lo[k];
      data.hard_box_max[k] = hi[k];
    }
    Ptr<task_type> phase = tasks->phase_task(phase_delaunay);
    start_delaunay(*this, kernel, list, lo, hi, 10.0, 0.0, *phase);
  }
#ifdef VOXFILL_CHECKS
  if (data.error_code == 0) {
    // The kernel's mesh, enclosing cube included, before anything else reads it. After an error
    // the mesh is thrown away below, so only a clean start is held to the invariants. A checker
    // short of memory proves nothing either way; the run goes on. Empty spheres are the tests'
    // business: near-coincident nodes leave stars shaped by their quality, not their spheres.
    mesh_check_options options;
    options.stored_qualities = true;
    const mesh_check_result r = check_mesh(*this, options);
    if (!r.ok && r.fault != mesh_fault::no_memory) {
      std::fprintf(stderr, "%s:%d: mesh after the kernel's start: %s\n", __FILE__, __LINE__,
                   r.text);
      std::abort();
    }
  }
#endif

  // With the constraints held, the mesh is the one of the true convex hull: the box corners'
  // edges give way to shorter ones, then what the box still holds is rebuilt as Delaunay tets of
  // the given nodes up to the hull.
  if (settings.strict_constraints && !must_stop()) {
    // Hard faces and edges among the nodes are recovered first, without Steiner nodes: a mesh of
    // given nodes keeps its nodes.
    std::optional<boundary_recoverer> recoverer;
    try {
      recoverer.emplace(*this, tasks->phase_task(phase_recovery), 0u);
    } catch (const std::bad_alloc&) {
      raise_error(msg::memory_error_recovery);
    }
    if (recoverer && !must_stop()) {
      dense1D<unsigned> steiner_list;
      recover_boundary(*recoverer, data.connectB, data.connectE, data.isolated_nodes, steiner_list);
    }
    recoverer.reset();
    strip_box_edges(*this, n);
    const hull_completion done = complete_hull(*this);
    if (done == hull_completion::no_memory) raise_error(msg::memory_error_run);
    if (done == hull_completion::failed) raise_error(msg::internal_error);
  }

  single_domain_colors(*this);
  data.volume = domain_volume();
  set_domain_ancestors();
  report_hard_entities(*this, data, settings.strict_constraints, *tasks);
  if (data.error_code == -104 || data.error_code == -105) {
    data.error_code = 0;
    data.msg_title[0] = data.msg_text[0] = '\0';
  }
  data.front_time = clock_now() - T;
  tasks->close_phase(phase_delaunay);
  T = clock_now();
  if (settings.optim_level != 0 && !must_stop()) {
    display("Regularize mesh.\n");
    swap_only_pass(*this, settings.optim_level);
  }
  tasks->close_phase(phase_regularize);
  data.optim_time = clock_now() - T;
  if (data.error_code == 0) display("Finalize mesh.\n");
  if (data.error_code != 0) {
    empty_mesh();
    data.volume = 0.0;
  }
  drop_outside(n);
  data.min_quality = min_quality();
  if (!write_output(data, n)) raise_error(msg::memory_output_mode2);
  if (renumbered) {  // back to the caller's numbering; nodes made here keep theirs
    gridkit::change_indices(data.connectM, order);
    gridkit::change_indices(data.missing_nodes, order);
    if (gridkit::permutation(data.ancestors, order) != 0 ||
        gridkit::permutation(data.metrics, order) != 0)
      raise_error(msg::memory_output_mode2);
  }
}

}  // namespace kelvo::voxfill
