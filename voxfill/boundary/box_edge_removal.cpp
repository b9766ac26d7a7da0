// Box edge removal by shell reconnections that only shorten the edges at the box.
#include "voxfill/boundary/box_edge_removal.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "voxfill/optim/move_merit.h"
#include "voxfill/optim/replace_tets.h"
#include "voxfill/optim/shell_reconnection.h"

namespace kelvo::voxfill {

void strip_box_edges(mesh_store& m, unsigned first_new) {
  move_merit merit(m);  // shape only: no sizes, no topology
  move_record record(m, merit);
  replace_scratch exchange;
  entity_set wanted;  // nothing is wanted: the best triangulation by quality
  dense1D<unsigned> ball, shell, ring, fresh;
  dense2D<unsigned> rows, edges;
  dense1D<double> qualities;
  std::vector<std::pair<double, unsigned>> far;  // (squared length, other node) at one corner
  // A corner whose ball no reconnection touched since its edges last gave nothing would give
  // nothing again: its sweep reads only its ball. The tets of a reconnection have the nodes of the
  // old shell, so those nodes are the ones whose balls changed.
  std::vector<char> changed(m.box_nodes.size, 1);
  auto touch = [&](unsigned v) {
    for (unsigned i = 0; i < m.box_nodes.size; ++i)
      if (m.box_nodes[i] == v) changed[i] = 1;
  };
  for (bool replaced = true; replaced;) {
    replaced = false;
    for (unsigned k = 0; k < m.box_nodes.size; ++k) {
      const unsigned b = m.box_nodes[k];
      if (b >= m.ancestors.size || m.ancestors[b] == NONE || !changed[k]) continue;
      changed[k] = 0;
      ball_of_node(m, b, NONE, ball);
      m.bump_marks();
      for (unsigned i = 0; i < m.box_nodes.size; ++i) m.mark(m.box_nodes[i]);
      far.clear();
      for (unsigned i = 0; i < ball.size; ++i) {
        const unsigned* r = m.tets.row(ball[i]);
        for (unsigned j = 0; j < 4; ++j)
          if (!m.marked(r[j])) {
            m.mark(r[j]);
            far.push_back({edge_length2(m.nodes.data, b, r[j]), r[j]});
          }
      }
      // Longest first; equal lengths by node, so that the order is the same on every run.
      std::sort(far.begin(), far.end(), [](const auto& x, const auto& y) {
        return x.first > y.first || (x.first == y.first && x.second < y.second);
      });
      for (const auto& [length2, w] : far) {
        const unsigned start = edge_tet(m, b, w);
        if (start == NONE) continue;
        ring.clear();
        if (!shell_with_ring(m, b, w, start, shell, ring)) continue;
        // Each pattern rated once; then picked as repeated searches over the patterns not turned
        // down would pick: the best by merit (a later one winning by more than 1e-12), turned
        // down when a tet fails the quality floor or a new edge is not shorter than this one.
        const unsigned P = pattern_count(ring.size);
        double value[14];
        bool passes[14], too_long[14];
        for (unsigned p = 0; p < P; ++p) {
          passes[p] = too_long[p] = false;
          if (!pattern_rows(b, w, ring, p, rows, edges)) continue;
          double q = 1.0;
          for (unsigned j = 0; j < rows.cols && q > 1e-12; ++j) {
            const unsigned* r = rows.col(j);
            q = std::min(q, tet_quality(m.nodes.data, r[0], r[1], r[2], r[3]));
          }
          if (!(q > 1e-12)) continue;
          double sl = 1.0;
          if (merit.shape_weight < 1.0)
            for (unsigned d = 0; d < edges.cols; ++d)
              sl = std::min(sl, symmetric_length(m, edges(0, d), edges(1, d)));
          passes[p] = true;
          value[p] = merit.merit_blend(sl, q);
          double longest = 0.0;
          for (unsigned d = 0; d < edges.cols; ++d)
            if (edges(0, d) >= first_new || edges(1, d) >= first_new)
              longest = std::max(longest, edge_length2(m.nodes.data, edges(0, d), edges(1, d)));
          too_long[p] = longest >= 0.999999999999 * length2;
        }
        std::uint32_t mask = 0;
        for (;;) {
          double best = 0.0;
          unsigned pattern = NONE;
          for (unsigned p = 0; p < P; ++p) {
            if (mask >> p & 1u) continue;
            if (!passes[p]) {
              mask |= std::uint32_t(1) << p;
              continue;
            }
            if (value[p] > best + 1e-12) best = value[p], pattern = p;
          }
          if (pattern == NONE) break;
          // Only a reconnection that puts shorter edges in the place of this one.
          if (too_long[pattern]) {
            mask |= std::uint32_t(1) << pattern;
            continue;
          }
          // The rows and qualities of the pick, from a search over it alone.
          std::uint32_t only = ~(std::uint32_t(1) << pattern);
          double floor = 1e-12;
          recover_patterns(record, b, w, ring, wanted, only, floor, pattern, rows, edges,
                           qualities);
          if (pattern == NONE) break;
          if (replace_tets(m, exchange, shell, rows, qualities, fresh)) {
            replaced = true;
            touch(b);
            touch(w);
            for (unsigned r : ring) touch(r);
          }
          break;
        }
      }
    }
  }
}

}  // namespace kelvo::voxfill
