// Tree of progress bars: the value a caller's interrupt handler sees.
#include "voxfill/progress_bar.h"

namespace kelvo::voxfill {

void progress_bar::add_phase_bars(const double* weights, unsigned n) {
  for (unsigned k = 0; k < n; ++k) {
    progress_bar* b = new progress_bar;
    b->last = 0.0;
    children.push_back({Ptr<progress_bar>(b), weights[k]});
  }
}

progress_bar* progress_bar::add_section(double weight, unsigned n) {
  progress_bar* b = new progress_bar;
  b->total = n;
  b->scale = n ? 1.0 / n : 0.0;
  children.push_back({Ptr<progress_bar>(b), weight});
  return b;
}

void progress_bar::drop_sections(unsigned n) {
  for (; n && !children.empty(); --n) children.pop_back();
}

double progress_bar::value() {
  double v = double(done < total ? done : total);
  for (child& c : children) v = c.bar->value() * c.weight + v;
  v *= scale;
  if (v > cap) v = cap;
  v += offset;
  if (v < last) return last;
  last = v;
  return v;
}

void progress_bar::finish() {
  while (!children.empty()) children.pop_back();
  done = total;
  last = offset + cap;
}

}  // namespace kelvo::voxfill
