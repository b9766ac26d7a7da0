// Public interface of the tetrahedral mesher: the input/output record, the settings and the run.
#pragma once

#include <cfloat>

#include "gridkit/auxkit/histogram.h"
#include "gridkit/element_type.h"
#include "numcore/append.h"
#include "numcore/dense1D.h"
#include "numcore/dense2D.h"
#include "numcore/matrix_fixed.h"
#include "numcore/ref_counted.h"

namespace kelvo::voxfill {

using auxkit::histogram;

// The version string of the library, "4.9.0.0".
const char* version() noexcept;

class mesher {
 public:
  // The one record that crosses the library's boundary: the caller fills coordinates and
  // constraints, `run` fills the mesh, figures and diagnostics. Matrices hold one node or one
  // element per column.
  class data_type {
   public:
    dense2D<double> pos;                 // in/out: 3 x nodes; created nodes are appended
    dense2D<unsigned> connectB;          // in: boundary triangles and other hard faces, 3 x faces
    dense2D<unsigned> connectE;          // in: hard edges, 2 x edges
    dense1D<unsigned> isolated_nodes;    // in: hard nodes held by no hard face or edge
    dense1D<unsigned> exclusion_nodes;   // in: nodes kept out of the mesh that keep new nodes away
    dense2D<unsigned> background_mesh;   // in: 4 x tets carrying the size field
    dense1D<double> metrics;             // in/out: wanted edge length per node, 0 = none
    dense2D<unsigned> connectM;          // in (mode 1)/out: 4 x tets
    dense1D<unsigned> missing_faces;     // out: columns of connectB the mesh lacks
    dense1D<unsigned> missing_edges;     // out: columns of connectE the mesh lacks
    dense1D<unsigned> missing_nodes;     // out: hard nodes the mesh lacks
    dense1D<unsigned> conflicting_faces; // out: columns of connectB in conflict with another entity
    dense1D<unsigned> colors;            // in (mode 1)/out: subdomain of each tet
    dense2D<unsigned> neighbors;         // out: 4 x tets, 0xFFFFFFFF on the boundary
    dense1D<unsigned> ancestors;         // out: one tet per node, 0xFFFFFFFF when in none
    dense1D<double> shape_qualities;     // out: one per tet
    histogram histo_Qs;                  // out: shape qualities
    histogram histo_Qh;                  // out: edge lengths in the size field
    unsigned tet_count = 0;
    unsigned used_node_count = 0;
    unsigned total_node_count = 0;
    unsigned hard_nodes_in = 0, hard_edges_in = 0, hard_faces_in = 0;
    unsigned hard_nodes_out = 0, hard_edges_out = 0, hard_faces_out = 0;
    unsigned steiner_nodes = 0;
    double volume = 0.0;
    double min_quality_in = 0.0;
    double min_quality = 0.0;
    double quality_bound = 0.0;
    double hard_box_min[3] = {0.0, 0.0, 0.0};
    double hard_box_max[3] = {0.0, 0.0, 0.0};
    unsigned subdomains = 0;
    int boundary_sign = 0;
    double front_time = 0.0, refine_time = 0.0, optim_time = 0.0, total_time = 0.0;
    double speed = 0.0;
    int error_code = 0;
    int warning_code = 0;
    char msg_title[256] = {};
    char msg_text[256] = {};

    data_type();
    data_type(const dense2D<double>& pos, const dense2D<unsigned>& connectB);
    data_type(const data_type& o);
    ~data_type() = default;
    // Takes every field, then makes every array independent of the source by a deep copy.
    const data_type& operator=(const data_type& o);
    // Shares every array with `o`; copies counters, times, histograms, codes and messages.
    void shallow_copy(const data_type& o);

    // 0 when the record is usable, else the first failing test: -1 pos rows, -2 connectB,
    // -3 connectE, -4 isolated_nodes, -5 exclusion_nodes, -6 connectM, -7 background_mesh,
    // -8 sizes of the background nodes, -12 colors against connectM.
    int check() const;
    bool valid() const { return check() == 0; }
    // Drops every array, then clear_data_out().
    void clear();
    // Resets what a run produces, keeping pos, connectM, colors and metrics.
    void clear_data_out();
    // Hands out the mesh by sharing.
    void extract(dense2D<double>& pos, dense2D<unsigned>& connectM) const;
    // Tets sorted by subdomain, and where each subdomain begins (closed by the tet count).
    void IDs_sorted_by_color(dense1D<unsigned>& IDs, dense1D<unsigned>& starts) const;
    bool error_raised() const { return error_code != 0; }
    bool warning_raised() const { return warning_code != 0; }

    // The run report, in pieces, through `display` (null pass-through, level 0). Null: nothing.
    void print_info(void (*display)(void*, unsigned, const char*)) const;
    // Writes the case to a text file; doubles with `precision` digits behind the point.
    // A path that cannot be opened writes nothing and reports nothing.
    void save(const char* path, unsigned precision) const;
    // Reads the arrays of a saved case. 0 or above: the result of the last section read;
    // -1 unreadable file or broken section; -2 no usable "pos"; -199 out of memory.
    int load(const char* path);
  };

  // The parameter record of a run.
  class settings_type {
   public:
    unsigned mode = 0;  // 0 mesh a boundary, 1 regularise connectM, 2 Delaunay of the hull
    bool strict_constraints = true;
    unsigned subdomain_rule = 0;
    // Fill the domain with nodes up to the sizes; in mode 1 from the skin of the given mesh, whose
    // skin nodes take the mean length of their skin edges as size, before the optimiser runs.
    bool refine = true;
    bool front_as_background = false;
    bool optim_node_smoothing = true;
    bool optim_node_insertion = true;
    bool optim_node_removal = true;
    bool optim_shell_reconnection = true;
    bool optim_hard_links = false;
    bool positive_orientation = true;
    bool compute_Qh = false;
    unsigned nodes_limit = 0xFFFFFFFFu;
    unsigned optim_level = 3;
    double target_size = 0.0;
    double size_gradation = 0.5;
    double shape_weight = 0.6;
    double max_edge_length = 1.414;
    void (*display_hdl)(void* pass_thru, unsigned level, const char* msg) = nullptr;
    bool (*interrupt_hdl)(void* pass_thru, double progress) = nullptr;
    void* pass_thru = nullptr;
    double progress_offset = 0.0;
    double progress_scale = 1.0;

    settings_type() = default;
    settings_type(const settings_type&) = default;
    settings_type(settings_type&&) = default;
    settings_type& operator=(const settings_type&) = default;
    settings_type& operator=(settings_type&&) = default;
    void reset() { *this = settings_type(); }
    // 0, or -14 size_gradation < 0, -15 shape_weight outside [0, 1], -16 max_edge_length not > 0.
    int check() const;
    bool valid() const { return check() == 0; }
  };

  settings_type settings;

  mesher() = default;
  explicit mesher(const settings_type& s) : settings(s) {}
  mesher(const mesher&) = default;
  mesher(mesher&&) = default;
  mesher& operator=(const mesher&) = default;
  mesher& operator=(mesher&&) = default;

  // Runs the job that settings.mode names on `data`. Never throws: every failure ends as a code
  // and a message in `data`. `settings` is not changed.
  void run(data_type& data) const;
};

}  // namespace kelvo::voxfill
