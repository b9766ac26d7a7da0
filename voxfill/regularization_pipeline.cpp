// Mode 1: a tet mesh of the caller's, its skin and the walls between its colours kept as hard
// faces, improved by the optimiser.
#include <algorithm>
#include <cfloat>
#include <new>

#include "delaunay/face_matching.h"
#include "delaunay/tet_tables.h"
#include "voxfill/boundary/hard_entities.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/optim/regularize_mesh.h"
#include "voxfill/refine/background_mesh.h"
#include "voxfill/refine/refine_context.h"
#include "voxfill/refine/refinement_estimate.h"
#include "voxfill/refine/refinement_loop.h"
#include "voxfill/refine/size_field.h"
#include "voxfill/run_clock.h"

namespace kelvo::voxfill {

namespace {

// The skin and the walls between colours into the hard set, each wall face once, from the tet of
// the smaller index. True when any face was added.
bool register_skin(mesh_store& m, bool by_colour) {
  const unsigned before = m.hard_set.faces.size();
  for (unsigned t = 0; t < m.tets.cols(); ++t) {
    const unsigned* r = m.tets.row(t);
    for (unsigned f = 0; f < 4; ++f) {
      const unsigned u = m.neighbors(f, t);
      const bool skin = u == NONE || (by_colour && u > t && m.colors[u] != m.colors[t]);
      if (!skin) continue;
      const unsigned* fn = tet_face_nodes[f];
      if (!m.hard_set.add_face(r[fn[0]], r[fn[1]], r[fn[2]], false)) throw std::bad_alloc();
    }
  }
  return m.hard_set.faces.size() != before;
}

}  // namespace

bool th4_engine::load_given_mesh(mesher::data_type& data, bool again) {
  if (!again) display("Initialization.\n");
  if (!load_nodes(data.pos, dense1D<double>()) || !load_tets(data.connectM, 0))
    raise_error(msg::memory_mode1_setup);
  double volume = domain_volume();
  const bool inverted = volume < 0.0;
  if (inverted) {
    turn_all_tets();
    volume = -volume;
  }
  data.volume = volume;
  set_ancestors(0, tets.cols());
  bool linked = false;
  try {
    linked = link_tets_by_faces(tets, neighbors);
  } catch (const std::bad_alloc&) {
    raise_error(msg::memory_mode1_setup);
  }
  if (!linked && data.error_code == 0) raise_error(msg::non_conformal_input_mesh);
  register_hard_entities(*this, data, false, *tasks);

  // The caller's colours go through even when the run stops here: an interrupted run hands back
  // the input mesh, and it keeps its subdomains.
  const bool by_colour = !data.colors.empty() && data.colors.size == tets.cols();
  if (by_colour)
    for (unsigned t = 0; t < tets.cols(); ++t) colors[t] = data.colors[t];
  if (!must_stop()) {
    if (register_skin(*this, by_colour)) {
      // The record's boundary becomes the faces that are now held; the caller's array is left.
      const unsigned count = hard_set.faces.size() + hard_set.two_way_faces.size();
      dense2D<unsigned> faces;
      if (!faces.resize(3, count)) {
        raise_error(msg::memory_mode1_setup);
      } else {
        unsigned c = 0;
        for (const face_set* set : {&hard_set.faces, &hard_set.two_way_faces})
          for (unsigned k = 0; k < set->keys.size; ++k)
            if (set->live(k)) std::copy_n(set->keys[k].n, 3, faces.col(c++));
        data.connectB = faces.sub_matrix(0, 0, 3, c);
      }
    }
    data.hard_nodes_in = hard_set.node_count;
    data.hard_edges_in = hard_set.edges.size() + hard_set.two_way_edges.size();
    data.hard_faces_in = hard_set.faces.size() + hard_set.two_way_faces.size();
  }
  sizes_from_mesh(*this, data);
  if (load_background_mesh(*this, data.background_mesh)) sizes_from_background(*this);
  if (!must_stop()) {
    double lo[3] = {DBL_MAX, DBL_MAX, DBL_MAX}, hi[3] = {-DBL_MAX, -DBL_MAX, -DBL_MAX};
    for (unsigned t = 0; t < tets.cols(); ++t) {
      const unsigned* r = tets.row(t);
      for (unsigned i = 0; i < 4; ++i) {
        const double* p = nodes.row(r[i]);
        for (unsigned k = 0; k < 3; ++k)
          lo[k] = std::min(lo[k], p[k]), hi[k] = std::max(hi[k], p[k]);
      }
    }
    if (lo[0] <= hi[0]) {
      std::copy_n(lo, 3, box_min);
      std::copy_n(hi, 3, box_max);
      locator.build(lo, hi);
    }
  }
  data.min_quality_in = recompute_qualities(true);
  data.quality_bound = quality_bound(nodes.data, data.connectB);
  tasks->close_phase(phase_init);
  return inverted;
}

void th4_engine::run_regularization(mesher::data_type& data, refine_context* context) {
  const unsigned n = data.pos.cols;
  // The caller's boundary, for a second start: the first one replaces it by the skin.
  dense2D<unsigned> boundary;
  boundary.copy(data.connectB);
  const bool inverted = load_given_mesh(data, false);

  // A coarse mesh is filled up to its own sizes first, from the skin inwards, as mode 0 fills a
  // recovered boundary: moves on the tets of a mesh with no inner nodes can't make good tets.
  double T = clock_now();
  bool refined = false;
  if (context && settings.refine && settings.optim_level != 0 && data.volume > 0.0 &&
      !must_stop()) {
    // With no room for a node the caller asked for the mesh's own nodes: no refinement, and no
    // warning either.
    context->nodes_left = nodes_under_limit();
    if (context->nodes_left != 0) {
      display("Refine mesh.\n");
      reserve_for_refinement(*this, n - std::min(n, hard_set.node_count), context->size_gradation,
                             context->target_size);
      kernel_mode =
          data.connectE.empty() ? kernel_mode_type::hard_faces : kernel_mode_type::hard_edges;
      const unsigned before = nodes.cols();
      refine_inside(*context, dense1D<unsigned>());
      refined = nodes.cols() != before;
      if (context->nodes_left == 0) tasks->raise_warning(msg::nodes_limit_warning);
    }
  }
  tasks->close_phase(phase_refine);
  data.refine_time = clock_now() - T;

  T = clock_now();
  if (settings.optim_level != 0 && !must_stop()) {
    display("Regularize mesh.\n");
    regularize_mesh(*this, size_field != own_size_field.get(), data.quality_bound);
    // Nodes placed for sizes may leave a tet worse than the worst one given, where the mesh was
    // already near its sizes: the caller then gets the regularisation of the mesh as it came.
    if (refined && !must_stop() && data.error_code == 0 && min_quality() < data.min_quality_in) {
      clear();
      data.connectB.copy(boundary);
      load_given_mesh(data, true);
      if (!must_stop())
        regularize_mesh(*this, size_field != own_size_field.get(), data.quality_bound);
    }
  }
  tasks->close_phase(phase_regularize);
  data.optim_time = clock_now() - T;
  if (data.error_code == 0) display("Finalize mesh.\n");
  data.min_quality = min_quality();
  if (data.min_quality < 1e-12)
    raise_error(msg::degenerated_mode1);
  else if (data.min_quality < 0.01)
    tasks->raise_warning(msg::shape_quality_mode1);
  drop_outside(n);
  if (settings.compute_Qh && !must_stop()) fill_histo_Qh(data.histo_Qh);
  if (inverted || !settings.positive_orientation) turn_all_tets();
  if (!write_output(data, 0)) raise_error(msg::memory_output_mode1);
}

}  // namespace kelvo::voxfill
