// Mode 0: the volume enclosed by a boundary mesh, with hard edges and hard nodes inside.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <new>
#include <optional>
#include <type_traits>

#include "gridkit/connectivity.h"
#include "gridkit/metric_smoothing.h"
#include "voxfill/boundary/boundary_closing.h"
#include "voxfill/boundary/boundary_recoverer.h"
#include "voxfill/boundary/domain_classification.h"
#include "voxfill/boundary/hard_entities.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/kernel_task.h"
#include "voxfill/node_ordering.h"
#include "voxfill/optim/regularize_mesh.h"
#include "voxfill/refine/background_mesh.h"
#include "voxfill/refine/refine_context.h"
#include "voxfill/refine/refinement_estimate.h"
#include "voxfill/refine/refinement_loop.h"
#include "voxfill/refine/size_field.h"
#include "voxfill/run_clock.h"

namespace kelvo::voxfill {
namespace {

// Whether two views sit on one buffer with a common stretch up to the end of its reserve.
template <class A, class B>
bool reserves_overlap(const A& a, const B& b) noexcept {
  if (static_cast<const void*>(a.vec.get()) != static_cast<const void*>(b.vec.get())) return false;
  return std::max(a.offset, b.offset) < a.vec->capacity;
}

// The input tables are renumbered in place and back at the end. A caller may hand views of one
// buffer as two tables; each such table gets a buffer of its own, so that no entry is mapped
// twice. False when memory ran out.
bool separate_input_tables(mesher::data_type& data) {
  if (reserves_overlap(data.connectM, data.background_mesh)) data.connectM.clear_hard();
  bool ok = true;
  const auto own = [&ok](auto& table, const auto&... earlier) {
    if (!(reserves_overlap(table, earlier) || ...)) return;
    std::remove_reference_t<decltype(table)> fresh;
    if (fresh.copy(table))
      table = fresh;
    else
      ok = false;
  };
  own(data.connectE, data.connectB);
  own(data.isolated_nodes, data.connectB, data.connectE);
  own(data.background_mesh, data.connectB, data.connectE, data.isolated_nodes);
  return ok;
}

// metrics[i] = old metrics[order[i]], the caller's entries beyond the map kept; a new buffer, so
// that the caller's array is left alone. False when memory ran out.
bool metrics_in_order(dense1D<double>& metrics, const dense1D<unsigned>& order) {
  if (metrics.empty()) return true;
  dense1D<double> sorted;
  if (!sorted.resize(std::max(metrics.size, order.size), 0.0)) return false;
  for (unsigned i = 0; i < order.size; ++i)
    if (order[i] < metrics.size) sorted[i] = metrics[order[i]];
  for (unsigned i = order.size; i < metrics.size; ++i) sorted[i] = metrics[i];
  metrics = sorted;
  return true;
}

// A node that holds a tet of the domain, by its ancestor.
bool holds_domain_tet(const mesh_store& m, unsigned v) noexcept {
  const unsigned t = v < m.ancestors.size ? m.ancestors[v] : NONE;
  return t < m.colors.size && m.tet_in_domain(t);
}

// The live tets as a table of their own, for the smoothing of the sizes.
bool live_tet_table(const mesh_store& m, dense2D<unsigned>& table) noexcept {
  unsigned live = 0;
  for (unsigned t = 0; t < m.tets.cols(); ++t) live += m.tet_live(t);
  if (!table.resize(4, live)) return false;
  unsigned c = 0;
  for (unsigned t = 0; t < m.tets.cols(); ++t)
    if (m.tet_live(t)) std::copy_n(m.tets.row(t), 4, table.col(c++));
  return true;
}

}  // namespace

void th4_engine::run_mesh_generation(mesher::data_type& data, refine_context& context) {
  if (data.connectB.empty()) return;
  const unsigned n = data.pos.cols;

  // Initialization.
  display("Initialization.\n");
  double T = clock_now();
  const bool needs_sizes = settings.refine || settings.optim_level != 0 || settings.compute_Qh;
  // With refinement the kernel works on a numbering of the nodes with locality along the
  // boundary; the record's tables follow it for the run, and go back at the end.
  dense1D<unsigned> order, rank;
  bool renumbered = false;
  if (settings.refine) {
    msg failure = msg::memory_reordering;
    if (!separate_input_tables(data)) {
      raise_error(msg::memory_reordering);
    } else if (!order_nodes(data, n, order, rank, failure)) {
      raise_error(failure);
    } else {
      bool loaded = reserve(n, tets.cols());
      for (unsigned i = 0; loaded && i < n; ++i) {
        const double* p = data.pos.col(order[i]);
        loaded = new_node(p[0], p[1], p[2], 0.0) != NONE;
      }
      if (!loaded) raise_error(msg::memory_ordered_loading);
      renumber_record(data, rank);  // ancestors are empty here: nothing to fail
      renumbered = true;
      if (!metrics_in_order(data.metrics, order)) raise_error(msg::memory_metrics_permutation);
    }
  }
  if (!renumbered && !load_nodes(data.pos, dense1D<double>()))
    raise_error(msg::memory_node_loading);
  register_hard_entities(*this, data, true, *tasks);
  bool background_ok = false;
  // The quality bound of the boundary's faces, known from their sizes; -1.0 while not known. The
  // faces' nodes are hard and stay where they are.
  double face_bound = -1.0;
  if (needs_sizes) {
    face_bound = set_boundary_sizes(*this, data);
    background_ok = load_background_mesh(*this, data.background_mesh);
  }
  tasks->close_phase(phase_init);

  // Front: the Delaunay mesh of the hard nodes, the boundary brought in, the tets sorted.
  if (!must_stop()) {
    display("Front mesh.\n");
    Ptr<task_type> phase = tasks->phase_task(phase_delaunay);
    dense1D<unsigned> list;
    double lo[3], hi[3];
    hard_nodes_and_box(*this, list, lo, hi);
    std::copy_n(lo, 3, data.hard_box_min);
    std::copy_n(hi, 3, data.hard_box_max);
    start_delaunay(*this, kernel, list, lo, hi, 3.0, 0.01, *phase);
  }
  tasks->close_phase(phase_delaunay);

  dense1D<unsigned> steiner_list;
  hard_face_tets face_tets;  // kept while the recovery leaves the tets as they are
  {
    unsigned alive = 0;
    for (unsigned a : ancestors) alive += a != NONE;
    const unsigned limit = settings.nodes_limit - std::min(settings.nodes_limit, alive);
    std::optional<boundary_recoverer> recoverer;
    try {
      recoverer.emplace(*this, tasks->phase_task(phase_recovery), limit);
    } catch (const std::bad_alloc&) {
      raise_error(msg::memory_error_recovery);
    }
    if (recoverer && !must_stop()) {
      recover_boundary(*recoverer, data.connectB, data.connectE, data.isolated_nodes, steiner_list);
      last_recovery = recoverer->counts;
      if (recoverer->face_tets.usable) face_tets = recoverer->face_tets;
    }
  }
  tasks->close_phase(phase_recovery);

  if (!must_stop()) {
    unsigned count = flood_colors(*this, face_tets.usable ? &face_tets : nullptr);
    data.boundary_sign = 0;
    if (count != 0) order_subdomains(*this, count, settings.subdomain_rule, data.boundary_sign);
    data.subdomains = count;
    data.volume = domain_volume();
  }
  // Without strict constraints a boundary that lost faces, or had holes, is closed and the
  // subdomains are counted again.
  const bool closing =
      !settings.strict_constraints && (data.subdomains == 0 || unenforced_set.faces.size() != 0);
  if (closing) {
    face_tets.usable = false;
    close_boundary(*this, data);
    unsigned count = flood_colors(*this);
    data.boundary_sign = 0;
    if (count != 0) order_subdomains(*this, count, settings.subdomain_rule, data.boundary_sign);
    data.subdomains = count;
  }
  set_domain_ancestors();
  report_hard_entities(*this, data, settings.strict_constraints, *tasks,
                       face_tets.usable ? &face_tets : nullptr);
  if (closing) data.volume = domain_volume();
  if (data.volume > 0.0)
    data.quality_bound = face_bound >= 0.0 ? face_bound : quality_bound(nodes.data, data.connectB);

  if (needs_sizes && data.volume > 0.0) {
    if (!data.missing_faces.empty() || !data.missing_edges.empty())
      retry_boundary_sizes(*this, data);
    if (background_ok) sizes_from_background(*this);
    if (!must_stop()) {
      // Nodes of the domain still without a size: Steiner nodes and the like.
      dense1D<unsigned> unsized;
      for (unsigned v = 0; v < nodes.cols() && v < ancestors.size; ++v)
        if (ancestors[v] != NONE && !(node_sizes[v] > 0.0) && holds_domain_tet(*this, v))
          unsized.push_back(v);
      const double target = settings.target_size;
      if (unsized.size != 0 && !(target > 0.0 && target < DBL_MAX)) {
        fill_sizes(*this, unsized);
      } else if (unsized.size != 0) {
        for (unsigned v : unsized) node_sizes[v] = target;
        dense2D<unsigned> live;
        if (live_tet_table(*this, live))  // a smoothing is not worth failing the run for
          gridkit::bound_metric_gradations(nodes.data, live, TETRA4, unsized, false, 0,
                                           settings.size_gradation, node_sizes);
      }
    }
  }

  // The Steiner nodes that stay in the domain are known to the locator from now on.
  {
    unsigned kept = 0;
    for (unsigned v : steiner_list)
      if (holds_domain_tet(*this, v)) {
        steiner_list[kept++] = v;
        locator.add(v);
      }
    steiner_list.size = kept;
  }
  data.steiner_nodes = steiner_list.size;
  // The exclusion nodes come with the refinement, which they keep away.
  if (settings.refine || settings.optim_level != 0) swap_only_pass(*this, 1);
  // The mesh of the front, with the sizes that it has now, carries the sizes of the refinement.
  if (data.background_mesh.empty() && settings.front_as_background && !must_stop()) {
    dense1D<unsigned> map;
    try {
      compact_tets(map);
      load_background_from_mesh(*this, tets.data, colors);
    } catch (const std::bad_alloc&) {
      raise_error(msg::memory_error_run);
    }
  }
  data.front_time = clock_now() - T;

  T = clock_now();
  if (data.volume > 0.0 && settings.refine && !must_stop()) {
    display("Refine mesh.\n");
    reserve_for_refinement(*this, n - std::min(n, hard_set.node_count), context.size_gradation,
                           context.target_size);
    kernel_mode =
        data.connectE.empty() ? kernel_mode_type::hard_faces : kernel_mode_type::hard_edges;
    if (!must_stop()) {
      context.nodes_left = nodes_under_limit();
      refine_inside(context, steiner_list);
      if (context.nodes_left == 0) tasks->raise_warning(msg::nodes_limit_warning);
    }
  }
  tasks->close_phase(phase_refine);
  data.refine_time = clock_now() - T;

  T = clock_now();
  if (data.volume > 0.0 && settings.optim_level != 0 && !must_stop()) {
    display("Regularize mesh.\n");
    regularize_mesh(*this, size_field != own_size_field.get(), data.quality_bound);
  }
  tasks->close_phase(phase_regularize);
  data.optim_time = clock_now() - T;

  // Finalisation: always, so that the record ends consistent.
  if (data.error_code == 0) display("Finalize mesh.\n");
  if (data.volume > 0.0) {
    data.min_quality = min_quality();
    if (data.min_quality < 1e-12)
      raise_error(msg::degenerated_mode0);
    else if (data.min_quality < 0.01)
      tasks->raise_warning(msg::shape_quality_mode0);
  }
  if (data.error_code != 0) {
    empty_mesh();
    data.min_quality = 0.0;
  }
  drop_outside(n);
  if (settings.compute_Qh && !must_stop()) fill_histo_Qh(data.histo_Qh);
  if (!settings.positive_orientation) turn_all_tets();
  if (!write_output(data, n)) raise_error(msg::memory_output_mode0);
  update_missing_lists(data);
  if (renumbered) {  // back to the caller's numbering; nodes made here keep theirs
    if (gridkit::permutation(data.metrics, order) != 0)
      raise_error(msg::memory_metrics_permutation);
    if (renumber_record(data, order) != 0) raise_error(msg::memory_output_mode0);
  }
}

}  // namespace kelvo::voxfill
