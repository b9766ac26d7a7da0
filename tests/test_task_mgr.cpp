// Progress values, raising rules and interruption of the task manager.
#include <gtest/gtest.h>

#include <cstring>

#include "voxfill/delaunay_th4.h"
#include "voxfill/refine/refine_context.h"

using namespace kelvo::voxfill;
using kelvo::Ptr;

namespace {

struct fixture {
  mesher::settings_type settings;
  mesher::data_type data;
  Ptr<progress_bar> root;
  Ptr<task_type> task;
  bool answer = false;
  int polls = 0;

  explicit fixture(unsigned mode = 0, double offset = 0.0, double scale = 1.0) {
    settings.progress_offset = offset;
    settings.progress_scale = scale;
    settings.pass_thru = this;
    root = new progress_bar(offset, scale);
    root->add_phase_bars(phase_weights(mode), 6);
    task = new task_type(&settings, root.get(), &data.error_code, &data.warning_code,
                         data.msg_title, data.msg_text);
  }
  void hook() {
    settings.interrupt_hdl = [](void* p, double) {
      auto* f = static_cast<fixture*>(p);
      ++f->polls;
      return f->answer;
    };
  }
};

}  // namespace

// Children weights, caps, counts above total, empty sections and monotonicity of the value.
TEST(ProgressBar, ValueRules) {
  fixture f(0, 0.5, 0.25);
  EXPECT_DOUBLE_EQ(f.root->value(), 0.5);
  Ptr<task_type> refine = f.task->phase_task(phase_refine);
  Ptr<task_type> sec = refine->section(1.0, 4);
  sec->advance(2);
  EXPECT_DOUBLE_EQ(f.root->value(), 0.5 + 0.25 * 0.55 * 0.5);
  sec->advance(100);  // beyond total: counts as total
  const double full = 0.5 + 0.25 * 0.55;
  EXPECT_DOUBLE_EQ(f.root->value(), full);
  refine->drop_sections(1);  // the section goes, the value does not fall
  EXPECT_DOUBLE_EQ(f.root->value(), full);
  Ptr<task_type> empty = refine->section(1.0, 0);
  empty->advance(5);
  EXPECT_EQ(empty->bar->scale, 0.0);
  EXPECT_DOUBLE_EQ(empty->bar->value(), 0.0);
  f.task->close_phase(phase_refine);
  EXPECT_TRUE(f.root->children[phase_refine].bar->children.empty());
  EXPECT_DOUBLE_EQ(f.root->value(), full);
  f.root->finish();
  EXPECT_DOUBLE_EQ(f.root->value(), 0.75);
  f.root->done = 0;  // a finished bar stays at its end value
  EXPECT_DOUBLE_EQ(f.root->value(), 0.75);

  progress_bar capped(0.0, 1.0);
  capped.cap = 0.5;
  capped.done = 1;
  EXPECT_DOUBLE_EQ(capped.value(), 0.5);
}

// must_stop: no handler means no stop; interruption overrides warnings; errors after it still
// count.
TEST(TaskMgr, RaisingAndInterruption) {
  fixture f;
  EXPECT_FALSE(f.task->must_stop());
  f.hook();
  EXPECT_FALSE(f.task->must_stop());
  EXPECT_EQ(f.polls, 1);

  f.task->raise_warning(msg::shape_quality_mode0);
  f.answer = true;
  EXPECT_TRUE(f.task->must_stop());
  EXPECT_EQ(f.data.warning_code, -10);
  EXPECT_STREQ(f.data.msg_title, "INTERRUPTION RAISED");
  EXPECT_STREQ(f.data.msg_text, "");
  EXPECT_TRUE(f.task->must_stop());
  EXPECT_EQ(f.polls, 2);  // once stopped, polls do not call the handler again
  f.task->raise_warning(msg::shape_quality_mode0);
  EXPECT_EQ(f.data.warning_code, -10);
  f.task->raise_error(msg::degenerated_mode0);
  EXPECT_EQ(f.data.error_code, -108);
  EXPECT_STREQ(f.data.msg_title, "DEGENERATED ELEMENT");

  fixture g;
  g.hook();
  g.task->raise_error(msg::illegal_coordinates);
  g.task->raise_error(msg::memory_error_run);
  EXPECT_TRUE(g.task->must_stop());
  EXPECT_EQ(g.polls, 0);  // with an error standing the caller is not polled
  EXPECT_EQ(g.data.error_code, -102);
  EXPECT_STREQ(g.data.msg_text,
               "Illegal coordinates.\nFile = delaunay/delaunay_mgr.cpp, line = 469.\n");
}

// The engine's copy of the settings is put in order for the run and the caller's is untouched.
TEST(Engine, SettingsInOrderDuringRunOnly) {
  struct seen {
    double target_size = -1.0;
    bool compute_Qh = true;
  } s;
  mesher m;
  m.settings.mode = 2;
  m.settings.target_size = 2.0;
  m.settings.front_as_background = true;
  m.settings.compute_Qh = true;
  m.settings.pass_thru = &s;
  th4_engine engine;
  engine.settings = m.settings;
  mesher::data_type d;
  refine_context ctx(m.settings);
  EXPECT_EQ(ctx.size_gradation, 0.5);
  EXPECT_DOUBLE_EQ(ctx.half_max_edge_length, 0.707);
  engine.run(d, ctx);
  EXPECT_EQ(engine.settings.target_size, 2.0);  // restored after the run
  EXPECT_TRUE(engine.settings.compute_Qh);
  EXPECT_FALSE(engine.tasks);

  mesher::settings_type none;
  none.target_size = 0.0;
  EXPECT_EQ(refine_context(none).size_gradation, DBL_MAX);
}
