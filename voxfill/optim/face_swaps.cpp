// Face swaps: two tets on a large common face become three round the edge across it.
#include "voxfill/optim/face_swaps.h"

#include <algorithm>
#include <cmath>

#include "delaunay/geometry.h"
#include "delaunay/tet_tables.h"

namespace kelvo::voxfill {

bool swap_two_three(const mesh_store& m, unsigned t, unsigned i, unsigned n, unsigned j,
                    double floor, dense2D<unsigned>& rows, dense1D<double>& qualities) noexcept {
  // A third tet next to both would get one of its faces twice.
  for (unsigned a = 0; a < 4; ++a) {
    const unsigned u = m.neighbors(a, t);
    if (a == i || u == NONE) continue;
    for (unsigned b = 0; b < 4; ++b)
      if (b != j && m.neighbors(b, n) == u) return false;
  }
  const unsigned* rt = m.tets.row(t);
  const unsigned p = rt[i], r = m.tets(j, n);
  const unsigned f[3] = {rt[tet_face_nodes[i][0]], rt[tet_face_nodes[i][1]],
                         rt[tet_face_nodes[i][2]]};
  const unsigned old_cols = rows.cols, old_size = qualities.size;
  if (!rows.resize(4, old_cols + 3) || !qualities.reserve(old_size + 3)) {
    rows.resize(4, old_cols);
    return false;
  }
  for (unsigned k = 0; k < 3; ++k) {
    unsigned* w = rows.col(old_cols + k);
    w[0] = p, w[1] = r, w[2] = f[k], w[3] = f[(k + 1) % 3];
    const double q = tet_quality(m.nodes.data, w[0], w[1], w[2], w[3]);
    if (!(q > floor)) {
      rows.resize(4, old_cols);
      qualities.size = old_size;
      return false;
    }
    qualities.push_back(q);
  }
  return true;
}

double face_swap_pass(regularizer& g, dense1D<unsigned>& tets, double quality_factor,
                      double merit_factor, unsigned& moves) noexcept {
  moves = 0;
  double gain = 1.0;
  if (!tets.size || (g.task && g.task->must_stop())) return 1.0;
  th4_engine& m = g.engine;
  move_merit& mm = g.merit;
  const unsigned clock = ++m.tet_clock;
  for (unsigned k = 0; k < tets.size; ++k) {
    const unsigned t = tets[k];
    if (m.tet_stamps[t] >= clock) continue;
    const unsigned* r = m.tets.row(t);
    double A[4], S = 0.0;
    for (unsigned f = 0; f < 4; ++f) {
      const unsigned* fn = tet_face_nodes[f];
      A[f] = face_double_area(m.nodes.data, r[fn[0]], r[fn[1]], r[fn[2]]);
      S += A[f];
    }
    // The first face about as large as the other three together, as on a flat tet.
    unsigned i = 4;
    for (unsigned f = 0; f < 4 && i == 4; ++f)
      if (A[f] * 2.414213562373095 >= S) i = f;
    if (i == 4) continue;
    const unsigned n = m.neighbors(i, t);
    if (n == NONE || g.frozen(n)) continue;
    const unsigned* fn = tet_face_nodes[i];
    if (m.hard_set.has_face(r[fn[0]], r[fn[1]], r[fn[2]])) continue;
    const unsigned j = m.neighbor_index(n, t);
    if (j == 4) continue;
    const double q0 = std::min({m.tet_qualities[t], m.tet_qualities[n], 1.0});
    const double m0 = mm.merit_blend(1.0, q0);
    const double floor = std::max(q0 * quality_factor, 1e-12);
    g.new_rows.resize(4, 0);
    g.new_qualities.clear();
    if (!swap_two_three(m, t, i, n, j, floor, g.new_rows, g.new_qualities)) continue;
    double q = 1.0;
    for (unsigned c = 0; c < 3; ++c) q = std::min(q, g.new_qualities[c]);
    const double s =
        mm.shape_weight < 1.0 ? symmetric_length(m, g.new_rows(0, 0), g.new_rows(1, 0)) : 1.0;
    if (!g.old_rows.resize(4, 2)) continue;
    std::copy_n(m.tets.row(t), 4, g.old_rows.col(0));
    std::copy_n(m.tets.row(n), 4, g.old_rows.col(1));
    mm.merit_reference(g.old_rows);
    const double value = mm.merit_blend(s, q) * mm.topology_factor(g.new_rows);
    if (value < m0 * merit_factor) continue;
    g.shell_tets.clear();
    g.shell_tets.push_back(t);
    g.shell_tets.push_back(n);
    if (g.shell_tets.size != 2 ||
        !replace_tets(m, g.exchange, g.shell_tets, g.new_rows, g.new_qualities, g.new_tets))
      continue;
    mm.commit_valence(g.old_rows, g.new_rows);
    gain = std::max(gain, value / m0);
    ++moves;
  }
  if (moves) {
    unsigned kept = 0;
    for (unsigned k = 0; k < tets.size; ++k)
      if (m.tet_stamps[tets[k]] < clock) tets[kept++] = tets[k];
    tets.size = kept;
  }
  return gain;
}

}  // namespace kelvo::voxfill
