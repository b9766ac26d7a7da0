// The saved case file: a header for the human reader, then the arrays in named sections.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <locale>
#include <string>
#include <string_view>

#include "voxfill/mesher_th4.h"

namespace kelvo::voxfill {
namespace {

// The sections in the order save writes them; load compares whole lines against these names.
constexpr const char* kSections[] = {
    "pos",     "connectB", "connectE", "isolated_nodes", "background_mesh",
    "metrics", "connectM", "colors"};

// The stream's conversion puts all digits on the stack; a double has no digit to show past its
// 767th, so a larger precision would only add zeros.
constexpr unsigned kMaxPrecision = 800;
// Elements reserved before the values are seen: a count in a file is only a hint.
constexpr unsigned kFirstReserve = 1u << 12;

// Index of the section that the line names, -1 for any other line. One trailing "\r" is ignored.
int section_of(std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  for (int s = 0; s < int(std::size(kSections)); ++s)
    if (line == kSections[s]) return s;
  return -1;
}

// ---- writing

// Times go out in single precision; a value beyond its range becomes infinite, not undefined.
float single(double v) {
  if (v > FLT_MAX) return INFINITY;
  if (v < -FLT_MAX) return -INFINITY;
  return float(v);
}

// The local time as ctime writes it, without the newline: "Wed Jun 30 21:49:08 1993".
std::string local_time() {
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const std::time_t now = std::time(nullptr);
  std::tm t{};
  // The reentrant forms keep two records saved at once from sharing a static result.
#ifdef _WIN32
  localtime_s(&t, &now);
#else
  localtime_r(&now, &t);
#endif
  char buf[64];
  std::snprintf(buf, sizeof buf, "%s %s%3d %.2d:%.2d:%.2d %d", kDays[t.tm_wday % 7],
                kMonths[t.tm_mon % 12], t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, t.tm_year + 1900);
  return buf;
}

// Writes a message string (a fixed array, perhaps unterminated). A line of it that reads as a
// section name gets a leading blank, so that load never takes the header for data. With
// `own_lines` false the string stands inside a line, and only its inner lines are whole.
void write_message(std::ostream& out, const char* s, bool own_lines) {
  const char* end = static_cast<const char*>(std::memchr(s, 0, 256));
  if (!end) end = s + 256;
  for (const char* p = s;;) {
    const char* nl = std::find(p, end, '\n');
    const bool whole = own_lines || (p != s && nl != end);
    if (whole && section_of(std::string_view(p, std::size_t(nl - p))) >= 0) out << ' ';
    out.write(p, nl - p);
    if (nl == end) break;
    out << '\n';
    p = nl + 1;
  }
}

// The figures of the run report, with the values in the stream's default format.
void write_info(std::ostream& out, const mesher::data_type& d) {
  const char* stars = "****************************************\n";
  out << stars << "*    Kelvo Voxfill(R) Iso (" << version() << ")    *\n" << stars;
  out << "Hard nodes      : " << d.hard_nodes_out << " (" << d.hard_nodes_in << " in)\n";
  out << "Hard edges      : " << d.hard_edges_out << " (" << d.hard_edges_in << " in)\n";
  out << "Hard faces      : " << d.hard_faces_out << " (" << d.hard_faces_in << " in)\n";
  out << "Nodes           : " << d.used_node_count << '\n';
  out << "Tets            : " << d.tet_count << '\n';
  out << "Missing faces   : " << d.missing_faces.size << '\n';
  out << "Subdomains      : " << d.subdomains << '\n';
  out << "Volume          : " << d.volume << '\n';
  out << "Qmin            : " << d.min_quality << " (max-min: " << d.quality_bound << ")\n";
  out << "Steiner nodes   : " << d.steiner_nodes << '\n';
  out << "Front time      : " << single(d.front_time) << " s.\n";
  out << "Refine time     : " << single(d.refine_time) << " s.\n";
  out << "Optim time      : " << single(d.optim_time) << " s.\n";
  out << "Total time      : " << single(d.total_time);
  if (d.speed >= double(FLT_MAX))
    out << " s. (INF th/s.)\n";
  else
    out << " s. (" << single(d.speed) << " th/s.)\n";
  // As in the report, a warning is not shown while an error stands.
  const int code = d.error_code ? d.error_code : d.warning_code;
  if (!code) return;
  out << (d.error_code ? "Error: " : "Warning: ") << code << " (";
  write_message(out, d.msg_title, false);
  out << ").\n";
  write_message(out, d.msg_text, true);
  out << '\n';
}

// "c x r[ ", then one column per line, "]\n". An empty matrix has no line of values.
template <class T>
void write_matrix(std::ostream& out, const dense2D<T>& m) {
  out << m.cols << " x " << m.rows << "[ ";
  for (unsigned j = 0; j < m.cols && m.rows && out; ++j) {
    out << "\n     ";
    for (unsigned i = 0; i < m.rows && out; ++i) out << m(i, j) << ' ';
  }
  out << "]\n";
}

// "n[", k values per full line, the rest on the last line, "]\n".
template <class T>
void write_list(std::ostream& out, const dense1D<T>& v, unsigned k) {
  out << v.size << '[';
  for (unsigned i = 0; i < v.size && out; ++i) {
    out << v[i] << ' ';
    if ((i + 1) % k == 0) out << '\n';
  }
  out << "]\n";
}

// ---- reading

bool is_blank(int ch) {
  return ch == ' ' || (ch >= '\t' && ch <= '\r');
}
bool is_digit(int ch) {
  return ch >= '0' && ch <= '9';
}

// Skips white space and takes the next character. The end of a sound stream sets only eofbit,
// so that a matrix may end the file without its "]". EOF on a failed stream.
int next_char(std::istream& in) {
  if (!in.good()) return EOF;
  std::streambuf* sb = in.rdbuf();
  int ch = sb->sbumpc();
  while (ch != EOF && is_blank(ch)) ch = sb->sbumpc();
  if (ch == EOF) in.setstate(std::ios::eofbit);
  return ch;
}

void put_back(std::istream& in) {
  in.rdbuf()->sungetc();
}

// Skips blanks and one character that cannot start a count, such as the "x". False at the end.
bool skip_to_count(std::istream& in) {
  const int ch = next_char(in);
  if (is_digit(ch)) put_back(in);
  return ch != EOF;
}

// Appends, growing by doubling but never past `limit` elements. False when memory runs out.
template <class T>
bool append(dense1D<T>& v, const T& x, std::uint64_t limit) {
  if (v.size == v.capacity()) {
    const std::uint64_t want = std::min<std::uint64_t>(std::max(2ull * v.size, 16ull), limit);
    if (!v.reserve(unsigned(std::max<std::uint64_t>(want, v.size + 1ull)))) return false;
  }
  v.push_back(x);
  return true;
}

// Reads "c x r[ values ]" column by column into m; the "x" and the brackets are optional.
// 0, or -1 for a broken body (the whole columns read are kept), -199 when memory runs out.
template <class T>
int read_matrix(std::istream& in, dense2D<T>& m) {
  m.clear();
  unsigned c = 0, r = 0;
  if (!skip_to_count(in) || !(in >> c) || !skip_to_count(in) || !(in >> r)) return -1;
  const int ch = next_char(in);
  if (ch == EOF) return -1;
  if (ch != '[') put_back(in);
  const std::uint64_t n = std::uint64_t(r) * c;
  // No buffer holds more than 4 GiB: such a count fails as its allocation would.
  if (n > 0xFFFFFFFFull / sizeof(T)) return -199;
  // The values, not the counts, decide how much memory is taken: a truncated file with an
  // absurd count costs little. The buffer is handed to the matrix at the end, not copied.
  dense1D<T> v;
  bool out_of_memory = !v.reserve(unsigned(std::min<std::uint64_t>(n, kFirstReserve)));
  T x;
  while (!out_of_memory && v.size < n && in >> x) out_of_memory = !append(v, x, n);
  m.vec = v.vec;
  m.offset = 0;
  m.rows = m.ld = r;
  m.cols = r ? v.size / r : c;
  m.size = m.rows * m.cols;
  if (out_of_memory) return -199;
  if (!in.fail()) {
    const int close = next_char(in);
    if (close != EOF && close != ']') put_back(in);
  }
  return in.fail() ? -1 : 0;
}

// Reads "n[ values ]" into v; the count is optional and only a hint, the "[" and "]" are
// required. The number of values, -1 for a broken body, -199 when memory runs out.
template <class T>
int read_list(std::istream& in, dense1D<T>& v) {
  v.clear();
  int ch = next_char(in);
  if (is_digit(ch)) {
    put_back(in);
    unsigned n = 0;
    // A failed reserve is harmless here: the first append reports the shortage.
    if (in >> n) v.reserve(std::min(n, kFirstReserve));
    ch = next_char(in);
  }
  if (ch != '[') {
    if (ch != EOF) put_back(in);
    return -1;
  }
  T x;
  for (ch = next_char(in); ch != EOF && ch != ']'; ch = next_char(in)) {
    put_back(in);
    if (in >> x && !append(v, x, 0xFFFFFFFFull)) return -199;
  }
  return ch == EOF ? -1 : int(v.size);
}

}  // namespace

void mesher::data_type::save(const char* path, unsigned precision) const {
  if (!path) return;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) return;
  // The classic locale keeps a caller's global locale (thousands separators) out of the file.
  out.imbue(std::locale::classic());
  out << "Copyright (c) Kelvo. All rights reserved.\n"
      << "Kelvo Voxfill(R) Iso\n"
      << "VERSION : " << version() << '\n'
      << "BUILD   : " << VOXFILL_BUILD_DATE << '\n'
      << "RUN     : " << local_time() << "\n\n";
  write_info(out, *this);
  out << "\nDATA\n";
  out.flags(std::ios::scientific);
  out.precision(std::min(precision, kMaxPrecision));
  // Each section: an empty line, its name on a line of its own, the body.
  const auto section = [&](int s) -> std::ostream& { return out << '\n' << kSections[s] << '\n'; };
  write_matrix(section(0), pos);
  write_matrix(section(1), connectB);
  write_matrix(section(2), connectE);
  write_list(section(3), isolated_nodes, 20);
  write_matrix(section(4), background_mesh);
  write_list(section(5), metrics, 6);
  write_matrix(section(6), connectM);
  write_list(section(7), colors, 20);
}

int mesher::data_type::load(const char* path) {
  std::ifstream in;
  if (path) in.open(path, std::ios::binary);
  clear();
  if (!in.is_open()) return -1;
  in.imbue(std::locale::classic());
  std::string line;
  int result = 0;
  bool pos_read = false;
  // Any line that names no section is skipped: that is how the header passes.
  while (result >= 0 && std::getline(in, line)) {
    switch (section_of(line)) {
      case 0:
        result = read_matrix(in, pos);
        pos_read = result >= 0;
        break;
      case 1:
        result = read_matrix(in, connectB);
        break;
      case 2:
        result = read_matrix(in, connectE);
        break;
      case 3:
        result = read_list(in, isolated_nodes);
        break;
      case 4:
        result = read_matrix(in, background_mesh);
        break;
      case 5:
        result = read_list(in, metrics);
        break;
      case 6:
        result = read_matrix(in, connectM);
        break;
      case 7:
        result = read_list(in, colors);
        break;
      default:
        break;
    }
  }
  return pos_read ? result : -2;
}

}  // namespace kelvo::voxfill
