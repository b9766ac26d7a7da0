// The optimiser's record.
#include "voxfill/optim/regularizer.h"

#include "voxfill/refine/size_field.h"

namespace kelvo::voxfill {

namespace {
bool engine_size_at(void* engine, const double* point, double& size) {
  return size_at(*static_cast<th4_engine*>(engine), point, size);
}
}  // namespace

regularizer::regularizer(th4_engine& e, bool carry_sizes, bool with_background, bool with_topology)
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
  reserve_scratch();
}

void regularizer::reserve_scratch() noexcept {
  // Room for the balls and shells of a usual mesh up front: the lists then reach their largest
  // sizes without a reallocation at each new maximum. A failure here only means later growth.
  const unsigned tets = 256;
  for (dense2D<unsigned>* rows :
       {&old_rows, &new_rows, &moves.trial_rows, &moves.best_rows, &contraction.old_rows,
        &contraction.new_rows, &smoother.ball_rows, &exchange.star_tets, &exchange.star_neighbors})
    rows->reserve(4, tets);
  for (dense1D<unsigned>* list :
       {&shell_tets, &ring_nodes, &new_tets, &contraction.old_tets, &moves.ball_a, &moves.ball_b,
        &moves.near_a, &moves.near_b, &moves.near, &moves.star, &moves.order, &exchange.codes,
        &exchange.outer_codes, &exchange.outer_tets, &exchange.hull_codes, &smoother.ball,
        &smoother.ball_neighbors, &merit.fit_nodes, &insertion_seeds})
    list->reserve(4 * tets);
  for (dense1D<double>* list :
       {&new_qualities, &contraction.new_qualities, &moves.keys, &moves.trial_qualities,
        &moves.best_qualities, &smoother.trial_qualities, &smoother.best_qualities})
    list->reserve(tets);
  exchange.partner.reserve(16 * tets);
  merit.old_rows_copy.reserve(4, tets);
  for (dense1D<double>* list :
       {&smoother.edge_means, &smoother.edge_lengths, &smoother.edge_bounds})
    list->reserve(2 * tets);
  moves.trial_edges.reserve(2, 8);
  new_edges.reserve(2, 8);
}

}  // namespace kelvo::voxfill
