// Raising of codes, progress and interruption, carried through the call tree of a run.
#pragma once

#include "numcore/ref_counted.h"
#include "voxfill/mesher_th4.h"
#include "voxfill/messages.h"
#include "voxfill/progress_bar.h"

namespace kelvo::voxfill {

// A handle on the caller's record (through four pointers) and on one bar of the progress tree.
// Sub-tasks share the record and the root; the root's value is what the caller sees.
template <class settings_type, class data_type>
class task_mgr : public kelvo::ref_counted {
 public:
  const settings_type* settings = nullptr;
  Ptr<progress_bar> bar;
  Ptr<progress_bar> parent_bar;
  Ptr<progress_bar> root_bar;
  int* error_code = nullptr;
  int* warning_code = nullptr;
  char* msg_title = nullptr;
  char* msg_text = nullptr;

  task_mgr(const settings_type* s, progress_bar* root, int* ec, int* wc, char* title, char* text)
      : settings(s),
        bar(root),
        root_bar(root),
        error_code(ec),
        warning_code(wc),
        msg_title(title),
        msg_text(text) {}
  task_mgr(const task_mgr& parent, progress_bar* child)
      : settings(parent.settings),
        bar(child),
        parent_bar(parent.bar),
        root_bar(parent.root_bar),
        error_code(parent.error_code),
        warning_code(parent.warning_code),
        msg_title(parent.msg_title),
        msg_text(parent.msg_text) {}

  // A sub-task on phase bar `index` of this task's bar.
  Ptr<task_mgr> phase_task(unsigned index) const {
    return Ptr<task_mgr>(new task_mgr(*this, bar->children[index].bar.get()));
  }
  // A new section of n steps on this task's bar, and a sub-task on it.
  Ptr<task_mgr> section(double weight, unsigned n) const {
    return Ptr<task_mgr>(new task_mgr(*this, bar->add_section(weight, n)));
  }
  void drop_sections(unsigned n) const { bar->drop_sections(n); }
  void advance(unsigned n) const { bar->done += n; }

  // Polls the caller. True when the work has to end: an error stands or the caller interrupted.
  bool must_stop() const {
    if (*error_code == 0 && *warning_code != -10 && settings->interrupt_hdl && root_bar) {
      if (settings->interrupt_hdl(settings->pass_thru, root_bar->value()))
        record_interruption(*warning_code, msg_title, msg_text);
    }
    return *error_code != 0 || *warning_code == -10;
  }

  void raise_error(msg id) const { record_error(*error_code, msg_title, msg_text, message(id)); }
  void raise_warning(msg id) const {
    record_warning(*error_code, *warning_code, msg_title, msg_text, message(id));
  }
  void display(const char* text) const {
    if (settings->display_hdl) settings->display_hdl(settings->pass_thru, 0, text);
  }
  void display(unsigned level, const char* text) const {
    if (settings->display_hdl) settings->display_hdl(settings->pass_thru, level, text);
  }

  // Finishes phase bar k of the root and tells the caller the new value, ignoring its answer.
  void close_phase(unsigned k) const {
    {
      Ptr<progress_bar> phase = root_bar->children[k].bar;
      phase->finish();
    }
    if (settings->interrupt_hdl && root_bar)
      settings->interrupt_hdl(settings->pass_thru, root_bar->value());
  }
};

// The task manager of the mesher's records.
using task_type = task_mgr<mesher::settings_type, mesher::data_type>;

}  // namespace kelvo::voxfill
