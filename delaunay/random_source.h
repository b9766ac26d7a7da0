// The run's random numbers: a 32-bit Mersenne Twister seeded with 1, and a slicer of its bits.
#pragma once

#include <random>

namespace kelvo::voxfill {

// The standard MT19937 with its published constants, so equal runs draw equal numbers everywhere.
using random_source_type = std::mt19937;

// Two random bits a time, sixteen per 32-bit draw, from a private copy of a generator's state.
struct bit_source {
  static constexpr unsigned mask = 3;
  static constexpr unsigned bits_per_draw = 2;
  static constexpr unsigned draws_per_word = 16;
  unsigned count_left = 0;
  unsigned word_left = 0;
  random_source_type generator;

  void seed_from(const random_source_type& g) noexcept {
    generator = g;
    count_left = 0;
    word_left = 0;
  }
  unsigned next() noexcept {
    if (count_left == 0) {
      word_left = unsigned(generator());
      count_left = draws_per_word;
    }
    const unsigned r = word_left & mask;
    word_left >>= bits_per_draw;
    --count_left;
    return r;
  }
};

}  // namespace kelvo::voxfill
