// State of the refinement loop that lives beside the engine for one run.
#pragma once

#include <cfloat>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "delaunay/bit_set.h"
#include "delaunay/key_set.h"
#include "delaunay/random_source.h"
#include "numcore/dense1D.h"
#include "numcore/dense2D.h"
#include "voxfill/refine/candidate_merging.h"
#include "voxfill/refine/size_limiting.h"

namespace kelvo::voxfill {

// Values are taken from the caller's settings before the engine puts its own copy in order.
struct refine_context {
  double max_edge_length = 1.414;
  double half_max_edge_length = 0.707;
  double shape_weight = 0.6;
  double target_size = 0.0;
  double size_gradation = 0.5;  // DBL_MAX when no target size is in force
  unsigned nodes_limit = 0xFFFFFFFFu;
  unsigned nodes_left = 0xFFFFFFFFu;  // nodes the refinement may still make; all ones: no limit
  unsigned pass_count = 0;
  unsigned pass_clock = 0;        // a tet stamped above this was made since the last judging
  bit_set good_tets;              // one bit per tet row: set = good (no soft edge too long)
  bool hard_front = true;         // hard faces between two bad tets still count as front
  dense1D<unsigned> front_faces;  // faces coded 4 t + i, t the bad tet
  // The tets made since the last judging, their nodes renumbered locally, and which local nodes
  // share a tet: compressed rows, ascending.
  dense1D<unsigned> node_tet_offsets, node_tets;
  dense1D<unsigned> graph_offsets, graph_nodes;
  dense1D<unsigned> new_tets;
  dense1D<unsigned> ring_tets;  // old bad tets beside a good or new tet
  // The rows whose good bit is clear, ascending, from one judging to the next: the old bad tets
  // are found among them without a look at every row. Trusted only after a judging that ended.
  dense1D<unsigned> clear_rows, clear_spare;
  bool clear_rows_known = false;
  dense1D<unsigned> local_nodes, local_index;
  dense1D<unsigned> size_stamps;
  dense2D<unsigned> new_tet_rows;
  // Soft edges found too long in tets given up, by (smaller node, larger node), with their length
  // in the size field: the last step splits them.
  std::map<std::pair<unsigned, unsigned>, double> long_edges;
  index_set protected_nodes;  // Steiner nodes of the recovery
  unsigned face_order[3] = {0, 1, 2};
  unsigned tet_order[4] = {0, 1, 2, 3};
  random_source_type random_source{1u};   // the merging's own draws
  bit_source context_bits;                // start faces of the walks of the placement
  std::vector<std::uint64_t> front_keys;  // scratch of the sort of the front
  merge_scratch merging;   // lists of the merging of candidates, reused from pass to pass
  limit_scratch limiting;  // heap and lists of the size limiting, reused likewise

  template <class settings_type>
  explicit refine_context(const settings_type& s)
      : max_edge_length(s.max_edge_length),
        half_max_edge_length(0.5 * s.max_edge_length),
        shape_weight(s.shape_weight),
        target_size(s.target_size),
        size_gradation(s.size_gradation),
        nodes_limit(s.nodes_limit) {
    if (!(s.target_size > 0.0 && s.target_size < DBL_MAX)) size_gradation = DBL_MAX;
    context_bits.seed_from(random_source);
  }
};

}  // namespace kelvo::voxfill
