// Exact text of the run report that print_info sends to the display handler.
#include <gtest/gtest.h>

#include <cfloat>
#include <cstring>
#include <string>

#include "voxfill/mesher_th4.h"

using kelvo::dense1D;
using kelvo::voxfill::histogram;
using data_type = kelvo::voxfill::mesher::data_type;

namespace {

std::string g_text;
int g_bad_calls = 0;

void capture(void* pass_thru, unsigned level, const char* piece) {
  if (pass_thru != nullptr || level != 0 || !piece) ++g_bad_calls;
  g_text += piece;
}

std::string report(const data_type& d) {
  g_text.clear();
  g_bad_calls = 0;
  d.print_info(capture);
  EXPECT_EQ(g_bad_calls, 0);
  return g_text;
}

const std::string kBanner =
    "****************************************\n"
    "*    Kelvo Voxfill(R) Iso (4.9.0.0)    *\n"
    "****************************************\n";

histogram make_histogram(std::initializer_list<double> bounds) {
  dense1D<double> b;
  for (double x : bounds) b.push_back(x);
  return histogram(b);
}

}  // namespace

// Fresh record: catches wrong labels, column widths, %E/%.2f forms or a stray histogram block.
TEST(RunReport, FreshRecordExactText) {
  data_type d;
  EXPECT_EQ(report(d), kBanner +
                           "Hard nodes      : 0 (0 in)\n"
                           "Hard edges      : 0 (0 in)\n"
                           "Hard faces      : 0 (0 in)\n"
                           "Nodes           : 0\n"
                           "Tets            : 0\n"
                           "Missing faces   : 0\n"
                           "Subdomains      : 0\n"
                           "Volume          : 0.000000E+00\n"
                           "Qmin            : 0.000000E+00 (max-min: 0.000000E+00)\n"
                           "Steiner nodes   : 0\n"
                           "Front time      : 0.00 s.\n"
                           "Refine time     : 0.00 s.\n"
                           "Optim time      : 0.00 s.\n"
                           "Total time      : 0.00 s. (0.00 th/s.)\n");
  d.print_info(nullptr);  // a null handler is simply not called
}

// An error hides the warning and the histograms; a warning alone shows them. Catches wrong
// precedence of the two codes and histograms printed under an error.
TEST(RunReport, ErrorHidesWarningAndHistograms) {
  data_type d;
  d.hard_nodes_out = 8;
  d.hard_nodes_in = 9;
  d.volume = 1.5;
  d.min_quality = 0.25;
  d.quality_bound = DBL_MAX;
  d.total_time = 1.234;
  d.speed = 1000.5;
  d.histo_Qs.process(0.5);
  d.warning_code = -16;
  d.error_code = -102;
  std::strcpy(d.msg_title, "DATA ERROR");
  std::strcpy(d.msg_text, "\nFile = voxfill/mesher_th4.cpp, line = 107.\n");
  const std::string text = report(d);
  EXPECT_NE(text.find("Hard nodes      : 8 (9 in)\n"), std::string::npos);
  EXPECT_NE(text.find("Volume          : 1.500000E+00\n"), std::string::npos);
  EXPECT_NE(text.find("Qmin            : 2.500000E-01 (max-min: 1.797693E+308)\n"),
            std::string::npos);
  EXPECT_NE(text.find("Total time      : 1.23 s. (1000.50 th/s.)\n"), std::string::npos);
  const std::string tail =
      "Error: -102 (DATA ERROR).\n\nFile = voxfill/mesher_th4.cpp, line = 107.\n\n";
  EXPECT_EQ(text.substr(text.size() - tail.size()), tail);

  d.error_code = 0;
  std::strcpy(d.msg_title, "SHAPE QUALITY WARNING");
  EXPECT_NE(report(d).find("Warning: -16 (SHAPE QUALITY WARNING).\n\nFile = "), std::string::npos);
  EXPECT_NE(g_text.find("HISTOGRAM QS"), std::string::npos);
}

// Both histogram tables: catches a wrong bin order, row format, statistics or a missing +INF.
TEST(RunReport, HistogramTables) {
  data_type d;
  for (double q : {0.05, 0.35, 0.95, 0.95}) d.histo_Qs.process(q);
  d.histo_Qh.process(20.0);
  d.histo_Qh.process(1.05);
  const std::string text = report(d);
  const std::string qs =
      "\n************ HISTOGRAM QS ************\n"
      "Total number of bins     :           11 \n"
      "Total number of counts   :            4 \n"
      "Number of larger values  :            0 \n"
      "Number of smaller values :            0 \n"
      "V max                    : 9.500000E-01\n"
      "V mean                   : 5.750000E-01\n"
      "V min                    : 5.000000E-02\n"
      "\nBin number       -- Bin boundaries --          Hits\n\n"
      "   10            0.90            1.00             2\n"
      "    9            0.80            0.90             0\n"
      "    8            0.70            0.80             0\n"
      "    7            0.60            0.70             0\n"
      "    6            0.50            0.60             0\n"
      "    5            0.40            0.50             0\n"
      "    4            0.30            0.40             1\n"
      "    3            0.20            0.30             0\n"
      "    2            0.10            0.20             0\n"
      "    1            0.01            0.10             1\n"
      "    0            0.00            0.01             0\n"
      "\n************ HISTOGRAM QH ************\n"
      "Total number of bins     :           20 \n";
  EXPECT_NE(text.find("Total time      : 0.00 s. (0.00 th/s.)\n" + qs), std::string::npos);
  EXPECT_NE(text.find("\n   19           10.00            +INF             1\n"
                      "   18            5.00           10.00             0\n"),
            std::string::npos);
  EXPECT_NE(text.find("\n   10            1.00            1.11             1\n"),
            std::string::npos);
  const std::string last = "    0            0.00            0.10             0\n";
  EXPECT_EQ(text.substr(text.size() - last.size()), last);

  // Open lower bounds print as -INF, alone or with +INF.
  d.histo_Qh = histogram();
  d.histo_Qs = make_histogram({-DBL_MAX, 0.0, DBL_MAX});
  d.histo_Qs.process(-1.0);
  EXPECT_NE(report(d).find("    1            0.00            +INF             0\n"
                           "    0            -INF            0.00             1\n"),
            std::string::npos);
  d.histo_Qs = make_histogram({-DBL_MAX, DBL_MAX});
  d.histo_Qs.process(3.0);
  EXPECT_NE(report(d).find("    0            -INF            +INF             1\n"),
            std::string::npos);
}

// A speed at single-precision overflow prints INF: catches a wrong threshold or comparison.
TEST(RunReport, InfiniteSpeed) {
  data_type d;
  d.total_time = 0.0;
  for (double s : {DBL_MAX, double(FLT_MAX)}) {
    d.speed = s;
    EXPECT_NE(report(d).find("Total time      : 0.00 s. (INF th/s.)\n"), std::string::npos);
  }
  d.speed = 1e30;
  EXPECT_EQ(report(d).find("INF"), std::string::npos);
}
