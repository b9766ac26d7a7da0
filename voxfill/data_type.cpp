// The input/output record of a run: construction, copying, clearing and the validity check.
#include <cfloat>
#include <new>

#include "gridkit/connectivity.h"
#include "gridkit/metrics.h"
#include "voxfill/mesher_th4.h"

namespace kelvo::voxfill {
namespace {

constexpr double kQsBounds[] = {0, 0.01, 0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 0.8, 0.9, 1.0};
// Above 1.0 the bounds are the reciprocals of 0.9 .. 0.1, to two decimals.
constexpr double kQhBounds[] = {0,    0.1,  0.2,  0.3,  0.4, 0.5, 0.6,  0.7, 0.8,  0.9,    1.0,
                                1.11, 1.25, 1.43, 1.67, 2.0, 2.5, 3.33, 5.0, 10.0, DBL_MAX};

template <std::size_t N>
histogram make_histogram(const double (&b)[N]) {
  dense1D<double> bounds{static_cast<unsigned>(N)};
  if (bounds.size != N) throw std::bad_alloc();  // the caller's catch turns it into -199
  for (unsigned i = 0; i < N; ++i) bounds[i] = b[i];
  return histogram(bounds);
}

template <class V>
unsigned largest(const V& v) {
  unsigned m = 0;
  for (unsigned i = 0; i < v.size; ++i) m = v[i] > m ? v[i] : m;
  return m;
}

}  // namespace

mesher::data_type::data_type() {
  clear();
}

mesher::data_type::data_type(const dense2D<double>& p, const dense2D<unsigned>& b) {
  clear();
  pos.shallow_copy(p);
  connectB = b;
}

mesher::data_type::data_type(const data_type& o) : data_type() {
  *this = o;
}

void mesher::data_type::shallow_copy(const data_type& o) {
  if (this == &o) return;
  pos = o.pos;
  connectB = o.connectB;
  connectE = o.connectE;
  isolated_nodes = o.isolated_nodes;
  exclusion_nodes = o.exclusion_nodes;
  background_mesh = o.background_mesh;
  metrics = o.metrics;
  connectM = o.connectM;
  missing_faces = o.missing_faces;
  missing_edges = o.missing_edges;
  missing_nodes = o.missing_nodes;
  conflicting_faces = o.conflicting_faces;
  colors = o.colors;
  neighbors = o.neighbors;
  ancestors = o.ancestors;
  shape_qualities = o.shape_qualities;
  histo_Qs = o.histo_Qs;
  histo_Qh = o.histo_Qh;
  tet_count = o.tet_count;
  used_node_count = o.used_node_count;
  total_node_count = o.total_node_count;
  hard_nodes_in = o.hard_nodes_in;
  hard_edges_in = o.hard_edges_in;
  hard_faces_in = o.hard_faces_in;
  hard_nodes_out = o.hard_nodes_out;
  hard_edges_out = o.hard_edges_out;
  hard_faces_out = o.hard_faces_out;
  steiner_nodes = o.steiner_nodes;
  volume = o.volume;
  min_quality_in = o.min_quality_in;
  min_quality = o.min_quality;
  quality_bound = o.quality_bound;
  for (int k = 0; k < 3; ++k) {
    hard_box_min[k] = o.hard_box_min[k];
    hard_box_max[k] = o.hard_box_max[k];
  }
  subdomains = o.subdomains;
  boundary_sign = o.boundary_sign;
  front_time = o.front_time;
  refine_time = o.refine_time;
  optim_time = o.optim_time;
  total_time = o.total_time;
  speed = o.speed;
  error_code = o.error_code;
  warning_code = o.warning_code;
  for (int k = 0; k < 256; ++k) {
    msg_title[k] = o.msg_title[k];
    msg_text[k] = o.msg_text[k];
  }
}

const mesher::data_type& mesher::data_type::operator=(const data_type& o) {
  if (this == &o) return *this;
  shallow_copy(o);
  // Each copy reads the buffer it shares with `o` and ends on a buffer of its own.
  pos.copy(pos);
  connectM.copy(connectM);
  colors.copy(colors);
  connectB.copy(connectB);
  connectE.copy(connectE);
  isolated_nodes.copy(isolated_nodes);
  exclusion_nodes.copy(exclusion_nodes);
  background_mesh.copy(background_mesh);
  metrics.copy(metrics);
  missing_faces.copy(missing_faces);
  missing_edges.copy(missing_edges);
  missing_nodes.copy(missing_nodes);
  conflicting_faces.copy(conflicting_faces);
  neighbors.copy(neighbors);
  ancestors.copy(ancestors);
  shape_qualities.copy(shape_qualities);
  return *this;
}

int mesher::data_type::check() const {
  const unsigned nods = pos.cols;
  if (!pos.empty() && pos.rows != 3) return -1;
  if (!gridkit::check_IDs(connectB, TRIA3, nods)) return -2;
  if (!gridkit::check_IDs(connectE, EDGE2, nods)) return -3;
  if (!isolated_nodes.empty() && largest(isolated_nodes) >= nods) return -4;
  if (!exclusion_nodes.empty() && largest(exclusion_nodes) >= nods) return -5;
  if (!gridkit::check_IDs(connectM, TETRA4, nods)) return -6;
  if (!gridkit::check_IDs(background_mesh, TETRA4, nods)) return -7;
  if (!background_mesh.empty()) {
    dense1D<unsigned> nodes;
    // Out of memory here cannot tell a bad record from a good one; treat it as a bad one.
    if (gridkit::unique_indices(nodes, background_mesh, dense1D<unsigned>()) != 0) return -8;
    if (!gridkit::are_valid_metrics(nodes, metrics)) return -8;
  }
  if (!colors.empty() && colors.size != connectM.cols) return -12;
  return 0;
}

void mesher::data_type::clear() {
  pos.clear_hard();
  connectM.clear_hard();
  connectB.clear_hard();
  connectE.clear_hard();
  isolated_nodes.clear_hard();
  exclusion_nodes.clear_hard();
  background_mesh.clear_hard();
  metrics.clear_hard();
  colors.clear_hard();
  clear_data_out();
}

void mesher::data_type::clear_data_out() {
  error_code = warning_code = 0;
  msg_title[0] = msg_text[0] = '\0';
  tet_count = used_node_count = total_node_count = 0;
  hard_nodes_in = hard_edges_in = hard_faces_in = 0;
  hard_nodes_out = hard_edges_out = hard_faces_out = 0;
  steiner_nodes = 0;
  volume = min_quality_in = min_quality = quality_bound = 0.0;
  for (int k = 0; k < 3; ++k) hard_box_min[k] = hard_box_max[k] = 0.0;
  subdomains = 0;
  boundary_sign = 0;
  front_time = refine_time = optim_time = total_time = speed = 0.0;
  missing_faces.clear_hard();
  missing_edges.clear_hard();
  missing_nodes.clear_hard();
  neighbors.clear_hard();
  ancestors.clear_hard();
  shape_qualities.clear_hard();
  conflicting_faces.clear();
  histo_Qs = make_histogram(kQsBounds);
  histo_Qh = make_histogram(kQhBounds);
}

void mesher::data_type::extract(dense2D<double>& p, dense2D<unsigned>& m) const {
  p.shallow_copy(pos);
  m = connectM;
}

void mesher::data_type::IDs_sorted_by_color(dense1D<unsigned>& IDs,
                                            dense1D<unsigned>& starts) const {
  gridkit::get_sorted_order(colors, IDs, starts);
}

}  // namespace kelvo::voxfill
