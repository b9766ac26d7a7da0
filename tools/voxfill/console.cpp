// The terminal side of a run: Ctrl-C, the progress bar, the phase messages and the report.
#include "console.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

namespace kelvo::voxfill_tool {

namespace {

volatile std::sig_atomic_t interrupt_flag = 0;

// Only an assignment to a sig_atomic_t: safe in a signal handler.
extern "C" void on_sigint(int) {
  interrupt_flag = 1;
}

// The library polls this during the run.
bool poll(void* pass_thru, double progress) {
  console& c = *static_cast<console*>(pass_thru);
  if (c.bar) c.draw(progress);
  return interrupt_flag != 0;
}

// Phase messages at level 0, and the boundary closing report at level 2.
void show(void* pass_thru, unsigned level, const char* text) {
  console& c = *static_cast<console*>(pass_thru);
  if (c.quiet) return;
  if (level == 0) c.set_phase(text);
  c.clear_bar();
  std::fputs(text, stdout);
  std::fflush(stdout);
}

}  // namespace

console::console(bool quiet_) : quiet(quiet_) {
  bar = !quiet && isatty(STDERR_FILENO);
  start = std::chrono::steady_clock::now();
}

void console::attach(voxfill::mesher::settings_type& s) {
  s.display_hdl = show;
  s.interrupt_hdl = poll;
  s.pass_thru = this;
  offset = s.progress_offset;
  scale = s.progress_scale;
}

void console::clear_bar() {
  if (!bar_shown) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
  bar_shown = false;
}

void console::draw(double progress) {
  const auto now = std::chrono::steady_clock::now();
  if (bar_shown && phase_drawn && now - last_draw < std::chrono::milliseconds(100)) return;
  last_draw = now;
  phase_drawn = true;
  double f = scale > 0.0 ? (progress - offset) / scale : 0.0;
  f = std::clamp(f, 0.0, 1.0);
  constexpr int width = 40;
  char line[width + 1];
  const int filled = int(f * width);
  for (int i = 0; i < width; ++i) line[i] = i < filled ? '#' : '.';
  line[width] = '\0';
  const double seconds = std::chrono::duration<double>(now - start).count();
  std::fprintf(stderr, "\r[%s] %3d%%  %.1f s%s%s%s", line, int(f * 100.0), seconds,
               phase.empty() ? "" : "  ", phase.c_str(), interrupt_flag ? "  stopping..." : "");
  std::fflush(stderr);
  bar_shown = true;
}

void console::set_phase(const char* message) {
  // Phase messages are one short line: a longer text names no phase and leaves the bar as it is.
  std::string p(message);
  while (!p.empty() && (p.back() == '\n' || p.back() == '\r' || p.back() == '.')) p.pop_back();
  if (p.find('\n') != std::string::npos || p.size() > 40) return;
  if (p != phase) phase_drawn = false;
  phase = p;
}

bool interrupted() {
  return interrupt_flag != 0;
}

void install_interrupt() {
  struct sigaction sa {};
  sa.sa_handler = on_sigint;
  sigemptyset(&sa.sa_mask);
  // One-shot: the second Ctrl-C finds the default action and ends the process.
  sa.sa_flags = SA_RESETHAND | SA_RESTART;
  sigaction(SIGINT, &sa, nullptr);
}

void restore_interrupt() {
  std::signal(SIGINT, SIG_DFL);
}

void print_text(void*, unsigned, const char* text) {
  std::fputs(text, stdout);
}

}  // namespace kelvo::voxfill_tool
