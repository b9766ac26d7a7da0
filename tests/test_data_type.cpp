// The public record: validity codes, copying semantics, clearing, and the raising rules.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "voxfill/mesher_th4.h"
#include "voxfill/messages.h"

using kelvo::dense1D;
using kelvo::dense2D;
using data_type = kelvo::voxfill::mesher::data_type;
using settings_type = kelvo::voxfill::mesher::settings_type;

namespace {

data_type cube_record() {
  dense2D<double> pos(3, 8);
  for (unsigned j = 0; j < 8; ++j)
    for (unsigned i = 0; i < 3; ++i) pos(i, j) = (j >> i) & 1;
  dense2D<unsigned> tri(3, 2);
  const unsigned t[6] = {0, 1, 3, 0, 3, 2};
  for (unsigned k = 0; k < 6; ++k) tri.vec->data[k] = t[k];
  return data_type(pos, tri);
}

}  // namespace

// Each failing test must give its own code, in the documented order, and an empty record passes.
TEST(DataType, CheckCodes) {
  data_type d;
  EXPECT_EQ(d.check(), 0);
  d.pos.resize(3, 0);
  EXPECT_EQ(d.check(), 0);
  d.pos.clear_hard();
  d.pos.resize(2, 0);
  EXPECT_EQ(d.check(), 0);  // 2 x 0 is empty
  d.pos.resize(2, 5);
  EXPECT_EQ(d.check(), -1);

  d = cube_record();
  EXPECT_EQ(d.check(), 0);
  d.connectB(2, 1) = 8;
  EXPECT_EQ(d.check(), -2);
  d = cube_record();
  d.connectE.resize(3, 1, 0u);  // wrong row count for edges
  EXPECT_EQ(d.check(), -3);
  d = cube_record();
  d.isolated_nodes.push_back(8);
  EXPECT_EQ(d.check(), -4);
  d.isolated_nodes.clear();
  d.exclusion_nodes.push_back(8);
  EXPECT_EQ(d.check(), -5);
  d.exclusion_nodes.clear();
  d.connectM.resize(4, 1, 0u);
  d.connectM(3, 0) = 9;
  EXPECT_EQ(d.check(), -6);
  d.connectM(3, 0) = 7;
  d.background_mesh.resize(4, 1, 1u);
  d.background_mesh(0, 0) = 100;
  EXPECT_EQ(d.check(), -7);
  d.background_mesh(0, 0) = 4;
  EXPECT_EQ(d.check(), -8);  // a background mesh needs sizes
  d.metrics.resize(5, 1.0);
  EXPECT_EQ(d.check(), 0);
  d.metrics[4] = 0.0;
  EXPECT_EQ(d.check(), -8);
  d.metrics[4] = 2.0;
  d.colors.resize(2, 0u);
  EXPECT_EQ(d.check(), -12);

  data_type e;
  e.colors.resize(2, 0u);
  EXPECT_EQ(e.check(), -12);
}

// Deep copy must not share with the source; shallow copy must.
TEST(DataType, CopyAndShallowCopy) {
  data_type a = cube_record();
  a.metrics.resize(8, 1.0);
  a.error_code = -102;
  std::strcpy(a.msg_title, "DATA ERROR");
  data_type b;
  b = a;
  b.pos(0, 1) = 42.0;
  b.metrics[0] = 3.0;
  EXPECT_EQ(a.pos(0, 1), 1.0);
  EXPECT_EQ(a.metrics[0], 1.0);
  EXPECT_EQ(b.error_code, -102);
  EXPECT_STREQ(b.msg_title, "DATA ERROR");
  data_type c(a);
  c.connectB(0, 0) = 5;
  EXPECT_EQ(a.connectB(0, 0), 0u);

  data_type s;
  s.shallow_copy(a);
  s.pos(0, 1) = 7.0;
  EXPECT_EQ(a.pos(0, 1), 7.0);

  dense2D<double> p;
  dense2D<unsigned> m;
  a.connectM.resize(4, 1, 2u);
  a.extract(p, m);
  EXPECT_EQ(p.vec.get(), a.pos.vec.get());
  EXPECT_EQ(m.vec.get(), a.connectM.vec.get());
}

