// Tree of progress bars: the value a caller's interrupt handler sees.
#pragma once

#include <vector>

#include "numcore/ref_counted.h"

namespace kelvo::voxfill {

// A bar's value runs from `offset` to `offset + cap` and never goes down.
class progress_bar : public kelvo::ref_counted {
 public:
  struct child {
    Ptr<progress_bar> bar;
    double weight;
  };

  unsigned done = 0;
  unsigned total = 1;
  double offset = 0.0;
  double scale = 1.0;
  double cap = 1.0;
  double last = 0.0;
  std::vector<child> children;

  progress_bar() = default;
  // The root bar of a run.
  progress_bar(double progress_offset, double progress_scale)
      : offset(progress_offset), scale(progress_scale), cap(progress_scale), last(progress_offset) {}

  // One child per weight, each a plain bar from 0 to 1.
  void add_phase_bars(const double* weights, unsigned n);
  // A child counting n steps (scale 1 / n, or 0 when n is 0).
  progress_bar* add_section(double weight, unsigned n);
  // Takes the last n children off, the last one first.
  void drop_sections(unsigned n);
  double value();
  // Releases the children and pins the value at offset + cap.
  void finish();
};

}  // namespace kelvo::voxfill
