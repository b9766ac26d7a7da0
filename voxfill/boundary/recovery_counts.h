// What a boundary recovery did, counted for measurements: which means recovered how many
// entities, and how often the driver's own remedies ran.
#pragma once

namespace kelvo::voxfill {

// The means that changed the mesh while one entity was under work, as bits of `steps_used`.
enum recovery_step : unsigned {
  step_crossing_edges = 1,  // swaps and splits that cleared the edges across a segment
  step_pipe_flips = 2,      // 2-3 swaps along the pipe of a segment
  step_pipe_thinning = 4,   // nodes taken out of the pipe
  step_pipe_steiner = 8,    // Steiner nodes in the fan of the pipe
  step_face_moves = 16,     // swaps and moves of nodes off the plane of a face
  step_face_steiner = 32,   // Steiner nodes beside a face
  step_count = 6
};

// What one recovery did, for measurements: the entities recovered by each step (an entity that
// needed several counts in each), and the calls of the driver's own means.
struct recovery_counts {
  unsigned faces = 0, edges = 0;   // recovered from the lists (not found present)
  unsigned by_step[step_count]{};  // entities whose recovery used each step, in bit order
  unsigned passes = 0, tangle_cleanups = 0, seeds = 0;
  unsigned reinsertions = 0, nodes_taken_out = 0, nodes_reinserted = 0;
  double seconds = 0.0;  // wall time of recover_boundary
};

}  // namespace kelvo::voxfill
