// The refinement estimate and the reservation that it feeds.
#include "voxfill/refine/refinement_estimate.h"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <new>
#include <vector>

#include "delaunay/geometry.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/messages.h"

namespace kelvo::voxfill {

namespace {

constexpr double IDEAL_VOLUME = 0.7071067811865476;  // orient_det of the tet of edge 1
constexpr double FLOAT_TOP = 3.4028234663852886e38;
constexpr unsigned OUTSIDE_OR_DELETED = 0xFFFFFFFEu;

bool classified(const th4_engine& e, unsigned t) noexcept {
  return e.colors[t] < OUTSIDE_OR_DELETED;
}

double volume_of(const th4_engine& e, unsigned t) noexcept {
  const unsigned* r = e.tets.row(t);
  return orient_det(e.nodes.data, r[0], r[1], r[2], r[3]);
}

float capped(double x) noexcept {
  return float(x < FLOAT_TOP ? x : FLOAT_TOP);
}

}  // namespace

namespace {

// A pending lowering: the key (a positive float, whose bits sort as its value) and the tet to
// lower in one word, the neighbour it is held to apart. Their order is that of the tuple
// (key, a, b), so the heap pops them as a queue of such tuples would.
struct jump {
  std::uint64_t key_a;
  unsigned b;
  bool operator<(const jump& o) const noexcept {
    return key_a < o.key_a || (key_a == o.key_a && b < o.b);
  }
};

jump make_jump(double x, unsigned a, unsigned b) noexcept {
  return {(std::uint64_t(std::bit_cast<std::uint32_t>(capped(x))) << 32) | a, b};
}

// limit_density_jumps with the volume of every tet of nonzero density at hand: only such tets
// are ever looked at.
void limit_jumps(const th4_engine& e, double ratio, dense1D<double>& d,
                 const dense1D<double>& vol) noexcept {
  try {
    std::vector<jump> heap;
    const unsigned T = d.size;
    for (unsigned t = 0; t < T; ++t) {
      if (d[t] == 0.0) continue;
      const unsigned* nb = e.neighbors.row(t);
      for (unsigned i = 0; i < 4; ++i) {
        const unsigned u = nb[i];
        if (u == NONE || u > t || u >= T || d[u] == 0.0) continue;
        const double x = vol[u] * d[t] / (d[u] * vol[t]);
        if (x > ratio) heap.push_back(make_jump(x, t, u));
        const double y = 1.0 / x;
        if (y > ratio) heap.push_back(make_jump(y, u, t));
      }
    }
    // The pops come in one total order whatever the heap's layout: built at once, not pushed.
    std::make_heap(heap.begin(), heap.end());
    while (!heap.empty()) {
      std::pop_heap(heap.begin(), heap.end());
      const jump top = heap.back();
      heap.pop_back();
      const unsigned a = unsigned(top.key_a & 0xFFFFFFFFu), b = top.b;
      const double Va = vol[a];
      const double lowered = d[b] * ratio * (Va / vol[b]);
      if (!(lowered * 1.000000000001 <= d[a])) continue;
      d[a] = lowered;
      const unsigned* nb = e.neighbors.row(a);
      for (unsigned i = 0; i < 4; ++i) {
        const unsigned c = nb[i];
        if (c == NONE || c == b || c >= T || d[c] == 0.0) continue;
        const double z = Va * d[c] / (vol[c] * lowered);
        if (z > ratio) {
          heap.push_back(make_jump(z, c, a));
          std::push_heap(heap.begin(), heap.end());
        }
      }
    }
  } catch (const std::bad_alloc&) {
    // The estimate only sizes a reservation: unlimited jumps overestimate, which costs memory.
  }
}

}  // namespace

void limit_density_jumps(const th4_engine& e, double ratio, dense1D<double>& d) noexcept {
  dense1D<double> vol;
  if (!vol.resize(d.size, 0.0)) return;  // as when the queue finds no memory
  for (unsigned t = 0; t < d.size; ++t)
    if (d[t] != 0.0) vol[t] = volume_of(e, t);
  limit_jumps(e, ratio, d, vol);
}

int estimate_new_tets(const th4_engine& e, double g, double target, double& count) noexcept {
  count = 0.0;
  const unsigned T = e.tets.cols();
  unsigned live = 0;
  for (unsigned t = 0; t < T; ++t) live += classified(e, t);
  if (live == 0) return 0;
  const bool use_gradation = g > 0.0 && g < DBL_MAX && target > 0.0 && target < DBL_MAX;
  try {
    dense1D<double> d, vol;
    if (!d.resize(T, 0.0) || !vol.resize(T, 0.0)) return -199;
    const double c = use_gradation ? 1.0 / std::log(1.0 + g) : 0.0;
    for (unsigned t = 0; t < T; ++t) {
      if (!classified(e, t)) continue;
      const unsigned* r = e.tets.row(t);
      double h = 0.0;
      unsigned k = 0;
      for (; k < 4 && r[k] != NONE; ++k) h += e.node_sizes[r[k]];
      h = k ? h / k : 0.0;
      const double V = volume_of(e, t);
      vol[t] = V;
      const double ideal = h * h * h * IDEAL_VOLUME;
      const double v = ideal > 0.0 ? V / ideal : 0.0;
      double density = v;
      if (use_gradation) {
        const double coarse = target * target * target * IDEAL_VOLUME;
        const double m = coarse > 0.0 ? std::max(V / coarse, 1.0) : 1.0;
        const double D = v > 0.0 ? std::fabs(std::log(m / v)) * c : 0.0;
        // A flat or unsized tet (v = 0) counts as the coarse density.
        density = v + D > 0.0 ? m + (v - m) * D / (v + D) : m;
      }
      d[t] = std::max(density, 1.0);
    }
    limit_jumps(e, 1.5, d, vol);
    double sum = 0.0;
    for (unsigned t = 0; t < T; ++t) sum += d[t];
    count = std::rint(sum);
    return 0;
  } catch (const std::bad_alloc&) {
    return -199;
  }
}

void reserve_for_refinement(th4_engine& e, unsigned free_nodes, double g, double target) noexcept {
  const unsigned H = e.hard_set.node_count, T = e.tets.cols();
  unsigned free = 0, live = 0;
  for (unsigned k = 0; k < e.tets.free_stack.size; ++k) free += e.tets.free_stack[k] < T;
  for (unsigned t = 0; t < T; ++t) live += classified(e, t);
  const unsigned dead = T - std::min(T, live + free);
  if (e.must_stop()) return;
  const unsigned limit = e.settings.nodes_limit;
  for (const double gradation : {g, DBL_MAX}) {
    double estimate = 0.0;
    estimate_new_tets(e, gradation, target, estimate);
    double N = std::trunc(std::rint(estimate * 1.2));
    double M = std::rint(H * 0.5 + N * 0.2);
    if (M > limit) {
      M = limit;
      N = std::rint(limit * 5.0);
    }
    const double nodes = std::min(double(free_nodes) + M, double(NONE - 1));
    const double tets = std::min(double(dead) + N, double(NONE - 1));
    if (e.reserve(unsigned(nodes), unsigned(tets)) && e.locator.reserve(unsigned(nodes))) return;
    if (!(g < DBL_MAX && target > 0.0 && target < DBL_MAX)) break;
  }
  e.raise_error(msg::memory_reservation);
}

}  // namespace kelvo::voxfill
