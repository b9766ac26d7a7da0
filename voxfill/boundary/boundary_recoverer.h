// Boundary recovery: after the Delaunay mesh of the hard nodes, makes the mesh hold every hard face
// and hard edge whole, by reconnections, moves of soft nodes and, as a last means, Steiner nodes
// off the entities, which are taken away again as soon as the mesh can do without them.
#pragma once

#include <array>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "delaunay/key_set.h"
#include "delaunay/keys.h"
#include "delaunay/random_source.h"
#include "voxfill/boundary/hard_entities.h"
#include "voxfill/boundary/recovery_counts.h"
#include "voxfill/boundary/steiner_nodes.h"
#include "voxfill/task_mgr.h"

namespace kelvo::voxfill {

class th4_engine;
class regularizer;

// Everything one recovery works with; built by a pipeline after the Delaunay start and dropped
// when the recovery is over. The constructor allocates and may throw std::bad_alloc.
struct boundary_recoverer {
  th4_engine& engine;
  mesh_store& store;           // the engine's tables
  Ptr<task_type> task;         // the recovery's phase task; polls and errors
  unsigned steiner_limit = 0;  // nodes the recovery may make; 0: none at all
  steiner_workspace steiner;   // removal and placement of Steiner nodes, with their scratch
  random_source_type shuffle_source{1u};
  std::unique_ptr<regularizer> optimiser;  // the clean-up's moves; made by recover_boundary
  recovery_counts counts;
  // The tets on the hard faces when the mesh held every entity from the start, so that nothing
  // was changed; not usable otherwise.
  hard_face_tets face_tets;
  unsigned steps_used = 0;  // recovery_step bits of the entity under work

  // The search of crossing edges.
  edge_set crossing_seen;
  std::vector<edge_key> crossing_stack;
  std::vector<std::pair<float, unsigned>> sort_keys;
  std::vector<edge_key> sort_scratch;
  // Rings of the crossing edges that no pattern removed, in list order, for the next round: a
  // shell whose ring is unchanged gives the same patterns and fails again.
  std::vector<unsigned> failed_rings, failed_rings_next, failed_starts, failed_starts_next;
  // Scratch rows and lists.
  dense2D<unsigned> ball_rows, new_rows, edge_rows;
  dense1D<double> new_qualities;
  dense1D<unsigned> new_tets;
  dense1D<unsigned> ball_tets, ball_tets_2, ball_nodes, ring_nodes, coded_faces;
  std::uint32_t pattern_mask = 0;
  // What one attempt on an edge or a face reports.
  dense1D<unsigned> new_nodes, edge_nodes;
  dense1D<unsigned> pipe;  // coded faces crossed by a segment, in order from its first node
  std::vector<edge_key> turning_edges;  // edges shared by consecutive faces of the pipe
  dense1D<unsigned> blocking_nodes;
  std::vector<edge_key> blocking_edges;
  std::vector<face_key> blocking_faces;
  dense1D<unsigned> conflict_nodes;
  std::vector<edge_key> conflict_edges;
  // The near nodes of an edge, and the node lists of a face with their heights.
  dense1D<unsigned> near_nodes;
  dense1D<unsigned> below, above, in_plane;
  dense1D<double> below_heights, above_heights, in_plane_heights;
  std::vector<edge_key> saved_edges;
  edge_set plane_edges;
  // Lists of entities under work by the list passes.
  std::vector<edge_key> sides, kept_edges, given_edges;
  std::vector<face_key> kept_faces, given_faces;
  std::vector<edge_key> crossing, crossing_2;
  // Reinsertion of hard nodes: the nodes in their way, and the (order, node) pairs to insert.
  dense1D<unsigned> in_the_way;
  std::vector<std::pair<unsigned, unsigned>> reinsertion_pairs;

  boundary_recoverer(th4_engine& e, Ptr<task_type> t, unsigned limit);
  ~boundary_recoverer();
  boundary_recoverer(const boundary_recoverer&) = delete;
  boundary_recoverer& operator=(const boundary_recoverer&) = delete;

  bool must_stop() const { return task && task->must_stop(); }
};

// Appends v, or throws std::bad_alloc when the list could not grow: a recovery that lost an entry
// of its lists would take wrong decisions, so it ends with a memory error instead.
template <class T>
void push_checked(dense1D<T>& list, std::type_identity_t<T> v) {
  const unsigned n = list.size;
  list.push_back(v);
  if (list.size != n + 1) throw std::bad_alloc();
}

// Counts one entity recovered, in `total` and under each step it used.
inline void tally_steps(boundary_recoverer& r, unsigned& total) noexcept {
  ++total;
  for (unsigned k = 0; k < step_count; ++k)
    if (r.steps_used >> k & 1u) ++r.counts.by_step[k];
}

// Makes the mesh hold the faces of `connectB`, the edges of `connectE` and the nodes of
// `isolated_nodes` where it can; what it cannot is noted in `unenforced_set` and left absent. The
// Steiner nodes that stay are in `steiner_list`, sorted. Failures go to the task.
void recover_boundary(boundary_recoverer& r, const dense2D<unsigned>& connectB,
                      const dense2D<unsigned>& connectE, const dense1D<unsigned>& isolated_nodes,
                      dense1D<unsigned>& steiner_list);

}  // namespace kelvo::voxfill
