// The optimiser's record.
#include "voxfill/optim/regularizer.h"

namespace kelvo::voxfill {

regularizer::regularizer(th4_engine& e, bool carry_sizes, bool with_background,
                         bool with_topology) noexcept
    : engine(e),
      task(e.tasks),
      merit(e),
      moves(e, merit),
      moves_carry_sizes(carry_sizes),
      use_background(carry_sizes && with_background),
      topology_terms(with_topology) {
  moves.settled_nodes = &settled_nodes;
  moves.use_background = use_background;
}

}  // namespace kelvo::voxfill
