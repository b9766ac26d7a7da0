// Biased randomized insertion order: random rounds, each sorted along a Hilbert curve.
#include "delaunay/insertion_order.h"

#include <algorithm>
#include <array>
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

// Skilling's transform of the three coordinates into the transposed Hilbert index works from
// the top bit down: each level, by its own three bits, inverts the bits below it of axis 0 or
// exchanges them with those of another axis; then the axes are Gray-coded. What the levels above
// have done to the bits below is one of the 48 signed permutations of the axes, so the transform
// runs as a state machine over the interleaved bits. A state: bits 0-1, 2-3 and 4-5 the source
// axis of axes 0, 1 and 2, bits 6 to 8 the inversion of each.
constexpr unsigned FIRST_STATE = 0u | 1u << 2 | 2u << 4;

// For state s and the grid bits g of one level (axis 0 highest): the next state times 8, plus the
// level's bits after the transform and the running exclusive or of the axes (axis 0 highest).
constexpr std::array<std::uint16_t, 512 * 8> make_levels() noexcept {
  std::array<std::uint16_t, 512 * 8> table{};
  for (unsigned s = 0; s < 512; ++s)
    for (unsigned g = 0; g < 8; ++g) {
      unsigned from[3] = {s & 3, (s >> 2) & 3, (s >> 4) & 3}, inv = s >> 6;
      if (from[0] > 2 || from[1] > 2 || from[2] > 2) continue;
      unsigned b[3] = {0, 0, 0};
      for (unsigned i = 0; i < 3; ++i) b[i] = ((g >> (2 - from[i])) & 1) ^ ((inv >> i) & 1);
      for (unsigned i = 0; i < 3; ++i) {
        if (b[i]) {
          inv ^= 1;  // the low bits of axis 0 inverted
        } else {     // exchanged with those of axis i
          const unsigned f = from[0], i0 = inv & 1, ii = (inv >> i) & 1;
          from[0] = from[i];
          from[i] = f;
          inv = (inv & ~(1u | 1u << i)) | ii | i0 << i;
        }
      }
      const unsigned c0 = b[0], c1 = b[1] ^ c0, c2 = b[2] ^ c1;
      const unsigned next = from[0] | from[1] << 2 | from[2] << 4 | inv << 6;
      table[8 * s + g] = std::uint16_t(next << 3 | c0 << 2 | c1 << 1 | c2);
    }
  return table;
}
constexpr std::array<std::uint16_t, 512 * 8> LEVELS = make_levels();

}  // namespace

std::uint64_t hilbert_key(const double* p, const double lo[3], double side) noexcept {
  const double scale = side > 0.0 ? double(1u << KEY_BITS) / side : 0.0;
  const std::uint64_t grid = spread_by_three(grid_position(p[0], lo[0], scale)) << 2 |
                             spread_by_three(grid_position(p[1], lo[1], scale)) << 1 |
                             spread_by_three(grid_position(p[2], lo[2], scale));
  // One level of three bits at a time from the top, through the table of the transform the
  // levels above have left; the Gray code's running parity flips every axis below a set bit.
  std::uint64_t key = 0;
  unsigned state = FIRST_STATE, flip = 0;
  for (int level = KEY_BITS - 1; level >= 0; --level) {
    const unsigned e = LEVELS[8 * state + unsigned(grid >> (3 * level) & 7)];
    key = key << 3 | ((e ^ flip) & 7);
    flip ^= 0u - (e & 1);
    state = e >> 3;
  }
  return key;
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
