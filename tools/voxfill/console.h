// The terminal side of a run: Ctrl-C, the progress bar, the phase messages and the report.
#pragma once

#include <chrono>
#include <string>

#include "voxfill/mesher_th4.h"

namespace kelvo::voxfill_tool {

// State of the progress bar, handed to the handlers through `pass_thru`.
class console {
 public:
  bool quiet = false;      // no bar, no phase messages
  bool bar = false;        // a progress bar is drawn on stderr (a terminal, and not quiet)
  bool bar_shown = false;  // the bar's line is on the screen
  double offset = 0.0, scale = 1.0;  // the range of progress values of the run
  std::string phase;                 // the last phase message, without its full stop
  bool phase_drawn = true;           // the bar on the screen shows `phase`
  std::chrono::steady_clock::time_point start, last_draw;

  explicit console(bool quiet_);
  // Points the handlers of `s` at this console; keeps the progress range of `s`.
  void attach(voxfill::mesher::settings_type& s);
  // Takes the bar off the screen, so that other text can be printed.
  void clear_bar();
  // Draws the bar for a progress value, with the phase; at most ten times a second, but at
  // once when the phase has changed.
  void draw(double progress);
  // Takes a phase message of the library ("Regularize mesh.\n") as the bar's phase.
  void set_phase(const char* message);
};

// Catches SIGINT: the first one makes the interrupt handler return true, the second one ends
// the process at once (the handler is reset to the default action when it runs). Installed
// from the start of a run until its mesh is written, so that one Ctrl-C never costs the mesh.
void install_interrupt();
// Puts the default action back: once the mesh is written, Ctrl-C ends the process at once.
void restore_interrupt();
// Whether a Ctrl-C came since install_interrupt.
bool interrupted();

// Writes text to standard output; a display handler for print_info.
void print_text(void* pass_thru, unsigned level, const char* text);

}  // namespace kelvo::voxfill_tool
