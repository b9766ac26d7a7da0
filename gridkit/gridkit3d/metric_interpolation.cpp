// Linear interpolation of a size per node at nodes that lie inside a tetrahedral mesh.
#include "gridkit/gridkit3d/metric_interpolation.h"

namespace kelvo::gridkit3d {
namespace {

constexpr unsigned NONE = 0xFFFFFFFFu;
// Weights down to this (relative to the tet) still count as inside: a node on a shared face is
// found from either side.
constexpr double INSIDE_TOL = 1e-12;

// Weights of the tet's nodes 0 to 3 at P, by the volumes of the four sub-tets over the tet's;
// false for a tet of no positive volume.
bool weights(const dense2D<double>& pos, const unsigned* tet, const double* P, double* w) {
  const double* p3 = pos.col(tet[3]);
  double a[3], b[3], c[3], d[3];
  for (unsigned k = 0; k < 3; ++k) {
    a[k] = pos(k, tet[0]) - p3[k];
    b[k] = pos(k, tet[1]) - p3[k];
    c[k] = pos(k, tet[2]) - p3[k];
    d[k] = P[k] - p3[k];
  }
  auto triple = [](const double* u, const double* v, const double* x) {
    return u[0] * (v[1] * x[2] - v[2] * x[1]) + u[1] * (v[2] * x[0] - v[0] * x[2]) +
           u[2] * (v[0] * x[1] - v[1] * x[0]);
  };
  const double det = triple(a, b, c);
  if (!(det > 0.0)) return false;
  w[0] = triple(d, b, c) / det;
  w[1] = triple(a, d, c) / det;
  w[2] = triple(a, b, d) / det;
  w[3] = 1.0 - w[0] - w[1] - w[2];
  return true;
}

// Walks from t towards P across the face of the most negative weight. 1 found (w holds the
// weights), 0 left the mesh through the hull, -1 met a flat tet or ran out of steps.
int walk(const dense2D<double>& pos, const dense2D<unsigned>& connect,
         const dense2D<unsigned>& neighbors, const double* P, unsigned& t, double* w) {
  for (unsigned steps = connect.cols + 1; steps; --steps) {
    if (!weights(pos, connect.col(t), P, w)) return -1;
    unsigned worst = 0;
    for (unsigned i = 1; i < 4; ++i)
      if (w[i] < w[worst]) worst = i;
    if (w[worst] >= -INSIDE_TOL) return 1;
    const unsigned nb = neighbors(worst, t);
    if (nb == NONE) return 0;
    if (nb >= connect.cols) return -1;
    t = nb;
  }
  return -1;
}

bool scan(const dense2D<double>& pos, const dense2D<unsigned>& connect, const double* P,
          unsigned& t, double* w) {
  for (t = 0; t < connect.cols; ++t)
    if (weights(pos, connect.col(t), P, w) && w[0] >= -INSIDE_TOL && w[1] >= -INSIDE_TOL &&
        w[2] >= -INSIDE_TOL && w[3] >= -INSIDE_TOL)
      return true;
  return false;
}

}  // namespace

int interpolate_metrics(const dense2D<double>& pos, const dense2D<unsigned>& connect,
                        const dense2D<unsigned>& neighbors, const dense1D<unsigned>& ancestors,
                        dense1D<double>& metrics, const dense1D<unsigned>& indices, bool flag) {
  if (indices.empty() || connect.empty()) return 0;
  if (pos.rows != 3 || connect.rows != 4 || neighbors.rows != 4 || neighbors.cols != connect.cols)
    return -1;
  for (unsigned j = 0; j < connect.cols; ++j)
    for (unsigned i = 0; i < 4; ++i)
      if (connect(i, j) >= pos.cols) return -1;
  unsigned hint = 0;
  for (unsigned n : indices) {
    if (n >= pos.cols || n >= metrics.size) continue;
    const double* P = pos.col(n);
    unsigned t = hint;
    if (n < ancestors.size && ancestors[n] < connect.cols) t = ancestors[n];
    double w[4];
    const int found = walk(pos, connect, neighbors, P, t, w);
    if (found != 1 && (found == -1 || !flag) && !scan(pos, connect, P, t, w)) continue;
    if (found == 0 && flag) continue;
    hint = t;
    const unsigned* tet = connect.col(t);
    if (tet[0] >= metrics.size || tet[1] >= metrics.size || tet[2] >= metrics.size ||
        tet[3] >= metrics.size)
      continue;
    const double s3 = metrics[tet[3]];
    metrics[n] = s3 + (metrics[tet[0]] - s3) * w[0] + (metrics[tet[1]] - s3) * w[1] +
                 (metrics[tet[2]] - s3) * w[2];
  }
  return 0;
}

}  // namespace kelvo::gridkit3d
