// Four-lane geometry of the node smoothing.
#pragma once

#include <cstddef>

namespace kelvo::voxfill {

// Bit l set when P lies in the tet of the points t[l][0] to t[l][3] as locate_side(.., tol, ..)
// finds it (-1): positive finite volume, and P beyond none of its faces by more than the
// tolerance relative to that volume. The lanes round as that function does.
unsigned inside_lanes(const double* const* const t[4], const double* P, double tol) noexcept;

// One trial of the line search over the ball's tets (points p[4 j] to p[4 j + 3], then three
// more copies of the last tet's), four at a time: the group of tet `first` first, then the others
// in order. False at the first group with a quality not above 1e-12 or under `bar`; else the
// qualities in out[0..n), their smallest (or 1.0) in q, and in `worst` its first tet in the order
// of `first` and then the others. The qualities are those of tet_quality. Only where lanes_avx()
// holds.
bool ball_trial(const double* const* p, unsigned n, unsigned first, double bar, double* out,
                double& q, unsigned& worst) noexcept;

// The vote of the ball's tets t[0..n) with targets at target[3 j] to target[3 j + 2] (room for
// one more double after the last): each weighs W = 1 / q^2 by its quality q = quality[t[j]]
// (1e6 at q <= 0.001); D += W (target - p) and W_sum += W in tet order. The smallest quality
// (1.0 when none is lower) and in `worst` its first tet, left as it is when none is below 1.0.
double ball_vote(const double* target, const double* quality, const unsigned* t, unsigned n,
                 const double* p, double D[3], double& W_sum, unsigned& worst) noexcept;

// The smallest of 1.0 and the symmetric lengths of the edges from p to ends[e], e < count, with
// log means means[e]: d > mean ? mean / d : (mean > 0 ? d / mean : 0) with d = |p ends[e]|.
// ends and means hold three more entries past count, repeating the last.
double cached_edge_fit(const double* p, const double* const* ends, const double* means,
                       unsigned count) noexcept;

// Over the edges from p (size h) to ends[e] (size sizes[e]), e < count: d2_min and d2_sum get
// the smallest and the sum in edge order of the squared lengths; with `ratios`, r_max the largest
// of h / sizes[e] and sizes[e] / h where both sizes are positive; with `means`, s_min the
// smallest symmetric length as cached_edge_fit takes it. ends, sizes and means hold three more
// entries past count, repeating the last.
void ball_edge_terms(const double* p, double h, const double* const* ends, const double* sizes,
                     const double* means, unsigned count, bool ratios, double& d2_min,
                     double& d2_sum, double& r_max, double& s_min) noexcept;

// The smallest of 1.0 and the symmetric lengths of the edges from p (size hp) to ends[e] (size
// sizes[e]), e < count, each as |p ends[e]| against log_mean(hp, sizes[e]). Each log mean lies
// between the geometric and the arithmetic mean of its end sizes, and with those bounds most
// edges are shown to be no shorter in the metric than the smallest found, without their
// logarithm: the edges left give the same minimum as all of them. False, with s untouched, when
// a size lies outside (1e-150, 1e150), where the bounds may fail. ends and sizes hold three more
// entries past count, repeating the last; lengths and floors take count + 3 entries.
bool sized_edge_fit(const double* p, double hp, const double* const* ends, const double* sizes,
                    unsigned count, double* lengths, double* floors, double& s) noexcept;

// What gather_ball reads and writes: the row table (tets, its leading dimension), the
// coordinate table (xyz, ld), the visit marks, and the lists it fills.
struct ball_gather {
  const unsigned* tets;
  std::size_t tets_ld;
  const double* xyz;
  std::size_t ld;
  unsigned* marks;
  unsigned marks_size;
  unsigned mark;
  bool covered;           // marks_size covers every node
  unsigned* rows;         // row j at rows + 4 j
  const double** points;  // four per tet
  unsigned* locals;       // the node's place in each row, 4 when absent
  unsigned* out;          // room for four per tet
};

// One pass over the tets t[0..n) of a node's ball: their rows, the addresses of their points,
// the node's place in each, and from the third tet on every node not yet marked, listed in `out`
// and marked (every node of a closed ball's first two tets is in a later one). The count listed.
unsigned gather_ball(const ball_gather& b, const unsigned* t, unsigned n, unsigned node) noexcept;

}  // namespace kelvo::voxfill
