// State of the refinement loop that lives beside the engine for one run.
#pragma once

#include <cfloat>
#include <random>

namespace kelvo::voxfill {

// Values are taken from the caller's settings before the engine puts its own copy in order.
struct refine_context {
  double max_edge_length = 1.414;
  double half_max_edge_length = 0.707;
  double shape_weight = 0.6;
  double target_size = 0.0;
  double size_gradation = 0.5;  // DBL_MAX when no target size is in force
  unsigned nodes_limit = 0xFFFFFFFFu;
  std::mt19937 random_source{1u};

  template <class settings_type>
  explicit refine_context(const settings_type& s)
      : max_edge_length(s.max_edge_length), half_max_edge_length(0.5 * s.max_edge_length),
        shape_weight(s.shape_weight), target_size(s.target_size), size_gradation(s.size_gradation),
        nodes_limit(s.nodes_limit) {
    if (!(s.target_size > 0.0 && s.target_size < DBL_MAX)) size_gradation = DBL_MAX;
  }
};

}  // namespace kelvo::voxfill
