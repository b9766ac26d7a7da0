// The optimiser's record.
#include "voxfill/optim/regularizer.h"

#include "voxfill/refine/size_field.h"

namespace kelvo::voxfill {

namespace {
bool engine_size_at(void* engine, const double* point, double& size) {
  return size_at(*static_cast<th4_engine*>(engine), point, size);
}
}  // namespace

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
  moves.size_at = engine_size_at;
  moves.size_context = &engine;
}

}  // namespace kelvo::voxfill
