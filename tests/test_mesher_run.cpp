// The run façade through the public interface: codes, exact messages, cleared outputs, timing,
// progress and interruption.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "voxfill/mesher_th4.h"

using kelvo::dense2D;
using kelvo::voxfill::mesher;
using data_type = mesher::data_type;

namespace {

data_type two_faces() {
  dense2D<double> pos(3, 4, 0.0);
  pos(0, 1) = pos(1, 2) = pos(2, 3) = 1.0;
  dense2D<unsigned> tri(3, 1);
  tri(0, 0) = 0, tri(1, 0) = 1, tri(2, 0) = 2;
  return data_type(pos, tri);
}

struct progress_log {
  std::vector<double> values;
  bool stop_at_once = false;
  std::vector<std::string> messages;
};

bool log_progress(void* p, double v) {
  auto* log = static_cast<progress_log*>(p);
  log->values.push_back(v);
  return log->stop_at_once;
}

}  // namespace

// Settings failure: -101 with its exact text, outputs cleared, connectM dropped outside mode 1.
TEST(MesherRun, SettingsAndDataErrors) {
  mesher m;
  m.settings.shape_weight = 1.5;
  data_type d = two_faces();
  d.connectM.resize(4, 1, 0u);
  d.neighbors.resize(4, 1, 0u);
  d.volume = 5.0;
  m.run(d);
  EXPECT_EQ(d.error_code, -101);
  EXPECT_STREQ(d.msg_title, "MODE ERROR");
  EXPECT_STREQ(d.msg_text, "\nFile = voxfill/mesher_th4.cpp, line = 102.\n");
  EXPECT_TRUE(d.connectM.empty());
  EXPECT_TRUE(d.neighbors.empty());
  EXPECT_EQ(d.volume, 0.0);
  EXPECT_EQ(d.total_time, 0.0);
  EXPECT_EQ(m.settings.shape_weight, 1.5);

  mesher m1;
  m1.settings.mode = 1;
  data_type e = two_faces();
  m1.run(e);
  EXPECT_EQ(e.error_code, -102);
  EXPECT_STREQ(e.msg_title, "DATA ERROR");
  EXPECT_STREQ(e.msg_text, "\nFile = voxfill/mesher_th4.cpp, line = 104.\n");

  mesher m0;
  data_type f = two_faces();
  f.isolated_nodes.push_back(4);
  m0.run(f);
  EXPECT_EQ(f.error_code, -102);
  EXPECT_STREQ(f.msg_text, "\nFile = voxfill/mesher_th4.cpp, line = 107.\n");
  EXPECT_EQ(f.pos.cols, 4u);  // input columns stay

  // A mode that does nothing: no code, no tets, yet a valid timed record.
  mesher m3;
  m3.settings.mode = 3;
  data_type g = two_faces();
  m3.run(g);
  EXPECT_EQ(g.error_code, 0);
  EXPECT_EQ(g.warning_code, 0);
  EXPECT_TRUE(g.connectM.empty());
  EXPECT_GE(g.total_time, 0.0);
}

// The handler's last value is offset + scale, also for a mode with no phases; values never fall.
TEST(MesherRun, ProgressEndsAtOffsetPlusScale) {
  for (unsigned mode : {0u, 2u, 3u}) {
    progress_log log;
    mesher m;
    m.settings.mode = mode;
    m.settings.progress_offset = 0.5;
    m.settings.progress_scale = 0.25;
    m.settings.interrupt_hdl = log_progress;
    m.settings.pass_thru = &log;
    data_type d = two_faces();
    m.run(d);
    ASSERT_FALSE(log.values.empty());
    EXPECT_DOUBLE_EQ(log.values.back(), 0.75);
    for (size_t k = 1; k < log.values.size(); ++k) EXPECT_GE(log.values[k], log.values[k - 1]);
    for (double v : log.values) EXPECT_GE(v, 0.5);
  }
}

// A throwing handler ends the run with -200 and a consistent record, never an escaping exception.
TEST(MesherRun, ThrowingHandlerIsInternalError) {
  mesher m;
  m.settings.interrupt_hdl = [](void*, double) -> bool { throw std::runtime_error("caller bug"); };
  data_type d = two_faces();
  EXPECT_NO_THROW(m.run(d));
  EXPECT_EQ(d.error_code, -200);
  EXPECT_STREQ(d.msg_title, "INTERNAL ERROR");
  EXPECT_STREQ(d.msg_text, "\nFile = voxfill/mesher_th4.cpp, line = 124.\n");
  EXPECT_EQ(m.settings.mode, 0u);
}

// Two meshers on two records on two threads give what sequential runs give: no shared state.
TEST(MesherThreads, TwoRunsAtOnce) {
  auto make = [](unsigned seed) {
    dense2D<double> pos(3, 200);
    unsigned x = seed;
    for (unsigned j = 0; j < 200; ++j)
      for (unsigned i = 0; i < 3; ++i) {
        x = x * 1664525u + 1013904223u;
        pos(i, j) = (x >> 8) / double(1u << 24);
      }
    data_type d(pos, dense2D<unsigned>());
    for (unsigned j = 0; j < 200; ++j) d.isolated_nodes.push_back(j);
    return d;
  };
  mesher m;
  m.settings.mode = 2;
  data_type s1 = make(1), s2 = make(2);
  m.run(s1);
  m.run(s2);
  data_type p1 = make(1), p2 = make(2);
  std::thread t1([&] { m.run(p1); });
  std::thread t2([&] { m.run(p2); });
  t1.join();
  t2.join();
  for (auto [a, b] : {std::pair{&s1, &p1}, std::pair{&s2, &p2}}) {
    EXPECT_EQ(a->error_code, b->error_code);
    ASSERT_EQ(a->connectM.cols, b->connectM.cols);
    for (unsigned j = 0; j < a->connectM.cols; ++j)
      for (unsigned i = 0; i < 4; ++i) EXPECT_EQ(a->connectM(i, j), b->connectM(i, j));
  }
}
