// Node smoothing: each tet of a node's ball votes for the place where it would be regular, the
// worse the tet the louder; a line search along the vote keeps the best place by merit.
#pragma once

#include "numcore/dense2D.h"

namespace kelvo::voxfill {

class regularizer;

// How the size changes along a move: from the node's size to the size on the ball's surface.
struct size_ray {
  unsigned node = 0xFFFFFFFFu;
  double start_size = 0.0;
  double end_size = 0.0;
  double step_fraction = 0.0;  // how far to the surface one unit step goes
  bool valid = false;
};

// Work arrays of the smoother, kept from call to call.
struct node_smoother {
  dense2D<unsigned> ball_rows;
  dense1D<double> trial_qualities;
  dense1D<const double*>
      ball_points;  // per tet of ball_rows, its four points; the last 3 more times
  dense1D<double> best_qualities;
  // The ball's tets in the order the line search tries them, and their points.
  dense1D<unsigned> trial_order;
  dense1D<const double* const*> trial_points;
  // Per tet of ball_rows, the points of its face opposite the node and their log means with the
  // node, three more repeating the last.
  dense1D<const double*> face_points;
  dense1D<double> face_means;
  dense1D<double> vote_targets;            // per tet of ball_rows, where its vote points
  dense1D<unsigned> ball_locals;           // per tet of ball_rows, the node's place in it
  dense1D<unsigned> ball_neighbors;        // the other ends of the node's edges
  dense1D<const double*> neighbor_points;  // their points and sizes, three more repeating the last
  dense1D<double> neighbor_sizes;
  // The log means of the sizes at the ends of the node's edges, for the node at size means_size:
  // the trials that keep its size need no logarithm.
  dense1D<double> edge_means;
  // Per edge at a trial that changes the node's size: length, and a floor of its symmetric length.
  dense1D<double> edge_lengths;
  dense1D<double> edge_bounds;
  double means_size = 0.0;
  // The same means indexed by the neighbour's node, for the targets of the ball's tets; valid for
  // the nodes that the vote marks.
  dense1D<double> node_means;
  size_ray ray;
  dense1D<unsigned> ball;   // of the node under work, for smooth_nodes
  dense1D<unsigned> nodes;  // scratch of smooth_worst
};

// Where the node would make the tet regular: above the centroid of the face opposite it, at the
// height of a regular tet on the face's mean edge (blended with the sizes when weight < 1).
// With `means`, the entries of the nodes marked now stand for their log mean with `size`.
void apex_target(const regularizer& g, const unsigned* row, unsigned local, double weight,
                 double size, double* target, const dense1D<double>* means = nullptr) noexcept;

// Moves the node to the best place along its vote when that raises the merit of its ball. The
// gain; 1.0 when the node stays, 0.0 when memory ran out.
double smooth_node(regularizer& g, unsigned node, double weight,
                   const dense1D<unsigned>& ball) noexcept;
// Each node in order, on its closed ball (a node without one stays). The largest gain, at least 1.
double smooth_nodes(regularizer& g, const dense1D<unsigned>& nodes, double weight) noexcept;
// The nodes of the `count` worst tets, less the settled ones. As smooth_nodes; 1.0 when count is
// 0 or the run is interrupted.
double smooth_worst(regularizer& g, unsigned count, double weight, dense1D<unsigned>& tets,
                    dense1D<unsigned>& nodes) noexcept;

}  // namespace kelvo::voxfill