// clear_data_out keeps inputs that are also outputs and drops pure outputs; histograms rebuilt.
TEST(DataType, ClearDataOut) {
  data_type d = cube_record();
  d.connectM.resize(4, 2, 0u);
  d.neighbors.resize(4, 2, 0u);
  d.tet_count = 2;
  d.volume = 1.0;
  d.histo_Qs.process(0.5);
  d.clear_data_out();
  EXPECT_EQ(d.connectM.cols, 2u);
  EXPECT_TRUE(d.neighbors.empty());
  EXPECT_EQ(d.tet_count, 0u);
  EXPECT_EQ(d.volume, 0.0);
  EXPECT_EQ(d.histo_Qs.total_hits(), 0u);
  EXPECT_EQ(d.histo_Qs.bins(), 11u);
  EXPECT_EQ(d.histo_Qh.bins(), 20u);
  EXPECT_EQ(d.histo_Qs.lower_bin_bound(1), 0.01);
  EXPECT_EQ(d.histo_Qh.lower_bin_bound(20), DBL_MAX);

  dense1D<unsigned> ids, starts;
  d.connectM.resize(4, 4, 0u);
  d.colors.clear();
  for (unsigned c : {1u, 0u, 1u, 0u}) d.colors.push_back(c);
  d.IDs_sorted_by_color(ids, starts);
  ASSERT_EQ(ids.size, 4u);
  EXPECT_EQ(ids[0], 1u);
  EXPECT_EQ(ids[1], 3u);
  EXPECT_EQ(ids[2], 0u);
  ASSERT_EQ(starts.size, 3u);
  EXPECT_EQ(starts[1], 2u);
}

// Bin edges: a value on a lower bound goes into that bin; DBL_MAX as top catches every finite
// value.
TEST(DataType, HistogramBins) {
  data_type d;
  d.histo_Qs.process(0.1);
  d.histo_Qs.process(1.0);
  d.histo_Qs.process(-0.5);
  EXPECT_EQ(d.histo_Qs.hits(2), 1u);
  EXPECT_EQ(d.histo_Qs.hits(10), 1u);
  EXPECT_EQ(d.histo_Qs.smaller(), 1u);
  d.histo_Qh.process(1e300);
  EXPECT_EQ(d.histo_Qh.hits(19), 1u);
  EXPECT_EQ(d.histo_Qh.larger(), 0u);
  EXPECT_DOUBLE_EQ(d.histo_Qs.mean_value(), 0.2);
  EXPECT_EQ(d.histo_Qs.min_value(), -0.5);
}

// The first error wins; a warning does not survive an error; an error after a warning takes the
// strings.
TEST(DataType, RaisingRules) {
  using namespace kelvo::voxfill;
  data_type d;
  record_error(d.error_code, d.msg_title, d.msg_text, message(msg::data_error_check));
  record_error(d.error_code, d.msg_title, d.msg_text, message(msg::memory_error_run));
  EXPECT_EQ(d.error_code, -102);
  EXPECT_STREQ(d.msg_title, "DATA ERROR");
  EXPECT_STREQ(d.msg_text, "\nFile = voxfill/mesher_th4.cpp, line = 107.\n");

  data_type w;
  record_warning(w.error_code, w.warning_code, w.msg_title, w.msg_text,
                 message(msg::shape_quality_mode0));
  record_error(w.error_code, w.msg_title, w.msg_text, message(msg::degenerated_mode0));
  record_warning(w.error_code, w.warning_code, w.msg_title, w.msg_text,
                 message(msg::nodes_limit_warning));
  EXPECT_EQ(w.warning_code, -16);
  EXPECT_EQ(w.error_code, -108);
  EXPECT_STREQ(w.msg_title, "DEGENERATED ELEMENT");
  EXPECT_STREQ(w.msg_text, "\nFile = voxfill/delaunay_th4.cpp, line = 315.\n");

  data_type k;
  record_error(k.error_code, k.msg_title, k.msg_text, message(msg::aligned_nodes));
  EXPECT_STREQ(k.msg_text, "Aligned nodes.\nFile = delaunay/delaunay_mgr.cpp, line = 474.\n");
  // Every row fits the record's buffers.
  for (unsigned i = 0; i < unsigned(msg::count); ++i) {
    char text[512];
    format_message_text(message(msg(i)), text, sizeof text);
    EXPECT_LT(std::strlen(text), 256u);
  }
}

// Settings codes in their order; NaN shape weight and edge length fail, NaN gradation passes.
TEST(Settings, CheckCodes) {
  settings_type s;
  EXPECT_EQ(s.check(), 0);
  s.size_gradation = -0.1;
  s.shape_weight = 2.0;
  EXPECT_EQ(s.check(), -14);
  s.size_gradation = std::nan("");
  EXPECT_EQ(s.check(), -15);
  s.shape_weight = std::nan("");
  EXPECT_EQ(s.check(), -15);
  s.shape_weight = 1.0;
  s.max_edge_length = 0.0;
  EXPECT_EQ(s.check(), -16);
  s.max_edge_length = std::nan("");
  EXPECT_EQ(s.check(), -16);
  s.reset();
  EXPECT_EQ(s.max_edge_length, 1.414);
  EXPECT_EQ(s.nodes_limit, 0xFFFFFFFFu);
  EXPECT_STREQ(kelvo::voxfill::version(), "4.9.0.0");
}
