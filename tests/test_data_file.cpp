// The saved case file: exact layout, round trips, and every result of load on bad input.
#include <gtest/gtest.h>

#include <cfloat>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

#include "voxfill/mesher_th4.h"

using kelvo::dense1D;
using kelvo::dense2D;
using data_type = kelvo::voxfill::mesher::data_type;
namespace fs = std::filesystem;

namespace {

class DataFile : public testing::Test {
 protected:
  void SetUp() override {
    const std::string test = testing::UnitTest::GetInstance()->current_test_info()->name();
    dir = fs::path(testing::TempDir()) /
          ("voxfill_" + test + "_" + std::to_string(std::random_device{}()));
    fs::create_directories(dir);
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  std::string path(const char* name) const { return (dir / name).string(); }
  void write(const char* name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
  }
  std::string read(const char* name) const {
    std::ostringstream s;
    s << std::ifstream(path(name), std::ios::binary).rdbuf();
    return s.str();
  }
  int load_text(const std::string& text, data_type& d) const {
    write("in.txt", text);
    return d.load(path("in.txt").c_str());
  }
  fs::path dir;
};

template <class T>
dense2D<T> matrix(unsigned r, unsigned c, std::initializer_list<T> v) {
  dense2D<T> m(r, c);
  std::copy(v.begin(), v.end(), m.col(0));
  return m;
}
template <class T>
dense1D<T> list(std::initializer_list<T> v) {
  dense1D<T> l;
  for (T x : v) l.push_back(x);
  return l;
}

template <class T>
bool same(const dense2D<T>& a, const dense2D<T>& b) {
  if (a.rows != b.rows || a.cols != b.cols) return false;
  for (unsigned j = 0; j < a.cols; ++j)
    if (std::memcmp(a.col(j), b.col(j), sizeof(T) * a.rows)) return false;
  return true;
}
template <class T>
bool same(const dense1D<T>& a, const dense1D<T>& b) {
  return a.size == b.size && !std::memcmp(a.data(), b.data(), sizeof(T) * a.size);
}

data_type sample() {
  data_type d;
  d.pos = matrix<double>(3, 4, {0.1, 1.0 / 3, -2.5e-7, 1e300, -0.0, 5e-310, 7, 8, 9, 1, 2, 3});
  d.connectB = matrix<unsigned>(3, 2, {0, 1, 2, 0, 2, 3});
  d.connectE = matrix<unsigned>(2, 1, {1, 3});
  d.isolated_nodes = list<unsigned>({3});
  d.background_mesh = matrix<unsigned>(4, 1, {0, 1, 2, 3});
  d.metrics = list<double>({0.5, 1, 2, 3, 4, 5, 0.1});
  d.connectM = matrix<unsigned>(4, 2, {0, 1, 2, 3, 1, 2, 3, 0});
  d.colors = list<unsigned>({0, 1});
  d.exclusion_nodes = list<unsigned>({2});
  d.tet_count = 2;
  return d;
}

void expect_same_arrays(const data_type& a, const data_type& b) {
  EXPECT_TRUE(same(a.pos, b.pos));
  EXPECT_TRUE(same(a.connectB, b.connectB));
  EXPECT_TRUE(same(a.connectE, b.connectE));
  EXPECT_TRUE(same(a.isolated_nodes, b.isolated_nodes));
  EXPECT_TRUE(same(a.background_mesh, b.background_mesh));
  EXPECT_TRUE(same(a.metrics, b.metrics));
  EXPECT_TRUE(same(a.connectM, b.connectM));
  EXPECT_TRUE(same(a.colors, b.colors));
}

}  // namespace

// Save then load, with "\n" and with "\r\n": catches lost digits, swapped rows and columns,
// a misread line end, figures read back, or a section written for exclusion_nodes.
TEST_F(DataFile, RoundTrip) {
  const data_type d = sample();
  d.save(path("case.txt").c_str(), 16);
  data_type back;
  EXPECT_EQ(back.load(path("case.txt").c_str()), 2);  // the size of colors, the last section
  expect_same_arrays(d, back);
  EXPECT_TRUE(back.exclusion_nodes.empty());
  EXPECT_EQ(back.tet_count, 0u);

  std::string text = read("case.txt"), crlf;
  for (char c : text) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
  data_type back2;
  EXPECT_EQ(load_text(crlf, back2), 2);
  expect_same_arrays(d, back2);
}

// The header lines, the stream forms of the figures and the DATA part byte for byte: catches
// layout drift, printf forms leaking into the file and wrong list line breaks.
TEST_F(DataFile, ExactLayout) {
  data_type d;
  d.pos = matrix<double>(3, 2, {0, 1, 2, 3.5, -1, 1e-3});
  d.connectE = matrix<unsigned>(2, 1, {0, 1});
  d.metrics = list<double>({1, 2, 3, 4, 5, 6, 7});
  d.volume = 1.5;
  d.min_quality = 0.123456789;
  d.total_time = 0.1;
  d.speed = 20.0;
  d.warning_code = -16;
  std::strcpy(d.msg_title, "SHAPE QUALITY WARNING");
  std::strcpy(d.msg_text, "\nFile = f, line = 316.\n");
  d.save(path("case.txt").c_str(), 1);
  const std::string text = read("case.txt");
  std::istringstream lines(text);
  std::string l[7];
  for (std::string& s : l) std::getline(lines, s);
  EXPECT_EQ(l[1], "Kelvo Voxfill(R) Iso");
  EXPECT_EQ(l[2], "VERSION : 4.9.0.0");
  EXPECT_EQ(l[3].substr(0, 10) + std::to_string(l[3].size()), "BUILD   : 21");
  EXPECT_EQ(l[4].substr(0, 10) + std::to_string(l[4].size()), "RUN     : 34");
  EXPECT_EQ(l[5] + l[6], "****************************************");
  EXPECT_NE(text.find("\nVolume          : 1.5\nQmin            : 0.123457 (max-min: 0)\n"),
            std::string::npos);
  EXPECT_NE(text.find("\nTotal time      : 0.1 s. (20 th/s.)\n"
                      "Warning: -16 (SHAPE QUALITY WARNING).\n\nFile = f, line = 316.\n\n\n"
                      "DATA\n"),
            std::string::npos);
  const std::string data = text.substr(text.find("\nDATA\n"));
  EXPECT_EQ(data,
            "\nDATA\n"
            "\npos\n2 x 3[ \n     0.0e+00 1.0e+00 2.0e+00 \n     3.5e+00 -1.0e+00 1.0e-03 ]\n"
            "\nconnectB\n0 x 0[ ]\n"
            "\nconnectE\n1 x 2[ \n     0 1 ]\n"
            "\nisolated_nodes\n0[]\n"
            "\nbackground_mesh\n0 x 0[ ]\n"
            "\nmetrics\n7[1.0e+00 2.0e+00 3.0e+00 4.0e+00 5.0e+00 6.0e+00 \n7.0e+00 ]\n"
            "\nconnectM\n0 x 0[ ]\n"
            "\ncolors\n0[]\n");

  // An error hides the warning; the INF speed reads as in the report.
  d.error_code = -108;
  d.speed = DBL_MAX;
  d.save(path("case.txt").c_str(), 1);
  EXPECT_NE(read("case.txt").find("0.1 s. (INF th/s.)\nError: -108 (SHAPE"), std::string::npos);
}

// Message strings that read as section names must not turn the header into data.
TEST_F(DataFile, HeaderNeverNamesASection) {
  data_type d = sample();
  d.error_code = -102;
  std::strcpy(d.msg_title, "A\npos\nB");
  std::strcpy(d.msg_text, "metrics\r\ncolors");
  d.save(path("case.txt").c_str(), 16);
  data_type back;
  EXPECT_EQ(back.load(path("case.txt").c_str()), 2);
  expect_same_arrays(d, back);
}

// Each result of load, including truncated sections and absurd counts, which must neither
// allocate gigabytes nor crash. Catches wrong codes and a count trusted before its values.
TEST_F(DataFile, LoadResults) {
  const std::string pos = "pos\n2 x 3[ \n     1 2 3 \n     4 5 6 ]\n";
  const struct {
    std::string text;
    int result;
  } cases[] = {
      {"header line\n" + pos, 0},
      {"pos\n2 3\n1 2 3 4 5 6\n", 0},  // "x" and brackets are optional
      {"pos\n2 x 3[ 1 2 3 4 5 6", 0},  // a matrix may end the file without "]"
      {pos + "\ncolors\n0[]", 0},
      {pos + "colors\n9[ 4 5 ]\nmetrics\n[ 1 2 3 ]\n", 3},  // the values decide the size
      {pos + "metrics\n2[1 2]\nconnectM\n0 x 4[ ]\n", 0},   // the last section's result
      {"colors\n2[0 1 ]\n", -2},
      {"pos\n2 x 3[ 1 2 abc 4 5 6 ]\n", -2},
      {"pos\n4294967295 x 3[\n", -2},
      {pos + "connectM\n1 x 4[ 1 2 x 4 ]\n", -1},
      {pos + "metrics\n3 1 2 3\n", -1},
      {pos + "colors\n2[0 1", -1},
      {pos + "colors\n[0 a ]\n", -1},
      {pos + "connectB\n100000000 x 3[\n", -1},
      {pos + "connectM\n4294967295 x 3[\n", -199},
      {pos + "metrics\n4294967295[ 1 ]\n", 1},
  };
  for (const auto& c : cases) {
    data_type d;
    EXPECT_EQ(load_text(c.text, d), c.result) << c.text;
    if (c.result >= 0) {
      EXPECT_TRUE(same(d.pos, matrix<double>(3, 2, {1, 2, 3, 4, 5, 6}))) << c.text;
    }
  }
  // A file with only "pos" leaves every other array empty.
  data_type only;
  EXPECT_EQ(load_text(pos, only), 0);
  EXPECT_TRUE(only.connectB.empty() && only.connectE.empty() && only.isolated_nodes.empty() &&
              only.background_mesh.empty() && only.metrics.empty() && only.connectM.empty() &&
              only.colors.empty());
  // A second "pos" replaces the first; a later broken section keeps what was read.
  data_type d;
  EXPECT_EQ(load_text(pos + "pos\n1 x 3[ 7 8 9 ]\nconnectE\n1 x 2[ 0 ", d), -1);
  EXPECT_TRUE(same(d.pos, matrix<double>(3, 1, {7, 8, 9})));
  EXPECT_EQ(d.load(path("missing.txt").c_str()), -1);
  EXPECT_TRUE(d.pos.empty());
  EXPECT_EQ(d.load(nullptr), -1);
}

// A path that cannot be opened: no file, no crash, no report.
TEST_F(DataFile, SaveToUnopenablePathDoesNothing) {
  const data_type d = sample();
  d.save(path("no_such_dir/case.txt").c_str(), 6);
  d.save(nullptr, 6);
  EXPECT_FALSE(fs::exists(dir / "no_such_dir"));
}
