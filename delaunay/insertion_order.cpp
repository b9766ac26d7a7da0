// Biased randomized insertion order: random rounds, each sorted along a Hilbert curve.
#include "delaunay/insertion_order.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "numcore/dense1D.h"

namespace kelvo::voxfill {
namespace {

constexpr unsigned KEY_BITS = 19;  // per axis; three axes and the round fit in 64 bits
constexpr unsigned ROUND_SHIFT = 3 * KEY_BITS;
// Below this many nodes, the first round takes them all.
constexpr unsigned FIRST_ROUND = 64;

struct keyed_node {
  std::uint64_t key;
  unsigned node;
  bool operator<(const keyed_node& o) const noexcept {
    return key < o.key || (key == o.key && node < o.node);
  }
};

unsigned grid_position(double x, double lo, double scale) noexcept {
  const double g = (x - lo) * scale;
  constexpr double top = double((1u << KEY_BITS) - 1);
  if (!(g > 0.0)) return 0;  // NaN too
  return g >= top ? (1u << KEY_BITS) - 1 : unsigned(g);
}

// The bits of a 19-bit value spread out to every third place.
std::uint64_t spread_by_three(std::uint64_t x) noexcept {
  x &= (1u << KEY_BITS) - 1;
  x = (x | x << 32) & 0x001F00000000FFFFull;
  x = (x | x << 16) & 0x001F0000FF0000FFull;
  x = (x | x << 8) & 0x100F00F00F00F00Full;
  x = (x | x << 4) & 0x10C30C30C30C30C3ull;
  x = (x | x << 2) & 0x1249249249249249ull;
  return x;
}

}  // namespace

std::uint64_t hilbert_key(const double* p, const double lo[3], double side) noexcept {
  const double scale = side > 0.0 ? double(1u << KEY_BITS) / side : 0.0;
  unsigned X[3];
  for (unsigned i = 0; i < 3; ++i) X[i] = grid_position(p[i], lo[i], scale);
  // Skilling's transform of the three coordinates into the transposed Hilbert index: undo the
  // excess work of the recursive curve level by level, then Gray-code the result. The bits are
  // random, so each level's choice (invert the low bits of X[0], or exchange them with X[i]) is
  // made with masks rather than branches.
  for (unsigned Q = 1u << (KEY_BITS - 1); Q > 1; Q >>= 1) {
    const unsigned P = Q - 1;
    for (unsigned i = 0; i < 3; ++i) {
      const unsigned set = 0u - ((X[i] & Q) != 0);  // all ones when the bit is set
      const unsigned t = (X[0] ^ X[i]) & P & ~set;
      X[0] ^= (P & set) | t;
      X[i] ^= t;
    }
  }
  X[1] ^= X[0];
  X[2] ^= X[1];
  unsigned t = 0;
  for (unsigned Q = 1u << (KEY_BITS - 1); Q > 1; Q >>= 1) t ^= (Q - 1) & (0u - ((X[2] & Q) != 0));
  // Interleave: the top bit of each axis first.
  return spread_by_three(X[0] ^ t) << 2 | spread_by_three(X[1] ^ t) << 1 |
         spread_by_three(X[2] ^ t);
}

bool order_for_insertion(const double* xyz, unsigned* list, unsigned count, random_source_type& g) {
  if (count <= 8) return true;
  dense1D<keyed_node> keyed;
  if (!keyed.resize(count)) return false;

  double lo[3], hi[3];
  for (unsigned i = 0; i < 3; ++i) lo[i] = hi[i] = xyz[3 * std::size_t(list[0]) + i];
  for (unsigned k = 1; k < count; ++k) {
    const double* p = xyz + 3 * std::size_t(list[k]);
    for (unsigned i = 0; i < 3; ++i) {
      lo[i] = std::min(lo[i], p[i]);
      hi[i] = std::max(hi[i], p[i]);
    }
  }
  const double side = std::max(hi[0] - lo[0], std::max(hi[1] - lo[1], hi[2] - lo[2]));

  // Rounds 0 .. R-1; the first gets about FIRST_ROUND nodes, every later one twice the one
  // before. The round of a node counts the trailing zero bits of its draw from the last round.
  unsigned rounds = 1;
  while (rounds < 31 && (count >> (rounds - 1)) > FIRST_ROUND) ++rounds;
  for (unsigned k = 0; k < count; ++k) {
    const unsigned from_last = std::min(unsigned(std::countr_zero(unsigned(g()))), rounds - 1);
    const std::uint64_t round = rounds - 1 - from_last;
    const double* p = xyz + 3 * std::size_t(list[k]);
    keyed[k] = {(round << ROUND_SHIFT) | hilbert_key(p, lo, side), list[k]};
  }
  std::sort(keyed.data(), keyed.data() + count);
  for (unsigned k = 0; k < count; ++k) list[k] = keyed[k].node;
  return true;
}

bool hilbert_order(const dense2D<double>& points, dense1D<unsigned>& order) {
  const unsigned n = points.cols;
  double lo[3] = {0.0, 0.0, 0.0}, hi[3] = {0.0, 0.0, 0.0};
  bool any = false;
  for (unsigned j = 0; j < n; ++j) {
    const double* p = points.col(j);
    if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) continue;
    for (unsigned k = 0; k < 3; ++k) {
      lo[k] = any ? std::min(lo[k], p[k]) : p[k];
      hi[k] = any ? std::max(hi[k], p[k]) : p[k];
    }
    any = true;
  }
  const double side = std::max(hi[0] - lo[0], std::max(hi[1] - lo[1], hi[2] - lo[2]));
  dense1D<keyed_node> keyed;
  if (!keyed.resize(n) || !order.resize(n)) return false;
  for (unsigned j = 0; j < n; ++j) keyed[j] = {hilbert_key(points.col(j), lo, side), j};
  std::sort(keyed.data(), keyed.data() + n);
  for (unsigned i = 0; i < n; ++i) order[i] = keyed[i].node;
  return true;
}

}  // namespace kelvo::voxfill
